// Rescans and expansions of a real folder against a real database: the events a walk
// leaves with the event manager, with and without merging, a walk that is stopped, and
// a detector whose changes were lost making good the loss through a rescan.
#include <sys/stat.h>
#include <unistd.h>

#include "events/detector.h"
#include "state/file-list.h"
#include "support/fault-fs.h"
#include "worker/worker-fixture.h"

namespace {

using namespace wtest;

class Walks : public WorkerFixture {
  protected:
    void SetUp() override {
        WorkerFixture::SetUp();
        AddSession(1);
    }
    std::string Disk(const std::string& path) const { return Root(1) + path; }
    // A row agreeing with what the disk holds at `path` now, but for a `size` given.
    void Row(const std::string& path, bool is_dir, uint64_t size = 0) {
        ClientFileEventInfo info;
        info.path = path.c_str();
        info.fileType = is_dir ? 1 : 0;
        info.isExist = 1;
        info.syncID = info.maxSyncID = 1;
        info.fileSize = size;
        struct stat st {};
        if (::lstat(Disk(path).c_str(), &st) == 0) {
            info.fileModTime = static_cast<uint32_t>(st.st_mtime);
            if (!is_dir && size == 0) info.fileSize = static_cast<uint64_t>(st.st_size);
        }
        ASSERT_EQ(dbs[1]->setEventInfo(info), 0);
    }
    // Runs `walk` on a rescan or expansion of `path` held by a worker; its result.
    int Run(Event e, int (Worker::*walk)()) {
        ProbeWorker& w = workers[0];
        w.Hold(In(1, e));
        if (w.UpdateContext() != 0) return -100;
        return (w.*walk)();
    }
    // What is queued, drained: "upload /p", "remove /p" or "download /p".
    std::set<std::string> Queued() {
        std::set<std::string> seen;
        evtest::RecordingTask reader;
        Event e;
        while (EventManager::getInstance().PullEvent(&reader, e) == 0) {
            const char* kind = e.isServerEvent()              ? "download "
                               : e.m_type == Event::EV_REMOVE ? "remove "
                                                              : "upload ";
            seen.insert(kind + e.m_path.str());
            EventManager::getInstance().DoneEvent(&reader, e);
        }
        return seen;
    }
    static Event RescanOf(const char* path, bool merge) {
        Event e = Local(Event::EV_CREATE, path, DIR_NODE);
        e.m_mode |= Event::F_EXPAND | Event::F_RESCAN | (merge ? uint32_t{Event::F_MERGE} : 0u);
        return e;
    }
    // A folder that agrees with the database but for a few differences of each kind.
    void Prepare() {
        for (const char* d : {"/report", "/d", "/olddir"}) ::mkdir(Disk(d).c_str(), 0700);
        for (const char* f : {"/same", "/edited", "/report/x", "/report.pdf", "/jump"})
            WriteFile(Disk(f), "bytes");
        for (const char* f : {"/same", "/report/x", "/report.pdf"}) Row(f, false);
        for (const char* d : {"/report", "/olddir"}) Row(d, true);
        Row("/edited", false, 2);
        Row("/gone", false, 5);
        Row("/report.old", false, 5);
        Row("/olddir/z", false, 5);
        Row("/jump", true);
        ::rmdir(Disk("/olddir").c_str());
        // New on disk: files, a folder with content, nothing for links or our own folder.
        WriteFile(Disk("/new"), "n");
        WriteFile(Disk("/d/y"), "y");
        WriteFile(Disk("/.ZephanorWorkingDirectory/tmp"), "t");
        ASSERT_EQ(::symlink("/etc/hostname", Disk("/link").c_str()), 0);
    }
};

TEST_F(Walks, ARescanQueuesWhatDiffersAndMergingBringsBackWhatTheDiskLacks) {
    Prepare();
    ASSERT_EQ(Run(RescanOf("/", false), &Worker::Rescan), 0);
    // By bytes "/report.old" sorts between "/report" and "/report/x": its removal must not
    // take "/report/x" along.
    EXPECT_EQ(Queued(), (std::set<std::string>{"upload /edited", "upload /new", "upload /d",
                                               "upload /d/y", "upload /jump", "remove /gone",
                                               "remove /olddir", "remove /report.old"}));

    ASSERT_EQ(Run(RescanOf("/", true), &Worker::Rescan), 0);
    const std::set<std::string> merged = Queued();
    for (const char* want : {"download /gone", "download /olddir", "upload /new"})
        EXPECT_EQ(merged.count(want), 1u) << want;
    for (const std::string& got : merged) EXPECT_NE(got.rfind("remove", 0), 0u) << got;

    // Below a directory, paths keep their place in the session.
    ASSERT_EQ(Run(RescanOf("/report", false), &Worker::Rescan), 0);
    EXPECT_TRUE(Queued().empty());
    WriteFile(Disk("/report/x"), "longer bytes");
    ASSERT_EQ(Run(RescanOf("/report", false), &Worker::Rescan), 0);
    EXPECT_EQ(Queued(), std::set<std::string>{"upload /report/x"});
}

TEST_F(Walks, WhatCannotBeListedIsNeitherRemovedNorFetched) {
    ::mkdir(Disk("/locked").c_str(), 0700);
    WriteFile(Disk("/locked/f"), "f");
    Row("/locked", true);
    Row("/locked/f", false);
    Row("/gone", false, 5);
    tbtest::FaultFileSystem faults;
    tbtest::ScopedFileSystem installed(faults);
    // The root is listed first, then its one folder.
    faults.FailNth(tbtest::FsOp::kOpenDir, 2, EACCES);
    ASSERT_EQ(Run(RescanOf("/", false), &Worker::Rescan), 0);
    EXPECT_EQ(Queued(), std::set<std::string>{"remove /gone"});
    // A root that cannot be listed ends the rescan with nothing concluded.
    faults.FailNth(tbtest::FsOp::kOpenDir, 1, EIO);
    EXPECT_EQ(Run(RescanOf("/", true), &Worker::Rescan), -1);
    EXPECT_TRUE(Queued().empty());
}

TEST_F(Walks, AnExpansionUploadsEverythingBelowAndAStoppedWalkGivesUp) {
    ::mkdir(Disk("/e").c_str(), 0700);
    ::mkdir(Disk("/e/g").c_str(), 0700);
    WriteFile(Disk("/e/f"), "f");
    WriteFile(Disk("/e/g/h"), "h");
    Event e = Local(Event::EV_CREATE, "/e", DIR_NODE);
    e.m_mode |= Event::F_EXPAND;
    ASSERT_EQ(Run(e, &Worker::Expand), 0);
    EXPECT_EQ(Queued(), (std::set<std::string>{"upload /e/f", "upload /e/g", "upload /e/g/h"}));

    // One level of the root, without the daemon's own folder.
    StringBuffer names;
    FileList top(names);
    ASSERT_EQ(workers[0].BuildLocalFileListWithoutResursive(Root(1).c_str(), top), 0);
    std::set<std::string> listed;
    for (auto it = top.rbegin(); it != top.rend(); ++it) listed.insert(it->path.str());
    EXPECT_EQ(listed, std::set<std::string>{"/e"});

    workers[0].SetAbort(true);
    EXPECT_EQ(workers[0].BuildLocalFileListWithoutResursive(Root(1).c_str(), top), -1);
    EXPECT_EQ(Run(e, &Worker::Expand), -1);
    EXPECT_EQ(Run(RescanOf("/", false), &Worker::Rescan), -1);
    EXPECT_TRUE(Queued().empty());
    EXPECT_GE(LogCount("interrupted while rescaning '/'"), 1u);
}

// The platform's own source, except that every read comes back as lost: what a flood
// past the kernel's queue looks like to the detector.
class LossySource : public platform::ChangeSource {
  public:
    LossySource() : m_real(platform::make_change_source(nullptr)) {}
    int add(uint64_t sess, const std::string& root, const std::string& own, int* err) override {
        return m_real->add(sess, root, own, err);
    }
    int remove(uint64_t sess) override { return m_real->remove(sess); }
    int wait(int timeout_ms, int* err) override { return m_real->wait(timeout_ms, err); }
    void wake() override { m_real->wake(); }
    int read(std::vector<platform::ChangeNotice>& out, int* err) override {
        std::vector<platform::ChangeNotice> got;
        if (m_real->read(got, err) < 0) return -1;
        std::set<uint64_t> sessions;
        for (const auto& n : got) sessions.insert(n.sess_id);
        for (uint64_t sess : sessions)
            out.push_back({platform::ChangeNotice::kOverflow, sess, 0, "", 0});
        return static_cast<int>(sessions.size());
    }

