// volume.h (POSIX): what the file system type of a volume means for synchronisation.
// Used by the POSIX FileSystem's volume_info.
#pragma once

#include <cstdint>

#include "platform/fs.h"

namespace platform {

// Describes the type magic reported by statfs: name, class, FAT-ness and whether
// the whole volume folds case. Unknown types are fixed, case-sensitive volumes
// named by their magic in hex.
VolumeInfo describe_volume_type(uint64_t magic);

// statfs of `path`, then describe_volume_type; on ext4 and f2fs a directory may
// fold case on its own (the casefold attribute), which is asked of `path` itself.
int posix_volume_info(const char* path, VolumeInfo& out, int* err);

}  // namespace platform
