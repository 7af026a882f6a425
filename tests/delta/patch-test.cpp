// Patches: rebuilding the new file, the reverse delta and its choice among overlapping
// copies, one pass with several outputs, and malformed deltas.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

class PatchFixture : public ::testing::Test {
  protected:
    PatchOutcome patch(const std::string& basis, const std::string& delta,
                       bool with_reverse = false) {
        writeFile(dir / "basis", basis);
        writeFile(dir / "delta", delta);
        return applyPatch(dir / "basis", dir / "delta", dir / "new",
                          with_reverse ? dir / "reverse" : "");
    }

    // The reverse delta applied to the new file must give back the basis.
    void expectReverseRestores(const std::string& basis) {
        ASSERT_EQ(applyPatch(dir / "new", dir / "reverse", dir / "restored").result, 0);
        EXPECT_TRUE(readFile(dir / "restored") == basis) << "restored basis differs";
    }

    TempDir dir;
};

std::vector<Command> commandsOf(const std::string& delta) {
    auto parsed = parseDelta(delta);
    EXPECT_TRUE(parsed.has_value()) << "malformed reverse delta";
    return parsed.value_or(std::vector<Command>{});
}

}  // namespace

TEST_F(PatchFixture, ReverseDeltaRestoresTheBasisAfterRealEdits) {
    std::string old = randomBytes(2 * 1048576 + 3000, 41);
    std::string next = old;
    next.insert(100, "front");
    next.erase(700000, 5000);
    next += old.substr(2048 * 10, 2048 * 30);  // old bytes used twice
    writeFile(dir / "basis", old);
    writeFile(dir / "target", next);
    ASSERT_EQ(makeSignature(dir / "basis", dir / "sig"), 0);
    ASSERT_EQ(makeDelta(dir / "sig", dir / "target", dir / "delta"), 0);
    PatchOutcome outcome = applyPatch(dir / "basis", dir / "delta", dir / "new", dir / "reverse");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(readFile(dir / "new") == next);
    expectReverseRestores(old);
}

TEST_F(PatchFixture, EmptyDeltaGivesAnEmptyFileAndAReverseHoldingTheWholeBasis) {
    std::string basis = randomBytes(70000, 42);
    PatchOutcome outcome = patch(basis, DeltaWriter().end().bytes(), true);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.patch_result, 0);
    EXPECT_TRUE(exists(dir / "new"));
    EXPECT_EQ(readFile(dir / "new"), "");
    std::vector<Command> reverse = commandsOf(readFile(dir / "reverse"));
    ASSERT_EQ(reverse.size(), 1u);
    EXPECT_EQ(reverse[0].kind, Command::LITERAL);
    EXPECT_EQ(reverse[0].length, basis.size());
    expectReverseRestores(basis);
}

TEST_F(PatchFixture, BasisBytesUsedTwiceGoOnceIntoTheReverseFromTheLongerCopy) {
    std::string basis = randomBytes(5000, 43);
    // New file: basis[0, 1000) then basis[500, 2500): the second copy is longer, so the
    // shared bytes [500, 1000) are taken from it and the first copy is cut short.
    PatchOutcome outcome =
        patch(basis, DeltaWriter().copy(0, 1000).copy(500, 2000).end().bytes(), true);
    ASSERT_EQ(outcome.result, 0);
    EXPECT_TRUE(readFile(dir / "new") == basis.substr(0, 1000) + basis.substr(500, 2000));
    std::vector<Command> reverse = commandsOf(readFile(dir / "reverse"));
    ASSERT_EQ(reverse.size(), 3u);
    EXPECT_EQ(reverse[0].kind, Command::COPY);
    EXPECT_EQ(reverse[0].start, 0u);
    EXPECT_EQ(reverse[0].length, 500u);
    EXPECT_EQ(reverse[1].kind, Command::COPY);
    EXPECT_EQ(reverse[1].start, 1000u);
    EXPECT_EQ(reverse[1].length, 2000u);
    EXPECT_EQ(reverse[2].kind, Command::LITERAL);
    EXPECT_EQ(reverse[2].length, 2500u);
    expectReverseRestores(basis);
}

