// Deltas: round trips through the patch reader, the exact commands for the shapes whose
// output is fixed, and malformed or unusual signatures.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

constexpr size_t kBlock = 2048;
constexpr size_t kChunk = 1048576;

class DeltaFixture : public ::testing::Test {
  protected:
    // Computes the delta of `next` against the signature of `old`, checks that patching
    // `old` rebuilds `next`, and returns the delta's bytes.
    std::string roundTrip(const std::string& old, const std::string& next, size_t block = kBlock,
                          size_t hash = 8) {
        WriteFile(dir / "old", old);
        WriteFile(dir / "new", next);
        EXPECT_EQ(makeSignature(dir / "old", dir / "sig", block, hash), 0);
        EXPECT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
        PatchOutcome outcome = applyPatch(dir / "old", dir / "delta", dir / "rebuilt");
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, 0);
        EXPECT_TRUE(ReadFile(dir / "rebuilt") == next) << "rebuilt file differs";
        return ReadFile(dir / "delta");
    }

    TempDir dir;
};

}  // namespace

// The usual shapes of change are checked against rdiff in rdiff-interop-test.cpp; these are
// the ones that stress the matcher: repetitive content and other block and hash sizes.
TEST_F(DeltaFixture, RoundTripsOfRepetitiveContentAndOtherSizes) {
    std::string old = RandomBytes(3 * kChunk + 777, 11);
    std::string zeros(2 * kChunk + 100, '\0');
    std::string repeated;
    for (int i = 0; i < 600; ++i) repeated += old.substr(0, kBlock);
    roundTrip(old, old.substr(4096, 100000) + old);
    roundTrip(zeros, zeros.substr(0, 5000) + "y" + zeros);
    roundTrip(repeated, "z" + repeated.substr(0, 700000));
    std::string edited = old.substr(0, 30000) + "changed" + old.substr(30000, 70000);
    EXPECT_LT(roundTrip(old.substr(0, 100000), edited, 512, 16).size(), 2000u);
}

