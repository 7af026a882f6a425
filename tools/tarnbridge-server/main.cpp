// main.cpp: the tarnbridge-server command line.
//   tarnbridge-server --data DIR [--port P] [--listen ADDR] [--alive S] [--faults FILE]
//                     [--keepalive S] [--versions N] [--legacy-2402] [--no-tls] [--stats] [--trace]
//   tarnbridge-server init --data DIR [--view NAME] [--account NAME] [--port P] [--listen ADDR]
//                          [--no-tls]
//   tarnbridge-server ls --data DIR [VIEW [PATH]]
//   tarnbridge-server put --data DIR VIEW LOCAL_FILE PATH [--mtime T]
//   tarnbridge-server mkdir|rm --data DIR VIEW PATH
//   tarnbridge-server mv --data DIR VIEW FROM TO
#include <signal.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "admin.h"
#include "foundation/log.h"
#include "server-certificate.h"
#include "server-options.h"
#include "server-path.h"
#include "server.h"
#include "state/sqlite-db.h"
#include "tree-writer.h"

namespace {

const char* const kUsage =
    "usage: tarnbridge-server --data DIR [--port P] [--listen ADDR] [--alive SECONDS]\n"
    "                         [--faults FILE] [--keepalive SECONDS] [--versions N] "
    "[--legacy-2402] [--no-tls] [--stats] [--trace]\n"
    "       tarnbridge-server init --data DIR [--view NAME] [--account NAME] [--port P] "
    "[--listen ADDR] [--no-tls]\n"
    "       tarnbridge-server ls --data DIR [VIEW [PATH]]\n"
    "       tarnbridge-server put --data DIR VIEW LOCAL_FILE PATH [--mtime SECONDS]\n"
    "       tarnbridge-server mkdir --data DIR VIEW PATH\n"
    "       tarnbridge-server rm --data DIR VIEW PATH\n"
    "       tarnbridge-server mv --data DIR VIEW FROM TO\n";

struct Args {
    ServerOptions options;
    std::string view_name = "home";
    std::string account_name = "user";
    uint32_t mtime = static_cast<uint32_t>(std::time(nullptr));
    bool stats = false;
    std::vector<std::string> positional;
};

bool ParseUnsigned(const char* text, unsigned long long max, unsigned long long& out) {
    char* end = nullptr;
    out = std::strtoull(text, &end, 10);
    return *text != '\0' && *text != '-' && end && *end == '\0' && out <= max;
}

// 0, or 2 after printing what was wrong.
int ParseArgs(int argc, char** argv, int first, Args& args) {
    for (int i = first; i < argc; ++i) {
        std::string a = argv[i];
        bool has_value = i + 1 < argc;
        unsigned long long n = 0;
        if (a == "--legacy-2402") {
            args.options.legacy_2402 = true;
        } else if (a == "--no-tls") {
            args.options.tls = false;
        } else if (a == "--stats") {
            args.stats = true;
        } else if (a == "--trace") {
            args.options.trace_payloads = true;
        } else if (a == "--data" && has_value) {
            args.options.data_dir = argv[++i];
        } else if (a == "--listen" && has_value) {
            args.options.listen = argv[++i];
        } else if (a == "--faults" && has_value) {
            args.options.faults_path = argv[++i];
        } else if (a == "--view" && has_value) {
            args.view_name = argv[++i];
        } else if (a == "--account" && has_value) {
            args.account_name = argv[++i];
        } else if (a == "--port" && has_value && ParseUnsigned(argv[i + 1], 65535, n)) {
            args.options.port = static_cast<int>(n);
            ++i;
        } else if (a == "--alive" && has_value && ParseUnsigned(argv[i + 1], 86400, n) && n > 0) {
            args.options.alive = static_cast<uint32_t>(n);
            ++i;
        } else if (a == "--keepalive" && has_value && ParseUnsigned(argv[i + 1], 3600, n) &&
                   n > 0) {
            args.options.keepalive_seconds = static_cast<uint32_t>(n);
            ++i;
        } else if (a == "--versions" && has_value && ParseUnsigned(argv[i + 1], 1000, n) && n > 0) {
            args.options.versions_kept = static_cast<size_t>(n);
            ++i;
        } else if (a == "--mtime" && has_value && ParseUnsigned(argv[i + 1], UINT32_MAX, n)) {
            args.mtime = static_cast<uint32_t>(n);
            ++i;
        } else if (a.size() > 1 && a[0] == '-') {
            std::fprintf(stderr, "tarnbridge-server: bad option or value: %s\n%s", a.c_str(),
                         kUsage);
            return 2;
        } else {
            args.positional.push_back(a);
        }
    }
    if (args.options.data_dir.empty()) {
        std::fprintf(stderr, "tarnbridge-server: --data DIR is required\n%s", kUsage);
        return 2;
    }
    return 0;
}

const char* TreeError(int rc) {
    switch (rc) {
        case TREE_CLASH:
            return "a file stands where a directory is needed, or the reverse";
        case TREE_NOENT:
            return "no such path";
        case TREE_EXISTS:
            return "the target exists";
        default:
            return "the store failed (see the log)";
    }
}

// What the server did to the disk, for benchmarks: one line on standard output.
void PrintStats(const CommitQueue::Stats& s) {
    uint64_t content = ContentStore::flushes();
    double per_change =
        s.changes ? static_cast<double>(s.log_flushes + content) / static_cast<double>(s.changes)
                  : 0.0;
    std::printf("tarnbridge-server stats: %" PRIu64 " changes in %" PRIu64 " batches, %" PRIu64
                " log flushes, %" PRIu64 " content flushes, %.3f flushes per change\n",
                s.changes, s.batches, s.log_flushes, content, per_change);
    std::fflush(stdout);
}

volatile sig_atomic_t g_signalled = 0;

void OnSignal(int) {
    g_signalled = 1;
}

int RunServer(const Args& args) {
    Server server(args.options);
    if (server.Start() < 0) {
        std::fprintf(stderr, "tarnbridge-server: cannot start (data %s, %s:%d)\n",
                     args.options.data_dir.c_str(), args.options.listen.c_str(), args.options.port);
        return 1;
    }
    std::printf("tarnbridge-server listening on %s port %d\n", args.options.listen.c_str(),
                server.port());
    std::fflush(stdout);
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    while (!g_signalled) {
        struct timespec t {
            0, 100 * 1000 * 1000
        };
        nanosleep(&t, nullptr);
    }
    server.Stop();
    if (args.stats) PrintStats(server.CommitStats());
    return 0;
}

int RunAdmin(const std::string& command, Args& args) {
    ServerStore store;
    if (store.Open(args.options.data_dir, args.options.versions_kept) < 0) {
        std::fprintf(stderr, "tarnbridge-server: cannot open %s\n", args.options.data_dir.c_str());
        return 1;
    }
    const std::vector<std::string>& p = args.positional;
    if (command == "init") {
        admin::InitResult init;
        std::string pin;
        if (server_certificate::Ensure(args.options.data_dir, args.options.listen, pin) < 0 ||
            admin::Init(store, args.account_name, args.view_name, init) < 0)
            return 1;
        std::printf("# tarnbridge-server: account %" PRId64 ", view %" PRIu64 " (%s)\n",
                    init.account_id, init.view_id, args.view_name.c_str());
        admin::PrintClientConfig(stdout, args.options.listen, args.options.port,
                                 args.options.tls ? pin : std::string(), init);
        return 0;
    }
    if (command == "ls" && p.empty()) {
        std::vector<std::pair<uint64_t, std::string>> views;
        if (store.ListViews(views) < 0) return 1;
        for (const auto& v : views) std::printf("%" PRIu64 " %s\n", v.first, v.second.c_str());
        return 0;
    }
    uint64_t view = 0;
    if (p.empty() || admin::ResolveView(store, p[0], view) != 1) {
        std::fprintf(stderr, "tarnbridge-server: no such view: %s\n",
                     p.empty() ? "" : p[0].c_str());
        return 1;
    }
    int rc = -1;
    ServerObject obj;
    std::vector<admin::Gone> gone;
    if (command == "ls" && p.size() <= 2) {
        std::string root = "/";
        if (p.size() == 2 && !server_path::Normalize(p[1], root)) return 1;
        std::printf("# view %" PRIu64 ", last sync id %" PRId64 "\n", view, store.LastSyncId(view));
        return admin::List(store, view, root, stdout) < 0 ? 1 : 0;
    } else if (command == "put" && p.size() == 3) {
        rc = admin::Put(store, view, p[1], p[2], args.mtime, obj, &gone);
    } else if (command == "mkdir" && p.size() == 2) {
        rc = admin::MakeDir(store, view, p[1], args.mtime, obj);
    } else if (command == "rm" && p.size() == 2) {
        rc = admin::Remove(store, view, p[1], &gone);
    } else if (command == "mv" && p.size() == 3) {
        rc = admin::Move(store, view, p[1], p[2]);
    } else {
        std::fprintf(stderr, "%s", kUsage);
        return 2;
    }
    if (rc < 0) {
        std::fprintf(stderr, "tarnbridge-server %s: %s\n", command.c_str(), TreeError(rc));
        return 1;
    }
    for (const admin::Gone& g : gone) std::printf("gone %s %s\n", g.md4.c_str(), g.path.c_str());
    std::printf("ok, last sync id %" PRId64 "\n", store.LastSyncId(view));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Before any connection opens: the accounting takes a global lock on every allocation.
    sqlite::DisableMemoryStatistics();
    Logger::Initialize(Logger::STDERR_LOGGER, "", "", 0);
    static const char* const kCommands[] = {"init", "ls", "put", "mkdir", "rm", "mv"};
    std::string command;
    int first = 1;
    if (argc > 1) {
        for (const char* c : kCommands) {
            if (std::strcmp(argv[1], c) == 0) command = c;
        }
        if (!command.empty()) first = 2;
    }
    Args args;
    int rc = ParseArgs(argc, argv, first, args);
    if (rc != 0) return rc;
    if (command.empty()) {
        if (!args.positional.empty()) {
            std::fprintf(stderr, "%s", kUsage);
            return 2;
        }
        return RunServer(args);
    }
    return RunAdmin(command, args);
}
