// volume.cpp (POSIX): volume facts from statfs and the casefold directory attribute.
#include "platform/posix/volume.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace platform {
namespace {

struct TypeRow {
    uint64_t magic;
    const char* name;
    VolumeClass klass;
    bool is_fat;
    bool folds_case;
};

// Types a sync folder commonly lives on, and those that must be recognised to be
// refused (network and optical media).
const TypeRow kTypes[] = {
    {EXT4_SUPER_MAGIC, "ext4", VolumeClass::kFixed, false, false},
    {XFS_SUPER_MAGIC, "xfs", VolumeClass::kFixed, false, false},
    {BTRFS_SUPER_MAGIC, "btrfs", VolumeClass::kFixed, false, false},
    {F2FS_SUPER_MAGIC, "f2fs", VolumeClass::kFixed, false, false},
    {OVERLAYFS_SUPER_MAGIC, "overlay", VolumeClass::kFixed, false, false},
    {0x2fc12fc1, "zfs", VolumeClass::kFixed, false, false},
    {FUSE_SUPER_MAGIC, "fuse", VolumeClass::kFixed, false, false},
    {0x5346544e, "ntfs", VolumeClass::kFixed, false, false},
    {0x7366746e, "ntfs3", VolumeClass::kFixed, false, false},
    {MSDOS_SUPER_MAGIC, "vfat", VolumeClass::kFixed, true, true},
    {EXFAT_SUPER_MAGIC, "exfat", VolumeClass::kFixed, true, true},
    {0x482b, "hfsplus", VolumeClass::kFixed, false, true},
    {TMPFS_MAGIC, "tmpfs", VolumeClass::kMemory, false, false},
    {RAMFS_MAGIC, "ramfs", VolumeClass::kMemory, false, false},
    {NFS_SUPER_MAGIC, "nfs", VolumeClass::kRemote, false, false},
    {SMB_SUPER_MAGIC, "smb", VolumeClass::kRemote, false, true},
    {CIFS_SUPER_MAGIC, "cifs", VolumeClass::kRemote, false, true},
    {SMB2_SUPER_MAGIC, "smb2", VolumeClass::kRemote, false, true},
    {CEPH_SUPER_MAGIC, "ceph", VolumeClass::kRemote, false, false},
    {V9FS_MAGIC, "9p", VolumeClass::kRemote, false, false},
    {0x5346414f, "afs", VolumeClass::kRemote, false, false},
    {0x73757245, "coda", VolumeClass::kRemote, false, false},
    {ISOFS_SUPER_MAGIC, "iso9660", VolumeClass::kOptical, false, false},
    {UDF_SUPER_MAGIC, "udf", VolumeClass::kOptical, false, false},
};

bool has_casefold_attribute(const char* path) {
    int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    int flags = 0;
    bool folds = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_CASEFOLD_FL) != 0;
    ::close(fd);
    return folds;
}

}  // namespace

VolumeInfo describe_volume_type(uint64_t magic) {
    VolumeInfo info;
    for (const TypeRow& row : kTypes) {
        if (row.magic != magic) continue;
        info.fs_name = row.name;
        info.klass = row.klass;
        info.is_fat = row.is_fat;
        info.folds_case = row.folds_case;
        return info;
    }
    char hex[24];
    std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(magic));
    info.fs_name = hex;
    return info;
}

int posix_volume_info(const char* path, VolumeInfo& out, int* err) {
    struct statfs sf {};
    if (::statfs(path, &sf) != 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    // f_type is signed on some ABIs; the magic is its low 32 bits.
    out = describe_volume_type(static_cast<uint32_t>(sf.f_type));
    if (!out.folds_case && (out.fs_name == "ext4" || out.fs_name == "f2fs"))
        out.folds_case = has_casefold_attribute(path);
    return 0;
}

}  // namespace platform
