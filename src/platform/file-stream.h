// file-stream.h: the file primitives behind the wire encoding's binaries, which
// stream file stretches straight between disk and socket. Used by PStream.
// Paths are UTF-8 bytes. Results: 0 or more on success, -1 on failure with the
// platform's error number in *err when err is not null.
#pragma once

#include <cstdint>
#include <cstdio>

namespace platform {

// Opens `path` for a stream of the given mode letter, closed to child processes and
// hinted for sequential access: 'a' write, create if missing; 'r' read an existing file;
// 'w' write, create or truncate; anything else read and write, create or truncate.
// A descriptor, or -1.
int open_for_stream(const char* path, char mode, int* err = nullptr);
// Wraps a descriptor from open_for_stream in a C stream of `mode`; on failure the
// descriptor is closed and the result is null.
FILE* stream_from_fd(int fd, const char* mode, int* err = nullptr);

// Cuts an existing file back to exactly `length` bytes. stage receives what failed:
// 0 opening, 1 truncating.
int truncate_file(const char* path, uint64_t length, int* stage, int* err = nullptr);

// Seeks a stream to an absolute 64-bit offset. 0 or -1.
int seek_stream(FILE* fp, uint64_t offset, int* err = nullptr);

// The error number that means "no space left on the device".
bool is_no_space(int err);

}  // namespace platform
