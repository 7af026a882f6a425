// The file layer against a real temporary folder, with the fault-injecting file
// system where a failure or another kind of volume is needed.
#include "foundation/file-op.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/policy.h"
#include "support/fault-fs.h"
#include "support/temp-dir.h"

namespace {

using tbtest::FaultFileSystem;
using tbtest::FsOp;
using tbtest::ScopedFileSystem;

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void make_dir(const std::string& path) {
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path;
}

bool running_as_root() {
    return ::geteuid() == 0;
}

// is_fat is process-wide and sticky; tests that set it put it back.
class FatFlagGuard {
  public:
    FatFlagGuard() : m_saved(is_fat.load()) {}
    ~FatFlagGuard() { is_fat = m_saved; }

  private:
    bool m_saved;
};

class FileOpTest : public ::testing::Test {
  protected:
    TempDir dir;
    std::string p(const std::string& name) const { return dir / name; }
};

// ---------------------------------------------------------------- FSStat

TEST_F(FileOpTest, StatReportsEachKindOfObject) {
    dir.write("file", "12345");
    make_dir(p("sub"));
    ASSERT_EQ(::symlink("file", p("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("fifo").c_str(), 0644), 0);

    FILE_INFO info;
    ASSERT_EQ(FSStat(p("file"), info, true), 0);
    EXPECT_TRUE(info.isExist);
    EXPECT_EQ(info.type, FT_FILE);
    EXPECT_EQ(info.size, 5u);
    EXPECT_EQ(info.path, ustring(p("file").c_str()));
    EXPECT_TRUE(info.name.empty());

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

TEST_F(FileOpTest, StatOfAbsentObjectsIsSuccessWithoutExistence) {
    dir.write("file", "x");
    ASSERT_EQ(::symlink("loop", p("loop").c_str()), 0);
    const std::vector<std::string> absent = {
        p("missing"),    p("missing/deeper"),      p("file/child"),
        p("loop/child"), p(std::string(300, 'x')),  // longer than any name can be
    };
    for (const std::string& path : absent) {
        FILE_INFO info;
        info.isExist = true;
        EXPECT_EQ(FSStat(path, info, true), 0) << path;
        EXPECT_FALSE(info.isExist) << path;
        EXPECT_FALSE(IsFileExist(path, false)) << path;
    }
    FILE_INFO info;
    EXPECT_EQ(FSStat("", info), 0);
    EXPECT_FALSE(info.isExist);

    ASSERT_EQ(FSStat(p("loop"), info, true), 0);
    EXPECT_EQ(info.type, FT_SLINK) << "a link loop is still a link";
}

TEST_F(FileOpTest, AwkwardNamesAreOrdinaryNames) {
    const std::vector<std::string> names = {"with space",  "quote'\"s", "épreuve ü 日本",
                                            "back\\slash", "-dash",     std::string(255, 'L')};
    for (const std::string& name : names) {
        dir.write(name, "n");
        FILE_INFO info;
        ASSERT_EQ(FSStat(p(name), info, true), 0) << name;
        EXPECT_TRUE(info.isExist) << name;
        EXPECT_EQ(info.type, FT_FILE) << name;
        EXPECT_TRUE(IsFileExist(p(name), true)) << name;
    }
}

TEST_F(FileOpTest, UnsearchableDirectoryIsAFailureNotAnAbsence) {
    if (running_as_root()) GTEST_SKIP() << "permissions do not bind root; run as a normal user";
    make_dir(p("locked"));
    dir.write("locked/inside", "x");
    ASSERT_EQ(::chmod(p("locked").c_str(), 0), 0);
    FILE_INFO info;
    EXPECT_EQ(FSStat(p("locked/inside"), info, true), -1);
    EXPECT_FALSE(IsFileExist(p("locked/inside"), false));
    ::chmod(p("locked").c_str(), 0755);
}

TEST_F(FileOpTest, FileInfoEqualityIgnoresOwnership) {
    FILE_INFO a;
    a.path = "/x";
    a.isExist = true;
    a.size = 3;
    a.mtime = 7;
    a.type = FT_FILE;
    FILE_INFO b = a;
    b.uid = 1;
    b.gid = 2;
    EXPECT_TRUE(a == b);
    b.mtime = 8;
    EXPECT_TRUE(a != b);
    b = a;
    b.name = "x";
    EXPECT_TRUE(a != b);
}

// ---------------------------------------------------------------- case

TEST_F(FileOpTest, CaseSensitiveVolumeOnlyKnowsTheExactName) {
    dir.write("Report.txt", "r");
    EXPECT_TRUE(IsFileExist(p("Report.txt"), true));
    EXPECT_FALSE(IsFileExist(p("report.txt"), true));
    EXPECT_FALSE(IsFileExist(p("report.txt"), false));
}

class FoldingVolumeTest : public FileOpTest {
  protected:
    FaultFileSystem fs;
    std::optional<ScopedFileSystem> guard;
    void SetUp() override {
        fs.ForceCaseFolding(true);
        guard.emplace(fs);
        make_dir(p("Docs"));
        dir.write("Docs/Report.txt", "r");
    }
};

TEST_F(FoldingVolumeTest, CaseCheckTellsTheStoredSpelling) {
    EXPECT_TRUE(IsFileExist(p("Docs/report.TXT"), false)) << "a folding volume finds any case";
    EXPECT_FALSE(IsFileExist(p("Docs/report.TXT"), true));
    EXPECT_TRUE(IsFileExist(p("Docs/Report.txt"), true));
    EXPECT_TRUE(IsFileExist(p("docs/Report.txt"), true)) << "only the last element is checked";

    FILE_INFO info;
    ASSERT_EQ(FSStat(p("Docs/REPORT.txt"), info, true), 0);
    EXPECT_FALSE(info.isExist);
    ASSERT_EQ(FSStat(p("Docs/REPORT.txt"), info, false), 0);
    EXPECT_TRUE(info.isExist);
    EXPECT_EQ(info.type, FT_FILE);
}

TEST_F(FoldingVolumeTest, CaseOnlyRenameIsSeenAsTheOldNameGoing) {
    ASSERT_EQ(FSRename(p("Docs/Report.txt"), p("Docs/report.txt")), 0);
    EXPECT_FALSE(IsFileExist(p("Docs/Report.txt"), true));
    EXPECT_TRUE(IsFileExist(p("Docs/report.txt"), true));
}

TEST_F(FoldingVolumeTest, RealPathRestoresTheCaseOfEveryElement) {
    ustring path(p("DOCS/report.TXT").c_str());
    ASSERT_EQ(FSGetRealPath(path), 0);
    EXPECT_EQ(path, ustring(p("Docs/Report.txt").c_str()));
}

TEST_F(FileOpTest, RealPathOnACaseSensitiveVolumeDropsTrailingSeparators) {
    make_dir(p("a"));
    ustring path((p("a") + "//").c_str());
    ASSERT_EQ(FSGetRealPath(path), 0);
    EXPECT_EQ(path, ustring(p("a").c_str()));
    ustring missing(p("none").c_str());
    EXPECT_EQ(FSGetRealPath(missing), -1);
    EXPECT_EQ(missing, ustring(p("none").c_str()));
    ustring root("/");
    EXPECT_EQ(FSGetRealPath(root), -1) << "nothing is left of the root";
}

// ---------------------------------------------------------------- listing

std::map<std::string, DIR_ENTRY> list_all(const std::string& path, int flag, int* last_rc) {
    DIR_HANDLE dh;
    EXPECT_EQ(FSOpenDir(path.c_str(), flag, dh), 0);
    std::map<std::string, DIR_ENTRY> out;
    DIR_ENTRY e;
    int rc;
    while ((rc = FSReadDir(dh, e)) == 1) out[e.name.str()] = e;
    *last_rc = rc;
    FSCloseDir(dh);
    EXPECT_TRUE(dh.path.empty());
    return out;
}

TEST_F(FileOpTest, ReadDirDeliversEveryNameWithTypeAndOptionalTimes) {
    dir.write("f", "abc");
    make_dir(p("d"));
    ASSERT_EQ(::symlink("d", p("l").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("pipe").c_str(), 0644), 0);
    ASSERT_EQ(FSUTime(p("f"), 0, 1234567890), 0);

    int rc = 0;
    auto with = list_all(dir.path(), 1, &rc);
    EXPECT_EQ(rc, 0);
    ASSERT_EQ(with.size(), 6u);
    EXPECT_EQ(with["."].type, FT_DIR);
    EXPECT_EQ(with[".."].type, FT_DIR);
    EXPECT_EQ(with["f"].type, FT_FILE);
    EXPECT_EQ(with["f"].size, 3u);
    EXPECT_EQ(with["f"].mtime, 1234567890u);
    EXPECT_EQ(with["d"].type, FT_DIR);
    EXPECT_EQ(with["d"].size, 0u);
    EXPECT_NE(with["d"].mtime, 0u);
    EXPECT_EQ(with["l"].type, FT_SLINK);
    EXPECT_EQ(with["l"].size, 0u) << "sizes are for files only";
    EXPECT_EQ(with["pipe"].type, FT_ERR);

    auto without = list_all(dir.path(), 0, &rc);
    EXPECT_EQ(without["f"].type, FT_FILE);
    EXPECT_EQ(without["f"].size, 0u);
    EXPECT_EQ(without["f"].mtime, 0u);
}

TEST_F(FileOpTest, ReadDirFailsWhenTheDirectoryWentBeforeTheFirstRead) {
    make_dir(p("gone"));
    DIR_HANDLE dh;
    ASSERT_EQ(FSOpenDir(p("gone").c_str(), 1, dh), 0) << "opening touches nothing";
    ASSERT_EQ(::rmdir(p("gone").c_str()), 0);
    DIR_ENTRY e;
    EXPECT_EQ(FSReadDir(dh, e), -1);
    FSCloseDir(dh);
    DIR_HANDLE empty;
    EXPECT_EQ(FSReadDir(empty, e), -1);
}

TEST_F(FileOpTest, NamesThatAreNotUtf8AreSkippedByWalks) {
    dir.write("good", "g");
    dir.write("bad\xff\xfe", "b");
    int rc = 0;
    auto names = list_all(dir.path(), 0, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(names.size(), 3u);
    EXPECT_EQ(names.count("good"), 1u);

    std::vector<std::string> seen;
    auto collect = [](const ustring& path, void* priv) {
        static_cast<std::vector<std::string>*>(priv)->push_back(path.str());
        return 0;
    };
    EXPECT_EQ(TraverseDir(dir.path().c_str(), collect, &seen), 0);
    EXPECT_EQ(seen, (std::vector<std::string>{dir.path(), p("good")}));
}

// ---------------------------------------------------------------- TraverseDir

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
    make_dir(p("root"));
    make_dir(p("root/sub"));
    dir.write("root/sub/x", "x");
    make_dir(p("outside"));
    dir.write("outside/secret", "s");
    ASSERT_EQ(::symlink(p("outside").c_str(), p("root/link").c_str()), 0);

    Walk w;
    EXPECT_EQ(TraverseDir(p("root").c_str(), record, &w), 0);
    std::multiset<std::string> got(w.seen.begin(), w.seen.end());
    EXPECT_EQ(got, (std::multiset<std::string>{p("root"), p("root/sub"), p("root/sub/x"),
                                               p("root/link")}));
    EXPECT_EQ(w.seen.front(), p("root"));
}

TEST_F(FileOpTest, TraverseRefusalEndsOnlyThatLevel) {
    make_dir(p("root"));
    make_dir(p("root/a"));
    dir.write("root/a/1", "");
    dir.write("root/a/2", "");
    dir.write("root/b", "");
    make_dir(p("root/c"));
    dir.write("root/c/3", "");

    // Whichever file of "a" comes first is refused; the walk of the root goes on.
    Walk probe;
    TraverseDir(p("root/a").c_str(), record, &probe);
    ASSERT_EQ(probe.seen.size(), 3u);
    Walk w;
    w.refuse = probe.seen[1];
    EXPECT_EQ(TraverseDir(p("root").c_str(), record, &w), 0);
    std::set<std::string> got(w.seen.begin(), w.seen.end());
    EXPECT_EQ(got.count(probe.seen[2]), 0u) << "the rest of the refused level is skipped";
    EXPECT_EQ(got.count(p("root/b")), 1u);
    EXPECT_EQ(got.count(p("root/c/3")), 1u);
}

TEST_F(FileOpTest, TraverseResultsForRefusedRootAbsentDirAndFile) {
    Walk w;
    w.refuse = p("none");
    EXPECT_EQ(TraverseDir(p("none").c_str(), record, &w), -2);
    Walk w2;
    EXPECT_EQ(TraverseDir(p("none").c_str(), record, &w2), 0);
    EXPECT_EQ(w2.seen.size(), 1u);
    dir.write("plain", "");
    Walk w3;
    EXPECT_EQ(TraverseDir(p("plain").c_str(), record, &w3), 0);
    EXPECT_EQ(w3.seen.size(), 1u);
}

// ---------------------------------------------------------------- FSMKDirP / FSMKDir

TEST_F(FileOpTest, MkdirPMakesEveryMissingElement) {
    EXPECT_EQ(FSMKDirP((p("a/b") + "/").c_str()), 0);
    EXPECT_TRUE(exists(p("a/b")));
    EXPECT_EQ(FSMKDirP(p("a/b/c/d").c_str()), 0) << "partly existing";
    EXPECT_TRUE(exists(p("a/b/c/d")));
    EXPECT_EQ(FSMKDirP(p("a/b/c/d").c_str()), 0) << "all existing";
    EXPECT_EQ(FSMKDirP(p("e//f").c_str()), 0) << "empty elements are skipped";
    EXPECT_TRUE(exists(p("e/f")));
}

TEST_F(FileOpTest, MkdirPBlockedByAFileSaysWhere) {
    dir.write("a", "keep");
    errno = 0;
    EXPECT_EQ(FSMKDirP(p("a/b").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    make_dir(p("x"));
    dir.write("x/b", "keep");
    errno = 0;
    EXPECT_EQ(FSMKDirP((p("x/b") + "/").c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(slurp(p("a")), "keep");
    EXPECT_EQ(slurp(p("x/b")), "keep");

    EXPECT_EQ(FSMKDirP(p("a/b").c_str(), nullptr, true), 0) << "forced creation replaces the file";
    EXPECT_TRUE(exists(p("a/b")));
}

TEST_F(FileOpTest, MkdirPWithoutASeparatorCreatesNothing) {
    EXPECT_EQ(FSMKDirP("plainname"), 0);
    EXPECT_FALSE(exists("plainname"));
    EXPECT_EQ(FSMKDirP("/"), 0);
    EXPECT_EQ(FSMKDirP(""), -1);
}

TEST_F(FileOpTest, MkdirPFailureOfAnInnerElementGivesTheLastResult) {
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kMkdir, 1, EIO);
    errno = 0;
    EXPECT_EQ(FSMKDirP(p("m/n").c_str()), -1);
    EXPECT_EQ(errno, ENOENT) << "the walk went on to the last element, which then failed";
    EXPECT_EQ(fs.Calls(FsOp::kMkdir), 2);
}

TEST_F(FileOpTest, MkdirWithoutParents) {
    EXPECT_EQ(FSMKDir(p("one").c_str()), 0);
    EXPECT_EQ(FSMKDir(p("one").c_str()), 0) << "existing is success";
    EXPECT_EQ(FSMKDir(p("no/parent").c_str()), -1);
    EXPECT_EQ(FSMKDir(p("with/parents").c_str(), true), 0);
    EXPECT_TRUE(exists(p("with/parents")));
}

// ---------------------------------------------------------------- FSRemove

class RemoveTest : public FileOpTest {
  protected:
    std::optional<std::string> old_xdg;
    void SetUp() override {
        if (const char* v = std::getenv("XDG_DATA_HOME")) old_xdg = v;
        ::setenv("XDG_DATA_HOME", p("xdg").c_str(), 1);
        make_dir(p("data"));
    }
    void TearDown() override {
        if (old_xdg)
            ::setenv("XDG_DATA_HOME", old_xdg->c_str(), 1);
        else
            ::unsetenv("XDG_DATA_HOME");
    }
};

TEST_F(RemoveTest, RemovesFilesAndTreesAndIgnoresAbsence) {
    dir.write("data/f", "x");
    make_dir(p("data/t"));
    make_dir(p("data/t/u"));
    dir.write("data/t/u/v", "x");
    EXPECT_EQ(FSRemove(p("data/f").c_str()), 0);
    EXPECT_FALSE(exists(p("data/f")));
    EXPECT_EQ(FSRemove(p("data/t").c_str()), 0);
    EXPECT_FALSE(exists(p("data/t")));
    EXPECT_EQ(FSRemove(p("data/absent").c_str()), 0);
    EXPECT_EQ(FSRemove(""), -1);
}

TEST_F(RemoveTest, LinksAndSpecialFilesAreNotRemovedPermanently) {
    dir.write("data/target", "x");
    ASSERT_EQ(::symlink("target", p("data/link").c_str()), 0);
    ASSERT_EQ(::mkfifo(p("data/fifo").c_str(), 0644), 0);
    EXPECT_EQ(FSRemove(p("data/link").c_str()), -1);
    EXPECT_EQ(FSRemove(p("data/fifo").c_str()), -1);
    EXPECT_TRUE(exists(p("data/link")));
    EXPECT_TRUE(exists(p("data/target")));
}

TEST_F(RemoveTest, UndoableRemovalGoesToTheTrash) {
    dir.write("data/doc", "precious");
    EXPECT_EQ(FSRemove(p("data/doc").c_str(), true), 0);
    EXPECT_FALSE(exists(p("data/doc")));
    EXPECT_EQ(slurp(p("xdg/Trash/files/doc")), "precious");
    EXPECT_TRUE(exists(p("xdg/Trash/info/doc.trashinfo")));
}

TEST_F(RemoveTest, RefusedTrashDeletesNothing) {
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kTrash, 1, EACCES);
    dir.write("data/doc", "precious");
    EXPECT_EQ(FSRemove(p("data/doc").c_str(), true), -3);
    EXPECT_EQ(slurp(p("data/doc")), "precious");
}

TEST_F(RemoveTest, RecursiveRemovalNeverLeavesTheTree) {
    make_dir(p("outside"));
    dir.write("outside/keep", "k");
    make_dir(p("data/tree"));
    make_dir(p("data/tree/inner"));
    dir.write("data/tree/inner/file", "f");
    ASSERT_EQ(::symlink(p("outside").c_str(), p("data/tree/to-dir").c_str()), 0);
    ASSERT_EQ(::symlink(p("outside/keep").c_str(), p("data/tree/inner/to-file").c_str()), 0);

    EXPECT_EQ(RemoveDirectoryRecursive(p("data/tree").c_str()), 0);
    EXPECT_FALSE(exists(p("data/tree")));
    EXPECT_EQ(slurp(p("outside/keep")), "k");

    ASSERT_EQ(::symlink(p("outside").c_str(), p("data/link-root").c_str()), 0);
    EXPECT_EQ(RemoveDirectoryRecursive(p("data/link-root").c_str()), -1)
        << "a link is never walked as the tree itself";
    EXPECT_EQ(slurp(p("outside/keep")), "k");
}

TEST_F(RemoveTest, RecursiveRemovalCarriesOnPastAFailure) {
    make_dir(p("data/tree"));
    for (const char* n : {"a", "b", "c"}) dir.write(std::string("data/tree/") + n, n);
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kRemoveFile, 2, EACCES);
    EXPECT_EQ(RemoveDirectoryRecursive(p("data/tree").c_str()), -1);
    int left = 0;
    for (const char* n : {"a", "b", "c"}) left += exists(p("data/tree/") + n) ? 1 : 0;
    EXPECT_EQ(left, 1) << "only the refused file stays";
    EXPECT_TRUE(exists(p("data/tree")));
}

// ---------------------------------------------------------------- FSRename

TEST_F(FileOpTest, RenameReplacesAnExistingFileDurably) {
    dir.write("new", "new content");
    dir.write("old", "old content");
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    EXPECT_EQ(FSRename(p("new").c_str(), p("old").c_str(), true), 0);
    EXPECT_EQ(slurp(p("old")), "new content");
    EXPECT_FALSE(exists(p("new")));
    EXPECT_EQ(fs.Calls(FsOp::kSyncDir), 1) << "the new name is flushed";
}

TEST_F(FileOpTest, RenameFailuresAndTooLongNames) {
    EXPECT_EQ(FSRename(p("absent").c_str(), p("x").c_str()), -1);
    dir.write("src", "s");
    EXPECT_EQ(FSRename(p("src").c_str(), p(std::string(300, 'n')).c_str()), -100);
    EXPECT_EQ(slurp(p("src")), "s");
}

TEST_F(FileOpTest, FailedRenameLeavesBothFilesIntact) {
    dir.write("new", "new");
    dir.write("old", "old");
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kRenameReplace, 1, EIO);
    EXPECT_EQ(FSRename(p("new").c_str(), p("old").c_str()), -1);
    EXPECT_EQ(slurp(p("new")), "new");
    EXPECT_EQ(slurp(p("old")), "old");
    fs.FailNth(FsOp::kRenameReplace, 1, ENAMETOOLONG);
    EXPECT_EQ(FSRename(p("new").c_str(), p("old").c_str()), -100);
}

TEST_F(FileOpTest, UnflushableRenameStillSucceeds) {
    dir.write("a", "a");
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kSyncDir, 1, EIO);
    EXPECT_EQ(FSRename(p("a").c_str(), p("b").c_str()), 0);
    EXPECT_EQ(slurp(p("b")), "a");
}

// ---------------------------------------------------------------- FSCopy

std::string random_bytes(size_t n) {
    std::mt19937 gen(7);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

TEST_F(FileOpTest, CopyReproducesTheBytesAndKeepsTheSource) {
    std::string content = random_bytes(1 << 20);
    dir.write("src", content);
    dir.write("dst", "old and longer than nothing");
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), false), 0);
    EXPECT_EQ(slurp(p("dst")), content);
    EXPECT_EQ(slurp(p("src")), content);
    dir.write("empty", "");
    EXPECT_EQ(FSCopy(p("empty").c_str(), p("dst").c_str(), true), 0);
    EXPECT_EQ(slurp(p("dst")), "");
    EXPECT_FALSE(exists(p("empty")));
}

TEST_F(FileOpTest, CopyRefusesAMissingSourceOrALinkedDestination) {
    EXPECT_EQ(FSCopy(p("absent").c_str(), p("dst").c_str(), false), -1);
    EXPECT_FALSE(exists(p("dst")));
    dir.write("src", "s");
    dir.write("victim", "untouched");
    ASSERT_EQ(::symlink("victim", p("dst").c_str()), 0);
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), false), -1);
    EXPECT_EQ(slurp(p("victim")), "untouched");
}

