// The platform-neutral half of the file layer: ring buffers and the buffered view.
#include "delta/xio.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

buffer_t::buffer_t(size_t cap) {
    capacity = cap == 0 ? 8192 : cap;
    data = static_cast<uint8_t*>(std::malloc(capacity));
    if (data == nullptr) {
        std::fprintf(stderr, "xio (%d): malloc: Error Code %d\n", __LINE__, errno);
        throw std::bad_alloc();
    }
}

buffer_t::~buffer_t() {
    std::free(data);
}

void buffer_clear(buffer_t& b) {
    b.size = 0;
    b.head = 0;
}

int buffer_resize(buffer_t& b, size_t capacity) {
    if (b.capacity >= capacity) return 0;
    if (b.size != 0) return -1;
    auto* data = static_cast<uint8_t*>(std::malloc(capacity));
    if (data == nullptr) return -1;
    std::free(b.data);
    b.data = data;
    b.capacity = capacity;
    buffer_clear(b);
    return 0;
}

size_t buffer_copy_in(buffer_t& b, const void* buffer, size_t length) {
    size_t count = std::min(length, buffer_left(b));
    size_t tail = (b.head + b.size) % b.capacity;
    size_t first = std::min(count, b.capacity - tail);
    const auto* src = static_cast<const uint8_t*>(buffer);
    std::memcpy(b.data + tail, src, first);
    std::memcpy(b.data, src + first, count - first);
    b.size += count;
    return count;
}

size_t buffer_copy_out(buffer_t& b, void* buffer, size_t length) {
    size_t count = std::min(length, b.size);
    size_t first = std::min(count, b.capacity - b.head);
    auto* dst = static_cast<uint8_t*>(buffer);
    std::memcpy(dst, b.data + b.head, first);
    std::memcpy(dst + first, b.data, count - first);
    b.head = (b.head + count) % b.capacity;
    b.size -= count;
    if (b.size == 0) b.head = 0;
    return count;
}

int64_t buffer_read_fd(buffer_t& b, fd_t& fd) {
    if (buffer_is_full(b)) return 0;
    bool wraps = b.head + b.size > b.capacity;
    if (!wraps && b.head != 0) {
        std::memmove(b.data, b.data + b.head, b.size);
        b.head = 0;
    }
    // Without wrapping the free space is the tail of the storage; with it, the gap before
    // head. Either way it is one contiguous stretch of capacity - size bytes.
    size_t tail = (b.head + b.size) % b.capacity;
    int64_t n = fd_read(fd, b.data + tail, buffer_left(b));
    if (n < 0) return -1;
    b.size += static_cast<size_t>(n);
    return n;
}

int buffer_write_fd(buffer_t& b, fd_t& fd) {
    if (b.size == 0) return 0;
    size_t first = std::min(b.size, b.capacity - b.head);
    if (fd_write(fd, b.data + b.head, first) != static_cast<int64_t>(first)) return -1;
    size_t rest = b.size - first;
    if (rest != 0 && fd_write(fd, b.data, rest) != static_cast<int64_t>(rest)) {
        // The first part is out already; keep only what is still owed.
        b.head = 0;
        b.size = rest;
        return -1;
    }
    buffer_clear(b);
    return 0;
}

int fd_bio_load(fd_bio_t& bio, fd_t& fd, size_t capacity) {
    bio.fd = fd;
    bio.w_buffer = std::make_unique<buffer_t>(capacity);
    bio.r_buffer = std::make_unique<buffer_t>(capacity);
    return 0;
}

void fd_bio_unload(fd_bio_t& bio) {
    bio.w_buffer.reset();
    bio.r_buffer.reset();
}

int fd_bio_read(fd_bio_t& bio, void* buffer, size_t length) {
    buffer_t& ring = *bio.r_buffer;
    if (length > ring.size && buffer_read_fd(ring, bio.fd) < 0) return -1;
    size_t got = buffer_copy_out(ring, buffer, length);
    auto* dst = static_cast<uint8_t*>(buffer);
    while (got < length) {
        int64_t n = fd_read(bio.fd, dst + got, length - got);
        if (n <= 0) return -1;
        got += static_cast<size_t>(n);
    }
    return 0;
}

int fd_bio_write(fd_bio_t& bio, const void* buffer, size_t length) {
    buffer_t& ring = *bio.w_buffer;
    if (length <= buffer_left(ring)) {
        buffer_copy_in(ring, buffer, length);
        return 0;
    }
    if (buffer_write_fd(ring, bio.fd) < 0) return -1;
    return fd_write(bio.fd, buffer, length) == static_cast<int64_t>(length) ? 0 : -1;
}

int fd_bio_flush(fd_bio_t& bio) {
    return buffer_write_fd(*bio.w_buffer, bio.fd);
}
