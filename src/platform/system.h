// system.h: process-level facts of the platform seam that are not files: the
// machine's name and a monotonic clock. Used by the small utilities (host name,
// temporary name keys) and by anyone timing intervals.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// The machine's network name as the system reports it (UTF-8 on every platform).
// 0, or -1 with the platform's error number in *err when err is not null.
int host_name(std::string& out, int* err = nullptr);

// Nanoseconds from an arbitrary fixed point; never goes back, unaffected by
// changes of the wall clock. Never fails.
uint64_t monotonic_ns();

}  // namespace platform
