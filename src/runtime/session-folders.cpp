// session-folders.cpp: the names of the daemon's folders in a sync folder, and their reset.
#include "runtime/session-folders.h"

#include "foundation/file-op.h"

namespace session_folders {

ustring WorkingDirectory(const ustring& local_path) {
    return local_path + "/" + kWorkingDirectory;
}

ustring RecycleBinDir(const ustring& local_path) {
    return WorkingDirectory(local_path) + "/" + kRecycleBin;
}

int ResetWorkingDirectory(const ustring& local_path) {
    const ustring working = WorkingDirectory(local_path);
    FSRemove(working, false);
    FSMKDir(working);
    // A link or a file in its place is neither removed nor followed: the bin made through
    // a link would be somewhere else, where the bin's rotation deletes files.
    FILE_INFO info;
    if (FSStat(working, info) != 0 || !info.isExist || info.type != FT_DIR) return -1;
    return FSMKDir(RecycleBinDir(local_path)) == 0 ? 0 : -1;
}

}  // namespace session_folders
