// counting-channel.cpp: the request and reply byte counts and their cut-offs.
#include "counting-channel.h"

#include <algorithm>

#include "foundation/error-code.h"

int CountingChannel::Read(char* buf, size_t len, size_t& got) {
    got = 0;
    size_t allowed = len;
    if (m_limit != 0)
        allowed =
            static_cast<size_t>(std::min<uint64_t>(len, m_limit - std::min(m_limit, m_consumed)));
    int rc = 0;
    if (allowed > 0) rc = Channel::Read(buf, allowed, got);
    m_consumed += got;
    if (rc < 0) return rc;
    return got < len ? ERR_IO : rc;
}

int CountingChannel::Write(const char* buf, size_t len) {
    if (m_write_limit == 0) return Channel::Write(buf, len);
    const uint64_t room = m_write_limit - std::min(m_write_limit, m_written);
    const size_t allowed = static_cast<size_t>(std::min<uint64_t>(len, room));
    int rc = allowed > 0 ? Channel::Write(buf, allowed) : 0;
    if (rc < 0) return rc;
    m_written += allowed;
    return allowed < len ? ERR_IO : rc;
}
