// signature-handler.h: the FileReader handler that writes a file's signature (one weak sum
// and one truncated MD4 per block) as a side output of the read pass. Used by uploads and
// downloads, which keep a signature per synchronised file, and by the delta tool.
#pragma once

#include <cstddef>
#include <cstdint>

#include "delta/background-lane.h"
#include "delta/byte-buffer.h"
#include "delta/rs-constant.h"
#include "delta/xio.h"

class SignatureHandler {
  public:
    explicit SignatureHandler(const xio_string_type& path) : file(path) {}
    ~SignatureHandler();
    SignatureHandler(const SignatureHandler&) = delete;
    SignatureHandler& operator=(const SignatureHandler&) = delete;

    // Ignored when 0.
    void setBlockSize(size_t size);
    // Ignored unless 1 to 16.
    void setHashSize(size_t size);

    // Upper bound of the bytes update() produces for `data_length` input bytes.
    size_t getSignatureSize(size_t data_length) const {
        return (data_length / block_size + 2) * (hash_size + 4);
    }

    // Creates the file and writes the header. -1 on an allocation or write failure.
    int begin();
    // Hashes the whole blocks of the chunk (on a helper thread for large chunks) and keeps
    // the tail for the next call. -1 on an allocation failure.
    int update(const void* buffer, size_t length);
    // Finishes the chunk's entries and writes them. -1 on a write failure.
    int wait();
    // Writes the entry of a final short block and closes the file. -1 if that write failed.
    int end();

  private:
    // Appends the entry of one block of `len` bytes to the write buffer.
    void updateBlock(const uint8_t* block, size_t len);
    void writeEntry(const uint8_t* block, size_t len, uint8_t* out) const;
    void hashSlice(size_t slice);

    // Whole blocks of the current chunk, hashed in slices into the write buffer.
    BackgroundLane m_lane;
    BackgroundLane::SliceFn m_slice_fn;
    xio_string_type file;
    fd_t fd;
    size_t block_size = RSConstant::DEFAULT_BLOCK_SIZE;
    size_t hash_size = RSConstant::DEFAULT_HASH_SIZE;
    ByteBuffer write_buffer;  // entries waiting to go out: write_buffer_size bytes
    size_t write_buffer_size = 0;
    ByteBuffer read_buffer;  // the unfinished block carried to the next update
    size_t read_buffer_size = 0;

    const uint8_t* m_pending_src = nullptr;
    uint8_t* m_pending_dst = nullptr;
    size_t m_pending_blocks = 0;
};
