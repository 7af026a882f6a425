// delta-test-support.h: helpers shared by the delta engine tests: files, random contents,
// the engine's three operations, an independent reader of delta commands and a writer of
// hand-made deltas.
#pragma once

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <gtest/gtest.h>
#include <openssl/md4.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "delta/delta-file-reader.h"
#include "delta/file-reader.h"
#include "support/files.h"

namespace deltatest {

inline std::string md4Hex(const std::string& bytes) {
    unsigned char digest[16];
    MD4(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
    char hex[33];
    for (int i = 0; i < 16; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

inline int makeSignature(const std::string& basis, const std::string& sig, size_t block = 2048,
                         size_t hash = 8) {
    SimpleFileReader reader;
    reader.setFile(basis.c_str());
    reader.setSignature(sig.c_str(), block, hash);
    return reader.readFile();
}

inline int makeDelta(const std::string& sig, const std::string& newfile, const std::string& delta,
                     DeltaMode mode = DeltaMode::CHUNKED) {
    SimpleFileReader reader;
    reader.setFile(newfile.c_str());
    reader.setDelta(delta.c_str(), sig.c_str(), mode);
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
    uint64_t start;  // copy: offset in the basis; literal: not compared
    uint64_t length;
    uint8_t code = 0;  // as read; 0 in an expectation means "any width"
};

inline Command copyOf(uint64_t start, uint64_t length, uint8_t code = 0) {
    return {Command::COPY, start, length, code};
}
inline Command literalOf(uint64_t length, uint8_t code = 0) {
    return {Command::LITERAL, 0, length, code};
}

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
        if (code == 0) return pos == d.size() ? std::optional(out) : std::nullopt;
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

// Checks that `delta` is well formed and holds exactly the `want` commands.
inline void expectCommands(const std::string& delta, const std::vector<Command>& want) {
    auto got = parseDelta(delta);
    ASSERT_TRUE(got.has_value()) << "malformed delta";
    ASSERT_EQ(got->size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        const Command& g = (*got)[i];
        const Command& w = want[i];
        EXPECT_EQ(g.kind, w.kind) << "command " << i;
        EXPECT_EQ(g.length, w.length) << "command " << i;
        EXPECT_TRUE(w.kind != Command::COPY || g.start == w.start) << "command " << i;
        EXPECT_TRUE(w.code == 0 || g.code == w.code) << "command " << i;
    }
}

// Builds deltas by hand: literals with a 4-byte length, copies with 8-byte parameters. The
// short forms are what the engine writes, so the round trips read those.
class DeltaWriter {
  public:
    DeltaWriter() { put(0x72730236, 4); }
    DeltaWriter& literal(const std::string& bytes) {
        m_bytes += static_cast<char>(0x43);
        put(bytes.size(), 4);
        m_bytes += bytes;
        return *this;
    }
    DeltaWriter& copy(uint64_t start, uint64_t length) {
        m_bytes += static_cast<char>(0x54);
        put(start, 8);
        put(length, 8);
        return *this;
    }
    DeltaWriter& raw(const std::string& bytes) {
        m_bytes += bytes;
        return *this;
    }
    std::string end() const { return m_bytes + '\0'; }

  private:
    void put(uint64_t v, size_t width) {
        for (size_t i = width; i-- > 0;) m_bytes += static_cast<char>((v >> (8 * i)) & 0xFF);
    }
    std::string m_bytes;
};

}  // namespace deltatest
