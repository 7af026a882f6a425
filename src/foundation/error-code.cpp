// error-code.cpp: the fixed texts of the daemon's error codes.
#include "foundation/error-code.h"

#include <cstdlib>

namespace {
// Indexed by the absolute value of the code. The texts are shown to users and
// kept exactly as they have always read.
const char* const kErrorText[] = {
    "Successful",
    "Interrupted",
    "I/O error",
    "System error",
    "Invalid argument",
    "Protocal error",
    "Authentication failure",
    "Server error",
    "Event conflict",
    "Connection timeout",
    "Incompatible version",
    "No such entry",
    "Invalid username",
    "Password and username not matched",
    "YRM disabled",
    "User quota not enough",
    "Disk is full",
    "Sync Folder is miss",
    "View missing/invalid",
    "no permission ",
    "pull event by path, but the path is missing",
    "connection about by setting flag",
    "Local Disk is full",
    "file locked or no permission",
};
constexpr int kCount = sizeof(kErrorText) / sizeof(kErrorText[0]);
}  // namespace

const char* GetErrorString(int code) {
    long index = std::labs(static_cast<long>(code));
    return index < kCount ? kErrorText[index] : "Unknown error";
}
