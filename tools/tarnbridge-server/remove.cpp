// remove.cpp: removal with the check for unseen changes.
#include "remove.h"

#include <string>

#include "server-path.h"
#include "transport/proto-format.h"
#include "tree-writer.h"

uint32_t HandleRemove(CommitQueue& queue, uint64_t view_id, const PObject& request,
                      PObject& reply) {
    std::string path;
    if (!server_path::Normalize(request["path"].asString().str(), path))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    if (path == "/") return SPROTO_ERR_REMOVE;
    uint64_t sync_id = request["sync_id"].asUInt64();
    uint64_t max_id = request.hasMember("max_id") ? request["max_id"].asUInt64() : sync_id;
    uint32_t code = 0;
    uint64_t removal_id = 0;
    int rc = queue.Apply(view_id, [&](TreeWriter& tree) -> int {
        ServerObject cur;
        int found = tree.Get(path, cur);
        if (found < 0) return TREE_FAIL;
        if (found == 0)
            code = SPROTO_ERR_REMOVE_NOFILE;
        else if (cur.is_dir ? cur.max_id > max_id : cur.sync_id > sync_id)
            code = SPROTO_ERR_REMOVE_MODIFIED;
        if (code != 0) return TREE_NOENT;
        return tree.Remove(path, removal_id);
    });
    if (code != 0) return code;
    if (rc != TREE_OK) return SPROTO_ERR_INTERNAL;
    reply["sync_id"] = removal_id;
    return 0;
}
