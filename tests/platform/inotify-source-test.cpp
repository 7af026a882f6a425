// The Linux change source on real folders: what each kind of change is reported as,
// how new, renamed and departed directories are watched, bursts and overflows, the
// private area, and a root that goes away.
#include "platform/posix/inotify-source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "scoped-env.h"
#include "support/temp-dir.h"

using platform::ChangeNotice;
using platform::InotifyOptions;
using platform::InotifySource;

namespace {

constexpr uint64_t kSess = 7;
constexpr const char* kPrivate = ".ZephanorWorkingDirectory";

// "+a" added, "-a" removed, "~a" modified, "<a" renamed from, ">a" renamed to,
// "!overflow", "!limit a", "!failed a", "!gone", "!back".
std::string Text(const ChangeNotice& n) {
    static const char* const kinds[] = {"", "!overflow", "!limit ", "!failed ", "!gone", "!back"};
    if (n.kind != ChangeNotice::kRecord) return kinds[n.kind] + n.path;
    return std::string(1, "?+-~<>"[n.action >= 1 && n.action <= 5 ? n.action : 0]) + n.path;
}

using Texts = std::vector<std::string>;

bool Contains(const Texts& seen, const std::string& text) {
    return std::find(seen.begin(), seen.end(), text) != seen.end();
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Reads until every `wanted` text has come (or a deadline passes), then for a quiet
// period more, so that anything reported in excess shows up too.
Texts Pump(InotifySource& src, const Texts& wanted = {}) {
    Texts seen;
    std::vector<ChangeNotice> batch;
    const int64_t deadline = NowMs() + 5000;
    int64_t quiet_until = -1;
    while (quiet_until < 0 || NowMs() < quiet_until) {
        if (quiet_until < 0 &&
            (NowMs() >= deadline || std::all_of(wanted.begin(), wanted.end(),
                                                [&](auto& w) { return Contains(seen, w); }))) {
            quiet_until = NowMs() + 300;
        }
        src.wait(20, nullptr);
        batch.clear();
        src.read(batch, nullptr);
        for (const auto& n : batch) {
            EXPECT_EQ(n.sess_id, kSess);
            seen.push_back(Text(n));
        }
    }
    return seen;
}

// The same list with runs of one text made one: a write and its close may be read
// apart or together.
Texts Squash(Texts seen) {
    seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
    return seen;
}

void Write(const std::string& path, const std::string& data = "x") {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

void MkDir(const std::string& path) {
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path;
}

void Rename(const std::string& from, const std::string& to) {
    ASSERT_EQ(std::rename(from.c_str(), to.c_str()), 0) << from << " -> " << to;
}

class InotifyFixture : public ::testing::Test {
  protected:
    void SetUp() override { Open(InotifyOptions{}); }
    void Open(const InotifyOptions& options) {
        int err = 0;
        src = InotifySource::Create(options, &err);
        ASSERT_NE(src, nullptr) << err;
    }
    void Watch() { ASSERT_EQ(src->add(kSess, root.path(), kPrivate, nullptr), 0); }
    std::string At(const std::string& rel) const { return root / rel; }

    TempDir root;
    TempDir outside;
    std::unique_ptr<InotifySource> src;
};

}  // namespace

// ---------------------------------------------------------------------------------------
// Files: each change as the record the detector expects.

using InotifySourceFiles = InotifyFixture;

TEST_F(InotifySourceFiles, CreateModifyAndDeleteAreAddedModifiedRemoved) {
    Watch();
    Write(At("f"), "one");
    EXPECT_EQ(Squash(Pump(*src, {"+f", "~f"})), (Texts{"+f", "~f"}));
    std::ofstream(At("f"), std::ios::app) << "two";
    EXPECT_EQ(Squash(Pump(*src, {"~f"})), (Texts{"~f"}));
    ASSERT_EQ(::unlink(At("f").c_str()), 0);
    EXPECT_EQ(Pump(*src, {"-f"}), (Texts{"-f"}));
}

TEST_F(InotifySourceFiles, RenamesArePairedAndAMoveOutIsNotOvertakenByAMoveIn) {
    MkDir(At("x"));
    MkDir(At("y"));
    Write(At("x/a"));
    Write(At("doc"));
    Write(outside / "doc");
    Watch();
    Rename(At("x/a"), At("x/b"));
    Rename(At("x/b"), At("y/c"));
    // The name leaves the tree, then comes back: the order must survive the wait for
    // a rename partner, or the new file would be deleted.
    Rename(At("doc"), outside / "old-doc");
    Rename(outside / "doc", At("doc"));
    EXPECT_EQ(Pump(*src, {">y/c", "-doc", "+doc"}),
              (Texts{"<x/a", ">x/b", "<x/b", ">y/c", "-doc", "+doc"}));
}

// ---------------------------------------------------------------------------------------
// Directories: watched as they come, followed when renamed, dropped when they leave.

using InotifySourceDirectories = InotifyFixture;

TEST_F(InotifySourceDirectories, DirectoryFilledBeforeItsWatchExistsIsReportedWhole) {
    Watch();
    // Nothing is read until the whole tree exists, so every entry below "d" was made
    // before its directory could be watched.
    MkDir(At("d"));
    Write(At("d/f1"));
    Write(At("d/f2"));
    MkDir(At("d/e"));
    Write(At("d/e/g"));
    MkDir(At("d/e/h"));
    const Texts all = {"+d", "+d/f1", "+d/f2", "+d/e", "+d/e/g", "+d/e/h"};
    const Texts seen = Pump(*src, all);
    for (const std::string& want : all) EXPECT_TRUE(Contains(seen, want)) << want;
    EXPECT_LT(std::find(seen.begin(), seen.end(), "+d"),
              std::find(seen.begin(), seen.end(), "+d/e"));
    EXPECT_EQ(src->watch_count(kSess), 4);
    // And the new directories are watched from now on.
    Write(At("d/e/h/late"));
    EXPECT_TRUE(Contains(Pump(*src, {"+d/e/h/late"}), "+d/e/h/late"));
}

TEST_F(InotifySourceDirectories, RenamedDirectoryIsWatchedUnderItsNewName) {
    MkDir(At("a"));
    MkDir(At("a/b"));
    Watch();
    Rename(At("a"), At("z"));
    EXPECT_EQ(Pump(*src, {">z"}), (Texts{"<a", ">z"}));
    Write(At("z/b/new"));
    EXPECT_EQ(Squash(Pump(*src, {"+z/b/new"})), (Texts{"+z/b/new", "~z/b/new"}));
}

TEST_F(InotifySourceDirectories, MovedOutIsDroppedAndMovedInIsWatchedUnlisted) {
    MkDir(At("d"));
    MkDir(At("d/sub"));
    MkDir(outside / "e");
    MkDir(outside / "e/sub");
    Write(outside / "e/sub/old");
    Watch();
    ASSERT_EQ(src->watch_count(kSess), 3);
    Rename(At("d"), outside / "d");
    // Written before anyone could tell that "d" had left for good.
    Write(outside / "d/sub/early");
    // The contents of "e" are not listed: whoever adds a directory walks it.
    Rename(outside / "e", At("e"));
    EXPECT_EQ(Pump(*src, {"-d", "+e"}), (Texts{"-d", "+e"}));
    EXPECT_EQ(src->watch_count(kSess), 3);
    Write(outside / "d/sub/elsewhere");
    Write(At("e/sub/new"));
    EXPECT_EQ(Squash(Pump(*src, {"+e/sub/new"})), (Texts{"+e/sub/new", "~e/sub/new"}));
}

TEST_F(InotifySourceDirectories, DeletedTreeReportsEveryRemoval) {
    MkDir(At("a"));
    MkDir(At("a/b"));
    Write(At("a/f"));
    Write(At("a/b/g"));
    Watch();
    ASSERT_EQ(::unlink(At("a/b/g").c_str()), 0);
    ASSERT_EQ(::rmdir(At("a/b").c_str()), 0);
    ASSERT_EQ(::unlink(At("a/f").c_str()), 0);
    ASSERT_EQ(::rmdir(At("a").c_str()), 0);
    EXPECT_EQ(Pump(*src, {"-a"}), (Texts{"-a/b/g", "-a/b", "-a/f", "-a"}));
    EXPECT_EQ(src->watch_count(kSess), 1);
}

// ---------------------------------------------------------------------------------------
// The private area, its name in any case: the caller's own files are not user changes,
// only what leaves or enters it is.

TEST_F(InotifyFixture, PrivateAreaReportsOnlyWhatCrossesItsBorder) {
    const std::string priv = ".zephanorWorkingDirectory";  // another case than kPrivate
    MkDir(At(priv));
    MkDir(At(priv + "/#ZephRecycle"));
    MkDir(At(priv + "/#ZephRecycle/old-dir"));
    MkDir(At(".ZephanorWorkingDirectoryX"));
    Watch();
    // The private directory and its bin; nothing below the bin's own entries.
    EXPECT_EQ(src->watch_count(kSess), 4);

    Write(At(priv + "/tmp1"), "downloaded");
    Write(At(priv + "/#ZephRecycle/old-dir/x"));
    Write(At(".ZephanorWorkingDirectoryX/mine"));
    Rename(At(priv + "/tmp1"), At("target"));
    EXPECT_EQ(Squash(Pump(*src, {">target", "+.ZephanorWorkingDirectoryX/mine"})),
              (Texts{"+.ZephanorWorkingDirectoryX/mine", "~.ZephanorWorkingDirectoryX/mine",
                     "<" + priv + "/tmp1", ">target"}));

    Rename(At("target"), At(priv + "/#ZephRecycle/target"));
    EXPECT_EQ(Pump(*src, {">" + priv + "/#ZephRecycle/target"}),
              (Texts{"<target", ">" + priv + "/#ZephRecycle/target"}));

    ASSERT_EQ(::system(("rm -rf '" + At(priv + "/#ZephRecycle") + "'").c_str()), 0);
    EXPECT_TRUE(Contains(Pump(*src, {"-" + priv + "/#ZephRecycle"}), "-" + priv + "/#ZephRecycle"));
}

// ---------------------------------------------------------------------------------------
// Volume: bursts, a lost queue, the watch limit.

using InotifySourceVolume = InotifyFixture;

TEST_F(InotifySourceVolume, BurstOfTenThousandCreationsArrivesWhole) {
    // In memory when the machine has that: the burst is about the reader keeping up
    // with the kernel's queue, and a busy disk would only make the test slow.
    std::optional<ScopedEnv> in_memory;
    if (::access("/dev/shm", W_OK) == 0) in_memory.emplace("TMPDIR", "/dev/shm");
    TempDir burst;
    ASSERT_EQ(src->add(kSess, burst.path(), kPrivate, nullptr), 0);
    constexpr int kFiles = 10000;
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        for (int i = 0; i < kFiles; ++i) {
            const int fd =
                ::open((burst / ("f" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY, 0644);
            if (fd >= 0) ::close(fd);
        }
        writing = false;
    });
    std::set<std::string> added;
    bool overflow = false;
    std::vector<ChangeNotice> batch;
    const int64_t deadline = NowMs() + 20000;
    while (NowMs() < deadline && (writing || added.size() < kFiles) && !overflow) {
        src->wait(50, nullptr);
        batch.clear();
        src->read(batch, nullptr);
        for (const auto& n : batch) {
            overflow = overflow || n.kind == ChangeNotice::kOverflow;
            if (n.kind == ChangeNotice::kRecord && n.action == platform::kActionAdded)
                added.insert(n.path);
        }
    }
    writer.join();
    ASSERT_FALSE(overflow) << "the reader fell behind the kernel's queue";
    EXPECT_EQ(added.size(), static_cast<size_t>(kFiles));
}

TEST_F(InotifySourceVolume, LostQueueIsOneOverflowAndWatchingGoesOn) {
    int max_queued = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> max_queued;
    if (max_queued <= 0 || max_queued > 100000) GTEST_SKIP() << "queue limit " << max_queued;
    MkDir(At("d"));
    const int a = ::open(At("d/a").c_str(), O_CREAT | O_WRONLY, 0644);
    const int b = ::open(At("d/b").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    Watch();
    // Nobody reads while the queue fills; writes to two files in turn are never
    // merged into one event.
    for (int i = 0; i < max_queued + 100; ++i) ASSERT_EQ(::write(i % 2 ? a : b, "x", 1), 1);
    ::close(a);
    ::close(b);
    EXPECT_EQ(Pump(*src, {"!overflow"}), (Texts{"!overflow"}));
    // The watches were rebuilt from the disk.
    EXPECT_EQ(src->watch_count(kSess), 2);
    Write(At("d/after"));
    EXPECT_TRUE(Contains(Pump(*src, {"+d/after"}), "+d/after"));
}

TEST_F(InotifySourceVolume, WatchLimitIsReportedOnceAndTheRestStillWorks) {
    InotifyOptions options;
    options.watch_limit = 3;
    Open(options);
    for (const char* d : {"a", "b", "c", "d"}) MkDir(At(d));
    Watch();
    EXPECT_EQ(src->watch_count(kSess), 3);
    Texts seen = Pump(*src);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].rfind("!limit ", 0), 0u);
    // A new directory meets the limit again: said again, and files still arrive.
    MkDir(At("e"));
    Write(At("f"));
    seen = Pump(*src, {"+e", "+f", "!limit e"});
    for (const char* want : {"+e", "+f", "!limit e"}) EXPECT_TRUE(Contains(seen, want)) << want;
}

// ---------------------------------------------------------------------------------------
// The root itself goes away: never a removal of everything.

class InotifySourceRoot : public InotifyFixture {
  protected:
    void SetUp() override {
        InotifyOptions options;
        options.root_probe_ms = 50;
        Open(options);
        base = outside / "sync";
        MkDir(base);
        MkDir(base + "/a");
        MkDir(base + "/a/b");
        for (int i = 0; i < 20; ++i) Write(base + "/a/b/f" + std::to_string(i));
        Write(base + "/top");
        ASSERT_EQ(src->add(kSess, base, kPrivate, nullptr), 0);
    }
    std::string base;
};

TEST_F(InotifySourceRoot, RemovedRootGivesNoRemovals) {
    ASSERT_EQ(::system(("rm -rf '" + base + "'").c_str()), 0);
    EXPECT_EQ(Pump(*src, {"!gone"}), (Texts{"!gone"}));
    EXPECT_EQ(src->watch_count(kSess), 0);
}

TEST_F(InotifySourceRoot, SlowlyEmptiedRootGivesNoRemovalsEither) {
    // A large tree takes a while to delete, and the reader sees the removals come one
    // by one before the root itself goes.
    std::thread eraser([&] {
        for (int i = 0; i < 20; ++i) {
            ::unlink((base + "/a/b/f" + std::to_string(i)).c_str());
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::rmdir((base + "/a/b").c_str());
        ::rmdir((base + "/a").c_str());
        ::unlink((base + "/top").c_str());
        ::rmdir(base.c_str());
    });
    const Texts seen = Pump(*src, {"!gone"});
    eraser.join();
    EXPECT_EQ(seen, (Texts{"!gone"}));
}

TEST_F(InotifySourceRoot, RootMovedAwayAndBackIsWatchedAgain) {
    Rename(base, outside / "elsewhere");
    EXPECT_EQ(Pump(*src, {"!gone"}), (Texts{"!gone"}));
    Write(outside / "elsewhere/top", "changed while away");
    Rename(outside / "elsewhere", base);
    EXPECT_EQ(Pump(*src, {"!back"}), (Texts{"!back"}));
    EXPECT_EQ(src->watch_count(kSess), 3);
    Write(base + "/a/b/fresh");
    EXPECT_TRUE(Contains(Pump(*src, {"+a/b/fresh"}), "+a/b/fresh"));
}

TEST_F(InotifySourceRoot, AddRefusesAMissingRoot) {
    int err = 0;
    EXPECT_EQ(src->add(kSess + 1, outside / "missing", kPrivate, &err), -1);
    EXPECT_EQ(err, ENOENT);
    Write(outside / "plain");
    EXPECT_EQ(src->add(kSess + 1, outside / "plain", kPrivate, &err), -1);
    EXPECT_EQ(err, ENOTDIR);
    EXPECT_EQ(src->watch_count(kSess + 1), -1);
}

// ---------------------------------------------------------------------------------------
// Threads: a waiting reader is woken at once.

TEST(InotifySourceConcurrency, WakeAndAddEndAWaitAtOnce) {
    TempDir root;
    auto src = InotifySource::Create(InotifyOptions{}, nullptr);
    ASSERT_NE(src, nullptr);
    for (bool by_add : {false, true}) {
        std::atomic<int64_t> returned_at{0};
        std::thread waiter([&] {
            src->wait(10000, nullptr);
            returned_at = NowMs();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const int64_t woken = NowMs();
        if (by_add) {
            EXPECT_EQ(src->add(kSess, root.path(), kPrivate, nullptr), 0);
        } else {
            src->wake();
        }
        waiter.join();
        EXPECT_LT(returned_at - woken, 500) << by_add;
    }

    // A reader and a control thread at the same time.
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        std::vector<ChangeNotice> batch;
        while (!stop) {
            src->wait(1000, nullptr);
            batch.clear();
            src->read(batch, nullptr);
        }
    });
    for (int i = 0; i < 20; ++i) {
        Write(root / ("f" + std::to_string(i)));
        EXPECT_EQ(src->add(kSess + 1 + i % 3, root.path(), kPrivate, nullptr), 0);
        EXPECT_EQ(src->remove(kSess + 1 + i % 3), 0);
    }
    stop = true;
    src->wake();
    reader.join();
    EXPECT_EQ(src->remove(kSess), 0);
    EXPECT_EQ(src->remove(kSess), -1);
}
