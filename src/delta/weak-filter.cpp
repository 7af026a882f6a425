#include "delta/weak-filter.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "delta/rolling-checksum.h"

namespace {

constexpr unsigned kMinWordBits = 6;
constexpr unsigned kMaxWordBits = 26;

}  // namespace

void WeakFilter::reset(size_t count) {
    unsigned bits = kMinWordBits;
    while (bits < kMaxWordBits && (size_t{1} << bits) < count) ++bits;
    m_words.assign(size_t{1} << bits, 0);
    m_shift = 32 - bits;
}

void WeakFilter::add(uint32_t digest) {
    m_words[indexOf(digest)] |= maskOf(digest);
}

bool WeakFilter::vectorKernelAvailable() {
#if defined(__x86_64__)
    static const bool available = __builtin_cpu_supports("avx2");
    return available;
#else
    return false;
#endif
}

size_t WeakFilter::scanWindows(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                               uint32_t& b, Kernel kernel) const {
    if (kernel == Kernel::BEST && vectorKernelAvailable()) {
        return scanVector(p, count, block_size, a, b);
    }
    return scanPortable(p, count, block_size, a, b);
}

// Windows go in batches: first the sums of the whole batch are rolled and their filter words
// and masks computed (arithmetic in locals the byte loads can't alias), then the words are
// tested. The loads of a batch don't depend on each other, so their cache misses overlap.
size_t WeakFilter::scanPortable(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                                uint32_t& b) const {
    constexpr size_t kBatch = 64;
    const uint32_t offset = RSRollingChecksum::CHAR_OFFSET;
    const uint32_t* words = m_words.data();
    uint32_t sa = a;
    uint32_t sb = b;
    uint32_t sum_a[kBatch];
    uint32_t sum_b[kBatch];
    uint32_t index[kBatch];
    uint32_t mask[kBatch];
    for (size_t done = 0; done < count;) {
        size_t n = std::min(kBatch, count - done);
        const uint8_t* q = p + done;
        for (size_t i = 0; i < n; ++i) {
            sa += uint32_t(q[i + block_size]) - uint32_t(q[i]);
            sb += sa - (uint32_t(q[i]) + offset) * block_size;
            uint32_t digest = (sa & 0xFFFF) | (sb << 16);
            sum_a[i] = sa;
            sum_b[i] = sb;
            index[i] = indexOf(digest);
            mask[i] = maskOf(digest);
        }
        for (size_t i = 0; i < n; ++i) {
            if ((words[index[i]] & mask[i]) != mask[i]) continue;
            a = sum_a[i];
            b = sum_b[i];
            return done + i + 1;
        }
        done += n;
    }
    a = sa;
    b = sb;
    return 0;
}

#if defined(__x86_64__)

namespace {

// Running sums over the eight 32-bit lanes.
__attribute__((target("avx2"))) inline __m256i prefixSum(__m256i x) {
    x = _mm256_add_epi32(x, _mm256_slli_si256(x, 4));
    x = _mm256_add_epi32(x, _mm256_slli_si256(x, 8));
    __m256i low_total = _mm256_permutevar8x32_epi32(x, _mm256_set1_epi32(3));
    return _mm256_add_epi32(x, _mm256_blend_epi32(_mm256_setzero_si256(), low_total, 0xF0));
}

__attribute__((target("avx2"))) inline __m256i bitOf(__m256i position) {
    return _mm256_sllv_epi32(_mm256_set1_epi32(1), position);
}

}  // namespace