TEST_F(FileOpTest, FullDiskDuringCopyGivesMinusTwoAndKeepsTheSource) {
    dir.write("src", random_bytes(4096));
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kFileWrite, 1, ENOSPC);
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), false), -2);
    EXPECT_TRUE(exists(p("dst"))) << "the partial destination is left to the caller";
    EXPECT_EQ(slurp(p("src")).size(), 4096u);
    fs.FailNth(FsOp::kFileWrite, 1, EIO);
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), false), -1);
    fs.FailNth(FsOp::kFileRead, 1, EIO);
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), false), -1);
}

TEST_F(FileOpTest, CopyWithDeletionDeletesTheSourceEvenAfterAFailure) {
    dir.write("src", "s");
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kFileWrite, 1, ENOSPC);
    EXPECT_EQ(FSCopy(p("src").c_str(), p("dst").c_str(), true), -2);
    EXPECT_FALSE(exists(p("src")));
    dir.write("src2", "s");
    fs.FailNth(FsOp::kRemoveFile, 1, EACCES);
    EXPECT_EQ(FSCopy(p("src2").c_str(), p("dst").c_str(), true), -1);
    EXPECT_EQ(slurp(p("dst")), "s");
}

// ---------------------------------------------------------------- times and volumes

TEST_F(FileOpTest, UTimeSetsOnlyTheWriteTime) {
    dir.write("f", "x");
    struct stat before {};
    ASSERT_EQ(::stat(p("f").c_str(), &before), 0);
    EXPECT_EQ(FSUTime(p("f").c_str(), 1, 1600000001), 0);
    struct stat after {};
    ASSERT_EQ(::stat(p("f").c_str(), &after), 0);
    EXPECT_EQ(after.st_mtime, 1600000001);
    EXPECT_EQ(after.st_atime, before.st_atime);
    EXPECT_EQ(FSUTime(p("absent").c_str(), 0, 1), -1);
}

