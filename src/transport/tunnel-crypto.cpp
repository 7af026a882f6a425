// tunnel-crypto.cpp: the token's layout, its Triple DES payload and the base64 filter.
#include "transport/tunnel-crypto.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cctype>
#include <cstring>
#include <memory>
#include <vector>

#include "transport/tunnel-format.h"

namespace tf = tunnel_format;

namespace {

void PutBig(unsigned char* at, uint32_t value, size_t size) {
    for (size_t i = size; i-- > 0; value >>= 8) at[i] = static_cast<unsigned char>(value & 0xFF);
}

uint32_t GetBig(const unsigned char* at, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) value = (value << 8) | at[i];
    return value;
}

struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
struct BioFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};

// Runs Triple DES CBC over `in` with the key of `seed`: the output's length, or -1.
int RunCipher(bool encrypt, uint32_t seed, const unsigned char* in, size_t len,
              unsigned char* out) {
    unsigned char key[tf::kKeySize];
    if (ZEPHCryptoGenerateKey(key, seed, sizeof key) != 0) return -1;
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> ctx(EVP_CIPHER_CTX_new());
    int n = 0;
    int last = 0;
    const bool ok =
        ctx != nullptr &&
        EVP_CipherInit_ex(ctx.get(), EVP_des_ede3_cbc(), nullptr, key, tf::kIv, encrypt) == 1 &&
        EVP_CipherUpdate(ctx.get(), out, &n, in, static_cast<int>(len)) == 1 &&
        EVP_CipherFinal_ex(ctx.get(), out + n, &last) == 1;
    OPENSSL_cleanse(key, sizeof key);
    return ok ? n + last : -1;
}

bool IsBase64(const char* text, size_t len) {
    if (len == 0 || len % 4 != 0) return false;
    for (size_t i = 0; i < len; ++i) {
        const char c = text[i];
        const bool pad = c == '=' && i >= len - 2 && (i == len - 1 || text[len - 1] == '=');
        if (!pad && !std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '/')
            return false;
    }
    return true;
}

}  // namespace

size_t ZEPHCryptoEncryptLength(size_t cbContext) {
    return cbContext + tf::kTokenBoundExtra;
}

size_t ZEPHCryptoEncrypt(unsigned char* pOutput, size_t cbOutput, const unsigned char* pContext,
                         size_t cbContext) {
    const size_t n = (cbContext / tf::kBlockSize + 1) * tf::kBlockSize;
    const size_t total = n + tf::kTokenOverhead;
    if (pOutput == nullptr || cbOutput < total || cbContext > INT32_MAX) return 0;
    if (RAND_bytes(pOutput, static_cast<int>(tf::kPayloadOffset)) != 1 ||
        RAND_bytes(pOutput + tf::kPayloadOffset + n, static_cast<int>(tf::kTrailerSize)) != 1)
        return 0;
    PutBig(pOutput + tf::kMarkerOffset, tf::kTokenMarker, 2);
    PutBig(pOutput + tf::kVersionOffset, tf::kTokenVersion, 2);
    PutBig(pOutput + tf::kLengthOffset, static_cast<uint32_t>(n), 4);
    const uint32_t seed = GetBig(pOutput + tf::kSeedOffset, 4);
    const int written = RunCipher(true, seed, pContext, cbContext, pOutput + tf::kPayloadOffset);
    return written == static_cast<int>(n) ? total : 0;
}

size_t ZEPHCryptoDecrypt(unsigned char* pOutput, size_t cbOutput, const unsigned char* pContext,
                         size_t cbContext) {
    if (pContext == nullptr || cbContext <= tf::kTokenOverhead) return 0;
    if (GetBig(pContext + tf::kMarkerOffset, 2) != tf::kTokenMarker) return 0;
    if (GetBig(pContext + tf::kVersionOffset, 2) > tf::kTokenVersion) return 0;
    const size_t n = GetBig(pContext + tf::kLengthOffset, 4);
    if (n + tf::kTokenOverhead > cbContext || n == 0 || n % tf::kBlockSize != 0) return 0;
    std::vector<unsigned char> plain(n + tf::kBlockSize);
    const int len = RunCipher(false, GetBig(pContext + tf::kSeedOffset, 4),
                              pContext + tf::kPayloadOffset, n, plain.data());
    if (len < 0 || pOutput == nullptr || static_cast<size_t>(len) > cbOutput) return 0;
    std::memcpy(pOutput, plain.data(), static_cast<size_t>(len));
    OPENSSL_cleanse(plain.data(), plain.size());
    return static_cast<size_t>(len);
}

