// ipc.h: the two loopback socket helpers of the process entry. IPCListener is the
// daemon's control port, found by walking upward from a given port; IPCSender is a
// one-connection client that tells the controlling process that port.
#pragma once

#include <chrono>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "platform/net.h"

class IPCListener {
  public:
    // A 3-second wait in isReady, no socket.
    IPCListener() = default;
    ~IPCListener() { close(); }
    IPCListener(const IPCListener&) = delete;
    IPCListener& operator=(const IPCListener&) = delete;

    // Closes any earlier socket, then binds 127.0.0.1 at the first free port from `port`
    // upward and listens (backlog 8); port 0 lets the system pick. The port in use, or
    // -1 (logged; no socket then).
    int prepare(int port);
    // Binds exactly `port`, no walking, and listens. The port, or -1.
    int OpenSocket(int port);
    // Waits up to the time-out for a connection; false at once without a socket.
    bool isReady();
    // An accepted connection, or kInvalidSocket.
    platform::socket_t accept();
    void close();
    void setTimeout(std::chrono::milliseconds timeout) { m_timeout = timeout; }
    // Shutdown both ways and close; -1 for an invalid socket.
    static int CloseSocket(platform::socket_t socket);

  private:
    // Walks from `port` upward until a bind succeeds: the port bound, or -1 past 65535.
    int do_bind(platform::socket_t socket, int port);
    int listen_on(int port, bool walk);

    std::chrono::milliseconds m_timeout{3000};
    platform::socket_t fd = platform::kInvalidSocket;
};

class IPCSender {
  public:
    IPCSender() = default;
    virtual ~IPCSender() = default;
    IPCSender(const IPCSender&) = delete;
    IPCSender& operator=(const IPCSender&) = delete;

    // Opens the channel to 127.0.0.1:`port`. 0, or a negative channel code.
    int connect(int port);
    void close();
    // One value over the channel. 0, or a negative stream code.
    virtual int send(const PObject& obj);
    virtual int recv(PObject& obj);

  private:
    Channel c{Channel::kCapacity};
    PStream m_stream;
};
