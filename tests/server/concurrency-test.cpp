// Several clients at once on one server: uploads from many connections commit in one order
// per view, a puller following the marks sees every one of them, and stopping the server
// ends connections that are still open.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "delta-ops.h"
#include "server-harness.h"

namespace {

TEST(ServerConcurrency, ManyClientsUploadWhileOneFollowsThePulls) {
    ServerHarness h;
    constexpr int kClients = 3;
    constexpr int kUploads = 15;
    std::mutex mutex;
    std::map<std::string, uint64_t> acked;  // path -> sync id of its last acknowledged upload
    std::atomic<int> running{kClients};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            WireClient client(h.port());
            std::string name = "src" + std::to_string(c);
            for (int i = 0; i < kUploads; ++i) {
                std::string local = h.LocalFile(name, RandomBytes(3000 + i, c * 100 + i));
                std::string md4;
                delta_ops::HashFile(local, md4);
                PObject req = h.Request("upload");
                std::string path = "/c" + std::to_string(c) + "/f" + std::to_string(i % 4);
                req["path"] = path.c_str();
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    req["sync_id"] = acked.count(path) ? acked[path] : 0;
                }
                req["file"]["hash"] = md4.c_str();
                req["file"]["size"] = static_cast<uint64_t>(3000 + i);
                PObject::binary_type bin;
                bin.path = local.c_str();
                bin.length = 3000 + i;
                req["file"]["data"] = bin;
                PObject reply;
                ASSERT_EQ(client.Call(SCMD_EVT_RECV_4, req, reply), 0);
                ASSERT_EQ(WireClient::Code(reply), 0u);
                std::lock_guard<std::mutex> lock(mutex);
                acked[path] = reply["sync_id"].asUInt64();
            }
            --running;
        });
    }
    WireClient puller(h.port());
    std::map<std::string, uint64_t> seen;
    uint64_t mark = 0;
    for (bool last = false;;) {
        bool done = running == 0;
        PObject req = h.Request("pull_event");
        req["sync_id"] = mark;
        PObject reply;
        ASSERT_EQ(puller.Call(SCMD_EVT_PULL, req, reply), 0);
        ASSERT_EQ(WireClient::Code(reply), 0u);
        for (const PObject& ev : reply["event_list"].asArray())
            seen[ev["path"].asString().str()] = ev["sync_id"].asUInt64();
        mark = reply["next_sync_id"].asUInt64();
        if (last) break;
        last = done;
    }
    for (auto& t : clients) t.join();
    ASSERT_EQ(acked.size(), static_cast<size_t>(kClients * 4));
    for (const auto& [path, id] : acked) EXPECT_EQ(seen[path], id) << path;
    EXPECT_EQ(mark, static_cast<uint64_t>(h.store.LastSyncId(h.user.view_id)));
}

TEST(ServerConcurrency, StopEndsOpenConnectionsPromptly) {
    ServerHarness h;
    std::vector<std::unique_ptr<WireClient>> idle;
    for (int i = 0; i < 4; ++i) {
        idle.push_back(std::make_unique<WireClient>(h.port()));
        PObject reply;
        ASSERT_EQ(idle.back()->Call(SCMD_REQUEST_CONNECT, h.Request("connect"), reply), 0);
    }
    EXPECT_EQ(h.server->ConnectionCount(), 4u);
    auto start = std::chrono::steady_clock::now();
    h.server->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    for (auto& c : idle) EXPECT_TRUE(c->ClosedByPeer());
}

}  // namespace
