// tls-daemon-bench: what TLS costs the daemon on a large transfer. For plain TCP and then
// TLS (with the server's pin), a fresh reference server and daemon on loopback: one file of
// N MiB is moved into the sync folder and timed until the server lists it with its MD4
// (upload), then another is stored on the server and timed until it stands complete in the
// folder (download). For each: seconds, MB/s and the daemon's CPU seconds (user + system),
// and at the end TLS against plain.
//
//   tls-daemon-bench [--mib N]      default 256; 1024 for the full measure
//
// Everything lives under TMPDIR (default /tmp) and goes at the end.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>

#include "admin.h"
#include "bench-support.h"
#include "harness/sync-world.h"
#include "server-store.h"
#include "support/files.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kServerTime = 1700000000;

struct Figures {
    double up_s = -1, up_cpu = 0, down_s = -1, down_cpu = 0;
};

bool Linked(SyncWorld& world, bool tls) {
    PObject reply = world.daemon().Ask("link");
    PObject request = world.ConnectionRequest();
    request["use_ssl"] = tls;
    if (tls) request["ssl_pin"] = world.server().pin().c_str();
    return world.daemon().Ask(request, reply) && !reply.hasMember("error") &&
           !world.AddSession(1).hasMember("error") && !world.Resume(1).hasMember("error") &&
           WaitUntil(
               [&] { return world.SessionStatus(1)["status"].asString() == ustring("uptodate"); });
}

// Seconds until `done` holds, and the daemon's CPU seconds meanwhile; -1 on a time-out.
double Timed(SyncWorld& world, const std::function<bool()>& done, double& cpu) {
    const pid_t pid = world.daemon().pid();
    const double cpu0 = CpuSeconds(pid);
    const auto start = Clock::now();
    if (!WaitUntil(done, 1800)) return -1;
    cpu = CpuSeconds(pid) - cpu0;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Figures Measure(bool tls, uint64_t mib, const std::string& scratch) {
    Figures f;
    SyncWorld world;
    if (!world.ok() || !Linked(world, tls)) return f;
    const std::string up = scratch + "/up";
    if (!WriteRandomFile(up, mib << 20, 1)) return f;
    const std::string md4 = Md4OfFile(up);
    fs::rename(up, world.Folder(1) + "/up.bin");
    f.up_s = Timed(
        world,
        [&] {
            Tree tree;
            return world.server().Listing(tree) && tree.count("/up.bin") &&
                   tree["/up.bin"].md4 == md4;
        },
        f.up_cpu);

    ServerStore store;
    const std::string down = scratch + "/down";
    if (!WriteRandomFile(down, mib << 20, 2)) return f;
    ServerObject obj;
    if (store.Open(world.server().data_dir()) != 0 ||
        admin::Put(store, world.server().view_id(), down, "/down.bin", kServerTime, obj) != 0)
        return f;
    const std::string target = world.Folder(1) + "/down.bin";
    const uint64_t size = mib << 20;
    // The file takes its final name only complete and with the server's time.
    f.down_s = Timed(
        world,
        [&] {
            struct stat st {};
            return ::stat(target.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) == size &&
                   st.st_mtime == kServerTime;
        },
        f.down_cpu);
    if (f.down_s >= 0 && Md4OfFile(target) != Md4OfFile(down)) f.down_s = -1;
    return f;
}

void Row(const char* what, double seconds, double cpu, uint64_t bytes) {
    std::printf("%-16s %8.2f s %9.1f MB/s   daemon CPU %6.2f s\n", what, seconds,
                static_cast<double>(bytes) / 1e6 / seconds, cpu);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    uint64_t mib = 256;
    if (argc == 3 && std::strcmp(argv[1], "--mib") == 0 && std::strtoull(argv[2], nullptr, 10) > 0)
        mib = std::strtoull(argv[2], nullptr, 10);
    else if (argc != 1)
        return std::fprintf(stderr, "usage: tls-daemon-bench [--mib N]\n"), 2;
    TempDir scratch;
    const uint64_t bytes = mib << 20;
    const Figures plain = Measure(false, mib, scratch.path());
    const Figures tls = Measure(true, mib, scratch.path());
    if (plain.up_s < 0 || plain.down_s < 0 || tls.up_s < 0 || tls.down_s < 0)
        return std::fprintf(stderr, "tls-daemon-bench: a transfer did not finish\n"), 1;
    std::printf("one file of %llu MiB\n", static_cast<unsigned long long>(mib));
    Row("upload plain", plain.up_s, plain.up_cpu, bytes);
    Row("upload TLS", tls.up_s, tls.up_cpu, bytes);
    Row("download plain", plain.down_s, plain.down_cpu, bytes);
    Row("download TLS", tls.down_s, tls.down_cpu, bytes);
    std::printf("TLS/plain time: upload %.2fx, download %.2fx\n", tls.up_s / plain.up_s,
                tls.down_s / plain.down_s);
    return 0;
}
