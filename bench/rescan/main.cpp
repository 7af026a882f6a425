// rescan-bench: what a rescan of an already synchronised folder costs. A tree of files in
// folders is made on disk and the session database is filled to agree with it, but for a
// share of the files whose recorded size is off by one (as if edited since); then a
// worker rescans the root as the daemon's does on start, in this process, with the
// log at its default level. Prints the seconds of the rescan, the events it queued and
// the peak resident memory (VmHWM) of the process before and during it (the peak is
// reset just before the rescan).
//
//   rescan-bench [--files N] [--dirs N] [--changed PERCENT]    defaults 10000, 1000, 0
//
// Everything lives under TMPDIR (default /tmp) and goes at the end.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench-support.h"
#include "events/event-manager.h"
#include "foundation/log.h"
#include "foundation/settings.h"
#include "runtime/registry.h"
#include "state/file-event-db.h"
#include "state/file-status-db.h"
#include "worker/worker.h"

namespace {

namespace fs = std::filesystem;

struct Options {
    uint64_t files = 10000;
    uint64_t dirs = 1000;
    uint64_t changed_percent = 0;
};

bool Parse(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const uint64_t n = std::strtoull(argv[i + 1], nullptr, 10);
        if (std::strcmp(argv[i], "--files") == 0 && n > 0)
            o.files = n;
        else if (std::strcmp(argv[i], "--dirs") == 0 && n > 0)
            o.dirs = n;
        else if (std::strcmp(argv[i], "--changed") == 0 && n <= 100)
            o.changed_percent = n;
        else
            return false;
    }
    return argc % 2 == 1;
}

// The tree on disk and the rows that agree with it, every `every`-th file recorded with a
// size one byte off. False on any failure.
bool MakeSyncedTree(const std::string& root, const std::string& db_path, const Options& o) {
    sqlite3* db = nullptr;
    if (sqlite3_open(db_path.c_str(), &db) != SQLITE_OK) return false;
    sqlite3_stmt* insert = nullptr;
    bool ok = sqlite3_exec(db, "BEGIN;", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db,
                                 "INSERT INTO eventinfo (fileType, isExist, syncID, maxSyncID, "
                                 "fileSize, fileModTime, fileCheckSum, baseName, path, "
                                 "updateClient) VALUES (?, 1, 1, 1, ?, ?, '', ?, ?, '');",
                                 -1, &insert, nullptr) == SQLITE_OK;
    const uint64_t every = o.changed_percent == 0 ? 0 : 100 / o.changed_percent;
    auto row = [&](bool dir, uint64_t size, const std::string& name, const std::string& path) {
        struct stat st {};
        if (!ok || ::stat((root + "/" + path).c_str(), &st) != 0) return false;
        sqlite3_bind_int(insert, 1, dir ? 1 : 0);
        sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(size));
        sqlite3_bind_int64(insert, 3, st.st_mtime);
        sqlite3_bind_text(insert, 4, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(insert, 5, path.c_str(), -1, SQLITE_TRANSIENT);
        const bool done = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
        return done;
    };
    const std::string bytes(16, 'x');
    for (uint64_t i = 0; ok && i < o.files; ++i) {
        const std::string dir = "d" + std::to_string(i % o.dirs);
        if (i < o.dirs) ok = fs::create_directory(root + "/" + dir) && row(true, 0, dir, dir);
        const std::string name = "f" + std::to_string(i) + ".txt";
        const std::string path = dir + "/" + name;
        std::ofstream(root + "/" + path) << bytes;
        const bool changed = every != 0 && i % every == 0;
        ok = ok && row(false, bytes.size() + (changed ? 1 : 0), name, path);
    }
    ok = ok && sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_finalize(insert);
    sqlite3_close(db);
    return ok;
}

class BenchWorker : public Worker {
  public:
    using Worker::context;
};

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!Parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: rescan-bench [--files N] [--dirs N] [--changed PERCENT]\n");
        return 2;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string base = std::string(tmp != nullptr ? tmp : "/tmp") + "/rescan-bench-XXXXXX";
    if (::mkdtemp(base.data()) == nullptr) return 1;
    const std::string root = base + "/sync";
    fs::create_directories(root + "/.ZephanorWorkingDirectory");
    Logger::Initialize(Logger::FILE_LOGGER, (base + "/log").c_str(), "", 2);
    FileStatusDB::initialize((base + "/fstat.sqlite").c_str());
    std::ofstream(base + "/conf") << "ui_port = 1\n";  // nobody listens: notices are refused
    Settings::getInstance().loadConfigSettings((base + "/conf").c_str());

    int rc = 1;
    {
        FileEventDB db;
        const auto made = std::chrono::steady_clock::now();
        if (db.initialize((base + "/event-db.sqlite").c_str()) == 0 &&
            MakeSyncedTree(root, base + "/event-db.sqlite", o)) {
            const double setup =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - made).count();
            Registry::Entry entry;
            entry.sess_id = 1;
            entry.local_path = root.c_str();
            entry.config_path = base.c_str();
            entry.event_db = &db;
            Registry::getInstance().Set(entry);
            BenchWorker w;
            Event e;
            e.m_type = Event::EV_CREATE;
            e.m_path = "/";
            e.m_sess_id = 1;
            e.m_mode = Event::F_DIR | Event::F_EXPAND | Event::F_RESCAN;
            w.context.current_event = e;
            const uint64_t before = PeakKiB();
            ResetPeak();
            const auto start = std::chrono::steady_clock::now();
            if (w.UpdateContext() == 0 && w.Rescan() == 0) {
                const double seconds =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
                std::printf(
                    "files %llu dirs %llu changed %llu%%: rescan %.3f s, %d events queued, "
                    "peak RSS %.1f MiB (%.1f MiB before; setup %.1f s)\n",
                    static_cast<unsigned long long>(o.files),
                    static_cast<unsigned long long>(o.dirs),
                    static_cast<unsigned long long>(o.changed_percent), seconds,
                    EventManager::getInstance().GetAllPendingEventCount(1), PeakKiB() / 1024.0,
                    before / 1024.0, setup);
                rc = 0;
            }
            EventManager::getInstance().Clear();
            Registry::getInstance().Remove(1);
        }
    }
    FileStatusDB::destroy();
    Logger::Destroy();
    fs::remove_all(base);
    return rc;
}
