#include "delta/md4-lanes.h"

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>

#include <cstring>
#include <initializer_list>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

void hashPortable(const uint8_t* first, size_t stride, size_t length, size_t lanes,
                  uint8_t (*out)[Md4Lanes::DIGEST_SIZE]) {
    for (size_t i = 0; i < lanes; ++i) MD4(first + i * stride, length, out[i]);
}

#if defined(__x86_64__)

constexpr size_t kPiece = 64;
// A lane's last bytes with their padding and bit length take one or two pieces.
constexpr size_t kTailStride = 2 * kPiece;

struct State {
    __m256i a, b, c, d;
};

template <int S>
__attribute__((target("avx2"))) inline __m256i rotl(__m256i x) {
    return _mm256_or_si256(_mm256_slli_epi32(x, S), _mm256_srli_epi32(x, 32 - S));
}

__attribute__((target("avx2"))) inline __m256i add3(__m256i x, __m256i y, __m256i z) {
    return _mm256_add_epi32(_mm256_add_epi32(x, y), z);
}

// The three MD4 functions: choose, majority and parity.
__attribute__((target("avx2"))) inline __m256i f(__m256i x, __m256i y, __m256i z) {
    return _mm256_xor_si256(z, _mm256_and_si256(x, _mm256_xor_si256(y, z)));
}
__attribute__((target("avx2"))) inline __m256i g(__m256i x, __m256i y, __m256i z) {
    return _mm256_or_si256(_mm256_and_si256(x, y), _mm256_and_si256(z, _mm256_or_si256(x, y)));
}
__attribute__((target("avx2"))) inline __m256i h(__m256i x, __m256i y, __m256i z) {
    return _mm256_xor_si256(_mm256_xor_si256(x, y), z);
}

#define TB_MD4_STEP(fn, a, b, c, d, word, k, s) \
    a = rotl<s>(add3(a, fn(b, c, d), _mm256_add_epi32(word, k)))

// One 64-byte piece of every lane; word j of lane i lies at base + offsets[i] + 4 * j.
__attribute__((target("avx2"))) void compress(State& st, const uint8_t* base, __m256i offsets) {
    __m256i x[16];
    for (int j = 0; j < 16; ++j) {
        x[j] = _mm256_i32gather_epi32(reinterpret_cast<const int*>(base + 4 * j), offsets, 1);
    }
    const __m256i k1 = _mm256_setzero_si256();
    const __m256i k2 = _mm256_set1_epi32(0x5A827999);
    const __m256i k3 = _mm256_set1_epi32(0x6ED9EBA1);
    __m256i a = st.a, b = st.b, c = st.c, d = st.d;
    for (int j = 0; j < 16; j += 4) {
        TB_MD4_STEP(f, a, b, c, d, x[j], k1, 3);
        TB_MD4_STEP(f, d, a, b, c, x[j + 1], k1, 7);
        TB_MD4_STEP(f, c, d, a, b, x[j + 2], k1, 11);
        TB_MD4_STEP(f, b, c, d, a, x[j + 3], k1, 19);
    }
    for (int j = 0; j < 4; ++j) {
        TB_MD4_STEP(g, a, b, c, d, x[j], k2, 3);
        TB_MD4_STEP(g, d, a, b, c, x[j + 4], k2, 5);
        TB_MD4_STEP(g, c, d, a, b, x[j + 8], k2, 9);
        TB_MD4_STEP(g, b, c, d, a, x[j + 12], k2, 13);
    }
    for (int j : {0, 2, 1, 3}) {
        TB_MD4_STEP(h, a, b, c, d, x[j], k3, 3);
        TB_MD4_STEP(h, d, a, b, c, x[j + 8], k3, 9);
        TB_MD4_STEP(h, c, d, a, b, x[j + 4], k3, 11);
        TB_MD4_STEP(h, b, c, d, a, x[j + 12], k3, 15);
    }
    st.a = _mm256_add_epi32(st.a, a);
    st.b = _mm256_add_epi32(st.b, b);
    st.c = _mm256_add_epi32(st.c, c);
    st.d = _mm256_add_epi32(st.d, d);
}

#undef TB_MD4_STEP

// Lanes past `lanes` read lane 0's bytes again, so no load leaves the caller's memory.
__attribute__((target("avx2"))) __m256i laneOffsets(size_t stride, size_t lanes) {
    alignas(32) int32_t offsets[Md4Lanes::MAX_LANES];
    for (size_t i = 0; i < Md4Lanes::MAX_LANES; ++i)
        offsets[i] = i < lanes ? static_cast<int32_t>(i * stride) : 0;
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(offsets));
}

__attribute__((target("avx2"))) void hashVector(const uint8_t* first, size_t stride, size_t length,
                                                size_t lanes,
                                                uint8_t (*out)[Md4Lanes::DIGEST_SIZE]) {
    State st{_mm256_set1_epi32(0x67452301), _mm256_set1_epi32(static_cast<int>(0xEFCDAB89)),
             _mm256_set1_epi32(static_cast<int>(0x98BADCFE)), _mm256_set1_epi32(0x10325476)};
    const __m256i offsets = laneOffsets(stride, lanes);
    size_t whole = length / kPiece;
    for (size_t p = 0; p < whole; ++p) compress(st, first + p * kPiece, offsets);

    size_t rest = length - whole * kPiece;
    size_t tail_pieces = rest < kPiece - 8 ? 1 : 2;
    alignas(32) uint8_t tail[Md4Lanes::MAX_LANES][kTailStride] = {};
    uint64_t bits = static_cast<uint64_t>(length) * 8;
    for (size_t i = 0; i < lanes; ++i) {
        std::memcpy(tail[i], first + i * stride + whole * kPiece, rest);
        tail[i][rest] = 0x80;
        std::memcpy(tail[i] + tail_pieces * kPiece - 8, &bits, 8);  // little-endian
    }
    const __m256i tail_offsets = laneOffsets(kTailStride, lanes);
    for (size_t p = 0; p < tail_pieces; ++p) compress(st, tail[0] + p * kPiece, tail_offsets);

    alignas(32) uint32_t words[4][Md4Lanes::MAX_LANES];
    _mm256_store_si256(reinterpret_cast<__m256i*>(words[0]), st.a);
    _mm256_store_si256(reinterpret_cast<__m256i*>(words[1]), st.b);
    _mm256_store_si256(reinterpret_cast<__m256i*>(words[2]), st.c);
    _mm256_store_si256(reinterpret_cast<__m256i*>(words[3]), st.d);
    for (size_t i = 0; i < lanes; ++i) {
        for (size_t w = 0; w < 4; ++w) std::memcpy(out[i] + 4 * w, &words[w][i], 4);
    }
}

#endif

}  // namespace

bool Md4Lanes::vectorKernelAvailable() {
#if defined(__x86_64__)
    static const bool available = __builtin_cpu_supports("avx2");
    return available;
#else
    return false;
#endif
}

void Md4Lanes::hash(const uint8_t* first, size_t stride, size_t length, size_t lanes,
                    uint8_t (*out)[DIGEST_SIZE], Kernel kernel) {
#if defined(__x86_64__)
    // The vector loads address lanes with 32-bit offsets.
    bool offsets_fit = lanes == 0 || (lanes - 1) * stride + length <=
                                         static_cast<size_t>(std::numeric_limits<int32_t>::max());
    if (kernel == Kernel::BEST && lanes > 1 && offsets_fit && vectorKernelAvailable()) {
        hashVector(first, stride, length, lanes, out);
        return;
    }
#endif
    hashPortable(first, stride, length, lanes, out);
}
