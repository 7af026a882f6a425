// counting-channel.h: the server's Channel. It counts the bytes a request has consumed
// and can be told to fail once a number of them is reached, so that the fault file can
// break a connection in the middle of a request, at an exact byte. Used by the session
// loop.
#pragma once

#include <cstdint>

#include "foundation/channel.h"

class CountingChannel : public Channel {
  public:
    // Starts counting a new request from zero, without a limit.
    void ResetCount() {
        m_consumed = 0;
        m_limit = 0;
    }
    // Reads fail with -2 once `limit` bytes of this request were consumed; 0 lifts it.
    void SetLimit(uint64_t limit) { m_limit = limit; }
    bool LimitReached() const { return m_limit != 0 && m_consumed >= m_limit; }
    uint64_t consumed() const { return m_consumed; }

    using Channel::Read;
    int Read(char* buf, size_t len, size_t& got) override;

  private:
    uint64_t m_consumed = 0;
    uint64_t m_limit = 0;
};
