// The local change detector: records translated one by one, record sequences
// through the detector's thread from a scripted source, the real source on real
// folders, and a thread that stops at once.
#include "events/detector.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/error-code.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"
#include "support/temp-dir.h"

using platform::ChangeNotice;

namespace {

constexpr uint64_t kSess = 41;

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool IsDir(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void Write(const std::string& path, const std::string& data = "x") {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

// "EV_ADD /a", "EV_REMOVE dir /d", "expand /d", "rescan /", "rescan / merge",
// "error -17".
std::string Describe(const Event& e) {
    std::string text = Event::TypeText(e.m_type);
    if (e.isDir()) text += " dir";
    text += " " + e.m_path.str();
    if (!e.m_opt.empty()) text += " -> " + e.m_opt.str();
    return text;
}

using Texts = std::vector<std::string>;

bool Contains(const Texts& seen, const std::string& text) {
    return std::find(seen.begin(), seen.end(), text) != seen.end();
}

class RecordingSink : public DetectorSink {
  public:
    void PushLocalEvent(const Event& e) override {
        EXPECT_EQ(e.m_sess_id, kSess);
        EXPECT_TRUE(e.isLocalEvent());
        EXPECT_FALSE(e.isExpand());
        Add(Describe(e));
    }
    void IssueExpand(uint64_t sess_id, const ustring& path) override {
        EXPECT_EQ(sess_id, kSess);
        Add("expand " + path.str());
    }
    void IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) override {
        EXPECT_EQ(sess_id, kSess);
        Add("rescan " + path.str() + (do_merge ? " merge" : ""));
    }
    void ReportSessionError(uint64_t sess_id, int error) override {
        EXPECT_EQ(sess_id, kSess);
        Add("error " + std::to_string(error));
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
    void Add(std::string text) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_seen.push_back(std::move(text));
        m_cond.notify_all();
    }
    std::mutex m_mutex;
    std::condition_variable m_cond;
    Texts m_seen;
};

// A source that hands out batches the test feeds it.
class ScriptedSource : public platform::ChangeSource {
  public:
    int add(uint64_t sess_id, const std::string& root, const std::string& private_dir,
            int* err) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_added.push_back(sess_id);
        m_private = private_dir;
        if (m_refuse) {
            if (err != nullptr) *err = ENOENT;
            return -1;
        }
        return root.empty() ? -1 : 0;
    }
    int remove(uint64_t sess_id) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_removed.push_back(sess_id);
        return 0;
    }
    int wait(int timeout_ms, int*) override {
        std::unique_lock<std::mutex> guard(m_mutex);
        m_cond.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                        [&] { return !m_batches.empty() || m_woken; });
        m_woken = false;
        return m_batches.empty() ? 0 : 1;
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
    void Refuse() { m_refuse = true; }
    std::vector<uint64_t> Added() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_added;
    }
    std::vector<uint64_t> Removed() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_removed;
    }
    std::string Private() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_private;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<std::vector<ChangeNotice>> m_batches;
    bool m_woken = false;
    bool m_refuse = false;
    std::vector<uint64_t> m_added, m_removed;
    std::string m_private;
};

ChangeNotice Rec(int action, const std::string& path, uint64_t sess = kSess) {
    return {ChangeNotice::kRecord, sess, action, path, 0};
}

ChangeNotice Signal(ChangeNotice::Kind kind, const std::string& path = "", int err = 0) {
    return {kind, kSess, 0, path, err};
}

// A session whose root is a temporary folder and whose database knows a few
// paths.
class DetectorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(db.initialize((dbdir / "event-db.sqlite").c_str()), 0);
        Registry::Entry entry;
        entry.sess_id = kSess;
        entry.local_path = root.path().c_str();
        entry.event_db = &db;
        Registry::getInstance().Set(entry);
    }
    void TearDown() override {
        Registry::getInstance().Remove(kSess);
        db.destroy();
    }

    // A row as if the path had been synchronised.
    void Known(const std::string& path, bool is_dir) {
        ClientFileEventInfo info;
        info.path = path.c_str();
        info.fileType = is_dir ? 1 : 0;
        info.isExist = 1;
        info.syncID = 5;
        info.maxSyncID = 5;
        info.updateClient = "client";
        ASSERT_EQ(db.setEventInfo(info), 0);
    }

    std::string At(const std::string& rel) const { return root / rel; }
    ustring Root() const { return ustring(root.path().c_str()); }

    // Translates one record; the event's description, or "none".
    std::string Translated(Detector& d, int action, const std::string& path) {
        Event e;
        if (d.Translate(e, kSess, Root(), Rec(action, path)) != 0) return "none";
        EXPECT_EQ(e.m_sess_id, kSess);
        return Describe(e);
    }

    TempDir root;
    TempDir dbdir;
    FileEventDB db;
    RecordingSink sink;
};

}  // namespace

