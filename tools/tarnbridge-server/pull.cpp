// pull.cpp: event listing with a high-water mark.
#include "pull.h"

#include <vector>

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

PObject EventRecord(const ServerObject& obj, bool is_removed, const std::string& rel) {
    PObject rec;
    rec["path"] = rel.c_str();
    rec["is_dir"] = obj.is_dir;
    rec["is_removed"] = is_removed;
    rec["sync_id"] = obj.sync_id;
    rec["max_id"] = obj.max_id;
    if (is_removed) return rec;
    rec["common_attribute"]["mtime"] = obj.mtime;
    rec["mtime"]["mtime"] = obj.mtime;
    rec["exec_bit"] = obj.exec_bit;
    if (!obj.is_dir) {
        rec["file"]["hash"] = obj.md4.c_str();
        rec["file"]["size"] = obj.size;
    }
    return rec;
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

uint32_t HandlePull(ServerStore& store, uint64_t view_id, const PObject& request,
                    const PullLimits& limits, PObject& reply) {
    std::string root;
    if (!server_path::Normalize(request["path"].asString().str(), root))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    bool recursive = !request.hasMember("recursive") || request["recursive"].asBool();
    PullCondition condition;
    bool filtered =
        request["condition"].isMap() && PullCondition::Parse(request["condition"], condition);
    uint64_t from = request["sync_id"].asUInt64();

    SqliteReadTxn snapshot(store.db());
    if (!snapshot.ok()) return SPROTO_ERR_INTERNAL;
    int64_t last_signed = store.LastSyncId(view_id);
    if (last_signed < 0) return SPROTO_ERR_INTERNAL;
    uint64_t last = static_cast<uint64_t>(last_signed);
    if (root != "/") {
        ServerObject dir;
        int rc = store.GetObject(view_id, root, dir);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0 || !dir.is_dir) return SPROTO_ERR_VIEW_INVALID_PATH;
    }
    // A client ahead of the view holds the state of another history: it gets the whole
    // present state again.
    bool restarted = from > last;
    if (restarted) from = 0;

    std::string where = recursive ? " AND path > ?3 AND path < ?4" : " AND parent = ?5";
    std::string objects = std::string("SELECT 0 AS removed, ") + kObjectColumns +
                          " FROM objects WHERE view_id = ?1 AND sync_id > ?2" + where;
    std::string tombs =
        "SELECT 1 AS removed, path, is_dir, sync_id, max_id, 0, '', 0, 0, 0 FROM tombstones "
        "WHERE view_id = ?1 AND sync_id > ?2" +
        where;
    std::string sql = from == 0 ? objects : objects + " UNION ALL " + tombs;
    sql += " ORDER BY sync_id, removed DESC, path";
    SqliteStmt q(store.db(), sql.c_str());
    q.Bind(1, view_id).Bind(2, from);
    if (recursive)
        q.Bind(3, server_path::DescendantLow(root)).Bind(4, server_path::DescendantHigh(root));
    else
        q.Bind(5, root);

    PObject::array_type list;
    std::vector<PObject> group;  // the events of the sync id being read
    uint64_t group_id = 0;
    uint64_t next = from;
    bool complete = true;
    // Takes the group whole, or not at all when that would overfill a non-empty reply.
    auto take_group = [&]() -> bool {
        if (!list.empty() && list.size() + group.size() > limits.max_events) return false;
        for (PObject& ev : group) list.push_back(std::move(ev));
        group.clear();
        next = group_id;
        return true;
    };
    int rc;
    while ((rc = q.Step()) == 1) {
        bool is_removed = q.Int(0) != 0;
        ServerObject obj = ObjectFromRow(q, 1);
        if (obj.sync_id != group_id) {
            if (group_id != 0 && !take_group()) {
                complete = false;
                break;
            }
            group_id = obj.sync_id;
        }
        std::string rel = server_path::Relative(obj.path, root);
        if (filtered && !condition.Matches(rel, obj.is_dir, is_removed, obj.size)) continue;
        group.push_back(EventRecord(obj, is_removed, rel));
    }
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (complete && group_id != 0 && !take_group()) complete = false;
    // With everything read, the mark is the view's newest id (changes outside this path or
    // condition are no business of the caller), except that a reply with no event gives
    // the request's own id back: that is how a caller knows it is up to date.
    if (complete) next = (list.empty() && !restarted) ? from : last;
    reply["event_list"] = list;
    reply["next_sync_id"] = next;
    return 0;
}
