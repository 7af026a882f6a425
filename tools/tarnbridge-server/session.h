// session.h: one client connection's loop. Each request is the 8-byte header and one
// PStream map; each reply is one bare map that always carries "alive" (the grant), error
// replies included. A connection that stays idle longer than its grant is closed; a
// request whose work runs long gets {"type": "keep_alive"} maps first. The "session"
// token and "view_id" are checked on every request. A malformed frame closes the
// connection (the stream position is lost); a well-formed request the server can't serve
// gets an error reply. Binaries of a request land in the spool folder (those of a resumable
// upload in its token's file, so that what arrived survives a broken connection) and
// are removed when the request is done. Used by Server, one thread per connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "counting-channel.h"
#include "faults.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "platform/net.h"
#include "server-options.h"
#include "server-store.h"

class Session {
  public:
    Session(const ServerOptions& options, Faults& faults);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Serves the accepted socket (which it owns from now on) until the peer closes, the
    // connection idles out, a frame is malformed or Stop is called.
    void Run(platform::socket_t socket);
    // From another thread: makes Run return soon.
    void Stop();
    bool finished() const { return m_finished.load(); }

  private:
    // 0 a map was read, 1 another kind of value was read (the stream is intact), or a
    // negative code (the connection must close).
    int ReadRequest(PObject& request, std::string& action, std::string& token);
    void PrepareFileTarget(PObject& file, const std::string& action, const std::string& token);
    // Fills the reply; 0 or the error code to answer.
    uint32_t Dispatch(uint8_t cmd, const std::string& action, const PObject& request,
                      PObject& reply, std::string& scratch);
    uint32_t Serve(const std::string& action, const PObject& request, int64_t account_id,
                   uint64_t view_id, PObject& reply, std::string& scratch);
    // Runs `work` on a helper thread, sending keep-alive maps while it takes long.
    // 0, or -1 when a keep-alive couldn't be sent (the work has finished all the same).
    template <typename Work>
    int RunWithKeepAlive(Work work);
    int Send(const PObject& value);
    void RemoveSpooled(const PObject& value);

    const ServerOptions& m_options;
    Faults& m_faults;
    ServerStore m_store;
    CountingChannel m_channel;
    PStream m_stream;
    std::mutex m_socket_mutex;  // guards the socket against Stop while Run closes it
    platform::socket_t m_socket = platform::kInvalidSocket;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_finished{false};
};
