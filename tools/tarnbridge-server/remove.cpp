// remove.cpp: removal with the check for unseen changes.
#include "remove.h"

#include <string>

#include "server-path.h"
#include "transport/proto-format.h"
#include "tree-writer.h"

uint32_t HandleRemove(ServerStore& store, uint64_t view_id, const PObject& request,
                      PObject& reply) {
    std::string path;
    if (!server_path::Normalize(request["path"].asString().str(), path))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    if (path == "/") return SPROTO_ERR_REMOVE;
    uint64_t sync_id = request["sync_id"].asUInt64();
    uint64_t max_id = request.hasMember("max_id") ? request["max_id"].asUInt64() : sync_id;
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return SPROTO_ERR_INTERNAL;
    ServerObject cur;
    int rc = tree.Get(path, cur);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (rc == 0) return SPROTO_ERR_REMOVE_NOFILE;
    if (cur.is_dir ? cur.max_id > max_id : cur.sync_id > sync_id) return SPROTO_ERR_REMOVE_MODIFIED;
    uint64_t removal_id = 0;
    if (tree.Remove(path, removal_id) != TREE_OK || tree.Commit() != TREE_OK)
        return SPROTO_ERR_INTERNAL;
    reply["sync_id"] = removal_id;
    return 0;
}
