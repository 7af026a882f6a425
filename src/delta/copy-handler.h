// copy-handler.h: the FileReader handler that writes every chunk it sees to a second file,
// asynchronously, while the other handlers hash the same chunk. Used for downloads (the
// patched new file) and by anyone who wants a copy made in the same read pass.
#pragma once

#include "delta/xio.h"

// Handler protocol shared by every handler: begin, then (update, wait) pairs, then end; each
// returns a negative value on failure. The buffer given to update stays unchanged until wait.
class CopyHandler {
  public:
    explicit CopyHandler(const xio_string_type& path) : file(path) {}
    ~CopyHandler() { fd_close(fd); }
    CopyHandler(const CopyHandler&) = delete;
    CopyHandler& operator=(const CopyHandler&) = delete;

    // Creates or truncates the output file.
    int begin();
    // Starts appending the caller's bytes.
    int update(const void* buffer, size_t length);
    // Waits for the write started by the last update.
    int wait();
    // Closes the file and forgets its path. Returns 0.
    int end();

  private:
    xio_string_type file;
    fd_t fd;
    fd_aio_t aio;
};
