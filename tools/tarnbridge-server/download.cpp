// download.cpp: version choice, delta and resumption of a download.
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

// The payload of a file download.
struct Payload {
    std::string file;
    int64_t content_id = 0;  // when the payload is a stored content
    bool is_delta = false;
};

// Makes the payload for a fresh download: a delta against `base` when that version is kept
// and the delta comes out smaller, else the content itself.
void Prepare(ServerStore& store, uint64_t view_id, const std::string& path, uint64_t base,
             const ContentInfo& target, const std::string& delta_file, Payload& out) {
    out = Payload{store.contents().PathOf(target.id), target.id, false};
    if (base == 0) return;
    ContentInfo basis;
    if (store.GetVersion(view_id, path, base, basis) != 1) return;
    std::string sig = store.contents().NewTempPath();
    if (delta_ops::MakeDelta(store.contents().PathOf(basis.id), out.file, sig, delta_file) < 0) {
        std::error_code ec;
        std::filesystem::remove(delta_file, ec);
        return;
    }
    bool ok = false;
    uint64_t size = FileSize(delta_file, ok);
    if (ok && size < target.size) {
        out = Payload{delta_file, 0, true};
        return;
    }
    std::error_code ec;
    std::filesystem::remove(delta_file, ec);
}

}  // namespace

uint32_t HandleDownload(ServerStore& store, int64_t account_id, uint64_t view_id,
                        const PObject& request, PObject& reply, std::string& scratch) {
    std::string path;
    if (!server_path::Normalize(request["path"].asString().str(), path))
        return SPROTO_ERR_VIEW_INVALID_PATH;
    ResumeToken token;
    bool has_token = request.hasMember("resume_token");
    if (has_token) {
        int rc =
            store.GetToken(request["resume_token"].asString().str(), account_id, view_id, token);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0) return SPROTO_ERR_RESUME_NOTOKEN;
    }
    ServerObject cur;
    int rc = path == "/" ? 0 : store.GetObject(view_id, path, cur);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (rc == 0) return SPROTO_ERR_DOWNLOAD_NOFILE;

    uint64_t base = request["sync_id"].asUInt64();
    uint64_t target = request["target_sync_id"].asUInt64();
    ContentInfo content{cur.content_id, cur.md4, cur.size};
    uint64_t served = cur.sync_id;
    if (!cur.is_dir && target != 0 && target != cur.sync_id &&
        store.GetVersion(view_id, path, target, content) == 1)
        served = target;
    else if (!cur.is_dir && store.GetContent(cur.content_id, content) != 1)
        return SPROTO_ERR_INTERNAL;

    reply["sync_id"] = served;
    reply["max_id"] = served == cur.sync_id ? cur.max_id : served;
    reply["is_dir"] = cur.is_dir;
    reply["common_attribute"]["mtime"] = cur.mtime;
    reply["mtime"]["refer"] = false;
    reply["mtime"]["mtime"] = cur.mtime;
    reply["exec_bit"]["refer"] = false;
    reply["exec_bit"]["exec_bit"] = cur.exec_bit;
    reply["mac_attribute"]["refer"] = true;
    if (cur.is_dir) return 0;

    PObject& file = reply["file"];
    file["size"] = content.size;
    file["hash"] = content.md4.c_str();
    const PObject& want = request["file"];
    if (want["ignore"].asBool() || base == served) {
        file["refer"] = true;
        return 0;
    }
    uint64_t offset = want["offset"].asUInt64();
    Payload payload;
    if (offset > 0) {
        // Only the very payload the token was given may be continued.
        if (!has_token || token.dl_path != path || token.dl_sync_id != served ||
            token.dl_base != base)
            return SPROTO_ERR_RESUME;
        payload = token.dl_delta
                      ? Payload{token.dl_file, 0, true}
                      : Payload{store.contents().PathOf(token.dl_content), token.dl_content, false};
    } else {
        std::string delta_file =
            has_token ? store.DownloadPayloadOf(token.token) : store.contents().NewSpoolPath();
        Prepare(store, view_id, path, base, content, delta_file, payload);
        if (payload.is_delta && !has_token) scratch = delta_file;
        if (has_token) {
            token.dl_path = path;
            token.dl_file = payload.is_delta ? payload.file : std::string();
            token.dl_content = payload.content_id;
            token.dl_sync_id = served;
            token.dl_base = base;
            token.dl_delta = payload.is_delta;
            if (store.SaveDownloadPin(token) < 0) return SPROTO_ERR_INTERNAL;
        }
    }
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
