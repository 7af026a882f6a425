// admin.h: the server-side changes and listings of the command line ("init", "ls", "put",
// "mkdir", "rm", "mv"). The changes go through the same tree writer as a client's uploads,
// so they get sync ids and show in pulls like another client's work; tests use them to
// change the server's tree without a second daemon. Results: 0, a negative TreeResult, or
// -1 on a failure of the store or of the local file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "server-store.h"

namespace admin {

// What "init" made.
struct InitResult {
    int64_t account_id = 0;
    std::string session;
    uint64_t view_id = 0;
};

// A new account with a new view it may use.
int Init(ServerStore& store, const std::string& account_name, const std::string& view_name,
         InitResult& out);
// The lines a daemon configuration needs to reach this server and view: over TLS, with the
// certificate pinned, when `pin` (the certificate's fingerprint) is given; plain without.
void PrintClientConfig(FILE* out, const std::string& address, int port, const std::string& pin,
                       const InitResult& init);

// A view named by its id or its name. 1 found, 0 not, -1.
int ResolveView(ServerStore& store, const std::string& name_or_id, uint64_t& view_id);

// What a change took off the tree: one file version each, as it stood inside the change's
// own transaction, so a caller racing with clients learns exactly what it replaced.
struct Gone {
    std::string md4;
    std::string path;
};

// Stores a local file at `path` (missing parents are created). Identical content at the
// path changes nothing. `out` is the object afterwards; `gone`, when given, receives the
// version it replaced.
int Put(ServerStore& store, uint64_t view_id, const std::string& local_file,
        const std::string& path, uint32_t mtime, ServerObject& out,
        std::vector<Gone>* gone = nullptr);
// A directory; one that exists already is no error.
int MakeDir(ServerStore& store, uint64_t view_id, const std::string& path, uint32_t mtime,
            ServerObject& out);
// Removes the object and its subtree; `gone`, when given, receives every file version in it.
int Remove(ServerStore& store, uint64_t view_id, const std::string& path,
           std::vector<Gone>* gone = nullptr);
int Move(ServerStore& store, uint64_t view_id, const std::string& from, const std::string& to);

// One line per object within `root`: "d|f sync_id max_id size md4 path".
int List(ServerStore& store, uint64_t view_id, const std::string& root, FILE* out);

}  // namespace admin
