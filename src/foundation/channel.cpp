// channel.cpp: the ring buffers, the time-out loops and the plain socket operations.
#include "foundation/channel.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "foundation/error-code.h"
#include "foundation/log.h"

namespace {

const ustring& component() {
    static const ustring name("channel_debug");
    return name;
}

using clock_type = std::chrono::steady_clock;

bool silence_exceeded(clock_type::time_point since, uint32_t limit_seconds) {
    return limit_seconds != 0 && clock_type::now() - since >= std::chrono::seconds(limit_seconds);
}

// One wait of a read or write slice: 0 when the socket is ready, else the slice's code.
int wait_slice(platform::socket_t fd, bool for_write, int timeout_ms) {
    int err = 0;
    switch (platform::wait_ready(fd, for_write, timeout_ms, &err)) {
        case platform::WAIT_ERROR:
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): select: [%d] %s\n", __LINE__, err,
                           platform::error_text(err));
            return ERR_IO;
        case platform::WAIT_TIMEOUT:
            return ERR_TIMEOUT;
        case platform::WAIT_NOT_READY:
            Logger::LogMsg(Logger::L_WARNING, component(),
                           for_write
                               ? "[WARNING] channel(%d): WriteFd: select but fd [%d] not ready\n"
                               : "[WARNING] channel(%d): ReadFd: select but fd [%d] not ready\n",
                           __LINE__, fd);
            return ERR_SYS;
        case platform::WAIT_READY:
            break;
    }
    return 0;
}

// What a send or receive of `n` bytes (with `err`) means for the slice.
int slice_result(long n, int err, bool for_write) {
    // A readiness report can be spurious; nothing moved is an empty slice.
    if (n < 0 && platform::is_would_block(err)) return ERR_TIMEOUT;
    if (n > 0) return static_cast<int>(n);
    Logger::LogMsg(
        Logger::L_WARNING, component(),
        for_write ? "[WARNING] channel(%d): write: %s\n" : "[WARNING] channel(%d): read: %s\n",
        __LINE__, platform::error_text(n < 0 ? err : 0));
    if (n == 0)
        Logger::LogMsg(Logger::L_WARNING, component(),
                       for_write
                           ? "[WARNING] channel(%d): Diagnose: select says the socket is writeable "
                             "but actually we can't write ... connection closed?\n"
                           : "[WARNING] channel(%d): Diagnose: select says the socket is readable "
                             "but actually we can't read ... connection closed?\n",
                       __LINE__);
    return ERR_IO;
}

}  // namespace

platform::socket_t ChannelOps::get_fd() const {
    return m_carrier ? m_carrier->get_fd() : platform::kInvalidSocket;
}

void ChannelOps::close() {
    if (m_carrier) m_carrier->close();
}

int PlainMode::read_(char* buf, size_t len, int timeout_ms) {
    if (len == 0) {
        Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): ReadFd: request 0\n",
                       __LINE__);
        return ERR_INVAL;
    }
    if (int rc = wait_slice(m_socket, false, timeout_ms); rc != 0) return rc;
    int err = 0;
    long n = platform::recv_some(m_socket, buf, len, &err);
    return slice_result(n, err, false);
}

int PlainMode::write(const char* buf, size_t len, int timeout_ms) {
    if (len == 0) return 0;
    if (int rc = wait_slice(m_socket, true, timeout_ms); rc != 0) return rc;
    int err = 0;
    long n = platform::send_some(m_socket, buf, len, &err);
    return slice_result(n, err, true);
}

void PlainMode::close() {
    platform::shutdown_close(m_socket);
    m_socket = platform::kInvalidSocket;
}

Channel::Channel(size_t capacity_)
    : w_buf(new char[capacity_]), r_buf(new char[capacity_]), capacity(capacity_) {
    platform::net_init();
}

Channel::~Channel() {
    Close();
}

int Channel::Open(const char*) {
    return 0;
}

int Channel::Open(platform::socket_t socket, bool configure) {
    if (!IsClosed()) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Open: Channel already opened [%d]\n", __LINE__,
                       GetSocket());
        Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): Open: %s\n",
                       __LINE__, GetErrorString(ERR_INVAL));
        return ERR_INVAL;
    }
    if (socket == platform::kInvalidSocket) return ERR_INVAL;
    if (configure && (SetLinger(socket, 1) < 0 || SetNonBlock(socket) < 0)) return ERR_SYS;
    Attach(std::make_unique<PlainMode>(socket));
    ClearRead();
    ClearWrite();
    return 0;
}

