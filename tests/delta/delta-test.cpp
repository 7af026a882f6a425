// Deltas: round trips through the patch reader, the exact commands for the shapes whose
// output is fixed, and malformed or unusual signatures.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "delta/delta-handler.h"
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
        EXPECT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta", mode), 0);
        PatchOutcome outcome = applyPatch(dir / "old", dir / "delta", dir / "rebuilt");
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, 0);
        EXPECT_TRUE(ReadFile(dir / "rebuilt") == next) << "rebuilt file differs";
        return ReadFile(dir / "delta");
    }

    TempDir dir;
    DeltaMode mode = DeltaMode::CHUNKED;
};

// The copies of a delta, which stay the same when the input is cut into other pieces (the
// literals are cut with it).
std::vector<std::pair<uint64_t, uint64_t>> copiesOf(const std::string& delta) {
    std::vector<std::pair<uint64_t, uint64_t>> out;
    for (const Command& c : parseDelta(delta).value_or(std::vector<Command>{}))
        if (c.kind == Command::COPY) out.emplace_back(c.start, c.length);
    return out;
}

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

TEST_F(DeltaFixture, ShiftBeforeAChunkBoundaryKeepsTheChunkedBytesAndIsRealignedOnRequest) {
    std::string old = RandomBytes(3 * kChunk, 26);
    std::string next = old;
    next.insert(kChunk - 1000, 1, 'x');
    EXPECT_EQ(md4Hex(roundTrip(old, next)), "960cd8bed4a7e4da05280a5d278a5ac0");

    mode = DeltaMode::REALIGNED;
    // The old block around the insert goes out as a literal, cut where the chunk ends.
    expectCommands(roundTrip(old, next), {copyOf(0, 511 * kBlock), literalOf(1), literalOf(kBlock),
                                          copyOf(512 * kBlock, old.size() - 512 * kBlock)});
}

// Fed straight to the handler in odd pieces (single bytes included, so the window fills over
// several calls), the realigned mode makes the same copies as from the reader's 1 MiB chunks.
TEST_F(DeltaFixture, RealignedCopiesDoNotDependOnHowTheInputIsCut) {
    std::string old = RandomBytes(3 * kChunk + 5000, 41);
    std::string next = old;
    for (size_t k = 3; k-- > 0;) next.erase(k * kChunk + kChunk / 2, 1);
    next = "!" + next.substr(0, 2 * kChunk) + RandomBytes(3000, 42) + next.substr(2 * kChunk);
    mode = DeltaMode::REALIGNED;
    auto whole = copiesOf(roundTrip(old, next));
    EXPECT_GT(whole.size(), 3u);

    DeltaHandler handler((dir / "pieces").c_str(), (dir / "sig").c_str(), DeltaMode::REALIGNED);
    ASSERT_EQ(handler.begin(), 0);
    const size_t pieces[] = {1, 1, 2047, 2049, 4099, 300001, 1};
    for (size_t pos = 0, i = 0, n; pos < next.size(); pos += n, ++i) {
        n = std::min(pieces[i % std::size(pieces)], next.size() - pos);
        ASSERT_EQ(handler.update(next.data() + pos, n), 0);
        ASSERT_EQ(handler.wait(), 0);
    }
    ASSERT_EQ(handler.end(), 0);
    EXPECT_EQ(copiesOf(ReadFile(dir / "pieces")), whole);
    EXPECT_EQ(applyPatch(dir / "old", dir / "pieces", dir / "rebuilt").patch_result, 0);
    EXPECT_TRUE(ReadFile(dir / "rebuilt") == next);
}

// A block 4 GiB into the old file: the realigned mode writes its true offset, the chunked
// mode the offset wrapped to 32 bits.
TEST_F(DeltaFixture, CopyOffsetsPast4GiB) {
    WriteFile(dir / "new", RandomBytes(kBlock, 43));
    ASSERT_EQ(makeSignature(dir / "new", dir / "sig"), 0);
    std::string sig = ReadFile(dir / "sig");
    WriteFile(dir / "sig", sig.insert(12, (size_t{1} << 32) / kBlock * 12, '\0'));
    for (auto [m, start] : {std::pair{DeltaMode::REALIGNED, uint64_t{1} << 32},
                            std::pair{DeltaMode::CHUNKED, uint64_t{0}}}) {
        ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta", m), 0);
        expectCommands(ReadFile(dir / "delta"), {copyOf(start, kBlock)});
    }
}
