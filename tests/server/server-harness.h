// server-harness.h: a reference server running in-process on a temporary data folder and a
// port the system picks, with one account and view made by "init", and a client that
// speaks the wire form from the outside (header, one PStream map; a bare map back).
// Header-only, for the server tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "admin.h"
#include "delta-ops.h"
#include "delta/md4-hash-handler.h"
#include "foundation/channel.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "server-options.h"
#include "server-store.h"
#include "server.h"
#include "support/process.h"
#include "support/temp-dir.h"
#include "transport/connection-pool.h"
#include "transport/proto-common.h"

inline std::string Md4Of(const std::string& bytes) {
    MD4HashHandler md4;
    md4.begin();
    md4.update(bytes.data(), bytes.size());
    md4.end();
    return md4.getResult().str();
}

inline std::string Md4(const std::string& path) {
    std::string md4;
    EXPECT_EQ(delta_ops::HashFile(path, md4), 0) << path;
    return md4;
}

// The bytes of a stored content, wherever the store keeps them.
inline std::string ContentBytes(ServerStore& store, int64_t content_id) {
    std::string bytes;
    EXPECT_EQ(store.ReadContent(content_id, bytes), 1) << "content " << content_id;
    return bytes;
}

// A request map with the action, the account's session and its view.
inline PObject Request(const admin::InitResult& user, const char* action) {
    PObject req;
    req["_action"] = action;
    req["session"] = user.session.c_str();
    req["view_id"] = user.view_id;
    AppendAgent(req);
    return req;
}

// An upload of the file at `local` to `path` over the version `base`; `result` is the file
// the server must end up with (the patched one for a delta; `local` itself by default).
inline PObject UploadRequest(const admin::InitResult& user, const std::string& path, uint64_t base,
                             const std::string& local, std::string result = std::string(),
                             bool is_delta = false, const char* action = "upload") {
    if (result.empty()) result = local;
    PObject req = Request(user, action);
    req["path"] = path.c_str();
    req["sync_id"] = base;
    req["max_id"] = base;
    req["file"]["hash"] = Md4(result).c_str();
    req["file"]["size"] = static_cast<uint64_t>(std::filesystem::file_size(result));
    req["file"]["is_delta"] = is_delta;
    PObject::binary_type data;
    data.path = local.c_str();
    data.length = std::filesystem::file_size(local);
    req["file"]["data"] = data;
    return req;
}

class ServerHarness {
  public:
    explicit ServerHarness(const std::function<void(ServerOptions&)>& tweak = nullptr) {
        options.data_dir = dir / "data";
        options.port = 0;
        options.faults_path = dir / "faults";
        if (tweak) tweak(options);
        EXPECT_EQ(store.Open(options.data_dir), 0);
        EXPECT_EQ(admin::Init(store, "alice", "home", user), 0);
        server = std::make_unique<Server>(options);
        EXPECT_EQ(server->Start(), 0);
    }
    ~ServerHarness() { server->Stop(); }

    int port() const { return server->port(); }
    PObject Request(const char* action) const { return ::Request(user, action); }
    void WriteFaults(const std::string& text) { dir.write("faults", text); }
    // A local file with these bytes; returns its path.
    std::string LocalFile(const std::string& name, const std::string& bytes) {
        dir.write(name, bytes);
        return dir / name;
    }
    // The bytes the server holds for a path now.
    std::string Stored(const std::string& path) {
        ServerObject obj;
        EXPECT_EQ(store.GetObject(user.view_id, path, obj), 1) << path;
        return ContentBytes(store, obj.content_id);
    }
    bool Exists(const std::string& path) {
        ServerObject obj;
        return store.GetObject(user.view_id, path, obj) == 1;
    }

    TempDir dir;
    ServerOptions options;
    admin::InitResult user;
    std::unique_ptr<Server> server;
    ServerStore store;  // for setting up and looking at the server's state directly
};

// A daemon's pool of three connections to `server`, logged in as its account, plain unless
// `client` changes the connection's settings, direct unless `proxy` or `tunnel` is in use.
inline std::unique_ptr<ConnectionPool> PoolFor(
    const ServerHarness& server, const std::function<void(ConnectionInfo&)>& client = nullptr,
    const ProxyInfo& proxy = ProxyInfo(), const TunnelInfo& tunnel = TunnelInfo()) {
    ConnectionInfo info;
    info.server_ip = "127.0.0.1";
    info.server_port = server.port();
    info.session = server.user.session.c_str();
    info.use_ssl = false;
    if (client) client(info);
    return std::make_unique<ConnectionPool>(info, proxy, tunnel, 3);
}

// One client connection.
class WireClient {
  public:
    explicit WireClient(int port, const std::string& recv_dir = std::string()) {
        EXPECT_EQ(ch.Open("127.0.0.1", port), 0);
        ch.SetTimeout(15);
        if (!recv_dir.empty()) stream.SetDefaultRecvLocation(recv_dir.c_str());
    }
    // Sends one request and reads the reply, skipping keep-alive maps (counted). 0 or the
    // code of the failing step.
    int Call(uint8_t cmd, const PObject& request, PObject& reply) {
        reply = PObject();  // a received map merges into what the target holds
        int rc = ProtoWriteObjectRequest(ch, stream, cmd, request);
        while (rc == 0 && (rc = ProtoReadObjectReply(ch, stream, reply)) == 0 &&
               reply["type"].asString() == "keep_alive") {
            ++keep_alives;
            reply = PObject();
        }
        return rc;
    }
    // The reply, failing the test when none comes.
    PObject Ask(uint8_t cmd, const PObject& request) {
        PObject reply;
        EXPECT_EQ(Call(cmd, request, reply), 0);
        return reply;
    }
    // The reply's error code, 0 for none. Every reply, error or not, must grant "alive".
    static uint32_t Code(const PObject& reply) {
        EXPECT_NE(reply["alive"].asUInt32(), 0u) << reply.toString().c_str_utf8();
        return reply["error"]["code"].asUInt32();
    }
    uint32_t CodeOf(uint8_t cmd, const PObject& request) { return Code(Ask(cmd, request)); }
    // True when the server closed the connection (a read fails rather than times out).
    bool ClosedByPeer() {
        char byte;
        ch.SetTimeout(5);
        return ch.Read(&byte, 1) == -2;
    }

    Channel ch;
    PStream stream;
    int keep_alives = 0;
};
