// The real executable killed with SIGKILL at random points of concurrent small and large
// uploads: after each restart every acknowledged change is there with the bytes that were
// acknowledged, nothing unacknowledged is half there, nothing half-made is left, and the
// server answers as before. A store whose record lacks its content is refused at start.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "server-harness.h"
#include "support/process.h"

namespace {

// The server as a child process; its port comes from its first line of output.
class ServerProcess : public ChildProcess {
  public:
    explicit ServerProcess(const std::string& data_dir)
        : ChildProcess({kServerBinary, "--data", data_dir, "--port", "0"}) {
        if (WaitForOutput("\n"))
            std::sscanf(Out().c_str(), "%*[^0-9]%*d.%*d.%*d.%*d port %d", &m_port);
    }
    int port() const { return m_port; }

  private:
    int m_port = 0;
};

// What the uploaders sent and what was acknowledged, shared by their threads.
struct Ledger {
    std::mutex mutex;
    std::map<std::string, std::pair<uint64_t, std::string>> acked;  // path -> sync id, bytes
    std::map<std::string, std::set<std::string>> sent;              // path -> every version
};

// Uploads files of `size` bytes (give or take a third) in turn over a few paths of its own
// until the connection breaks.
void Upload(int port, const admin::InitResult& user, TempDir& dir, const std::string& who,
            size_t size, unsigned seed, Ledger& ledger) {
    WireClient client(port);
    for (unsigned i = 0; i < 100000; ++i) {
        std::string path = "/" + who + "/f" + std::to_string(i % 6);
        std::string bytes =
            RandomBytes(size * 2 / 3 + (seed + i) * 7919 % (size * 2 / 3), seed + i);
        dir.write(who + "-src", bytes);
        std::string local = dir / (who + "-src");
        uint64_t base;
        {
            std::lock_guard<std::mutex> lock(ledger.mutex);
            ledger.sent[path].insert(bytes);
            base = ledger.acked.count(path) ? ledger.acked[path].first : 0;
        }
        PObject reply;
        if (client.Call(SCMD_EVT_RECV_4, UploadRequest(user, path, base, local), reply) < 0 ||
            reply.hasMember("error"))
            return;
        std::lock_guard<std::mutex> lock(ledger.mutex);
        ledger.acked[path] = {reply["sync_id"].asUInt64(), bytes};
    }
}

// Every object is whole (its bytes hash to its record and are a version some client sent)
// and at or past what was acknowledged for it.
void CheckStore(ServerStore& store, const admin::InitResult& user, Ledger& ledger) {
    for (const auto& [path, ack] : ledger.acked) {
        ServerObject obj;
        ASSERT_EQ(store.GetObject(user.view_id, path, obj), 1) << path;
        // A later upload may have been committed and its answer lost in the kill.
        EXPECT_GE(obj.sync_id, ack.first) << path;
        if (obj.sync_id == ack.first) {
            EXPECT_TRUE(ContentBytes(store, obj.content_id) == ack.second) << path;
        }
    }
    std::vector<ServerObject> all;
    ASSERT_EQ(store.ListTree(user.view_id, "/", all), 0);
    for (const ServerObject& obj : all) {
        if (obj.is_dir) continue;
        std::string bytes = ContentBytes(store, obj.content_id);
        EXPECT_EQ(Md4Of(bytes), obj.md4) << obj.path;
        EXPECT_TRUE(ledger.sent[obj.path].count(bytes)) << obj.path << " holds bytes never sent";
    }
}

TEST(ServerCrash, KilledAtRandomDuringSmallAndLargeUploadsLosesNothingAcknowledged) {
    TempDir dir;
    std::string data = dir / "data";
    admin::InitResult user;
    {
        ServerStore setup;
        ASSERT_EQ(setup.Open(data), 0);
        ASSERT_EQ(admin::Init(setup, "alice", "home", user), 0);
    }
    Ledger ledger;
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 3; ++round) {
        ServerProcess server(data);
        ASSERT_GT(server.port(), 0);
        std::vector<std::thread> uploaders;
        for (int c = 0; c < 2; ++c) {
            // Paths of their own each round: the answers lost in a kill leave bases behind.
            std::string tag = std::to_string(round) + "-" + std::to_string(c);
            std::string small = "s" + tag, large = "l" + tag;
            unsigned seed = static_cast<unsigned>(round * 1000000 + c * 100000);
            uploaders.emplace_back(
                [&, small, seed] { Upload(server.port(), user, dir, small, 6000, seed, ledger); });
            uploaders.emplace_back([&, large, seed] {
                Upload(server.port(), user, dir, large, 400000, seed + 50000, ledger);
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + random() % 900));
        server.Kill(SIGKILL);
        for (std::thread& t : uploaders) t.join();
    }
    ASSERT_GT(ledger.acked.size(), 8u) << "too few uploads got through to test anything";

    ServerProcess restarted(data);
    ASSERT_GT(restarted.port(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(data + "/spool"));
    EXPECT_TRUE(std::filesystem::is_empty(data + "/content/tmp"));
    ServerStore store;
    ASSERT_EQ(store.Open(data), 0);
    CheckStore(store, user, ledger);
    std::vector<ServerObject> all;
    ASSERT_EQ(store.ListTree(user.view_id, "/", all), 0);
    WireClient client(restarted.port());
    PObject reply = client.Ask(SCMD_EVT_PULL, Request(user, "pull_event"));
    EXPECT_EQ(reply["event_list"].asArray().size(), all.size());
    EXPECT_EQ(reply["next_sync_id"].asUInt64(),
              static_cast<uint64_t>(store.LastSyncId(user.view_id)));
}

TEST(ServerCrash, AStoreWhoseRecordLacksItsContentIsRefused) {
    ServerHarness h;
    ServerObject obj;
    std::string big = h.LocalFile("big", RandomBytes(ContentStore::kInlineLimit + 1, 5));
    ASSERT_EQ(admin::Put(h.store, h.user.view_id, big, "/big", 1, obj), 0);
    h.server->Stop();
    ASSERT_TRUE(std::filesystem::remove(h.store.contents().PathOf(obj.content_id)));
    Server again(h.options);
    EXPECT_LT(again.Start(), 0);
}

}  // namespace
