// The local change detector: records translated one by one, record sequences
// through the detector's thread from a scripted source, and the thread on the real
// source: it stops at once and sees changes while watches come and go.
#include "events/detector.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/error-code.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"
#include "support/temp-dir.h"

using platform::ChangeNotice;

namespace {

constexpr uint64_t kSess = 41;
const std::string kRootGone = "error " + std::to_string(ERR_SYNCFOLDER_MISS);

bool IsDir(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void Write(const std::string& path, const std::string& data = "x") {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

using Texts = std::vector<std::string>;

bool Contains(const Texts& seen, const std::string& text) {
    return std::find(seen.begin(), seen.end(), text) != seen.end();
}

// Records what the detector gives as texts: "EV_ADD /a", "EV_REMOVE dir /d",
// "expand /d", "rescan /", "rescan / merge", "error -17".
class RecordingSink : public DetectorSink {
  public:
    void PushLocalEvent(const Event& e) override {
        EXPECT_TRUE(e.isLocalEvent() && !e.isExpand() && e.m_opt.empty()) << e.m_mode;
        Add(e.m_sess_id,
            Event::TypeText(e.m_type) + std::string(e.isDir() ? " dir " : " ") + e.m_path.str());
    }
    void IssueExpand(uint64_t sess_id, const ustring& path) override {
        Add(sess_id, "expand " + path.str());
    }
    void IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) override {
        Add(sess_id, "rescan " + path.str() + (do_merge ? " merge" : ""));
    }
    void ReportSessionError(uint64_t sess_id, int error) override {
        Add(sess_id, "error " + std::to_string(error));
    }

    // Waits until every wanted text came (or a deadline passed), then a quiet
    // period more; gives everything that came and forgets it.
    Texts Settle(const Texts& wanted, int deadline_ms = 5000, int quiet_ms = 400) {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_cond.wait_for(guard, std::chrono::milliseconds(deadline_ms), [&] {
            return std::all_of(wanted.begin(), wanted.end(),
                               [&](const std::string& w) { return Contains(m_seen, w); });
        });
        guard.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(quiet_ms));
        guard.lock();
        Texts out;
        out.swap(m_seen);
        return out;
    }

  private:
    void Add(uint64_t sess_id, std::string text) {
        EXPECT_EQ(sess_id, kSess) << text;
        std::lock_guard<std::mutex> guard(m_mutex);
        m_seen.push_back(std::move(text));
        m_cond.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_cond;
    Texts m_seen;
};

// A source that hands out batches the test feeds it and refuses roots named
// "/refused". Watches are added and removed on the test's thread, the batches go to
// the detector's.
class ScriptedSource : public platform::ChangeSource {
  public:
    int add(uint64_t, const std::string& root, const std::string& private_dir, int* err) override {
        given_private = private_dir;
        if (root != "/refused") return 0;
        if (err != nullptr) *err = ENOENT;
        return -1;
    }
    int remove(uint64_t sess_id) override {
        removed.push_back(sess_id);
        return 0;
    }
    int wait(int timeout_ms, int*) override {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_cond.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                        [&] { return !m_batches.empty() || m_woken; });
        m_woken = false;
        return !m_batches.empty();
    }
    void wake() override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_woken = true;
        m_cond.notify_all();
    }
    int read(std::vector<ChangeNotice>& out, int*) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_batches.empty()) return 0;
        const auto batch = std::move(m_batches.front());
        m_batches.pop_front();
        out.insert(out.end(), batch.begin(), batch.end());
        return static_cast<int>(batch.size());
    }

    void Feed(std::vector<ChangeNotice> batch) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_batches.push_back(std::move(batch));
        m_cond.notify_all();
    }
    std::string given_private;
    std::vector<uint64_t> removed;

  private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<std::vector<ChangeNotice>> m_batches;
    bool m_woken = false;
};

ChangeNotice Rec(int action, const std::string& path, uint64_t sess = kSess) {
    return {ChangeNotice::kRecord, sess, action, path, 0};
}

