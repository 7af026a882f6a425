// Pull semantics on scripted histories made with the admin commands (another client's
// changes): the whole state from 0, increments, removals and moves of directories, paging
// without splitting a sync id, conditions, the high-water mark under concurrent writers.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "pull.h"
#include "server-harness.h"
#include "support/loopback.h"

namespace {

using Paths = std::vector<std::string>;

// The page as a client reads it: written by the server's encoder on a real socket.
PObject OverTheWire(const PullPage& page) {
    loopback::Listener listener;
    Channel client, server;
    EXPECT_EQ(client.Open("127.0.0.1", listener.port()), 0);
    EXPECT_EQ(server.Open(listener.accept(), true), 0);
    std::thread sender([&] {
        PStream stream;
        EXPECT_EQ(SendPullReply(server, stream, page, 600), 0);
    });
    PObject reply;
    PStream stream;
    EXPECT_EQ(stream.Recv(client, reply), 0);
    sender.join();
    EXPECT_EQ(reply["alive"].asUInt32(), 600u);
    return reply;
}

class PullFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(store.Open(dir / "data"), 0);
        ASSERT_EQ(admin::Init(store, "alice", "home", user), 0);
        view = user.view_id;
    }
    void Put(const std::string& path, const std::string& bytes) {
        dir.write("src", bytes);
        ServerObject obj;
        ASSERT_EQ(admin::Put(store, view, dir / "src", path, 1000, obj), 0) << path;
    }
    PObject Pull(uint64_t from, const std::string& path = "/", bool recursive = true,
                 const PObject* condition = nullptr, size_t limit = 5000) {
        PObject req;
        req["sync_id"] = from;
        req["path"] = path.c_str();
        req["recursive"] = recursive;
        if (condition) req["condition"] = *condition;
        PullPage page;
        PullLimits limits;
        limits.max_events = limit;
        EXPECT_EQ(HandlePull(store, view, req, limits, page), 0u);
        return OverTheWire(page);
    }
    // "path" of each event in order, ":rm" behind removals.
    static Paths Names(const PObject& reply) {
        Paths out;
        for (const PObject& ev : reply["event_list"].asArray())
            out.push_back(ev["path"].asString().str() + (ev["is_removed"].asBool() ? ":rm" : ""));
        return out;
    }

    TempDir dir;
    ServerStore store;
    admin::InitResult user;
    uint64_t view = 0;
};

TEST_F(PullFixture, FromZeroTheWholeStateThenOnlyIncrements) {
    Put("/docs/a.txt", "a");
    Put("/docs/b.txt", "b");
    ServerObject d;
    ASSERT_EQ(admin::MakeDir(store, view, "/empty", 7, d), 0);
    PObject all = Pull(0);
    EXPECT_EQ(Names(all), (Paths{"/docs", "/docs/a.txt", "/docs/b.txt", "/empty"}));
    uint64_t mark = all["next_sync_id"].asUInt64();
    EXPECT_EQ(mark, 4u);
    const PObject& file = all["event_list"].asArray()[1];
    EXPECT_EQ(file["file"]["size"].asUInt64(), 1u);
    EXPECT_EQ(file["file"]["hash"].asString().str().size(), 32u);
    EXPECT_EQ(file["mtime"]["mtime"].asUInt32(), 1000u);
    EXPECT_EQ(all["event_list"].asArray()[0]["max_id"].asUInt64(), 3u);
    // Nothing new: the request's own id comes back.
    PObject again = Pull(mark);
    EXPECT_TRUE(again["event_list"].asArray().empty());
    EXPECT_EQ(again["next_sync_id"].asUInt64(), mark);

    Put("/docs/a.txt", "a2");
    ASSERT_EQ(admin::Remove(store, view, "/docs/b.txt"), 0);
    PObject inc = Pull(mark);
    EXPECT_EQ(Names(inc), (Paths{"/docs/a.txt", "/docs/b.txt:rm"}));
    EXPECT_EQ(inc["next_sync_id"].asUInt64(), 6u);
    // An id from another history (ahead of the view) gets the whole state again, without
    // what was removed.
    PObject restarted = Pull(1000);
    EXPECT_EQ(Names(restarted), (Paths{"/docs", "/empty", "/docs/a.txt"}));
    EXPECT_EQ(restarted["next_sync_id"].asUInt64(), 6u);
}

