// syncer-pull: what a pull of many server changes costs the daemon. A reference server (the
// real executable, in its own process) holds a view with N changes made as another client
// would make them (folders of 100 files); one session starts from sync id 0, and the Syncer
// pulls, pushes every record into the event manager (status rows and "syncing" notices
// included) while a stand-in worker retires the events at once, until the new sync id is
// stored. Prints the seconds of that pull and the daemon process's peak memory.
//
//   syncer-pull [--changes N] [--dir DIR]
//
// The server's data goes to a fresh folder under DIR (default /dev/shm when it exists, so
// the disk's write-back doesn't decide the figures) and is removed at the end.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "admin.h"
#include "bench-support.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "pulling/syncer.h"
#include "runtime/registry.h"
#include "server-store.h"
#include "state/file-event-db.h"
#include "state/file-status-db.h"
#include "support/process.h"
#include "transport/connection-pool.h"

namespace {

struct Options {
    int changes = 10000;
    std::string dir;
};

// Fills the server's data folder in a child process, so that the store's memory never
// counts as the daemon's. Writes "session view_id last_sync_id" to `out`.
int Populate(const std::string& data, int changes, const std::string& out) {
    const pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        ServerStore store;
        admin::InitResult user;
        if (store.Open(data) < 0 || admin::Init(store, "bench", "home", user) < 0) ::_exit(1);
        const std::string local = data + "/../local";
        ServerObject obj;
        uint64_t last = 0;
        for (int i = 0; i < changes; ++i) {
            const std::string folder = "/d" + std::to_string(i / 101);
            int rc;
            if (i % 101 == 0) {
                rc = admin::MakeDir(store, user.view_id, folder, 1000, obj);
            } else {
                std::ofstream(local, std::ios::trunc) << "contents of file " << i << "\n";
                rc = admin::Put(store, user.view_id, local, folder + "/f" + std::to_string(i), 1000,
                                obj);
            }
            if (rc < 0) ::_exit(1);
            last = obj.sync_id;
        }
        std::ofstream(out) << user.session << " " << user.view_id << " " << last << "\n";
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

// The port the server announces on its first line, 0 when it didn't start.
int ServerPort(ChildProcess& server) {
    int port = 0;
    if (server.WaitForOutput(" port ", 10))
        std::sscanf(server.Out().c_str(), "%*[^0-9]%*d.%*d.%*d.%*d port %d", &port);
    return port;
}

// Retires every event as soon as it is handed out.
class RetiringWorker : public Task {
  public:
    void DoTask() override {
        EventManager& events = EventManager::getInstance();
        Event e;
        while (GetState() == RUN) {
            if (events.PullEvent(this, e) != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            while (events.DoneEvent(this, e) < 0) {
            }
        }
    }
};

bool ParseArgs(int argc, char** argv, Options& opt) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--changes" && i + 1 < argc)
            opt.changes = std::atoi(argv[++i]);
        else if (arg == "--dir" && i + 1 < argc)
            opt.dir = argv[++i];
        else
            return false;
    }
    if (opt.dir.empty()) opt.dir = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    return opt.changes > 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!ParseArgs(argc, argv, opt)) {
        std::fprintf(stderr, "usage: syncer-pull [--changes N] [--dir DIR]\n");
        return 2;
    }
    std::string root = opt.dir + "/syncer-pull-XXXXXX";
    if (::mkdtemp(root.data()) == nullptr) return 1;
    const std::string data = root + "/data";
    std::printf("populating %d server changes...\n", opt.changes);
    if (Populate(data, opt.changes, root + "/user") < 0) {
        std::fprintf(stderr, "could not populate the server\n");
        return 1;
    }
    std::string session;
    uint64_t view_id = 0, last = 0;
    std::ifstream(root + "/user") >> session >> view_id >> last;
    ChildProcess server({kServerBinary, "--data", data, "--port", "0"},
                        {{}, root + "/server.out", root + "/server.log"});
    const int port = ServerPort(server);

    Logger::Initialize(Logger::FILE_LOGGER, (root + "/daemon.log").c_str(), "", 2);
    FileStatusDB::initialize((root + "/fstat.sqlite").c_str());
    std::ofstream(root + "/daemon.conf") << "ui_port = 1\n";  // nobody listens
    Settings::getInstance().loadConfigSettings((root + "/daemon.conf").c_str());
    ::mkdir((root + "/sync").c_str(), 0700);
    FileEventDB db;
    db.initialize((root + "/event-db.sqlite").c_str());
    Registry::Entry entry;
    entry.sess_id = 1;
    entry.view_id = view_id;
    entry.remote_path = "/";
    entry.recursive = true;
    entry.local_path = (root + "/sync").c_str();
    entry.event_db = &db;
    Registry::getInstance().Set(entry);
    ConnectionInfo info;
    info.server_ip = "127.0.0.1";
    info.server_port = port;
    info.session = session.c_str();
    info.use_ssl = false;
    ConnectionPool pool(info, ProxyInfo(), TunnelInfo(), 3);
    g_pool = &pool;

    RetiringWorker worker;
    worker.Run();
    Syncer syncer;
    syncer.SetState(Task::RUN);
    const uint64_t before_kib = PeakKiB();
    const auto t0 = std::chrono::steady_clock::now();
    uint64_t stored = 0;
    int rounds = 0, rc = 0;
    while (port != 0 && stored != last && rc == 0 && rounds < 100) {
        syncer.UpdateContext();
        rc = syncer.PullEvent();
        ++rounds;
        db.getSyncId(stored);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    syncer.Stop();
    worker.Stop();
    worker.Join();

    const bool ok = stored == last && rc == 0;
    std::printf("changes %d, rounds %d, stored sync id %llu of %llu: %s\n", opt.changes, rounds,
                static_cast<unsigned long long>(stored), static_cast<unsigned long long>(last),
                ok ? "ok" : "FAILED");
    std::printf("pull: %.2f s (%.0f changes/s), peak memory %llu KiB (%llu KiB before the pull)\n",
                seconds, opt.changes / seconds, static_cast<unsigned long long>(PeakKiB()),
                static_cast<unsigned long long>(before_kib));

    g_pool = nullptr;
    EventManager::getInstance().Clear();
    Registry::getInstance().Remove(1);
    db.destroy();
    FileStatusDB::destroy();
    Logger::Destroy();
    server.Kill(SIGTERM);
    std::filesystem::remove_all(root);
    return ok ? 0 : 1;
}
