// upload-body.h: the bytes of an upload ("file"."data") taken off the wire by the session
// loop, hashed as they arrive: kept in memory up to ContentStore::kInlineLimit, else
// written once, straight into their file. A resumable upload appends to its token's spool,
// whose earlier bytes are hashed first, so that the hash always covers the whole file.
// Nothing is flushed here: the upload handler flushes a file once it decides to keep it.
// Used by the session loop (receive) and the upload handler (use).
#pragma once

#include <cstdint>
#include <string>

#include "foundation/channel.h"

struct UploadBody {
    bool present = false;    // a binary came
    uint64_t size = 0;       // bytes held, a spool's earlier ones included
    std::string md4;         // of the bytes held
    std::string bytes;       // the bytes, when `file` is empty
    std::string file;        // where they are otherwise
    bool temporary = false;  // `file` was made for this request: whoever keeps it moves it

    // Deletes a temporary file still held and forgets the body. Called once the request is
    // answered.
    void Discard();
};

// Receives the binary whose 8-byte length comes next on the channel: into memory when
// small and `spool` is empty, else into `spool` from `offset` (its earlier bytes kept) or
// into the new file `temp_path`. 0, or a negative code after which the connection must
// close: every byte that arrived stays in `spool`, nothing in `temp_path`.
int ReceiveUploadBody(Channel& ch, const std::string& spool, uint64_t offset,
                      const std::string& temp_path, UploadBody& out);