TEST_F(FileOpTest, FatVolumeRoundsTimesAndComparesLoosely) {
    FatFlagGuard restore;
    FaultFileSystem fs;
    platform::VolumeInfo vfat;
    vfat.fs_name = "vfat";
    vfat.is_fat = true;
    vfat.folds_case = true;
    fs.ForceVolume(vfat);
    ScopedFileSystem guard(fs);

    is_fat = false;
    EXPECT_TRUE(FSTimeEqual(10, 10));
    EXPECT_FALSE(FSTimeEqual(10, 11));
    ASSERT_EQ(FSInit(dir.path().c_str()), 0);
    EXPECT_TRUE(is_fat);
    EXPECT_TRUE(IsMSDOS(dir.path().c_str()));

    dir.write("f", "x");
    ASSERT_EQ(FSUTime(p("f").c_str(), 0, 1600000001), 0);
    FILE_INFO info;
    ASSERT_EQ(FSStat(p("f").c_str(), info), 0);
    EXPECT_EQ(info.mtime, 1600000000u);
    EXPECT_TRUE(FSTimeEqual(info.mtime, 1600000001));
    EXPECT_TRUE(FSTimeEqual(1600000001, info.mtime));
    EXPECT_FALSE(FSTimeEqual(1600000000, 1600000002));
}

