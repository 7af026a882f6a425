// DownloadRemote on one worker against an in-process server: what never costs a transfer
// (this client's own change coming back, a path that leaves the folder), a tree put in
// place with the server's time and its rows, the type jumps, and a full disk, which leaves
// the old file and gives the event back until space is freed.
#include <cerrno>
#include <filesystem>

#include "admin.h"
#include "foundation/error-code.h"
#include "server/server-harness.h"
#include "state/filter-db.h"
#include "support/fault-fs.h"
#include "worker-fixture.h"

namespace wtest {
namespace {

class DownloadRemoteTest : public WorkerFixture {
  protected:
    void SetUp() override {
        WorkerFixture::SetUp();
        ASSERT_EQ(FilterDB::getInstance().initialize((dir / "filter.sqlite").c_str()), 0);
        server = std::make_unique<ServerHarness>();
        pool = PoolFor(*server);
        g_pool = pool.get();
        AddSession(1, true, false, server->user.view_id);
        std::filesystem::create_directories(dir / "config/db/sign");
        std::filesystem::create_directories(Root(1) + "/.ZephanorWorkingDirectory/#ZephRecycle");
        Registry::Entry entry;
        ASSERT_EQ(Registry::getInstance().Find(1, entry), 1);
        entry.config_path = (dir / "config").c_str();
        Registry::getInstance().Set(entry);
    }
    void TearDown() override {
        WorkerFixture::TearDown();
        FilterDB::getInstance().destroy();
    }
    // The server's object after storing `bytes` at `path` with time `mtime`.
    ServerObject Put(const std::string& path, const std::string& bytes, uint32_t mtime = 1000) {
        ServerObject obj;
        EXPECT_EQ(admin::Put(server->store, server->user.view_id, server->LocalFile("put", bytes),
                             path, mtime, obj),
                  0);
        return obj;
    }
    ServerObject Mkdir(const std::string& path) {
        ServerObject obj;
        EXPECT_EQ(admin::MakeDir(server->store, server->user.view_id, path, 1000, obj), 0);
        return obj;
    }
    // The worker's result for the server's event of `obj`.
    int Download(const ServerObject& obj, const std::string& path) {
        Event e = In(1, evtest::Server(Event::EV_CREATE, path, obj.sync_id,
                                       obj.is_dir ? DIR_NODE : FILE_NODE));
        e.m_max_id = obj.max_id;
        e.m_data_size = obj.size;
        e.m_data_hash = obj.md4.c_str();
        e.m_time = obj.mtime;
        w.Hold(e);
        if (w.UpdateContext() < 0) return 1;
        return w.DownloadRemote();
    }
    // What DoneEvent leaves of an event the manager never handed out.
    void Finish() {
        w.ClearCache();
        w.context.clear();
    }