int Channel::Open(const char* host, int port) {
    if (host == nullptr || port < 0) return 0;
    if (!IsClosed()) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Open: Channel already opened [%d]\n", __LINE__,
                       GetSocket());
        Logger::LogMsg(Logger::L_WARNING, component(), "[WARNING] channel(%d): Open: %s\n",
                       __LINE__, GetErrorString(ERR_INVAL));
        return ERR_INVAL;
    }
    platform::socket_t s = CreateSock();
    if (s == platform::kInvalidSocket) return ERR_IO;
    if (SetLinger(s, 1) < 0 || SetNonBlock(s) < 0) {
        platform::close_socket(s);
        return ERR_SYS;
    }
    if (ConnectWithTimeout(s, host, port) < 0) {
        platform::close_socket(s);
        return ERR_IO;
    }
    Attach(std::make_unique<PlainMode>(s));
    ClearRead();
    ClearWrite();
    return 0;
}

int Channel::Close() {
    if (!IsClosed()) {
        int rc = FlushWrite(0);
        if (rc < 0)
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): FlushWrite: %s\n", __LINE__, GetErrorString(rc));
        m_ops->close();
        m_ops.reset();
    }
    ClearRead();
    ClearWrite();
    m_isSSL = false;
    return 0;
}

void Channel::SetTimeout(uint32_t seconds) {
    channel_timeout = seconds;
}

void Channel::SetFlag(int* abort_flag) {
    flag = abort_flag;
}

bool Channel::Aborted() const {
    return flag != nullptr && std::atomic_ref<int>(*flag).load(std::memory_order_relaxed) != 0;
}

int Channel::ReadByte(uint8_t& v) {
    return Read(reinterpret_cast<char*>(&v), 1);
}

// Reads sizeof(T) bytes, most significant first.
template <typename T>
int read_big_endian(Channel& ch, T& v) {
    uint8_t b[sizeof(T)];
    int rc = ch.Read(reinterpret_cast<char*>(b), sizeof b);
    if (rc < 0) return rc;
    T value = 0;
    for (uint8_t byte : b) value = static_cast<T>((value << 8) | byte);
    v = value;
    return 0;
}

int Channel::ReadInt16(uint16_t& v) {
    return read_big_endian(*this, v);
}
int Channel::ReadInt32(uint32_t& v) {
    return read_big_endian(*this, v);
}
int Channel::ReadInt64(uint64_t& v) {
    return read_big_endian(*this, v);
}

int Channel::WriteByte(uint8_t v) {
    return Write(reinterpret_cast<const char*>(&v), 1);
}

int Channel::WriteInt16(uint16_t v) {
    const char b[2] = {static_cast<char>(v >> 8), static_cast<char>(v)};
    return Write(b, sizeof b);
}

int Channel::WriteInt32(uint32_t v) {
    char b[4];
    for (int i = 3; i >= 0; --i, v >>= 8) b[i] = static_cast<char>(v & 0xFF);
    return Write(b, sizeof b);
}

int Channel::WriteInt64(uint64_t v) {
    char b[8];
    for (int i = 7; i >= 0; --i, v >>= 8) b[i] = static_cast<char>(v & 0xFF);
    return Write(b, sizeof b);
}

int Channel::Read(char* buf, size_t len) {
    size_t got = 0;
    return Read(buf, len, got);
}

int Channel::Read(char* buf, size_t len, size_t& got) {
    got = 0;
    if (IsClosed()) return ERR_IO;
    got = TakeFromRing(buf, len);
    while (got < len) {
        // The ring is empty here: everything it held has been handed out.
        int rc = ReadMore(std::min(len - got, capacity));
        got += TakeFromRing(buf + got, len - got);
        if (rc < 0) return rc;
    }
    return 0;
}

size_t Channel::TakeFromRing(char* buf, size_t len) {
    size_t n = std::min(len, r_size);
    size_t first = std::min(n, capacity - r_head);
    std::memcpy(buf, r_buf.get() + r_head, first);
    std::memcpy(buf + first, r_buf.get(), n - first);
    r_head = (r_head + n) % capacity;
    r_size -= n;
    if (r_size == 0) r_head = 0;
    return n;
}

int Channel::ReadMore(size_t want) {
    auto t0 = clock_type::now();
    if (want == 0) return 0;
    if (IsClosed()) return ERR_IO;
    if (want > capacity - r_size) return ERR_INVAL;
    size_t total = 0;
    for (;;) {
        if (Aborted()) return ERR_INT;
        size_t tail = (r_head + r_size) % capacity;
        size_t run = tail >= r_head ? capacity - tail : r_head - tail;
        int rc = m_ops->read_(r_buf.get() + tail, run, WaitSliceMs());
        if (rc == ERR_TIMEOUT) {
            if (!silence_exceeded(t0, channel_timeout)) continue;
            Logger::LogMsg(Logger::L_DEBUG, component(),
                           "[DEBUG] channel(%d): ReadMore: Channel timeout for %u seconed\n",
                           __LINE__, channel_timeout);
            return ERR_TIMEOUT;
        }
        if (rc < 0) return rc;
        total += static_cast<size_t>(rc);
        r_size += static_cast<size_t>(rc);
        t0 = clock_type::now();
        if (total >= want) return static_cast<int>(total);
    }
}

