// ipc.cpp: the control port's listener and the one-shot sender to the controlling process.
#include "daemon/ipc.h"

#include "foundation/log.h"

namespace {

const ustring& component() {
    static const ustring name("ipc");
    return name;
}

}  // namespace

int IPCListener::prepare(int port) {
    return listen_on(port, true);
}

int IPCListener::OpenSocket(int port) {
    return listen_on(port, false);
}

int IPCListener::listen_on(int port, bool walk) {
    close();
    int err = 0;
    platform::socket_t s = platform::tcp_socket(&err);
    if (s == platform::kInvalidSocket) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] ipc(%d): sock error: %s\n", __LINE__,
                       platform::error_text(err));
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] ipc(%d): sock create error, %d\n",
                       __LINE__, err);
        return -1;
    }
    int bound = walk ? do_bind(s, port)
                     : (platform::bind_loopback(s, port, &err) == 0 ? platform::local_port(s) : -1);
    if (bound < 0) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] ipc(%d): find available port failed.\n",
                       __LINE__);
        platform::close_socket(s);
        return -1;
    }
    if (platform::listen_socket(s, 8, &err) != 0) {
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] ipc(%d): listen error, %d\n", __LINE__,
                       err);
        platform::close_socket(s);
        return -1;
    }
    Logger::LogMsg(Logger::L_INFO, component(), "[INFO] ipc(%d): listening on port %d\n", __LINE__,
                   bound);
    fd = s;
    return bound;
}

int IPCListener::do_bind(platform::socket_t socket, int port) {
    for (int p = port;; ++p) {
        if (p > 65535) {
            Logger::LogMsg(Logger::L_ERR, component(),
                           "[ERROR] ipc(%d): Port number exceeds 65536\n", __LINE__);
            return -1;
        }
        Logger::LogMsg(Logger::L_INFO, component(), "[INFO] ipc(%d): Try to bind port: %d\n",
                       __LINE__, p);
        int err = 0;
        if (platform::bind_loopback(socket, p, &err) == 0) {
            // Names the port first asked for, not the one bound: the line has always read so.
            Logger::LogMsg(Logger::L_INFO, component(), "[INFO] ipc(%d): Bind port %d success\n",
                           __LINE__, port);
            return p == 0 ? platform::local_port(socket) : p;
        }
        Logger::LogMsg(Logger::L_ERR, component(), "[ERROR] ipc(%d): bind error, %d\n", __LINE__,
                       err);
        Logger::LogMsg(Logger::L_INFO, component(),
                       "[INFO] ipc(%d): Bind port %d failed, try next one\n", __LINE__, p);
    }
}

bool IPCListener::isReady() {
    if (fd == platform::kInvalidSocket) return false;
    return platform::wait_ready(fd, false, static_cast<int>(m_timeout.count())) ==
           platform::WAIT_READY;
}

platform::socket_t IPCListener::accept() {
    if (fd == platform::kInvalidSocket) return platform::kInvalidSocket;
    return platform::accept_socket(fd);
}

void IPCListener::close() {
    if (fd == platform::kInvalidSocket) return;
    platform::close_socket(fd);
    fd = platform::kInvalidSocket;
}

int IPCListener::CloseSocket(platform::socket_t socket) {
    if (socket == platform::kInvalidSocket) return -1;
    return platform::shutdown_close(socket);
}

int IPCSender::connect(int port) {
    return c.Open("127.0.0.1", port);
}

void IPCSender::close() {
    c.Close();
}

int IPCSender::send(const PObject& obj) {
    return m_stream.Send(c, obj);
}

int IPCSender::recv(PObject& obj) {
    return m_stream.Recv(c, obj);
}