  private:
    std::unique_ptr<platform::ChangeSource> m_real;
};

TEST_F(Walks, ChangesTheDetectorLostAreFoundByTheRescanItAsksFor) {
    Detector detector(std::make_unique<LossySource>());
    ASSERT_EQ(detector.AddWatch(Root(1).c_str(), 1), 0);
    ASSERT_EQ(detector.Run(), 0);
    WorkerHandlers handlers = recorder.Handlers(0);
    handlers.rescan = &Worker::Rescan;
    workers[0].SetHandlers(handlers);
    ASSERT_EQ(workers[0].Run(), 0);

    std::set<std::string> want;
    for (int d = 0; d < 5; ++d) {
        const std::string dir = "/flood" + std::to_string(d);
        ::mkdir(Disk(dir).c_str(), 0700);
        want.insert(dir);
        for (int f = 0; f < 40; ++f) {
            WriteFile(Disk(dir + "/" + std::to_string(f)), "x");
            want.insert(dir + "/" + std::to_string(f));
        }
    }
    EXPECT_TRUE(Eventually([&] {
        std::set<std::string> uploaded;
        for (const auto& [route, path] : recorder.Taken())
            if (route == "upload") uploaded.insert(path);
        return uploaded == want;
    }));
    EXPECT_GE(LogCount("rescaning directory '/'"), 1u);
    detector.Stop();
    detector.Join();
}

}  // namespace
