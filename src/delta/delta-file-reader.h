// delta-file-reader.h: applies a delta to a basis file and streams the resulting new file
// through the same handlers as any FileReader, so one pass yields the new file, its MD4 and
// its signature; on request it also writes a reverse delta that takes the new file back to
// the basis. Used for downloads (the server sends a delta, the local file is the basis) and
// by the delta tool.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "delta/file-reader.h"

// One command of a delta. A copy's `start` is an offset in the basis; a literal's is the
// offset of its bytes in the delta, counted from behind the magic.
struct PatchCommand {
    uint64_t start = 0;
    uint64_t length = 0;
    bool is_literal = false;

    void setLiteral(uint64_t s, uint64_t l) {
        start = s;
        length = l;
        is_literal = true;
    }
    void setCopy(uint64_t s, uint64_t l) {
        start = s;
        length = l;
        is_literal = false;
    }
    bool isLiteral() const { return is_literal; }
    bool isCopy() const { return !is_literal; }
};

// A stretch of the basis that the new file reuses, and where it lies in the new file.
struct Block {
    uint64_t start = 0;
    uint64_t length = 0;
    uint64_t new_start = 0;
};

// Blocks keyed and ordered by `start` (the key is the block's start; the value holds it too).
using BlockList = std::multimap<uint64_t, Block>;

struct DeltaFileReaderImpl;

class DeltaFileReader : public FileReader {
  public:
    DeltaFileReader();
    ~DeltaFileReader() override;

    void setFile(const xio_string_type& patch_file, const xio_string_type& basis_file);
    void setNewFile(const xio_string_type& file) { setCopyHandler(file); }
    // Optional: where the reverse delta goes; empty means none.
    void setReverseDeltaFile(const xio_string_type& file);
    void setHashString(ustring& hash) { setMD4HashHandler(hash); }
    void setSignature(const xio_string_type& file, size_t block_size, size_t hash_size) {
        setSignatureHandler(file, block_size, hash_size);
    }

    // ERROR_ARGUMENT without a patch or basis; ERROR_HANDLER_CALL when a handler fails;
    // ERROR_SYSTEM_CALL when the delta or basis can't be opened, or the delta's magic or the
    // reverse delta can't be read or written; ERROR_FILE_FORMAT for a wrong magic;
    // ERROR_ABORT for the flag seen between commands. A delta that is truncated, holds a
    // reserved code or copies from beyond the basis ends the pass early and is only logged:
    // the result is then 0 with a short new file, and the caller's protection is the MD4 it
    // compares (and getPatchResult). A partial new file stays behind for the caller.
    int readFile() override;

    // How the forward pass of the last readFile ended: 0 when it reached the end command,
    // else the code of what stopped it (ERROR_SYSTEM_CALL for a truncated delta or a copy
    // beyond the basis, ERROR_FILE_FORMAT for a bad magic or reserved code, ERROR_ABORT,
    // ERROR_HANDLER_CALL). 1 before any pass has run.
    int getPatchResult() const;

    // Adds `b` to the blocks of the basis reused by the new file, keeping them sorted and
    // without overlap; where blocks overlap, the longer one keeps the shared bytes, and of
    // two with the same start and length the first stays.
    static void insertSameBlock(BlockList& blocks, const Block& b);

  private:
    struct Output;

    int validateInput(DeltaFileReaderImpl& impl);
    int runPatch(DeltaFileReaderImpl& impl, uint8_t* buffer, uint8_t* spare);
    int readPatchCommand(DeltaFileReaderImpl& impl, PatchCommand& cmd);
    int doPatchCommand(DeltaFileReaderImpl& impl, const PatchCommand& cmd, Output& out);
    int flushOutput(Output& out);
    int doReversePatch(const std::vector<PatchCommand>& patch, uint8_t* buffer, size_t length);
    int writeReverse(const std::vector<PatchCommand>& patch, uint8_t* buffer, size_t length);
    int writeHeader();
    int writeCopyCommand(uint64_t start, uint64_t length);
    int writeLiteralCommand(uint64_t start, uint64_t length, uint8_t* copy_buffer,
                            size_t copy_buffer_len);
    int writeEndCommand();

    std::unique_ptr<DeltaFileReaderImpl> impl;
};