TEST_F(DeltaFixture, ShapesWithFixedCommands) {
    const std::string a = RandomBytes(kBlock, 19);
    const std::string b = RandomBytes(kBlock, 20);
    const std::string blocks = RandomBytes(20 * kBlock, 23);
    const std::string chunks = RandomBytes(2 * kChunk, 24);
    const std::string head = chunks.substr(0, 300 * kBlock);
    const std::string ragged = blocks + a.substr(0, 100);
    std::string overwritten = chunks;
    overwritten.replace(768 * kBlock, kBlock, RandomBytes(kBlock, 25));
    // Long stretches without a match are scanned in two halves at once; the commands must
    // be those of a scan from the front.
    const std::string both_halves =
        RandomBytes(150 * kBlock, 36) + chunks.substr(5 * kBlock, kBlock) +
        RandomBytes(249 * kBlock, 37) + chunks.substr(10 * kBlock, 100 * kBlock);
    struct Case {
        const char* name;
        std::string old, next;
        std::vector<Command> want;
    };
    const Case cases[] = {
        {"empty new file", blocks, "", {}},
        {"identical", head, head, {copyOf(0, head.size(), 0x47)}},
        {"short tail never matches", ragged, ragged, {copyOf(0, 20 * kBlock), literalOf(100)}},
        {"64 bytes", a, a.substr(0, 64), {literalOf(64, 0x40)}},
        {"65 bytes", a, a.substr(0, 65), {literalOf(65, 0x41)}},
        {"repeats match the lowest block",
         a + a + a + b,
         a + a + b,
         {copyOf(0, 2 * kBlock), copyOf(3 * kBlock, kBlock)}},
        {"a run reaching the last block starts again",
         a + b,
         a + b + a + b,
         {copyOf(0, 2 * kBlock), copyOf(0, 2 * kBlock)}},
        {"literals before and between runs",
         blocks,
         "abc" + blocks.substr(0, 8 * kBlock) + "defg" + blocks.substr(10 * kBlock),
         {literalOf(3), copyOf(0, 8 * kBlock), literalOf(4), copyOf(10 * kBlock, 10 * kBlock)}},
        {"aligned overwrite after a chunk boundary",
         chunks,
         overwritten,
         {copyOf(0, 768 * kBlock), literalOf(kBlock),
          copyOf(769 * kBlock, chunks.size() - 769 * kBlock)}},
        {"match late in a long stretch",
         chunks,
         RandomBytes(350 * kBlock, 35) + chunks,
         {literalOf(350 * kBlock), copyOf(0, chunks.size())}},
        {"matches in both halves of a stretch",
         chunks,
         both_halves,
         {literalOf(150 * kBlock), copyOf(5 * kBlock, kBlock), literalOf(249 * kBlock),
          copyOf(10 * kBlock, 100 * kBlock)}},
        {"empty signature: a literal per chunk",
         "",
         chunks + RandomBytes(10000, 27),
         {literalOf(kChunk - (kBlock - 1)), literalOf(kChunk), literalOf(10000),
          literalOf(kBlock - 1)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        expectCommands(roundTrip(c.old, c.next), c.want);
    }
}

TEST_F(DeltaFixture, ShiftedDataStopsMatchingOnceTheWindowCrossesAChunkBoundary) {
    // One byte in front moves every block off the 1 MiB chunk grid: blocks match inside the
    // first chunk, and the window carried over the boundary then never matches again.
    std::string old = RandomBytes(3 * kChunk, 26);
    auto cmds = parseDelta(roundTrip(old, "s" + old));
    ASSERT_TRUE(cmds.has_value());
    ASSERT_GE(cmds->size(), 3u);
    EXPECT_EQ((*cmds)[0].length, 1u);
    EXPECT_EQ((*cmds)[1].kind, Command::COPY);
    EXPECT_EQ((*cmds)[1].start, 0u);
    EXPECT_EQ((*cmds)[1].length, (kChunk / kBlock - 1) * kBlock);
    for (size_t i = 0; i < cmds->size(); ++i)
        EXPECT_TRUE(i == 1 || (*cmds)[i].kind == Command::LITERAL) << "command " << i;
}

TEST_F(DeltaFixture, MalformedSignaturesFailTheRead) {
    WriteFile(dir / "new", RandomBytes(10000, 29));
    WriteFile(dir / "old", RandomBytes(10000, 30));
    ASSERT_EQ(makeSignature(dir / "old", dir / "good"), 0);
    std::string good = ReadFile(dir / "good");
    auto withHeaderWord = [&](size_t offset, uint32_t value) {
        std::string s = good;
        for (int i = 0; i < 4; ++i) s[offset + i] = static_cast<char>(value >> (24 - 8 * i));
        return s;
    };
    for (const std::string& bad :
         {std::string(), good.substr(0, 5), good.substr(0, 11), withHeaderWord(0, 0x72730137),
          withHeaderWord(0, 0x72730236), withHeaderWord(4, 0), withHeaderWord(8, 0),
          withHeaderWord(8, 17)}) {
        WriteFile(dir / "sig", bad);
        EXPECT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"),
                  FileReader::ERROR_HANDLER_CALL)
            << "signature of " << bad.size() << " bytes";
    }
    EXPECT_EQ(makeDelta(dir / "missing", dir / "new", dir / "delta"),
              FileReader::ERROR_HANDLER_CALL);
}

TEST_F(DeltaFixture, SignatureWithTrailingBytesOrAHugeBlockSizeIsStillUsed) {
    std::string old = RandomBytes(10 * kBlock, 31);
    WriteFile(dir / "old", old);
    ASSERT_EQ(makeSignature(dir / "old", dir / "sig"), 0);
    WriteFile(dir / "sig", ReadFile(dir / "sig") + "12345");
    ASSERT_EQ(makeDelta(dir / "sig", dir / "old", dir / "delta"), 0);
    expectCommands(ReadFile(dir / "delta"), {copyOf(0, old.size())});

    std::string header("\x72\x73\x01\x36\xFF\xFF\xFF\xFF\x00\x00\x00\x08", 12);
    WriteFile(dir / "sig", header + RandomBytes(24, 32));
    WriteFile(dir / "new", RandomBytes(3 * kChunk, 33));
    ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
    expectCommands(ReadFile(dir / "delta"), {literalOf(3 * kChunk)});
}
