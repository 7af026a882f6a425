// upload.cpp: checks, content production and commit of an upload.
#include "upload.h"

#include <ctime>
#include <filesystem>
#include <system_error>

#include "delta-ops.h"
#include "foundation/log.h"
#include "server-path.h"
#include "transport/proto-format.h"
#include "tree-writer.h"

namespace {

const char* const kLog = "server_debug";

// What the request says about the file.
struct FileRequest {
    std::string path;
    uint64_t base = 0;
    std::string md4;
    uint64_t size = 0;
    bool refer = false;
    bool is_delta = false;
    int64_t file_id = 0;
    uint32_t mtime = 0;
    bool mtime_refers = false;
    bool exec_bit = false;
};

// The outcome of comparing the request with what the view holds now.
enum Verdict { ACCEPT = 0, IDENTICAL = 1 };

bool IsHexHash(const std::string& s) {
    if (s.size() != 32) return false;
    for (char c : s) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}

// ACCEPT, IDENTICAL, or an error code (always above 1).
uint32_t Judge(const FileRequest& req, int found, const ServerObject& cur) {
    if (found == 1 && cur.is_dir) return SPROTO_ERR_CONFLICT;
    if (found == 1) {
        if (cur.md4 == req.md4 && cur.size == req.size) return IDENTICAL;
        if (req.base == 0) return SPROTO_ERR_CONFLICT;
        if (cur.sync_id != req.base) return SPROTO_ERR_UPLOAD_BASE_CHANGED;
        return ACCEPT;
    }
    // Nothing there: only whole content or a known content can make the file.
    if ((req.is_delta && !req.refer) || (req.refer && req.file_id == 0))
        return SPROTO_ERR_UPLOAD_NOBASE;
    return ACCEPT;
}

// 0, or SPROTO_ERR_CONFLICT when something above the path is a file.
uint32_t CheckAncestors(ServerStore& store, uint64_t view_id, const std::string& path) {
    for (std::string p = server_path::Parent(path); p != "/"; p = server_path::Parent(p)) {
        ServerObject obj;
        int rc = store.GetObject(view_id, p, obj);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 1) return obj.is_dir ? 0u : static_cast<uint32_t>(SPROTO_ERR_CONFLICT);
    }
    return 0;
}

void Remove(const std::string& path) {
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove(path, ec);
}

void ReplyIds(const ServerObject& obj, PObject& reply) {
    reply["sync_id"] = obj.sync_id;
    reply["max_id"] = obj.max_id;
    reply["is_dir"] = obj.is_dir;
}

uint32_t UploadDirectory(ServerStore& store, uint64_t view_id, const std::string& path,
                         uint32_t mtime, bool dry_run, PObject& reply) {
    if (path == "/") {
        int64_t last = store.LastSyncId(view_id);
        if (last < 0) return SPROTO_ERR_INTERNAL;
        reply["sync_id"] = static_cast<uint64_t>(0);
        reply["max_id"] = static_cast<uint64_t>(last);
        reply["is_dir"] = true;
        return 0;
    }
    TreeWriter tree(store, view_id);
    if (!tree.ok()) return SPROTO_ERR_INTERNAL;
    ServerObject obj;
    int rc = tree.MakeDir(path, mtime, obj);
    if (rc == TREE_CLASH) return SPROTO_ERR_CONFLICT;
    if (rc != TREE_OK && rc != TREE_EXISTS) return SPROTO_ERR_INTERNAL;
    if (rc == TREE_OK && !dry_run && tree.Commit() != TREE_OK) return SPROTO_ERR_INTERNAL;
    ReplyIds(obj, reply);
    return 0;
}

// Makes the uploaded content as a temporary file in the content store, checked against
// the request's hash and size. 0 with `temp` set, or an error code.
uint32_t ProduceContent(ServerStore& store, const FileRequest& req, const ServerObject& cur,
                        const std::string& data_file, std::string& temp) {
    if (data_file.empty()) return SPROTO_ERR_UPLOAD;
    temp = store.contents().NewTempPath();
    std::string md4;
    std::error_code ec;
    if (req.is_delta) {
        std::string basis = store.contents().PathOf(cur.content_id);
        if (delta_ops::Patch(data_file, basis, temp, md4) < 0) {
            Remove(temp);
            return SPROTO_ERR_UPLOAD_NOBASE;
        }
    } else {
        std::filesystem::rename(data_file, temp, ec);
        if (ec || delta_ops::HashFile(temp, md4) < 0) {
            Remove(temp);
            return SPROTO_ERR_INTERNAL;
        }
    }
    uint64_t size = std::filesystem::file_size(temp, ec);
    if (ec || md4 != req.md4 || size != req.size) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] upload(%d): '%s': content hashes to %s (%llu bytes), the "
                       "request said %s (%llu bytes); nothing stored\n",
                       __LINE__, req.path.c_str(), md4.c_str(),
                       static_cast<unsigned long long>(size), req.md4.c_str(),
                       static_cast<unsigned long long>(req.size));
        Remove(temp);
        return req.is_delta ? SPROTO_ERR_UPLOAD_NOBASE : SPROTO_ERR_UPLOAD;
    }
    return 0;
}

