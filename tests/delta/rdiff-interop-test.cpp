// Interoperability with the published formats, checked against the rdiff tool: identical
// signatures, and deltas that each side can apply for the other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "delta-test-support.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

// Runs rdiff quietly; true when it exits with 0.
bool rdiff(const std::string& args) {
    return std::system(("rdiff " + args + " >/dev/null 2>&1").c_str()) == 0;
}

std::string signatureArgs(size_t block = 2048, size_t hash = 8) {
    return "-f signature -R rollsum -H md4 -b " + std::to_string(block) + " -S " +
           std::to_string(hash) + " ";
}

class RdiffInterop : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::system("command -v rdiff >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "rdiff is not installed (scripts/setup installs it)";
    }

    // Pairs of (old, new) contents covering the usual shapes of change.
    std::vector<std::pair<std::string, std::string>> cases() {
        std::string old = RandomBytes(2 * 1048576 + 999, 61);
        std::string edited = old;
        edited.insert(1000, "inserted text");
        edited.erase(1500000, 4000);
        edited.replace(1800000, 50, std::string(50, 'w'));
        std::string zeros(300000, '\0');
        return {{old, old},
                {old, edited},
                {old, "!" + old},
                {old, old.substr(0, 1048576 + 3)},
                {old, old + RandomBytes(3000, 62)},
                {old, ""},
                {"", old.substr(0, 5000)},
                {zeros, zeros + "tail" + zeros},
                {old.substr(0, 1), old.substr(0, 2)}};
    }

    TempDir dir;
};

}  // namespace

TEST_F(RdiffInterop, SignaturesAreByteIdentical) {
    std::string content = RandomBytes(3 * 1048576 + 777, 63);
    for (size_t len : {0, 1, 2047, 2048, 2049, 1048576, 1048577, 3 * 1048576 + 777}) {
        WriteFile(dir / "basis", content.substr(0, len));
        for (auto [block, hash] : {std::pair<size_t, size_t>{2048, 8}, {512, 16}, {700, 1}}) {
            ASSERT_EQ(makeSignature(dir / "basis", dir / "ours", block, hash), 0);
            ASSERT_TRUE(
                rdiff(signatureArgs(block, hash) + (dir / "basis") + " " + (dir / "theirs")));
            EXPECT_TRUE(ReadFile(dir / "ours") == ReadFile(dir / "theirs"))
                << "length " << len << " block " << block << " hash " << hash;
        }
    }
}

TEST_F(RdiffInterop, RdiffPatchAppliesOurDeltas) {
    for (const auto& [old, next] : cases()) {
        WriteFile(dir / "old", old);
        WriteFile(dir / "new", next);
        ASSERT_EQ(makeSignature(dir / "old", dir / "sig"), 0);
        ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
        ASSERT_TRUE(
            rdiff("-f patch " + (dir / "old") + " " + (dir / "delta") + " " + (dir / "rebuilt")));
        EXPECT_TRUE(ReadFile(dir / "rebuilt") == next)
            << "old " << old.size() << " new " << next.size();
    }
}

TEST_F(RdiffInterop, OurPatchAppliesRdiffDeltasAndReversesThem) {
    for (const auto& [old, next] : cases()) {
        WriteFile(dir / "old", old);
        WriteFile(dir / "new", next);
        ASSERT_TRUE(rdiff(signatureArgs() + (dir / "old") + " " + (dir / "sig")));
        ASSERT_TRUE(
            rdiff("-f delta " + (dir / "sig") + " " + (dir / "new") + " " + (dir / "delta")));
        PatchOutcome outcome =
            applyPatch(dir / "old", dir / "delta", dir / "rebuilt", dir / "reverse");
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, 0);
        EXPECT_TRUE(ReadFile(dir / "rebuilt") == next)
            << "old " << old.size() << " new " << next.size();
        // The reverse delta goes back, and rdiff reads it too.
        ASSERT_TRUE(rdiff("-f patch " + (dir / "rebuilt") + " " + (dir / "reverse") + " " +
                          (dir / "restored")));
        EXPECT_TRUE(ReadFile(dir / "restored") == old);
    }
}

// The realigned mode finds blocks again after inserts and deletes, as rdiff does: its deltas
// apply through either patcher and come out about the size of rdiff's own. Besides the usual
// shapes: a byte inserted at the front and one deleted inside each chunk, and a short old
// tail found again after new bytes.
TEST_F(RdiffInterop, RealignedDeltasApplyEverywhereAndStayAsSmallAsRdiffs) {
    std::string old = RandomBytes(3 * 1048576 + 1234, 64);
    std::string shifted = old;
    for (size_t k = 3; k-- > 0;) shifted.erase(k * 1048576 + 524288, 1);
    auto shapes = cases();
    shapes.push_back({old, "!" + shifted});
    shapes.push_back({old.substr(0, 5000), old.substr(0, 4096) + "new" + old.substr(4096, 904)});
    for (const auto& [before, after] : shapes) {
        SCOPED_TRACE("new file of " + std::to_string(after.size()) + " bytes");
        WriteFile(dir / "old", before);
        WriteFile(dir / "new", after);
        ASSERT_EQ(makeSignature(dir / "old", dir / "sig"), 0);
        ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta", DeltaMode::REALIGNED), 0);
        ASSERT_TRUE(
            rdiff("-f patch " + (dir / "old") + " " + (dir / "delta") + " " + (dir / "theirs")));
        EXPECT_TRUE(ReadFile(dir / "theirs") == after);
        EXPECT_EQ(applyPatch(dir / "old", dir / "delta", dir / "ours").patch_result, 0);
        EXPECT_TRUE(ReadFile(dir / "ours") == after);
        ASSERT_TRUE(
            rdiff("-f delta " + (dir / "sig") + " " + (dir / "new") + " " + (dir / "rdiff.delta")));
        size_t theirs = ReadFile(dir / "rdiff.delta").size();
        EXPECT_LE(ReadFile(dir / "delta").size(), theirs + theirs / 20 + 64);
    }
}
