// proto-test-util.h: a Channel wired to a raw loopback socket, and byte builders, for the
// protocol tests. The raw end lets a test see exactly what went on the wire and feed
// exactly the bytes it wants.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "foundation/channel.h"
#include "support/files.h"
#include "support/loopback.h"
#include "transport/proto-format.h"

namespace prototest {

// A Channel that owns one end of a loopback pair; `peer` is the raw other end.
struct Wired {
    loopback::Pair pair;
    Channel ch;
    int peer;
    Wired() : peer(pair.a) { EXPECT_EQ(ch.Open(pair.take_b(), true), 0); }

    // Takes exactly `n` bytes from the wire, flushing the channel first unless told not to.
    std::string sent(size_t n, bool flush = true) {
        if (flush) {
            EXPECT_GE(ch.FlushWrite(0), 0);
        }
        return loopback::read_some(peer, n, 2000);
    }
    // True when nothing more than what was taken has been sent.
    bool nothing_more() {
        ch.FlushWrite(0);
        return loopback::read_some(peer, 1, 50).empty();
    }
    // Exactly `n` bytes read through the channel (what a failed call left unread).
    std::string unread(size_t n) {
        std::string s(n, '\0');
        EXPECT_EQ(ch.Read(s.data(), n), 0);
        return s;
    }
    void feed(const std::string& bytes) { loopback::write_all(peer, bytes); }
    // Ends the raw side's sending, so that the channel sees the peer close.
    void hang_up() { ::shutdown(peer, SHUT_WR); }
};

inline std::string bytes(std::initializer_list<int> list) {
    std::string s;
    for (int b : list) s.push_back(static_cast<char>(b));
    return s;
}

// `v` big-endian in `width` bytes.
inline std::string be(uint64_t v, int width) {
    std::string s;
    for (int i = width - 1; i >= 0; --i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    return s;
}

// A variable section: id, 16-bit length, data.
inline std::string var_section(int id, const std::string& data) {
    return bytes({id}) + be(data.size(), 2) + data;
}

inline std::string header(int cmd, int version = 60) {
    return bytes({0x25, 0x52, 0x18, 0x14, version, cmd, 0, 0});
}

// A file on the wire: its type and whole length, then the blocks of what follows `offset`.
inline std::string file_wire(int is_delta, const std::string& data, size_t offset,
                             size_t block_size) {
    std::string s = bytes({SPROTO_ID_DELTATYPE, is_delta, SPROTO_ID_DELTALEN}) + be(data.size(), 8);
    uint32_t id = 0;
    for (size_t at = offset; at < data.size(); at += block_size, ++id)
        s += bytes({SPROTO_ID_DELTAID}) + be(id, 4) +
             var_section(SPROTO_ID_DELTADATA, data.substr(at, block_size));
    return s;
}

}  // namespace prototest
