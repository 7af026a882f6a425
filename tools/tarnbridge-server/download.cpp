// download.cpp: version choice, delta and resumption of a download, one phase a function.
#include "download.h"

#include <filesystem>
#include <system_error>

#include "delta-ops.h"
#include "server-path.h"
#include "transport/proto-format.h"

namespace {

uint64_t FileSize(const std::string& path, bool& ok) {
    std::error_code ec;
    uint64_t size = std::filesystem::file_size(path, ec);
    ok = !ec;
    return ok ? size : 0;
}

void Remove(const std::string& path) {
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove(path, ec);
}

// What the request asks for.
struct DownloadRequest {
    std::string path;
    bool has_token = false;
    ResumeToken token;
    uint64_t base = 0;    // the version the client holds
    uint64_t target = 0;  // the version it wants, 0 for the present one
    uint64_t offset = 0;  // where a resumed payload goes on
    bool ignore = false;  // the client wants the attributes only
};

// The object and the version of it that is served.
struct Served {
    ServerObject obj;
    uint64_t sync_id = 0;
    ContentInfo content;
};

// The payload of a file download.
struct Payload {
    std::string file;
    int64_t content_id = 0;  // when the payload is a stored content
    bool is_delta = false;
};

// Phase 1: the request's path, token and versions. 0 or an error code.
uint32_t ReadRequest(ServerStore& store, int64_t account_id, uint64_t view_id,
                     const PObject& request, DownloadRequest& out) {
    if (!server_path::Normalize(request["path"].asString().str(), out.path))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    out.has_token = request.hasMember("resume_token");
    if (out.has_token) {
        int rc = store.GetToken(request["resume_token"].asString().str(), account_id, view_id,
                                out.token);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0) return SPROTO_ERR_RESUME_NOTOKEN;
    }
    out.base = request["sync_id"].asUInt64();
    out.target = request["target_sync_id"].asUInt64();
    out.offset = request["file"]["offset"].asUInt64();
    out.ignore = request["file"]["ignore"].asBool();
    return 0;
}

// Phase 2: the version to serve, the one asked for while it is kept. 0 or an error code.
uint32_t ChooseVersion(ServerStore& store, uint64_t view_id, const DownloadRequest& req,
                       Served& out) {
    int rc = req.path == "/" ? 0 : store.GetObject(view_id, req.path, out.obj);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (rc == 0) return SPROTO_ERR_DOWNLOAD_NOFILE;
    const ServerObject& cur = out.obj;
    out.sync_id = cur.sync_id;
    out.content = ContentInfo{cur.content_id, cur.md4, cur.size};
    if (cur.is_dir) return 0;
    if (req.target != 0 && req.target != cur.sync_id &&
        store.GetVersion(view_id, req.path, req.target, out.content) == 1) {
        out.sync_id = req.target;
        return 0;
    }
    if (store.GetContent(cur.content_id, out.content) != 1) return SPROTO_ERR_INTERNAL;
    return 0;
}

// Phase 3: the object's attributes, as every download reply carries them.
void Describe(const Served& served, PObject& reply) {
    const ServerObject& cur = served.obj;
    reply["sync_id"] = served.sync_id;
    reply["max_id"] = served.sync_id == cur.sync_id ? cur.max_id : served.sync_id;
    reply["is_dir"] = cur.is_dir;
    reply["common_attribute"]["mtime"] = cur.mtime;
    reply["mtime"]["refer"] = false;
    reply["mtime"]["mtime"] = cur.mtime;
    reply["exec_bit"]["refer"] = false;
    reply["exec_bit"]["exec_bit"] = cur.exec_bit;
    reply["mac_attribute"]["refer"] = true;
    if (cur.is_dir) return;
    reply["file"]["size"] = served.content.size;
    reply["file"]["hash"] = served.content.md4.c_str();
}

