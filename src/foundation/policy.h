// policy.h: which folders may become the root of a session. Used by session set-up
// before a folder is paired with a view.
#pragma once

#include "foundation/ustring.h"

// True for an absolute path naming an existing directory (not a symbolic link) on a
// local volume, fixed, removable or in memory. Folders on network file systems (NFS,
// SMB/CIFS and the like) and on optical media are refused, since their change
// notifications and locking cannot be trusted. Reasons for a refusal are logged.
bool IsValidSyncFolder(const ustring& folder_path);
