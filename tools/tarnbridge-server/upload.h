// upload.h: "upload" and "resume_upload" (and their dry run): a file or directory from a
// client. A file's bytes arrive before the handler runs (taken in by the session loop and
// hashed on the way, since "file" comes before "path" on the wire); they are the whole
// content or a delta against the content at the request's base "sync_id", and what they
// make must hash to the request's "hash", or nothing is stored. Decisions:
//   - the base must be the present version (else 0x9002), unless the present content is
//     already the uploaded one: then the answer is success with the present ids, which
//     also makes a retried upload whose first answer was lost harmless;
//   - a new file (base 0) onto other content, or a file onto a directory and the reverse,
//     is 0x6000; a directory onto a directory is success;
//   - a delta, or a "refer" to content, with no base content to apply it to is 0x9001,
//     and so is a delta whose result doesn't hash right (the client then sends it whole);
//     whole content that doesn't hash right is 0x9000;
//   - missing parent directories are created, each with its own sync id.
// The change itself is made by the commit queue and answered once it is committed; the
// content's bytes are flushed before (a file) or by that commit (kept in the database).
// Used by the session loop.
#pragma once

#include <cstdint>
#include <string>

#include "commit-queue.h"
#include "foundation/object.h"
#include "server-store.h"
#include "upload-body.h"

// Answers an authorised upload. `body` holds the request's binary ("file"."data"), not
// present when none came; the handler may take its file away (then `body.file` is empty)
// but never leaves it half-used. 0 with the reply's members set, or the error code for the
// reply.
uint32_t HandleUpload(ServerStore& store, CommitQueue& queue, uint64_t view_id,
                      const PObject& request, UploadBody& body, PObject& reply);
