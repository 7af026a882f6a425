// fs.cpp: the parts of the file system seam that are the same on every platform.
#include "platform/fs.h"

#include <cerrno>

namespace platform {

int64_t read_full(File& file, void* buf, size_t n, int* err) {
    auto* p = static_cast<char*>(buf);
    size_t got = 0;
    while (got < n) {
        int64_t r = file.read(p + got, n - got, err);
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<int64_t>(got);
}

bool is_no_space(int err) {
    return err == ENOSPC;
}

}  // namespace platform
