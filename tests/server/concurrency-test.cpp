// Stopping the server ends the connections that are still open. Concurrent uploads are
// covered by the crash test (every acknowledged change kept) and the commit queue's test
// (each change of a batch its own sync id).
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "server-harness.h"

namespace {

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
