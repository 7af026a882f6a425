// resume.h: the token requests of resumable transfers. "resume_get_token" gives a fresh
// token; "resume_get_status" tells how many bytes of the token's upload the server holds
// (what arrived before a connection broke, counted from the spool file on disk, so it is
// right after a restart too). A token belongs to the account and view that asked for it
// and lives ServerStore::kTokenLifetime seconds. Used by the session loop.
#pragma once

#include <cstdint>

#include "foundation/object.h"
#include "server-store.h"

// 0 with "resume_token" in the reply, or an error code.
uint32_t HandleGetToken(ServerStore& store, int64_t account_id, uint64_t view_id, PObject& reply);
// 0 with "file": {"offset": bytes held}, or 0xB001 for a token that isn't this client's or
// has expired.
uint32_t HandleGetStatus(ServerStore& store, int64_t account_id, uint64_t view_id,
                         const PObject& request, PObject& reply);
