// Local changes carried to the real server by the real daemon: what arrives, how many
// bytes it took (counted by a relay between the two), what happens when the connection
// breaks mid-file or the file changes mid-upload, and names that cannot stay as they are.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "harness/counting-relay.h"
#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

// A running session 1 whose connection goes through a counting relay.
class Upload : public ::testing::Test {
  protected:
    explicit Upload(const std::string& extra_config = "") : world(3, extra_config) {}
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        PObject reply = world.daemon().Ask("link");
        ASSERT_FALSE(reply.hasMember("error"));
        PObject request = world.ConnectionRequest();
        request["server_port"] = static_cast<uint64_t>(relay.port());
        ASSERT_TRUE(world.daemon().Ask(request, reply));
        ASSERT_FALSE(reply.hasMember("error")) << reply.toString().c_str_utf8();
        ASSERT_FALSE(world.AddSession(1).hasMember("error"));
        ASSERT_FALSE(world.Resume(1).hasMember("error"));
        ASSERT_TRUE(Synced());
    }
    bool Synced(double seconds = 40) {
        const bool same = WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
        if (!same) ADD_FAILURE() << world.CompareTrees(1) << world.daemon().Log();
        return same;
    }
    std::string Local(const std::string& path) const { return world.Folder(1) + path; }
    bool Logged(const std::string& text) {
        return world.daemon().Log().find(text) != std::string::npos;
    }

    SyncWorld world;
    CountingRelay relay{world.server().port()};
};

TEST_F(Upload, NewFilesFoldersAndEditsArriveAndATouchIsUndoneWithoutTraffic) {
    ASSERT_TRUE(world.WriteLocal(1, "/a.txt", "first"));
    ASSERT_TRUE(world.MkdirLocal(1, "/dir"));
    ASSERT_TRUE(world.MkdirLocal(1, "/dir/sub"));
    ASSERT_TRUE(world.WriteLocal(1, "/dir/b", RandomBytes(70000, 1)));
    ASSERT_TRUE(world.WriteLocal(1, "/dir/sub/c", ""));
    ASSERT_TRUE(Synced());
    ASSERT_TRUE(world.WriteLocal(1, "/a.txt", "second, longer"));
    ASSERT_TRUE(Synced());

    // Only the time changes: the row committed above says nothing else did.
    struct stat before {};
    ASSERT_EQ(::stat(Local("/a.txt").c_str(), &before), 0);
    const uint64_t sent = relay.Sent();
    const timespec times[2] = {{0, UTIME_OMIT}, {before.st_mtim.tv_sec + 100, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, Local("/a.txt").c_str(), times, 0), 0);
    EXPECT_TRUE(WaitUntil([&] {
        struct stat now {};
        return ::stat(Local("/a.txt").c_str(), &now) == 0 &&
               now.st_mtim.tv_sec == before.st_mtim.tv_sec;
    }));
    EXPECT_TRUE(Logged("upload fake request"));
    // Pulls may go on meanwhile, but no file body.
    EXPECT_LT(relay.Sent() - sent, 4096u);

    // A link stays local and stops nothing behind it.
    fs::create_symlink("/etc/hostname", Local("/link"));
    ASSERT_TRUE(world.WriteLocal(1, "/after-link", "x"));
    EXPECT_TRUE(WaitUntil([&] { return world.CompareTrees(1) == "only local: /link\n"; }))
        << world.CompareTrees(1);
}

