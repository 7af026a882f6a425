// Deltas: round trips through the patch reader, the exact commands for the shapes whose
// output is fixed, and malformed signatures.
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
    // Writes both versions, computes the delta of `next` against the signature of `old`,
    // checks that patching `old` rebuilds `next`, and returns the delta's bytes.
    std::string roundTrip(const std::string& old, const std::string& next) {
        writeFile(dir / "old", old);
        writeFile(dir / "new", next);
        EXPECT_EQ(makeSignature(dir / "old", dir / "sig"), 0);
        EXPECT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
        PatchOutcome outcome = applyPatch(dir / "old", dir / "delta", dir / "rebuilt");
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, 0);
        EXPECT_TRUE(readFile(dir / "rebuilt") == next) << "rebuilt file differs";
        return readFile(dir / "delta");
    }

    std::vector<Command> commandsOf(const std::string& delta) {
        auto parsed = parseDelta(delta);
        EXPECT_TRUE(parsed.has_value()) << "malformed delta";
        return parsed.value_or(std::vector<Command>{});
    }

    TempDir dir;
};

void expectCopy(const Command& c, uint64_t start, uint64_t length) {
    EXPECT_EQ(c.kind, Command::COPY);
    EXPECT_EQ(c.start, start);
    EXPECT_EQ(c.length, length);
}

void expectLiteral(const Command& c, uint64_t length) {
    EXPECT_EQ(c.kind, Command::LITERAL);
    EXPECT_EQ(c.length, length);
}

}  // namespace

TEST_F(DeltaFixture, RoundTripsOfCommonEdits) {
    std::string old = randomBytes(3 * kChunk + 777, 11);
    roundTrip(old, old);
    roundTrip(old, "x" + old);                       // shifted by one byte
    roundTrip(old, old.substr(0, 2 * kChunk + 5));   // truncated
    roundTrip(old, old + randomBytes(5000, 12));     // appended
    roundTrip(old, old.substr(4096, 100000) + old);  // a block-aligned piece repeated
    roundTrip(old, randomBytes(2 * kChunk, 13));     // unrelated
    roundTrip(old, "");
    roundTrip("", old.substr(0, 3000));
    std::string edited = old;
    edited.insert(500000, "inserted");
    edited.erase(2000000, 3333);
    edited.replace(2500000, 100, std::string(100, 'o'));
    roundTrip(old, edited);
}

TEST_F(DeltaFixture, RoundTripsOfRepetitiveContent) {
    std::string zeros(2 * kChunk + 100, '\0');
    roundTrip(zeros, zeros);
    roundTrip(zeros, zeros.substr(0, 5000) + "y" + zeros);
    std::string block = randomBytes(kBlock, 14);
    std::string repeated;
    for (int i = 0; i < 600; ++i) repeated += block;
    roundTrip(repeated, repeated);
    roundTrip(repeated, "z" + repeated.substr(0, 700000));
}

TEST_F(DeltaFixture, EmptyNewFileGivesMagicAndEnd) {
    EXPECT_EQ(roundTrip(randomBytes(10000, 15), ""), std::string("\x72\x73\x02\x36\x00", 5));
}

TEST_F(DeltaFixture, IdenticalFileIsOneCopy) {
    std::string old = randomBytes(300 * kBlock, 16);
    std::vector<Command> cmds = commandsOf(roundTrip(old, old));
    ASSERT_EQ(cmds.size(), 1u);
    expectCopy(cmds[0], 0, old.size());
    EXPECT_EQ(cmds[0].code, 0x47);  // 1-byte start, 4-byte length
}

TEST_F(DeltaFixture, ShortLastBlockNeverMatchesAndGoesAsLiteral) {
    std::string old = randomBytes(5 * kBlock + 100, 17);
    std::vector<Command> cmds = commandsOf(roundTrip(old, old));
    ASSERT_EQ(cmds.size(), 2u);
    expectCopy(cmds[0], 0, 5 * kBlock);
    expectLiteral(cmds[1], 100);
}

