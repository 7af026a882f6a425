// channel.h: Channel, a buffered, time-limited byte stream over a non-blocking TCP
// socket with an abort flag. PStream encodes values on it; the control socket, the
// notification socket and the server connections all use it. The socket work goes
// through a table of operations (m_ops) so that an encrypted mode can replace it in
// place on the same object and socket.
//
// Results: 0 or a positive count on success, a negative ERR_ code on failure (-1 abort
// flag set, -2 I/O failure or closed, -3 system error, -4 invalid argument, -9 time-out).
// A Channel serves one thread at a time; only the abort flag is read across threads.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/net.h"

// The socket operations of one mode. `context` is the mode's handle: for the plain
// mode a heap-held socket, null when closed. Each function gets the context; the
// wait functions get the length of one wait slice in milliseconds.
struct ChannelOps {
    void* context = nullptr;
    // One wait of up to `timeout_ms` and one read: the count, -9 when nothing came in
    // the slice, or -2/-3/-4.
    int (*read_)(void* context, char* buf, size_t len, int timeout_ms) = nullptr;
    // The same for sending.
    int (*write)(void* context, const char* buf, size_t len, int timeout_ms) = nullptr;
    platform::socket_t (*get_fd)(void* context) = nullptr;
    // Shuts the connection and frees the handle; sets `context` to null.
    void (*close)(void*& context) = nullptr;
    bool (*isInvalid)(const void* context) = nullptr;
};

class Channel {
  public:
    enum { CHANNEL_SSL_MODE = 0, CHANNEL_PLAIN_MODE = 1 };
    // The capacity of every channel in the system; binaries move in chunks of it.
    static constexpr size_t kCapacity = 81920;
    static constexpr uint32_t kDefaultTimeout = 60;

    explicit Channel(size_t capacity = kCapacity);
    virtual ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Does nothing; gives 0.
    virtual int Open(const char* name);
    // Adopts a connected socket. With `configure`, linger 1 second and non-blocking
    // mode are set first. -4 when already open or the socket is invalid, -3 when the
    // configuration fails; on failure the caller keeps the socket. Clears both rings.
    virtual int Open(platform::socket_t socket, bool configure);
    // Connects to a dotted-quad IPv4 address. A null host or negative port gives 0 and
    // does nothing. -2 when the socket can't be made or the connection fails, -3 when it
    // can't be configured, -4 when already open. Clears both rings.
    virtual int Open(const char* host, int port);
    // Flushes what waits (dropped, with a warning, if that fails) and closes.
    virtual int Close();
    // Silence allowed before a read, flush or connect gives up; 0 means never.
    virtual void SetTimeout(uint32_t seconds);
    // The abort flag: when the int it points to is non-zero, reads and flushes give -1
    // within one wait slice. Another thread may set it; null disables it. Not owned.
    virtual void SetFlag(int* flag);

    // Big-endian integers; 0 or a code.
    virtual int ReadByte(uint8_t& v);
    virtual int ReadInt16(uint16_t& v);
    virtual int ReadInt32(uint32_t& v);
    virtual int ReadInt64(uint64_t& v);
    virtual int WriteByte(uint8_t v);
    virtual int WriteInt16(uint16_t v);
    virtual int WriteInt32(uint32_t v);
    virtual int WriteInt64(uint64_t v);

    // 0 when all `len` bytes arrived, or a code.
    virtual int Read(char* buf, size_t len);
    // As above; on failure `got` tells how many bytes did arrive and were copied.
    virtual int Read(char* buf, size_t len, size_t& got);
    // 0 when `len` bytes are queued (at most the capacity, else -4), flushing just enough first
    // when the ring lacks room. Nothing reaches the socket before the ring fills or
    // someone flushes.
    virtual int Write(const char* buf, size_t len);
    virtual void ClearRead();
    virtual void ClearWrite();
    // Sends at least `n` waiting bytes, all of them when `n` is 0: the count sent, or a code.
    virtual int FlushWrite(size_t n);
    // The plain channel knows nothing of its peer: -3.
    virtual int GetPeerInfo(char* ip, size_t ip_len, int& port);
    virtual bool IsClosed() const;
    // Receives until at least `want` more bytes sit in the read ring (it fills the
    // whole free run). The count received, -4 when `want` exceeds the free room.
    virtual int ReadMore(size_t want);

    // Byte-order swaps.
    virtual uint64_t Convert(uint64_t v) const;
    virtual uint32_t Convert(uint32_t v) const;
    virtual uint16_t Convert(uint16_t v) const;

    // The socket of an open channel, or kInvalidSocket.
    platform::socket_t GetSocket() const;
    bool IsSSL() const { return m_isSSL; }

    // Turns an open plain channel into one of `mode` in place: the registered operations
    // of the mode take over with `context` (which owns the same socket from now on, and
    // is freed by the mode's close), and the plain handle is dropped without closing the
    // socket. The rings stay as they are, so nothing may be pending. 0, or -4 when the
    // channel is closed or not plain, `context` is null, or the mode has no operations
    // (nothing changes then).
    int InstallMode(int mode, void* context);

    // Registers the operations of CHANNEL_SSL_MODE (the module that provides encryption
    // installs its set this way at start-up); SwitchChannelOp then uses it. Other modes
    // are ignored. The context field of `ops` is not used.
    static void RegisterModeOps(int mode, const ChannelOps& ops);

    // Socket set-up helpers of the connect side; derived channels replace them.
    // A new TCP socket, or kInvalidSocket.
    virtual platform::socket_t CreateSock();
    // 0, or -3.
    virtual int SetLinger(platform::socket_t socket, int seconds);
    virtual int SetNonBlock(platform::socket_t socket);
    // 0 when connected; -4 bad arguments, -9 time-out, -3 any other failure.
    virtual int ConnectWithTimeout(platform::socket_t socket, const char* ip, int port);
    // Installs the functions of `mode`, keeping the context: the plain set for
    // CHANNEL_PLAIN_MODE, the registered set for CHANNEL_SSL_MODE. 0, or -4 when the mode
    // has no registered set (nothing changes then).
    virtual int SwitchChannelOp(int mode);

  protected:
    // Adopts `socket` as the open handle of the plain mode.
    void AttachSocket(platform::socket_t socket);
    bool Aborted() const;
    int WaitSliceMs() const { return static_cast<int>(m_timeout.count()); }

    ChannelOps m_ops;
    std::unique_ptr<char[]> w_buf;
    size_t w_head = 0;
    size_t w_size = 0;
    std::unique_ptr<char[]> r_buf;
    size_t r_head = 0;
    size_t r_size = 0;
    size_t capacity;
    // One wait slice: the abort flag is seen at least this often.
    std::chrono::milliseconds m_timeout{1000};
    uint32_t channel_timeout = kDefaultTimeout;
    int* flag = nullptr;
    bool m_isSSL = false;

  private:
    size_t TakeFromRing(char* buf, size_t len);
};
