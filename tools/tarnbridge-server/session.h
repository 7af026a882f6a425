// session.h: one client connection's loop. Each request is the 8-byte header and one
// PStream map; each reply is one bare map that always carries "alive" (the grant), error
// replies included. A connection that stays idle longer than its grant is closed; a
// request whose work runs long gets {"type": "keep_alive"} maps first. The "session"
// token and "view_id" are checked on every request. A malformed frame closes the
// connection (the stream position is lost); a well-formed request the server can't serve
// gets an error reply. An upload's bytes are taken in by the loop itself, hashed as they
// come (into memory when small, into a content file, or into a resumable upload's token
// file so that what arrived survives a broken connection); other binaries land in the
// spool folder and are removed when the request is done. The request is worked on by the
// connection's own thread while the server's keep-alive timer watches it; its changes go
// through the server's commit queue. A client may turn the connection to TLS, by a request
// of its own before the login or with the login, once; the handshake follows the reply.
// Used by Server, one thread per connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "commit-queue.h"
#include "counting-channel.h"
#include "faults.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "keep-alive.h"
#include "platform/net.h"
#include "pull.h"
#include "server-options.h"
#include "server-store.h"
#include "upload-body.h"

class Session {
  public:
    Session(const ServerOptions& options, Faults& faults, CommitQueue& queue,
            KeepAlive& keep_alive);
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
    // Reads the "file" member, taking its "data" in as the upload's body. As ReadRequest.
    int ReadFileMember(PObject& file, const std::string& action, const std::string& token);
    // Fills the reply; 0 or the error code to answer.
    uint32_t Dispatch(uint8_t cmd, const std::string& action, const PObject& request,
                      PObject& reply, std::string& scratch);
    uint32_t Serve(const std::string& action, const PObject& request, int64_t account_id,
                   uint64_t view_id, PObject& reply, std::string& scratch);
    // Agrees to TLS, which starts once the reply is sent: 0, or SPROTO_ERR_VERSION when
    // the server runs without TLS or the connection is encrypted already.
    uint32_t AcceptTls();
    // Tells the commit queue whether this connection is sending changes now.
    void NoteWriting(const std::string& action, const PObject& request);
    // Sends the answer to a request: the page of a pull, or the reply map. 0 or a code.
    int Answer(const std::string& action, uint32_t code, PObject& reply);
    int Send(const PObject& value);
    void RemoveSpooled(const PObject& value);

    const ServerOptions& m_options;
    Faults& m_faults;
    CommitQueue& m_queue;
    KeepAlive& m_keep_alive;
    ServerStore m_store;
    UploadBody m_body;         // of the request being served
    PullPage m_page;           // the answer of a pull being served
    bool m_writing = false;    // the last request was a change
    bool m_start_tls = false;  // the request being answered turns the connection to TLS
    CountingChannel m_channel;
    PStream m_stream;
    std::mutex m_socket_mutex;  // guards the socket against Stop while Run closes it
    platform::socket_t m_socket = platform::kInvalidSocket;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_finished{false};
};
