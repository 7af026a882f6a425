// fs.h: the file system primitives of the platform seam. Neutral code calls these
// instead of system headers; paths are UTF-8 bytes. Results: 0 or more on success,
// -1 on failure with the platform's error number in *err when err is not null.
#pragma once

namespace platform {

// Renames `from` to `to` but refuses (fails with EEXIST) when `to` exists.
int rename_noreplace(const char* from, const char* to, int* err = nullptr);
}  // namespace platform
