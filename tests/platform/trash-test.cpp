// Moving objects to the desktop trash: layout, info files, volume trashes, refusals.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>

#include "platform/fs.h"
#include "platform/posix/trash.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Points the home trash into the test's folder and puts the environment back after.
class EnvVar {
  public:
    EnvVar(const char* name, const char* value) : m_name(name) {
        if (const char* old = std::getenv(name)) m_old = old;
        if (value != nullptr)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
    ~EnvVar() {
        if (m_old)
            ::setenv(m_name, m_old->c_str(), 1);
        else
            ::unsetenv(m_name);
    }

  private:
    const char* m_name;
    std::optional<std::string> m_old;
};

class TrashTest : public ::testing::Test {
  protected:
    TempDir dir;
    std::string data = dir / "data";
    std::string home_trash = dir / "xdg/Trash";
    EnvVar xdg{"XDG_DATA_HOME", (dir / "xdg").c_str()};

    void SetUp() override { ASSERT_EQ(::mkdir(data.c_str(), 0755), 0); }
};

TEST_F(TrashTest, FileGoesToTheHomeTrashWithAnInfoFile) {
    std::string victim = data + "/my report é.txt";
    std::ofstream(victim) << "keep me";
    ASSERT_EQ(platform::freedesktop_trash(platform::default_file_system(), victim.c_str()), 0);

    EXPECT_FALSE(exists(victim));
    std::string kept = home_trash + "/files/my report é.txt";
    EXPECT_EQ(slurp(kept), "keep me");
    std::string info = slurp(home_trash + "/info/my report é.txt.trashinfo");
    std::string escaped = data + "/my%20report%20%C3%A9.txt";
    EXPECT_NE(info.find("[Trash Info]\nPath=" + escaped + "\n"), std::string::npos) << info;
    EXPECT_TRUE(std::regex_search(
        info, std::regex("\nDeletionDate=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\n")))
        << info;
}

TEST_F(TrashTest, SameNameTwiceKeepsBothCopies) {
    std::string victim = data + "/note";
    std::ofstream(victim) << "first";
    ASSERT_EQ(platform::freedesktop_trash(platform::default_file_system(), victim.c_str()), 0);
    std::ofstream(victim) << "second";
    ASSERT_EQ(platform::freedesktop_trash(platform::default_file_system(), victim.c_str()), 0);
    EXPECT_EQ(slurp(home_trash + "/files/note"), "first");
    EXPECT_EQ(slurp(home_trash + "/files/note.2"), "second");
    EXPECT_TRUE(exists(home_trash + "/info/note.2.trashinfo"));
}

TEST_F(TrashTest, DirectoryTreeMovesWhole) {
    ASSERT_EQ(::mkdir((data + "/tree").c_str(), 0755), 0);
    std::ofstream(data + "/tree/leaf") << "x";
    ASSERT_EQ(
        platform::freedesktop_trash(platform::default_file_system(), (data + "/tree/").c_str()), 0);
    EXPECT_FALSE(exists(data + "/tree"));
    EXPECT_TRUE(exists(home_trash + "/files/tree/leaf"));
}

TEST_F(TrashTest, OverlongNameIsShortenedInTheTrash) {
    std::string name(240, 'n');
    std::string victim = data + "/" + name;
    std::ofstream(victim) << "long";
    ASSERT_EQ(platform::freedesktop_trash(platform::default_file_system(), victim.c_str()), 0);
    EXPECT_FALSE(exists(victim));
    EXPECT_EQ(slurp(home_trash + "/files/" + name.substr(0, 200)), "long");
}

TEST_F(TrashTest, OtherVolumeUsesItsOwnTopLevelTrash) {
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    std::string victim = data + "/sub/file";
    ASSERT_EQ(::mkdir((data + "/sub").c_str(), 0755), 0);
    std::ofstream(victim) << "v";
    ASSERT_EQ(platform::freedesktop_trash(fs, victim.c_str()), 0);

    std::string trash = data + "/.Trash-" + std::to_string(::getuid());
    EXPECT_EQ(slurp(trash + "/files/file"), "v");
    EXPECT_NE(slurp(trash + "/info/file.trashinfo").find("\nPath=sub/file\n"), std::string::npos)
        << "paths in a volume trash are relative to its top";
    struct stat st {};
    ASSERT_EQ(::stat(trash.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(TrashTest, StickyAdminTrashIsPreferredOnAnotherVolume) {
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    ASSERT_EQ(::mkdir((data + "/.Trash").c_str(), 01777), 0);
    ASSERT_EQ(::chmod((data + "/.Trash").c_str(), 01777), 0);
    std::ofstream(data + "/f") << "v";
    ASSERT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str()), 0);
    EXPECT_TRUE(exists(data + "/.Trash/" + std::to_string(::getuid()) + "/files/f"));
}

TEST_F(TrashTest, AdminTrashWithoutStickyBitIsIgnored) {
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    ASSERT_EQ(::mkdir((data + "/.Trash").c_str(), 0777), 0);
    std::ofstream(data + "/f") << "v";
    ASSERT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str()), 0);
    EXPECT_TRUE(exists(data + "/.Trash-" + std::to_string(::getuid()) + "/files/f"));
    EXPECT_FALSE(exists(data + "/.Trash/" + std::to_string(::getuid())));
}