size_t ZEPHCryptoBase64Encode(char* pszEncoded, size_t cbEncoded, const unsigned char* pContext,
                              size_t cbContext) {
    const size_t needed = (cbContext + 2) / 3 * 4;
    if (pszEncoded == nullptr || cbEncoded < needed + 1 || cbContext > INT32_MAX) return 0;
    std::unique_ptr<BIO, BioFree> chain(BIO_new(BIO_f_base64()));
    BIO* mem = BIO_new(BIO_s_mem());
    if (chain == nullptr || mem == nullptr) {
        BIO_free(mem);
        return 0;
    }
    BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(chain.get(), mem);
    if (cbContext > 0 && BIO_write(chain.get(), pContext, static_cast<int>(cbContext)) !=
                             static_cast<int>(cbContext))
        return 0;
    if (BIO_flush(chain.get()) != 1) return 0;
    char* data = nullptr;
    const long len = BIO_get_mem_data(mem, &data);
    if (len < 0 || static_cast<size_t>(len) != needed) return 0;
    std::memcpy(pszEncoded, data, needed);
    pszEncoded[needed] = '\0';
    return needed;
}

size_t ZEPHCryptoBase64Decode(unsigned char* pszDecoded, size_t cbDecoded, const char* pszEncoded,
                              size_t cbEncoded) {
    if (pszEncoded == nullptr || !IsBase64(pszEncoded, cbEncoded) || cbEncoded > INT32_MAX)
        return 0;
    std::unique_ptr<BIO, BioFree> chain(BIO_new(BIO_f_base64()));
    BIO* mem = BIO_new_mem_buf(pszEncoded, static_cast<int>(cbEncoded));
    if (chain == nullptr || mem == nullptr) {
        BIO_free(mem);
        return 0;
    }
    BIO_set_flags(chain.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(chain.get(), mem);
    const size_t padding = (pszEncoded[cbEncoded - 1] == '=') + (pszEncoded[cbEncoded - 2] == '=');
    const size_t expected = cbEncoded / 4 * 3 - padding;
    if (pszDecoded == nullptr || cbDecoded < expected) return 0;
    const int got = BIO_read(chain.get(), pszDecoded, static_cast<int>(expected));
    return got == static_cast<int>(expected) ? expected : 0;
}

int ZEPHCryptoGenerateKey(unsigned char* pKey, uint32_t seed, size_t cbKey) {
    unsigned char mixed[4];
    PutBig(mixed, seed * tf::kSeedMultiplier + tf::kSeedIncrement, sizeof mixed);
    unsigned char digests[EVP_MAX_MD_SIZE * 2];
    const size_t sha = ZEPHCryptoDigestUpdate("SHA1", mixed, sizeof mixed, digests);
    const size_t md5 =
        sha == 0 ? 0 : ZEPHCryptoDigestUpdate("MD5", mixed, sizeof mixed, digests + sha);
    if (md5 == 0 || cbKey > sha + md5) return -1;
    std::memcpy(pKey, digests, cbKey);
    OPENSSL_cleanse(digests, sizeof digests);
    return 0;
}

size_t ZEPHCryptoDigestUpdate(const char* md_name, const unsigned char* pData, size_t cbData,
                              unsigned char* pDigest) {
    const EVP_MD* md = EVP_get_digestbyname(md_name);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    unsigned int len = 0;
    if (md == nullptr || ctx == nullptr || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1 ||
        EVP_DigestUpdate(ctx.get(), pData, cbData) != 1 ||
        EVP_DigestFinal_ex(ctx.get(), pDigest, &len) != 1)
        return 0;
    return len;
}
