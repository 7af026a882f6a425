// Signatures: their size and layout, their independence from how the input is cut, and the
// block and hash size settings.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "delta-test-support.h"
#include "delta/rolling-checksum.h"
#include "delta/signature-handler.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

std::string signatureOf(const TempDir& dir, const std::string& content, size_t block = 2048,
                        size_t hash = 8) {
    writeFile(dir / "basis", content);
    EXPECT_EQ(makeSignature(dir / "basis", dir / "sig", block, hash), 0);
    return readFile(dir / "sig");
}

// The entry of one block computed from first principles.
std::string expectedEntry(const std::string& block, size_t hash = 8) {
    RSRollingChecksum sum;
    sum.update(block.data(), block.size());
    uint32_t d = sum.digest();
    std::string entry{static_cast<char>(d >> 24), static_cast<char>(d >> 16),
                      static_cast<char>(d >> 8), static_cast<char>(d)};
    unsigned char md[16];
    MD4(reinterpret_cast<const unsigned char*>(block.data()), block.size(), md);
    return entry + std::string(reinterpret_cast<char*>(md), hash);
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
    return readFile(dir / "pieces.sig");
}

}  // namespace

TEST(Signature, SizeFollowsTheNumberOfBlocks) {
    TempDir dir;
    const std::string header("\x72\x73\x01\x36\x00\x00\x08\x00\x00\x00\x00\x08", 12);
    for (size_t len : {0, 1, 2047, 2048, 2049, 4096, 10000}) {
        std::string sig = signatureOf(dir, randomBytes(len, 5));
        EXPECT_EQ(sig.size(), 12 + 12 * ((len + 2047) / 2048)) << "length " << len;
        EXPECT_EQ(sig.substr(0, 12), header);
    }
}

TEST(Signature, EntriesHoldTheWeakSumAndTheMd4PrefixOfEachBlock) {
    TempDir dir;
    std::string content = randomBytes(2049, 6);
    std::string sig = signatureOf(dir, content);
    ASSERT_EQ(sig.size(), 36u);
    EXPECT_EQ(sig.substr(12, 12), expectedEntry(content.substr(0, 2048)));
    // The short last block has an entry over its own single byte.
    EXPECT_EQ(sig.substr(24, 12), expectedEntry(content.substr(2048)));
}

TEST(Signature, DoesNotDependOnHowTheInputIsCut) {
    TempDir dir;
    // Over 64 whole blocks per piece sends the hashing to the helper thread.
    std::string content = randomBytes(3 * 1048576 + 4321, 7);
    std::string whole = signatureInPieces(dir, content, {content.size()});
    EXPECT_EQ(whole.size(), 12 + 12 * ((content.size() + 2047) / 2048));
    EXPECT_TRUE(whole == signatureOf(dir, content));
    EXPECT_TRUE(signatureInPieces(dir, content, {1, 2047, 2049, 300000, 4096, 5}) == whole);
    EXPECT_TRUE(signatureInPieces(dir, content, {1048576 - 1, 1048576 + 1}) == whole);
    std::string small = content.substr(0, 50000);
    EXPECT_TRUE(signatureInPieces(dir, small, {1}) == signatureInPieces(dir, small, {50000}));
    EXPECT_TRUE(signatureInPieces(dir, small, {3, 1000}) == signatureInPieces(dir, small, {50000}));
}

TEST(Signature, BlockAndHashSizeSettings) {
    SignatureHandler handler("unused");
    handler.setBlockSize(0);
    handler.setHashSize(0);
    EXPECT_EQ(handler.block_size, 2048u);
    EXPECT_EQ(handler.hash_size, 8u);
    handler.setHashSize(17);
    EXPECT_EQ(handler.hash_size, 8u);
    handler.setHashSize(16);
    handler.setBlockSize(512);
    EXPECT_EQ(handler.hash_size, 16u);
    EXPECT_EQ(handler.block_size, 512u);
    EXPECT_EQ(handler.getSignatureSize(1024), (1024 / 512 + 2) * 20u);

    TempDir dir;
    std::string content = randomBytes(1100, 8);
    std::string sig = signatureOf(dir, content, 512, 16);
    EXPECT_EQ(sig.substr(4, 8), std::string("\x00\x00\x02\x00\x00\x00\x00\x10", 8));
    ASSERT_EQ(sig.size(), 12 + 3 * 20u);
    EXPECT_EQ(sig.substr(12 + 2 * 20), expectedEntry(content.substr(1024), 16));
}

TEST(Signature, UnwritableOutputFailsTheRead) {
    TempDir dir;
    writeFile(dir / "basis", "data");
    EXPECT_EQ(makeSignature(dir / "basis", dir / "missing-dir/sig"),
              FileReader::ERROR_HANDLER_CALL);
}
