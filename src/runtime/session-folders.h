// session-folders.h: the daemon's own folders inside a sync folder: the working directory,
// which holds transfers in progress and which the change watcher ignores, and the recycle
// bin inside it, where copies of what server changes took from the disk wait. Used by the
// detector, the workers, the recycle bin rotation and the session's start.
#pragma once

#include "foundation/ustring.h"

namespace session_folders {

// A top-level directory of the sync folder; its name starts with a dot, which hides it.
constexpr const char* kWorkingDirectory = ".ZephanorWorkingDirectory";
// Inside the working directory.
constexpr const char* kRecycleBin = "#ZephRecycle";

// `local_path` + "/" + kWorkingDirectory.
ustring WorkingDirectory(const ustring& local_path);
// The working directory + "/" + kRecycleBin.
ustring RecycleBinDir(const ustring& local_path);

// A session's start: removes the working directory with everything in it (what a crash
// left there is worth nothing now) and makes it and the recycle bin anew. The bin's
// records in the session's database must be emptied with it. 0; -1 when the bin can't be
// made, or when something other than a directory (a link) stands in the working
// directory's place, which is then left as it is.
int ResetWorkingDirectory(const ustring& local_path);

}  // namespace session_folders
