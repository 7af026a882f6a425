// download-bench: what bringing server content down costs the daemon. A reference server and
// a daemon run as processes (the end-to-end harness); the server's view is filled beside the
// running server, then a session is resumed on an empty folder and timed until every file
// stands on disk complete. Three figures: one large file, many small files of 1 to 8 KiB,
// and a 1 MiB in-place edit of the large file, which must come down as a small delta. For
// each: seconds, MB/s, files/s, and the daemon's peak resident memory (VmHWM).
//
//   download-bench [--big-mib N] [--files N]      defaults 64 and 1000; 1024 and 10000 for
//                                                 the full measure
//
// Everything lives under TMPDIR (default /tmp) and goes at the end.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>

#include "admin.h"
#include "bench-support.h"
#include "foundation/file-op.h"
#include "harness/sync-world.h"
#include "server-store.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
    uint64_t big_mib = 64;
    uint64_t files = 1000;
};

bool Parse(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const uint64_t n = std::strtoull(argv[i + 1], nullptr, 10);
        // The edit rewrites 1 MiB in the middle: the file must be larger than 2 MiB.
        if (std::strcmp(argv[i], "--big-mib") == 0 && n > 2)
            o.big_mib = n;
        else if (std::strcmp(argv[i], "--files") == 0 && n > 0)
            o.files = n;
        else
            return false;
    }
    return argc % 2 == 1;
}

// Rewrites 1 MiB in the middle of the file at `path` with other random bytes.
void EditMiddle(const std::string& path, uint64_t size) {
    std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(size / 2));
    const std::string bytes = RandomBytes(1 << 20, 99);
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

constexpr uint32_t kFirstTime = 1700000000;
constexpr uint32_t kEditTime = 1700000100;

bool Store(ServerStore& store, uint64_t view, const std::string& local, const std::string& path,
           uint32_t mtime = kFirstTime) {
    ServerObject obj;
    return admin::Put(store, view, local, path, mtime, obj) == 0;
}

// A file appears under its final name only complete, with the server's time: looking at
// names, sizes and times is enough to see a download done, and cheap enough to poll.
bool Stands(const std::string& path, uint64_t size, uint32_t mtime) {
    std::error_code ec;
    if (fs::file_size(path, ec) != size || ec) return false;
    FILE_INFO info;
    return FSStat(path.c_str(), info) == 0 && info.mtime == mtime;
}

// The files at the top level of `root`.
size_t CountFiles(const std::string& root) {
    size_t n = 0;
    std::error_code ec;
    for (auto it = fs::directory_iterator(root, ec); !ec && it != fs::end(it); it.increment(ec))
        n += it->is_regular_file() ? 1 : 0;
    return n;
}

// Seconds until `done` holds and the folder then matches the server's tree (checked once,
// untimed); negative on a time-out or a mismatch.
double TimeUntil(SyncWorld& world, const std::function<bool()>& done) {
    const auto start = Clock::now();
    if (!WaitUntil(done, 900)) return -1;
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const std::string diff = world.CompareTrees(1);
    if (!diff.empty()) std::fprintf(stderr, "download-bench: trees differ:\n%s", diff.c_str());
    return diff.empty() ? seconds : -1;
}

void Report(const char* what, double seconds, uint64_t bytes, uint64_t files, pid_t daemon) {
    std::printf("%-34s %8.2f s %9.1f MB/s %9.1f files/s  peak %6.1f MiB\n", what, seconds,
                static_cast<double>(bytes) / 1e6 / seconds, static_cast<double>(files) / seconds,
                static_cast<double>(PeakKiB(daemon)) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    if (!Parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: download-bench [--big-mib N] [--files N]\n");
        return 2;
    }
    SyncWorld world;
    if (!world.ok() || !world.Connect().isNull()) {
        std::fprintf(stderr, "download-bench: server or daemon did not start\n");
        return 1;
    }
    ServerStore store;
    if (store.Open(world.server().data_dir()) != 0) return 1;
    const uint64_t view = world.server().view_id();
    TempDir scratch;
    const std::string big = scratch / "big";
    const uint64_t big_size = o.big_mib << 20;
    if (!WriteRandomFile(big, big_size, 1) || !Store(store, view, big, "/big.bin")) return 1;

    // 1: one large file into an empty session.
    world.AddSession(1);
    world.Resume(1);
    const std::string folder = world.Folder(1);
    double s = TimeUntil(world, [&] { return Stands(folder + "/big.bin", big_size, kFirstTime); });
    if (s < 0) return 1;
    Report(("one file of " + std::to_string(o.big_mib) + " MiB").c_str(), s, big_size, 1,
           world.daemon().pid());

    // 2: many small files. They stand at the top level: every download also shows up as a
    // local change, and until uploads retire those, a folder's would hold up what is in it.
    uint64_t small_bytes = 0;
    std::mt19937 rng(5);
    for (uint64_t i = 0; i < o.files; ++i) {
        const size_t size = 1024 + rng() % (7 * 1024 + 1);
        small_bytes += size;
        const std::string local = scratch / "small";
        WriteFile(local, RandomBytes(size, static_cast<unsigned>(i + 10)));
        if (!Store(store, view, local, "/small-" + std::to_string(i) + ".bin")) return 1;
    }
    s = TimeUntil(world, [&] { return CountFiles(folder) == o.files + 1; });
    if (s < 0) return 1;
    Report((std::to_string(o.files) + " files of 1-8 KiB").c_str(), s, small_bytes, o.files,
           world.daemon().pid());

    // 3: a 1 MiB edit in place of the large file.
    EditMiddle(big, big_size);
    if (!Store(store, view, big, "/big.bin", kEditTime)) return 1;
    s = TimeUntil(world, [&] { return Stands(folder + "/big.bin", big_size, kEditTime); });
    if (s < 0) return 1;
    const auto payloads = world.server().Payloads("/big.bin");
    const ServerProcess::Payload last =
        payloads.empty() ? ServerProcess::Payload() : payloads.back();
    Report("1 MiB edit of the large file", s, big_size, 1, world.daemon().pid());
    std::printf("  came down as %s of %.2f MB (limit 2 MB)\n", last.delta ? "a delta" : "whole",
                static_cast<double>(last.bytes) / 1e6);
    return last.delta && last.bytes < 2000000 ? 0 : 1;
}
