// Several clients at once on one server: uploads from many connections each get their own
// sync id and leave the bytes they acknowledged, and stopping the server ends connections
// that are still open.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "server-harness.h"

namespace {

TEST(ServerConcurrency, ManyClientsUploadAtOnce) {
    ServerHarness h;
    constexpr int kClients = 3;
    std::mutex mutex;
    std::map<std::string, std::pair<uint64_t, std::string>> acked;  // path -> sync id, bytes
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            WireClient client(h.port());
            for (int i = 0; i < 15; ++i) {
                std::string bytes = RandomBytes(3000 + i, c * 100 + i);
                std::string local = h.LocalFile("src" + std::to_string(c), bytes);
                std::string path = "/c" + std::to_string(c) + "/f" + std::to_string(i % 4);
                uint64_t base;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    base = acked.count(path) ? acked[path].first : 0;
                }
                PObject reply =
                    client.Ask(SCMD_EVT_RECV_4, UploadRequest(h.user, path, base, local));
                ASSERT_EQ(WireClient::Code(reply), 0u);
                std::lock_guard<std::mutex> lock(mutex);
                acked[path] = {reply["sync_id"].asUInt64(), bytes};
            }
        });
    }
    for (auto& t : clients) t.join();
    ASSERT_EQ(acked.size(), static_cast<size_t>(kClients * 4));
    std::set<uint64_t> ids;
    for (const auto& [path, ack] : acked) {
        ServerObject obj;
        ASSERT_EQ(h.store.GetObject(h.user.view_id, path, obj), 1) << path;
        EXPECT_EQ(obj.sync_id, ack.first) << path;
        EXPECT_TRUE(ContentBytes(h.store, obj.content_id) == ack.second) << path;
        ids.insert(ack.first);
    }
    EXPECT_EQ(ids.size(), acked.size());
    EXPECT_EQ(h.store.LastSyncId(h.user.view_id), static_cast<int64_t>(*ids.rbegin()));
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
