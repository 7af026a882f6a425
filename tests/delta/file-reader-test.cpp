// The one-pass reader: what every handler produces from one read (a signature whatever the
// cut of its input; its exact bytes are checked against rdiff in rdiff-interop-test.cpp), how
// failures of the input and of the outputs show, and the abort flag.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

#include "delta-test-support.h"
#include "delta/signature-handler.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

const std::string kMd4OfNothing = md4Hex("");

struct AllOutputs {
    int result;
    std::string hash;
};

// Copies, hashes and signs `input` in one pass, into dir/copy and dir/sig unless told
// otherwise; with `delta_sig`, also writes dir/delta against that signature.
AllOutputs readWithEveryHandler(const TempDir& dir, const std::string& input,
                                int* abort_flag = nullptr, const std::string& copy = "copy",
                                const std::string& sig = "sig", const std::string& delta_sig = "") {
    SimpleFileReader reader;
    reader.setFile(input.c_str());
    reader.setCopyFile((dir / copy).c_str());
    if (!delta_sig.empty()) reader.setDelta((dir / "delta").c_str(), delta_sig.c_str());
    ustring hash;
    reader.setHashString(hash);
    reader.setSignature((dir / sig).c_str(), 2048, 8);
    if (abort_flag != nullptr) reader.setAbortFlag(abort_flag);
    int result = reader.readFile();
    return {result, hash.str()};
}

// Feeds `content` to a SignatureHandler in pieces of the given lengths (cycled).
std::string signatureInPieces(const TempDir& dir, const std::string& content,
                              const std::vector<size_t>& pieces) {
    SignatureHandler handler((dir / "pieces.sig").c_str());
    EXPECT_EQ(handler.begin(), 0);
    size_t pos = 0;
    for (size_t i = 0; pos < content.size(); ++i) {
        size_t n = std::min(pieces[i % pieces.size()], content.size() - pos);
        EXPECT_EQ(handler.update(content.data() + pos, n), 0);
        EXPECT_EQ(handler.wait(), 0);
        pos += n;
    }
    EXPECT_EQ(handler.end(), 0);
    return ReadFile(dir / "pieces.sig");
}

}  // namespace

// Copy, delta, signature and MD4 from one pass; the lengths shrink so that each output
// must also replace the longer one before it.
TEST(FileReader, EveryHandlerSeesTheSameBytes) {
    TempDir dir;
    for (size_t len : {size_t{3 * 1048576 + 5}, size_t{1048576}, size_t{0}}) {
        std::string content = RandomBytes(len, static_cast<uint32_t>(len + 1));
        WriteFile(dir / "in", content);
        ASSERT_EQ(makeSignature(dir / "in", dir / "old.sig"), 0);
        AllOutputs out =
            readWithEveryHandler(dir, dir / "in", nullptr, "copy", "sig", dir / "old.sig");
        ASSERT_EQ(out.result, 0);
        EXPECT_EQ(out.hash, md4Hex(content));
        EXPECT_TRUE(ReadFile(dir / "copy") == content);
        EXPECT_TRUE(ReadFile(dir / "sig") == ReadFile(dir / "old.sig"));
        std::vector<Command> whole_blocks_then_tail;
        if (len >= 2048) whole_blocks_then_tail.push_back(copyOf(0, len / 2048 * 2048));
        if (len % 2048 != 0) whole_blocks_then_tail.push_back(literalOf(len % 2048));
        expectCommands(ReadFile(dir / "delta"), whole_blocks_then_tail);
    }
}

TEST(Signature, DoesNotDependOnHowTheInputIsCut) {
    TempDir dir;
    // Over 64 whole blocks per piece sends the hashing to the helper thread.
    std::string content = RandomBytes(3 * 1048576 + 4321, 7);
    WriteFile(dir / "basis", content);
    ASSERT_EQ(makeSignature(dir / "basis", dir / "sig"), 0);
    std::string whole = ReadFile(dir / "sig");
    EXPECT_TRUE(signatureInPieces(dir, content, {content.size()}) == whole);
    EXPECT_TRUE(signatureInPieces(dir, content, {1, 2047, 2049, 300000, 4096, 5}) == whole);
    EXPECT_TRUE(signatureInPieces(dir, content, {1048576 - 1, 1048576 + 1}) == whole);
}

