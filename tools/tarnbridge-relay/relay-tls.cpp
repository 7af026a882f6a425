// relay-tls.cpp: the server context and the throwaway certificate.
#include "relay-tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;

std::string LastError(const char* what) {
    char text[256];
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    return std::string(what) + ": " + text;
}

// A P-256 key and a certificate for it, signed by itself, valid for a year.
bool MakeSelfSigned(SSL_CTX* ctx, std::string& error) {
    KeyPtr key(EVP_EC_gen("P-256"));
    CertPtr cert(X509_new());
    if (key == nullptr || cert == nullptr) {
        error = LastError("cannot make a key");
        return false;
    }
    X509_NAME* name = X509_get_subject_name(cert.get());
    const bool made =
        X509_set_version(cert.get(), 2) == 1 &&
        ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) == 1 &&
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600) != nullptr &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("tarnbridge-relay"), -1,
                                   -1, 0) == 1 &&
        X509_set_issuer_name(cert.get(), name) == 1 &&
        X509_set_pubkey(cert.get(), key.get()) == 1 &&
        X509_sign(cert.get(), key.get(), EVP_sha256()) > 0 &&
        SSL_CTX_use_certificate(ctx, cert.get()) == 1 &&
        SSL_CTX_use_PrivateKey(ctx, key.get()) == 1;
    if (!made) error = LastError("cannot make a self-signed certificate");
    return made;
}

bool LoadFiles(SSL_CTX* ctx, const RelayOptions& options, std::string& error) {
    if (SSL_CTX_use_certificate_chain_file(ctx, options.cert_file.c_str()) != 1) {
        error = LastError(("cannot load the certificate " + options.cert_file).c_str());
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, options.key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
        error = LastError(("cannot load the private key " + options.key_file).c_str());
        return false;
    }
    return true;
}

}  // namespace

SSL_CTX* MakeRelayContext(const RelayOptions& options, std::string& error) {
    if (options.cert_file.empty() != options.key_file.empty()) {
        error = "a certificate needs its key, and a key its certificate";
        return nullptr;
    }
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (ctx == nullptr) {
        error = LastError("cannot make a TLS context");
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_options(ctx, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(ctx, 0);
    const bool ready =
        options.cert_file.empty() ? MakeSelfSigned(ctx, error) : LoadFiles(ctx, options, error);
    if (ready && SSL_CTX_check_private_key(ctx) != 1)
        error = "the key does not match the certificate";
    if (!ready || !error.empty()) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}
