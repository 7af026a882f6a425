// system.cpp (POSIX): host name and monotonic clock of the platform seam.
#include "platform/system.h"

#include <limits.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace platform {

int host_name(std::string& out, int* err) {
    char buf[HOST_NAME_MAX + 1] = {};
    if (::gethostname(buf, sizeof buf - 1) != 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    out.assign(buf);
    return 0;
}

uint64_t monotonic_ns() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace platform