TEST_F(FileOpTest, OrdinaryVolumesAreNotFat) {
    FatFlagGuard restore;
    is_fat = false;
    EXPECT_EQ(FSInit(dir.path().c_str()), 0);
    EXPECT_EQ(FSInit(p("not/yet/made").c_str()), 0) << "the nearest existing folder decides";
    EXPECT_FALSE(is_fat);
    EXPECT_FALSE(IsMSDOS(dir.path().c_str()));
    EXPECT_EQ(FSInit("relative/path"), -1);
    EXPECT_FALSE(IsMSDOS("relative/path"));
    EXPECT_EQ(FSInitialize(1, 2), 0);
    EXPECT_EQ(FSChown(dir.path().c_str()), 0);
}

TEST_F(FileOpTest, FailedVolumeQueryIsAnError) {
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kVolumeInfo, 1, EIO, true);
    EXPECT_EQ(FSInit(dir.path().c_str()), -1);
    EXPECT_FALSE(IsMSDOS(dir.path().c_str()));
}

// ---------------------------------------------------------------- sync folder rule

TEST_F(FileOpTest, SyncFolderMustBeALocalRealDirectory) {
    make_dir(p("folder"));
    dir.write("file", "");
    ASSERT_EQ(::symlink(p("folder").c_str(), p("link").c_str()), 0);
    EXPECT_TRUE(IsValidSyncFolder(p("folder").c_str()));
    EXPECT_FALSE(IsValidSyncFolder(p("file").c_str()));
    EXPECT_FALSE(IsValidSyncFolder(p("link").c_str()));
    EXPECT_FALSE(IsValidSyncFolder(p("absent").c_str()));
    EXPECT_FALSE(IsValidSyncFolder("relative"));
    EXPECT_FALSE(IsValidSyncFolder(""));
}

