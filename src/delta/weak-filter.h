// weak-filter.h: the set of weak sums of a signature as a compact filter, and the inner loop of
// the delta matcher that rolls the weak sum over a stretch of windows and stops at the first
// one whose sum the signature may hold. Used by the delta handler; everything else about
// matching (strong sums, runs, commands) stays there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// A blocked Bloom filter: each weak sum sets three bits of one 32-bit word, chosen by two
// multiplicative hashes. A sum that was added always passes; of the others about one in 350
// passes with 32 bits per sum, one in 1150 with 64.
class WeakFilter {
  public:
    enum class Kernel { BEST, PORTABLE };

    // Empties the filter and gives it 32 bits for each of `count` sums (a power of two).
    void reset(size_t count);
    void add(uint32_t digest);
    bool mayContain(uint32_t digest) const {
        uint32_t mask = maskOf(digest);
        return (m_words[indexOf(digest)] & mask) == mask;
    }

    // The window of `block_size` bytes at `p` has the rolling sums `a` and `b`. Rolls the
    // window forward over the `count` windows at p + 1 .. p + count (reading p[0] up to
    // p[count + block_size - 1]) and stops at the first whose digest passes the filter:
    // returns its offset (1 to count) with `a` and `b` set to its sums, or 0 with `a` and
    // `b` set to the sums of the window at p + count. Kernel::BEST uses AVX2 where the
    // processor has it; both kernels give identical results.
    size_t scanWindows(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                       uint32_t& b, Kernel kernel = Kernel::BEST) const;

    // Whether Kernel::BEST runs the vector kernel on this processor.
    static bool vectorKernelAvailable();

    static constexpr uint32_t kIndexMix = 0x9E3779B1u;
    static constexpr uint32_t kBitsMix = 0x85EBCA77u;

  private:
    uint32_t indexOf(uint32_t digest) const { return (digest * kIndexMix) >> m_shift; }
    static uint32_t maskOf(uint32_t digest) {
        uint32_t h = digest * kBitsMix;
        return (1u << (h >> 27)) | (1u << ((h >> 22) & 31)) | (1u << ((h >> 17) & 31));
    }
    size_t scanPortable(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                        uint32_t& b) const;
    size_t scanVector(const uint8_t* p, size_t count, uint32_t block_size, uint32_t& a,
                      uint32_t& b) const;

    std::vector<uint32_t> m_words = std::vector<uint32_t>(1, 0);
    unsigned m_shift = 32;
};