TEST_F(TrashTest, LinkedVolumeTrashIsRefusedAndNothingMoves) {
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    ASSERT_EQ(::mkdir((dir / "elsewhere").c_str(), 0700), 0);
    std::string trash = data + "/.Trash-" + std::to_string(::getuid());
    ASSERT_EQ(::symlink((dir / "elsewhere").c_str(), trash.c_str()), 0);
    std::ofstream(data + "/f") << "v";
    int err = 0;
    EXPECT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str(), &err), -1);
    EXPECT_EQ(err, EPERM);
    EXPECT_EQ(slurp(data + "/f"), "v");
}

TEST_F(TrashTest, NoUsableTrashFailsWithoutDeleting) {
    EnvVar no_xdg("XDG_DATA_HOME", nullptr);
    EnvVar no_home("HOME", nullptr);
    tbtest::FaultFileSystem fs;
    fs.FakeDevice(data, 4242);
    fs.FailNth(tbtest::FsOp::kMkdir, 1, EACCES, true);
    std::ofstream(data + "/f") << "v";
    int err = 0;
    EXPECT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str(), &err), -1);
    EXPECT_EQ(err, EACCES);
    EXPECT_EQ(slurp(data + "/f"), "v");
}

TEST_F(TrashTest, FailedMoveLeavesNoInfoFileBehind) {
    tbtest::FaultFileSystem fs;
    fs.FailNth(tbtest::FsOp::kRenameNoReplace, 1, EIO);
    std::ofstream(data + "/f") << "v";
    int err = 0;
    EXPECT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str(), &err), -1);
    EXPECT_EQ(err, EIO);
    EXPECT_EQ(slurp(data + "/f"), "v");
    EXPECT_FALSE(exists(home_trash + "/info/f.trashinfo"));
}

TEST_F(TrashTest, FullDiskWhileWritingTheInfoFileMovesNothing) {
    tbtest::FaultFileSystem fs;
    fs.FailNth(tbtest::FsOp::kFileWrite, 1, ENOSPC);
    std::ofstream(data + "/f") << "v";
    int err = 0;
    EXPECT_EQ(platform::freedesktop_trash(fs, (data + "/f").c_str(), &err), -1);
    EXPECT_EQ(err, ENOSPC);
    EXPECT_EQ(slurp(data + "/f"), "v");
    EXPECT_FALSE(exists(home_trash + "/info/f.trashinfo"));
}

TEST_F(TrashTest, AbsentOrEmptyPathIsRefused) {
    int err = 0;
    EXPECT_EQ(platform::freedesktop_trash(platform::default_file_system(),
                                          (data + "/absent").c_str(), &err),
              -1);
    EXPECT_EQ(err, ENOENT);
    EXPECT_EQ(platform::freedesktop_trash(platform::default_file_system(), "", &err), -1);
    EXPECT_EQ(err, EINVAL);
}

}  // namespace
