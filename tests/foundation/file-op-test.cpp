// The file layer against a real temporary folder, through the fault-injecting file
// system wherever a failure or another kind of volume is needed.
#include "foundation/file-op.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "foundation/policy.h"
#include "support/fault-fs.h"
#include "support/files.h"
#include "support/temp-dir.h"

namespace {

using tbtest::FaultFileSystem;
using tbtest::FsOp;
using tbtest::ScopedFileSystem;

// Every test runs on the fault-injecting file system, which forwards until told otherwise.
class FileOpTest : public ::testing::Test {
  protected:
    TempDir dir;
    FaultFileSystem fs;
    ScopedFileSystem guard{fs};
    std::string p(const std::string& name) const { return dir / name; }
    // Makes each entry: a folder when it ends in "/", else a file holding its own name.
    void make(std::initializer_list<std::string> entries) {
        for (const std::string& e : entries) {
            if (e.back() == '/') {
                ASSERT_EQ(::mkdir(p(e).c_str(), 0755), 0) << e;
            } else {
                dir.write(e, e);
            }
        }
    }
};

// ---------------------------------------------------------------- FSStat

TEST_F(FileOpTest, StatReportsEachKindOfObject) {
    dir.write("file", "12345");
    make({"sub/"});
    ASSERT_EQ(::symlink("file", p("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("fifo").c_str(), 0644), 0);

    FILE_INFO info;
    ASSERT_EQ(FSStat(p("file"), info, true), 0);
    EXPECT_EQ(info.type, FT_FILE);
    EXPECT_EQ(info.size, 5u);
    EXPECT_EQ(info.path, ustring(p("file")));
    FILE_INFO same = info;
    same.uid = 1;
    EXPECT_TRUE(info == same) << "ownership is not compared";
    same.mtime += 1;
    EXPECT_TRUE(info != same);

    ASSERT_EQ(FSStat(p("sub"), info, true), 0);
    EXPECT_EQ(info.type, FT_DIR);
    EXPECT_EQ(info.size, 0u);

    ASSERT_EQ(FSUTime(p("link"), 0, 1500000000), 0);
    ASSERT_EQ(FSStat(p("link"), info, true), 0);
    EXPECT_EQ(info.type, FT_SLINK);
    EXPECT_EQ(info.size, 4u) << "the link's own size, not the target's";
    EXPECT_EQ(info.mtime, 1500000000u);

    ASSERT_EQ(FSStat(p("fifo"), info, true), 0);
    EXPECT_TRUE(info.isExist);
    EXPECT_EQ(info.type, FT_ERR) << "a FIFO is never an ordinary file";
}

TEST_F(FileOpTest, AbsenceIsSuccessButAnUnexaminableObjectIsAFailure) {
    dir.write("file", "x");
    ASSERT_EQ(::symlink("loop", p("loop").c_str()), 0);
    for (const std::string& path : {p("missing"), p("missing/deeper"), p("file/child"),
                                    p("loop/child"), p(std::string(300, 'x')), std::string()}) {
        FILE_INFO info;
        info.isExist = true;
        EXPECT_EQ(FSStat(path, info, true), 0) << path;
        EXPECT_FALSE(info.isExist) << path;
        EXPECT_FALSE(IsFileExist(path, false)) << path;
    }
    FILE_INFO info;
    ASSERT_EQ(FSStat(p("loop"), info, true), 0);
    EXPECT_EQ(info.type, FT_SLINK) << "a link loop is still a link";

    // A folder without search permission: the object may well be there.
    fs.FailNth(FsOp::kLstat, 1, EACCES, true);
    EXPECT_EQ(FSStat(p("file"), info, true), -1);
    EXPECT_FALSE(IsFileExist(p("file"), false));
}

// ---------------------------------------------------------------- case

TEST_F(FileOpTest, OnlyAFoldingVolumeFindsOtherSpellings) {
    dir.write("Report.txt", "r");
    EXPECT_TRUE(IsFileExist(p("Report.txt"), true));
    EXPECT_FALSE(IsFileExist(p("report.txt"), false));

    make({"a/"});
    ustring path(p("a") + "//");
    ASSERT_EQ(FSGetRealPath(path), 0);
    EXPECT_EQ(path, ustring(p("a"))) << "trailing separators are dropped";
    ustring missing(p("none"));
    EXPECT_EQ(FSGetRealPath(missing), -1);
    EXPECT_EQ(missing, ustring(p("none")));
    ustring root("/");
    EXPECT_EQ(FSGetRealPath(root), -1) << "nothing is left of the root";

    // A folding volume tells the stored spelling.
    fs.ForceCaseFolding(true);
    make({"Docs/", "Docs/Report.txt"});
    EXPECT_TRUE(IsFileExist(p("Docs/report.TXT"), false)) << "a folding volume finds any case";
    EXPECT_FALSE(IsFileExist(p("Docs/report.TXT"), true));
    EXPECT_TRUE(IsFileExist(p("docs/Report.txt"), true)) << "only the last element is checked";
    FILE_INFO info;
    ASSERT_EQ(FSStat(p("Docs/REPORT.txt"), info, true), 0);
    EXPECT_FALSE(info.isExist) << "stat checks the case when asked to";

    ustring real(p("DOCS/report.TXT"));
    ASSERT_EQ(FSGetRealPath(real), 0);
    EXPECT_EQ(real, ustring(p("Docs/Report.txt")));
}

// ---------------------------------------------------------------- listing and walks

std::map<std::string, DIR_ENTRY> list_all(const std::string& path, int flag) {
    DIR_HANDLE dh;
    EXPECT_EQ(FSOpenDir(path, flag, dh), 0);
    std::map<std::string, DIR_ENTRY> out;
    DIR_ENTRY e;
    int rc;
    while ((rc = FSReadDir(dh, e)) == 1) out[e.name.str()] = e;
    EXPECT_EQ(rc, 0);
    FSCloseDir(dh);
    return out;
}

// Names that are not UTF-8 are skipped by listings and walks alike.
TEST_F(FileOpTest, ReadDirDeliversEveryNameWithTypeAndOptionalTimes) {
    make({"f", "d/", "bad\xff\xfe"});
    ASSERT_EQ(::symlink("d", p("l").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("pipe").c_str(), 0644), 0);
    ASSERT_EQ(FSUTime(p("f"), 0, 1234567890), 0);

    auto with = list_all(dir.path(), 1);
    ASSERT_EQ(with.size(), 6u);
    EXPECT_EQ(with["f"].type, FT_FILE);
    EXPECT_EQ(with["f"].size, 1u);
    EXPECT_EQ(with["f"].mtime, 1234567890u);
    EXPECT_EQ(with["d"].type, FT_DIR);
    EXPECT_NE(with["d"].mtime, 0u);
    EXPECT_EQ(with["l"].type, FT_SLINK);
    EXPECT_EQ(with["l"].size, 0u) << "sizes are for files only";
    EXPECT_EQ(with["pipe"].type, FT_ERR);

    auto without = list_all(dir.path(), 0);
    EXPECT_EQ(without["f"].type, FT_FILE);
    EXPECT_EQ(without["f"].size, 0u);
    EXPECT_EQ(without["f"].mtime, 0u);

    make({"gone/"});
    DIR_HANDLE dh;
    ASSERT_EQ(FSOpenDir(p("gone"), 1, dh), 0) << "opening touches nothing";
    ASSERT_EQ(::rmdir(p("gone").c_str()), 0);
    DIR_ENTRY e;
    EXPECT_EQ(FSReadDir(dh, e), -1);
    DIR_HANDLE empty;
    EXPECT_EQ(FSReadDir(empty, e), -1);
}

struct Walk {
    std::vector<std::string> seen;
    std::string refuse;
};

int record(const ustring& path, void* priv) {
    Walk* w = static_cast<Walk*>(priv);
    w->seen.push_back(path.str());
    return path.str() == w->refuse ? 1 : 0;
}

TEST_F(FileOpTest, TraverseVisitsDirectoriesOnEntryAndNeverFollowsLinks) {
    make({"root/", "root/a/", "root/a/1", "root/a/2", "root/b", "root/bad\xff", "outside/",
          "outside/secret"});
    ASSERT_EQ(::symlink(p("outside").c_str(), p("root/link").c_str()), 0);

    Walk w;
    EXPECT_EQ(TraverseDir(p("root"), record, &w), 0);
    std::multiset<std::string> got(w.seen.begin(), w.seen.end());
    EXPECT_EQ(got, (std::multiset<std::string>{p("root"), p("root/a"), p("root/a/1"), p("root/a/2"),
                                               p("root/b"), p("root/link")}));
    EXPECT_EQ(w.seen.front(), p("root"));

    // Refusing whichever file of "a" comes first ends the walk of "a" only.
    auto in_a = std::find(w.seen.begin(), w.seen.end(), p("root/a")) + 1;
    ASSERT_LT(in_a + 1, w.seen.end());
    Walk refusing{{}, *in_a};
    EXPECT_EQ(TraverseDir(p("root"), record, &refusing), 0);
    std::set<std::string> seen(refusing.seen.begin(), refusing.seen.end());
    EXPECT_EQ(seen.count(*(in_a + 1)), 0u) << "the rest of the refused level is skipped";
    EXPECT_EQ(seen.count(p("root/b")), 1u);

    Walk refused{{}, p("none")};
    EXPECT_EQ(TraverseDir(p("none"), record, &refused), -2);
    Walk absent;
    EXPECT_EQ(TraverseDir(p("none"), record, &absent), 0);
    EXPECT_EQ(absent.seen.size(), 1u);
}

// ---------------------------------------------------------------- FSMKDirP / FSMKDir

TEST_F(FileOpTest, MkdirMakesWhatIsMissingOrSaysWhatBlocksIt) {
    EXPECT_EQ(FSMKDirP(p("a/b") + "/"), 0);
    EXPECT_TRUE(Exists(p("a/b")));
    EXPECT_EQ(FSMKDirP(p("a/b/c/d")), 0) << "partly existing";
    EXPECT_TRUE(Exists(p("a/b/c/d")));
    EXPECT_EQ(FSMKDirP(p("e//f")), 0) << "empty elements are skipped";
    EXPECT_TRUE(Exists(p("e/f")));
    EXPECT_EQ(FSMKDirP("plainname"), 0);
    EXPECT_FALSE(Exists("plainname")) << "no separator, nothing to create";
    EXPECT_EQ(FSMKDirP("/"), 0);
    EXPECT_EQ(FSMKDirP(""), -1);

    EXPECT_EQ(FSMKDir(p("one")), 0);
    EXPECT_EQ(FSMKDir(p("one")), 0) << "existing is success";
    EXPECT_EQ(FSMKDir(p("no/parent")), -1);
    EXPECT_EQ(FSMKDir(p("with/parents"), true), 0);
    EXPECT_TRUE(Exists(p("with/parents")));

    // Blocked by a file: errno says where, and the file stays.
    make({"file", "one/b"});
    errno = 0;
    EXPECT_EQ(FSMKDirP(p("file/b")), -1);
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_EQ(FSMKDirP(p("one/b") + "/"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(ReadFile(p("file")), "file");
    EXPECT_EQ(ReadFile(p("one/b")), "one/b");
    EXPECT_EQ(FSMKDirP(p("file/b"), nullptr, true), 0) << "forced creation replaces the file";
    EXPECT_TRUE(Exists(p("file/b")));

    int before = fs.Calls(FsOp::kMkdir);
    fs.FailNth(FsOp::kMkdir, 1, EIO);
    errno = 0;
    EXPECT_EQ(FSMKDirP(p("m/n")), -1);
    EXPECT_EQ(errno, ENOENT) << "the walk went on to the last element, which then failed";
    EXPECT_EQ(fs.Calls(FsOp::kMkdir) - before, 2);
}

// ---------------------------------------------------------------- removal

class RemoveTest : public FileOpTest {
  protected:
    std::optional<std::string> old_xdg;
    void SetUp() override {
        if (const char* v = std::getenv("XDG_DATA_HOME")) old_xdg = v;
        ::setenv("XDG_DATA_HOME", p("xdg").c_str(), 1);
        make({"data/"});
    }
    void TearDown() override {
        if (old_xdg)
            ::setenv("XDG_DATA_HOME", old_xdg->c_str(), 1);
        else
            ::unsetenv("XDG_DATA_HOME");
    }
};

TEST_F(RemoveTest, UndoableRemovalGoesToTheTrashOrNowhere) {
    dir.write("data/doc", "precious");
    EXPECT_EQ(FSRemove(p("data/doc"), true), 0);
    EXPECT_FALSE(Exists(p("data/doc")));
    EXPECT_EQ(ReadFile(p("xdg/Trash/files/doc")), "precious");

    dir.write("data/doc", "precious");
    fs.FailNth(FsOp::kTrash, 1, EACCES);
    EXPECT_EQ(FSRemove(p("data/doc"), true), -3);
    EXPECT_EQ(ReadFile(p("data/doc")), "precious");
}

TEST_F(RemoveTest, RemovesFilesAndTreesButNeverFollowsOrRemovesLinks) {
    make({"outside/", "outside/keep", "data/f", "data/tree/", "data/tree/inner/",
          "data/tree/inner/file"});
    ASSERT_EQ(::symlink(p("outside").c_str(), p("data/tree/to-dir").c_str()), 0);
    ASSERT_EQ(::symlink(p("outside/keep").c_str(), p("data/tree/inner/to-file").c_str()), 0);
    ASSERT_EQ(::symlink(p("outside").c_str(), p("data/link").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("data/fifo").c_str(), 0644), 0);
    EXPECT_EQ(FSRemove(p("data/f")), 0);
    EXPECT_EQ(FSRemove(p("data/tree")), 0);
    EXPECT_FALSE(Exists(p("data/f")));
    EXPECT_FALSE(Exists(p("data/tree")));
    EXPECT_EQ(FSRemove(p("data/absent")), 0);
    EXPECT_EQ(FSRemove(""), -1);
    EXPECT_EQ(FSRemove(p("data/link")), -1);
    EXPECT_EQ(FSRemove(p("data/fifo")), -1);
    EXPECT_EQ(RemoveDirectoryRecursive(p("data/link")), -1)
        << "a link is never walked as the tree itself";
    EXPECT_TRUE(Exists(p("data/link")));
    EXPECT_EQ(ReadFile(p("outside/keep")), "outside/keep");

    make({"data/tree/", "data/tree/a", "data/tree/b", "data/tree/c"});
    fs.FailNth(FsOp::kRemoveFile, 2, EACCES);
    EXPECT_EQ(RemoveDirectoryRecursive(p("data/tree")), -1);
    int left = 0;
    for (const char* n : {"a", "b", "c"}) left += Exists(p("data/tree/") + n) ? 1 : 0;
    EXPECT_EQ(left, 1) << "only the refused file stays";
}

// ---------------------------------------------------------------- FSRename

TEST_F(FileOpTest, RenameReplacesDurablyOrLeavesBothFilesIntact) {
    dir.write("new", "new content");
    dir.write("old", "old content");
    EXPECT_EQ(FSRename(p("new"), p("old"), true), 0);
    EXPECT_EQ(ReadFile(p("old")), "new content");
    EXPECT_FALSE(Exists(p("new")));
    EXPECT_EQ(fs.Calls(FsOp::kSyncDir), 1) << "the new name is flushed";
    fs.FailNth(FsOp::kSyncDir, 1, EIO);
    EXPECT_EQ(FSRename(p("old"), p("new")), 0) << "an unflushable rename is still done";
    EXPECT_EQ(ReadFile(p("new")), "new content");

    dir.write("old", "old");
    EXPECT_EQ(FSRename(p("absent"), p("x")), -1);
    EXPECT_EQ(FSRename(p("new"), p(std::string(300, 'n'))), -100);
    fs.FailNth(FsOp::kRenameReplace, 1, EIO);
    EXPECT_EQ(FSRename(p("new"), p("old")), -1);
    EXPECT_EQ(ReadFile(p("new")), "new content");
    EXPECT_EQ(ReadFile(p("old")), "old");
}

// ---------------------------------------------------------------- FSCopy

TEST_F(FileOpTest, CopyReproducesTheBytesOrSaysWhyAndNeverWritesThroughALink) {
    const std::string content = PatternBytes(1 << 20);
    dir.write("src", content);
    dir.write("dst", "old and longer than nothing");
    EXPECT_EQ(FSCopy(p("src"), p("dst"), false), 0);
    EXPECT_EQ(ReadFile(p("dst")), content);
    EXPECT_EQ(ReadFile(p("src")), content);
    dir.write("empty", "");
    EXPECT_EQ(FSCopy(p("empty"), p("dst"), true), 0);
    EXPECT_EQ(ReadFile(p("dst")), "");
    EXPECT_FALSE(Exists(p("empty")));

    EXPECT_EQ(FSCopy(p("absent"), p("new"), false), -1);
    EXPECT_FALSE(Exists(p("new")));
    dir.write("victim", "untouched");
    ASSERT_EQ(::symlink("victim", p("link").c_str()), 0);
    EXPECT_EQ(FSCopy(p("src"), p("link"), false), -1);
    EXPECT_EQ(ReadFile(p("victim")), "untouched");
    fs.FailNth(FsOp::kFileWrite, 1, ENOSPC);
    EXPECT_EQ(FSCopy(p("src"), p("dst"), false), -2);
    EXPECT_EQ(ReadFile(p("src")), content);
    fs.FailNth(FsOp::kFileWrite, 1, EIO);
    EXPECT_EQ(FSCopy(p("src"), p("dst"), false), -1);
    fs.FailNth(FsOp::kFileRead, 1, EIO);
    EXPECT_EQ(FSCopy(p("src"), p("dst"), false), -1);

    // With deletion the source goes even after a failure; a failed deletion is -1.
    fs.FailNth(FsOp::kFileWrite, 1, ENOSPC);
    EXPECT_EQ(FSCopy(p("src"), p("dst"), true), -2);
    EXPECT_FALSE(Exists(p("src")));
    dir.write("src2", "s");
    fs.FailNth(FsOp::kRemoveFile, 1, EACCES);
    EXPECT_EQ(FSCopy(p("src2"), p("dst"), true), -1);
    EXPECT_EQ(ReadFile(p("dst")), "s");
}

// ---------------------------------------------------------------- times and volumes

// is_fat is process-wide and sticky; the test puts it back whatever happens.
struct FatFlagGuard {
    bool saved = is_fat.exchange(false);
    ~FatFlagGuard() { is_fat = saved; }
};

TEST_F(FileOpTest, VolumeKindDecidesHowTimesAreKeptAndCompared) {
    FatFlagGuard restore;
    dir.write("f", "x");
    EXPECT_EQ(FSUTime(p("f"), 1, 1600000001), 0);
    FILE_INFO info;
    ASSERT_EQ(FSStat(p("f"), info), 0);
    EXPECT_EQ(info.mtime, 1600000001u);
    EXPECT_EQ(FSUTime(p("absent"), 0, 1), -1);
    EXPECT_FALSE(FSTimeEqual(10, 11));
    EXPECT_EQ(FSInit(p("not/yet/made")), 0) << "the nearest existing folder decides";
    EXPECT_FALSE(is_fat);
    EXPECT_FALSE(IsMSDOS(dir.path()));
    EXPECT_EQ(FSInit("relative/path"), -1);
    fs.FailNth(FsOp::kVolumeInfo, 1, EIO, true);
    EXPECT_EQ(FSInit(dir.path()), -1);
    fs.Heal(FsOp::kVolumeInfo);

    platform::VolumeInfo vfat;
    vfat.fs_name = "vfat";
    vfat.is_fat = true;
    fs.ForceVolume(vfat);
    ASSERT_EQ(FSInit(dir.path()), 0);
    EXPECT_TRUE(is_fat);
    EXPECT_TRUE(IsMSDOS(dir.path()));
    ASSERT_EQ(FSUTime(p("f"), 0, 1600000001), 0);
    ASSERT_EQ(FSStat(p("f"), info), 0);
    EXPECT_EQ(info.mtime, 1600000000u) << "two-second steps";
    EXPECT_TRUE(FSTimeEqual(info.mtime, 1600000001));
    EXPECT_TRUE(FSTimeEqual(1600000001, info.mtime));
    EXPECT_FALSE(FSTimeEqual(1600000000, 1600000002));
}

TEST_F(FileOpTest, SyncFolderMustBeALocalRealDirectory) {
    make({"folder/", "file"});
    ASSERT_EQ(::symlink(p("folder").c_str(), p("link").c_str()), 0);
    EXPECT_TRUE(IsValidSyncFolder(p("folder")));
    for (const std::string& bad :
         {p("file"), p("link"), p("absent"), std::string("relative"), std::string()})
        EXPECT_FALSE(IsValidSyncFolder(bad)) << bad;

    using platform::VolumeClass;
    platform::VolumeInfo vol;
    for (auto [klass, valid] :
         {std::pair{VolumeClass::kRemote, false}, std::pair{VolumeClass::kOptical, false},
          std::pair{VolumeClass::kMemory, true}}) {
        vol.klass = klass;
        fs.ForceVolume(vol);
        EXPECT_EQ(IsValidSyncFolder(p("folder")), valid) << int(klass);
    }
}

// ---------------------------------------------------------------- locks

TEST_F(FileOpTest, LockedMeansAnotherHoldsALockOrAccessIsRefused) {
    make({"f", "d/"});
    for (uint32_t flag : {FS_GENERIC_READ, FS_GENERIC_READ | FS_GENERIC_WRITE | FS_DELETE}) {
        EXPECT_FALSE(isFileLocked(p("f"), flag));
        EXPECT_FALSE(isFileLocked(p("d"), flag));
        EXPECT_FALSE(isFileLocked(p("absent"), flag));
    }
    int holder = ::open(p("f").c_str(), O_RDWR);
    ASSERT_GE(holder, 0);
    struct flock fl {};
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_FALSE(isFileLocked(p("f"), FS_GENERIC_READ)) << "readers share";
    EXPECT_TRUE(isFileLocked(p("f"), FS_GENERIC_READ | FS_GENERIC_WRITE | FS_DELETE));
    fl.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_TRUE(isFileLocked(p("f"), FS_GENERIC_READ));
    ::close(holder);
    EXPECT_FALSE(isFileLocked(p("f"), FS_GENERIC_READ));

    // Refused access is a lock; other failures are not.
    using C = std::tuple<FsOp, int, uint32_t, bool>;
    for (auto [op, err, flag, locked] :
         {C{FsOp::kOpen, EACCES, FS_GENERIC_READ, true},
          C{FsOp::kOpen, EBUSY, FS_GENERIC_READ, true},
          C{FsOp::kAccess, EACCES, FS_GENERIC_WRITE, true},
          C{FsOp::kAccess, EROFS, FS_GENERIC_WRITE, true},
          C{FsOp::kAccess, EACCES, FS_DELETE, true}, C{FsOp::kOpen, ENOENT, FS_GENERIC_READ, false},
          C{FsOp::kAccess, ENOENT, FS_DELETE, false}}) {
        fs.FailNth(op, 1, err, true);
        EXPECT_EQ(isFileLocked(p("f"), flag), locked) << int(op) << " " << err;
        fs.Heal(op);
    }
}

// ---------------------------------------------------------------- temporary names

TEST_F(FileOpTest, MktempMakesAFreshEmptyFileUnderANewName) {
    ustring a;
    ustring b;
    ASSERT_EQ(FSMktemp(dir.path(), a), 0);
    ASSERT_EQ(FSMktemp(dir.path(), b), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(a.substr(0, dir.path().size() + 1), ustring(dir.path() + "/"));
    EXPECT_TRUE(Exists(a.str()));
    ustring kept("unchanged");
    EXPECT_EQ(FSMktemp(p("absent"), kept), -1);
    EXPECT_EQ(kept, ustring("unchanged"));

    int opens = fs.Calls(FsOp::kOpen);
    fs.FailNth(FsOp::kOpen, 1, EEXIST);
    ASSERT_EQ(FSMktemp(dir.path(), a), 0);
    EXPECT_EQ(fs.Calls(FsOp::kOpen) - opens, 2) << "a taken name asks for another";
    fs.FailNth(FsOp::kOpen, 1, EEXIST, true);
    EXPECT_EQ(FSMktemp(dir.path(), a), -1) << "gives up in the end";
}

}  // namespace
