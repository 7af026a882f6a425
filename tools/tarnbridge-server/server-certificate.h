// server-certificate.h: the reference server's TLS identity, a self-signed certificate and
// its private key in the data folder (DIR/tls/server.crt, DIR/tls/server.key). "init" makes
// them and prints the certificate's fingerprint for the clients' ssl_pin; the server makes
// them too when a data folder lacks them, and presents them on every TLS connection.
#pragma once

#include <string>

namespace server_certificate {

std::string CertificatePath(const std::string& data_dir);
std::string KeyPath(const std::string& data_dir);

// Makes sure both files exist: when either is missing, a new P-256 key and a certificate
// for it, valid ten years, naming 127.0.0.1, "localhost" and `listen` (when it is a
// specific address). The key file is readable by its owner only. 0 and the certificate's
// SHA-256 fingerprint in `fingerprint`, or -1 with the reason on standard error.
int Ensure(const std::string& data_dir, const std::string& listen, std::string& fingerprint);

}  // namespace server_certificate
