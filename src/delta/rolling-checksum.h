// rolling-checksum.h: the weak rolling sum of signatures and deltas. Used by the signature
// writer (one fresh sum per block) and by the delta matcher (a window rolled byte by byte).
#pragma once

#include <cstddef>
#include <cstdint>

// Two 32-bit running sums over a window, with every byte counted as byte + CHAR_OFFSET.
// `a` is the sum of the bytes, `b` the sum of the prefix sums. All arithmetic wraps.
class RSRollingChecksum {
  public:
    static constexpr uint32_t CHAR_OFFSET = 31;

    void clear() {
        count = 0;
        a = 0;
        b = 0;
    }

    // Adds `len` bytes behind the window. The prefix sums of the new bytes start from 0,
    // not from `a`: on an empty window this gives the true sum, on a window that already
    // holds bytes `b` misses the term len * a. Matching depends on that exact behaviour, so
    // it is kept as it stands.
    void update(const void* bytes, size_t len);

    void roll_in(uint8_t c) {
        a += CHAR_OFFSET + c;
        b += a;
        ++count;
    }

    void roll_out(uint8_t c) {
        a -= CHAR_OFFSET + c;
        b -= (uint32_t(c) + CHAR_OFFSET) * static_cast<uint32_t>(count);
        --count;
    }

    // Drops `out` from the front and takes `in` at the back.
    void rotate(uint8_t out, uint8_t in) {
        roll_out(out);
        roll_in(in);
    }

    size_t size() const { return count; }
    bool empty() const { return count == 0; }

    // Low half: a's low 16 bits; high half: b's low 16 bits.
    uint32_t digest() const { return (a & 0xFFFF) | (b << 16); }

    // The plain sums of `len` bytes: s1 = sum of bytes, s2 = sum of the running s1 after each
    // byte, both modulo 2^32 and without the offset. Exposed for the matcher and for tests.
    static void blockSums(const uint8_t* bytes, size_t len, uint32_t& s1, uint32_t& s2);

    size_t count = 0;
    uint32_t a = 0;
    uint32_t b = 0;
};