TEST(PatchBlocks, OverlapsKeepTheLongerBlock) {
    BlockList blocks;
    DeltaFileReader::insertSameBlock(blocks, {100, 50, 0});
    DeltaFileReader::insertSameBlock(blocks, {100, 80, 50});  // same start, longer: it wins
    // Same start and length: the newer block sits first in the list and stays.
    DeltaFileReader::insertSameBlock(blocks, {100, 80, 130});
    DeltaFileReader::insertSameBlock(blocks, {120, 10, 210});   // inside: dropped
    DeltaFileReader::insertSameBlock(blocks, {150, 100, 220});  // longer, overlaps the tail
    DeltaFileReader::insertSameBlock(blocks, {0, 20, 320});     // apart
    ASSERT_EQ(blocks.size(), 3u);
    auto it = blocks.begin();
    EXPECT_EQ(it->second.start, 0u);
    EXPECT_EQ(it->second.length, 20u);
    ++it;
    EXPECT_EQ(it->second.start, 100u);
    EXPECT_EQ(it->second.length, 50u);  // cut where the longer block begins
    EXPECT_EQ(it->second.new_start, 130u);
    ++it;
    EXPECT_EQ(it->second.start, 150u);
    EXPECT_EQ(it->second.length, 100u);
    EXPECT_EQ(it->second.new_start, 220u);
    for (const auto& [key, block] : blocks) EXPECT_EQ(key, block.start);
}

TEST(PatchBlocks, ALongerBlockBeforeTrimsTheFrontOfTheNextOne) {
    BlockList blocks;
    DeltaFileReader::insertSameBlock(blocks, {300, 100, 0});
    DeltaFileReader::insertSameBlock(blocks, {0, 350, 100});
    ASSERT_EQ(blocks.size(), 2u);
    auto second = std::next(blocks.begin());
    EXPECT_EQ(second->first, 350u);
    EXPECT_EQ(second->second.start, 350u);
    EXPECT_EQ(second->second.length, 50u);
    EXPECT_EQ(second->second.new_start, 50u);
}

TEST_F(PatchFixture, OnePassGivesTheNewFileItsHashAndItsSignature) {
    std::string basis = randomBytes(1500000, 44);
    std::string delta = DeltaWriter()
                            .literal("hello")
                            .copy(1000, 1200000)
                            .literal(randomBytes(70000, 45))
                            .end()
                            .bytes();
    writeFile(dir / "basis", basis);
    writeFile(dir / "delta", delta);
    DeltaFileReader reader;
    reader.setFile((dir / "delta").c_str(), (dir / "basis").c_str());
    reader.setNewFile((dir / "new").c_str());
    ustring hash;
    reader.setHashString(hash);
    reader.setSignature((dir / "new.sig").c_str(), 2048, 8);
    ASSERT_EQ(reader.readFile(), 0);
    std::string expected = "hello" + basis.substr(1000, 1200000) + randomBytes(70000, 45);
    EXPECT_TRUE(readFile(dir / "new") == expected);
    EXPECT_EQ(hash.str(), md4Hex(expected));
    ASSERT_EQ(makeSignature(dir / "new", dir / "expected.sig"), 0);
    EXPECT_TRUE(readFile(dir / "new.sig") == readFile(dir / "expected.sig"));
}

TEST_F(PatchFixture, WrongMagicIsAFormatError) {
    PatchOutcome outcome = patch("basis", std::string("\x72\x73\x01\x36\x00", 5));
    EXPECT_EQ(outcome.result, FileReader::ERROR_FILE_FORMAT);
    EXPECT_EQ(outcome.patch_result, FileReader::ERROR_FILE_FORMAT);
    EXPECT_EQ(patch("basis", "").result, FileReader::ERROR_SYSTEM_CALL);
}