// ---------------------------------------------------------------------------------------
// One record at a time: the type from the disk or the database, the working
// directory, the rename cache.

class DetectorTranslate : public DetectorFixture {
  protected:
    void SetUp() override {
        DetectorFixture::SetUp();
        detector = std::make_unique<Detector>(std::make_unique<ScriptedSource>(), &sink);
    }
    std::unique_ptr<Detector> detector;
};

TEST_F(DetectorTranslate, PresentPathsTakeTheirTypeFromTheDisk) {
    Write(At("f"));
    ASSERT_EQ(::mkdir(At("d").c_str(), 0755), 0);
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, "f"), "EV_ADD /f");
    EXPECT_EQ(Translated(*detector, platform::kActionModified, "f"), "EV_MODIFY /f");
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, "d"), "EV_ADD dir /d");
    // A directory's own modification says only that its entries changed.
    EXPECT_EQ(Translated(*detector, platform::kActionModified, "d"), "none");
    // Neither a file nor a directory: nothing the rescan would sync either.
    ASSERT_EQ(::symlink("f", At("link").c_str()), 0);
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, "link"), "none");
}

TEST_F(DetectorTranslate, AbsentPathsTakeTheirTypeFromTheDatabase) {
    Known("/gone-dir", true);
    Known("/gone-dir/inner", false);
    EXPECT_EQ(Translated(*detector, platform::kActionRemoved, "gone-dir"),
              "EV_REMOVE dir /gone-dir");
    EXPECT_EQ(Translated(*detector, platform::kActionRemoved, "gone-dir/inner"),
              "EV_REMOVE /gone-dir/inner");
    // Unknown to the database: it appeared and vanished between two reads.
    EXPECT_EQ(Translated(*detector, platform::kActionRemoved, "never-synced"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, "never-synced"), "none");
    // A session the registry no longer has.
    Event e;
    EXPECT_EQ(detector->Translate(e, kSess + 1, Root(),
                                  Rec(platform::kActionRemoved, "gone-dir", kSess + 1)),
              -1);
}

TEST_F(DetectorTranslate, WorkingDirectoryIsNeverAUserChange) {
    ASSERT_EQ(::mkdir(At(".ZephanorWorkingDirectoryX").c_str(), 0755), 0);
    Write(At(".ZephanorWorkingDirectoryX/f"));
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, ".ZephanorWorkingDirectory"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, ".ZephanorWorkingDirectory/tmp1"),
              "none");
    EXPECT_EQ(Translated(*detector, platform::kActionModified,
                         ".zephanorWORKINGdirectory/#ZephRecycle/x"),
              "none");
    // Only the exact name is the working directory.
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, ".ZephanorWorkingDirectoryX"),
              "EV_ADD dir /.ZephanorWorkingDirectoryX");
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, ".ZephanorWorkingDirectoryX/f"),
              "EV_ADD /.ZephanorWorkingDirectoryX/f");

    EXPECT_TRUE(Detector::IsFromWorkingDirectory(".ZEPHANORWORKINGDIRECTORY"));
    EXPECT_FALSE(Detector::IsFromWorkingDirectory(".ZephanorWorkingDirector"));
    EXPECT_FALSE(Detector::IsFromWorkingDirectory("a/.ZephanorWorkingDirectory"));
    EXPECT_TRUE(Detector::IsRecycleBin("/.ZephanorWorkingDirectory/#ZephRecycle"));
    EXPECT_FALSE(Detector::IsRecycleBin("/.ZephanorWorkingDirectory/#ZephRecycle/x"));
}

