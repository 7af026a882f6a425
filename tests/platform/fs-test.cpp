// The POSIX file system of the platform seam against a real temporary folder.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <set>
#include <string>

#include "platform/fs.h"
#include "platform/posix/volume.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

using platform::NodeInfo;
using platform::NodeKind;

class PosixFsTest : public ::testing::Test {
  protected:
    platform::FileSystem& fs = platform::default_file_system();
    TempDir dir;
};

TEST_F(PosixFsTest, LstatTellsKindsAndNeverFollowsTheLastLink) {
    dir.write("file", "12345");
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("file", (dir / "link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0644), 0);

    NodeInfo n;
    ASSERT_EQ(fs.lstat((dir / "file").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kFile);
    EXPECT_EQ(n.size, 5u);
    ASSERT_EQ(fs.lstat((dir / "sub").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kDirectory);
    EXPECT_EQ(n.size, 0u);
    ASSERT_EQ(fs.lstat((dir / "link").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kSymlink);
    EXPECT_EQ(n.size, 4u);  // the link's own length, "file"
    ASSERT_EQ(fs.lstat((dir / "fifo").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kOther);

    ASSERT_EQ(fs.stat((dir / "link").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kFile);
    int err = 0;
    EXPECT_EQ(fs.stat((dir / "dangling").c_str(), n, &err), -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(fs.lstat((dir / "absent").c_str(), n, &err), -1);
    EXPECT_EQ(err, ENOENT);
}

TEST_F(PosixFsTest, SocketsAreOtherObjects) {
    int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = dir / "sock";
    ASSERT_LT(path.size(), sizeof addr.sun_path);
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    NodeInfo n;
    EXPECT_EQ(fs.lstat(path.c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kOther);
    ::close(s);
}

TEST_F(PosixFsTest, ListingGivesEveryNameWithKindsAndOptionalStat) {
    dir.write("a", "xyz");
    ASSERT_EQ(::mkdir((dir / "d").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("d", (dir / "l").c_str()), 0);
    std::unique_ptr<platform::DirReader> reader;
    ASSERT_EQ(fs.open_dir(dir.path().c_str(), false, reader, nullptr), 0);
    std::set<std::string> names;
    platform::DirItem item;
    while (reader->next(item, true, nullptr) == 1) {
        names.insert(item.name);
        if (item.name == "a") {
            EXPECT_EQ(item.kind, NodeKind::kFile);
            EXPECT_EQ(item.size, 3u);
            EXPECT_GT(item.mtime, 1000000000);
        }
        if (item.name == "d") {
            EXPECT_EQ(item.kind, NodeKind::kDirectory);
        }
        if (item.name == "l") {
            EXPECT_EQ(item.kind, NodeKind::kSymlink);
        }
    }
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "d", "l"}));
}

TEST_F(PosixFsTest, NoFollowListingRefusesALinkToADirectory) {
    ASSERT_EQ(::mkdir((dir / "d").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("d", (dir / "l").c_str()), 0);
    std::unique_ptr<platform::DirReader> reader;
    int err = 0;
    EXPECT_EQ(fs.open_dir((dir / "l").c_str(), true, reader, &err), -1);
    EXPECT_EQ(err, ELOOP);
    EXPECT_EQ(fs.open_dir((dir / "l").c_str(), false, reader, &err), 0);
}

TEST_F(PosixFsTest, FilesReadWriteSeekTruncateAndCloseOnce) {
    std::unique_ptr<platform::File> f;
    std::string path = dir / "f";
    ASSERT_EQ(
        fs.open(path.c_str(), platform::kOpenRead | platform::kOpenWrite | platform::kOpenCreate, f,
                nullptr),
        0);
    EXPECT_EQ(f->write("hello world", 11, nullptr), 11);
    EXPECT_EQ(f->seek(6, nullptr), 6);
    char buf[16] = {};
    EXPECT_EQ(f->read(buf, sizeof buf, nullptr), 5);
    EXPECT_STREQ(buf, "world");
    EXPECT_EQ(f->truncate(5, nullptr), 0);
    EXPECT_EQ(f->sync(nullptr), 0);
    EXPECT_EQ(f->close(nullptr), 0);
    int err = 0;
    EXPECT_EQ(f->close(&err), -1);
    EXPECT_EQ(err, EBADF);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 5);

    EXPECT_EQ(
        fs.open(path.c_str(),
                platform::kOpenWrite | platform::kOpenCreate | platform::kOpenExclusive, f, &err),
        -1);
    EXPECT_EQ(err, EEXIST);
}

TEST_F(PosixFsTest, NoFollowOpenRefusesALink) {
    dir.write("target", "x");
    ASSERT_EQ(::symlink("target", (dir / "l").c_str()), 0);
    std::unique_ptr<platform::File> f;
    int err = 0;
    EXPECT_EQ(fs.open((dir / "l").c_str(), platform::kOpenRead | platform::kOpenNoFollow, f, &err),
              -1);
    EXPECT_EQ(err, ELOOP);
}

TEST_F(PosixFsTest, LockProbeSeesLocksOfOtherOpenings) {
    dir.write("f", "data");
    std::string path = dir / "f";
    int holder = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(holder, 0);
    std::unique_ptr<platform::File> probe;
    ASSERT_EQ(fs.open(path.c_str(), platform::kOpenRead, probe, nullptr), 0);
    EXPECT_EQ(probe->lock_conflict(true, nullptr), 0);

    struct flock fl {};
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_EQ(probe->lock_conflict(false, nullptr), 0) << "readers share";
    EXPECT_EQ(probe->lock_conflict(true, nullptr), 1);

    fl.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_EQ(probe->lock_conflict(false, nullptr), 1);
    ::close(holder);
    EXPECT_EQ(probe->lock_conflict(true, nullptr), 0);
}

TEST_F(PosixFsTest, RenamesReplaceOrRefuseAnExistingName) {
    dir.write("a", "A");
    dir.write("b", "B");
    int err = 0;
    EXPECT_EQ(fs.rename_noreplace((dir / "a").c_str(), (dir / "b").c_str(), &err), -1);
    EXPECT_EQ(err, EEXIST);
    EXPECT_EQ(fs.rename_replace((dir / "a").c_str(), (dir / "b").c_str(), nullptr), 0);
    NodeInfo n;
    EXPECT_EQ(fs.lstat((dir / "a").c_str(), n, nullptr), -1);
    ASSERT_EQ(fs.lstat((dir / "b").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.size, 1u);
    EXPECT_EQ(fs.rename_noreplace((dir / "b").c_str(), (dir / "c").c_str(), nullptr), 0);
}

TEST_F(PosixFsTest, SetMtimeChangesTheLinkNotItsTarget) {
    dir.write("target", "x");
    ASSERT_EQ(::symlink("target", (dir / "l").c_str()), 0);
    NodeInfo before;
    ASSERT_EQ(fs.lstat((dir / "target").c_str(), before, nullptr), 0);
    ASSERT_EQ(fs.set_mtime((dir / "l").c_str(), 1000000000, nullptr), 0);
    NodeInfo link;
    NodeInfo target;
    ASSERT_EQ(fs.lstat((dir / "l").c_str(), link, nullptr), 0);
    ASSERT_EQ(fs.lstat((dir / "target").c_str(), target, nullptr), 0);
    EXPECT_EQ(link.mtime, 1000000000);
    EXPECT_EQ(target.mtime, before.mtime);
}

TEST_F(PosixFsTest, TemporaryFolderIsAFixedCaseSensitiveVolume) {
    platform::VolumeInfo vol;
    ASSERT_EQ(fs.volume_info(dir.path().c_str(), vol, nullptr), 0);
    EXPECT_FALSE(vol.fs_name.empty());
    EXPECT_NE(vol.klass, platform::VolumeClass::kRemote);
    EXPECT_FALSE(vol.is_fat);
    EXPECT_FALSE(vol.folds_case);
    int err = 0;
    EXPECT_EQ(fs.volume_info((dir / "absent").c_str(), vol, &err), -1);
    EXPECT_EQ(err, ENOENT);
}

TEST(VolumeTypes, KnownTypesAreClassified) {
    struct Row {
        uint64_t magic;
        const char* name;
        platform::VolumeClass klass;
        bool fat;
        bool folds;
    };
    const Row rows[] = {
        {0xEF53, "ext4", platform::VolumeClass::kFixed, false, false},
        {0x58465342, "xfs", platform::VolumeClass::kFixed, false, false},
        {0x9123683E, "btrfs", platform::VolumeClass::kFixed, false, false},
        {0x01021994, "tmpfs", platform::VolumeClass::kMemory, false, false},
        {0x4d44, "vfat", platform::VolumeClass::kFixed, true, true},
        {0x2011BAB0, "exfat", platform::VolumeClass::kFixed, true, true},
        {0x6969, "nfs", platform::VolumeClass::kRemote, false, false},
        {0xFF534D42, "cifs", platform::VolumeClass::kRemote, false, true},
        {0xFE534D42, "smb2", platform::VolumeClass::kRemote, false, true},
        {0x9660, "iso9660", platform::VolumeClass::kOptical, false, false},
        {0x15013346, "udf", platform::VolumeClass::kOptical, false, false},
    };
    for (const Row& row : rows) {
        platform::VolumeInfo v = platform::describe_volume_type(row.magic);
        EXPECT_EQ(v.fs_name, row.name);
        EXPECT_EQ(v.klass, row.klass) << row.name;
        EXPECT_EQ(v.is_fat, row.fat) << row.name;
        EXPECT_EQ(v.folds_case, row.folds) << row.name;
    }
    platform::VolumeInfo unknown = platform::describe_volume_type(0x1234abcd);
    EXPECT_EQ(unknown.fs_name, "0x1234abcd");
    EXPECT_EQ(unknown.klass, platform::VolumeClass::kFixed);
}

TEST(InstalledFileSystem, ScopedInstallTakesEffectAndRestores) {
    platform::FileSystem* before = &platform::file_system();
    EXPECT_EQ(before, &platform::default_file_system());
    {
        tbtest::FaultFileSystem fault;
        tbtest::ScopedFileSystem guard(fault);
        EXPECT_EQ(&platform::file_system(), &fault);
    }
    EXPECT_EQ(&platform::file_system(), before);
}

}  // namespace
