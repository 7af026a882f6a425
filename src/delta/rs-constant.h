// rs-constant.h: the signature and delta file formats in one place: magic numbers, command
// codes, the table saying how each code is laid out, and the encoders of commands.
// Used by the signature writer, the delta writer, the patch reader and the delta tool.
#pragma once

#include <cstddef>
#include <cstdint>

// Signature file: magic, block size, strong hash size (three big-endian 32-bit words), then
// one entry per block of the file: the 4-byte weak sum, then the first H bytes of the MD4.
// The last block may be short; there is no entry count, the file size gives it.
//
// Delta file: magic, then commands up to and including the end command 0x00. A command is
// its code byte, parameter 1 (len_1 bytes), parameter 2 (len_2 bytes), all big-endian. A
// literal's bytes follow the command; a copy's parameters are start in the basis and length.
class RSConstant {
  public:
    static constexpr uint32_t MAGIC_SIGNATURE = 0x72730136;  // bytes 72 73 01 36
    static constexpr uint32_t MAGIC_DELTA = 0x72730236;      // bytes 72 73 02 36

    static constexpr uint8_t OP_END = 0x00;
    static constexpr uint8_t OP_LITERAL_N1 = 0x41;  // literal, 1-byte length follows
    static constexpr uint8_t OP_LITERAL_N2 = 0x42;
    static constexpr uint8_t OP_LITERAL_N4 = 0x43;
    static constexpr uint8_t OP_LITERAL_N8 = 0x44;
    static constexpr uint8_t OP_COPY_N1_N1 = 0x45;  // copy, 1-byte start; +1/+2/+3 widen length
    static constexpr uint8_t OP_COPY_N2_N1 = 0x49;
    static constexpr uint8_t OP_COPY_N4_N1 = 0x4D;
    static constexpr uint8_t OP_COPY_N8_N1 = 0x51;

    // Codes 0x01 to 0x40 are literals whose length is the code itself.
    static constexpr uint8_t LITERAL_IMMEDIATE_MAX = 0x40;

    static constexpr size_t SIGNATURE_HEADER_SIZE = 12;
    static constexpr size_t DELTA_HEADER_SIZE = 4;
    static constexpr size_t MD4_SIZE = 16;  // largest strong hash size
    static constexpr size_t DEFAULT_BLOCK_SIZE = 2048;
    static constexpr size_t DEFAULT_HASH_SIZE = 8;

    // Longest encodings: code plus one 8-byte parameter, code plus two.
    static constexpr size_t MAX_LITERAL_COMMAND = 9;
    static constexpr size_t MAX_COPY_COMMAND = 17;

    enum CmdType : uint8_t { CMD_END = 0, CMD_LITERAL = 1, CMD_COPY = 2, CMD_RESERVED = 3 };

    struct CmdInfo {
        uint8_t type;       // CmdType
        uint8_t immediate;  // literal length carried by the code itself, else 0
        uint8_t len_1;      // bytes of parameter 1, 0 when absent
        uint8_t len_2;      // bytes of parameter 2, 0 when absent
    };

    // The layout of command code `cmd`; codes 0x55 and above are CMD_RESERVED.
    static const CmdInfo& getInfo(uint8_t cmd);

    // Smallest of 1, 2, 4, 8 bytes that holds `value`.
    static size_t intLength(uint64_t value);

    // Writes the command that introduces a literal of `length` bytes (not 0) into `out`,
    // which holds MAX_LITERAL_COMMAND bytes; returns the bytes written.
    static size_t encodeLiteral(uint64_t length, uint8_t* out);
    // Writes a copy command into `out` (MAX_COPY_COMMAND bytes); returns the bytes written.
    static size_t encodeCopy(uint64_t start, uint64_t length, uint8_t* out);

    static void putBE32(uint8_t* out, uint32_t value) {
        out[0] = static_cast<uint8_t>(value >> 24);
        out[1] = static_cast<uint8_t>(value >> 16);
        out[2] = static_cast<uint8_t>(value >> 8);
        out[3] = static_cast<uint8_t>(value);
    }
    static uint32_t getBE32(const uint8_t* in) {
        return (uint32_t(in[0]) << 24) | (uint32_t(in[1]) << 16) | (uint32_t(in[2]) << 8) |
               uint32_t(in[3]);
    }
    enum SignatureHeaderCheck { SIG_OK = 0, SIG_BAD_MAGIC, SIG_BAD_BLOCK_SIZE, SIG_BAD_HASH_SIZE };
    // Checks the 12-byte header of a signature, in this order: magic, block size not 0,
    // hash size 1 to 16; on SIG_OK gives the two sizes.
    static SignatureHeaderCheck parseSignatureHeader(const uint8_t* header, size_t& block_size,
                                                     size_t& hash_size);

    // Big-endian value of `width` (1 to 8) bytes.
    static uint64_t getBE(const uint8_t* in, size_t width);
    // Writes the low `width` bytes of `value` big-endian.
    static void putBE(uint8_t* out, uint64_t value, size_t width);
};
