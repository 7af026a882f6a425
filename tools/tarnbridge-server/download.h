// download.h: "resume_download", an object as the client wants it. The version served is
// the one asked for ("target_sync_id") while it is still kept, else the present one. A
// file goes whole, or as a delta against the client's base ("sync_id") when that version
// is still kept and the delta is smaller; "size" and "hash" are always the result's. A
// client whose base is the version served gets "refer" and no bytes. An "offset" resumes
// the payload that the same token was given before, from that byte; a payload that can't
// be served again is 0xB000, and the client starts over. Nothing at the path is 0x8001.
// Used by the session loop.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/object.h"
#include "server-store.h"

// Answers an authorised download. 0 with the reply set (its "file"."data" names the file
// to stream), or the error code for the reply. `scratch` receives the path of a payload
// made for this reply alone, which the caller deletes once the reply is sent.
uint32_t HandleDownload(ServerStore& store, int64_t account_id, uint64_t view_id,
                        const PObject& request, PObject& reply, std::string& scratch);
