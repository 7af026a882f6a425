// policy.cpp: the sync folder rule on the platform seam.
#include "foundation/policy.h"

#include "foundation/log.h"
#include "platform/fs.h"

namespace {

const char kLog[] = "file_op_debug";

bool refuse(const ustring& path, const char* why) {
    Logger::LogMsg(Logger::L_WARNING, kLog,
                   "[WARNING] policy(%d): '%s' is not a valid sync folder: %s\n", __LINE__,
                   path.c_str_utf8(), why);
    return false;
}

}  // namespace

bool IsValidSyncFolder(const ustring& folder_path) {
    if (folder_path.empty() || !platform::is_path_separator(folder_path[0]))
        return refuse(folder_path, "not an absolute path");
    platform::FileSystem& fs = platform::file_system();
    platform::NodeInfo node;
    int err = 0;
    if (fs.lstat(folder_path.c_str_utf8(), node, &err) != 0)
        return refuse(folder_path, "cannot be found");
    if (node.kind != platform::NodeKind::kDirectory) return refuse(folder_path, "not a directory");
    platform::VolumeInfo vol;
    if (fs.volume_info(folder_path.c_str_utf8(), vol, &err) != 0)
        return refuse(folder_path, "volume cannot be queried");
    if (vol.klass == platform::VolumeClass::kRemote) return refuse(folder_path, "network volume");
    if (vol.klass == platform::VolumeClass::kOptical) return refuse(folder_path, "optical medium");
    return true;
}