TEST_F(Upload, AnEditOfALargeFileGoesAsASmallDeltaAndTheSameContentByReference) {
    std::string content = RandomBytes(4 << 20, 2);
    ASSERT_TRUE(world.WriteLocal(1, "/big", content));
    ASSERT_TRUE(Synced());
    const uint64_t whole = relay.Sent();
    EXPECT_GT(whole, uint64_t{4 << 20});

    content.replace(1 << 20, 100, std::string(100, 'z'));
    ASSERT_TRUE(world.WriteLocal(1, "/big", content));
    ASSERT_TRUE(Synced());
    const uint64_t delta = relay.Sent() - whole;
    EXPECT_LT(delta, uint64_t{64 << 10});

    // The same 2 MiB under two names: the second is named by the server's copy.
    ASSERT_TRUE(world.WriteLocal(1, "/one", RandomBytes(2 << 20, 3)));
    ASSERT_TRUE(Synced());
    const uint64_t before_copy = relay.Sent();
    fs::copy_file(Local("/one"), Local("/two"));
    ASSERT_TRUE(Synced());
    EXPECT_LT(relay.Sent() - before_copy, uint64_t{64 << 10});
    EXPECT_TRUE(Logged("Server side has same file hash"));
}

// Two writes of the same size within one second leave size and time as they were: the
// second must still go up. A time ahead of the clock stands for "the same second" here.
TEST_F(Upload, ARewriteKeepingSizeAndTimeStillGoesUp) {
    const timespec ahead = {::time(nullptr) + 100, 0};
    const timespec times[2] = {ahead, ahead};
    ASSERT_TRUE(world.WriteLocal(1, "/same", "first"));
    ASSERT_EQ(::utimensat(AT_FDCWD, Local("/same").c_str(), times, 0), 0);
    ASSERT_TRUE(Synced());
    ASSERT_TRUE(world.WriteLocal(1, "/same", "again"));
    ASSERT_EQ(::utimensat(AT_FDCWD, Local("/same").c_str(), times, 0), 0);
    ASSERT_TRUE(Synced());
}

// The daemon configured to find blocks again after an insert: one byte at the front of a
// large file costs a delta, not the file.
class RealignedUpload : public Upload {
  protected:
    RealignedUpload() : Upload("delta_realign = true\n") {}
};

TEST_F(RealignedUpload, AnInsertAtTheFrontGoesAsASmallDelta) {
    std::string content = RandomBytes(4 << 20, 7);
    ASSERT_TRUE(world.WriteLocal(1, "/shifted", content));
    ASSERT_TRUE(Synced());
    const uint64_t whole = relay.Sent();
    ASSERT_TRUE(world.WriteLocal(1, "/shifted", "!" + content));
    ASSERT_TRUE(Synced());
    EXPECT_LT(relay.Sent() - whole, uint64_t{64 << 10});
}

TEST_F(Upload, AConnectionCutMidFileResumesWithTheRemainingBytes) {
    constexpr uint64_t kSize = 24 << 20, kCut = 16 << 20;
    world.server().WriteFaults("close-after resume_upload " + std::to_string(kCut) + " times=1\n");
    ASSERT_TRUE(world.WriteLocal(1, "/resumed", RandomBytes(kSize, 4)));
    ASSERT_TRUE(Synced(60));
    // The cut connection carried at least kCut; the one that finished carried the rest.
    std::vector<uint64_t> per = relay.SentPerConnection();
    std::sort(per.rbegin(), per.rend());
    ASSERT_GE(per.size(), 2u);
    EXPECT_GE(per[0], kCut);
    EXPECT_LT(per[1], kSize - kCut + (1 << 20));
}

TEST_F(Upload, TheStatusShowsAFileBodyPartlySent) {
    constexpr uint64_t kSize = 24 << 20;
    relay.Hold(relay.Sent() + (8 << 20));
    ASSERT_TRUE(world.WriteLocal(1, "/slow", RandomBytes(kSize, 8)));
    PObject seen;
    EXPECT_TRUE(WaitUntil([&] {
        const PObject status = world.daemon().Ask("get_status");
        if (!status["worker_list"].isArray()) return false;
        seen = status["worker_list"][0];
        return seen["progress"].asUInt64() > 0;
    })) << seen.toString().c_str_utf8();
    EXPECT_STREQ(seen["path"].asString().c_str_utf8(), "/slow");
    EXPECT_STREQ(seen["status"].asString().c_str_utf8(), "uploading");
    EXPECT_LT(seen["progress"].asUInt64(), kSize);
    EXPECT_GE(seen["total_size"].asUInt64(), kSize);
    relay.Release();
    ASSERT_TRUE(Synced(60));
}

