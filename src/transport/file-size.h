// file-size.h: the size of a file opened as a C stream, for the protocol's file transfer,
// which announces a file's length before its bytes. The platform half is in posix/.
#pragma once

#include <cstdint>
#include <cstdio>

// The size of the file behind `fp` as the system knows it now (not the stream position).
// 0, or -1 with the platform's error number in *err when err is not null.
int GetSizeFromFilePointer(FILE* fp, uint64_t& size, int* err = nullptr);
