// pull.cpp: event listing with a high-water mark.
#include "pull.h"

#include <vector>

#include "foundation/error-code.h"
#include "server-path.h"
#include "transport/proto-format.h"

namespace {

bool EqualsNoCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

// The text after the name's last "." unless that dot opens the name.
std::string Extension(const std::string& name) {
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return std::string();
    return name.substr(dot + 1);
}

// The events' map keys, in the byte order a map goes out in.
const ustring kAlive("alive"), kEventList("event_list"), kNextSyncId("next_sync_id"),
    kCommonAttribute("common_attribute"), kExecBit("exec_bit"), kFile("file"), kHash("hash"),
    kIsDir("is_dir"), kIsRemoved("is_removed"), kMaxId("max_id"), kMtime("mtime"), kPath("path"),
    kSize("size"), kSyncId("sync_id");

// Writes one pair of a map being sent.
int Pair(Channel& ch, PStream& stream, const ustring& key, uint64_t value) {
    int rc = stream.Send(ch, key);
    return rc < 0 ? rc : stream.Send(ch, value);
}

int Pair(Channel& ch, PStream& stream, const ustring& key, const std::string& text) {
    int rc = stream.Send(ch, key);
    return rc < 0 ? rc : stream.Send(ch, ustring(text));
}

int Tag(Channel& ch, uint8_t tag) {
    return ch.WriteByte(tag) < 0 ? ERR_IO : 0;
}

// {"mtime": t} under `key`.
int MtimeMap(Channel& ch, PStream& stream, const ustring& key, uint32_t mtime) {
    int rc = stream.Send(ch, key);
    if (rc == 0) rc = Tag(ch, ptag::kMap);
    if (rc == 0) rc = Pair(ch, stream, kMtime, mtime);
    return rc < 0 ? rc : Tag(ch, ptag::kEnd);
}

int SendEvent(Channel& ch, PStream& stream, const PullEvent& ev) {
    const ServerObject& obj = ev.obj;
    int rc = Tag(ch, ptag::kMap);
    bool present = !ev.is_removed;
    if (rc == 0 && present) rc = MtimeMap(ch, stream, kCommonAttribute, obj.mtime);
    if (rc == 0 && present) rc = Pair(ch, stream, kExecBit, obj.exec_bit ? 1 : 0);
    if (rc == 0 && present && !obj.is_dir) {
        rc = stream.Send(ch, kFile);
        if (rc == 0) rc = Tag(ch, ptag::kMap);
        if (rc == 0) rc = Pair(ch, stream, kHash, obj.md4);
        if (rc == 0) rc = Pair(ch, stream, kSize, obj.size);
        if (rc == 0) rc = Tag(ch, ptag::kEnd);
    }
    if (rc == 0) rc = Pair(ch, stream, kIsDir, obj.is_dir ? 1 : 0);
    if (rc == 0) rc = Pair(ch, stream, kIsRemoved, ev.is_removed ? 1 : 0);
    if (rc == 0) rc = Pair(ch, stream, kMaxId, obj.max_id);
    if (rc == 0 && present) rc = MtimeMap(ch, stream, kMtime, obj.mtime);
    if (rc == 0) rc = Pair(ch, stream, kPath, ev.rel);
    if (rc == 0) rc = Pair(ch, stream, kSyncId, obj.sync_id);
    return rc < 0 ? rc : Tag(ch, ptag::kEnd);
}

// The statement of a pull: objects (and, after a sync id, tombstones) in sync-id order.
// From 0 there are only objects, whose ids are unique in a view, so the id index gives the
// order and a page stops reading as soon as it is full.
std::string PullQuery(bool from_zero, bool recursive, bool at_root) {
    std::string where;
    if (!recursive)
        where = " AND parent = ?5";
    else if (!at_root)
        where = " AND path > ?3 AND path < ?4";
    std::string objects = "SELECT 0 AS removed, " SERVER_OBJECT_COLUMNS
                          " FROM objects WHERE view_id = ?1 AND sync_id > ?2" +
                          where;
    if (from_zero) return objects + " ORDER BY sync_id";
    std::string tombs =
        "SELECT 1 AS removed, path, is_dir, sync_id, max_id, 0, '', 0, 0, 0 FROM tombstones "
        "WHERE view_id = ?1 AND sync_id > ?2" +
        where;
    return objects + " UNION ALL " + tombs + " ORDER BY sync_id, removed DESC, path";
}

}  // namespace