TEST_F(Upload, AFileChangedDuringItsUploadIsNotCommittedWithTheOldHash) {
    world.server().WriteFaults("delay resume_get_token 3000 times=1\n");
    const std::string old_bytes = RandomBytes(1 << 20, 5);
    ASSERT_TRUE(world.WriteLocal(1, "/moving", old_bytes));
    // The hash is taken before the token is asked for; the bytes are read after its answer.
    ASSERT_TRUE(WaitUntil([&] { return Logged("RunProtocol(resume_get_token)"); }));
    const std::string new_bytes = RandomBytes(1 << 20, 6);
    ASSERT_TRUE(world.WriteLocal(1, "/moving", new_bytes));
    ASSERT_TRUE(Synced());
    Tree server;
    ASSERT_TRUE(world.server().Listing(server));
    EXPECT_EQ(server["/moving"].md4, Md4OfFile(Local("/moving")));
    EXPECT_EQ(ReadFile(Local("/moving")), new_bytes);
    // The first attempt's bytes did not match its hash: refused, so nothing was committed.
    EXPECT_TRUE(Logged("UploadFile: Bad response"));
}

TEST_F(Upload, NamesTheServerRefusesAreMovedAsideAndNothingIsLost) {
    world.server().WriteFaults("error upload /c.txt 0x6000 times=1\n");
    ASSERT_TRUE(world.WriteLocal(1, "/c.txt", "mine"));
    ASSERT_TRUE(world.WriteLocal(1, "/ blank.txt ", "blank"));
    ASSERT_TRUE(world.WriteLocal(1, "/note.", "dot"));
    ASSERT_TRUE(Synced());
    Tree local = LocalTree(world.Folder(1));
    EXPECT_EQ(local.count("/c.txt"), 0u);
    EXPECT_EQ(local.count("/ blank.txt "), 0u);
    EXPECT_EQ(local.count("/note."), 0u);
    EXPECT_EQ(ReadFile(Local("/blank.txt")), "blank");
    int conflicts = 0, tails = 0;
    for (const auto& [path, entry] : local) {
        const bool conflict =
            path.rfind("/c_", 0) == 0 && path.find("_Conflict.txt") != std::string::npos;
        const bool tail = path.rfind("/note._", 0) == 0 &&
                          path.find("_TailCharacterConflict") != std::string::npos;
        if (conflict || tail) {
            EXPECT_EQ(ReadFile(Local(path)), conflict ? "mine" : "dot");
        }
        conflicts += conflict;
        tails += tail;
    }
    EXPECT_EQ(conflicts, 1);
    EXPECT_EQ(tails, 1);
}

// A new file on each side under one name, with no agreement between them yet: the server
// refuses the upload as a conflict, the local one is moved aside and goes up under its new
// name, the server's comes down, and both sides end alike.
TEST_F(Upload, ANewFileMeetingADifferentServerFileKeepsBoth) {
    ASSERT_EQ(world.Pause(1)["error"].asString(), ustring());
    ASSERT_TRUE(world.server().Put("/both.txt", "theirs"));
    ASSERT_TRUE(world.WriteLocal(1, "/both.txt", "mine, longer"));
    ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());
    ASSERT_TRUE(Synced());
    std::multiset<std::string> contents;
    for (const auto& [path, entry] : LocalTree(world.Folder(1)))
        if (path.rfind("/both", 0) == 0) contents.insert(ReadFile(Local(path)));
    EXPECT_EQ(contents, (std::multiset<std::string>{"mine, longer", "theirs"}));
}

}  // namespace
