// channel.h: Channel, a buffered, time-limited byte stream over a non-blocking TCP
// socket with an abort flag. PStream encodes values on it; the control socket, the
// notification socket and the server connections all use it. The socket work goes
// through the channel's current mode (m_ops, a ChannelOps object the channel owns), so that an
// encrypted mode can take over in place on the same object, buffers and socket, and
// channels that reach the server another way can open with a mode of their own.
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

class ChannelOps;

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
    uint32_t GetTimeout() const { return channel_timeout; }
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
    // Whether the abort flag is raised now.
    bool Aborted() const;
    // One wait slice in milliseconds: the abort flag is seen at least this often.
    int WaitSliceMs() const { return static_cast<int>(m_timeout.count()); }

    // Socket set-up helpers of the connect side; derived channels replace them.
    // A new TCP socket, or kInvalidSocket.
    virtual platform::socket_t CreateSock();
    // 0, or -3.
    virtual int SetLinger(platform::socket_t socket, int seconds);
    virtual int SetNonBlock(platform::socket_t socket);
    // 0 when connected; -4 bad arguments, -9 time-out, -3 any other failure.
    virtual int ConnectWithTimeout(platform::socket_t socket, const char* ip, int port);
    // Puts `mode` over the one carrying the bytes now, in place: `mode` takes ownership
    // of the current mode (as its carrier) and every read and write goes through it
    // from then on, on the same socket and rings, so nothing may be pending. A channel
    // turns encrypted once. 0; -4 when the channel is closed or already encrypted or
    // `mode` is null (the channel is unchanged and `mode`, dropped, closes nothing).
    virtual int SwitchChannelOp(std::unique_ptr<ChannelOps> mode);

  protected:
    // Makes `mode` the open channel's (the channel must be closed): the plain mode on a
    // socket for Open, another for a channel that reaches its peer some other way.
    void Attach(std::unique_ptr<ChannelOps> mode);

    // The current mode; null while the channel is closed.
    std::unique_ptr<ChannelOps> m_ops;
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

// One mode of a Channel: how bytes move on the socket, and what the mode holds to do it.
// The plain mode holds the socket alone. An encrypted mode holds its session and
// context and runs over the mode it replaced, which keeps the socket; a channel reached
// through a proxy starts with a mode whose close gives the socket back to the proxy.
// The channel owns its mode. Dropping a mode frees what it holds but never closes the
// socket: only close() ends the connection.
class ChannelOps {
  public:
    ChannelOps() = default;
    virtual ~ChannelOps() = default;
    ChannelOps(const ChannelOps&) = delete;
    ChannelOps& operator=(const ChannelOps&) = delete;

    // One wait of up to `timeout_ms` and one read: the count, -9 when nothing came in
    // the slice, or -2/-3/-4.
    virtual int read_(char* buf, size_t len, int timeout_ms) = 0;
    // The same for sending.
    virtual int write(const char* buf, size_t len, int timeout_ms) = 0;
    // The socket under the mode. Base: the carrier's.
    virtual platform::socket_t get_fd() const;
    // Ends the connection: the mode's own farewell, then its carrier's close. Base: the
    // carrier's close.
    virtual void close();
    // CHANNEL_SSL_MODE for an encrypting mode, CHANNEL_PLAIN_MODE for any other.
    virtual int kind() const { return Channel::CHANNEL_PLAIN_MODE; }

  protected:
    // The mode under this one; null for a mode that holds the socket itself.
    ChannelOps* carrier() const { return m_carrier.get(); }

  private:
    // SwitchChannelOp hands the replaced mode over as the carrier.
    friend class Channel;
    std::unique_ptr<ChannelOps> m_carrier;
};

// The mode of a plain TCP socket: a slice is one wait for readiness and one recv or send.
class PlainMode : public ChannelOps {
  public:
    explicit PlainMode(platform::socket_t socket) : m_socket(socket) {}
    int read_(char* buf, size_t len, int timeout_ms) override;
    int write(const char* buf, size_t len, int timeout_ms) override;
    platform::socket_t get_fd() const override { return m_socket; }
    // Shuts the socket down both ways and closes it.
    void close() override;

  private:
    platform::socket_t m_socket;
};
