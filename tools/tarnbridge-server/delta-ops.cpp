// delta-ops.cpp: the delta engine's readers, set up for the server's uses.
#include "delta-ops.h"

#include <cstdio>

#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"
#include "foundation/ustring.h"

namespace delta_ops {

namespace {

// The block size and strong sum length of every signature in the system.
constexpr size_t kBlockSize = 2048;
constexpr size_t kHashSize = 8;

}  // namespace

int HashFile(const std::string& path, std::string& md4) {
    ustring hash;
    SimpleFileReader reader;
    reader.setFile(path.c_str());
    reader.setHashString(hash);
    if (reader.readFile() != 0) return -1;
    md4 = hash.str();
    return 0;
}

int CopyAndHash(const std::string& from, const std::string& to, std::string& md4) {
    ustring hash;
    SimpleFileReader reader;
    reader.setFile(from.c_str());
    reader.setCopyFile(to.c_str());
    reader.setHashString(hash);
    if (reader.readFile() != 0) return -1;
    md4 = hash.str();
    return 0;
}

int Patch(const std::string& delta, const std::string& basis, const std::string& out,
          std::string& md4) {
    ustring hash;
    DeltaFileReader reader;
    reader.setFile(delta.c_str(), basis.c_str());
    reader.setNewFile(out.c_str());
    reader.setHashString(hash);
    if (reader.readFile() != 0 || reader.getPatchResult() != 0) return -1;
    md4 = hash.str();
    return 0;
}

int MakeDelta(const std::string& basis, const std::string& target, const std::string& signature_tmp,
              const std::string& delta_out) {
    int rc;
    {
        SimpleFileReader sign;
        sign.setFile(basis.c_str());
        sign.setSignature(signature_tmp.c_str(), kBlockSize, kHashSize);
        rc = sign.readFile();
    }
    if (rc == 0) {
        SimpleFileReader diff;
        diff.setFile(target.c_str());
        diff.setDelta(delta_out.c_str(), signature_tmp.c_str(), DeltaMode::REALIGNED);
        rc = diff.readFile();
    }
    std::remove(signature_tmp.c_str());
    return rc == 0 ? 0 : -1;
}

}  // namespace delta_ops
