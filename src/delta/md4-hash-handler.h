// md4-hash-handler.h: the FileReader handler that computes the MD4 of the whole stream, the
// file hash the server compares. Used by uploads, downloads, rescans and the delta tool.
#pragma once

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>

#include <cstddef>
#include <cstdint>

#include "foundation/ustring.h"

class MD4HashHandler {
  public:
    // `result_string`, when not null, receives the hex digest at end; the caller keeps it
    // alive for the handler's life.
    explicit MD4HashHandler(ustring* result_string = nullptr) : result_string(result_string) {}

    int begin();
    int update(const void* buffer, size_t length);
    int wait() { return 0; }
    // Finishes the digest and stores it in `result` and the caller's string. Returns 0.
    int end();

    // The 16 bytes of `result` as 32 lower-case hex digits, high nibble first.
    ustring getResult() const;

  private:
    MD4_CTX mdfour;
    uint8_t result[16] = {};
    ustring* result_string;
};
