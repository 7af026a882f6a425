// conflict-name.h: moving a local object aside under a free name when it cannot keep its
// own, so that the user finds both versions. Used by upload, download and removal.
//
// Both functions stamp the name with the local time ("%b-%d-%H%M-%Y", minute grain), try
// numbered names while a candidate exists, and rename through the file layer. They log
// under "conflict_rename_debug" and take no lock.
#pragma once

#include <cstdint>

#include "foundation/ustring.h"

// Renames `org_path` to "<stem>_<client_name>_<stamp>_<reason><ext>" or, when taken,
// with "_1" .. "_99" after the reason. When even "_99" is taken the rename is refused
// (-1), so no earlier copy is overwritten. 0; otherwise the error of FSRename (nothing
// moved).
int ConflictRename(const ustring& org_path, const ustring& client_name, const ustring& reason);

// For a `basename` with blanks at its ends: renames `fullpath` to the trimmed name beside
// it, or, when that is taken, to "<stem>_<clientname>_<stamp>_WhiteSpaceConflict<ext>"
// numbered "_0" .. "_99" while taken; -1 when all are taken. 0; otherwise the error of
// FSRename.
int WhiteSpaceConflictRename(const ustring& fullpath, const ustring& basename,
                             const ustring& clientname);

// The stamp of conflict names for `when` (seconds since 1970) in local time, with the
// locale's month name: "Mar-05-1407-2013".
ustring ConflictTimeStamp(int64_t when);
