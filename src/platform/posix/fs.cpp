// fs.cpp (POSIX): file system primitives of the platform seam.
#include "platform/fs.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>

namespace platform {

int rename_noreplace(const char* from, const char* to, int* err) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    // Some file systems lack the flag; a hard link refuses an existing name as well.
    if (errno == EINVAL || errno == ENOSYS) {
        if (::link(from, to) == 0) {
            ::unlink(from);
            return 0;
        }
    }
    if (err != nullptr) *err = errno;
    return -1;
}

}  // namespace platform
