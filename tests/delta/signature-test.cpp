// Signatures: independence from how the input is cut, and the block and hash size settings.
// Their exact bytes are checked against the rdiff tool in rdiff-interop-test.cpp.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "delta/signature-handler.h"
#include "support/temp-dir.h"

using namespace deltatest;

namespace {

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

TEST(Signature, DoesNotDependOnHowTheInputIsCut) {
    TempDir dir;
    // Over 64 whole blocks per piece sends the hashing to the helper thread.
    std::string content = randomBytes(3 * 1048576 + 4321, 7);
    writeFile(dir / "basis", content);
    ASSERT_EQ(makeSignature(dir / "basis", dir / "sig"), 0);
    std::string whole = readFile(dir / "sig");
    EXPECT_TRUE(signatureInPieces(dir, content, {content.size()}) == whole);
    EXPECT_TRUE(signatureInPieces(dir, content, {1, 2047, 2049, 300000, 4096, 5}) == whole);
    EXPECT_TRUE(signatureInPieces(dir, content, {1048576 - 1, 1048576 + 1}) == whole);
    std::string small = content.substr(0, 50000);
    std::string expected = signatureInPieces(dir, small, {50000});
    EXPECT_TRUE(signatureInPieces(dir, small, {1}) == expected);
    EXPECT_TRUE(signatureInPieces(dir, small, {3, 1000}) == expected);
}

TEST(Signature, OutOfRangeSettingsKeepTheDefaults) {
    SignatureHandler handler("unused");
    handler.setBlockSize(0);
    handler.setHashSize(0);
    EXPECT_EQ(handler.block_size, 2048u);
    EXPECT_EQ(handler.hash_size, 8u);
    handler.setHashSize(17);
    EXPECT_EQ(handler.hash_size, 8u);
    handler.setHashSize(16);
    handler.setBlockSize(512);
    EXPECT_EQ(handler.getSignatureSize(1024), (1024 / 512 + 2) * 20u);
}