bool PullCondition::Parse(const PObject& condition, PullCondition& out) {
    out = PullCondition();
    if (condition.hasMember("extension")) {
        out.kind = EXTENSION;
        out.text = condition["extension"].asString().str();
    } else if (condition.hasMember("prefix")) {
        out.kind = PREFIX;
        out.text = condition["prefix"].asString().str();
    } else if (condition.hasMember("name")) {
        out.kind = NAME;
        out.text = condition["name"].asString().str();
    } else if (condition.hasMember("min_size") || condition.hasMember("max_size")) {
        out.kind = SIZE;
        out.min_size = condition["min_size"].asUInt64();
        out.max_size = condition["max_size"].asUInt64();
    } else {
        return false;
    }
    return true;
}

bool PullCondition::Matches(const std::string& rel_path, bool is_dir, bool is_removed,
                            uint64_t size) const {
    switch (kind) {
        case NONE:
            return true;
        case PREFIX:
            // A folder rule covered the folder itself and everything below it.
            if (EqualsNoCase(rel_path, text)) return true;
            return rel_path.size() > text.size() && rel_path[text.size()] == '/' &&
                   EqualsNoCase(rel_path.substr(0, text.size()), text);
        case EXTENSION:
            return !is_dir && EqualsNoCase(Extension(server_path::BaseName(rel_path)), text);
        case NAME:
            return !is_dir && EqualsNoCase(server_path::BaseName(rel_path), text);
        case SIZE:
            // The rule let files up to min_size through before, up to max_size now.
            return !is_dir && !is_removed && size > min_size && size <= max_size;
    }
    return false;
}

namespace {

// What a pull asks for.
struct PullRequest {
    std::string root;
    bool recursive = true;
    bool filtered = false;
    PullCondition condition;
    uint64_t from = 0;
    bool restarted = false;  // the client was ahead of the view: a pull from 0 again
    uint64_t last = 0;       // the view's newest id in the snapshot
};

// Phase 1: the request's path, recursion, condition and mark. 0 or an error code.
uint32_t ReadRequest(const PObject& request, PullRequest& out) {
    if (!server_path::Normalize(request["path"].asString().str(), out.root))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    out.recursive = !request.hasMember("recursive") || request["recursive"].asBool();
    out.filtered =
        request["condition"].isMap() && PullCondition::Parse(request["condition"], out.condition);
    out.from = request["sync_id"].asUInt64();
    return 0;
}

// Phase 2, inside the snapshot: the view's newest id, and the pulled path is a directory.
uint32_t CheckView(ServerStore& store, uint64_t view_id, PullRequest& req) {
    int64_t last = store.LastSyncId(view_id);
    if (last < 0) return SPROTO_ERR_INTERNAL;
    req.last = static_cast<uint64_t>(last);
    if (req.root != "/") {
        ServerObject dir;
        int rc = store.GetObject(view_id, req.root, dir);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0 || !dir.is_dir) return SPROTO_ERR_VIEW_INVALID_PATH;
    }
    // A client ahead of the view holds the state of another history: it gets the whole
    // present state again.
    req.restarted = req.from > req.last;
    if (req.restarted) req.from = 0;
    return 0;
}

