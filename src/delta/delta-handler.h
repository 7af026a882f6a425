// delta-handler.h: the FileReader handler that reads the signature of an older version of a
// file and, while the new version streams past, writes a delta: literal bytes for what is
// new and copy commands for the blocks the older version already has. Used by uploads (the
// server holds the older version) and by the delta tool.
//
// The bytes of the delta for a given input and chunking are part of the contract:
// - a literal never spans two update() calls; a run of copied blocks does;
// - the window sum carried over a chunk boundary is extended with RSRollingChecksum::update,
//   which leaves its `b` half off once the window is out of step with the chunk boundary, so
//   after a shift the rest of the file tends to go out as literals (still a valid delta);
// - among signature blocks with equal weak sums the lowest block index is tried first;
// - copy offsets and lengths are formed in 32 bits, so bases of 4 GiB or more wrap.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "delta/background-lane.h"
#include "delta/rolling-checksum.h"
#include "delta/weak-filter.h"
#include "delta/xio.h"

struct DeltaBlock {
    uint32_t weaksum;
    uint32_t index;  // ordinal of the entry in the signature
};

class DeltaHandler {
  public:
    DeltaHandler(const xio_string_type& delta_path, const xio_string_type& signature_path)
        : delta_file(delta_path), signature_file(signature_path) {}
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

    xio_string_type delta_file;
    xio_string_type signature_file;
    fd_t fd;
    size_t block_size = 0;
    size_t hash_size = 0;
    uint8_t* sig_body = nullptr;
    std::vector<DeltaBlock> sig_stat;  // sorted by weak sum, then index
    size_t sig_block_count = 0;
    uint8_t* read_buffer = nullptr;
    size_t read_buffer_size = 0;
    size_t read_buffer_capacity = 0;
    uint8_t* write_buffer = nullptr;
    size_t write_buffer_size = 0;
    size_t write_buffer_capacity = 0;
    std::vector<size_t> match_possibility;
    size_t match_start = 0;
    size_t match_count = 0;
    const uint8_t* mismatch_start = nullptr;
    RSRollingChecksum checksum;

  private:
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
    bool strongMatch(const uint8_t* window, uint32_t digest, size_t* index) const;

    int process(const uint8_t* input, size_t length);
    bool scanForMatch(const uint8_t*& head, size_t& size);
    size_t scanRange(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b,
                     const std::atomic<bool>* stop) const;
    size_t scanSplit(const uint8_t* p, size_t windows, uint32_t& a, uint32_t& b);
    int matchBlock(const uint8_t* buffer);
    int findMatch(const uint8_t* buffer);
    int extendMatch(const uint8_t* buffer);
    int clearMatch();
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

    // The commands of the previous chunk, still being written by m_aio while the next chunk
    // is matched into write_buffer.
    uint8_t* m_spare = nullptr;
    size_t m_spare_capacity = 0;
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
