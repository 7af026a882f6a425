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
uint32_t Judge(const FileRequest& req, const PathState& state) {
    const ServerObject& cur = state.obj;
    if (state.under_file || (state.found == 1 && cur.is_dir)) return SPROTO_ERR_CONFLICT;
    if (state.found == 1) {
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

void Remove(const std::string& path) {
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove(path, ec);
}

void ReplyIds(const ServerObject& obj, PObject& reply) {
    reply["sync_id"] = obj.sync_id;
    reply["max_id"] = obj.max_id;
    reply["is_dir"] = obj.is_dir;
}

uint32_t UploadDirectory(ServerStore& store, CommitQueue& queue, uint64_t view_id,
                         const std::string& path, uint32_t mtime, bool dry_run, PObject& reply) {
    if (path == "/") {
        int64_t last = store.LastSyncId(view_id);
        if (last < 0) return SPROTO_ERR_INTERNAL;
        reply["sync_id"] = static_cast<uint64_t>(0);
        reply["max_id"] = static_cast<uint64_t>(last);
        reply["is_dir"] = true;
        return 0;
    }
    ServerObject obj;
    uint32_t code = 0;
    int rc = queue.Apply(view_id, [&](TreeWriter& tree) -> int {
        int made = tree.MakeDir(path, mtime, obj);
        if (made == TREE_CLASH) code = SPROTO_ERR_CONFLICT;
        if (made != TREE_OK && made != TREE_EXISTS) return made;
        // A dry run answers the ids the directory would have, and keeps nothing.
        return made == TREE_OK && !dry_run ? TREE_OK : TREE_EXISTS;
    });
    if (code != 0) return code;
    if (rc != TREE_OK && rc != TREE_EXISTS) return SPROTO_ERR_INTERNAL;
    ReplyIds(obj, reply);
    return 0;
}

// Makes `out` the content held in `file` (hashed already): its bytes when small (the file
// then goes if it is temporary), else the file itself, flushed here so that the commit
// needs no more than a rename. 0, or an error code.
uint32_t ContentFromFile(std::string& file, bool temporary, const std::string& md4, uint64_t size,
                         NewContent& out) {
    out.md4 = md4;
    out.size = size;
    if (size <= ContentStore::kInlineLimit) {
        if (ContentStore::ReadFile(file, out.bytes) < 0) return SPROTO_ERR_INTERNAL;
        if (temporary) Remove(file);
        file.clear();
        return 0;
    }
    if (ContentStore::Sync(file) < 0) return SPROTO_ERR_INTERNAL;
    out.temp = file;
    file.clear();
    return 0;
}

// The content of a whole upload, from the body whose hash was taken as it came.
uint32_t WholeContent(const FileRequest& req, UploadBody& body, NewContent& out) {
    if (!body.present) return SPROTO_ERR_UPLOAD;
    if (body.md4 != req.md4 || body.size != req.size) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] upload(%d): '%s': content hashes to %s (%llu bytes), the "
                       "request said %s (%llu bytes); nothing stored\n",
                       __LINE__, req.path.c_str(), body.md4.c_str(),
                       static_cast<unsigned long long>(body.size), req.md4.c_str(),
                       static_cast<unsigned long long>(req.size));
        return SPROTO_ERR_UPLOAD;
    }
    if (body.file.empty()) {
        out = NewContent{req.md4, req.size, std::move(body.bytes), std::string()};
        return 0;
    }
    return ContentFromFile(body.file, body.temporary, req.md4, req.size, out);
}

// The content a delta upload makes from the present content `base`.
uint32_t PatchedContent(ServerStore& store, const FileRequest& req, int64_t base, UploadBody& body,
                        NewContent& out) {
    if (!body.present) return SPROTO_ERR_UPLOAD;
    std::string delta = body.file, delta_scratch, basis, basis_scratch;
    if (delta.empty()) {
        delta = delta_scratch = store.contents().NewSpoolPath();
        if (ContentStore::WriteFile(delta, body.bytes) < 0) return SPROTO_ERR_INTERNAL;
    }
    if (store.ContentFile(base, basis, basis_scratch) != 1) {
        Remove(delta_scratch);
        return SPROTO_ERR_UPLOAD_NOBASE;
    }
    std::string temp = store.contents().NewTempPath();
    std::string md4;
    int rc = delta_ops::Patch(delta, basis, temp, md4);
    Remove(delta_scratch);
    Remove(basis_scratch);
    std::error_code ec;
    uint64_t size = rc < 0 ? 0 : std::filesystem::file_size(temp, ec);
    if (rc < 0 || ec || md4 != req.md4 || size != req.size) {
        Logger::LogMsg(Logger::L_WARNING, kLog,
                       "[WARNING] upload(%d): '%s': the delta makes %s (%llu bytes), the "
                       "request said %s (%llu bytes); nothing stored\n",
                       __LINE__, req.path.c_str(), rc < 0 ? "nothing" : md4.c_str(),
                       static_cast<unsigned long long>(size), req.md4.c_str(),
                       static_cast<unsigned long long>(req.size));
        Remove(temp);
        return SPROTO_ERR_UPLOAD_NOBASE;
    }
    return ContentFromFile(temp, true, md4, size, out);
}

