// admin.cpp: server-side changes as another client would make them.
#include "admin.h"

#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

#include "delta-ops.h"
#include "server-path.h"
#include "tree-writer.h"
#include "write-batch.h"

namespace admin {

namespace {

// Runs one change in a batch of its own: 0 once committed, what the change returned when
// that was not TREE_OK, or -1.
template <typename Change>
int RunChange(ServerStore& store, uint64_t view_id, Change change) {
    WriteBatch batch(store);
    TreeWriter tree(batch, view_id);
    if (!tree.ok()) return -1;
    int rc = change(tree);
    if (rc != TREE_OK) return rc;
    return tree.Keep() == TREE_OK && batch.Commit() == 0 ? 0 : -1;
}

// The local file as a content: its bytes when small, else a flushed copy in the store.
int ReadLocal(ServerStore& store, const std::string& local_file, NewContent& out) {
    std::string temp = store.contents().NewTempPath();
    std::error_code ec;
    if (delta_ops::CopyAndHash(local_file, temp, out.md4) < 0) {
        std::filesystem::remove(temp, ec);
        return -1;
    }
    out.size = std::filesystem::file_size(temp, ec);
    bool small = !ec && out.size <= ContentStore::kInlineLimit;
    if (small && ContentStore::ReadFile(temp, out.bytes) == 0) {
        std::filesystem::remove(temp, ec);
        return 0;
    }
    out.temp = temp;
    if (!ec && !small && ContentStore::Sync(temp) == 0) return 0;
    std::filesystem::remove(temp, ec);
    return -1;
}

}  // namespace

int Init(ServerStore& store, const std::string& account_name, const std::string& view_name,
         InitResult& out) {
    sqlite::Transaction txn(store.db());
    if (!txn.ok()) return -1;
    if (store.CreateAccount(account_name, out.account_id, out.session) < 0) return -1;
    if (store.CreateView(view_name, out.view_id) < 0) return -1;
    if (store.Grant(out.account_id, out.view_id) < 0) return -1;
    return txn.Commit();
}

void PrintClientConfig(FILE* out, const std::string& address, int port, const std::string& pin,
                       const InitResult& init) {
    std::fprintf(out, "server_ip = %s\n", address.c_str());
    std::fprintf(out, "server_port = %d\n", port);
    std::fprintf(out, "use_ssl = %s\n", pin.empty() ? "false" : "true");
    if (!pin.empty()) std::fprintf(out, "ssl_pin = %s\n", pin.c_str());
    std::fprintf(out, "session = \"%s\"\n", init.session.c_str());
    std::fprintf(out, "view_id = %" PRIu64 "\n", init.view_id);
}

int ResolveView(ServerStore& store, const std::string& name_or_id, uint64_t& view_id) {
    std::vector<std::pair<uint64_t, std::string>> views;
    if (store.ListViews(views) < 0) return -1;
    char* end = nullptr;
    unsigned long long id = std::strtoull(name_or_id.c_str(), &end, 10);
    bool numeric = !name_or_id.empty() && end && *end == '\0';
    for (const auto& v : views) {
        if ((numeric && v.first == id) || v.second == name_or_id) {
            view_id = v.first;
            return 1;
        }
    }
    return 0;
}

int Put(ServerStore& store, uint64_t view_id, const std::string& local_file,
        const std::string& path, uint32_t mtime, ServerObject& out, std::vector<Gone>* gone) {
    std::string norm;
    if (!server_path::Normalize(path, norm) || norm == "/") return TREE_CLASH;
    NewContent content;
    if (ReadLocal(store, local_file, content) < 0) return -1;
    int rc = RunChange(store, view_id, [&](TreeWriter& tree) -> int {
        PathState state;
        if (tree.LookUp(norm, state) < 0) return TREE_FAIL;
        const ServerObject& cur = state.obj;
        if (state.found == 1 && !cur.is_dir && cur.md4 == content.md4 && cur.size == content.size) {
            out = cur;
            return TREE_EXISTS;
        }
        FileContent stored;
        if (tree.ImportContent(content, stored) != TREE_OK) return TREE_FAIL;
        int put = tree.PutFile(norm, state, stored, mtime, false, out);
        if (put == TREE_OK && gone && state.found == 1) gone->push_back({cur.md4, cur.path});
        return put;
    });
    std::error_code ec;
    if (!content.temp.empty()) std::filesystem::remove(content.temp, ec);
    return rc == TREE_EXISTS ? 0 : rc;
}

int MakeDir(ServerStore& store, uint64_t view_id, const std::string& path, uint32_t mtime,
            ServerObject& out) {
    std::string norm;
    if (!server_path::Normalize(path, norm)) return TREE_CLASH;
    int rc = RunChange(store, view_id,
                       [&](TreeWriter& tree) -> int { return tree.MakeDir(norm, mtime, out); });
    return rc == TREE_EXISTS ? 0 : rc;
}

int Remove(ServerStore& store, uint64_t view_id, const std::string& path, std::vector<Gone>* gone) {
    std::string norm;
    if (!server_path::Normalize(path, norm)) return TREE_NOENT;
    uint64_t id = 0;
    return RunChange(store, view_id, [&](TreeWriter& tree) -> int {
        std::vector<ServerObject> subtree;
        if (gone && store.ListTree(view_id, norm, subtree) < 0) return TREE_FAIL;
        int rc = tree.Remove(norm, id);
        if (rc != TREE_OK) return rc;
        for (const ServerObject& obj : subtree)
            if (!obj.is_dir) gone->push_back({obj.md4, obj.path});
        return rc;
    });
}

int Move(ServerStore& store, uint64_t view_id, const std::string& from, const std::string& to) {
    std::string a, b;
    if (!server_path::Normalize(from, a) || !server_path::Normalize(to, b)) return TREE_CLASH;
    return RunChange(store, view_id, [&](TreeWriter& tree) -> int { return tree.Move(a, b); });
}

int List(ServerStore& store, uint64_t view_id, const std::string& root, FILE* out) {
    std::vector<ServerObject> objects;
    if (store.ListTree(view_id, root, objects) < 0) return -1;
    for (const ServerObject& obj : objects) {
        std::fprintf(out, "%c %6" PRIu64 " %6" PRIu64 " %10" PRIu64 " %-32s %s\n",
                     obj.is_dir ? 'd' : 'f', obj.sync_id, obj.max_id, obj.size,
                     obj.is_dir ? "-" : obj.md4.c_str(), obj.path.c_str());
    }
    return 0;
}

}  // namespace admin