TEST_F(FileOpTest, SyncFolderOnNetworkOrOpticalVolumesIsRefused) {
    make_dir(p("folder"));
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    struct Case {
        const char* name;
        platform::VolumeClass klass;
        bool valid;
    };
    for (const Case& c : {Case{"nfs", platform::VolumeClass::kRemote, false},
                          Case{"cifs", platform::VolumeClass::kRemote, false},
                          Case{"iso9660", platform::VolumeClass::kOptical, false},
                          Case{"tmpfs", platform::VolumeClass::kMemory, true},
                          Case{"vfat", platform::VolumeClass::kFixed, true}}) {
        platform::VolumeInfo vol;
        vol.fs_name = c.name;
        vol.klass = c.klass;
        fs.ForceVolume(vol);
        EXPECT_EQ(IsValidSyncFolder(p("folder").c_str()), c.valid) << c.name;
    }
}

TEST(SyncFolderOnMemory, RealTmpfsIsAccepted) {
    platform::VolumeInfo vol;
    if (platform::default_file_system().volume_info("/dev/shm", vol, nullptr) != 0 ||
        vol.fs_name != "tmpfs")
        GTEST_SKIP() << "/dev/shm is not a tmpfs here";
    EXPECT_TRUE(IsValidSyncFolder("/dev/shm"));
}

