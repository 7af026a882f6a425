// delta-test-support.h: helpers shared by the delta engine tests: files, random contents,
// the engine's three operations, an independent reader of delta commands, a writer of
// hand-made deltas, and the external rdiff tool.
#pragma once

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"

namespace deltatest {

inline std::string randomBytes(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(gen() & 0xFF);
    return s;
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

inline std::string md4Hex(const std::string& bytes) {
    unsigned char digest[16];
    MD4(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned char c : digest) {
        out += hex[c >> 4];
        out += hex[c & 15];
    }
    return out;
}

inline int makeSignature(const std::string& basis, const std::string& sig, size_t block = 2048,
                         size_t hash = 8) {
    SimpleFileReader reader;
    reader.setFile(basis.c_str());
    reader.setSignature(sig.c_str(), block, hash);
    return reader.readFile();
}

inline int makeDelta(const std::string& sig, const std::string& newfile, const std::string& delta) {
    SimpleFileReader reader;
    reader.setFile(newfile.c_str());
    reader.setDelta(delta.c_str(), sig.c_str());
    return reader.readFile();
}

struct PatchOutcome {
    int result;        // readFile
    int patch_result;  // how the forward pass ended
};

inline PatchOutcome applyPatch(const std::string& basis, const std::string& delta,
                               const std::string& out, const std::string& reverse = "") {
    DeltaFileReader reader;
    reader.setFile(delta.c_str(), basis.c_str());
    reader.setNewFile(out.c_str());
    if (!reverse.empty()) reader.setReverseDeltaFile(reverse.c_str());
    int result = reader.readFile();
    return {result, reader.getPatchResult()};
}

// One command of a delta as read back by the tests, independently of the engine's reader.
struct Command {
    enum Kind { LITERAL, COPY } kind;
    uint64_t start;  // copy: offset in the basis; literal: offset of the bytes in the file
    uint64_t length;
    uint8_t code;
};

inline uint64_t bigEndian(const std::string& s, size_t pos, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v = (v << 8) | static_cast<uint8_t>(s[pos + i]);
    return v;
}

// The commands of a well-formed delta (magic, commands, end byte, nothing after), or nothing.
inline std::optional<std::vector<Command>> parseDelta(const std::string& d) {
    static const size_t widths[4] = {1, 2, 4, 8};
    if (d.size() < 5 || bigEndian(d, 0, 4) != 0x72730236) return std::nullopt;
    std::vector<Command> out;
    size_t pos = 4;
    while (pos < d.size()) {
        uint8_t code = static_cast<uint8_t>(d[pos++]);
        if (code == 0) {
            if (pos != d.size()) return std::nullopt;
            return out;
        }
        if (code <= 0x44) {
            uint64_t length = code;
            if (code > 0x40) {
                size_t w = widths[code - 0x41];
                if (pos + w > d.size()) return std::nullopt;
                length = bigEndian(d, pos, w);
                pos += w;
            }
            if (length > d.size() - pos) return std::nullopt;
            out.push_back({Command::LITERAL, pos, length, code});
            pos += length;
        } else if (code <= 0x54) {
            size_t w1 = widths[(code - 0x45) / 4];
            size_t w2 = widths[(code - 0x45) % 4];
            if (pos + w1 + w2 > d.size()) return std::nullopt;
            out.push_back({Command::COPY, bigEndian(d, pos, w1), bigEndian(d, pos + w1, w2), code});
            pos += w1 + w2;
        } else {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

// Builds deltas by hand, with chosen parameter widths.
class DeltaWriter {
  public:
    DeltaWriter() { put(0x72730236, 4); }
    DeltaWriter& literal(const std::string& bytes) {
        if (bytes.size() >= 1 && bytes.size() <= 64) {
            m_bytes += static_cast<char>(bytes.size());
        } else {
            m_bytes += static_cast<char>(0x43);
            put(bytes.size(), 4);
        }
        m_bytes += bytes;
        return *this;
    }
    DeltaWriter& copy(uint64_t start, uint64_t length) {
        m_bytes += static_cast<char>(0x51 + 3);  // 8-byte start, 8-byte length
        put(start, 8);
        put(length, 8);
        return *this;
    }
    DeltaWriter& raw(const std::string& bytes) {
        m_bytes += bytes;
        return *this;
    }
    DeltaWriter& end() {
        m_bytes += '\0';
        return *this;
    }
    const std::string& bytes() const { return m_bytes; }

  private:
    void put(uint64_t v, size_t width) {
        for (size_t i = width; i-- > 0;) m_bytes += static_cast<char>((v >> (8 * i)) & 0xFF);
    }
    std::string m_bytes;
};

inline bool haveRdiff() {
    return std::system("command -v rdiff >/dev/null 2>&1") == 0;
}

// Runs a shell command line quietly; true when it exits with 0.
inline bool runQuietly(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

inline std::string rdiffSignatureArgs() {
    return "rdiff -f signature -R rollsum -H md4 -b 2048 -S 8";
}

}  // namespace deltatest
