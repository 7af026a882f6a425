// file-reader.h: one sequential pass over a file's bytes that feeds up to four handlers at
// once (copy, MD4, signature, delta), so that a file is copied, hashed, signed and diffed in
// a single read. Workers set up a SimpleFileReader (or a DeltaFileReader, which reads a patch)
// with the outputs they want and call readFile once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "delta/xio.h"

class CopyHandler;
class MD4HashHandler;
class SignatureHandler;
class DeltaHandler;

// How a delta follows the new file across the reader's chunks (see delta-handler.h).
// CHUNKED is the default wherever the daemon computes an upload delta; REALIGNED finds the
// old blocks again after inserts and deletes, at the same cost per byte.
enum class DeltaMode { CHUNKED, REALIGNED };

class FileReader {
  public:
    enum {
        ERROR_ARGUMENT = -1,      // a required path is empty
        ERROR_SYSTEM_CALL = -2,   // open, read, seek or allocation failed
        ERROR_HANDLER_CALL = -3,  // a handler's begin, update or wait failed
        ERROR_ABORT = -4,         // the abort flag was seen set
        ERROR_FILE_FORMAT = -5,   // a patch file is malformed
    };

    FileReader();
    // Destroys whichever handlers are set.
    virtual ~FileReader();
    FileReader(const FileReader&) = delete;
    FileReader& operator=(const FileReader&) = delete;

    // Runs the pass: 0 or one of the ERROR_ codes. A reader runs once.
    virtual int readFile() = 0;

    // `flag` (owned by the caller, may be null) is polled without a lock between chunks; any
    // non-zero value stops the pass with ERROR_ABORT. Other threads should store to it through
    // std::atomic_ref<int> so the access is a well-defined atomic one.
    void setAbortFlag(int* flag) { abort_flag = flag; }

    // Each makes one handler; calling one twice isn't supported. Output files are created by
    // the pass and left behind on failure: removing them is the caller's job.
    void setCopyHandler(const xio_string_type& file);
    // `hash` receives the 32 hex digits of the MD4 when the pass ends; it must outlive it.
    void setMD4HashHandler(ustring& hash);
    // Block size 0 and hash sizes outside 1 to 16 keep the defaults (2048 and 8).
    void setSignatureHandler(const xio_string_type& file, size_t block_size, size_t hash_size);
    void setDeltaHandler(const xio_string_type& delta_file, const xio_string_type& signature_file,
                         DeltaMode mode = DeltaMode::CHUNKED);

  protected:
    // Fan-out to every handler that is set, in the order copy, delta, signature, MD4; no
    // handler is skipped because another failed. ERROR_HANDLER_CALL if any failed, else 0.
    int begin();
    int update(const void* buffer, size_t length);
    int wait();
    int end();
    // True when the abort flag is set and not 0.
    bool aborted() const;

    int* abort_flag = nullptr;
    std::unique_ptr<CopyHandler> copy_handler;
    std::unique_ptr<MD4HashHandler> md4_hash_handler;
    std::unique_ptr<SignatureHandler> signature_handler;
    std::unique_ptr<DeltaHandler> delta_handler;
};

// Reads one existing file in 1 MiB chunks through the handlers.
class SimpleFileReader : public FileReader {
  public:
    void setFile(const xio_string_type& path) { file = path; }
    void setCopyFile(const xio_string_type& path) { setCopyHandler(path); }
    void setHashString(ustring& hash) { setMD4HashHandler(hash); }
    void setSignature(const xio_string_type& path, size_t block_size, size_t hash_size) {
        setSignatureHandler(path, block_size, hash_size);
    }
    void setDelta(const xio_string_type& delta_file, const xio_string_type& signature_file,
                  DeltaMode mode = DeltaMode::CHUNKED) {
        setDeltaHandler(delta_file, signature_file, mode);
    }

    // ERROR_ARGUMENT without a file; ERROR_HANDLER_CALL when a handler fails (the pass then
    // stops); ERROR_SYSTEM_CALL when the input can't be opened or read; ERROR_ABORT. Every
    // handler's end runs whatever happened, and a failure there doesn't change the result.
    int readFile() override;

    xio_string_type file;

  private:
    int pump(fd_t& input, uint8_t* first, uint8_t* second);
};
