// upload-bench: how fast local files reach the reference server. A fresh session of the
// real daemon (its own process) against the real server on loopback; the clock runs from
// the moment the files appear in the sync folder until the server lists every one of them
// with the right hash. Two runs: one large file (moved in whole), and many small files of
// 1 to 8 KB written one after another. For each: seconds, MB/s, files/s and the daemon's
// peak memory; then the share of the time the daemon's own hashing and row commits take,
// measured by doing the same work in this process on the same files (the rest is the
// wire, the server and the event handling).
//
//   upload-bench [--file-mib N] [--files N] [--full] [--dir DIR]
//
// Defaults are 64 MiB and 1,000 files; --full is 1024 MiB and 10,000 files. The folders
// go under DIR (default /dev/shm when it exists) and are removed at the end.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench-support.h"
#include "delta/file-reader.h"
#include "harness/sync-world.h"
#include "state/file-event-db.h"
#include "support/files.h"
#include "support/temp-dir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
    uint64_t file_mib = 64;
    int files = 1000;
    std::string dir;
};

// Waits until the server lists each of `paths` with its hash; false after 30 minutes.
bool ServerHolds(SyncWorld& world, const std::vector<std::pair<std::string, std::string>>& want) {
    const auto deadline = Clock::now() + std::chrono::minutes(30);
    size_t next = 0;
    while (Clock::now() < deadline) {
        Tree tree;
        if (world.server().Listing(tree)) {
            while (next < want.size() && tree.count(want[next].first) &&
                   tree[want[next].first].md4 == want[next].second)
                ++next;
            if (next == want.size()) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

// The daemon's reading of a new file: MD4 and signature in one pass.
double HashSeconds(const std::vector<std::string>& files, const std::string& scratch) {
    const auto start = Clock::now();
    for (const std::string& file : files) {
        ustring hash;
        SimpleFileReader reader;
        reader.setFile(file.c_str());
        reader.setHashString(hash);
        reader.setSignature((scratch + "/sig").c_str(), 2048, 8);
        if (reader.readFile() != 0) std::fprintf(stderr, "hash of %s failed\n", file.c_str());
    }
    return SecondsSince(start);
}

// The daemon's commit of one row per file, each moving a signature into the store.
double CommitSeconds(size_t rows, const std::string& scratch) {
    FileEventDB db;
    if (db.initialize((scratch + "/rows.sqlite").c_str()) != 0) return -1;
    const auto start = Clock::now();
    for (size_t i = 0; i < rows; ++i) {
        const std::string sig = scratch + "/sig-" + std::to_string(i);
        WriteFile(sig, "signature");
        ClientFileEventInfo row;
        row.syncID = row.maxSyncID = i + 1;
        row.isExist = 1;
        row.path = ("/f" + std::to_string(i)).c_str();
        row.fileSize = 4096;
        row.fileCheckSum = "0123456789abcdef0123456789abcdef";
        row.signaturePath = sig.c_str();
        db.setEventInfo(row);
    }
    return SecondsSince(start);
}

struct World {
    SyncWorld world{3};
    bool Start() {
        return world.ok() && world.Connect().isNull() && !world.AddSession(1).hasMember("error") &&
               !world.Resume(1).hasMember("error") && WaitUntil([&] {
                   return world.SessionStatus(1)["status"].asString() == ustring("uptodate");
               });
    }
};

void Report(const char* what, double seconds, uint64_t bytes, size_t files, uint64_t peak_kib,
            double hash_s, double commit_s) {
    std::printf("%s: %.2f s, %.1f MB/s, %.0f files/s, daemon peak %llu KiB\n", what, seconds,
                bytes / 1e6 / seconds, files / seconds, static_cast<unsigned long long>(peak_kib));
    std::printf(
        "  hashing %.2f s (%.0f%%), row commits %.2f s (%.0f%%), rest (wire, server, "
        "events) %.0f%%\n",
        hash_s, 100 * hash_s / seconds, commit_s, 100 * commit_s / seconds,
        100 * (seconds - hash_s - commit_s) / seconds);
}

int OneLargeFile(const Options& opt, const std::string& scratch) {
    World w;
    if (!w.Start()) return std::fprintf(stderr, "the daemon or the server did not start\n"), 1;
    const std::string staged = scratch + "/large";
    if (!WriteRandomFile(staged, opt.file_mib << 20, 7))
        return std::fprintf(stderr, "the file could not be written\n"), 1;
    const uint64_t bytes = fs::file_size(staged);
    const std::string md4 = Md4OfFile(staged);
    const auto start = Clock::now();
    fs::rename(staged, w.world.Folder(1) + "/large");
    if (!ServerHolds(w.world, {{"/large", md4}})) return std::fprintf(stderr, "timed out\n"), 1;
    const double seconds = SecondsSince(start);
    const uint64_t peak = PeakKiB(w.world.daemon().pid());
    const double hash_s = HashSeconds({w.world.Folder(1) + "/large"}, scratch);
    Report("one large file", seconds, bytes, 1, peak, hash_s, CommitSeconds(1, scratch));
    return 0;
}

int ManySmallFiles(const Options& opt, const std::string& scratch) {
    World w;
    if (!w.Start()) return std::fprintf(stderr, "the daemon or the server did not start\n"), 1;
    std::mt19937 gen(11);
    std::vector<std::pair<std::string, std::string>> want;
    std::vector<std::string> paths;
    uint64_t bytes = 0;
    const auto start = Clock::now();
    for (int i = 0; i < opt.files; ++i) {
        const std::string name = "/s" + std::to_string(i);
        const std::string content = RandomBytes(1000 + gen() % 7193, gen());
        WriteFile(w.world.Folder(1) + name, content);
        bytes += content.size();
        paths.push_back(w.world.Folder(1) + name);
        want.emplace_back(name, "");
    }
    for (size_t i = 0; i < want.size(); ++i) want[i].second = Md4OfFile(paths[i]);
    if (!ServerHolds(w.world, want)) return std::fprintf(stderr, "timed out\n"), 1;
    const double seconds = SecondsSince(start);
    const uint64_t peak = PeakKiB(w.world.daemon().pid());
    Report("small files", seconds, bytes, want.size(), peak, HashSeconds(paths, scratch),
           CommitSeconds(want.size(), scratch));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--file-mib" && i + 1 < argc) {
            opt.file_mib = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--files" && i + 1 < argc) {
            opt.files = std::atoi(argv[++i]);
        } else if (arg == "--full") {
            opt.file_mib = 1024;
            opt.files = 10000;
        } else if (arg == "--dir" && i + 1 < argc) {
            opt.dir = argv[++i];
        } else {
            std::fprintf(stderr,
                         "usage: upload-bench [--file-mib N] [--files N] [--full] "
                         "[--dir DIR]\n");
            return 2;
        }
    }
    if (opt.dir.empty()) opt.dir = fs::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    ::setenv("TMPDIR", opt.dir.c_str(), 1);  // the harness's folders go there too
    TempDir scratch;
    std::printf("upload-bench: %llu MiB file, %d files of 1-8 KB, under %s\n",
                static_cast<unsigned long long>(opt.file_mib), opt.files, opt.dir.c_str());
    int rc = OneLargeFile(opt, scratch.path());
    if (rc == 0) rc = ManySmallFiles(opt, scratch.path());
    return rc;
}
