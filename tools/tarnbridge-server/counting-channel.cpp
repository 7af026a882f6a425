// counting-channel.cpp: the request byte count and its cut-off.
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
