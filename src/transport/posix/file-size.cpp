// file-size.cpp (POSIX): fstat on the stream's descriptor.
#include "transport/file-size.h"

#include <sys/stat.h>

#include <cerrno>

int GetSizeFromFilePointer(FILE* fp, uint64_t& size, int* err) {
    struct stat st;
    if (fp == nullptr || ::fstat(::fileno(fp), &st) != 0) {
        if (err != nullptr) *err = fp == nullptr ? EINVAL : errno;
        return -1;
    }
    size = static_cast<uint64_t>(st.st_size);
    return 0;
}
