// Moving objects to the desktop trash: layout, info files, volume trashes, refusals.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <regex>
#include <string>

#include "platform/fs.h"
#include "platform/posix/trash.h"
#include "scoped-env.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

// The home trash lies in the test's folder; `data` is where the victims live.
class TrashTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(::mkdir(data.c_str(), 0755), 0); }
    int Trash(platform::FileSystem& fs, const std::string& path, int* err = nullptr) {
        return platform::freedesktop_trash(fs, path.c_str(), err);
    }
    int Trash(const std::string& path) { return Trash(platform::default_file_system(), path); }

    TempDir dir;
    std::string data = dir / "data";
    std::string home_trash = dir / "xdg/Trash";
    std::string uid = std::to_string(::getuid());
    ScopedEnv xdg{"XDG_DATA_HOME", (dir / "xdg").c_str()};
};

TEST_F(TrashTest, HomeTrashKeepsEachObjectUnderAFreeNameWithItsInfoFile) {
    std::string victim = data + "/my report é.txt";
    std::ofstream(victim) << "keep me";
    ASSERT_EQ(Trash(victim), 0);
    EXPECT_FALSE(Exists(victim));
    EXPECT_EQ(ReadFile(home_trash + "/files/my report é.txt"), "keep me");
    std::string info = ReadFile(home_trash + "/info/my report é.txt.trashinfo");
    EXPECT_NE(info.find("[Trash Info]\nPath=" + data + "/my%20report%20%C3%A9.txt\n"),
              std::string::npos)
        << info;
    EXPECT_TRUE(std::regex_search(
        info, std::regex("\nDeletionDate=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\n")))
        << info;

    std::ofstream(data + "/note") << "first";
    ASSERT_EQ(Trash(data + "/note"), 0);
    std::ofstream(data + "/note") << "second";
    ASSERT_EQ(Trash(data + "/note"), 0);
    EXPECT_EQ(ReadFile(home_trash + "/files/note"), "first");
    EXPECT_EQ(ReadFile(home_trash + "/files/note.2"), "second");
    EXPECT_TRUE(Exists(home_trash + "/info/note.2.trashinfo"));

    std::string name(240, 'n');
    std::ofstream(data + "/" + name) << "long";
    ASSERT_EQ(Trash(data + "/" + name), 0);
    EXPECT_EQ(ReadFile(home_trash + "/files/" + name.substr(0, 200)), "long");

    ASSERT_EQ(::mkdir((data + "/tree").c_str(), 0755), 0);
    std::ofstream(data + "/tree/leaf") << "x";
    ASSERT_EQ(Trash(data + "/tree/"), 0);
    EXPECT_FALSE(Exists(data + "/tree"));
    EXPECT_TRUE(Exists(home_trash + "/files/tree/leaf"));
}

TEST_F(TrashTest, OtherVolumeUsesItsTopLevelTrashAndPrefersAStickyAdminOne) {
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    // Without its sticky bit an admin trash is anyone's to swap: not used.
    ASSERT_EQ(::mkdir((data + "/.Trash").c_str(), 0777), 0);
    ASSERT_EQ(::mkdir((data + "/sub").c_str(), 0755), 0);
    std::ofstream(data + "/sub/file") << "v";
    ASSERT_EQ(Trash(fs, data + "/sub/file"), 0);
    std::string own = data + "/.Trash-" + uid;
    EXPECT_EQ(ReadFile(own + "/files/file"), "v");
    EXPECT_NE(ReadFile(own + "/info/file.trashinfo").find("\nPath=sub/file\n"), std::string::npos)
        << "paths in a volume trash are relative to its top";
    struct stat st {};
    ASSERT_EQ(::stat(own.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_FALSE(Exists(data + "/.Trash/" + uid));

    ASSERT_EQ(::chmod((data + "/.Trash").c_str(), 01777), 0);
    std::ofstream(data + "/f") << "v";
    ASSERT_EQ(Trash(fs, data + "/f"), 0);
    EXPECT_TRUE(Exists(data + "/.Trash/" + uid + "/files/f"));
}

// Whatever stops it, the object stays where it was: the trash never falls back to
// deleting, and leaves no info file for an object it did not take.
TEST_F(TrashTest, RefusalsLeaveTheObjectInPlace) {
    using tbtest::FsOp;
    struct Case {
        const char* name;
        const char* victim;
        int err;
        bool other_volume = false;
        std::optional<FsOp> failing = std::nullopt;  // fails with `err` from then on
    };
    const Case cases[] = {
        {"absent", "absent", ENOENT},
        {"empty path", "", EINVAL},
        {"no trash can be made", "f", EACCES, true, FsOp::kMkdir},
        {"move fails", "f", EIO, false, FsOp::kRenameNoReplace},
        {"disk full writing the info file", "f", ENOSPC, false, FsOp::kFileWrite},
        {"volume trash is a link", "f", EPERM, true},
    };
    std::ofstream(data + "/f") << "v";
    ASSERT_EQ(::mkdir((dir / "elsewhere").c_str(), 0700), 0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tbtest::FaultFileSystem fs;
        if (c.other_volume) fs.FakeDevice(data, 4242);
        if (c.failing) fs.FailNth(*c.failing, 1, c.err, true);
        if (c.err == EPERM)
            ::symlink((dir / "elsewhere").c_str(), (data + "/.Trash-" + uid).c_str());
        int err = 0;
        EXPECT_EQ(Trash(fs, *c.victim ? data + "/" + c.victim : "", &err), -1);
        EXPECT_EQ(err, c.err);
        EXPECT_EQ(ReadFile(data + "/f"), "v");
        EXPECT_FALSE(Exists(home_trash + "/info/f.trashinfo"));
    }
}

}  // namespace