TEST_F(PullFixture, DirectoriesRemovedOrMovedAsWholes) {
    Put("/d/x/1", "1");
    Put("/d/x/2", "2");
    Put("/old/sub/f", "f");
    Put("/old/g", "g");
    uint64_t mark = Pull(0)["next_sync_id"].asUInt64();
    ASSERT_EQ(admin::Remove(store, view, "/d/x/2"), 0);
    ASSERT_EQ(admin::Remove(store, view, "/d"), 0);
    PObject removed = Pull(mark);
    // The file's own tombstone lies below the directory's and is covered by it.
    ASSERT_EQ(Names(removed), (Paths{"/d:rm"}));
    EXPECT_TRUE(removed["event_list"].asArray()[0]["is_dir"].asBool());
    EXPECT_EQ(removed["event_list"].asArray()[0]["max_id"].asUInt64(), 3u);

    mark = removed["next_sync_id"].asUInt64();
    ASSERT_EQ(admin::Move(store, view, "/old", "/new"), 0);
    PObject moved = Pull(mark);
    EXPECT_EQ(Names(moved), (Paths{"/old:rm", "/new", "/new/g", "/new/sub", "/new/sub/f"}));
    const auto& ev = moved["event_list"].asArray();
    // One id for the tombstone and the moved directory, then one per descendant.
    EXPECT_EQ(ev[0]["sync_id"].asUInt64(), ev[1]["sync_id"].asUInt64());
    EXPECT_LT(ev[1]["sync_id"].asUInt64(), ev[2]["sync_id"].asUInt64());
    EXPECT_EQ(ev[1]["max_id"].asUInt64(), moved["next_sync_id"].asUInt64());
    EXPECT_EQ(ev[4]["file"]["hash"].asString().str().size(), 32u);
}

TEST_F(PullFixture, PathAndRecursionLimitWhatIsReportedAndPathsAreRelative) {
    Put("/docs/a.txt", "a");
    Put("/docs/deep/b.txt", "b");
    Put("/other.txt", "o");
    EXPECT_EQ(Names(Pull(0, "docs")), (Paths{"/a.txt", "/deep", "/deep/b.txt"}));
    EXPECT_EQ(Names(Pull(0, "/docs/", false)), (Paths{"/a.txt", "/deep"}));
    EXPECT_EQ(Names(Pull(0, "", false)), (Paths{"/docs", "/other.txt"}));
    PObject req;
    PullPage page;
    req["path"] = "/other.txt";
    EXPECT_EQ(HandlePull(store, view, req, PullLimits(), page), SPROTO_ERR_VIEW_INVALID_PATH);
}

TEST_F(PullFixture, PagesHoldAtMostTheLimitAndNeverSplitASyncId) {
    EXPECT_EQ(PullLimits().max_events, 5000u);  // what a connection's pulls get
    // Files at ids 1..5, then a move of the last whose tombstone and new object share id 6.
    for (const char* path : {"/f1", "/f2", "/f3", "/f4", "/f5"}) Put(path, "x");
    ASSERT_EQ(admin::Move(store, view, "/f5", "/moved"), 0);
    PObject full = Pull(0, "/", true, nullptr, 4);
    EXPECT_EQ(Names(full), (Paths{"/f1", "/f2", "/f3", "/f4"}));
    EXPECT_EQ(full["next_sync_id"].asUInt64(), 4u);
    // From 1 the pair would make 5 events: the page stops short before it.
    PObject page1 = Pull(1, "/", true, nullptr, 4);
    EXPECT_EQ(Names(page1), (Paths{"/f2", "/f3", "/f4"}));
    EXPECT_EQ(page1["next_sync_id"].asUInt64(), 4u);
    PObject page2 = Pull(4, "/", true, nullptr, 4);
    EXPECT_EQ(Names(page2), (Paths{"/f5:rm", "/moved"}));
    EXPECT_EQ(page2["next_sync_id"].asUInt64(), 6u);
    // A single group larger than the limit still goes whole rather than never.
    EXPECT_EQ(Names(Pull(4, "/", true, nullptr, 1)), (Paths{"/f5:rm", "/moved"}));
}

