// counting-relay.h: a counting TCP relay between the daemon and the server, so that a test can tell
// how many bytes the daemon sent on each connection (a delta's size, a resumed upload's
// remainder) without the server having to report them. The benches put one in front of any
// client and server to count the bytes on the wire both ways.
#pragma once

#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "support/loopback.h"

class CountingRelay {
  public:
    // Listens on a port the system picks and forwards every connection to `target_port`.
    explicit CountingRelay(int target_port);
    // Closes every connection and joins every thread.
    ~CountingRelay();
    CountingRelay(const CountingRelay&) = delete;
    CountingRelay& operator=(const CountingRelay&) = delete;

    int port() const { return m_listener.port(); }
    // Bytes from the daemon towards the server, in all and per connection (in the order
    // the connections were accepted).
    uint64_t Sent();
    std::vector<uint64_t> SentPerConnection();
    // Bytes from the server towards the daemon, in all.
    uint64_t Received();
    // Stops carrying the daemon's bytes once `Sent()` reaches `bytes` (the server's still
    // flow), so a transfer can be watched mid-body; Release() lets them go again.
    void Hold(uint64_t bytes);
    void Release() { Hold(UINT64_MAX); }

  private:
    void Accept();
    // Copies both ways until either side closes; counts the daemon's bytes in m_sent[slot], the
    // server's in m_received.
    void Pump(int client, int server, size_t slot);
    bool Held();

    loopback::Listener m_listener;
    int m_target;
    int m_wake[2] = {-1, -1};  // written when the relay closes
    std::mutex m_mutex;
    std::vector<uint64_t> m_sent;
    uint64_t m_received = 0;
    uint64_t m_hold_at = UINT64_MAX;
    std::vector<std::thread> m_threads;
    std::thread m_acceptor;
};