// Eight windows at a time. Rolling one byte adds in - out to a, and a - (out + 31) * block
// size to b, so the eight next values of a are a running sum of the differences, and those
// of b a running sum over the new a's: both are prefix sums across the lanes. The digests go
// through the same hashes as in the portable kernel; the filter words of a batch of windows
// are then tested with plain loads, whose cache misses overlap better than gathers' do.
__attribute__((target("avx2"))) size_t WeakFilter::scanVector(const uint8_t* p, size_t count,
                                                              uint32_t block_size, uint32_t& a,
                                                              uint32_t& b) const {
    constexpr size_t kBatch = 64;
    const __m256i offset = _mm256_set1_epi32(RSRollingChecksum::CHAR_OFFSET);
    const __m256i size = _mm256_set1_epi32(static_cast<int>(block_size));
    const __m256i low16 = _mm256_set1_epi32(0xFFFF);
    const __m256i five_bits = _mm256_set1_epi32(31);
    const __m256i index_mix = _mm256_set1_epi32(static_cast<int>(kIndexMix));
    const __m256i bits_mix = _mm256_set1_epi32(static_cast<int>(kBitsMix));
    const __m256i last_lane = _mm256_set1_epi32(7);
    const __m128i shift = _mm_cvtsi32_si128(static_cast<int>(m_shift));
    const uint32_t* words = m_words.data();
    alignas(32) uint32_t sum_a[kBatch];
    alignas(32) uint32_t sum_b[kBatch];
    alignas(32) uint32_t index[kBatch];
    alignas(32) uint32_t mask[kBatch];
    __m256i va = _mm256_set1_epi32(static_cast<int>(a));
    __m256i vb = _mm256_set1_epi32(static_cast<int>(b));
    size_t done = 0;
    while (done + kBatch <= count) {
        for (size_t i = 0; i < kBatch; i += 8) {
            const uint8_t* q = p + done + i;
            __m256i out =
                _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(q)));
            __m256i in = _mm256_cvtepu8_epi32(
                _mm_loadl_epi64(reinterpret_cast<const __m128i*>(q + block_size)));
            __m256i sa = _mm256_add_epi32(prefixSum(_mm256_sub_epi32(in, out)), va);
            __m256i drop = _mm256_mullo_epi32(_mm256_add_epi32(out, offset), size);
            __m256i sb = _mm256_add_epi32(prefixSum(_mm256_sub_epi32(sa, drop)), vb);
            va = _mm256_permutevar8x32_epi32(sa, last_lane);
            vb = _mm256_permutevar8x32_epi32(sb, last_lane);
            __m256i digest =
                _mm256_or_si256(_mm256_and_si256(sa, low16), _mm256_slli_epi32(sb, 16));
            __m256i h = _mm256_mullo_epi32(digest, bits_mix);
            __m256i bits = _mm256_or_si256(
                _mm256_or_si256(bitOf(_mm256_srli_epi32(h, 27)),
                                bitOf(_mm256_and_si256(_mm256_srli_epi32(h, 22), five_bits))),
                bitOf(_mm256_and_si256(_mm256_srli_epi32(h, 17), five_bits)));
            _mm256_store_si256(reinterpret_cast<__m256i*>(sum_a + i), sa);
            _mm256_store_si256(reinterpret_cast<__m256i*>(sum_b + i), sb);
            _mm256_store_si256(reinterpret_cast<__m256i*>(index + i),
                               _mm256_srl_epi32(_mm256_mullo_epi32(digest, index_mix), shift));
            _mm256_store_si256(reinterpret_cast<__m256i*>(mask + i), bits);
        }
        for (size_t i = 0; i < kBatch; ++i) {
            if ((words[index[i]] & mask[i]) != mask[i]) continue;
            a = sum_a[i];
            b = sum_b[i];
            return done + i + 1;
        }
        done += kBatch;
    }
    a = static_cast<uint32_t>(_mm256_cvtsi256_si32(va));
    b = static_cast<uint32_t>(_mm256_cvtsi256_si32(vb));
    size_t rest = scanPortable(p + done, count - done, block_size, a, b);
    return rest == 0 ? 0 : done + rest;
}

#else

size_t WeakFilter::scanVector(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                              uint32_t& b) const {
    return scanPortable(p, count, block_size, a, b);
}

#endif