TEST_F(PullFixture, ConditionsSelectWhatARelaxedRuleLetsThrough) {
    Put("/pics/a.JPG", std::string(10, 'a'));
    Put("/pics/b.png", std::string(300, 'b'));
    Put("/Music/song.mp3", std::string(50, 'c'));
    Put("/music2/x.mp3", std::string(60, 'd'));
    Put("/notes/.jpg", "e");
    auto cond = [](const char* key, const PObject& value) {
        PObject c;
        c[key] = value;
        return c;
    };
    PObject sizes = cond("min_size", uint64_t{10});
    sizes["max_size"] = uint64_t{60};
    const std::pair<PObject, Paths> cases[] = {
        {cond("extension", "jpg"), {"/pics/a.JPG"}},
        {cond("prefix", "/music"), {"/Music", "/Music/song.mp3"}},
        {cond("name", "SONG.mp3"), {"/Music/song.mp3"}},
        {sizes, {"/Music/song.mp3", "/music2/x.mp3"}},
    };
    for (const auto& [c, expected] : cases) EXPECT_EQ(Names(Pull(0, "/", true, &c)), expected);
}

// Writers on their own connections commit while a puller follows with the marks it is
// given: every change must be seen, none skipped, whatever the interleaving.
TEST(PullConcurrency, HighWaterMarkNeverSkipsAChangeUnderConcurrentWriters) {
    TempDir dir;
    ServerStore reader;
    ASSERT_EQ(reader.Open(dir / "data"), 0);
    admin::InitResult user;
    ASSERT_EQ(admin::Init(reader, "alice", "home", user), 0);
    constexpr int kWriters = 3;
    std::atomic<int> running{kWriters};
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            ServerStore store;
            EXPECT_EQ(store.Open(dir / "data"), 0);
            std::string src = "src" + std::to_string(w);
            for (int i = 0; i < 40; ++i) {
                dir.write(src, RandomBytes(64, w * 1000 + i));
                ServerObject obj;
                std::string path = "/w" + std::to_string(w) + "/f" + std::to_string(i % 10);
                EXPECT_EQ(admin::Put(store, user.view_id, dir / src, path, i, obj), 0);
            }
            --running;
        });
    }
    std::map<std::string, uint64_t> seen;  // path -> newest sync id pulled
    uint64_t mark = 0;
    for (bool last_round = false;;) {
        bool writers_done = running == 0;
        PObject req;
        req["sync_id"] = mark;
        PullPage page;
        ASSERT_EQ(HandlePull(reader, user.view_id, req, PullLimits(), page), 0u);
        PObject reply = OverTheWire(page);
        for (const PObject& ev : reply["event_list"].asArray()) {
            EXPECT_GT(ev["sync_id"].asUInt64(), mark);
            seen[ev["path"].asString().str()] = ev["sync_id"].asUInt64();
        }
        mark = reply["next_sync_id"].asUInt64();
        if (last_round) break;
        last_round = writers_done;
    }
    for (auto& t : writers) t.join();
    std::vector<ServerObject> all;
    ASSERT_EQ(reader.ListTree(user.view_id, "/", all), 0);
    ASSERT_EQ(all.size(), static_cast<size_t>(kWriters * 11));
    for (const ServerObject& obj : all) EXPECT_EQ(seen[obj.path], obj.sync_id) << obj.path;
    EXPECT_EQ(mark, static_cast<uint64_t>(reader.LastSyncId(user.view_id)));
}

}  // namespace
