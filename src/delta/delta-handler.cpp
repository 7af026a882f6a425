#include "delta/delta-handler.h"

#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "delta/md4-lanes.h"
#include "delta/rs-constant.h"

namespace {

constexpr size_t kInitialBuffer = 500;
// A stretch without matches is scanned alone for this many windows first; only a longer one,
// with at least kSplitMin windows left, is worth handing half of to the helper thread.
constexpr size_t kSoloWindows = 64 * 1024;
constexpr size_t kSplitMin = 256 * 1024;
// The helper looks at its stop flag between pieces of this many windows.
constexpr size_t kPieceWindows = 64 * 1024;
constexpr size_t kBackgroundChunkMin = 64 * 1024;
constexpr size_t kNotFound = std::numeric_limits<size_t>::max();
constexpr uint32_t kSlotMix = 0x85EBCA6Bu;

unsigned ceilLog2(size_t n) {
    unsigned bits = 0;
    while ((size_t{1} << bits) < n) ++bits;
    return bits;
}

}  // namespace

DeltaHandler::~DeltaHandler() {
    m_lane.wait();
    finishWrite();
    release();
    fd_close(fd);
}

void DeltaHandler::release() {
    sig_body.release();
    std::vector<DeltaBlock>().swap(sig_stat);
    m_weak.reset(0);
    std::vector<WeakSlot>().swap(m_slots);
    read_buffer.release();
    write_buffer.release();
    m_spare.release();
}

int DeltaHandler::begin() {
    if (!write_buffer.reserveExact(kInitialBuffer) || !read_buffer.reserveExact(kInitialBuffer)) {
        return -1;
    }
    if (loadSignature() < 0) return -1;
    if (fd_open_write(delta_file, fd) < 0) return -1;
    uint8_t magic[4];
    RSConstant::putBE32(magic, RSConstant::MAGIC_DELTA);
    if (fd_write(fd, magic, sizeof magic) != static_cast<int64_t>(sizeof magic)) return -1;
    m_job = [this](size_t) { m_job_status = process(m_job_input, m_job_length); };
    m_helper_job = [this](size_t) {
        m_split.found =
            scanRange(m_split.start, m_split.windows, m_split.a, m_split.b, &m_split_stop);
    };
    return 0;
}

int DeltaHandler::loadSignature() {
    fd_t sig;
    if (fd_open_read(signature_file, sig) < 0) return -1;
    int result = loadHeader(sig);
    if (result == 0) result = loadBody(sig);
    fd_close(sig);
    if (result == 0) buildPrefilter();
    return result;
}

int DeltaHandler::loadHeader(fd_t& sig) {
    uint8_t header[RSConstant::SIGNATURE_HEADER_SIZE];
    if (fd_read(sig, header, sizeof header) != static_cast<int64_t>(sizeof header)) return -1;
    switch (RSConstant::parseSignatureHeader(header, block_size, hash_size)) {
        case RSConstant::SIG_OK:
            return 0;
        case RSConstant::SIG_BAD_MAGIC:
            std::fprintf(stderr, "api (%d): invalid signature header\n", __LINE__);
            return -1;
        case RSConstant::SIG_BAD_BLOCK_SIZE:
            std::fprintf(stderr, "api (%d): invalid signature block size\n", __LINE__);
            return -1;
        case RSConstant::SIG_BAD_HASH_SIZE:
            std::fprintf(stderr, "api (%d): invalid signature hash size\n", __LINE__);
            return -1;
    }
    return -1;
}

