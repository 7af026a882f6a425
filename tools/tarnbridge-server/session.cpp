// session.cpp: the request loop of one connection.
#include "session.h"

#include <cstdio>

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "download.h"
#include "foundation/error-code.h"
#include "foundation/log.h"
#include "pull.h"
#include "remove.h"
#include "resume.h"
#include "server-path.h"
#include "transport/proto-common.h"
#include "transport/ssl-channel.h"
#include "upload.h"

namespace {

const char* const kLog = "server_debug";
// Silence allowed inside a message once its header has come.
constexpr uint32_t kMessageTimeout = 60;

struct ActionCommand {
    const char* action;
    uint8_t cmd;
};

const ActionCommand kActions[] = {
    {"connect", SCMD_REQUEST_CONNECT},
    {"encrypt_channel", SCMD_REQUEST_SSL_2},
    {"pull_event", SCMD_EVT_PULL},
    {"upload", SCMD_EVT_RECV_4},
    {"remove", SCMD_EVT_REMOVE},
    {"resume_get_token", SCMD_RESUME_TRANSFER},
    {"resume_get_status", SCMD_RESUME_TRANSFER},
    {"resume_upload", SCMD_RESUME_TRANSFER},
    {"resume_download", SCMD_RESUME_TRANSFER},
};

// The command an action travels under, or 0 for an unknown action.
uint8_t CommandOf(const std::string& action) {
    for (const ActionCommand& a : kActions) {
        if (action == a.action) return a.cmd;
    }
    return 0;
}

const char* ErrorText(uint32_t code) {
    switch (code) {
        case SPROTO_ERR_SESSION_MISS:
            return "unknown session";
        case SPROTO_ERR_INVALID_VIEW_ID:
            return "unknown view";
        case SPROTO_ERR_ACCESS_DENY:
            return "no access to the view";
        case SPROTO_ERR_VIEW_INVALID_PATH:
            return "invalid path";
        case SPROTO_ERR_VERSION:
            return "request not supported";
        case SPROTO_ERR_CONFLICT:
            return "conflict";
        case SPROTO_ERR_INTERNAL:
            return "internal error";
        case SPROTO_ERR_DOWNLOAD_NOFILE:
            return "no such object";
        case SPROTO_ERR_UPLOAD:
            return "upload refused";
        case SPROTO_ERR_UPLOAD_NOBASE:
            return "base content not held";
        case SPROTO_ERR_UPLOAD_BASE_CHANGED:
            return "base is not the present version";
        case SPROTO_ERR_REMOVE:
            return "cannot remove";
        case SPROTO_ERR_REMOVE_NOFILE:
            return "no such object";
        case SPROTO_ERR_REMOVE_MODIFIED:
            return "changed since the client's version";
        case SPROTO_ERR_RESUME:
            return "cannot resume";
        case SPROTO_ERR_RESUME_NOTOKEN:
            return "unknown token";
        default:
            return "error";
    }
}

}  // namespace

Session::Session(const ServerOptions& options, Faults& faults, CommitQueue& queue,
                 KeepAlive& keep_alive)
    : m_options(options), m_faults(faults), m_queue(queue), m_keep_alive(keep_alive) {}

void Session::Stop() {
    m_stop = true;
    std::lock_guard<std::mutex> lock(m_socket_mutex);
    if (m_socket != platform::kInvalidSocket) ::shutdown(m_socket, SHUT_RDWR);
}

void Session::Run(platform::socket_t socket) {
    {
        std::lock_guard<std::mutex> lock(m_socket_mutex);
        m_socket = socket;
    }
    bool ready = !m_stop && m_store.Open(m_options.data_dir, m_options.versions_kept) == 0 &&
                 m_channel.Open(socket, true) == 0;
    if (!ready) {
        std::lock_guard<std::mutex> lock(m_socket_mutex);
        if (m_channel.IsClosed()) platform::shutdown_close(socket);
    }
    m_stream.SetDefaultRecvLocation(m_store.contents().SpoolDir().c_str());
    while (ready && !m_stop) {
        m_channel.ResetCount();
        m_channel.SetTimeout(m_options.alive);
        uint16_t pkt_len = 0;
        uint8_t cmd = 0, version = 0;
        if (ProtoReadHeader(m_channel, pkt_len, cmd, version) < 0) break;
        m_channel.SetTimeout(kMessageTimeout);
        PObject request;
        std::string action, token;
        int rc = ReadRequest(request, action, token);
        m_stream.ClearHistory();
        if (rc < 0) {
            Logger::LogMsg(Logger::L_INFO, kLog,
                           "[INFO] session(%d): request '%s' broken after %llu bytes (%d); "
                           "closing\n",
                           __LINE__, action.c_str(),
                           static_cast<unsigned long long>(m_channel.consumed()), rc);
            RemoveSpooled(request);
            m_body.Discard();
            break;
        }
        PObject reply;
        std::string scratch;
        uint32_t code = SPROTO_ERR_VERSION;  // for a request that is not a map
        if (rc == 0) {
            NoteWriting(action, request);
            m_keep_alive.Busy(m_channel);
            code = Dispatch(cmd, action, request, reply, scratch);
            rc = m_keep_alive.Idle(m_channel);
        }
        RemoveSpooled(request);
        m_body.Discard();
        const bool start_tls = std::exchange(m_start_tls, false) && code == 0;
        m_channel.SetWriteLimit(m_faults.CutReplyAfter(action));
        if (rc >= 0) rc = Answer(action, code, reply);
        std::error_code ec;
        if (!scratch.empty()) std::filesystem::remove(scratch, ec);
        if (rc >= 0 && start_tls) rc = ConvertToSSLChannel(m_channel, true);
        if (rc < 0) break;
    }
    if (m_writing) m_queue.Writing(false);
    {
        std::lock_guard<std::mutex> lock(m_socket_mutex);
        m_channel.Close();
        m_socket = platform::kInvalidSocket;
    }
    m_finished = true;
}

