#include "delta/rs-constant.h"

#include <array>

namespace {

constexpr std::array<RSConstant::CmdInfo, 256> makeTable() {
    std::array<RSConstant::CmdInfo, 256> table{};
    constexpr uint8_t widths[4] = {1, 2, 4, 8};
    for (int code = 0; code < 256; ++code) {
        RSConstant::CmdInfo info{RSConstant::CMD_RESERVED, 0, 0, 0};
        if (code == 0) {
            info = {RSConstant::CMD_END, 0, 0, 0};
        } else if (code <= RSConstant::LITERAL_IMMEDIATE_MAX) {
            info = {RSConstant::CMD_LITERAL, static_cast<uint8_t>(code), 0, 0};
        } else if (code <= RSConstant::OP_LITERAL_N8) {
            info = {RSConstant::CMD_LITERAL, 0, widths[code - RSConstant::OP_LITERAL_N1], 0};
        } else if (code < RSConstant::OP_COPY_N8_N1 + 4) {
            int rel = code - RSConstant::OP_COPY_N1_N1;
            info = {RSConstant::CMD_COPY, 0, widths[rel / 4], widths[rel % 4]};
        }
        table[code] = info;
    }
    return table;
}

constexpr std::array<RSConstant::CmdInfo, 256> kCommands = makeTable();

size_t widthIndex(size_t width) {
    return width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3;
}

}  // namespace

const RSConstant::CmdInfo& RSConstant::getInfo(uint8_t cmd) {
    return kCommands[cmd];
}

size_t RSConstant::intLength(uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFFull) return 4;
    return 8;
}

uint64_t RSConstant::getBE(const uint8_t* in, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value = (value << 8) | in[i];
    return value;
}

void RSConstant::putBE(uint8_t* out, uint64_t value, size_t width) {
    for (size_t i = width; i-- > 0;) {
        out[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

size_t RSConstant::encodeLiteral(uint64_t length, uint8_t* out) {
    if (length <= LITERAL_IMMEDIATE_MAX) {
        out[0] = static_cast<uint8_t>(length);
        return 1;
    }
    size_t width = intLength(length);
    out[0] = static_cast<uint8_t>(OP_LITERAL_N1 + widthIndex(width));
    putBE(out + 1, length, width);
    return 1 + width;
}

size_t RSConstant::encodeCopy(uint64_t start, uint64_t length, uint8_t* out) {
    size_t start_width = intLength(start);
    size_t length_width = intLength(length);
    out[0] = static_cast<uint8_t>(OP_COPY_N1_N1 + 4 * widthIndex(start_width) +
                                  widthIndex(length_width));
    putBE(out + 1, start, start_width);
    putBE(out + 1 + start_width, length, length_width);
    return 1 + start_width + length_width;
}

RSConstant::SignatureHeaderCheck RSConstant::parseSignatureHeader(const uint8_t* header,
                                                                  size_t& block_size,
                                                                  size_t& hash_size) {
    if (getBE32(header) != MAGIC_SIGNATURE) return SIG_BAD_MAGIC;
    uint32_t block = getBE32(header + 4);
    uint32_t hash = getBE32(header + 8);
    if (block == 0) return SIG_BAD_BLOCK_SIZE;
    if (hash < 1 || hash > MD4_SIZE) return SIG_BAD_HASH_SIZE;
    block_size = block;
    hash_size = hash;
    return SIG_OK;
}
