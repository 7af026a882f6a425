// Patches: the reverse delta's choice among overlapping copies (written out and applied, for
// the usual shapes, repeated blocks and an empty new file, against rdiff in
// rdiff-interop-test.cpp), one pass with several outputs, and malformed deltas.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "delta-test-support.h"
#include "support/fail-each-op.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

class PatchFixture : public ::testing::Test {
  protected:
    PatchOutcome patch(const std::string& basis, const std::string& delta,
                       bool with_reverse = false) {
        WriteFile(dir / "basis", basis);
        WriteFile(dir / "delta", delta);
        return applyPatch(dir / "basis", dir / "delta", dir / "new",
                          with_reverse ? dir / "reverse" : "");
    }

    TempDir dir;
};

using Blocks = std::vector<std::tuple<uint64_t, uint64_t, uint64_t, uint64_t>>;

Blocks blocksAfterInserting(const std::vector<Block>& inserts) {
    BlockList list;
    for (const Block& b : inserts) DeltaFileReader::insertSameBlock(list, b);
    Blocks out;
    for (const auto& [key, b] : list) out.emplace_back(key, b.start, b.length, b.new_start);
    return out;
}

}  // namespace

TEST(PatchBlocks, OverlapsKeepTheLongerBlock) {
    // Same start, longer: it wins; same start and length: the newer sits first and stays;
    // inside: dropped; longer and overlapping the tail: the earlier one is cut where it
    // begins; apart: kept.
    EXPECT_EQ(blocksAfterInserting({{100, 50, 0},
                                    {100, 80, 50},
                                    {100, 80, 130},
                                    {120, 10, 210},
                                    {150, 100, 220},
                                    {0, 20, 320}}),
              (Blocks{{0, 0, 20, 320}, {100, 100, 50, 130}, {150, 150, 100, 220}}));
    // A longer block before trims the front of the next one.
    EXPECT_EQ(blocksAfterInserting({{300, 100, 0}, {0, 350, 100}}),
              (Blocks{{0, 0, 350, 100}, {350, 350, 50, 50}}));
}

TEST_F(PatchFixture, OnePassGivesTheNewFileItsHashAndItsSignature) {
    std::string basis = RandomBytes(1500000, 44);
    std::string tail = RandomBytes(70000, 45);
    WriteFile(dir / "basis", basis);
    WriteFile(dir / "delta",
              DeltaWriter().literal("hello").copy(1000, 1200000).literal(tail).end());
    DeltaFileReader reader;
    reader.setFile((dir / "delta").c_str(), (dir / "basis").c_str());
    reader.setNewFile((dir / "new").c_str());
    ustring hash;
    reader.setHashString(hash);
    reader.setSignature((dir / "new.sig").c_str(), 2048, 8);
    ASSERT_EQ(reader.readFile(), 0);
    std::string expected = "hello" + basis.substr(1000, 1200000) + tail;
    EXPECT_TRUE(ReadFile(dir / "new") == expected);
    EXPECT_EQ(hash.str(), md4Hex(expected));
    ASSERT_EQ(makeSignature(dir / "new", dir / "expected.sig"), 0);
    EXPECT_TRUE(ReadFile(dir / "new.sig") == ReadFile(dir / "expected.sig"));
}

TEST_F(PatchFixture, MalformedDeltasStopThePass) {
    const std::string basis = RandomBytes(1000, 48);
    const int kFormat = FileReader::ERROR_FILE_FORMAT;
    const int kSystem = FileReader::ERROR_SYSTEM_CALL;
    auto reserved = [](char code) {
        return DeltaWriter().literal("ab").raw(std::string(1, code)).literal("cd").end();
    };
    auto outside = [](uint64_t start, uint64_t length) {
        return DeltaWriter().literal("ab").copy(start, length).literal("never").end();
    };
    struct Case {
        const char* name;
        std::string delta;
        int result, patch_result;
        std::string rebuilt;
    };
    const Case cases[] = {
        {"no delta at all", "", kSystem, kSystem, ""},
        {"wrong magic", std::string("\x72\x73\x01\x36\x00", 5), kFormat, kFormat, ""},
        {"reserved 0x55", reserved('\x55'), 0, kFormat, "ab"},
        {"reserved 0xFF", reserved('\xFF'), 0, kFormat, "ab"},
        {"copy over the end", outside(990, 20), 0, kSystem, "ab"},
        {"copy beyond the end", outside(5000, 1), 0, kSystem, "ab"},
        {"copy from 2^64-1", outside(~uint64_t{0}, 10), 0, kSystem, "ab"},
        {"copy from 2^62", outside(1ull << 62, 5), 0, kSystem, "ab"},
        {"copy of 2^64-1 bytes", outside(0, ~uint64_t{0}), 0, kSystem, "ab"},
        {"overlong 8-byte literal",
         DeltaWriter().raw(std::string("\x44\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFFshort", 14)).end(), 0,
         kSystem, ""},
        {"overlong 4-byte literal", DeltaWriter().raw("\x43\x7F\xFF\xFF\xFFshort").end(), 0,
         kSystem, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PatchOutcome outcome = patch(basis, c.delta, true);
        EXPECT_EQ(outcome.result, c.result);
        EXPECT_EQ(outcome.patch_result, c.patch_result);
        EXPECT_EQ(ReadFile(dir / "new"), c.rebuilt);
    }
}

TEST_F(PatchFixture, TruncatedDeltaEndsThePassEarlyWithoutFailingIt) {
    std::string basis = RandomBytes(20000, 46);
    std::string full = DeltaWriter()
                           .literal("0123456789")
                           .copy(2, 15000)
                           .literal(RandomBytes(100, 47))
                           .copy(0, 3)
                           .end();
    ASSERT_EQ(patch(basis, full).patch_result, 0);
    std::string complete = ReadFile(dir / "new");
    for (size_t cut = 4; cut < full.size(); ++cut) {
        SCOPED_TRACE("cut at " + std::to_string(cut));
        PatchOutcome outcome = patch(basis, full.substr(0, cut));
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.patch_result, FileReader::ERROR_SYSTEM_CALL);
        std::string partial = ReadFile(dir / "new");
        EXPECT_EQ(complete.compare(0, partial.size(), partial), 0);
        // Only the end byte missing: every byte arrived, the pass still counts as cut short.
        EXPECT_TRUE(cut + 1 == full.size() || partial.size() < complete.size());
    }
}