// The stored content a "refer" upload names, checked against the request and the view.
uint32_t ReferredContent(ServerStore& store, uint64_t view_id, const FileRequest& req,
                         FileContent& out) {
    ContentInfo known;
    int rc = store.GetContent(req.file_id, known);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (rc == 0 || known.md4 != req.md4 || known.size != req.size ||
        store.ContentUsedInView(view_id, known.id) != 1)
        return SPROTO_ERR_UPLOAD_NOBASE;
    out = FileContent{known.id, known.md4, known.size};
    return 0;
}

uint32_t DryRun(ServerStore& store, uint64_t view_id, const FileRequest& req, PObject& reply) {
    PathState state;
    if (store.LookUpPath(view_id, req.path, state) < 0) return SPROTO_ERR_INTERNAL;
    uint32_t verdict = Judge(req, state);
    if (verdict > IDENTICAL) return verdict;
    ContentInfo known;
    int rc = store.FindContentInView(view_id, req.md4, req.size, known);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    reply["file"]["refer"] = req.refer;
    reply["file"]["file_id"] = static_cast<uint64_t>(rc == 1 ? known.id : 0);
    return 0;
}

// What the upload brings, made ready before the writer is asked: the bytes of a whole
// upload, the patched file of a delta, or a stored content a "refer" names.
struct Prepared {
    uint32_t code = 0;  // an error found before the change; reported after its verdict
    NewContent content;
    FileContent referred;
};

void Prepare(ServerStore& store, uint64_t view_id, const FileRequest& req, UploadBody& body,
             Prepared& out) {
    if (req.refer && req.file_id != 0) {
        out.code = ReferredContent(store, view_id, req, out.referred);
    } else if (req.refer) {
        // The content is the base's; only an identical one could refer to it, and that
        // is answered by the verdict.
        out.code = SPROTO_ERR_UPLOAD_NOBASE;
    } else if (!req.is_delta) {
        out.code = WholeContent(req, body, out.content);
    }
}

// Runs the upload as a change of the commit queue. 0 or an error code.
uint32_t Commit(CommitQueue& queue, uint64_t view_id, const FileRequest& req, Prepared& prep,
                PObject& reply) {
    uint32_t code = 0;
    ServerObject obj;
    FileContent content = prep.referred;
    int rc = queue.Apply(view_id, [&](TreeWriter& tree) -> int {
        PathState state;
        if (tree.LookUp(req.path, state) < 0) return TREE_FAIL;
        uint32_t verdict = Judge(req, state);
        if (verdict == IDENTICAL) {
            obj = state.obj;
            content.content_id = state.obj.content_id;
            return TREE_EXISTS;
        }
        code = verdict != ACCEPT ? verdict : prep.code;
        // Found identical before, no longer so now: the client's base is not the present one.
        if (code == 0 && content.content_id == 0 && prep.content.md4.empty())
            code = SPROTO_ERR_UPLOAD_BASE_CHANGED;
        if (code != 0) return TREE_CLASH;
        if (content.content_id == 0 && tree.ImportContent(prep.content, content) != TREE_OK)
            return TREE_FAIL;
        uint32_t mtime = req.mtime_refers && state.found == 1 ? state.obj.mtime : req.mtime;
        int put = tree.PutFile(req.path, state, content, mtime, req.exec_bit, obj);
        if (put == TREE_CLASH) code = SPROTO_ERR_CONFLICT;
        return put;
    });
    Remove(prep.content.temp);
    if (code != 0) return code;
    if (rc != TREE_OK && rc != TREE_EXISTS) return SPROTO_ERR_INTERNAL;
    ReplyIds(obj, reply);
    reply["file"]["refer"] = req.refer;
    reply["file"]["file_id"] = static_cast<uint64_t>(req.refer ? content.content_id : 0);
    return 0;
}

uint32_t UploadFile(ServerStore& store, CommitQueue& queue, uint64_t view_id,
                    const FileRequest& req, UploadBody& body, PObject& reply) {
    Prepared prep;
    if (req.is_delta && !req.refer) {
        // The delta needs the base content before the writer is asked, and a stale base
        // shows here without patching anything.
        PathState state;
        if (store.LookUpPath(view_id, req.path, state) < 0) return SPROTO_ERR_INTERNAL;
        uint32_t verdict = Judge(req, state);
        if (verdict > IDENTICAL) return verdict;
        if (verdict == ACCEPT)
            prep.code = PatchedContent(store, req, state.obj.content_id, body, prep.content);
    } else {
        Prepare(store, view_id, req, body, prep);
    }
    return Commit(queue, view_id, req, prep, reply);
}

}  // namespace

uint32_t HandleUpload(ServerStore& store, CommitQueue& queue, uint64_t view_id,
                      const PObject& request, UploadBody& body, PObject& reply) {
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
        return UploadDirectory(store, queue, view_id, req.path, req.mtime, dry_run, reply);
    if (req.path == "/") return SPROTO_ERR_CONFLICT;
    const PObject& file = request["file"];
    req.md4 = file["hash"].asString().str();
    req.size = file["size"].asUInt64();
    req.refer = file["refer"].asBool();
    req.is_delta = file["is_delta"].asBool();
    req.file_id = static_cast<int64_t>(file["file_id"].asUInt64());
    if (!file.isMap() || !IsHexHash(req.md4)) return SPROTO_ERR_UPLOAD;
    if (dry_run) return DryRun(store, view_id, req, reply);
    return UploadFile(store, queue, view_id, req, body, reply);
}