TEST_F(PatchFixture, TruncatedDeltaEndsThePassEarlyWithoutFailingIt) {
    std::string basis = randomBytes(20000, 46);
    std::string full = DeltaWriter()
                           .literal("0123456789")
                           .copy(2, 15000)
                           .literal(randomBytes(100, 47))
                           .copy(0, 3)
                           .end()
                           .bytes();
    ASSERT_EQ(patch(basis, full).patch_result, 0);
    std::string complete = readFile(dir / "new");
    for (size_t cut = 4; cut < full.size(); ++cut) {
        PatchOutcome outcome = patch(basis, full.substr(0, cut));
        EXPECT_EQ(outcome.result, 0) << "cut at " << cut;
        EXPECT_EQ(outcome.patch_result, FileReader::ERROR_SYSTEM_CALL) << "cut at " << cut;
        std::string partial = readFile(dir / "new");
        EXPECT_EQ(complete.compare(0, partial.size(), partial), 0) << "cut at " << cut;
        // Only the end byte missing: every byte arrived, the pass still counts as cut short.
        if (cut + 1 < full.size()) {
            EXPECT_LT(partial.size(), complete.size());
        }
    }
}

TEST_F(PatchFixture, ReservedCodeStopsThePass) {
    for (char code : {'\x55', '\x80', '\xFF'}) {
        PatchOutcome outcome = patch(
            "basis",
            DeltaWriter().literal("ab").raw(std::string(1, code)).literal("cd").end().bytes());
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, FileReader::ERROR_FILE_FORMAT);
        EXPECT_EQ(readFile(dir / "new"), "ab");
    }
}

TEST_F(PatchFixture, CopiesOutsideTheBasisStopThePass) {
    std::string basis = randomBytes(1000, 48);
    struct Case {
        uint64_t start, length;
        size_t rebuilt;
    };
    for (Case c : {Case{990, 20, 2}, Case{5000, 1, 2}, Case{~uint64_t{0}, 10, 2},
                   Case{1ull << 62, 5, 2}, Case{0, ~uint64_t{0}, 2}}) {
        PatchOutcome outcome = patch(
            basis,
            DeltaWriter().literal("ok").copy(c.start, c.length).literal("never").end().bytes());
        EXPECT_EQ(outcome.result, 0) << c.start << "+" << c.length;
        EXPECT_EQ(outcome.patch_result, FileReader::ERROR_SYSTEM_CALL);
        EXPECT_EQ(readFile(dir / "new").substr(0, 2), "ok");
        EXPECT_LT(readFile(dir / "new").size(), 2 + 20u);
    }
}

TEST_F(PatchFixture, OverlongLiteralLengthStopsThePass) {
    for (const std::string& command : {std::string("\x44\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 9),
                                       std::string("\x43\x7F\xFF\xFF\xFF", 5)}) {
        PatchOutcome outcome = patch("basis", DeltaWriter().raw(command + "short").bytes(), true);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, FileReader::ERROR_SYSTEM_CALL);
        EXPECT_EQ(readFile(dir / "new"), "");
    }
}

TEST_F(PatchFixture, MissingInputsAndArguments) {
    writeFile(dir / "delta", DeltaWriter().end().bytes());
    EXPECT_EQ(applyPatch(dir / "missing", dir / "delta", dir / "new").result,
              FileReader::ERROR_SYSTEM_CALL);
    EXPECT_EQ(applyPatch(dir / "delta", dir / "missing", dir / "new").result,
              FileReader::ERROR_SYSTEM_CALL);
    DeltaFileReader reader;
    reader.setNewFile((dir / "never").c_str());
    EXPECT_EQ(reader.readFile(), FileReader::ERROR_ARGUMENT);
    EXPECT_FALSE(exists(dir / "never"));
    EXPECT_EQ(patch("basis", DeltaWriter().end().bytes()).result, 0);
    EXPECT_EQ(applyPatch(dir / "basis", dir / "delta", dir / "no-dir/new").result,
              FileReader::ERROR_HANDLER_CALL);
}

TEST_F(PatchFixture, AbortFlagSetBeforehandStopsBeforeTheFirstCommand) {
    writeFile(dir / "basis", "basis");
    writeFile(dir / "delta", DeltaWriter().literal("abc").end().bytes());
    DeltaFileReader reader;
    int flag = 1;
    reader.setAbortFlag(&flag);
    reader.setFile((dir / "delta").c_str(), (dir / "basis").c_str());
    reader.setNewFile((dir / "new").c_str());
    reader.setReverseDeltaFile((dir / "reverse").c_str());
    EXPECT_EQ(reader.readFile(), FileReader::ERROR_ABORT);
    EXPECT_EQ(readFile(dir / "new"), "");
    EXPECT_FALSE(exists(dir / "reverse"));
}