TEST(FileReader, FailuresOfTheInputAndOfTheOutputsAndAnAbortSetBeforehand) {
    TempDir dir;
    SimpleFileReader no_input;
    no_input.setCopyFile((dir / "copy").c_str());
    EXPECT_EQ(no_input.readFile(), FileReader::ERROR_ARGUMENT);
    EXPECT_FALSE(Exists(dir / "copy"));

    // The outputs already started stay for the caller, and every handler's end ran.
    AllOutputs out = readWithEveryHandler(dir, dir / "missing");
    EXPECT_EQ(out.result, FileReader::ERROR_SYSTEM_CALL);
    EXPECT_TRUE(Exists(dir / "copy"));
    EXPECT_EQ(ReadFile(dir / "sig").size(), 12u);
    EXPECT_EQ(out.hash, kMd4OfNothing);
    EXPECT_EQ(readWithEveryHandler(dir, dir.path()).result, FileReader::ERROR_SYSTEM_CALL);

    // A handler that can't start fails the pass and still lets the others finish.
    WriteFile(dir / "in", RandomBytes(5000, 52));
    out = readWithEveryHandler(dir, dir / "in", nullptr, "no-dir/copy");
    EXPECT_EQ(out.result, FileReader::ERROR_HANDLER_CALL);
    EXPECT_EQ(ReadFile(dir / "sig").size(), 12u);
    EXPECT_EQ(out.hash, kMd4OfNothing);
    out = readWithEveryHandler(dir, dir / "in", nullptr, "copy", "no-dir/sig");
    EXPECT_EQ(out.result, FileReader::ERROR_HANDLER_CALL);

    // An abort flag raised beforehand stops the pass before the first chunk.
    int flag = 1;
    EXPECT_EQ(readWithEveryHandler(dir, dir / "in", &flag).result, FileReader::ERROR_ABORT);
    EXPECT_EQ(ReadFile(dir / "copy"), "");
    EXPECT_EQ(ReadFile(dir / "sig").size(), 12u);
    flag = 0;
    EXPECT_EQ(readWithEveryHandler(dir, dir / "in", &flag).result, 0);
}

// The input is a pipe fed by another thread, which raises the flag halfway: the reader
// must stop at the next chunk with ERROR_ABORT, having copied only what came before.
TEST(FileReaderConcurrency, AbortFlagRaisedDuringTheReadStopsIt) {
    TempDir dir;
    std::string fifo = dir / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // The reader closes the pipe when it stops; the feeder then gets EPIPE, not a signal.
    ::signal(SIGPIPE, SIG_IGN);
    int flag = 0;
    const std::string first = RandomBytes(200000, 54);
    const std::string second = RandomBytes(200000, 55);
    std::thread feeder([&] {
        std::ofstream pipe(fifo, std::ios::binary);
        pipe << first << std::flush;
        std::atomic_ref<int>(flag).store(1, std::memory_order_relaxed);
        pipe << second;
    });
    AllOutputs out = readWithEveryHandler(dir, fifo, &flag);
    feeder.join();
    EXPECT_EQ(out.result, FileReader::ERROR_ABORT);
    std::string copied = ReadFile(dir / "copy");
    // The feeder can only raise the flag once the pipe has taken most of the first part.
    EXPECT_GT(copied.size(), 0u);
    EXPECT_LT(copied.size(), first.size() + second.size());
    EXPECT_TRUE(copied == (first + second).substr(0, copied.size()));
}

TEST(FileReaderConcurrency, ReadersOnSeveralThreadsStayApart) {
    TempDir dir;
    std::string old = RandomBytes(1500000, 56);
    WriteFile(dir / "old", old);
    ASSERT_EQ(makeSignature(dir / "old", dir / "old.sig"), 0);
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::string name = dir / ("t" + std::to_string(t));
            std::string next = old.substr(0, 300000 * t) + "edit" + old.substr(300000 * t);
            WriteFile(name, next);
            if (makeDelta(dir / "old.sig", name, name + ".delta") != 0) return;
            PatchOutcome outcome = applyPatch(dir / "old", name + ".delta", name + ".new");
            if (outcome.result == 0 && ReadFile(name + ".new") == next) ++good;
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), 4);
}
