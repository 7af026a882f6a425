// byte-buffer.h: an owned block of bytes that grows to exactly the size asked for, keeping
// its contents. The delta and signature handlers keep their read and write buffers in it, so
// that a failed pass or an early return can't leak them and growth failures stay results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

class ByteBuffer {
  public:
    ByteBuffer() = default;
    ~ByteBuffer() { std::free(m_data); }
    ByteBuffer(ByteBuffer&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)),
          m_capacity(std::exchange(other.m_capacity, 0)) {}
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_capacity, other.m_capacity);
        return *this;
    }
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;

    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }
    size_t capacity() const { return m_capacity; }

    // Grows the block to exactly `capacity` bytes when it is smaller; the bytes it held stay.
    // False when the memory can't be had, with the block unchanged.
    bool reserveExact(size_t capacity) {
        if (capacity <= m_capacity) return true;
        auto* grown = static_cast<uint8_t*>(std::realloc(m_data, capacity));
        if (grown == nullptr) return false;
        m_data = grown;
        m_capacity = capacity;
        return true;
    }

    // Gives the memory back; the buffer is empty afterwards.
    void release() {
        std::free(m_data);
        m_data = nullptr;
        m_capacity = 0;
    }

  private:
    uint8_t* m_data = nullptr;
    size_t m_capacity = 0;
};
