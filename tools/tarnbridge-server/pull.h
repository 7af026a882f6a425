// pull.h: "pull_event", what changed in a view since a sync id. Events are relative to the
// requested path, ordered by sync id; from 0 the reply is the whole current state. The
// reply's "next_sync_id" is a high-water mark: every change at or below it is in this or
// an earlier reply, so a client that stores it never skips one; a reply with no event
// gives the request's own id back. A reply holds at most PullLimits::max_events events and
// never splits the events of one sync id. A "condition" keeps only what a relaxed
// selective-sync rule now lets through. The events are read as plain rows and written
// straight to the wire, never built as one value. Used by the session loop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <vector>

#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "server-store.h"

struct PullLimits {
    size_t max_events = 5000;
};

// What a "condition" map asks for, matched as the client's filters match: names and
// extensions without regard to ASCII case, a folder prefix as the folder or below it.
struct PullCondition {
    enum Kind { NONE, EXTENSION, PREFIX, NAME, SIZE } kind = NONE;
    std::string text;       // extension, folder path (relative to the pull) or name
    uint64_t min_size = 0;  // SIZE: min_size < size <= max_size
    uint64_t max_size = 0;

    // Reads a request's "condition"; false for a map that names no known condition.
    static bool Parse(const PObject& condition, PullCondition& out);
    // True when an event at `rel_path` (relative to the pull, leading "/") passes.
    bool Matches(const std::string& rel_path, bool is_dir, bool is_removed, uint64_t size) const;
};

// One event of a reply: the object (for a removal only its path, kind and ids) and its
// path relative to the pulled one.
struct PullEvent {
    ServerObject obj;
    bool is_removed = false;
    std::string rel;
};

// What a pull answers: "event_list" and "next_sync_id".
struct PullPage {
    std::vector<PullEvent> events;
    uint64_t next_sync_id = 0;
};

// Answers a pull for an authorised request. 0 with the page filled, or an error code for
// the reply: 0x3003 when the path is invalid or is not an existing directory, 0x7000 on a
// database failure.
uint32_t HandlePull(ServerStore& store, uint64_t view_id, const PObject& request,
                    const PullLimits& limits, PullPage& page);
// Sends the page as the reply map, granting `alive`. 0 or the stream's code.
int SendPullReply(Channel& ch, PStream& stream, const PullPage& page, uint32_t alive);
