// The POSIX file system of the platform seam against a real temporary folder: what the
// file layer above does not already pin down through it (links, errors, volumes).
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/fs.h"
#include "platform/posix/volume.h"
#include "support/temp-dir.h"

namespace {

using platform::NodeInfo;
using platform::NodeKind;

class PosixFsTest : public ::testing::Test {
  protected:
    std::string At(const std::string& name) const { return dir / name; }

    platform::FileSystem& fs = platform::default_file_system();
    TempDir dir;
    NodeInfo n;
    int err = 0;
};

TEST_F(PosixFsTest, LinksAreFollowedOnlyWhereAsked) {
    dir.write("target", "x");
    ASSERT_EQ(::mkdir(At("d").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("target", At("l").c_str()), 0);
    ASSERT_EQ(::symlink("d", At("ld").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", At("dangling").c_str()), 0);

    ASSERT_EQ(fs.lstat(At("l").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kSymlink);
    EXPECT_EQ(n.size, 6u);  // the link's own length, "target"
    ASSERT_EQ(fs.stat(At("l").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.kind, NodeKind::kFile);
    EXPECT_EQ(fs.stat(At("dangling").c_str(), n, &err), -1);
    EXPECT_EQ(err, ENOENT);

    std::unique_ptr<platform::File> f;
    EXPECT_EQ(fs.open(At("l").c_str(), platform::kOpenRead | platform::kOpenNoFollow, f, &err), -1);
    EXPECT_EQ(err, ELOOP);
    std::unique_ptr<platform::DirReader> reader;
    EXPECT_EQ(fs.open_dir(At("ld").c_str(), true, reader, &err), -1);
    EXPECT_EQ(err, ELOOP);
    EXPECT_EQ(fs.open_dir(At("ld").c_str(), false, reader, &err), 0);

    // A time set on the link stays on the link.
    NodeInfo before;
    ASSERT_EQ(fs.lstat(At("target").c_str(), before, nullptr), 0);
    ASSERT_EQ(fs.set_mtime(At("l").c_str(), 1000000000, nullptr), 0);
    ASSERT_EQ(fs.lstat(At("l").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.mtime, 1000000000);
    ASSERT_EQ(fs.lstat(At("target").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.mtime, before.mtime);
}

TEST_F(PosixFsTest, FilesReadWriteTruncateCloseOnceAndRenameWithOrWithoutReplacing) {
    std::unique_ptr<platform::File> f;
    const int rw = platform::kOpenRead | platform::kOpenWrite | platform::kOpenCreate;
    ASSERT_EQ(fs.open(At("f").c_str(), rw, f, nullptr), 0);
    EXPECT_EQ(f->write("hello world", 11, nullptr), 11);
    EXPECT_EQ(f->seek(6, nullptr), 6);
    char buf[16] = {};
    EXPECT_EQ(f->read(buf, sizeof buf, nullptr), 5);
    EXPECT_STREQ(buf, "world");
    EXPECT_EQ(f->truncate(5, nullptr), 0);
    EXPECT_EQ(f->sync(nullptr), 0);
    EXPECT_EQ(f->close(nullptr), 0);
    EXPECT_EQ(f->close(&err), -1);
    EXPECT_EQ(err, EBADF);
    ASSERT_EQ(fs.lstat(At("f").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.size, 5u);
    EXPECT_EQ(fs.open(At("f").c_str(), rw | platform::kOpenExclusive, f, &err), -1);
    EXPECT_EQ(err, EEXIST);

    dir.write("a", "A");
    dir.write("b", "BB");
    EXPECT_EQ(fs.rename_noreplace(At("a").c_str(), At("b").c_str(), &err), -1);
    EXPECT_EQ(err, EEXIST);
    ASSERT_EQ(fs.lstat(At("b").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.size, 2u);
    EXPECT_EQ(fs.rename_replace(At("a").c_str(), At("b").c_str(), nullptr), 0);
    EXPECT_EQ(fs.lstat(At("a").c_str(), n, nullptr), -1);
    ASSERT_EQ(fs.lstat(At("b").c_str(), n, nullptr), 0);
    EXPECT_EQ(n.size, 1u);
    EXPECT_EQ(fs.rename_noreplace(At("b").c_str(), At("c").c_str(), nullptr), 0);
}

TEST_F(PosixFsTest, TemporaryFolderIsAFixedCaseSensitiveVolume) {
    platform::VolumeInfo vol;
    ASSERT_EQ(fs.volume_info(dir.path().c_str(), vol, nullptr), 0);
    EXPECT_FALSE(vol.fs_name.empty());
    EXPECT_NE(vol.klass, platform::VolumeClass::kRemote);
    EXPECT_FALSE(vol.is_fat);
    EXPECT_FALSE(vol.folds_case);
    EXPECT_EQ(fs.volume_info(At("absent").c_str(), vol, &err), -1);
    EXPECT_EQ(err, ENOENT);
}

}  // namespace
