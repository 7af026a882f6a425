// scripted-peer.h: a loopback server for tests of the server protocol. It listens on
// 127.0.0.1 at a port the system picks and, on its own thread, runs a script for each
// connection it accepts, one connection at a time. A script is built from the blocks of
// PeerSession: read bytes, a header or a whole PObject request, write bytes or a PObject
// reply, close in the middle of a reply, stay silent.
//
// What a script records for the test must be read only after WaitForSessions or Stop,
// which order the peer thread's writes before the test's reads.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "platform/net.h"

// One accepted connection, seen from the server's side. Every read is bounded by the
// channel's time-out (kReadTimeout unless the script changes it) and by the peer's stop.
class PeerSession {
  public:
    static constexpr uint32_t kReadTimeout = 10;

    PeerSession(platform::socket_t socket, int* abort_flag, const std::atomic<bool>& stopping);
    PeerSession(const PeerSession&) = delete;
    PeerSession& operator=(const PeerSession&) = delete;

    // Exactly `n` bytes into `out` (what arrived before a failure stays there). 0 or a
    // channel code.
    int ReadBytes(size_t n, std::string& out);
    // Everything until the client closes. 0, or a code other than the close (-2).
    int ReadToEnd(std::string& out);
    // A message header; `cmd` is its command. 0 or the code of ProtoReadHeader.
    int ReadHeader(uint8_t& cmd);
    // A PObject request: a header, then one PStream value. 0 or a code.
    int ReadRequest(uint8_t& cmd, PObject& request);
    // Writes `bytes` and flushes. 0 or a code.
    int WriteBytes(const std::string& bytes);
    // Writes `reply` as one bare PStream value, flushed. 0 or a code.
    int WriteObject(const PObject& reply);
    // Closes the connection now; whatever the script wrote before is sent first.
    void Close();
    // Sends nothing and swallows what comes until the client hangs up or the peer stops.
    void StaySilent();

    Channel& channel() { return m_ch; }
    PStream& stream() { return m_stream; }

  private:
    Channel m_ch;
    PStream m_stream;
    const std::atomic<bool>& m_stopping;
};

class ScriptedPeer {
  public:
    using Script = std::function<void(PeerSession&)>;

    // Starts listening and serving; `script` runs once per accepted connection, on the
    // peer's thread. port() is 0 when the listener could not be set up.
    explicit ScriptedPeer(Script script);
    // Stop().
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    int port() const { return m_port; }
    // Waits until `n` connections have been served to the end of their script. False
    // when that took longer than `limit`.
    bool WaitForSessions(int n, std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Ends the current script's reads within about a second, wakes a silent session,
    // closes the listener and joins the thread. Idempotent.
    void Stop();

  private:
    void Serve();

    Script m_script;
    platform::socket_t m_listener = platform::kInvalidSocket;
    int m_port = 0;
    std::atomic<bool> m_stopping{false};
    int m_abort = 0;  // the sessions' channel abort flag; written through atomic_ref
    std::mutex m_mutex;
    std::condition_variable m_done_cond;
    int m_done = 0;  // sessions served, under m_mutex
    std::thread m_thread;
};
