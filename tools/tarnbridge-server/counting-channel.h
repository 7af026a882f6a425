// counting-channel.h: the server's Channel. It counts the bytes a request has consumed and
// the bytes its reply has queued, and can be told to fail once a number of either is
// reached, so that the fault file can break a connection in the middle of a request or of
// a reply, at an exact byte. Used by the session loop.
#pragma once

#include <cstdint>

#include "foundation/channel.h"

class CountingChannel : public Channel {
  public:
    // Starts counting a new request from zero, without a limit.
    void ResetCount() {
        m_consumed = 0;
        m_limit = 0;
        m_written = 0;
        m_write_limit = 0;
    }
    // Reads fail with -2 once `limit` bytes of this request were consumed; 0 lifts it.
    void SetLimit(uint64_t limit) { m_limit = limit; }
    bool LimitReached() const { return m_limit != 0 && m_consumed >= m_limit; }
    uint64_t consumed() const { return m_consumed; }

    // Writes fail with -2 once `limit` bytes of this reply were queued (the bytes up to it
    // still go out when the channel closes); 0 lifts it.
    void SetWriteLimit(uint64_t limit) { m_write_limit = limit; }

    using Channel::Read;
    int Read(char* buf, size_t len, size_t& got) override;
    int Write(const char* buf, size_t len) override;

  private:
    uint64_t m_consumed = 0;
    uint64_t m_limit = 0;
    uint64_t m_written = 0;
    uint64_t m_write_limit = 0;
};
