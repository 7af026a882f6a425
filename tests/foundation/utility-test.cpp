// Base64, wire scrambling, text checks, login splitting, host name and scoped locks.
#include "foundation/utility.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "foundation/critical-section.h"

namespace {

std::string enc(const std::string& s) {
    return SzBase64EncBuffer(s.data(), s.size()).get();
}

bool dec(const std::string& in, std::string& out, size_t space = 4096) {
    std::vector<unsigned char> buf(space + 1);
    size_t n = space;
    bool ok = EncBase64Dec(in.data(), in.size(), buf.data(), &n);
    out.assign(reinterpret_cast<char*>(buf.data()), n);
    return ok;
}

// The test vectors of RFC 4648, section 10.
const std::pair<std::string, std::string> kRfc4648[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

TEST(Base64, EncodesAndDecodesTheStandardVectors) {
    for (const auto& [plain, coded] : kRfc4648) {
        EXPECT_EQ(enc(plain), coded) << plain;
        std::string back;
        EXPECT_TRUE(dec(coded, back)) << coded;
        EXPECT_EQ(back, plain);
    }
}

TEST(Base64, BinaryAndTheWholeAlphabetRoundTrip) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    std::string coded = enc(all);
    EXPECT_NE(coded.find('+'), std::string::npos);
    EXPECT_NE(coded.find('/'), std::string::npos);
    EXPECT_EQ(coded.find('\n'), std::string::npos) << "no line breaks";
    std::string back;
    ASSERT_TRUE(dec(coded, back));
    EXPECT_EQ(back, all);
}

TEST(Base64, MalformedInputIsRefused) {
    std::string out;
    for (const char* bad :
         {"Z", "Zm9", "Zm9vY", "Zm=v", "Z!9v", "Zm9v\n", "====", "Zg==Zg==", "Zm9v Yg=="}) {
        EXPECT_FALSE(dec(bad, out)) << bad;
        EXPECT_TRUE(out.empty()) << bad;
    }
    unsigned char buf[8];
    size_t n = sizeof buf;
    EXPECT_FALSE(EncBase64Dec("Z", 1, buf, &n));
    EXPECT_EQ(n, 0u);
    n = 0;
    EXPECT_TRUE(EncBase64Dec("", 0, buf, &n));
    EXPECT_EQ(n, 0u);
}

TEST(Base64, DecodingNeverWritesPastTheGivenSpace) {
    std::string out;
    EXPECT_FALSE(dec("Zm9vYmFy", out, 5));
    EXPECT_TRUE(dec("Zm9vYmFy", out, 6));
    EXPECT_EQ(out, "foobar");
}

TEST(Base64, OneLineStopsAtAZeroByteAndBufferDoesNot) {
    const char data[] = {'f', 'o', '\0', 'o'};
    EXPECT_STREQ(SzBase64EncOneLine(data, sizeof data).get(), "Zm8=");
    EXPECT_STREQ(SzBase64EncBuffer(data, sizeof data).get(), "Zm8Abw==");
}

TEST(Base64, OutputStopsAtItsLimit) {
    std::string big(3000, 'a');
    std::string coded = enc(big);
    EXPECT_EQ(coded.size(), kBase64EncLimit);
    std::string back;
    ASSERT_TRUE(dec(coded, back));
    EXPECT_EQ(back, std::string(kBase64EncLimit / 4 * 3, 'a'));
}

// Golden values made independently with the command-line tool:
//   printf '%s' "$PLAIN" | openssl enc -bf-cfb -nosalt -iv 0000000000000000
//       -K 7a51c32e7a51c32e7a51c32e7a51c32e -provider legacy -provider default | base64 -w0
// (one command line).
// The 4-byte key repeated to 16 bytes gives Blowfish the same key schedule, since the
// schedule cycles through the key bytes.
const std::pair<std::string, std::string> kScrambled[] = {
    {"secret", "rFT8wxzW"},
    {"p@ss w0rd!", "r3HswlnVo9zdIg=="},
    {"A", "ng=="},
    {"0123456789abcdef0123", "7wCtgk2XpZn8N7kag3ZwTiJwotE="},
    {"pässwörd", "r/I7wgrVUBihlQ=="},
};

TEST(WireScrambling, MatchesTheReferenceCipherOutput) {
    for (const auto& [plain, golden] : kScrambled) {
        std::string out;
        ASSERT_EQ(SyncPassEnc(plain, out), 0);
        EXPECT_EQ(out, golden) << plain;
        std::string back;
        ASSERT_EQ(SyncPassDec(golden, back), 0);
        EXPECT_EQ(back, plain);
    }
}

TEST(WireScrambling, RoundTripsEveryLengthAndByte) {
    std::string text;
    for (int len = 0; len < 300; ++len) {
        std::string out;
        ASSERT_EQ(SyncPassEnc(text, out), 0);
        std::string back;
        ASSERT_EQ(SyncPassDec(out, back), 0);
        ASSERT_EQ(back, text) << len;
        text += static_cast<char>(len * 37);
    }
    ustring wide("pässwörd");
    ustring scrambled;
    ustring restored;
    ASSERT_EQ(SyncPassEnc(wide, scrambled), 0);
    ASSERT_EQ(SyncPassDec(scrambled, restored), 0);
    EXPECT_EQ(restored, wide);
}

TEST(WireScrambling, EmptyAndBrokenInput) {
    std::string out = "stale";
    EXPECT_EQ(SyncPassEnc("", out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(SyncPassDec("", out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(SyncPassDec("not base64!", out), -1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(SyncPassEnc(std::string(2305, 'x'), out), -1);
}

TEST(TextConversion, Utf8IsCheckedAndCopied) {
    ustring native;
    EXPECT_EQ(UTF8ToNativeStr("naïve", native), 0);
    EXPECT_EQ(native, ustring("naïve"));
    EXPECT_EQ(CodePageToNativeStr("plain", native), 0);
    EXPECT_EQ(native, ustring("plain"));
    std::string narrow;
    EXPECT_EQ(NativeStrToUTF8(ustring("日本"), narrow), 0);
    EXPECT_EQ(narrow, "日本");
    EXPECT_EQ(NativeStrToCodePage(ustring("x"), narrow), 0);
    EXPECT_EQ(narrow, "x");

    EXPECT_EQ(UTF8ToNativeStr("", native), 0);
    EXPECT_TRUE(native.empty());
    EXPECT_EQ(UTF8ToNativeStr("bad\xff", native), -1);
    EXPECT_EQ(NativeStrToUTF8(ustring("bad\xc3"), narrow), -1);
    EXPECT_EQ(UTF8ToNativeStr(std::string(8192, 'a'), native), -1);
    EXPECT_EQ(UTF8ToNativeStr(std::string(8191, 'a'), native), 0);
}

TEST(Login, DomainIsSplitAtTheLastDelimiter) {
    ustring user("CORP\\alice");
    ustring domain("stale");
    ParseUsrName(user, domain);
    EXPECT_EQ(user, ustring("alice"));
    EXPECT_EQ(domain, ustring("CORP"));

    user = "a\\b/carol";
    ParseUsrName(user, domain);
    EXPECT_EQ(user, ustring("carol")) << "a slash is looked for first";
    EXPECT_EQ(domain, ustring("a\\b"));

    user = "dave";
    domain = "stale";
    ParseUsrName(user, domain);
    EXPECT_EQ(user, ustring("dave"));
    EXPECT_TRUE(domain.empty());
}

TEST(HostName, IsTheSystemsName) {
    char expected[HOST_NAME_MAX + 1] = {};
    ASSERT_EQ(::gethostname(expected, sizeof expected - 1), 0);
    ustring host;
    ASSERT_EQ(GetSysHostName(host), 0);
    EXPECT_EQ(host, ustring(expected));
}

TEST(CriticalSectionConcurrency, HoldsTheMutexForItsScope) {
    std::mutex mu;
    auto try_elsewhere = [&mu] {
        return std::async(std::launch::async,
                          [&mu] {
                              bool got = mu.try_lock();
                              if (got) mu.unlock();
                              return got;
                          })
            .get();
    };
    {
        CriticalSection cs(&mu);
        cs.start();  // already inside: must not lock twice
        EXPECT_FALSE(try_elsewhere());
        cs.end();
        EXPECT_TRUE(try_elsewhere());
        cs.end();
        cs.start();
        EXPECT_FALSE(try_elsewhere());
    }
    EXPECT_TRUE(try_elsewhere());
    CriticalSection none(static_cast<std::mutex*>(nullptr));
    CriticalSection fd_form(3);
    EXPECT_FALSE(CriticalSection::use_flock());
    EXPECT_EQ(CriticalSection::lock(3), 0);
}

}  // namespace
