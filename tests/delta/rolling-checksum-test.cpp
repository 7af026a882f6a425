// The weak rolling sum: its fresh value over a block, rolling, and the way update extends a
// window that already holds bytes.
#include <gtest/gtest.h>

#include <string>

#include "delta-test-support.h"
#include "delta/rolling-checksum.h"

using namespace deltatest;

namespace {

// The sums by their definition: a = sum of (c + 31), b = sum of (n - i) * (c + 31).
void definition(const std::string& s, uint32_t& a, uint32_t& b) {
    a = 0;
    b = 0;
    uint32_t n = static_cast<uint32_t>(s.size());
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t c = static_cast<uint8_t>(s[i]) + 31u;
        a += c;
        b += (n - i) * c;
    }
}

const uint8_t* bytes(const std::string& s) {
    return reinterpret_cast<const uint8_t*>(s.data());
}

}  // namespace

TEST(RollingChecksum, BlockSumsMatchTheByteByByteRecurrence) {
    for (size_t len : {0, 1, 15, 16, 17, 31, 100, 2047, 2048, 2049, 70001, 1048576}) {
        for (const std::string& data : {randomBytes(len, static_cast<uint32_t>(len)),
                                        std::string(len, '\xFF'), std::string(len, '\0')}) {
            uint32_t s1 = 0;
            uint32_t s2 = 0;
            for (char c : data) {
                s1 += static_cast<uint8_t>(c);
                s2 += s1;
            }
            uint32_t got1;
            uint32_t got2;
            RSRollingChecksum::blockSums(bytes(data), data.size(), got1, got2);
            EXPECT_EQ(got1, s1) << "length " << len;
            EXPECT_EQ(got2, s2) << "length " << len;
        }
    }
}

TEST(RollingChecksum, FreshSumOfABlockMatchesTheDefinition) {
    // Up to 11770 bytes the 32-bit offset term doesn't wrap, so it is the plain definition.
    for (size_t len : {0, 1, 17, 2047, 2048, 2049, 11000}) {
        for (const std::string& data :
             {randomBytes(len, static_cast<uint32_t>(len)), std::string(len, '\xFF')}) {
            RSRollingChecksum sum;
            sum.update(data.data(), data.size());
            uint32_t a;
            uint32_t b;
            definition(data, a, b);
            EXPECT_EQ(sum.a, a) << "length " << len;
            EXPECT_EQ(sum.b, b) << "length " << len;
            EXPECT_EQ(sum.size(), len);
            EXPECT_EQ(sum.digest(), (a & 0xFFFF) | (b << 16));
        }
    }
}

TEST(RollingChecksum, RollingEqualsAFreshSumOfEachWindow) {
    std::string data = randomBytes(6000, 3);
    const size_t window = 2048;
    RSRollingChecksum rolling;
    rolling.update(data.data(), window);
    for (size_t start = 1; start + window <= data.size(); start += 1) {
        rolling.rotate(bytes(data)[start - 1], bytes(data)[start + window - 1]);
        if (start % 97 != 0) continue;
        RSRollingChecksum fresh;
        fresh.update(data.data() + start, window);
        ASSERT_EQ(rolling.digest(), fresh.digest()) << "window at " << start;
        ASSERT_EQ(rolling.size(), window);
    }
}

TEST(RollingChecksum, ExtendingAFilledWindowLeavesOutTheCarriedTerm) {
    std::string data = randomBytes(2048, 4);
    RSRollingChecksum split;
    split.update(data.data(), 1000);
    uint32_t a_before = split.a;
    split.update(data.data() + 1000, 1048);
    RSRollingChecksum whole;
    whole.update(data.data(), data.size());
    EXPECT_EQ(split.a, whole.a);
    EXPECT_EQ(split.size(), whole.size());
    // b misses 1048 * a of the first part, exactly.
    EXPECT_EQ(split.b + 1048u * a_before, whole.b);
    EXPECT_NE(split.digest(), whole.digest());
}

TEST(RollingChecksum, ClearAndRollOutEmptyTheWindow) {
    RSRollingChecksum sum;
    EXPECT_TRUE(sum.empty());
    sum.roll_in(7);
    sum.roll_in(9);
    sum.roll_out(7);
    RSRollingChecksum single;
    single.update("\x09", 1);
    EXPECT_EQ(sum.digest(), single.digest());
    sum.roll_out(9);
    EXPECT_TRUE(sum.empty());
    EXPECT_EQ(sum.digest(), 0u);
    sum.roll_in(1);
    sum.clear();
    EXPECT_EQ(sum.a, 0u);
    EXPECT_EQ(sum.b, 0u);
    EXPECT_TRUE(sum.empty());
}