// Phase 3: the events after the mark, whole sync ids at a time, as many as fit a page.
// Sets `complete` when nothing was left unread. 0 or an error code.
uint32_t ReadEvents(ServerStore& store, uint64_t view_id, const PullRequest& req, size_t max_events,
                    PullPage& page, bool& complete) {
    const std::string& root = req.root;
    sqlite::Statement* q =
        store.db().Reuse(PullQuery(req.from == 0, req.recursive, root == "/").c_str());
    if (!q) {
        store.Fail("pull");
        return SPROTO_ERR_INTERNAL;
    }
    q->BindAll(view_id, req.from);
    if (!req.recursive)
        q->Bind(5, root);
    else if (root != "/")
        q->Bind(3, server_path::DescendantLow(root)).Bind(4, server_path::DescendantHigh(root));
    std::vector<PullEvent>& list = page.events;
    std::vector<PullEvent> group;  // the events of the sync id being read
    uint64_t group_id = 0;
    page.next_sync_id = req.from;
    complete = true;
    // Takes the group whole, or not at all when that would overfill a non-empty reply.
    auto take_group = [&]() -> bool {
        if (!list.empty() && list.size() + group.size() > max_events) return false;
        for (PullEvent& ev : group) list.push_back(std::move(ev));
        group.clear();
        page.next_sync_id = group_id;
        return true;
    };
    int rc;
    while ((rc = q->Step()) == 1) {
        PullEvent ev;
        ev.is_removed = q->Int(0) != 0;
        ev.obj = ObjectFromRow(*q, 1);
        if (ev.obj.sync_id != group_id) {
            if (group_id != 0 && !take_group()) {
                complete = false;
                break;
            }
            group_id = ev.obj.sync_id;
        }
        ev.rel = server_path::Relative(ev.obj.path, root);
        if (req.filtered &&
            !req.condition.Matches(ev.rel, ev.obj.is_dir, ev.is_removed, ev.obj.size))
            continue;
        group.push_back(std::move(ev));
    }
    q->Reset();
    if (rc < 0) {
        store.Fail("pull");
        return SPROTO_ERR_INTERNAL;
    }
    if (complete && group_id != 0 && !take_group()) complete = false;
    return 0;
}

}  // namespace

uint32_t HandlePull(ServerStore& store, uint64_t view_id, const PObject& request,
                    const PullLimits& limits, PullPage& page) {
    page = PullPage();
    PullRequest req;
    uint32_t code = ReadRequest(request, req);
    if (code != 0) return code;
    sqlite::Transaction snapshot(store.db(), "BEGIN;");
    if (!snapshot.ok()) return SPROTO_ERR_INTERNAL;
    bool complete = false;
    code = CheckView(store, view_id, req);
    if (code == 0) code = ReadEvents(store, view_id, req, limits.max_events, page, complete);
    if (code != 0) return code;
    // Phase 4, the mark. With everything read, it is the view's newest id (changes outside
    // this path or condition are no business of the caller), except that a reply with no
    // event gives the request's own id back: that is how a caller knows it is up to date.
    if (complete) page.next_sync_id = (page.events.empty() && !req.restarted) ? req.from : req.last;
    return 0;
}

int SendPullReply(Channel& ch, PStream& stream, const PullPage& page, uint32_t alive) {
    int rc = Tag(ch, ptag::kMap);
    if (rc == 0) rc = Pair(ch, stream, kAlive, alive);
    if (rc == 0) rc = stream.Send(ch, kEventList);
    if (rc == 0) rc = Tag(ch, ptag::kArray);
    for (size_t i = 0; rc == 0 && i < page.events.size(); ++i)
        rc = SendEvent(ch, stream, page.events[i]);
    if (rc == 0) rc = Tag(ch, ptag::kEnd);
    if (rc == 0) rc = Pair(ch, stream, kNextSyncId, page.next_sync_id);
    if (rc == 0) rc = Tag(ch, ptag::kEnd);
    if (rc == 0 && ch.FlushWrite(0) < 0) rc = ERR_IO;
    return rc;
}
