// utility.cpp: Base64 and wire scrambling on OpenSSL, text checks, host name.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "foundation/utility.h"

#include <openssl/bio.h>
#include <openssl/blowfish.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/system.h"

// Both ends of a connection must hold these bytes; changing them breaks every
// stored or exchanged scrambled string.
const unsigned char g_encChalleng[4] = {0x7a, 0x51, 0xc3, 0x2e};

namespace {

const char kLog[] = "utility_debug";
constexpr size_t kBase64InputLimit = kBase64EncLimit / 4 * 3;
constexpr size_t kConvertLimit = 8192;
// There is no platform id on this system; the host line keeps its place in the log.
constexpr int kPlatformId = 0;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

BioPtr base64_over(BIO* sink) {
    BIO* b64 = BIO_new(BIO_f_base64());
    if (b64 == nullptr || sink == nullptr) {
        BIO_free(b64);
        BIO_free(sink);
        return nullptr;
    }
    BIO_set_flags(b64, BIO_FLAGS_BASE64_NO_NL);
    return BioPtr(BIO_push(b64, sink));
}

bool is_base64_char(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

// Bytes that well-formed input decodes to, or -1. The decoder is lenient about
// stray characters, so the shape is checked here first.
long decoded_size(const char* in, size_t inlen) {
    if (inlen % 4 != 0) return -1;
    size_t pad = 0;
    while (pad < 2 && in[inlen - 1 - pad] == '=') ++pad;
    for (size_t i = 0; i < inlen - pad; ++i)
        if (!is_base64_char(static_cast<unsigned char>(in[i]))) return -1;
    return static_cast<long>(inlen / 4 * 3 - pad);
}

void blowfish(const unsigned char* in, unsigned char* out, size_t n, int direction) {
    BF_KEY key;
    BF_set_key(&key, sizeof g_encChalleng, g_encChalleng);
    unsigned char iv[8] = {};
    int num = 0;
    BF_cfb64_encrypt(in, out, static_cast<long>(n), &key, iv, &num, direction);
}

}  // namespace

std::unique_ptr<char[]> SzBase64EncBuffer(const void* buffer, size_t length) {
    auto out = std::make_unique<char[]>(kBase64EncLimit + 1);
    length = std::min(length, kBase64InputLimit);
    if (length == 0) return out;
    BioPtr bio = base64_over(BIO_new(BIO_s_mem()));
    if (!bio) return out;
    if (BIO_write(bio.get(), buffer, static_cast<int>(length)) != static_cast<int>(length) ||
        BIO_flush(bio.get()) != 1)
        return out;
    char* data = nullptr;
    long n = BIO_get_mem_data(BIO_next(bio.get()), &data);
    if (n > 0) std::memcpy(out.get(), data, std::min(static_cast<size_t>(n), kBase64EncLimit));
    return out;
}

std::unique_ptr<char[]> SzBase64EncOneLine(const char* subject, size_t length) {
    const void* zero = std::memchr(subject, 0, length);
    if (zero != nullptr) length = static_cast<size_t>(static_cast<const char*>(zero) - subject);
    return SzBase64EncBuffer(subject, length);
}

bool EncBase64Dec(const char* in, size_t inlen, unsigned char* out, size_t* outlen) {
    size_t space = *outlen;
    *outlen = 0;
    if (inlen == 0) return true;
    long want = decoded_size(in, inlen);
    if (want < 0 || static_cast<size_t>(want) > space) return false;
    if (want == 0) return true;
    BioPtr bio = base64_over(BIO_new_mem_buf(in, static_cast<int>(inlen)));
    if (!bio) return false;
    long got = 0;
    while (got < want) {
        int n = BIO_read(bio.get(), out + got, static_cast<int>(want - got));
        if (n <= 0) break;
        got += n;
    }
    if (got != want) return false;
    *outlen = static_cast<size_t>(got);
    return true;
}

int SyncPassEnc(const std::string& in, std::string& out) {
    out.clear();
    if (in.empty()) return 0;
    if (in.size() > kBase64InputLimit) return -1;
    std::vector<unsigned char> buf(in.size() + 1);
    blowfish(reinterpret_cast<const unsigned char*>(in.data()), buf.data(), in.size(), BF_ENCRYPT);
    out = SzBase64EncBuffer(buf.data(), in.size()).get();
    return 0;
}

int SyncPassDec(const std::string& in, std::string& out) {
    out.clear();
    if (in.empty()) return 0;
    std::vector<unsigned char> raw(in.size());
    size_t n = raw.size();
    if (!EncBase64Dec(in.data(), in.size(), raw.data(), &n)) return -1;
    std::vector<unsigned char> plain(n + 1);
    blowfish(raw.data(), plain.data(), n, BF_DECRYPT);
    out.assign(reinterpret_cast<const char*>(plain.data()), n);
    return 0;
}

int SyncPassEnc(const ustring& in, ustring& out) {
    std::string enc;
    int rc = SyncPassEnc(in.str(), enc);
    out = enc;
    return rc;
}

int SyncPassDec(const ustring& in, ustring& out) {
    std::string dec;
    int rc = SyncPassDec(in.str(), dec);
    out = dec;
    return rc;
}

namespace {

int checked_copy(const std::string& in, std::string& out) {
    out.clear();
    if (in.empty()) return 0;
    if (in.size() >= kConvertLimit || !ustring::is_valid(ustring(in))) return -1;
    out = in;
    return 0;
}

}  // namespace

int CodePageToNativeStr(const std::string& in, ustring& out) {
    return UTF8ToNativeStr(in, out);
}

int UTF8ToNativeStr(const std::string& in, ustring& out) {
    std::string copy;
    int rc = checked_copy(in, copy);
    out = copy;
    return rc;
}

int NativeStrToCodePage(const ustring& in, std::string& out) {
    return NativeStrToUTF8(in, out);
}

int NativeStrToUTF8(const ustring& in, std::string& out) {
    return checked_copy(in.str(), out);
}

int GetSysHostName(ustring& host) {
    std::string name;
    int err = 0;
    if (platform::host_name(name, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog,
                       "[ERROR] utility(%d): A system error has occurred: %d\n", __LINE__, err);
        return -1;
    }
    host = name;
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): Platform: %d\n", __LINE__,
                   kPlatformId);
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): Host:   %s\n", __LINE__,
                   host.c_str_utf8());
    return 0;
}

void ParseUsrName(ustring& user_name, ustring& domain) {
    size_t cut = user_name.rfind('/');
    if (cut == ustring::npos) cut = user_name.rfind('\\');
    if (cut == ustring::npos) {
        domain.clear();
        return;
    }
    domain = user_name.substr(0, cut);
    user_name = user_name.substr(cut + 1);
}

uint64_t GetMonotonicMs() {
    return static_cast<uint64_t>(platform::TickMs());
}