TEST_F(DeltaFixture, FileShorterThanABlockIsOneLiteral) {
    std::string old = randomBytes(kBlock, 18);
    std::string d64 = roundTrip(old, old.substr(0, 64));
    EXPECT_EQ(d64.size(), 4 + 1 + 64 + 1u);
    EXPECT_EQ(static_cast<uint8_t>(d64[4]), 0x40);
    std::vector<Command> cmds = commandsOf(roundTrip(old, old.substr(0, 65)));
    ASSERT_EQ(cmds.size(), 1u);
    EXPECT_EQ(cmds[0].code, 0x41);
    expectLiteral(cmds[0], 65);
}

TEST_F(DeltaFixture, RepeatedBlocksMatchTheLowestBlockAndRunFromIt) {
    std::string x = randomBytes(kBlock, 19);
    std::string y = randomBytes(kBlock, 20);
    std::vector<Command> cmds = commandsOf(roundTrip(x + x + x + y, x + x + y));
    // The run starts at block 0 and can only go on to block 1 (x), then y breaks it.
    ASSERT_EQ(cmds.size(), 2u);
    expectCopy(cmds[0], 0, 2 * kBlock);
    expectCopy(cmds[1], 3 * kBlock, kBlock);
}

TEST_F(DeltaFixture, RunThatReachesTheLastBlockStartsAgain) {
    std::string a = randomBytes(kBlock, 21);
    std::string b = randomBytes(kBlock, 22);
    std::vector<Command> cmds = commandsOf(roundTrip(a + b, a + b + a + b));
    ASSERT_EQ(cmds.size(), 2u);
    expectCopy(cmds[0], 0, 2 * kBlock);
    expectCopy(cmds[1], 0, 2 * kBlock);
}

TEST_F(DeltaFixture, LiteralBeforeACopyAndBetweenRuns) {
    std::string old = randomBytes(20 * kBlock, 23);
    std::string next = "abc" + old.substr(0, 8 * kBlock) + "defg" + old.substr(10 * kBlock);
    std::vector<Command> cmds = commandsOf(roundTrip(old, next));
    ASSERT_EQ(cmds.size(), 4u);
    expectLiteral(cmds[0], 3);
    expectCopy(cmds[1], 0, 8 * kBlock);
    expectLiteral(cmds[2], 4);
    expectCopy(cmds[3], 10 * kBlock, 10 * kBlock);
}

TEST_F(DeltaFixture, AlignedOverwriteAfterAChunkBoundaryStillMatchesAround) {
    std::string old = randomBytes(2 * kChunk, 24);
    std::string next = old;
    next.replace(768 * kBlock, kBlock, randomBytes(kBlock, 25));
    std::vector<Command> cmds = commandsOf(roundTrip(old, next));
    ASSERT_EQ(cmds.size(), 3u);
    expectCopy(cmds[0], 0, 768 * kBlock);
    expectLiteral(cmds[1], kBlock);
    expectCopy(cmds[2], 769 * kBlock, old.size() - 769 * kBlock);
}

TEST_F(DeltaFixture, ShiftedDataStopsMatchingOnceTheWindowCrossesAChunkBoundary) {
    // One byte in front moves every block off the 1 MiB chunk grid: blocks match inside the
    // first chunk, and the window carried over the boundary then never matches again.
    std::string old = randomBytes(3 * kChunk, 26);
    std::vector<Command> cmds = commandsOf(roundTrip(old, "s" + old));
    ASSERT_GE(cmds.size(), 3u);
    expectLiteral(cmds[0], 1);
    expectCopy(cmds[1], 0, (kChunk / kBlock - 1) * kBlock);
    for (size_t i = 2; i < cmds.size(); ++i) EXPECT_EQ(cmds[i].kind, Command::LITERAL);
}

TEST_F(DeltaFixture, LongUnmatchedStretchesFindTheSameMatchesAsAByteByByteScan) {
    // Long stretches without a match are scanned in two halves at once; the commands must be
    // those of a scan from the front: a match late in a stretch, then matches in both halves
    // of one stretch, where the earlier one counts.
    std::string old = randomBytes(2 * kChunk, 34);
    std::vector<Command> late = commandsOf(roundTrip(old, randomBytes(350 * kBlock, 35) + old));
    ASSERT_EQ(late.size(), 2u);
    expectLiteral(late[0], 350 * kBlock);
    expectCopy(late[1], 0, old.size());

    std::string next = randomBytes(150 * kBlock, 36) + old.substr(5 * kBlock, kBlock) +
                       randomBytes(249 * kBlock, 37) + old.substr(10 * kBlock, 100 * kBlock);
    std::vector<Command> both = commandsOf(roundTrip(old, next));
    ASSERT_EQ(both.size(), 4u);
    expectLiteral(both[0], 150 * kBlock);
    expectCopy(both[1], 5 * kBlock, kBlock);
    expectLiteral(both[2], 249 * kBlock);
    expectCopy(both[3], 10 * kBlock, 100 * kBlock);
}

