// tunnel-crypto.h: the relay's authentication token and its base64 text. The daemon's
// tunnel client makes a token for every request; tarnbridge-relay reads it back and checks
// it against the target asked for. The layout and the fixed values are in tunnel-format.h.
// Safe to call from several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>

// The most a token over `cbContext` plain bytes can take.
size_t ZEPHCryptoEncryptLength(size_t cbContext);

// A new token over the `cbContext` bytes at `pContext`, into `pOutput`: fresh random seed
// and filler each call, so two tokens over the same text differ. The token's length; 0
// when `cbOutput` is too small or the random source or cipher fails.
size_t ZEPHCryptoEncrypt(unsigned char* pOutput, size_t cbOutput, const unsigned char* pContext,
                         size_t cbContext);

// The plain text of the token at `pContext` into `pOutput`: its length, or 0 for a token
// of 26 bytes or less, a wrong marker, a version this build doesn't know, a payload length
// past the input, a payload that doesn't decrypt, or an output too small for it.
size_t ZEPHCryptoDecrypt(unsigned char* pOutput, size_t cbOutput, const unsigned char* pContext,
                         size_t cbContext);

// Base64 without line breaks into `pszEncoded`, zero-terminated. The text's length; 0 when
// it and its zero don't fit in `cbEncoded`.
size_t ZEPHCryptoBase64Encode(char* pszEncoded, size_t cbEncoded, const unsigned char* pContext,
                              size_t cbContext);
// The reverse: the decoded length, or 0 when `pszEncoded` is not base64 or the bytes don't
// fit in `cbDecoded`.
size_t ZEPHCryptoBase64Decode(unsigned char* pszDecoded, size_t cbDecoded, const char* pszEncoded,
                              size_t cbEncoded);

// The Triple DES key of a seed, `cbKey` bytes of it (at most the SHA-1 and MD5 digests'
// 36). 0, or -1 when a digest fails.
int ZEPHCryptoGenerateKey(unsigned char* pKey, uint32_t seed, size_t cbKey);

// The digest `md_name` ("SHA1", "MD5") of `cbData` bytes into `pDigest`, which holds at
// least the digest's size: that size, or 0 on failure.
size_t ZEPHCryptoDigestUpdate(const char* md_name, const unsigned char* pData, size_t cbData,
                              unsigned char* pDigest);
