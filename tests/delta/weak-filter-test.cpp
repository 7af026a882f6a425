// The weak-sum filter and its window scan: no sum that was added is ever missed, and the
// vector and portable kernels stop at the same window with the same sums.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "delta-test-support.h"
#include "delta/rolling-checksum.h"
#include "delta/weak-filter.h"

using namespace deltatest;

namespace {

uint32_t windowDigest(const std::string& data, size_t at, size_t size) {
    RSRollingChecksum sum;
    sum.update(data.data() + at, size);
    return sum.digest();
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
    stop.offset = filter.scanWindows(reinterpret_cast<const uint8_t*>(data.data()) + from, windows,
                                     static_cast<uint32_t>(block), stop.a, stop.b, kernel);
    return stop;
}

}  // namespace

TEST(WeakFilter, AddedSumsAlwaysPass) {
    WeakFilter filter;
    filter.reset(1000);
    std::mt19937 gen(81);
    std::vector<uint32_t> added;
    for (int i = 0; i < 1000; ++i) added.push_back(gen());
    for (uint32_t d : added) filter.add(d);
    for (uint32_t d : added) EXPECT_TRUE(filter.mayContain(d));
    int passed = 0;
    for (int i = 0; i < 100000; ++i) passed += filter.mayContain(gen()) ? 1 : 0;
    EXPECT_LT(passed, 1000);  // well under 1% of strangers get through
}

TEST(WeakFilter, ScanStopsAtTheFirstWindowWhoseSumWasAdded) {
    const size_t block = 2048;
    std::string data = randomBytes(200000, 82);
    WeakFilter filter;
    filter.reset(4);
    for (size_t at : {size_t{70001}, size_t{150000}}) filter.add(windowDigest(data, at, block));
    for (auto kernel : {WeakFilter::Kernel::PORTABLE, WeakFilter::Kernel::BEST}) {
        Stop stop = scan(filter, data, 1000, data.size() - block - 1000, block, kernel);
        ASSERT_GT(stop.offset, 0u);
        ASSERT_LE(1000 + stop.offset, 70001u);
        RSRollingChecksum fresh;
        fresh.update(data.data() + 1000 + stop.offset, block);
        EXPECT_EQ(stop.a, fresh.a);
        EXPECT_EQ(stop.b, fresh.b);
        EXPECT_TRUE(filter.mayContain(fresh.digest()));
    }
}

TEST(WeakFilter, VectorAndPortableKernelsAgree) {
    if (!WeakFilter::vectorKernelAvailable()) GTEST_SKIP() << "no AVX2 on this processor";
    std::mt19937 gen(83);
    std::string data = randomBytes(400000, 84);
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