int Session::ReadRequest(PObject& request, std::string& action, std::string& token) {
    uint8_t tag = 0;
    int rc = m_stream.RecvTag(m_channel, tag);
    if (rc < 0) return rc;
    if (tag != ptag::kMap) {
        rc = m_stream.RecvDispatch(m_channel, tag, request);
        return rc < 0 ? rc : 1;
    }
    PObject::map_type& members = request.asMap();
    for (;;) {
        rc = m_stream.RecvTag(m_channel, tag);
        if (rc < 0) return rc;
        if (tag == ptag::kEnd) return 0;
        if (tag != ptag::kString) return ERR_PROTO;
        ustring key;
        rc = m_stream.Recv(m_channel, key);
        if (rc < 0) return rc;
        PObject& member = members[key];
        rc = key == "file" ? ReadFileMember(member, action, token)
                           : m_stream.RecvObject(m_channel, member);
        if (rc < 0) return rc;
        if (key == "action") {
            action = member.asString().str();
            uint64_t cut = m_faults.CloseAfter(action);
            if (cut != 0) m_channel.SetLimit(cut);
            if (m_channel.LimitReached()) return ERR_IO;
        } else if (key == "resume_token") {
            token = member.asString().str();
        }
    }
}

int Session::ReadFileMember(PObject& file, const std::string& action, const std::string& token) {
    uint8_t tag = 0;
    int rc = m_stream.RecvTag(m_channel, tag);
    if (rc < 0 || tag != ptag::kMap)
        return rc < 0 ? rc : m_stream.RecvDispatch(m_channel, tag, file);
    PObject::map_type& members = file.asMap();
    for (;;) {
        rc = m_stream.RecvTag(m_channel, tag);
        if (rc < 0) return rc;
        if (tag == ptag::kEnd) return 0;
        if (tag != ptag::kString) return ERR_PROTO;
        ustring key;
        rc = m_stream.Recv(m_channel, key);
        if (rc < 0) return rc;
        rc = m_stream.RecvTag(m_channel, tag);
        if (rc < 0) return rc;
        if (key != "data" || tag != ptag::kBinary || m_body.present) {
            rc = m_stream.RecvDispatch(m_channel, tag, members[key]);
            if (rc < 0) return rc;
            continue;
        }
        // "file" comes before "path" and "session" in key order, so its bytes are taken in
        // before the request is understood. A resumable upload appends to what earlier
        // attempts of its token left, which "resume_get_status" told the client.
        std::string spool;
        uint64_t held = 0;
        if (action == "resume_upload" && !token.empty() && m_store.TokenExists(token) == 1) {
            spool = m_store.UploadSpoolOf(token);
            std::error_code ec;
            held = std::filesystem::file_size(spool, ec);
            if (ec) held = 0;
        }
        rc = ReceiveUploadBody(m_channel, spool, held, m_store.contents().NewTempPath(), m_body);
        if (rc < 0) return rc;
    }
}

