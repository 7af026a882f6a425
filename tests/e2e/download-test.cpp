// Server changes reaching the disk, against the real daemon and server: new files, deltas,
// a download broken mid-file and resumed, content copied from what the folder already
// holds, both sides changed while paused, a server that keeps sending a wrong hash, and a
// folder tree whose downloads, seen again as local changes, send nothing back.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "harness/sync-world.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;

// A session resumed on an empty folder, the daemon connected to the server.
class Download : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(world.Connect().isNull());
        ASSERT_EQ(world.AddSession(1)["error"].asString(), ustring());
        ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());
    }
    std::string Local(const std::string& path) { return world.Folder(1) + path; }
    bool Synced(double seconds = 30) {
        return WaitUntil([&] { return world.CompareTrees(1).empty(); }, seconds);
    }
    // The names in the folder's top level that carry a conflict suffix.
    std::vector<std::string> ConflictNames() {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(world.Folder(1))) {
            const std::string name = entry.path().filename().string();
            if (name.find("_Conflict") != std::string::npos) names.push_back(name);
        }
        return names;
    }

    SyncWorld world;
};

TEST_F(Download, FilesDeltasAndLocalCopiesComeDown) {
    const std::string big = RandomBytes(1 << 20, 7);
    ASSERT_TRUE(world.server().Put("/a.txt", "hello"));
    ASSERT_TRUE(world.server().Put("/f.bin", big));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    EXPECT_EQ(world.server().Payloads("/f.bin").size(), 1u);

    // A 1 KiB edit in the middle comes down as a delta a fraction of the file's size.
    std::string edited = big;
    edited.replace(500000, 1024, RandomBytes(1024, 8));
    ASSERT_TRUE(world.server().Put("/f.bin", edited));
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(Local("/f.bin")) == edited; }));
    const auto payloads = world.server().Payloads("/f.bin");
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_TRUE(payloads[1].delta);
    EXPECT_LT(payloads[1].bytes, 16u * 1024);

    // Content the folder already holds is copied, never fetched.
    ASSERT_TRUE(world.server().Put("/copy.bin", edited));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    EXPECT_TRUE(world.server().Payloads("/copy.bin").empty());
    EXPECT_EQ(ReadFile(Local("/f.bin")), edited);

    // Nothing is left in the working directory but the bin.
    size_t left = 0;
    for (const auto& entry : fs::directory_iterator(Local("/.ZephanorWorkingDirectory")))
        left += entry.path().filename() != "#ZephRecycle" ? 1 : 0;
    EXPECT_EQ(left, 0u);
}

TEST_F(Download, ABrokenDownloadGoesOnFromWhereItStopped) {
    world.server().WriteFaults("cut-reply resume_download 300000 times=1\n");
    const std::string bytes = RandomBytes(1 << 20, 9);
    ASSERT_TRUE(world.server().Put("/r.bin", bytes));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    const auto payloads = world.server().Payloads("/r.bin");
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(payloads[0].offset, 0u);
    // The second asks only for what the first did not bring.
    EXPECT_GT(payloads[1].offset, 200000u);
    EXPECT_LE(payloads[1].offset, 300000u);
    EXPECT_EQ(payloads[1].offset + payloads[1].bytes, bytes.size());
}

TEST_F(Download, AWrongHashLeavesTheLocalFileAndEndsAfterThreeTries) {
    ASSERT_TRUE(world.server().Put("/w.txt", "version one"));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    world.server().WriteFaults("bad-hash resume_download /w.txt times=3\n");
    ASSERT_TRUE(world.server().Put("/w.txt", "version two, longer"));
    auto told = [&] {
        return world.notifications().Count([](const PObject& n) {
            return n["notify"].asString() == ustring("error") && n["session_id"].asUInt64() == 1 &&
                   n["error_type"].asInt32() == -3;
        });
    };
    ASSERT_TRUE(WaitUntil([&] { return told() == 1; }, 40));
    EXPECT_EQ(ReadFile(Local("/w.txt")), "version one");
    EXPECT_EQ(world.server().Payloads("/w.txt").size(), 4u);  // the first version and 3 tries
    EXPECT_NE(world.daemon().Log().find("patch error count has reached limit"), std::string::npos);
}

TEST_F(Download, BothSidesChangedWhilePausedKeepBothVersions) {
    ASSERT_TRUE(world.server().Put("/c.txt", "base"));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    ASSERT_EQ(world.Pause(1)["error"].asString(), ustring());
    ASSERT_TRUE(world.WriteLocal(1, "/c.txt", "local edit"));
    ASSERT_TRUE(world.server().Put("/c.txt", "server edit"));
    // A folder where the server now has a file.
    ASSERT_TRUE(world.MkdirLocal(1, "/x"));
    ASSERT_TRUE(world.WriteLocal(1, "/x/inside", "kept"));
    ASSERT_TRUE(world.server().Put("/x", "server file"));
    ASSERT_EQ(world.Resume(1)["error"].asString(), ustring());

    ASSERT_TRUE(WaitUntil([&] {
        return ReadFile(Local("/c.txt")) == "server edit" && fs::is_regular_file(Local("/x")) &&
               ReadFile(Local("/x")) == "server file" && ConflictNames().size() == 2;
    })) << world.daemon().Log();
    std::map<std::string, std::string> kept;
    for (const std::string& name : ConflictNames()) {
        const std::string path = Local("/" + name);
        kept[name.substr(0, 1)] =
            fs::is_directory(path) ? ReadFile(path + "/inside") : ReadFile(path);
    }
    EXPECT_EQ(kept["c"], "local edit");
    EXPECT_EQ(kept["x"], "kept");
    // The kept versions go up in turn, so both sides end alike.
    EXPECT_TRUE(Synced()) << world.CompareTrees(1);
}

TEST_F(Download, AFolderTreeComesDownAndItsEchoSendsNoRequest) {
    ASSERT_TRUE(world.server().Mkdir("/d"));
    ASSERT_TRUE(world.server().Mkdir("/d/e"));
    ASSERT_TRUE(world.server().Mkdir("/d/empty"));
    ASSERT_TRUE(world.server().Put("/d/e/f.txt", "deep"));
    ASSERT_TRUE(world.server().Put("/d/g.bin", RandomBytes(100000, 3)));
    ASSERT_TRUE(Synced()) << world.CompareTrees(1) << world.daemon().Log();
    const std::string log = world.daemon().Log();
    EXPECT_EQ(log.find("RunProtocol(upload)"), std::string::npos);
    EXPECT_EQ(log.find("RunProtocol(resume_upload)"), std::string::npos);
}

}  // namespace
