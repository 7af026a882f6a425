// Base64, wire scrambling, text checks, login splitting and scoped locks.
#include "foundation/utility.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "foundation/critical-section.h"
#include "foundation/mutex.h"

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
    {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"},
};

TEST(Base64, EncodesAndDecodesTheStandardVectorsAndEveryByte) {
    for (const auto& [plain, coded] : kRfc4648) {
        EXPECT_EQ(enc(plain), coded) << plain;
        std::string back;
        EXPECT_TRUE(dec(coded, back)) << coded;
        EXPECT_EQ(back, plain);
    }
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    std::string coded = enc(all);
    std::string back;
    ASSERT_TRUE(dec(coded, back));
    EXPECT_EQ(back, all);
}

TEST(Base64, MalformedInputIsRefusedAndTheSpaceIsNeverPassed) {
    std::string out;
    for (const char* bad :
         {"Z", "Zm9", "Zm9vY", "Zm=v", "Z!9v", "Zm9v\n", "====", "Zg==Zg==", "Zm9v Yg=="}) {
        EXPECT_FALSE(dec(bad, out)) << bad;
        EXPECT_TRUE(out.empty()) << bad;
    }
    EXPECT_FALSE(dec("Zm9vYmFy", out, 5));
    EXPECT_TRUE(dec("Zm9vYmFy", out, 6));
    EXPECT_EQ(out, "foobar");
}

TEST(Base64, OneLineStopsAtAZeroByteAndOutputAtItsLimit) {
    const char data[] = {'f', 'o', '\0', 'o'};
    EXPECT_STREQ(SzBase64EncOneLine(data, sizeof data).get(), "Zm8=");
    EXPECT_STREQ(SzBase64EncBuffer(data, sizeof data).get(), "Zm8Abw==");
    std::string coded = enc(std::string(3000, 'a'));
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

TEST(WireScrambling, EmptyOversizedAndBrokenInput) {
    std::string out = "stale";
    EXPECT_EQ(SyncPassEnc("", out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(SyncPassDec("not base64!", out), -1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(SyncPassEnc(std::string(2304, 'x'), out), 0);
    EXPECT_EQ(SyncPassEnc(std::string(2305, 'x'), out), -1);
}

TEST(TextConversion, Utf8IsCheckedAndCopied) {
    ustring native;
    EXPECT_EQ(UTF8ToNativeStr("naïve", native), 0);
    EXPECT_EQ(native, ustring("naïve"));
    std::string narrow;
    EXPECT_EQ(NativeStrToUTF8(ustring("日本"), narrow), 0);
    EXPECT_EQ(narrow, "日本");
    EXPECT_EQ(UTF8ToNativeStr("bad\xff", native), -1);
    EXPECT_EQ(NativeStrToUTF8(ustring("bad\xc3"), narrow), -1);
    EXPECT_EQ(UTF8ToNativeStr(std::string(8192, 'a'), native), -1);
    EXPECT_EQ(UTF8ToNativeStr(std::string(8191, 'a'), native), 0);
}

TEST(Login, DomainIsSplitAtTheLastDelimiter) {
    const char* cases[][3] = {{"CORP\\alice", "alice", "CORP"},
                              {"a\\b/carol", "carol", "a\\b"},  // a slash is looked for first
                              {"dave", "dave", ""}};
    for (const auto& c : cases) {
        ustring user(c[0]);
        ustring domain("stale");
        ParseUsrName(user, domain);
        EXPECT_EQ(user, ustring(c[1])) << c[0];
        EXPECT_EQ(domain, ustring(c[2])) << c[0];
    }
}

// Entering twice and leaving twice are what the section must tolerate, and what the
// thread-safety analysis rightly refuses in real code.
void EnterAgain(CriticalSection& cs) NO_THREAD_SAFETY_ANALYSIS {
    cs.start();
}
void LeaveAgain(CriticalSection& cs) NO_THREAD_SAFETY_ANALYSIS {
    cs.end();
}

TEST(CriticalSectionConcurrency, HoldsTheMutexForItsScope) {
    Mutex mu;
    auto free_elsewhere = [&mu] {
        auto probe = [&mu] { return std::unique_lock(mu, std::try_to_lock).owns_lock(); };
        return std::async(std::launch::async, probe).get();
    };
    {
        CriticalSection cs(&mu);
        EnterAgain(cs);  // already inside: must not lock twice
        EXPECT_FALSE(free_elsewhere());
        cs.end();
        EXPECT_TRUE(free_elsewhere());
        LeaveAgain(cs);
        cs.start();
        EXPECT_FALSE(free_elsewhere());
    }
    EXPECT_TRUE(free_elsewhere());
}

}  // namespace