// ---------------------------------------------------------------- locks

TEST_F(FileOpTest, PlainFilesAreNotLockedAndAbsentOnesNeither) {
    dir.write("f", "x");
    make_dir(p("d"));
    for (uint32_t flag : {FS_GENERIC_READ, FS_GENERIC_READ | FS_GENERIC_WRITE | FS_DELETE,
                          FS_GENERIC_WRITE | FS_DELETE}) {
        EXPECT_FALSE(isFileLocked(p("f").c_str(), flag));
        EXPECT_FALSE(isFileLocked(p("d").c_str(), flag));
        EXPECT_FALSE(isFileLocked(p("absent").c_str(), flag));
    }
}

TEST_F(FileOpTest, FileHeldUnderALockByAnotherOpeningIsLocked) {
    dir.write("f", "x");
    int holder = ::open(p("f").c_str(), O_RDWR);
    ASSERT_GE(holder, 0);
    struct flock fl {};
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_FALSE(isFileLocked(p("f").c_str(), FS_GENERIC_READ)) << "readers share";
    EXPECT_TRUE(isFileLocked(p("f").c_str(), FS_GENERIC_READ | FS_GENERIC_WRITE | FS_DELETE));
    fl.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(holder, F_OFD_SETLK, &fl), 0);
    EXPECT_TRUE(isFileLocked(p("f").c_str(), FS_GENERIC_READ));
    ::close(holder);
    EXPECT_FALSE(isFileLocked(p("f").c_str(), FS_GENERIC_READ));
}