int DeltaHandler::loadBody(fd_t& sig) {
    uint64_t file_size = 0;
    if (fd_stat(sig, file_size) < 0) {
        std::fprintf(stderr, "api (%d): fd_stat: Error Code %d\n", __LINE__, errno);
        return -1;
    }
    uint64_t body_size = file_size - RSConstant::SIGNATURE_HEADER_SIZE;
    uint64_t count = body_size / (hash_size + 4);
    if (body_size > std::numeric_limits<size_t>::max() / 2 ||
        count > std::numeric_limits<uint32_t>::max()) {
        std::fprintf(stderr, "api (%d): invalid signature size %llu\n", __LINE__,
                     static_cast<unsigned long long>(file_size));
        return -1;
    }
    sig_block_count = static_cast<size_t>(count);
    if (!sig_body.reserveExact(body_size == 0 ? 1 : body_size)) return -1;
    sig_stat.resize(sig_block_count);
    for (uint64_t got = 0; got < body_size;) {
        int64_t n = fd_read(sig, sig_body.data() + got, static_cast<size_t>(body_size - got));
        if (n <= 0) {
            // A signature that shrinks while it is read is as unusable as an unreadable one.
            std::fprintf(stderr, "api (%d): fd_read: Error Code %d\n", __LINE__,
                         n < 0 ? errno : EIO);
            return -1;
        }
        got += static_cast<uint64_t>(n);
    }
    for (size_t i = 0; i < sig_block_count; ++i) {
        sig_stat[i].weaksum = RSConstant::getBE32(sig_body.data() + i * (hash_size + 4));
        sig_stat[i].index = static_cast<uint32_t>(i);
    }
    std::sort(sig_stat.begin(), sig_stat.end(), [](const DeltaBlock& x, const DeltaBlock& y) {
        return x.weaksum != y.weaksum ? x.weaksum < y.weaksum : x.index < y.index;
    });
    return 0;
}

void DeltaHandler::buildPrefilter() {
    size_t distinct = 0;
    for (size_t pos = 0; pos < sig_block_count; ++pos) {
        if (pos == 0 || sig_stat[pos - 1].weaksum != sig_stat[pos].weaksum) ++distinct;
    }
    m_weak.reset(2 * distinct);
    m_slot_bits = std::max(ceilLog2(distinct) + 1, 4u);
    m_slots.assign(size_t{1} << m_slot_bits, WeakSlot{0, 0});
    size_t mask = m_slots.size() - 1;
    for (size_t pos = 0; pos < sig_block_count; ++pos) {
        uint32_t weak = sig_stat[pos].weaksum;
        if (pos > 0 && sig_stat[pos - 1].weaksum == weak) continue;
        m_weak.add(weak);
        size_t slot = (weak * kSlotMix) >> (32 - m_slot_bits);
        while (m_slots[slot].position_plus_one != 0) slot = (slot + 1) & mask;
        m_slots[slot] = WeakSlot{weak, static_cast<uint32_t>(pos + 1)};
    }
}

bool DeltaHandler::mayMatch(uint32_t digest) const {
    return m_weak.mayContain(digest);
}

// The position in sig_stat of the first block whose weak sum is `digest`, or kNotFound:
// what a lower-bound search of the sorted array gives, in one probe sequence.
size_t DeltaHandler::firstWithWeak(uint32_t digest) const {
    size_t mask = m_slots.size() - 1;
    for (size_t slot = (digest * kSlotMix) >> (32 - m_slot_bits);; slot = (slot + 1) & mask) {
        const WeakSlot& s = m_slots[slot];
        if (s.position_plus_one == 0) return kNotFound;
        if (s.weaksum == digest) return s.position_plus_one - 1;
    }
}

int DeltaHandler::update(const void* buffer, size_t length) {
    m_job_input = static_cast<const uint8_t*>(buffer);
    m_job_length = length;
    m_job_status = 0;
    m_lane.start(1, m_job, length >= kBackgroundChunkMin);
    return 0;
}

int DeltaHandler::wait() {
    m_lane.wait();
    if (m_job_status < 0) return -1;
    write_buffer_size = 0;
    return 0;
}

// One chunk: appended behind the unconsumed bytes, matched window by window, its commands
// written out. Runs on the lane's thread for large chunks.
int DeltaHandler::process(const uint8_t* input, size_t length) {
    size_t size = read_buffer_size + length;
    if (!read_buffer.reserveExact(size)) return -1;
    std::memcpy(read_buffer.data() + read_buffer_size, input, length);
    read_buffer_size = size;
    const uint8_t* head = read_buffer.data();
    m_input_end = head + size;
    m_ahead.count = 0;
    if (checksum.size() < block_size) {
        size_t left = block_size - checksum.size();
        const uint8_t* fresh = head + size - length;
        if (length < left) {
            extendWindow(fresh, length);
            return 0;
        }
        extendWindow(fresh, left);
    }
    for (;;) {
        int matched = matchBlock(head);
        if (matched < 0) {
            write_buffer_size = 0;
            return -1;
        }
        if (matched == 0) {
            if (!scanForMatch(head, size)) break;
            continue;
        }
        checksum.clear();
        size -= block_size;
        head += block_size;
        if (block_size > size) {
            checksum.update(head, size);
            break;
        }
        checksum.update(head, block_size);
    }
    // The pending literal ends here, since the unconsumed bytes are about to move.
    if (clearMismatch(head) < 0) {
        write_buffer_size = 0;
        return -1;
    }
    std::memmove(read_buffer.data(), head, size);
    read_buffer_size = size;
    return startWrite();
}