uint32_t UploadFile(ServerStore& store, uint64_t view_id, const FileRequest& req, bool dry_run,
                    const std::string& data_file, PObject& reply) {
    uint32_t code = CheckAncestors(store, view_id, req.path);
    if (code) return code;
    ServerObject cur;
    int found = store.GetObject(view_id, req.path, cur);
    if (found < 0) return SPROTO_ERR_INTERNAL;
    uint32_t verdict = Judge(req, found, cur);
    if (verdict > IDENTICAL) return verdict;

    PObject& file = reply["file"];
    file["refer"] = req.refer;
    if (dry_run) {
        ContentInfo known;
        int rc = store.FindContentInView(view_id, req.md4, req.size, known);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        file["file_id"] = static_cast<uint64_t>(rc == 1 ? known.id : 0);
        return 0;
    }
    if (verdict == IDENTICAL) {
        ReplyIds(cur, reply);
        file["file_id"] = static_cast<uint64_t>(req.refer ? cur.content_id : 0);
        return 0;
    }

    FileContent content{0, req.md4, req.size};
    std::string temp;
    if (req.refer && req.file_id != 0) {
        ContentInfo known;
        int rc = store.GetContent(req.file_id, known);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0 || known.md4 != req.md4 || known.size != req.size ||
            store.ContentUsedInView(view_id, known.id) != 1)
            return SPROTO_ERR_UPLOAD_NOBASE;
        content.content_id = known.id;
    } else if (req.refer) {
        // The content is the base's; only an identical one could refer to it, and that
        // was answered above.
        return SPROTO_ERR_UPLOAD_NOBASE;
    } else {
        code = ProduceContent(store, req, cur, data_file, temp);
        if (code) return code;
    }

    TreeWriter tree(store, view_id);
    if (!tree.ok()) {
        Remove(temp);
        return SPROTO_ERR_INTERNAL;
    }
    // Another upload may have committed while this one was being patched.
    found = tree.Get(req.path, cur);
    verdict = found < 0 ? SPROTO_ERR_INTERNAL : Judge(req, found, cur);
    if (verdict != ACCEPT) {
        Remove(temp);
        if (verdict != IDENTICAL) return verdict;
        ReplyIds(cur, reply);
        file["file_id"] = static_cast<uint64_t>(req.refer ? cur.content_id : 0);
        return 0;
    }
    if (!temp.empty() && tree.ImportContent(temp, req.md4, req.size, content) != TREE_OK) {
        Remove(temp);
        return SPROTO_ERR_INTERNAL;
    }
    uint32_t mtime = req.mtime_refers && found == 1 ? cur.mtime : req.mtime;
    ServerObject obj;
    int rc = tree.PutFile(req.path, content, mtime, req.exec_bit, obj);
    if (rc == TREE_CLASH) return SPROTO_ERR_CONFLICT;
    if (rc != TREE_OK || tree.Commit() != TREE_OK) return SPROTO_ERR_INTERNAL;
    ReplyIds(obj, reply);
    file["file_id"] = static_cast<uint64_t>(req.refer ? content.content_id : 0);
    return 0;
}

}  // namespace

uint32_t HandleUpload(ServerStore& store, uint64_t view_id, const PObject& request,
                      const std::string& data_file, PObject& reply) {
    FileRequest req;
    if (!server_path::Normalize(request["path"].asString().str(), req.path))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    req.base = request["sync_id"].asUInt64();
    const PObject& mtime = request["mtime"];
    if (mtime.isMap() && !mtime["refer"].asBool()) {
        req.mtime = mtime["mtime"].asUInt32();
    } else {
        req.mtime_refers = mtime.isMap();
        req.mtime = request["common_attribute"].isMap()
                        ? request["common_attribute"]["mtime"].asUInt32()
                        : static_cast<uint32_t>(std::time(nullptr));
    }
    const PObject& exec = request["exec_bit"];
    req.exec_bit = exec.isMap() && !exec["refer"].asBool() && exec["exec_bit"].asBool();
    bool dry_run = request["dry_run"].asBool();
    if (request["is_dir"].asBool())
        return UploadDirectory(store, view_id, req.path, req.mtime, dry_run, reply);
    if (req.path == "/") return SPROTO_ERR_CONFLICT;
    const PObject& file = request["file"];
    req.md4 = file["hash"].asString().str();
    req.size = file["size"].asUInt64();
    req.refer = file["refer"].asBool();
    req.is_delta = file["is_delta"].asBool();
    req.file_id = static_cast<int64_t>(file["file_id"].asUInt64());
    if (!file.isMap() || !IsHexHash(req.md4)) return SPROTO_ERR_UPLOAD;
    return UploadFile(store, view_id, req, dry_run, data_file, reply);
}