    std::unique_ptr<ServerHarness> server;
    std::unique_ptr<ConnectionPool> pool;
    ProbeWorker w;
};

TEST_F(DownloadRemoteTest, ATreeComesWithItsTimesAndRowsAndItsEchoCostsNothing) {
    const ServerObject v1 = Put("/a/b.txt", "first", 1234567);
    ServerObject folder;
    ASSERT_EQ(server->store.GetObject(server->user.view_id, "/a", folder), 1);
    ASSERT_EQ(Download(folder, "/a"), 0);
    Finish();
    ASSERT_EQ(Download(v1, "/a/b.txt"), 0);
    const std::string local = Root(1) + "/a/b.txt";
    EXPECT_EQ(ReadFile(local), "first");
    FILE_INFO info;
    ASSERT_EQ(FSStat(local.c_str(), info), 0);
    EXPECT_EQ(info.mtime, 1234567u);
    ClientFileEventInfo row;
    ASSERT_EQ(dbs[1]->getEventInfo("/a/b.txt", row), 1);
    EXPECT_EQ(row.syncID, v1.sync_id);
    EXPECT_EQ(row.fileCheckSum, ustring(v1.md4.c_str()));
    EXPECT_TRUE(Exists(row.signaturePath.str()));
    Finish();

    // The same change coming back, as an upload of this client's comes back in a pull:
    // the row is that far already, nothing is asked of the server.
    const size_t asked = LogCount("resume_download");
    ASSERT_EQ(Download(v1, "/a/b.txt"), 0);
    EXPECT_EQ(LogCount("resume_download"), asked);
    EXPECT_EQ(LogCount("is already up-to-date (server echo)"), 1u);
    Finish();

    // A path that climbs out of the folder touches nothing and is not tried again.
    ServerObject bad = v1;
    ++bad.sync_id;
    EXPECT_EQ(Download(bad, "/../escape"), 0);
    EXPECT_FALSE(Exists(Root(1) + "/../escape"));
    EXPECT_EQ(LogCount("refused the server path"), 1u);
}

TEST_F(DownloadRemoteTest, TypeJumpsMoveTheReplacedObjectToTheBinOrToAConflictName) {
    // An unchanged file where a folder comes goes to the bin, with its row.
    const ServerObject file = Put("/j", "old file");
    ASSERT_EQ(Download(file, "/j"), 0);
    Finish();
    ASSERT_EQ(admin::Remove(server->store, server->user.view_id, "/j"), 0);
    ASSERT_EQ(Download(Mkdir("/j"), "/j"), 0);
    Finish();
    EXPECT_TRUE(std::filesystem::is_directory(Root(1) + "/j"));
    ustring binned;
    ASSERT_EQ(dbs[1]->getFilePathByHashFromRecycle(file.md4.c_str(), "", binned), 1);
    EXPECT_EQ(ReadFile(Root(1) + "/.ZephanorWorkingDirectory/#ZephRecycle" + binned.str()),
              "old file");

    // A file the server never saw where a folder comes keeps its content under a conflict
    // name; so does a folder of the user's where a file comes.
    WriteFile(Root(1) + "/k", "mine");
    ASSERT_EQ(Download(Mkdir("/k"), "/k"), 0);
    Finish();
    std::filesystem::create_directory(Root(1) + "/m");
    WriteFile(Root(1) + "/m/inside", "mine too");
    ASSERT_EQ(Download(Put("/m", "server file"), "/m"), 0);
    Finish();
    EXPECT_TRUE(std::filesystem::is_directory(Root(1) + "/k"));
    EXPECT_EQ(ReadFile(Root(1) + "/m"), "server file");
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(Root(1))) {
        const std::string name = entry.path().filename().string();
        if (name.find("_Conflict") == std::string::npos) continue;
        kept.insert(entry.is_directory() ? ReadFile(entry.path().string() + "/inside")
                                         : ReadFile(entry.path().string()));
    }
    EXPECT_EQ(kept, (std::set<std::string>{"mine", "mine too"}));
}

TEST_F(DownloadRemoteTest, AFullDiskKeepsTheOldFileAndTheEventGoesBackUntilSpaceIsFreed) {
    const ServerObject v1 = Put("/f.bin", RandomBytes(200000, 1));
    ASSERT_EQ(Download(v1, "/f.bin"), 0);
    Finish();
    const std::string v2_bytes = RandomBytes(300000, 2);
    const ServerObject v2 = Put("/f.bin", v2_bytes);

    tbtest::FaultFileSystem faults;
    {
        tbtest::ScopedFileSystem installed(faults);
        faults.FailNth(tbtest::FsOp::kFileWrite, 2, ENOSPC, true);
        const int rc = Download(v2, "/f.bin");
        EXPECT_EQ(rc, ERR_LOCAL_DISKFULL);
        EXPECT_EQ(w.HandleError(rc), 2);  // given back, with nothing kept
        EXPECT_TRUE(w.cached_request.isEmpty());
    }
    EXPECT_EQ(ReadFile(Root(1) + "/f.bin"), RandomBytes(200000, 1));
    ClientFileEventInfo row;
    ASSERT_EQ(dbs[1]->getEventInfo("/f.bin", row), 1);
    EXPECT_EQ(row.syncID, v1.sync_id);
    // Space again: the same event succeeds.
    EXPECT_EQ(Download(v2, "/f.bin"), 0);
    EXPECT_EQ(ReadFile(Root(1) + "/f.bin"), v2_bytes);
    size_t left = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(Root(1) + "/.ZephanorWorkingDirectory"))
        left += entry.path().filename() != "#ZephRecycle" ? 1 : 0;
    EXPECT_EQ(left, 0u);
}

}  // namespace
}  // namespace wtest