// Takes the first bytes of a new chunk into the window carried over from the last one. The
// window's bytes are already summed in `checksum`, so each new byte's prefix sum also holds
// that window's `a`: the realigned mode adds len * a to `b` for it, which keeps the sum the
// window's own, while the chunked mode keeps update's result as it is (see the header).
void DeltaHandler::extendWindow(const uint8_t* bytes, size_t len) {
    if (m_mode == DeltaMode::REALIGNED) checksum.b += static_cast<uint32_t>(len) * checksum.a;
    checksum.update(bytes, len);
}

// Sends the chunk's commands to the writer thread and takes the other buffer for the next
// chunk, once the writer is done with it.
int DeltaHandler::startWrite() {
    if (write_buffer_size == 0) return 0;
    if (finishWrite() < 0) return -1;
    if (fd_aio_write(m_aio, fd, write_buffer.data(), write_buffer_size) < 0) return -1;
    m_write_pending = true;
    std::swap(write_buffer, m_spare);
    write_buffer_size = 0;
    return 0;
}

int DeltaHandler::finishWrite() {
    if (!m_write_pending) return 0;
    m_write_pending = false;
    return fd_aio_wait(m_aio) < 0 ? -1 : 0;
}

// After a window that matched nothing, rolls the window one byte at a time up to the next
// window that findMatch would accept. Returns true with the window there, false when fewer
// than block_size bytes are left (the window then holds all of them).
bool DeltaHandler::scanForMatch(const uint8_t*& head, size_t& size) {
    const uint32_t bs = static_cast<uint32_t>(block_size);
    uint32_t a = checksum.a;
    uint32_t b = checksum.b;
    const uint8_t* p = head;
    size_t windows = size - block_size;  // after the current one
    size_t solo = std::min(windows, kSoloWindows);
    size_t found = scanRange(p, solo, a, b, nullptr);
    if (found == 0) {
        p += solo;
        windows -= solo;
        found = windows >= kSplitMin ? scanSplit(p, windows, a, b)
                                     : scanRange(p, windows, a, b, nullptr);
        if (found == 0) p += windows;
    }
    if (found != 0) {
        p += found;
        size -= static_cast<size_t>(p - head);
        head = p;
        checksum.a = a;
        checksum.b = b;
        checksum.count = block_size;
        return true;
    }
    // The last window drops its first byte and the rest waits for the next chunk.
    uint32_t out = uint32_t(*p) + RSRollingChecksum::CHAR_OFFSET;
    checksum.a = a - out;
    checksum.b = b - out * bs;
    checksum.count = block_size - 1;
    size -= static_cast<size_t>(p + 1 - head);
    head = p + 1;
    return false;
}

// Scans the `windows` windows after the one at `p` (whose sums are `a` and `b`) for the first
// that has a signature block's weak and strong sums. Returns its offset with `a` and `b` set to
// its sums, or 0 with them set to the sums of the last window. With `stop` it gives up (0)
// once the flag is raised; it is only looked at between pieces.
size_t DeltaHandler::scanRange(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b,
                               const std::atomic<bool>* stop) const {
    const uint32_t bs = static_cast<uint32_t>(block_size);
    size_t moved = 0;
    while (moved < windows) {
        if (stop != nullptr && stop->load(std::memory_order_relaxed)) return 0;
        size_t piece = std::min(windows - moved, kPieceWindows);
        size_t step = m_weak.scanWindows(p + moved, piece, bs, a, b);
        if (step == 0) {
            moved += piece;
            continue;
        }
        moved += step;
        if (strongMatch(p + moved, block_size, (a & 0xFFFF) | (b << 16), nullptr)) return moved;
    }
    return 0;
}

