#include "delta/signature-handler.h"

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>

#include <algorithm>
#include <cstring>

#include "delta/rolling-checksum.h"

namespace {

// Blocks per slice of work, and the chunk size from which a helper thread pays off.
constexpr size_t kBlocksPerSlice = 32;
constexpr size_t kBackgroundBlocksMin = 64;

}  // namespace

SignatureHandler::~SignatureHandler() {
    m_lane.wait();
    fd_close(fd);
}

void SignatureHandler::setBlockSize(size_t size) {
    if (size != 0) block_size = size;
}

void SignatureHandler::setHashSize(size_t size) {
    if (size >= 1 && size <= RSConstant::MD4_SIZE) hash_size = size;
}

int SignatureHandler::begin() {
    if (!read_buffer.reserveExact(2 * block_size)) return -1;
    if (fd_open_write(file, fd) < 0) return -1;
    uint8_t header[RSConstant::SIGNATURE_HEADER_SIZE];
    RSConstant::putBE32(header, RSConstant::MAGIC_SIGNATURE);
    RSConstant::putBE32(header + 4, static_cast<uint32_t>(block_size));
    RSConstant::putBE32(header + 8, static_cast<uint32_t>(hash_size));
    if (fd_write(fd, header, sizeof header) != static_cast<int64_t>(sizeof header)) return -1;
    m_slice_fn = [this](size_t slice) { hashSlice(slice); };
    return 0;
}

void SignatureHandler::writeEntry(const uint8_t* block, size_t len, uint8_t* out) const {
    RSRollingChecksum sum;
    sum.update(block, len);
    RSConstant::putBE32(out, sum.digest());
    uint8_t strong[MD4_DIGEST_LENGTH];
    MD4(block, len, strong);
    std::memcpy(out + 4, strong, hash_size);
}

void SignatureHandler::updateBlock(const uint8_t* block, size_t len) {
    writeEntry(block, len, write_buffer.data() + write_buffer_size);
    write_buffer_size += hash_size + 4;
}

void SignatureHandler::hashSlice(size_t slice) {
    size_t first = slice * kBlocksPerSlice;
    size_t last = std::min(first + kBlocksPerSlice, m_pending_blocks);
    for (size_t i = first; i < last; ++i) {
        writeEntry(m_pending_src + i * block_size, block_size, m_pending_dst + i * (hash_size + 4));
    }
}

int SignatureHandler::update(const void* buffer, size_t length) {
    if (!write_buffer.reserveExact(getSignatureSize(length))) return -1;
    const auto* input = static_cast<const uint8_t*>(buffer);
    if (read_buffer_size != 0) {
        size_t take = std::min(block_size - read_buffer_size, length);
        std::memcpy(read_buffer.data() + read_buffer_size, input, take);
        read_buffer_size += take;
        input += take;
        length -= take;
        if (read_buffer_size >= block_size) {
            updateBlock(read_buffer.data(), block_size);
            read_buffer_size = 0;
        }
    }
    // Whole blocks are hashed in place, straight from the caller's memory. Input left at
    // this point means the carried block was completed, so the tail starts a new one.
    m_pending_blocks = length / block_size;
    m_pending_src = input;
    m_pending_dst = write_buffer.data() + write_buffer_size;
    write_buffer_size += m_pending_blocks * (hash_size + 4);
    size_t whole = m_pending_blocks * block_size;
    if (length > whole) {
        std::memcpy(read_buffer.data(), input + whole, length - whole);
        read_buffer_size = length - whole;
    }
    size_t slices = (m_pending_blocks + kBlocksPerSlice - 1) / kBlocksPerSlice;
    m_lane.start(slices, m_slice_fn, m_pending_blocks >= kBackgroundBlocksMin);
    return 0;
}

int SignatureHandler::wait() {
    m_lane.wait();
    if (write_buffer_size == 0) return 0;
    if (fd_write(fd, write_buffer.data(), write_buffer_size) !=
        static_cast<int64_t>(write_buffer_size)) {
        return -1;
    }
    write_buffer_size = 0;
    return 0;
}

int SignatureHandler::end() {
    int result = 0;
    if (read_buffer_size != 0 && fd_is_open(fd)) {
        uint8_t entry[4 + RSConstant::MD4_SIZE];
        writeEntry(read_buffer.data(), read_buffer_size, entry);
        size_t size = hash_size + 4;
        if (fd_write(fd, entry, size) != static_cast<int64_t>(size)) result = -1;
        read_buffer_size = 0;
    }
    fd_close(fd);
    return result;
}
