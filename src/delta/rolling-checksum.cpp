#include "delta/rolling-checksum.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

#if defined(__SSE2__)
uint32_t sumLanes32(__m128i v) {
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2)));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(2, 3, 0, 1)));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(v));
}

// Sums over whole groups of 16 bytes. With group sums g_k and in-group weights j,
// s2 = 16 * sum_k (running s1 after group k) - sum_j j * c_j, which is the byte-by-byte
// recurrence regrouped; everything is linear, so wrapping lanes give the same result.
void groupSums(const uint8_t* p, size_t groups, uint32_t& s1, uint32_t& s2) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i weights_lo = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
    const __m128i weights_hi = _mm_setr_epi16(8, 9, 10, 11, 12, 13, 14, 15);
    __m128i running = zero;
    __m128i prefix = zero;
    __m128i weighted = zero;
    for (size_t g = 0; g < groups; ++g) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * g));
        running = _mm_add_epi32(running, _mm_sad_epu8(v, zero));
        prefix = _mm_add_epi32(prefix, running);
        weighted = _mm_add_epi32(weighted, _mm_madd_epi16(_mm_unpacklo_epi8(v, zero), weights_lo));
        weighted = _mm_add_epi32(weighted, _mm_madd_epi16(_mm_unpackhi_epi8(v, zero), weights_hi));
    }
    s1 = sumLanes32(running);
    s2 = 16 * sumLanes32(prefix) - sumLanes32(weighted);
}
#endif

}  // namespace

void RSRollingChecksum::blockSums(const uint8_t* p, size_t len, uint32_t& s1, uint32_t& s2) {
    s1 = 0;
    s2 = 0;
    size_t i = 0;
#if defined(__SSE2__)
    size_t groups = len / 16;
    if (groups != 0) {
        groupSums(p, groups, s1, s2);
        i = groups * 16;
    }
#endif
    for (; i < len; ++i) {
        s1 += p[i];
        s2 += s1;
    }
}

void RSRollingChecksum::update(const void* bytes, size_t len) {
    uint32_t s1;
    uint32_t s2;
    blockSums(static_cast<const uint8_t*>(bytes), len, s1, s2);
    uint32_t n = static_cast<uint32_t>(len);
    uint32_t offset = n * CHAR_OFFSET;
    a += s1 + offset;
    b += s2 + (((n + 1) * offset) >> 1);
    count += len;
}