TEST_F(PatchFixture, MissingInputsArgumentsAndAnAbortSetBeforehand) {
    WriteFile(dir / "delta", DeltaWriter().literal("abc").end());
    EXPECT_EQ(applyPatch(dir / "missing", dir / "delta", dir / "new").result,
              FileReader::ERROR_SYSTEM_CALL);
    EXPECT_EQ(applyPatch(dir / "delta", dir / "missing", dir / "new").result,
              FileReader::ERROR_SYSTEM_CALL);
    EXPECT_EQ(applyPatch(dir / "delta", dir / "delta", dir / "no-dir/new").result,
              FileReader::ERROR_HANDLER_CALL);
    DeltaFileReader reader;
    reader.setNewFile((dir / "never").c_str());
    EXPECT_EQ(reader.readFile(), FileReader::ERROR_ARGUMENT);
    EXPECT_FALSE(Exists(dir / "never"));

    // The flag is read before the first command: nothing written, no reverse delta made.
    DeltaFileReader aborted;
    int flag = 1;
    aborted.setAbortFlag(&flag);
    aborted.setFile((dir / "delta").c_str(), (dir / "delta").c_str());
    aborted.setNewFile((dir / "new").c_str());
    aborted.setReverseDeltaFile((dir / "reverse").c_str());
    EXPECT_EQ(aborted.readFile(), FileReader::ERROR_ABORT);
    EXPECT_EQ(ReadFile(dir / "new"), "");
    EXPECT_FALSE(Exists(dir / "reverse"));
}

// Each file operation of a patch into a temporary file fails once in turn. The basis and
// the delta are never touched, and whatever the pass reports, a new file whose hash the
// caller would accept holds exactly the new content; the next pass always succeeds.
TEST_F(PatchFixture, EveryFailedFileOperationIsCaughtAndLosesNothing) {
    const std::string basis = RandomBytes(40000, 3);
    const std::string wanted = basis.substr(0, 9000) + RandomBytes(5000, 4) + basis.substr(12000);
    WriteFile(dir / "basis", basis);
    WriteFile(dir / "new", wanted);
    ASSERT_EQ(makeSignature(dir / "basis", dir / "sig"), 0);
    ASSERT_EQ(makeDelta(dir / "sig", dir / "new", dir / "delta"), 0);
    const std::string delta = ReadFile(dir / "delta");
    const std::string temp = dir / "new.tmp";
    ustring hash;
    int patch_result = 1;
    tbtest::FaultScenario scenario;
    scenario.prepare = [] {};
    scenario.act = [&] {
        DeltaFileReader reader;
        reader.setFile((dir / "delta").c_str(), (dir / "basis").c_str());
        reader.setNewFile(temp.c_str());
        reader.setHashString(hash);
        int result = reader.readFile();
        patch_result = reader.getPatchResult();
        return result;
    };
    scenario.after_fault = [&](int result) {
        EXPECT_EQ(ReadFile(dir / "basis"), basis);
        EXPECT_EQ(ReadFile(dir / "delta"), delta);
        if (result == 0 && patch_result == 0 && hash.str() == md4Hex(wanted)) {
            EXPECT_EQ(ReadFile(temp), wanted) << "a pass that looks good left a wrong file";
        }
    };
    scenario.recover = [&] {
        ASSERT_EQ(scenario.act(), 0);
        EXPECT_EQ(patch_result, 0);
        EXPECT_EQ(hash.str(), md4Hex(wanted));
        EXPECT_EQ(ReadFile(temp), wanted);
    };
    EXPECT_GE(tbtest::FailEachOperation(scenario), 4);
}
