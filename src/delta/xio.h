// xio.h: the delta engine's thin file layer over the platform's files: plain file handles,
// appending asynchronous writes, ring buffers and a buffered view of a file. Used by the FileReader
// pipeline, its handlers and the patch reader. Every operation returns 0 or a byte count on success
// and -1 on failure, after printing the failure to standard error as "xio (LINE): ..." where LINE
// is the caller's source line. The layer never logs through the daemon's log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/ustring.h"
#include "platform/fs.h"

// Paths reach the file layer in the system string type; the platform gets its native form.
using xio_string_type = ustring;

// The source line of a call, taken as a default argument so that messages name the caller.
struct xio_location {
    static constexpr xio_location current(int line = __builtin_LINE()) { return {line}; }
    int line() const { return m_line; }
    int m_line;
};

// A file handle. Copies share the open file; fd_close closes it for every copy (their
// operations then fail), and the last copy to go releases what is left.
struct fd_t {
    std::shared_ptr<platform::File> handle;
};

struct fd_aio_impl;

// One pending asynchronous write. At most one write is in flight per fd_aio_t: every
// fd_aio_write is followed by fd_aio_wait before the next one.
struct fd_aio_t {
    // Throws std::bad_alloc, after printing "CreateEvent", when it can't be set up.
    fd_aio_t();
    // Waits for a write still in flight.
    ~fd_aio_t();
    fd_aio_t(const fd_aio_t&) = delete;
    fd_aio_t& operator=(const fd_aio_t&) = delete;

    fd_t file;  // the handle of the last write; invalid before the first
    std::unique_ptr<fd_aio_impl> impl;
};

// A ring buffer: `size` bytes from `head`, wrapping at `capacity`.
struct buffer_t {
    // A capacity of 0 means 8192. Throws std::bad_alloc, after printing "malloc", when the
    // storage can't be allocated.
    explicit buffer_t(size_t capacity = 0);
    ~buffer_t();
    buffer_t(const buffer_t&) = delete;
    buffer_t& operator=(const buffer_t&) = delete;

    uint8_t* data = nullptr;
    size_t capacity = 0;
    size_t size = 0;
    size_t head = 0;
};

// A buffered view of a handle it doesn't own: a read ring and a write ring.
struct fd_bio_t {
    fd_t fd;
    std::unique_ptr<buffer_t> w_buffer;  // null until fd_bio_load
    std::unique_ptr<buffer_t> r_buffer;  // null until fd_bio_load
};

// Opens an existing file for sequential reading, shared with writers and deleters.
int fd_open_read(const xio_string_type& path, fd_t& fd,
                 const xio_location& loc = xio_location::current());
// Creates or truncates a file for writing; every write on it appends.
int fd_open_write(const xio_string_type& path, fd_t& fd,
                  const xio_location& loc = xio_location::current());
// Closes an open handle and marks it closed; nothing for a closed one.
void fd_close(fd_t& fd);
inline bool fd_is_open(const fd_t& fd) {
    return fd.handle != nullptr;
}
// One blocking read: the count, 0 at end of file, -1 on failure. It doesn't loop.
int64_t fd_read(fd_t& fd, void* buffer, size_t length,
                const xio_location& loc = xio_location::current());
// A blocking write of all `length` bytes: the count, or -1.
int64_t fd_write(fd_t& fd, const void* buffer, size_t length,
                 const xio_location& loc = xio_location::current());
// Moves the read position to `offset` from the beginning.
int fd_seek(fd_t& fd, uint64_t offset, const xio_location& loc = xio_location::current());
// Flushes written data to the device; -1 without a message on a closed handle.
int fd_sync(fd_t& fd, const xio_location& loc = xio_location::current());
// The file's size in `size`.
int fd_stat(fd_t& fd, uint64_t& size, const xio_location& loc = xio_location::current());

// Starts appending `length` bytes of `buffer` to `fd`. The caller keeps the buffer unchanged
// until fd_aio_wait has returned. Returns 0 when started.
int fd_aio_write(fd_aio_t& aio, fd_t& fd, const void* buffer, size_t length,
                 const xio_location& loc = xio_location::current());
// Waits for the write started on `aio`: the bytes written, or -1.
int64_t fd_aio_wait(fd_aio_t& aio, const xio_location& loc = xio_location::current());

inline bool buffer_is_full(const buffer_t& b) {
    return b.capacity == b.size;
}
inline size_t buffer_left(const buffer_t& b) {
    return b.capacity - b.size;
}
inline size_t buffer_size(const buffer_t& b) {
    return b.size;
}
void buffer_clear(buffer_t& b);
// Grows an empty buffer to `capacity` (never shrinks): 0, or -1 when it holds data or the
// allocation fails.
int buffer_resize(buffer_t& b, size_t capacity);
// Copies in as much as fits behind the data; returns the count.
size_t buffer_copy_in(buffer_t& b, const void* buffer, size_t length);
// Takes up to `length` bytes from the head; returns the count.
size_t buffer_copy_out(buffer_t& b, void* buffer, size_t length);
// Fills the free space with one read: the bytes read (0 when full or at end of file), -1.
int64_t buffer_read_fd(buffer_t& b, fd_t& fd);
// Writes out and clears the content: 0, or -1 and the content stays.
int buffer_write_fd(buffer_t& b, fd_t& fd);

// Shares `fd` and allocates both rings with `capacity` bytes. Returns 0.
int fd_bio_load(fd_bio_t& bio, fd_t& fd, size_t capacity);
// Frees both rings; the handle stays open.
void fd_bio_unload(fd_bio_t& bio);
// Delivers exactly `length` bytes: 0, or -1 (end of file inside the request is a failure,
// and the bytes already copied to `buffer` are then meaningless).
int fd_bio_read(fd_bio_t& bio, void* buffer, size_t length);
// Queues `length` bytes, going straight to the file when they don't fit: 0 or -1.
int fd_bio_write(fd_bio_t& bio, const void* buffer, size_t length);
// Writes out the queued bytes: 0 or -1.
int fd_bio_flush(fd_bio_t& bio);