TEST_F(DetectorTranslate, TakenAwayWorkingDirectoryOrBinIsMadeAgain) {
    const std::string working = At(".ZephanorWorkingDirectory");
    Detector::CreateWorkingDirectory(Root());
    ASSERT_TRUE(IsDir(working + "/#ZephRecycle"));

    ASSERT_EQ(::rmdir((working + "/#ZephRecycle").c_str()), 0);
    EXPECT_EQ(
        Translated(*detector, platform::kActionRemoved, ".ZephanorWorkingDirectory/#ZephRecycle"),
        "none");
    EXPECT_TRUE(IsDir(working + "/#ZephRecycle"));

    ASSERT_EQ(::system(("rm -rf '" + working + "'").c_str()), 0);
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedOldName, ".ZephanorWorkingDirectory"),
              "none");
    EXPECT_TRUE(IsDir(working + "/#ZephRecycle"));
}

TEST_F(DetectorTranslate, RenameHalvesArePairedThroughTheCache) {
    Write(At("b"));
    Write(At("c"));
    Known("/moved", false);
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedOldName, "a"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedNewName, "b"), "EV_RENAME /a -> /b");
    // The pair was used up: a new name alone came from outside the tree.
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedNewName, "b"), "EV_ADD /b");

    // Into the working directory (the recycle bin takes files so): no event, and
    // no half pair left to meet a later record.
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedOldName, "recycled"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedNewName,
                         ".ZephanorWorkingDirectory/#ZephRecycle/recycled"),
              "none");
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedNewName, "c"), "EV_ADD /c");

    // The new name is gone already: the old one is still gone, and that must not
    // be lost.
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedOldName, "moved"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionRenamedNewName, "gone-too"),
              "EV_REMOVE /moved");
}

TEST_F(DetectorTranslate, UnknownActionOrEmptyNameMakesNoEvent) {
    Write(At("f"));
    EXPECT_EQ(Translated(*detector, 9, "f"), "none");
    EXPECT_EQ(Translated(*detector, 0, "f"), "none");
    EXPECT_EQ(Translated(*detector, platform::kActionAdded, ""), "none");
    EXPECT_STREQ(Detector::ActionText(9), "FILE_ACTION_UNKNOWN");
    EXPECT_STREQ(Detector::ActionText(platform::kActionRenamedNewName),
                 "FILE_ACTION_RENAMED_NEW_NAME");
}

// ---------------------------------------------------------------------------------------
// Sequences of records through the detector's thread.

class DetectorRecords : public DetectorFixture {
  protected:
    void SetUp() override {
        DetectorFixture::SetUp();
        auto owned = std::make_unique<ScriptedSource>();
        source = owned.get();
        detector = std::make_unique<Detector>(std::move(owned), &sink);
        ASSERT_EQ(detector->AddWatch(Root(), kSess), 0);
        ASSERT_EQ(detector->Run(), 0);
    }
    void TearDown() override {
        detector->Stop();
        detector->Join();
        DetectorFixture::TearDown();
    }
    ScriptedSource* source = nullptr;
    std::unique_ptr<Detector> detector;
};

TEST_F(DetectorRecords, WatchMakesTheWorkingDirectoryAndNamesItToTheSource) {
    EXPECT_TRUE(IsDir(At(".ZephanorWorkingDirectory/#ZephRecycle")));
    EXPECT_EQ(source->Private(), ".ZephanorWorkingDirectory");
    EXPECT_EQ(source->Added(), std::vector<uint64_t>{kSess});
}