TEST_F(DeltaFixture, EmptySignatureGivesOneLiteralPerChunkAndTheTail) {
    writeFile(dir / "empty", "");
    std::string next = randomBytes(2 * kChunk + 10000, 27);
    std::vector<Command> cmds = commandsOf(roundTrip("", next));
    ASSERT_EQ(cmds.size(), 4u);
    expectLiteral(cmds[0], kChunk - (kBlock - 1));
    expectLiteral(cmds[1], kChunk);
    expectLiteral(cmds[2], 10000);
    expectLiteral(cmds[3], kBlock - 1);
}

TEST_F(DeltaFixture, SignatureWithOtherBlockAndHashSizes) {
    std::string old = randomBytes(100000, 28);
    std::string next = old.substr(0, 30000) + "changed" + old.substr(30000);
    writeFile(dir / "old", old);
    writeFile(dir / "new", next);
    ASSERT_EQ(makeSignature(dir / "old", dir / "sig", 512, 16), 0);
    ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
    EXPECT_EQ(applyPatch(dir / "old", dir / "delta", dir / "rebuilt").result, 0);
    EXPECT_TRUE(readFile(dir / "rebuilt") == next);
    EXPECT_LT(readFile(dir / "delta").size(), 2000u);
}

TEST_F(DeltaFixture, MalformedSignaturesFailTheRead) {
    writeFile(dir / "new", randomBytes(10000, 29));
    writeFile(dir / "old", randomBytes(10000, 30));
    ASSERT_EQ(makeSignature(dir / "old", dir / "good"), 0);
    std::string good = readFile(dir / "good");
    auto withHeaderWord = [&](size_t offset, uint32_t value) {
        std::string s = good;
        for (int i = 0; i < 4; ++i) s[offset + i] = static_cast<char>(value >> (24 - 8 * i));
        return s;
    };
    for (const std::string& bad :
         {std::string(), good.substr(0, 5), good.substr(0, 11), withHeaderWord(0, 0x72730137),
          withHeaderWord(0, 0x72730236), withHeaderWord(4, 0), withHeaderWord(8, 0),
          withHeaderWord(8, 17)}) {
        writeFile(dir / "sig", bad);
        EXPECT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"),
                  FileReader::ERROR_HANDLER_CALL)
            << "signature of " << bad.size() << " bytes";
    }
    EXPECT_EQ(makeDelta(dir / "missing", dir / "new", dir / "delta"),
              FileReader::ERROR_HANDLER_CALL);
}

TEST_F(DeltaFixture, TrailingBytesOfASignatureAreIgnored) {
    std::string old = randomBytes(10 * kBlock, 31);
    writeFile(dir / "old", old);
    writeFile(dir / "new", old);
    ASSERT_EQ(makeSignature(dir / "old", dir / "sig"), 0);
    writeFile(dir / "sig", readFile(dir / "sig") + "12345");
    ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
    std::vector<Command> cmds = commandsOf(readFile(dir / "delta"));
    ASSERT_EQ(cmds.size(), 1u);
    expectCopy(cmds[0], 0, old.size());
}

TEST_F(DeltaFixture, HugeBlockSizeInASignatureOnlyGivesLiterals) {
    std::string header("\x72\x73\x01\x36\xFF\xFF\xFF\xFF\x00\x00\x00\x08", 12);
    writeFile(dir / "sig", header + randomBytes(24, 32));
    std::string next = randomBytes(3 * kChunk, 33);
    writeFile(dir / "new", next);
    ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
    std::vector<Command> cmds = commandsOf(readFile(dir / "delta"));
    ASSERT_EQ(cmds.size(), 1u);
    expectLiteral(cmds[0], next.size());
}
