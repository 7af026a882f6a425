// delta-ops.h: what the server asks of the delta engine, in file terms: hash a file, apply
// a client's delta to the content it names as base, and make a delta that takes a client's
// base to the version it wants. Used by the upload and download handlers and the admin
// "put" command. Results: 0 or -1 (output files stay for the caller to remove).
#pragma once

#include <string>

namespace delta_ops {

// The 32 hex digits of the file's MD4.
int HashFile(const std::string& path, std::string& md4);
// Copies `from` to `to` and hashes it in the same pass.
int CopyAndHash(const std::string& from, const std::string& to, std::string& md4);
// Writes `basis` patched by `delta` to `out` and hashes the result. -1 for a malformed
// delta or one that doesn't fit the basis (copies from beyond its end, truncation).
int Patch(const std::string& delta, const std::string& basis, const std::string& out,
          std::string& md4);
// Writes to `delta_out` a delta from `basis` to `target`; `signature_tmp` is a scratch file
// for the basis's signature, removed afterwards. The delta is realigned: blocks are found
// again after inserts and deletes, so a shifted file still downloads as a small delta (the
// client's patch applies any valid delta).
int MakeDelta(const std::string& basis, const std::string& target, const std::string& signature_tmp,
              const std::string& delta_out);

}  // namespace delta_ops