// Makes the payload for a fresh download: a delta against `base` when that version is kept
// and the delta comes out smaller, else the content itself. Files made from contents kept
// in the database are named in `scratch` when they become the payload, and deleted
// otherwise.
void Prepare(ServerStore& store, uint64_t view_id, const std::string& path, uint64_t base,
             const ContentInfo& target, const std::string& delta_file, Payload& out,
             std::string& scratch) {
    out = Payload{std::string(), target.id, false};
    if (store.ContentFile(target.id, out.file, scratch) != 1) return;
    ContentInfo basis;
    if (base == 0 || store.GetVersion(view_id, path, base, basis) != 1) return;
    std::string basis_file, basis_scratch;
    if (store.ContentFile(basis.id, basis_file, basis_scratch) != 1) return;
    std::string sig = store.contents().NewTempPath();
    int rc = delta_ops::MakeDelta(basis_file, out.file, sig, delta_file);
    Remove(basis_scratch);
    bool ok = false;
    uint64_t size = rc < 0 ? 0 : FileSize(delta_file, ok);
    if (ok && size < target.size) {
        Remove(scratch);
        scratch.clear();
        out = Payload{delta_file, 0, true};
        return;
    }
    Remove(delta_file);
}

// Phase 4, a fresh payload, pinned to the token when there is one. 0 or an error code.
uint32_t FreshPayload(ServerStore& store, uint64_t view_id, DownloadRequest& req,
                      const Served& served, Payload& out, std::string& scratch) {
    std::string delta_file =
        req.has_token ? store.DownloadPayloadOf(req.token.token) : store.contents().NewSpoolPath();
    Prepare(store, view_id, req.path, req.base, served.content, delta_file, out, scratch);
    if (out.file.empty()) return SPROTO_ERR_INTERNAL;
    if (out.is_delta && !req.has_token) scratch = delta_file;
    if (!req.has_token) return 0;
    ResumeToken& token = req.token;
    token.dl_path = req.path;
    token.dl_file = out.is_delta ? out.file : std::string();
    token.dl_content = out.content_id;
    token.dl_sync_id = served.sync_id;
    token.dl_base = req.base;
    token.dl_delta = out.is_delta;
    if (store.SaveDownloadPin(token) < 0) return SPROTO_ERR_INTERNAL;
    return 0;
}

// Phase 4, a resumed payload: only the very one the token was given may go on.
uint32_t PinnedPayload(ServerStore& store, const DownloadRequest& req, const Served& served,
                       Payload& out, std::string& scratch) {
    const ResumeToken& token = req.token;
    if (!req.has_token || token.dl_path != req.path || token.dl_sync_id != served.sync_id ||
        token.dl_base != req.base)
        return SPROTO_ERR_RESUME;
    if (token.dl_delta) {
        out = Payload{token.dl_file, 0, true};
        return 0;
    }
    out = Payload{std::string(), token.dl_content, false};
    if (store.ContentFile(token.dl_content, out.file, scratch) != 1) return SPROTO_ERR_RESUME;
    return 0;
}

// Phase 5: the payload's bytes from the offset on.
uint32_t Attach(const Payload& payload, uint64_t offset, PObject& file) {
    bool ok = false;
    uint64_t length = FileSize(payload.file, ok);
    if (!ok || offset > length) return SPROTO_ERR_RESUME;
    file["refer"] = false;
    file["is_delta"] = payload.is_delta;
    PObject::binary_type data;
    data.path = payload.file.c_str();
    data.offset = offset;
    data.length = length - offset;
    file["data"] = data;
    return 0;
}

}  // namespace

uint32_t HandleDownload(ServerStore& store, int64_t account_id, uint64_t view_id,
                        const PObject& request, PObject& reply, std::string& scratch) {
    DownloadRequest req;
    uint32_t code = ReadRequest(store, account_id, view_id, request, req);
    Served served;
    if (code == 0) code = ChooseVersion(store, view_id, req, served);
    if (code != 0) return code;
    Describe(served, reply);
    if (served.obj.is_dir) return 0;
    if (req.ignore || req.base == served.sync_id) {
        reply["file"]["refer"] = true;
        return 0;
    }
    Payload payload;
    code = req.offset > 0 ? PinnedPayload(store, req, served, payload, scratch)
                          : FreshPayload(store, view_id, req, served, payload, scratch);
    return code != 0 ? code : Attach(payload, req.offset, reply["file"]);
}