TEST_F(FileOpTest, PermissionsDecideLocksForNormalUsers) {
    if (running_as_root()) GTEST_SKIP() << "permissions do not bind root; run as a normal user";
    dir.write("unreadable", "x");
    ASSERT_EQ(::chmod(p("unreadable").c_str(), 0200), 0);
    EXPECT_TRUE(isFileLocked(p("unreadable").c_str(), FS_GENERIC_READ));
    dir.write("readonly", "x");
    ASSERT_EQ(::chmod(p("readonly").c_str(), 0400), 0);
    EXPECT_FALSE(isFileLocked(p("readonly").c_str(), FS_GENERIC_READ));
    EXPECT_TRUE(isFileLocked(p("readonly").c_str(), FS_GENERIC_WRITE));
    make_dir(p("sealed"));
    dir.write("sealed/f", "x");
    ASSERT_EQ(::chmod(p("sealed").c_str(), 0555), 0);
    EXPECT_FALSE(isFileLocked(p("sealed/f").c_str(), FS_GENERIC_READ));
    EXPECT_TRUE(isFileLocked(p("sealed/f").c_str(), FS_DELETE));
    ::chmod(p("sealed").c_str(), 0755);
}

// ---------------------------------------------------------------- temporary names

TEST_F(FileOpTest, MktempMakesAFreshEmptyFile) {
    ustring a;
    ustring b;
    ASSERT_EQ(FSMktemp(dir.path().c_str(), a), 0);
    ASSERT_EQ(FSMktemp(dir.path().c_str(), b), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(a.length(), dir.path().size() + 9);
    EXPECT_EQ(a.substr(0, dir.path().size() + 1), ustring((dir.path() + "/").c_str()));
    EXPECT_EQ(slurp(a.str()), "");
    ustring kept("unchanged");
    EXPECT_EQ(FSMktemp(p("absent").c_str(), kept), -1);
    EXPECT_EQ(kept, ustring("unchanged"));
}

TEST_F(FileOpTest, MktempNeverReusesATakenName) {
    FaultFileSystem fs;
    ScopedFileSystem guard(fs);
    fs.FailNth(FsOp::kOpen, 1, EEXIST);
    ustring path;
    ASSERT_EQ(FSMktemp(dir.path().c_str(), path), 0);
    EXPECT_EQ(fs.Calls(FsOp::kOpen), 2) << "a taken name asks for another";
    fs.FailNth(FsOp::kOpen, 1, EEXIST, true);
    EXPECT_EQ(FSMktemp(dir.path().c_str(), path), -1) << "gives up in the end";
}

TEST_F(FileOpTest, CreateTempPathOnlyNamesAFile) {
    ustring path;
    ASSERT_EQ(FSCreateTempPath(dir.path().c_str(), path), 0);
    EXPECT_FALSE(exists(path.str()));
    ASSERT_EQ(FSCreateTempPath("", path), 0);
    EXPECT_EQ(path.length(), 9u);
    EXPECT_EQ(path[0], '/');
}

}  // namespace
