// The log: per-component limits, the line format, rotation.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <regex>
#include <string>

#include "foundation/log.h"
#include "support/files.h"
#include "support/temp-dir.h"

namespace {

class LoggerFile : public ::testing::Test {
  protected:
    void TearDown() override { Logger::Destroy(); }
    std::string log() const { return dir.path() + "/daemon.log"; }
    TempDir dir;
};

TEST_F(LoggerFile, LevelFileLiftsOnlyItsComponent) {
    dir.write("levels", "client_debug=7\n");
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log(), dir.path() + "/levels", 50), 0);
    Logger::LogMsg(Logger::L_DEBUG, "client_debug", "[DEBUG] app(%d): visible %s\n", 10, "x");
    Logger::LogMsg(Logger::L_DEBUG, "worker_debug", "[DEBUG] worker(%d): hidden\n", 11);
    Logger::LogMsg(Logger::L_INFO, "default_component", "[INFO] x(%d): hidden too\n", 12);
    Logger::LogMsg(Logger::L_WARNING, "worker_debug", "[WARNING] worker(%d): shown\n", 13);
    std::string text = ReadFile(log());
    EXPECT_NE(text.find("[DEBUG] app(10): visible x\n"), std::string::npos);
    EXPECT_NE(text.find("[WARNING] worker(13): shown\n"), std::string::npos);
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    EXPECT_FALSE(Logger::Enabled(Logger::L_INFO, "worker_debug"));
    EXPECT_TRUE(Logger::Enabled(Logger::L_ERR, "worker_debug"));
    // Each line starts with a time stamp "Mon DD HH:MM:SS ".
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(^\w{3} [ \d]\d \d\d:\d\d:\d\d \[DEBUG\] )")))
        << text;
}

TEST_F(LoggerFile, RotatesAfterTheSizeLimitInCharacters) {
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log(), "", 3), 0);
    // Two-byte characters: the limit counts characters, so bytes pass it first.
    std::string chunk;
    for (int i = 0; i < 500; ++i) chunk += "\xC3\xA9";
    const long per_line = 16 + 14 + 500 + 1;  // stamp, prefix, text, newline
    for (long chars = per_line; chars <= 1048576; chars += per_line) {
        Logger::LogMsg(Logger::L_ERR, "c", "[ERROR] x(%d): %s\n", 1, chunk.c_str());
        ASSERT_FALSE(Exists(log() + "_0")) << "rotated early at " << chars << " characters";
    }
    Logger::LogMsg(Logger::L_ERR, "c", "[ERROR] x(%d): %s\n", 1, chunk.c_str());
    EXPECT_TRUE(Exists(log() + "_0")) << "the line that passed the limit rotated the log";
    EXPECT_EQ(ReadFile(log()), "");
    Logger::LogMsg(Logger::L_ERR, "c", "[ERROR] x(%d): after\n", 2);
    EXPECT_NE(ReadFile(log()).find("after"), std::string::npos);
}

// The last numbered name is freed after the shift, so N names hold N-1 old logs.
TEST_F(LoggerFile, RotationMovesTheChainAndDropsTheOldest) {
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log(), "", 3), 0);
    for (int round = 0; round < 4; ++round) {
        Logger::LogMsg(Logger::L_ERR, "c", "[ERROR] x(%d): round\n", round);
        ASSERT_EQ(Logger::Rotate(), 0);
    }
    EXPECT_NE(ReadFile(log() + "_0").find("x(3)"), std::string::npos);
    EXPECT_NE(ReadFile(log() + "_1").find("x(2)"), std::string::npos);
    EXPECT_FALSE(Exists(log() + "_2"));
}

TEST_F(LoggerFile, LogFileIsClosedToChildProcesses) {
    ASSERT_EQ(Logger::Initialize(Logger::FILE_LOGGER, log(), "", 50), 0);
    Logger::LogMsg(Logger::L_ERR, "c", "[ERROR] x(%d): opened\n", 1);
    int found = 0;
    int inherited = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        if (std::filesystem::read_symlink(entry.path(), ec) != log()) continue;
        ++found;
        if ((::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) == 0) ++inherited;
    }
    EXPECT_GT(found, 0) << "the log stays open";
    EXPECT_EQ(inherited, 0);
}

TEST(LoggerSetup, FileLoggerNeedsAPathThatOpens) {
    EXPECT_EQ(Logger::Initialize(Logger::FILE_LOGGER, "", "", 50), -1);
    EXPECT_EQ(Logger::Initialize(Logger::FILE_LOGGER, "/nonexistent-dir/x.log", "", 50), -1);
    EXPECT_EQ(Logger::Initialize(Logger::STDERR_LOGGER, "", "", 50), 0);
}

}  // namespace
