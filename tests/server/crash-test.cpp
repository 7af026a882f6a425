// The real executable killed with SIGKILL in the middle of uploads: after a restart every
// acknowledged change is there with the bytes that were acknowledged, nothing half-made is
// left, and the server answers as before.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <thread>

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

struct Acked {
    uint64_t sync_id;
    std::string bytes;
};

TEST(ServerCrash, KilledDuringUploadsLosesNoAcknowledgedChangeAndRestartsClean) {
    TempDir dir;
    std::string data = dir / "data";
    admin::InitResult user;
    {
        ServerStore setup;
        ASSERT_EQ(setup.Open(data), 0);
        ASSERT_EQ(admin::Init(setup, "alice", "home", user), 0);
    }
    std::map<std::string, Acked> acked;  // the uploader's until it is joined
    {
        ServerProcess server(data);
        ASSERT_GT(server.port(), 0);
        std::atomic<bool> stop{false};
        std::thread uploader([&] {
            WireClient client(server.port());
            for (int i = 0; !stop && i < 10000; ++i) {
                std::string name = "u" + std::to_string(i % 50);
                std::string bytes = RandomBytes(20000 + (i % 7) * 30000, i);
                dir.write(name, bytes);
                std::string path = "/dir" + std::to_string(i % 5) + "/" + name;
                uint64_t base = acked.count(path) ? acked[path].sync_id : 0;
                PObject reply;
                if (client.Call(SCMD_EVT_RECV_4, UploadRequest(user, path, base, dir / name),
                                reply) < 0 ||
                    reply.hasMember("error"))
                    return;
                acked[path] = Acked{reply["sync_id"].asUInt64(), bytes};
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        server.Kill(SIGKILL);
        stop = true;
        uploader.join();
    }
    ASSERT_GT(acked.size(), 5u) << "too few uploads got through to test anything";

    ServerProcess restarted(data);
    ASSERT_GT(restarted.port(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(data + "/spool"));
    EXPECT_TRUE(std::filesystem::is_empty(data + "/content/tmp"));
    ServerStore store;
    ASSERT_EQ(store.Open(data), 0);
    for (const auto& [path, ack] : acked) {
        ServerObject obj;
        ASSERT_EQ(store.GetObject(user.view_id, path, obj), 1) << path;
        // A later upload may have been committed and its answer lost in the kill.
        EXPECT_GE(obj.sync_id, ack.sync_id) << path;
        if (obj.sync_id == ack.sync_id) {
            EXPECT_TRUE(ReadFile(store.contents().PathOf(obj.content_id)) == ack.bytes) << path;
        }
    }
    // Every recorded object has its content file, with the recorded hash.
    std::vector<ServerObject> all;
    ASSERT_EQ(store.ListTree(user.view_id, "/", all), 0);
    for (const ServerObject& obj : all) {
        if (obj.is_dir) continue;
        EXPECT_EQ(Md4(store.contents().PathOf(obj.content_id)), obj.md4) << obj.path;
    }
    WireClient client(restarted.port());
    PObject reply = client.Ask(SCMD_EVT_PULL, Request(user, "pull_event"));
    EXPECT_EQ(reply["event_list"].asArray().size(), all.size());
    EXPECT_EQ(reply["next_sync_id"].asUInt64(),
              static_cast<uint64_t>(store.LastSyncId(user.view_id)));
}

}  // namespace
