// server-certificate.cpp: making, writing and checking the server's certificate and key.
#include "server-certificate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "transport/ssl-channel.h"

namespace server_certificate {
namespace {

constexpr long kValidSeconds = 10L * 365 * 24 * 3600;

struct Free {
    void operator()(BIO* b) const { BIO_free(b); }
    void operator()(X509* x) const { X509_free(x); }
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
    void operator()(BIGNUM* n) const { BN_free(n); }
    void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};
template <typename T>
using Owned = std::unique_ptr<T, Free>;

int Fail(const std::string& what) {
    char reason[256] = "";
    if (unsigned long e = ERR_get_error(); e != 0) ERR_error_string_n(e, reason, sizeof reason);
    ERR_clear_error();
    std::fprintf(stderr, "tarnbridge-server: %s%s%s\n", what.c_str(), *reason ? ": " : "", reason);
    return -1;
}

// The names a client may know the server by.
std::string AltNames(const std::string& listen) {
    std::string names = "IP:127.0.0.1,DNS:localhost";
    in_addr addr{};
    if (listen != "127.0.0.1" && listen != "0.0.0.0" &&
        inet_pton(AF_INET, listen.c_str(), &addr) == 1)
        names += ",IP:" + listen;
    return names;
}

bool AddExtension(X509* cert, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    Owned<X509_EXTENSION> ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// A self-signed certificate for `key`; null on failure.
Owned<X509> MakeCertificate(EVP_PKEY* key, const std::string& listen) {
    Owned<X509> cert(X509_new());
    Owned<BIGNUM> serial(BN_new());
    if (!cert || !serial || X509_set_version(cert.get(), 2) != 1 ||
        BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) != 1 ||
        !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())))
        return nullptr;
    // An hour's grace for clients whose clock is behind.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidSeconds);
    X509_NAME* name = X509_get_subject_name(cert.get());
    const auto* cn = reinterpret_cast<const unsigned char*>("tarnbridge-server");
    if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, cn, -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), name) != 1 || X509_set_pubkey(cert.get(), key) != 1)
        return nullptr;
    // Its own authority, so that a client can name the certificate itself as its CA file.
    if (!AddExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") ||
        !AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign") ||
        !AddExtension(cert.get(), NID_ext_key_usage, "serverAuth") ||
        !AddExtension(cert.get(), NID_subject_key_identifier, "hash") ||
        !AddExtension(cert.get(), NID_subject_alt_name, AltNames(listen)))
        return nullptr;
    if (X509_sign(cert.get(), key, EVP_sha256()) <= 0) return nullptr;
    return cert;
}

// Writes `bio`'s bytes to `path` with `mode`, through a temporary name so that a crash
// leaves the old file or the new one, never half of one.
int WriteFile(const std::string& path, BIO* bio, mode_t mode) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    const std::string tmp = path + ".tmp";
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) return -1;
    bool ok = ::fchmod(fd, mode) == 0 && ::write(fd, data, size) == size && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

int Create(const std::string& data_dir, const std::string& listen) {
    std::error_code ec;
    std::filesystem::create_directories(data_dir + "/tls", ec);
    Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
    if (!key) return Fail("cannot make a key");
    Owned<X509> cert = MakeCertificate(key.get(), listen);
    if (!cert) return Fail("cannot make a certificate");
    Owned<BIO> key_pem(BIO_new(BIO_s_mem()));
    Owned<BIO> cert_pem(BIO_new(BIO_s_mem()));
    if (!key_pem || !cert_pem ||
        PEM_write_bio_PrivateKey(key_pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
            1 ||
        PEM_write_bio_X509(cert_pem.get(), cert.get()) != 1)
        return Fail("cannot encode the certificate");
    // The key first: a certificate on disk always has its key beside it.
    if (WriteFile(KeyPath(data_dir), key_pem.get(), 0600) < 0 ||
        WriteFile(CertificatePath(data_dir), cert_pem.get(), 0644) < 0)
        return Fail("cannot write " + data_dir + "/tls: " + std::strerror(errno));
    return 0;
}

}  // namespace

std::string CertificatePath(const std::string& data_dir) {
    return data_dir + "/tls/server.crt";
}

std::string KeyPath(const std::string& data_dir) {
    return data_dir + "/tls/server.key";
}

int Ensure(const std::string& data_dir, const std::string& listen, std::string& fingerprint) {
    std::error_code ec;
    const bool present = std::filesystem::exists(CertificatePath(data_dir), ec) &&
                         std::filesystem::exists(KeyPath(data_dir), ec);
    if (!present && Create(data_dir, listen) < 0) return -1;
    Owned<BIO> cert_file(BIO_new_file(CertificatePath(data_dir).c_str(), "r"));
    Owned<BIO> key_file(BIO_new_file(KeyPath(data_dir).c_str(), "r"));
    Owned<X509> cert(cert_file ? PEM_read_bio_X509(cert_file.get(), nullptr, nullptr, nullptr)
                               : nullptr);
    Owned<EVP_PKEY> key(
        key_file ? PEM_read_bio_PrivateKey(key_file.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert || !key) return Fail("cannot read the certificate and key in " + data_dir + "/tls");
    if (X509_check_private_key(cert.get(), key.get()) != 1)
        return Fail("the key in " + data_dir + "/tls does not belong to its certificate");
    fingerprint = CertificateFingerprint(cert.get());
    return 0;
}

}  // namespace server_certificate
