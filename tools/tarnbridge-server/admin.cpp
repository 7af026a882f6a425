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

namespace admin {

int Init(ServerStore& store, const std::string& account_name, const std::string& view_name,
         InitResult& out) {
    SqliteWriteTxn txn(store.db());
    if (!txn.ok()) return -1;
    if (store.CreateAccount(account_name, out.account_id, out.session) < 0) return -1;
    if (store.CreateView(view_name, out.view_id) < 0) return -1;
    if (store.Grant(out.account_id, out.view_id) < 0) return -1;
    return txn.Commit();
}

void PrintClientConfig(FILE* out, const std::string& address, int port, const InitResult& init) {
    std::fprintf(out, "server_ip = %s\n", address.c_str());
    std::fprintf(out, "server_port = %d\n", port);
    std::fprintf(out, "use_ssl = false\n");
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
        const std::string& path, uint32_t mtime, ServerObject& out) {
    std::string norm;
    if (!server_path::Normalize(path, norm) || norm == "/") return TREE_CLASH;
    std::string temp = store.contents().NewTempPath();
    std::string md4;
    std::error_code ec;
    if (delta_ops::CopyAndHash(local_file, temp, md4) < 0) {
        std::filesystem::remove(temp, ec);
        return -1;
    }
    uint64_t size = std::filesystem::file_size(temp, ec);
    if (ec) return -1;
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return -1;
    ServerObject cur;
    int rc = tree.Get(norm, cur);
    if (rc < 0) return -1;
    if (rc == 1 && !cur.is_dir && cur.md4 == md4 && cur.size == size) {
        std::filesystem::remove(temp, ec);
        out = cur;
        return 0;
    }
    FileContent content;
    if (tree.ImportContent(temp, md4, size, content) < 0) return -1;
    rc = tree.PutFile(norm, content, mtime, false, out);
    if (rc != TREE_OK) return rc;
    return tree.Commit();
}

int MakeDir(ServerStore& store, uint64_t view_id, const std::string& path, uint32_t mtime,
            ServerObject& out) {
    std::string norm;
    if (!server_path::Normalize(path, norm)) return TREE_CLASH;
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return -1;
    int rc = tree.MakeDir(norm, mtime, out);
    if (rc == TREE_EXISTS) return 0;
    if (rc != TREE_OK) return rc;
    return tree.Commit();
}

int Remove(ServerStore& store, uint64_t view_id, const std::string& path) {
    std::string norm;
    if (!server_path::Normalize(path, norm)) return TREE_NOENT;
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return -1;
    uint64_t id = 0;
    int rc = tree.Remove(norm, id);
    if (rc != TREE_OK) return rc;
    return tree.Commit();
}

int Move(ServerStore& store, uint64_t view_id, const std::string& from, const std::string& to) {
    std::string a, b;
    if (!server_path::Normalize(from, a) || !server_path::Normalize(to, b)) return TREE_CLASH;
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return -1;
    int rc = tree.Move(a, b);
    if (rc != TREE_OK) return rc;
    return tree.Commit();
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
