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

// Reads until every `wanted` text has come (or the deadline passes), then for a quiet
// period more, so that anything reported in excess shows up too.
Texts Pump(InotifySource& src, const Texts& wanted = {}, int deadline_ms = 5000) {
    Texts seen;
    std::set<std::string> missing(wanted.begin(), wanted.end());
    std::vector<ChangeNotice> batch;
    const int64_t deadline = NowMs() + deadline_ms;
    int64_t quiet_until = -1;
    while (quiet_until < 0 || NowMs() < quiet_until) {
        if (quiet_until < 0 && (missing.empty() || NowMs() >= deadline))
            quiet_until = NowMs() + 300;
        src.wait(20, nullptr);
        batch.clear();
        src.read(batch, nullptr);
        for (const auto& n : batch) {
            EXPECT_EQ(n.sess_id, kSess);
            seen.push_back(Text(n));
            missing.erase(seen.back());
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

void MkDir(std::initializer_list<std::string> paths) {
    for (const std::string& path : paths) ASSERT_EQ(::mkdir(path.c_str(), 0755), 0) << path;
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
// Files and directories: each change as the record the detector expects, in the order
// it happened; directories watched as they come, followed when renamed, dropped when
// they leave.

using InotifySourceChanges = InotifyFixture;

TEST_F(InotifySourceChanges, EachKindOfChangeInOrderWithMovesPaired) {
    MkDir({At("x"), At("y")});
    Write(At("x/a"));
    Write(At("doc"));
    Write(At("old"));
    Write(outside / "doc");
    Watch();
    Write(At("new"));
    std::ofstream(At("old"), std::ios::app) << "more";
    ASSERT_EQ(::unlink(At("old").c_str()), 0);
    Rename(At("x/a"), At("x/b"));
    Rename(At("x/b"), At("y/c"));
    // The name leaves the tree, then comes back: the order must survive the wait for
    // a rename partner, or the new file would be deleted.
    Rename(At("doc"), outside / "old-doc");
    Rename(outside / "doc", At("doc"));
    EXPECT_EQ(
        Squash(Pump(*src, {">y/c", "-doc", "+doc"})),
        (Texts{"+new", "~new", "~old", "-old", "<x/a", ">x/b", "<x/b", ">y/c", "-doc", "+doc"}));
}

TEST_F(InotifySourceChanges, DirectoriesRenamedMovedOutMovedInAndDeleted) {
    for (const char* d : {"a", "a/b", "d", "d/sub", "t", "t/u"}) MkDir({At(d)});
    MkDir({outside / "e", outside / "e/sub"});
    Write(At("t/u/g"));
    Write(outside / "e/sub/old");
    Watch();
    ASSERT_EQ(src->watch_count(kSess), 7);
    Rename(At("a"), At("z"));
    Rename(At("d"), outside / "d");
    // Written before anyone could tell that "d" had left for good.
    Write(outside / "d/sub/early");
    // The contents of "e" are not listed: whoever adds a directory walks it.
    Rename(outside / "e", At("e"));
    ASSERT_EQ(::unlink(At("t/u/g").c_str()), 0);
    ASSERT_EQ(::rmdir(At("t/u").c_str()), 0);
    ASSERT_EQ(::rmdir(At("t").c_str()), 0);
    EXPECT_EQ(Pump(*src, {"-t"}), (Texts{"<a", ">z", "-d", "+e", "-t/u/g", "-t/u", "-t"}));
    EXPECT_EQ(src->watch_count(kSess), 5);
    Write(outside / "d/sub/elsewhere");
    Write(At("z/b/new"));
    Write(At("e/sub/new"));
    EXPECT_EQ(Squash(Pump(*src, {"+z/b/new", "+e/sub/new"})),
              (Texts{"+z/b/new", "~z/b/new", "+e/sub/new", "~e/sub/new"}));
}

// The private area, its name in any case: the caller's own files are not user
// changes, only what crosses its border is.
TEST_F(InotifySourceChanges, PrivateAreaReportsOnlyWhatCrossesItsBorder) {
    const std::string priv = ".zephanorWorkingDirectory";  // another case than kPrivate
    const std::string bin = priv + "/#ZephRecycle";
    MkDir({At(priv), At(bin), At(bin + "/old-dir"), At(".ZephanorWorkingDirectoryX")});
    Watch();
    // The private directory and its bin; nothing below the bin's own entries.
    EXPECT_EQ(src->watch_count(kSess), 4);
    Write(At(priv + "/tmp1"), "downloaded");
    Write(At(bin + "/old-dir/x"));
    Write(At(".ZephanorWorkingDirectoryX/mine"));
    Rename(At(priv + "/tmp1"), At("target"));
    Rename(At("target"), At(bin + "/target"));
    EXPECT_EQ(Squash(Pump(*src, {">" + bin + "/target"})),
              (Texts{"+.ZephanorWorkingDirectoryX/mine", "~.ZephanorWorkingDirectoryX/mine",
                     "<" + priv + "/tmp1", ">target", "<target", ">" + bin + "/target"}));
    ASSERT_EQ(::system(("rm -rf '" + At(bin) + "'").c_str()), 0);
    EXPECT_TRUE(Contains(Pump(*src, {"-" + bin}), "-" + bin));
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
    Texts wanted;
    for (int i = 0; i < 10000; ++i) wanted.push_back("+f" + std::to_string(i));
    std::thread writer([&] {
        for (const std::string& w : wanted) {
            const int fd = ::open((burst / w.substr(1)).c_str(), O_CREAT | O_WRONLY, 0644);
            if (fd >= 0) ::close(fd);
        }
    });
    const Texts seen = Pump(*src, wanted, 20000);
    writer.join();
    const std::set<std::string> got(seen.begin(), seen.end());
    EXPECT_EQ(got.count("!overflow"), 0u) << "the reader fell behind the kernel's queue";
    EXPECT_EQ(std::count_if(wanted.begin(), wanted.end(), [&](auto& w) { return !got.count(w); }),
              0);
}
TEST_F(InotifySourceVolume, LostQueueIsOneOverflowAndWatchingGoesOn) {
    int max_queued = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> max_queued;
    if (max_queued <= 0 || max_queued > 100000) GTEST_SKIP() << "queue limit " << max_queued;
    MkDir({At("d")});
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
    MkDir({At("a"), At("b"), At("c"), At("d")});
    Watch();
    EXPECT_EQ(src->watch_count(kSess), 3);
    Texts seen = Pump(*src);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].rfind("!limit ", 0), 0u);
    // A new directory meets the limit again: said again, and files still arrive.
    MkDir({At("e")});
    Write(At("f"));
    seen = Pump(*src, {"+e", "+f", "!limit e"});
    for (const char* want : {"+e", "+f", "!limit e"}) EXPECT_TRUE(Contains(seen, want)) << want;
}

// ---------------------------------------------------------------------------------------
// The root itself goes away: never a removal of everything.

using InotifySourceRoot = InotifyFixture;

TEST_F(InotifySourceRoot, RootMissingMovedAwayComesBackAndThenIsSlowlyEmptied) {
    InotifyOptions options;
    options.root_probe_ms = 50;
    Open(options);
    const std::string base = outside / "sync";
    int err = 0;
    EXPECT_EQ(src->add(kSess, base, kPrivate, &err), -1);
    EXPECT_EQ(err, ENOENT);
    Write(base);
    EXPECT_EQ(src->add(kSess, base, kPrivate, &err), -1);
    EXPECT_EQ(err, ENOTDIR);
    EXPECT_EQ(src->watch_count(kSess), -1);
    EXPECT_EQ(src->remove(kSess), -1);
    ASSERT_EQ(::unlink(base.c_str()), 0);
    MkDir({base, base + "/a", base + "/a/b"});
    for (int i = 0; i < 20; ++i) Write(base + "/a/b/f" + std::to_string(i));
    ASSERT_EQ(src->add(kSess, base, kPrivate, nullptr), 0);

    Rename(base, outside / "elsewhere");
    EXPECT_EQ(Pump(*src, {"!gone"}), (Texts{"!gone"}));
    EXPECT_EQ(src->watch_count(kSess), 0);
    Write(outside / "elsewhere/top", "changed while away");
    Rename(outside / "elsewhere", base);
    EXPECT_EQ(Pump(*src, {"!back"}), (Texts{"!back"}));
    EXPECT_EQ(src->watch_count(kSess), 3);
    Write(base + "/a/b/fresh");
    EXPECT_TRUE(Contains(Pump(*src, {"+a/b/fresh"}), "+a/b/fresh"));

    // A large tree takes a while to delete, and the reader sees the removals come one
    // by one before the root itself goes.
    std::thread eraser([&] {
        ::unlink((base + "/a/b/fresh").c_str());
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
    EXPECT_EQ(src->remove(kSess), 0);
    EXPECT_EQ(src->watch_count(kSess), -1);
}

// ---------------------------------------------------------------------------------------
// Threads: a waiting reader is woken at once. (Watches that come and go while the
// reader runs are exercised through the detector's thread.)

using InotifySourceConcurrency = InotifyFixture;

TEST_F(InotifySourceConcurrency, WakeAndAddEndAWaitAtOnce) {
    for (bool by_add : {false, true}) {
        std::atomic<int64_t> returned_at{0};
        std::thread waiter([&] {
            src->wait(10000, nullptr);
            returned_at = NowMs();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const int64_t woken = NowMs();
        EXPECT_EQ(by_add ? src->add(kSess, root.path(), kPrivate, nullptr) : (src->wake(), 0), 0);
        waiter.join();
        EXPECT_LT(returned_at - woken, 500) << by_add;
    }
}