// The same as scanRange over a long stretch, cut in two halves scanned at once. While nothing
// matches, rolling keeps every window's sums equal to its own fresh sums plus a fixed offset
// (whatever the window carried over a chunk boundary left in them), so the second half can
// start from fresh sums plus that offset. A match in the first half wins; the second half's
// result counts only when the first has none, which makes the outcome the sequential one.
size_t DeltaHandler::scanSplit(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b) {
    RSRollingChecksum here;
    here.update(p, block_size);
    size_t half = windows / 2;
    RSRollingChecksum there;
    there.update(p + half, block_size);
    m_split =
        SplitScan{p + half, windows - half, there.a + (a - here.a), there.b + (b - here.b), 0};
    m_split_stop.store(false, std::memory_order_relaxed);
    m_helper.start(1, m_helper_job, true);
    size_t found = scanRange(p, half, a, b, nullptr);
    if (found != 0) m_split_stop.store(true, std::memory_order_relaxed);
    m_helper.wait();
    if (found != 0) return found;
    a = m_split.a;
    b = m_split.b;
    return m_split.found == 0 ? 0 : half + m_split.found;
}

// Whether a signature block with weak sum `digest` has the strong sum of the `len` bytes at
// `window`; the first such block in sig_stat order goes to `index`.
bool DeltaHandler::strongMatch(const uint8_t* window, size_t len, uint32_t digest,
                               size_t* index) const {
    size_t pos = firstWithWeak(digest);
    if (pos == kNotFound) return false;
    uint8_t strong[MD4_DIGEST_LENGTH];
    MD4(window, len, strong);
    for (; pos < sig_block_count && sig_stat[pos].weaksum == digest; ++pos) {
        size_t candidate = sig_stat[pos].index;
        if (std::memcmp(sig_body.data() + candidate * (hash_size + 4) + 4, strong, hash_size) ==
            0) {
            if (index != nullptr) *index = candidate;
            return true;
        }
    }
    return false;
}

int DeltaHandler::matchBlock(const uint8_t* buffer) {
    if (match_count != 0) {
        if (extendMatch(buffer)) return 1;
        if (clearMatch() < 0) return -1;
    }
    if (!findMatch(buffer)) {
        if (mismatch_start == nullptr) mismatch_start = buffer;
        return 0;
    }
    return clearMismatch(buffer) < 0 ? -1 : 1;
}

int DeltaHandler::findMatch(const uint8_t* buffer) {
    uint32_t digest = checksum.digest();
    match_possibility.clear();
    match_start = 0;
    match_count = 0;
    size_t index = 0;
    if (!mayMatch(digest) || !strongMatch(buffer, block_size, digest, &index)) return 0;
    match_possibility.push_back(index);
    checksum.clear();
    match_start = index;
    match_count = 1;
    return 1;
}

int DeltaHandler::extendMatch(const uint8_t* buffer) {
    uint32_t digest = checksum.digest();
    const uint8_t* strong = nullptr;
    for (auto it = match_possibility.begin(); it != match_possibility.end();) {
        size_t next = *it + match_count;
        bool keep = false;
        // The block after the last entry doesn't exist: the run can't go on.
        if (next < sig_block_count) {
            const uint8_t* entry = sig_body.data() + next * (hash_size + 4);
            if (RSConstant::getBE32(entry) == digest) {
                if (strong == nullptr) strong = strongAhead(buffer);
                keep = std::memcmp(entry + 4, strong, hash_size) == 0;
            }
        }
        it = keep ? it + 1 : match_possibility.erase(it);
    }
    if (match_possibility.empty()) return 0;
    checksum.clear();
    match_start = match_possibility.front();
    ++match_count;
    return 1;
}

// The strong sum of the block at `window`, which continues the current run if anything does.
// A run that has lasted n blocks is taken to last up to n more: their sums are computed
// together with this one's and kept for the next calls, as long as the bytes stay put.
const uint8_t* DeltaHandler::strongAhead(const uint8_t* window) {
    if (m_ahead.count != 0 && window >= m_ahead.first) {
        size_t offset = static_cast<size_t>(window - m_ahead.first);
        if (offset % block_size == 0 && offset / block_size < m_ahead.count) {
            return m_ahead.sums[offset / block_size];
        }
    }
    size_t available = static_cast<size_t>(m_input_end - window) / block_size;
    size_t lanes = std::min({Md4Lanes::MAX_LANES, available, match_count});
    Md4Lanes::hash(window, block_size, block_size, lanes, m_ahead.sums);
    m_ahead.first = window;
    m_ahead.count = lanes;
    return m_ahead.sums[0];
}