ChangeNotice Signal(ChangeNotice::Kind kind, const std::string& path = "", int err = 0) {
    return {kind, kSess, 0, path, err};
}

// A session whose root is "sync" in a temporary folder (so that it can be
// removed) and whose database knows a few paths. Start runs a detector on a
// scripted source, or on the platform's own.
class DetectorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
        ASSERT_EQ(db.initialize((top / "event-db.sqlite").c_str()), 0);
        Registry::Entry entry;
        entry.sess_id = kSess;
        entry.local_path = root.c_str();
        entry.event_db = &db;
        Registry::getInstance().Set(entry);
    }
    void TearDown() override {
        detector.reset();  // stops and joins the thread
        Registry::getInstance().Remove(kSess);
        db.destroy();
    }
    void Start(bool real) {
        auto scripted = std::make_unique<ScriptedSource>();
        source = real ? nullptr : scripted.get();
        detector = std::make_unique<Detector>(real ? nullptr : std::move(scripted), &sink);
        ASSERT_EQ(detector->AddWatch(Root(), kSess), 0);
        ASSERT_EQ(detector->Run(), 0);
    }

    // A row as if the path had been synchronised.
    void Known(const std::string& path, bool is_dir) {
        ClientFileEventInfo info;
        info.path = path.c_str();
        info.fileType = is_dir ? 1 : 0;
        info.isExist = 1;
        ASSERT_EQ(db.setEventInfo(info), 0);
    }

    std::string At(const std::string& rel) const { return root + "/" + rel; }
    ustring Root() const { return ustring(root.c_str()); }

    struct Step {
        int action;
        const char* path;
        const char* want;  // what the sink got, "; " between; "" for nothing
    };
    // Translates each record in turn on a detector that is not running, and pushes
    // what it makes.
    void ExpectTranslations(const std::vector<Step>& steps) {
        Detector d(std::make_unique<ScriptedSource>(), &sink);
        for (const Step& s : steps) {
            SCOPED_TRACE(std::to_string(s.action) + " " + s.path);
            Event e;
            if (d.Translate(e, kSess, Root(), Rec(s.action, s.path)) == 0) d.PushEvent(e);
            std::string got;
            for (const std::string& text : sink.Settle({}, 0, 0))
                got += (got.empty() ? "" : "; ") + text;
            EXPECT_EQ(got, s.want);
        }
    }

    TempDir top;
    const std::string root = top / "sync";
    FileEventDB db;
    RecordingSink sink;
    ScriptedSource* source = nullptr;
    std::unique_ptr<Detector> detector;
};

using platform::kActionAdded, platform::kActionModified, platform::kActionRemoved,
    platform::kActionRenamedOldName, platform::kActionRenamedNewName;

}  // namespace

// ---------------------------------------------------------------------------------------
// One record at a time: the type from the disk or the database, the working
// directory, the rename cache.

using DetectorTranslate = DetectorFixture;

