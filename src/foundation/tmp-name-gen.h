// tmp-name-gen.h: unguessable names for temporary files. One process-wide RC4
// generator keyed from the monotonic clock at first use gives 48 random bits per
// name. Used by the file layer (FSMktemp, FSCreateTempPath) and by PStream when a
// received binary needs a file.
#pragma once

#include <cstdint>
#include <mutex>

#include "foundation/ustring.h"

class TmpNameGen {
  public:
    // The single generator, made on first use. Thread-safe.
    static TmpNameGen& getInstance();

    // prefix + "/" + 8 characters of [0-9a-zA-Z-_] (48 random bits). Never empty and
    // never touches the disk: a caller that creates the file must still refuse an
    // existing name. Thread-safe.
    static ustring getTmpName(const ustring& prefix);

    TmpNameGen(const TmpNameGen&) = delete;
    TmpNameGen& operator=(const TmpNameGen&) = delete;

  private:
    TmpNameGen();

    // Fills key with the monotonic counter printed in decimal, zero bytes behind.
    static void get_key(uint8_t* key, size_t size);
    // RC4 key schedule over all 256 key bytes (a short key is not repeated).
    static void rc4_init(uint8_t* s_box, uint8_t* key);
    // `length` bytes of RC4 output; i starts at 1 and j at 0 on each call, only the
    // S-box carries over.
    static void rc4_randomize(uint8_t* s_box, uint8_t* out, size_t length);

    uint8_t m_s_box[256];
    uint8_t m_key[256];
    uint8_t m_buffer[6];
    static std::mutex m_lock;
};
