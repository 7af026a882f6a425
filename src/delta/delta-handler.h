// delta-handler.h: the FileReader handler that reads the signature of an older version of a
// file and, while the new version streams past, writes a delta: literal bytes for what is
// new and copy commands for the blocks the older version already has. Used by uploads (the
// server holds the older version), by the reference server's downloads and the delta tool.
//
// Two modes write the same format, which any patcher applies. The bytes of the delta for a
// given input, chunking and mode are part of the contract.
// - DeltaMode::CHUNKED, the default: the window sum carried over a chunk boundary is extended
//   with RSRollingChecksum::update, which leaves its `b` half off once the window is out of
//   step with the chunk boundary, so after a shift the rest of the file tends to go out as
//   literals (still a valid delta). Copy offsets and lengths are formed in 32 bits, so bases
//   of 4 GiB or more wrap.
// - DeltaMode::REALIGNED: the carried window keeps its exact sum, so after an insert or a
//   delete the old blocks are found again wherever they now lie, and at the end of the input
//   the old file's short last block is looked for too. Offsets are 64-bit.
// In both, a literal never spans two update() calls while a run of copied blocks does, and
// among signature blocks with equal weak sums the lowest block index is tried first.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "delta/background-lane.h"
#include "delta/byte-buffer.h"
#include "delta/file-reader.h"
#include "delta/md4-lanes.h"
#include "delta/rolling-checksum.h"
#include "delta/weak-filter.h"
#include "delta/xio.h"

struct DeltaBlock {
    uint32_t weaksum;
    uint32_t index;  // ordinal of the entry in the signature
};

class DeltaHandler {
  public:
    DeltaHandler(const xio_string_type& delta_path, const xio_string_type& signature_path,
                 DeltaMode mode = DeltaMode::CHUNKED)
        : delta_file(delta_path), signature_file(signature_path), m_mode(mode) {}
    ~DeltaHandler();
    DeltaHandler(const DeltaHandler&) = delete;
    DeltaHandler& operator=(const DeltaHandler&) = delete;

    // Loads the signature (a malformed one is reported on standard error and fails), creates
    // the delta file and writes its magic. -1 on any failure.
    int begin();
    // Matches the chunk against the signature and starts writing its commands; large chunks
    // are matched on a helper thread. -1 on an allocation failure.
    int update(const void* buffer, size_t length);
    // Waits for the chunk's matching and writing. -1 on a failure of either.
    int wait();
    // Writes a pending copy, the tail as a literal and the end command, frees the tables and
    // closes the file. -1 on a write failure.
    int end();

  private:
    xio_string_type delta_file;
    xio_string_type signature_file;
    fd_t fd;
    size_t block_size = 0;
    size_t hash_size = 0;
    ByteBuffer sig_body;               // the signature's entries, as read
    std::vector<DeltaBlock> sig_stat;  // sorted by weak sum, then index
    size_t sig_block_count = 0;
    ByteBuffer read_buffer;  // input not yet consumed: read_buffer_size bytes
    size_t read_buffer_size = 0;
    ByteBuffer write_buffer;  // commands waiting to go out: write_buffer_size bytes
    size_t write_buffer_size = 0;
    std::vector<size_t> match_possibility;
    size_t match_start = 0;
    size_t match_count = 0;
    const uint8_t* mismatch_start = nullptr;
    RSRollingChecksum checksum;
    const DeltaMode m_mode;

    struct WeakSlot {
        uint32_t weaksum;
        uint32_t position_plus_one;  // 0: empty slot
    };

    int loadSignature();
    int loadHeader(fd_t& sig);
    int loadBody(fd_t& sig);
    void buildPrefilter();
    bool mayMatch(uint32_t digest) const;
    size_t firstWithWeak(uint32_t digest) const;
    bool strongMatch(const uint8_t* window, size_t len, uint32_t digest, size_t* index) const;

    int process(const uint8_t* input, size_t length);
    void extendWindow(const uint8_t* bytes, size_t len);
    bool scanForMatch(const uint8_t*& head, size_t& size);
    size_t scanRange(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b,
                     const std::atomic<bool>* stop) const;
    size_t scanSplit(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b);
    int matchBlock(const uint8_t* buffer);
    int findMatch(const uint8_t* buffer);
    int extendMatch(const uint8_t* buffer);
    const uint8_t* strongAhead(const uint8_t* window);
    int clearMatch();
    int appendCopy(uint64_t start, uint64_t length);
    int matchTail();
    int clearMismatch(const uint8_t* match_buffer_head);
    int appendWriteBuffer(const void* buffer, size_t length);
    int startWrite();
    int finishWrite();
    void release();

    // Weak sums of the signature: a filter that rules out almost every other sum with one
    // word, and an open-addressing table from a weak sum to its first position in sig_stat.
    WeakFilter m_weak;
    std::vector<WeakSlot> m_slots;
    unsigned m_slot_bits = 0;

    // Strong sums of the blocks from `first` on, block_size apart, computed ahead of a run;
    // they hold for the bytes of one process() call, which end at m_input_end.
    struct StrongAhead {
        const uint8_t* first = nullptr;
        size_t count = 0;
        uint8_t sums[Md4Lanes::MAX_LANES][Md4Lanes::DIGEST_SIZE];
    };
    StrongAhead m_ahead;
    const uint8_t* m_input_end = nullptr;

    // The commands of the previous chunk, still being written by m_aio while the next chunk
    // is matched into write_buffer.
    ByteBuffer m_spare;
    bool m_write_pending = false;
    fd_aio_t m_aio;

    BackgroundLane m_lane;
    BackgroundLane::SliceFn m_job;

    // The second half of a long stretch without matches, scanned on a helper thread.
    struct SplitScan {
        const uint8_t* start;
        size_t windows;
        uint32_t a;
        uint32_t b;
        size_t found;
    };
    BackgroundLane m_helper;
    BackgroundLane::SliceFn m_helper_job;
    SplitScan m_split{};
    std::atomic<bool> m_split_stop{false};
    const uint8_t* m_job_input = nullptr;
    size_t m_job_length = 0;
    int m_job_status = 0;
};