int Channel::Write(const char* buf, size_t len) {
    if (IsClosed()) return ERR_IO;
    if (len > capacity) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Write: Exceed maximum data block size\n", __LINE__);
        return ERR_INVAL;
    }
    size_t room = capacity - w_size;
    if (room < len) {
        int rc = FlushWrite(len - room);
        if (rc < 0) {
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): Write: FlushWrite failed\n", __LINE__);
            return rc;
        }
    }
    size_t tail = (w_head + w_size) % capacity;
    size_t first = std::min(len, capacity - tail);
    std::memcpy(w_buf.get() + tail, buf, first);
    std::memcpy(w_buf.get(), buf + first, len - first);
    w_size += len;
    return 0;
}

int Channel::FlushWrite(size_t n) {
    if (IsClosed()) return ERR_IO;
    size_t target = n == 0 ? w_size : std::min(n, w_size);
    size_t sent = 0;
    auto t0 = clock_type::now();
    while (sent < target) {
        if (Aborted()) return ERR_INT;
        size_t run = std::min(w_size, capacity - w_head);
        int rc = m_ops->write(w_buf.get() + w_head, run, WaitSliceMs());
        if (rc == ERR_TIMEOUT) {
            if (!silence_exceeded(t0, channel_timeout)) continue;
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): FlushWrite: Channel timeout for %u seconds\n",
                           __LINE__, channel_timeout);
            return ERR_TIMEOUT;
        }
        if (rc < 0) return rc;
        w_head += static_cast<size_t>(rc);
        w_size -= static_cast<size_t>(rc);
        sent += static_cast<size_t>(rc);
        t0 = clock_type::now();
        if (w_size == 0 || w_head == capacity) w_head = 0;
    }
    return static_cast<int>(sent);
}

void Channel::ClearRead() {
    r_head = 0;
    r_size = 0;
}

void Channel::ClearWrite() {
    w_head = 0;
    w_size = 0;
}

int Channel::GetPeerInfo(char*, size_t, int&) {
    return ERR_SYS;
}

bool Channel::IsClosed() const {
    return m_ops == nullptr;
}

uint64_t Channel::Convert(uint64_t v) const {
    return __builtin_bswap64(v);
}
uint32_t Channel::Convert(uint32_t v) const {
    return __builtin_bswap32(v);
}
uint16_t Channel::Convert(uint16_t v) const {
    return __builtin_bswap16(v);
}

platform::socket_t Channel::GetSocket() const {
    return IsClosed() ? platform::kInvalidSocket : m_ops->get_fd();
}

platform::socket_t Channel::CreateSock() {
    return platform::tcp_socket();
}

int Channel::SetLinger(platform::socket_t socket, int seconds) {
    return platform::set_linger(socket, seconds) == 0 ? 0 : ERR_SYS;
}

int Channel::SetNonBlock(platform::socket_t socket) {
    return platform::set_nonblock(socket) == 0 ? 0 : ERR_SYS;
}

int Channel::ConnectWithTimeout(platform::socket_t socket, const char* ip, int port) {
    int err = 0;
    int rc = ip == nullptr || port <= 0 ? -1 : platform::connect_start(socket, ip, port, &err);
    if (rc < 0 && err == 0) {
        Logger::LogMsg(Logger::L_WARNING, component(),
                       "[WARNING] channel(%d): Invalid argumants (ip: %s, port: %d\n", __LINE__,
                       ip == nullptr ? "(null)" : ip, port);
        return ERR_INVAL;
    }
    if (rc < 0) return ERR_SYS;
    if (rc == 0) return 0;
    // Each empty slice counts three: a 60-second channel allows about 20 seconds here.
    uint32_t counter = 0;
    for (;;) {
        platform::WaitResult w = platform::wait_ready(socket, true, WaitSliceMs(), &err);
        if (w == platform::WAIT_ERROR) return ERR_SYS;
        if (w != platform::WAIT_TIMEOUT)
            return platform::connect_result(socket, &err) == 0 ? 0 : ERR_SYS;
        counter += 3;
        if (channel_timeout != 0 && counter >= channel_timeout) {
            Logger::LogMsg(Logger::L_WARNING, component(),
                           "[WARNING] channel(%d): Channel timed out during connect (%d seconds), "
                           "abort anyway\n",
                           __LINE__, static_cast<int>(channel_timeout));
            return ERR_TIMEOUT;
        }
    }
}

int Channel::SwitchChannelOp(std::unique_ptr<ChannelOps> mode) {
    if (IsClosed() || m_isSSL || mode == nullptr) return ERR_INVAL;
    mode->m_carrier = std::move(m_ops);
    m_ops = std::move(mode);
    m_isSSL = m_ops->kind() == CHANNEL_SSL_MODE;
    return 0;
}

void Channel::Attach(std::unique_ptr<ChannelOps> mode) {
    m_ops = std::move(mode);
}