uint32_t Session::Dispatch(uint8_t cmd, const std::string& action, const PObject& request,
                           PObject& reply, std::string& scratch) {
    uint8_t expected = CommandOf(action);
    // The request for TLS carries no session: it comes before the login.
    if (action == "encrypt_channel" && expected == cmd) return AcceptTls();
    if (expected == 0 || expected != cmd || action == "encrypt_channel") {
        Logger::LogMsg(Logger::L_NOTICE, kLog,
                       "[NOTICE] session(%d): refused '%s' under command %u\n", __LINE__,
                       action.c_str(), static_cast<unsigned>(cmd));
        return SPROTO_ERR_VERSION;
    }
    int64_t account_id = 0;
    uint64_t view_id = request["view_id"].asUInt64();
    uint32_t code = m_store.Authorize(request["session"].asString().str(), view_id, account_id);
    if (code != 0) return code;
    std::string path;
    if (request.hasMember("path") && server_path::Normalize(request["path"].asString().str(), path))
        code = m_faults.ErrorFor(action, path);
    else
        code = m_faults.ErrorFor(action, "*");
    uint32_t delay = m_faults.DelayMs(action);
    if (delay) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    if (code != 0) return code;
    code = Serve(action, request, account_id, view_id, reply, scratch);
    // Read through a const view: a look must not add an empty "file" to the reply.
    const PObject& file = std::as_const(reply)["file"];
    if (code == 0 && file.hasMember("hash") && m_faults.BadHash(action, path))
        reply["file"]["hash"] = "00000000000000000000000000000000";
    if (code == 0 && m_options.trace_payloads && file["data"].isBinary()) {
        const PObject::binary_type& data = file["data"].asBinary();
        std::printf("tarnbridge-server: %s %s: %llu payload bytes from %llu (%s)\n", action.c_str(),
                    path.c_str(), static_cast<unsigned long long>(data.length),
                    static_cast<unsigned long long>(data.offset),
                    file["is_delta"].asBool() ? "delta" : "whole");
        std::fflush(stdout);
    }
    return code;
}

uint32_t Session::Serve(const std::string& action, const PObject& request, int64_t account_id,
                        uint64_t view_id, PObject& reply, std::string& scratch) {
    if (action == "connect") {
        if (request["do_ssl"].asBool() && AcceptTls() != 0) return SPROTO_ERR_VERSION;
        if (!m_options.legacy_2402) {
            PObject& version = reply["server"]["package_version"];
            version["major"] = kServerMajor;
            version["minor"] = kServerMinor;
            version["build"] = kServerBuild;
        }
        return 0;
    }
    if (action == "pull_event") {
        PullLimits limits;
        limits.max_events = m_options.max_pull_events;
        return HandlePull(m_store, view_id, request, limits, m_page);
    }
    if (action == "upload") return HandleUpload(m_store, m_queue, view_id, request, m_body, reply);
    if (action == "resume_upload") {
        ResumeToken token;
        int rc =
            m_store.GetToken(request["resume_token"].asString().str(), account_id, view_id, token);
        if (rc < 0) return SPROTO_ERR_INTERNAL;
        if (rc == 0) return SPROTO_ERR_RESUME_NOTOKEN;
        uint32_t code = HandleUpload(m_store, m_queue, view_id, request, m_body, reply);
        // Whatever the outcome, the client starts with a new token next time.
        m_store.DropToken(token.token);
        return code;
    }
    if (action == "remove") return HandleRemove(m_queue, view_id, request, reply);
    if (action == "resume_get_token") return HandleGetToken(m_store, account_id, view_id, reply);
    if (action == "resume_get_status")
        return HandleGetStatus(m_store, account_id, view_id, request, reply);
    if (action == "resume_download")
        return HandleDownload(m_store, account_id, view_id, request, reply, scratch);
    return SPROTO_ERR_VERSION;
}

uint32_t Session::AcceptTls() {
    if (!m_options.tls || m_channel.IsSSL()) return SPROTO_ERR_VERSION;
    m_start_tls = true;
    return 0;
}

void Session::NoteWriting(const std::string& action, const PObject& request) {
    bool writes = (action == "upload" || action == "resume_upload" || action == "remove") &&
                  !request["dry_run"].asBool();
    if (writes == m_writing) return;
    m_writing = writes;
    m_queue.Writing(writes);
}

int Session::Answer(const std::string& action, uint32_t code, PObject& reply) {
    if (code == 0 && action == "pull_event") {
        int rc = SendPullReply(m_channel, m_stream, m_page, m_options.alive);
        m_page = PullPage();
        return rc;
    }
    if (code != 0) {
        reply = PObject();
        reply["error"]["code"] = code;
        reply["error"]["message"] = ErrorText(code);
    }
    reply["alive"] = m_options.alive;
    return Send(reply);
}

int Session::Send(const PObject& value) {
    return m_stream.Send(m_channel, value);
}

void Session::RemoveSpooled(const PObject& value) {
    if (value.isMap()) {
        for (const auto& member : value.asMap()) RemoveSpooled(member.second);
    } else if (value.isArray()) {
        for (const PObject& item : value.asArray()) RemoveSpooled(item);
    } else if (value.isBinary()) {
        const std::string path = value.asBinary().path.str();
        const std::string& spool = m_store.contents().SpoolDir();
        std::error_code ec;
        if (path.compare(0, spool.size() + 1, spool + "/") == 0) std::filesystem::remove(path, ec);
    }
}