TEST_F(DetectorTranslate, RecordsTakeTheirTypeFromDiskOrDatabaseAndSkipTheWorkingDirectory) {
    Write(At("f"));
    ASSERT_EQ(::mkdir(At("d").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("f", At("link").c_str()), 0);
    ASSERT_EQ(::mkdir(At(".ZephanorWorkingDirectoryX").c_str(), 0755), 0);
    Write(At(".ZephanorWorkingDirectoryX/f"));
    Known("/gone-dir", true);
    Known("/gone-dir/inner", false);
    ExpectTranslations({
        {kActionAdded, "f", "EV_ADD /f"},
        {kActionModified, "f", "EV_MODIFY /f"},
        // A directory that appeared may have contents of which no record will come.
        {kActionAdded, "d", "EV_ADD dir /d; expand /d"},
        // A directory's own modification says only that its entries changed.
        {kActionModified, "d", ""},
        // Neither a file nor a directory: nothing the rescan would sync either.
        {kActionAdded, "link", ""},
        {kActionRemoved, "gone-dir", "EV_REMOVE dir /gone-dir"},
        {kActionRemoved, "gone-dir/inner", "EV_REMOVE /gone-dir/inner"},
        // Unknown to the database: it appeared and vanished between two reads.
        {kActionRemoved, "never-synced", ""},
        {kActionAdded, "never-synced", ""},
        {kActionAdded, ".ZephanorWorkingDirectory", ""},
        {kActionAdded, ".ZephanorWorkingDirectory/tmp1", ""},
        {kActionModified, ".zephanorWORKINGdirectory/#ZephRecycle/x", ""},
        // Only the exact name is the working directory.
        {kActionModified, ".ZephanorWorkingDirectoryX/f",
         "EV_MODIFY /.ZephanorWorkingDirectoryX/f"},
        {9, "f", ""},
        {0, "f", ""},
        {kActionAdded, "", ""},
    });
    EXPECT_FALSE(Detector::IsFromWorkingDirectory("a/.ZephanorWorkingDirectory"));
    EXPECT_TRUE(Detector::IsRecycleBin("/.ZephanorWorkingDirectory/#ZephRecycle"));
    EXPECT_FALSE(Detector::IsRecycleBin("/.ZephanorWorkingDirectory/#ZephRecycle/x"));
    // A session the registry no longer has.
    Detector d(std::make_unique<ScriptedSource>(), &sink);
    Event e;
    EXPECT_EQ(d.Translate(e, kSess + 1, Root(), Rec(kActionRemoved, "gone-dir", kSess + 1)), -1);
}

// A rename is pushed as the removal of its source and the creation of its target.
TEST_F(DetectorTranslate, RenameHalvesArePairedThroughTheCache) {
    Write(At("b"));
    Write(At("c"));
    ASSERT_EQ(::mkdir(At("moved-dir").c_str(), 0755), 0);
    Known("/dir", true);
    Known("/moved", false);
    ExpectTranslations({
        {kActionRenamedOldName, "a", ""},
        {kActionRenamedNewName, "b", "EV_REMOVE /a; EV_ADD /b"},
        // The pair was used up: a new name alone came from outside the tree.
        {kActionRenamedNewName, "b", "EV_ADD /b"},
        {kActionRenamedOldName, "dir", ""},
        {kActionRenamedNewName, "moved-dir",
         "EV_REMOVE dir /dir; EV_ADD dir /moved-dir; expand /moved-dir"},
        // Into the working directory (the recycle bin takes files so): no event,
        // and no half pair left to meet a later record.
        {kActionRenamedOldName, "recycled", ""},
        {kActionRenamedNewName, ".ZephanorWorkingDirectory/#ZephRecycle/recycled", ""},
        {kActionRenamedNewName, "c", "EV_ADD /c"},
        // The new name is gone already: the old one is still gone, and that must
        // not be lost.
        {kActionRenamedOldName, "moved", ""},
        {kActionRenamedNewName, "gone-too", "EV_REMOVE /moved"},
    });
}

TEST_F(DetectorTranslate, TakenAwayWorkingDirectoryOrBinIsMadeAgain) {
    const std::string bin = At(".ZephanorWorkingDirectory/#ZephRecycle");
    Detector::CreateWorkingDirectory(Root());
    ASSERT_EQ(::rmdir(bin.c_str()), 0);
    ExpectTranslations({{kActionRemoved, ".ZephanorWorkingDirectory/#ZephRecycle", ""}});
    EXPECT_TRUE(IsDir(bin));
    ASSERT_EQ(::system(("rm -rf '" + At(".ZephanorWorkingDirectory") + "'").c_str()), 0);
    ExpectTranslations({{kActionRenamedOldName, ".ZephanorWorkingDirectory", ""}});
    EXPECT_TRUE(IsDir(bin));
}

// ---------------------------------------------------------------------------------------
// Sequences of records through the detector's thread.

class DetectorRecords : public DetectorFixture {
  protected:
    void SetUp() override {
        DetectorFixture::SetUp();
        Start(false);
    }
};

TEST_F(DetectorRecords, OverflowAndWatchLimitAreOneRescanAndNothingElseFromThatRead) {
    Write(At("a"));
    source->Feed({Rec(kActionAdded, "a"), Signal(ChangeNotice::kOverflow)});
    EXPECT_EQ(sink.Settle({"rescan /"}), (Texts{"rescan /"}));
    // A watch that failed for another reason only warns.
    source->Feed({Signal(ChangeNotice::kWatchLimit, "deep/dir", ENOSPC),
                  Signal(ChangeNotice::kWatchFailed, "locked", EACCES)});
    EXPECT_EQ(sink.Settle({"rescan /"}), (Texts{"rescan /"}));
    // The next read is ordinary again.
    source->Feed({Rec(kActionModified, "a")});
    EXPECT_EQ(sink.Settle({"EV_MODIFY /a"}), (Texts{"EV_MODIFY /a"}));
}

TEST_F(DetectorRecords, RootGoneIsASessionErrorAndNoRemovals) {
    Known("/a", false);
    Known("/b", true);
    source->Feed(
        {Rec(kActionRemoved, "a"), Rec(kActionRemoved, "b"), Signal(ChangeNotice::kRootGone)});
    EXPECT_EQ(sink.Settle({kRootGone}), (Texts{kRootGone}));

    // Back again: compared with the database without deleting anything remotely.
    ASSERT_EQ(::system(("rm -rf '" + At(".ZephanorWorkingDirectory") + "'").c_str()), 0);
    source->Feed({Signal(ChangeNotice::kRootBack)});
    EXPECT_EQ(sink.Settle({"rescan / merge"}), (Texts{"rescan / merge"}));
    EXPECT_TRUE(IsDir(At(".ZephanorWorkingDirectory/#ZephRecycle")));
}

// A watch makes the working directory and names it to the source as private.
TEST_F(DetectorRecords, RecordsOfRefusedRemovedOrUnknownWatchesAreDropped) {
    EXPECT_TRUE(IsDir(At(".ZephanorWorkingDirectory/#ZephRecycle")));
    EXPECT_EQ(source->given_private, ".ZephanorWorkingDirectory");
    EXPECT_EQ(detector->AddWatch("/refused", kSess + 1), -1);
    Write(At("mine"));
    source->Feed({Rec(kActionAdded, "mine", kSess + 1), Rec(kActionAdded, "mine", kSess + 9),
                  Rec(kActionAdded, "mine")});
    EXPECT_EQ(sink.Settle({"EV_ADD /mine"}), (Texts{"EV_ADD /mine"}));
    detector->RemoveWatch(kSess);
    EXPECT_EQ(source->removed, std::vector<uint64_t>{kSess});
    source->Feed({Rec(kActionAdded, "mine")});
    EXPECT_EQ(sink.Settle({}, 0, 300), Texts{});
}

// ---------------------------------------------------------------------------------------
// The thread: stops at once, also when paused or when watches come and go.

using DetectorConcurrency = DetectorFixture;

TEST_F(DetectorConcurrency, StopsPromptlyWhetherWaitingOrPaused) {
    Start(true);
    for (bool paused : {false, true}) {
        SCOPED_TRACE(paused ? "paused" : "waiting");
        if (paused) {
            ASSERT_EQ(detector->Run(), 0);
            detector->Pause();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto start = std::chrono::steady_clock::now();
        detector->Stop();
        ASSERT_EQ(detector->Join(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    }
}

TEST_F(DetectorConcurrency, WatchesComeAndGoWhileTheThreadRuns) {
    TempDir other;
    detector = std::make_unique<Detector>(nullptr, &sink);
    ASSERT_EQ(detector->Run(), 0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(detector->AddWatch(other.path().c_str(), kSess), 0);
        detector->RemoveWatch(kSess);
    }
    ASSERT_EQ(detector->AddWatch(Root(), kSess), 0);
    Write(At("seen"));
    EXPECT_TRUE(Contains(sink.Settle({"EV_ADD /seen"}), "EV_ADD /seen"));
}