int DeltaHandler::clearMatch() {
    if (match_count == 0) return 0;
    if (appendCopy(uint64_t{match_start} * block_size, uint64_t{match_count} * block_size) < 0) {
        return -1;
    }
    match_count = 0;
    match_start = 0;
    match_possibility.clear();
    return 0;
}

int DeltaHandler::appendCopy(uint64_t start, uint64_t length) {
    if (m_mode == DeltaMode::CHUNKED) {
        start = static_cast<uint32_t>(start);
        length = static_cast<uint32_t>(length);
    }
    uint8_t command[RSConstant::MAX_COPY_COMMAND];
    size_t n = RSConstant::encodeCopy(start, length, command);
    return appendWriteBuffer(command, n);
}

int DeltaHandler::clearMismatch(const uint8_t* match_buffer_head) {
    if (mismatch_start == nullptr) return 0;
    size_t count = static_cast<size_t>(match_buffer_head - mismatch_start);
    uint8_t command[RSConstant::MAX_LITERAL_COMMAND];
    size_t n = RSConstant::encodeLiteral(count, command);
    if (appendWriteBuffer(command, n) < 0 || appendWriteBuffer(mismatch_start, count) < 0) {
        return -1;
    }
    mismatch_start = nullptr;
    return 0;
}

int DeltaHandler::appendWriteBuffer(const void* buffer, size_t length) {
    size_t needed = write_buffer_size + length;
    if (!write_buffer.reserveExact(needed)) return -1;
    std::memcpy(write_buffer.data() + write_buffer_size, buffer, length);
    write_buffer_size = needed;
    return 0;
}

int DeltaHandler::end() {
    m_lane.wait();
    if (finishWrite() < 0 || !fd_is_open(fd)) {
        release();
        fd_close(fd);
        return -1;
    }
    if (m_mode == DeltaMode::REALIGNED && matchTail() < 0) return -1;
    if (clearMatch() < 0) return -1;
    if (write_buffer_size != 0) {
        if (fd_write(fd, write_buffer.data(), write_buffer_size) !=
            static_cast<int64_t>(write_buffer_size)) {
            std::fprintf(stderr, "api (%d): fd_write: Error Code %d\n", __LINE__, errno);
            return -1;
        }
        write_buffer_size = 0;
    }
    if (read_buffer_size != 0) {
        uint8_t command[RSConstant::MAX_LITERAL_COMMAND];
        size_t n = RSConstant::encodeLiteral(read_buffer_size, command);
        if (fd_write(fd, command, n) != static_cast<int64_t>(n) ||
            fd_write(fd, read_buffer.data(), read_buffer_size) !=
                static_cast<int64_t>(read_buffer_size)) {
            std::fprintf(stderr, "api (%d): fd_write: Error Code %d\n", __LINE__, errno);
            return -1;
        }
        read_buffer_size = 0;
    }
    uint8_t end_command = RSConstant::OP_END;
    if (fd_write(fd, &end_command, 1) != 1) {
        std::fprintf(stderr, "api (%d): fd_write_int: Error Code %d\n", __LINE__, errno);
        return -1;
    }
    release();
    fd_close(fd);
    return 0;
}

// The bytes left at the end, fewer than one block, may still end with the old file's short
// last block. The window, which holds exactly those bytes, shrinks from the front one byte at
// a time until a signature entry of its length matches; the bytes before it become a literal
// and the block a copy, joined to the pending run when it follows on from it.
int DeltaHandler::matchTail() {
    const uint8_t* head = read_buffer.data();
    size_t size = read_buffer_size;
    size_t index = 0;
    for (; size != 0; checksum.roll_out(*head++), --size) {
        uint32_t digest = checksum.digest();
        if (mayMatch(digest) && strongMatch(head, size, digest, &index)) break;
    }
    if (size == 0) return 0;
    if (head == read_buffer.data() && match_count != 0 && index == match_start + match_count) {
        uint64_t length = uint64_t{match_count} * block_size + size;
        if (appendCopy(uint64_t{match_start} * block_size, length) < 0) return -1;
        match_count = 0;
        match_possibility.clear();
    } else {
        if (clearMatch() < 0) return -1;
        mismatch_start = head == read_buffer.data() ? nullptr : read_buffer.data();
        if (clearMismatch(head) < 0 || appendCopy(index * uint64_t{block_size}, size) < 0) {
            return -1;
        }
    }
    read_buffer_size = 0;
    return 0;
}
