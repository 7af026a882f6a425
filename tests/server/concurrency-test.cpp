// Several clients at once on one server: uploads from many connections commit in one order
// per view, a puller following the high-water marks it is given sees every one of them,
// and stopping the server ends connections that are still open.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "server-harness.h"

namespace {

TEST(ServerConcurrency, HighWaterMarkNeverSkipsAnUploadFromConcurrentClients) {
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
            for (int i = 0; i < kUploads; ++i) {
                std::string local =
                    h.LocalFile("src" + std::to_string(c), RandomBytes(3000 + i, c * 100 + i));
                std::string path = "/c" + std::to_string(c) + "/f" + std::to_string(i % 4);
                uint64_t base;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    base = acked.count(path) ? acked[path] : 0;
                }
                PObject reply =
                    client.Ask(SCMD_EVT_RECV_4, UploadRequest(h.user, path, base, local));
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
        PObject reply = puller.Ask(SCMD_EVT_PULL, req);
        ASSERT_EQ(WireClient::Code(reply), 0u);
        for (const PObject& ev : reply["event_list"].asArray()) {
            EXPECT_GT(ev["sync_id"].asUInt64(), mark);
            seen[ev["path"].asString().str()] = ev["sync_id"].asUInt64();
        }
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
        idle.back()->Ask(SCMD_REQUEST_CONNECT, h.Request("connect"));
    }
    EXPECT_EQ(h.server->ConnectionCount(), 4u);
    auto start = std::chrono::steady_clock::now();
    h.server->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    for (auto& c : idle) EXPECT_TRUE(c->ClosedByPeer());
}

}  // namespace