TEST_F(DetectorRecords, RenamesInsideTheTreeBecomeRemovalAndCreation) {
    Write(At("b"));
    ASSERT_EQ(::mkdir(At("y").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(At("y/moved").c_str(), 0755), 0);
    Known("/x/dir", true);
    source->Feed({Rec(platform::kActionRenamedOldName, "a"),
                  Rec(platform::kActionRenamedNewName, "b"),
                  Rec(platform::kActionRenamedOldName, "x/dir"),
                  Rec(platform::kActionRenamedNewName, "y/moved")});
    EXPECT_EQ(sink.Settle({"expand /y/moved"}),
              (Texts{"EV_REMOVE /a", "EV_ADD /b", "EV_REMOVE dir /x/dir", "EV_ADD dir /y/moved",
                     "expand /y/moved"}));
}

TEST_F(DetectorRecords, MovesOutAndInAreRemovalAndCreation) {
    Known("/left", false);
    ASSERT_EQ(::mkdir(At("arrived").c_str(), 0755), 0);
    source->Feed({Rec(platform::kActionRemoved, "left"), Rec(platform::kActionAdded, "arrived")});
    EXPECT_EQ(sink.Settle({"expand /arrived"}),
              (Texts{"EV_REMOVE /left", "EV_ADD dir /arrived", "expand /arrived"}));
}

TEST_F(DetectorRecords, OverflowIsOneRescanAndNothingElseFromThatRead) {
    Write(At("a"));
    source->Feed({Rec(platform::kActionAdded, "a"), Signal(ChangeNotice::kOverflow)});
    EXPECT_EQ(sink.Settle({"rescan /"}), (Texts{"rescan /"}));
    // The next read is ordinary again.
    source->Feed({Rec(platform::kActionModified, "a")});
    EXPECT_EQ(sink.Settle({"EV_MODIFY /a"}), (Texts{"EV_MODIFY /a"}));
}

TEST_F(DetectorRecords, WatchLimitRescansAndOtherWatchFailuresOnlyWarn) {
    source->Feed({Signal(ChangeNotice::kWatchLimit, "deep/dir", ENOSPC),
                  Signal(ChangeNotice::kWatchFailed, "locked", EACCES)});
    EXPECT_EQ(sink.Settle({"rescan /"}), (Texts{"rescan /"}));
}

TEST_F(DetectorRecords, RootGoneIsASessionErrorAndNoRemovals) {
    Known("/a", false);
    Known("/b", true);
    source->Feed({Rec(platform::kActionRemoved, "a"), Rec(platform::kActionRemoved, "b"),
                  Signal(ChangeNotice::kRootGone)});
    EXPECT_EQ(sink.Settle({"error " + std::to_string(ERR_SYNCFOLDER_MISS)}),
              (Texts{"error " + std::to_string(ERR_SYNCFOLDER_MISS)}));

    // Back again: compared with the database without deleting anything remotely.
    ASSERT_EQ(::system(("rm -rf '" + At(".ZephanorWorkingDirectory") + "'").c_str()), 0);
    source->Feed({Signal(ChangeNotice::kRootBack)});
    EXPECT_EQ(sink.Settle({"rescan / merge"}), (Texts{"rescan / merge"}));
    EXPECT_TRUE(IsDir(At(".ZephanorWorkingDirectory/#ZephRecycle")));
}

TEST_F(DetectorRecords, RecordsOfUnwatchedSessionsAreDropped) {
    Write(At("mine"));
    source->Feed(
        {Rec(platform::kActionAdded, "mine", kSess + 9), Rec(platform::kActionAdded, "mine")});
    EXPECT_EQ(sink.Settle({"EV_ADD /mine"}), (Texts{"EV_ADD /mine"}));
    detector->RemoveWatch(kSess);
    EXPECT_EQ(source->Removed(), std::vector<uint64_t>{kSess});
    source->Feed({Rec(platform::kActionAdded, "mine")});
    EXPECT_EQ(sink.Settle({}, 0, 300), Texts{});
}

TEST(DetectorWatch, RefusedFolderIsAFailureAndNotWatched) {
    auto owned = std::make_unique<ScriptedSource>();
    owned->Refuse();
    ScriptedSource* source = owned.get();
    RecordingSink sink;
    Detector detector(std::move(owned), &sink);
    EXPECT_EQ(detector.AddWatch("/nonexistent/folder", kSess), -1);
    detector.Clear();
    EXPECT_TRUE(source->Removed().empty());
}

// ---------------------------------------------------------------------------------------
// The real source on a real folder, end to end.

class DetectorOnDisk : public DetectorFixture {
  protected:
    void SetUp() override {
        DetectorFixture::SetUp();
        detector = std::make_unique<Detector>(nullptr, &sink);
        ASSERT_EQ(detector->AddWatch(Root(), kSess), 0);
        ASSERT_EQ(detector->Run(), 0);
    }
    void TearDown() override {
        detector->Stop();
        detector->Join();
        DetectorFixture::TearDown();
    }
    std::unique_ptr<Detector> detector;
};

TEST_F(DetectorOnDisk, EachKindOfChangeArrivesAsItsEvent) {
    Write(At("f"), "content");
    Texts seen = sink.Settle({"EV_ADD /f", "EV_MODIFY /f"});
    EXPECT_TRUE(Contains(seen, "EV_ADD /f"));

    // A tree made at once: the directory, an expand of it, and what is in it.
    ASSERT_EQ(::mkdir(At("d").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(At("d/e").c_str(), 0755), 0);
    Write(At("d/e/g"));
    seen = sink.Settle({"EV_ADD dir /d", "expand /d", "EV_ADD /d/e/g"});
    for (const char* want : {"EV_ADD dir /d", "expand /d", "EV_ADD /d/e/g"}) {
        EXPECT_TRUE(Contains(seen, want)) << want;
    }

    ASSERT_EQ(std::rename(At("f").c_str(), At("d/h").c_str()), 0);
    seen = sink.Settle({"EV_ADD /d/h"});
    EXPECT_EQ(seen, (Texts{"EV_REMOVE /f", "EV_ADD /d/h"}));

    Known("/d/h", false);
    ASSERT_EQ(::unlink(At("d/h").c_str()), 0);
    EXPECT_EQ(sink.Settle({"EV_REMOVE /d/h"}), (Texts{"EV_REMOVE /d/h"}));

    // Temporary files of the daemon make no event; their renaming into place
    // does.
    const std::string tmp = At(".ZephanorWorkingDirectory/download");
    Write(tmp, "from the server");
    ASSERT_EQ(std::rename(tmp.c_str(), At("fetched").c_str()), 0);
    EXPECT_EQ(sink.Settle({"EV_ADD /fetched"}), (Texts{"EV_ADD /fetched"}));
}

TEST_F(DetectorOnDisk, RemovedRootIsASessionErrorWithoutRemovals) {
    TempDir parent;
    const std::string base = parent / "sync";
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((base + "/sub").c_str(), 0755), 0);
    for (int i = 0; i < 10; ++i) {
        const std::string name = "/sub/f" + std::to_string(i);
        Write(base + name);
        Known(name, false);
    }
    Known("/sub", true);
    Registry::Entry entry;
    ASSERT_EQ(Registry::getInstance().Find(kSess, entry), 1);
    entry.local_path = base.c_str();
    Registry::getInstance().Set(entry);
    ASSERT_EQ(detector->AddWatch(base.c_str(), kSess), 0);
    sink.Settle({}, 0, 300);

    ASSERT_EQ(::system(("rm -rf '" + base + "'").c_str()), 0);
    const std::string error = "error " + std::to_string(ERR_SYNCFOLDER_MISS);
    EXPECT_EQ(sink.Settle({error}), (Texts{error}));
}

// ---------------------------------------------------------------------------------------
// The thread: stops at once, also when paused or when watches come and go.

TEST(DetectorConcurrency, StopsPromptlyWhetherWaitingOrPaused) {
    TempDir root;
    RecordingSink sink;
    Detector detector(nullptr, &sink);
    ASSERT_EQ(detector.AddWatch(root.path().c_str(), kSess), 0);
    ASSERT_EQ(detector.Run(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    int64_t start = NowMs();
    detector.Stop();
    ASSERT_EQ(detector.Join(), 0);
    EXPECT_LT(NowMs() - start, 300);

    ASSERT_EQ(detector.Run(), 0);
    detector.Pause();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    start = NowMs();
    detector.Stop();
    ASSERT_EQ(detector.Join(), 0);
    EXPECT_LT(NowMs() - start, 300);
}

TEST(DetectorConcurrency, WatchesComeAndGoWhileTheThreadRuns) {
    TempDir a, b;
    TempDir dbdir;
    FileEventDB db;
    ASSERT_EQ(db.initialize((dbdir / "event-db.sqlite").c_str()), 0);
    Registry::Entry entry;
    entry.sess_id = kSess;
    entry.local_path = b.path().c_str();
    entry.event_db = &db;
    Registry::getInstance().Set(entry);

    RecordingSink sink;
    Detector detector(nullptr, &sink);
    ASSERT_EQ(detector.Run(), 0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(detector.AddWatch(a.path().c_str(), kSess), 0);
        detector.RemoveWatch(kSess);
    }
    ASSERT_EQ(detector.AddWatch(b.path().c_str(), kSess), 0);
    Write(b / "seen");
    EXPECT_TRUE(Contains(sink.Settle({"EV_ADD /seen"}), "EV_ADD /seen"));
    detector.Stop();
    detector.Join();
    Registry::getInstance().Remove(kSess);
    db.destroy();
}
