// remove.h: "remove", a client's removal of a file or directory. A file whose present sync
// id is above the request's "sync_id", or a directory whose subtree holds an id above the
// request's "max_id" (its "sync_id" when a client of the old generation sends no
// "max_id"), has changes the client hasn't seen: 0xA002 and nothing goes. Nothing at the
// path is 0xA001. Otherwise the object and its subtree go, leaving a tombstone, through
// the commit queue. Used by the session loop.
#pragma once

#include <cstdint>

#include "commit-queue.h"
#include "foundation/object.h"
#include "server-store.h"

// Answers an authorised removal: 0 with the reply set, or the error code for the reply.
uint32_t HandleRemove(CommitQueue& queue, uint64_t view_id, const PObject& request, PObject& reply);
