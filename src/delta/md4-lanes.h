// md4-lanes.h: the MD4 of several blocks of one length at once, eight to a vector where the
// processor has AVX2. Used by the delta matcher, which during a run of copied blocks knows the
// next blocks it will have to confirm and hashes them together.
#pragma once

#include <cstddef>
#include <cstdint>

class Md4Lanes {
  public:
    static constexpr size_t MAX_LANES = 8;
    static constexpr size_t DIGEST_SIZE = 16;

    enum class Kernel { BEST, PORTABLE };

    // Writes to out[i] the 16-byte MD4 of the `length` bytes at first + i * stride, for each
    // i below `lanes` (at most MAX_LANES). The digests are those of OpenSSL's MD4 whichever
    // kernel runs; Kernel::BEST uses the vector one where the processor has AVX2.
    static void hash(const uint8_t* first, size_t stride, size_t length, size_t lanes,
                     uint8_t (*out)[DIGEST_SIZE], Kernel kernel = Kernel::BEST);

    // Whether Kernel::BEST runs the vector kernel on this processor.
    static bool vectorKernelAvailable();
};
