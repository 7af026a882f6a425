// The weak rolling sum and the weak-sum filter: fresh sums over a block, and window scans
// that stop at the same window with the vector and the portable kernel. A filter that drops
// an added sum shows as missing copies in the delta commands (delta-test.cpp), as does the
// way update extends a window that already holds bytes. Last, the strong sums of several
// blocks at once, which must be OpenSSL's MD4 whatever the length and spacing.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "delta-test-support.h"
#include "delta/md4-lanes.h"
#include "delta/rolling-checksum.h"
#include "delta/weak-filter.h"

using namespace deltatest;

namespace {

const uint8_t* bytes(const std::string& s) {
    return reinterpret_cast<const uint8_t*>(s.data());
}

struct Stop {
    size_t offset;
    uint32_t a;
    uint32_t b;
};

Stop scan(const WeakFilter& filter, const std::string& data, size_t from, size_t windows,
          size_t block, WeakFilter::Kernel kernel) {
    RSRollingChecksum sum;
    sum.update(data.data() + from, block);
    Stop stop{0, sum.a, sum.b};
    stop.offset = filter.scanWindows(bytes(data) + from, windows, static_cast<uint32_t>(block),
                                     stop.a, stop.b, kernel);
    return stop;
}

}  // namespace

TEST(RollingChecksum, SumsOfABlockMatchTheirDefinition) {
    for (size_t len : {0, 1, 15, 16, 17, 31, 100, 2047, 2048, 2049, 11000, 70001, 1048576}) {
        for (const std::string& data : {RandomBytes(len, static_cast<uint32_t>(len)),
                                        std::string(len, '\xFF'), std::string(len, '\0')}) {
            SCOPED_TRACE("length " + std::to_string(len));
            // The plain sums, byte by byte; and with every byte counted as byte + 31, a is
            // their sum and b the sum of (n - i) * (byte + 31).
            uint32_t s1 = 0, s2 = 0, a = 0, b = 0;
            for (size_t i = 0; i < len; ++i) {
                s1 += bytes(data)[i];
                s2 += s1;
                a += bytes(data)[i] + 31u;
                b += static_cast<uint32_t>(len - i) * (bytes(data)[i] + 31u);
            }
            uint32_t got1, got2;
            RSRollingChecksum::blockSums(bytes(data), data.size(), got1, got2);
            EXPECT_EQ(got1, s1);
            EXPECT_EQ(got2, s2);
            // Past 11770 bytes the offset term wraps before it is halved, as the format does.
            if (len > 11770) continue;
            RSRollingChecksum sum;
            sum.update(data.data(), data.size());
            EXPECT_EQ(sum.a, a);
            EXPECT_EQ(sum.b, b);
            EXPECT_EQ(sum.digest(), (a & 0xFFFF) | (b << 16));
        }
    }
}

TEST(WeakFilter, VectorAndPortableKernelsAgree) {
    if (!WeakFilter::vectorKernelAvailable()) GTEST_SKIP() << "no AVX2 on this processor";
    std::mt19937 gen(83);
    std::string data = RandomBytes(400000, 84);
    for (size_t block : {size_t{1}, size_t{7}, size_t{2048}, size_t{5000}}) {
        WeakFilter filter;
        filter.reset(64);
        for (int i = 0; i < 64; ++i) filter.add(gen());
        // Every stop, over and over: sums carried across calls, counts of every remainder.
        size_t from = 3;
        size_t windows = data.size() - block - from;
        for (int steps = 0; steps < 2000 && windows > 0; ++steps) {
            size_t count = std::min<size_t>(windows, 1 + gen() % 3000);
            Stop portable = scan(filter, data, from, count, block, WeakFilter::Kernel::PORTABLE);
            Stop vector = scan(filter, data, from, count, block, WeakFilter::Kernel::BEST);
            ASSERT_EQ(vector.offset, portable.offset) << "block " << block << " from " << from;
            ASSERT_EQ(vector.a, portable.a);
            ASSERT_EQ(vector.b, portable.b);
            size_t moved = portable.offset == 0 ? count : portable.offset;
            from += moved;
            windows -= moved;
        }
    }
}

TEST(Md4Lanes, VectorKernelGivesOpenSslDigests) {
    if (!Md4Lanes::vectorKernelAvailable()) GTEST_SKIP() << "no AVX2 on this processor";
    std::string data = RandomBytes(20000, 91);
    for (size_t length : {0, 1, 55, 56, 63, 64, 65, 119, 120, 700, 2047, 2048}) {
        for (size_t stride : {length, length + 13}) {
            for (size_t lanes = 1; lanes <= Md4Lanes::MAX_LANES; ++lanes) {
                uint8_t got[Md4Lanes::MAX_LANES][Md4Lanes::DIGEST_SIZE];
                Md4Lanes::hash(bytes(data) + 5, stride, length, lanes, got);
                for (size_t i = 0; i < lanes; ++i) {
                    uint8_t want[Md4Lanes::DIGEST_SIZE];
                    MD4(bytes(data) + 5 + i * stride, length, want);
                    ASSERT_EQ(0, std::memcmp(got[i], want, sizeof want)) << length << " " << i;
                }
            }
        }
    }
}
