// net.h: the TCP socket primitives of the platform seam, for Channel, the daemon's
// control listener and the controller. Neutral code calls these instead of system
// headers. Results: 0 or more on success, -1 on failure with the platform's error
// number in *err when err is not null. Interrupted calls are retried inside.
#pragma once

#include <cstddef>

namespace platform {

// A socket handle; kInvalidSocket marks none.
using socket_t = int;
constexpr socket_t kInvalidSocket = -1;

// Once per process before any socket use: a peer that closes must give an error
// code, never a signal that kills the process. Safe to call again.
void net_init();

// A new IPv4 TCP socket of the default protocol, closed to child processes.
socket_t tcp_socket(int* err = nullptr);

// SO_LINGER on with `seconds`.
int set_linger(socket_t s, int seconds, int* err = nullptr);
// Non-blocking mode on.
int set_nonblock(socket_t s, int* err = nullptr);

// Starts a connection to a dotted-quad IPv4 address. 0 when connected at once, 1 when
// under way (wait for writability, then ask connect_result), -1 on failure. An address
// that isn't a dotted quad fails with *err 0.
int connect_start(socket_t s, const char* ip, int port, int* err = nullptr);
// After writability: 0 when the connection stands, -1 with the reason in *err. Needed
// because a refused socket is reported writable too.
int connect_result(socket_t s, int* err = nullptr);

// Result of wait_ready.
enum WaitResult { WAIT_ERROR = -1, WAIT_TIMEOUT = 0, WAIT_READY = 1, WAIT_NOT_READY = 2 };
// Waits up to `timeout_ms` for the socket to become readable (or writable). READY also
// covers a pending error or hang-up, which the next recv or send reports; NOT_READY is a
// wake-up that concerns neither (an invalid handle).
WaitResult wait_ready(socket_t s, bool for_write, int timeout_ms, int* err = nullptr);

// One send or recv on a ready socket: the count, or -1. A count of 0 from recv means the
// peer closed. A would-block result is -1 with *err set so that is_would_block says so.
long send_some(socket_t s, const void* buf, size_t len, int* err = nullptr);
long recv_some(socket_t s, void* buf, size_t len, int* err = nullptr);
bool is_would_block(int err);
// Looks at waiting bytes without taking them: the count, 0 when the peer has closed
// and nothing is left, -1 on failure (or would-block).
long peek_some(socket_t s, void* buf, size_t len, int* err = nullptr);

// Shutdown both ways (errors ignored), then close. -1 for an invalid socket.
int shutdown_close(socket_t s);
// Close without shutdown; for sockets that never connected.
int close_socket(socket_t s);

// Binds to 127.0.0.1:`port` (0 lets the system pick). An address a live listener holds
// is refused; one left only by closed connections is taken.
int bind_loopback(socket_t s, int port, int* err = nullptr);
int listen_socket(socket_t s, int backlog, int* err = nullptr);
// The local port a bound socket has, or -1.
int local_port(socket_t s, int* err = nullptr);
// An accepted connection (blocking, closed to child processes), or kInvalidSocket.
socket_t accept_socket(socket_t s, int* err = nullptr);

// The text of an error number of these calls; static storage.
const char* error_text(int err);

}  // namespace platform
