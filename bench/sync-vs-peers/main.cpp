// sync-vs-peers: our daemon with the reference server against rsync with its daemon and
// Unison with its socket server, everything on loopback, on the same data, in one run.
// Each tool in turn gets its own copy of the data and its own servers, then:
//   1. a first sync of N files of 1-8 KB in 100 folders (default 10,000),
//   2. a resync of those files with nothing changed,
//   3. a first sync of one large file (default 1 GiB),
//   4. a 1 MiB in-place edit in its middle,
//   5. a 1-byte insert at its front (ours twice: chunked deltas, then realigned ones),
//   6. ours only: the edit again with realigned deltas.
// The same definitions hold for all: seconds from the start of the sync until the target
// holds everything (ours: the server lists every file with its size and MD4, or for the
// resync the restarted daemon has nothing pending; the peers: the client has ended, the
// target being checked afterwards); wire bytes through a counting relay in front of each
// server, both ways; peak memory the sum of every client and server process's VmHWM
// (sampled from /proc every 20 ms, the client's from wait4). One table at the end, with
// ours over each peer for time, wire and memory.
//
//   sync-vs-peers [--small] [--files N] [--big-mib N] [--only TOOL] [--dir DIR]
//
// --small is 1,000 files and 64 MiB. The peers are installed with scripts/setup when
// missing. Everything lives under DIR (default /dev/shm) and goes at the end, also after a
// failure or Ctrl-C.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench-support.h"
#include "ours.h"
#include "peers.h"
#include "support/files.h"
#include "support/temp-dir.h"

namespace {

namespace fs = std::filesystem;

struct Options {
    uint64_t files = 10000;
    uint64_t big_mib = 1024;
    std::string only;
    std::string dir = fs::exists("/dev/shm") ? "/dev/shm" : "/tmp";
};

bool Parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--small") {
            o.files = 1000;
            o.big_mib = 64;
        } else if (arg == "--files" && has_value) {
            o.files = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--big-mib" && has_value) {
            o.big_mib = std::strtoull(argv[++i], nullptr, 10);
        } else if (arg == "--only" && has_value) {
            o.only = argv[++i];
        } else if (arg == "--dir" && has_value) {
            o.dir = argv[++i];
        } else {
            return false;
        }
    }
    // The edit rewrites 1 MiB in the middle: the file must be larger than 2 MiB.
    return o.files > 0 && o.big_mib > 2;
}

// The data every tool gets a copy of, and what the large file's MD4 is after each change.
struct Data {
    std::string small;
    std::string big;
    Tree small_tree;
    // First, edited, inserted, inserted again, edited again.
    std::vector<TreeEntry> big_states;
};

bool MakeData(const Options& o, const std::string& root, Data& d) {
    d.small = root + "/small";
    d.big = root + "/big.bin";
    std::mt19937 rng(5);
    for (uint64_t i = 0; i < o.files; ++i) {
        char dir[16], name[32];
        std::snprintf(dir, sizeof dir, "/d%02llu", static_cast<unsigned long long>(i % 100));
        std::snprintf(name, sizeof name, "/f%05llu.bin", static_cast<unsigned long long>(i));
        fs::create_directories(d.small + dir);
        const size_t size = 1024 + rng() % (7 * 1024 + 1);
        if (!WriteFile(d.small + dir + name, RandomBytes(size, static_cast<unsigned>(i + 1))))
            return false;
    }
    d.small_tree = LocalTree(d.small);
    if (!WriteRandomFile(d.big, o.big_mib << 20, 1)) return false;
    // The states the targets must reach, made once on a scratch copy.
    const std::string work = root + "/work.bin", staged = root + "/staged.bin";
    std::error_code ec;
    fs::copy_file(d.big, work, ec);
    const auto state = [&] {
        d.big_states.push_back(TreeEntry{false, fs::file_size(work), Md4OfFile(work)});
    };
    state();
    bool ok = !ec && EditMiddle(work, 1);
    state();
    for (int i = 0; i < 2 && ok; ++i) {
        ok = PrepareInsert(work, staged) && MoveOver(staged, work);
        state();
    }
    ok = ok && EditMiddle(work, 2);
    state();
    fs::remove(work, ec);
    return ok;
}

struct Row {
    Case what;
    std::string tool;
    Figures f;
};

const char* CaseName(Case c) {
    switch (c) {
        case Case::kSmallFirst:
            return "small files, first sync";
        case Case::kSmallResync:
            return "small files, no-change resync";
        case Case::kBigFirst:
            return "large file, first sync";
        case Case::kEdit:
            return "large file, 1 MiB in-place edit";
        case Case::kInsert:
            return "large file, 1-byte insert at front";
        case Case::kInsertRealigned:
            return "  the same, ours realigned";
        case Case::kEditRealigned:
            return "  1 MiB edit, ours realigned";
    }
    return "";
}

// Runs every step for `tool` under `root`, appending a row per step; stops the tool at the
// first failure. False when a step failed.
bool RunTool(Tool& tool, const std::string& root, const Data& d, std::vector<Row>& rows) {
    if (!tool.Start(root)) return false;
    const std::string src = tool.Source();
    const std::string file = src + "/big/big.bin", staged = root + "/staged.bin";
    const auto big = [&](size_t state) { return Tree{{"/big.bin", d.big_states[state]}}; };
    std::vector<Step> steps = {
        {Case::kSmallFirst, "small", d.small_tree,
         [&] {
             std::error_code ec;
             fs::create_directories(src + "/big", ec);
             fs::create_directories(src + "/small", ec);
             return CopyTree(d.small, src + "/small");
         }},
        {Case::kSmallResync, "small", d.small_tree, [] { return true; }},
        {Case::kBigFirst, "big", big(0), [&] { return MoveOver(staged, file); }},
        {Case::kEdit, "big", big(1), [&] { return EditMiddle(file, 1); }},
        {Case::kInsert, "big", big(2), [&] { return MoveOver(staged, file); }},
    };
    if (std::string(tool.Name()) == "ours") {
        steps.push_back(
            {Case::kInsertRealigned, "big", big(3), [&] { return MoveOver(staged, file); }});
        steps.push_back({Case::kEditRealigned, "big", big(4), [&] { return EditMiddle(file, 2); }});
    }
    for (const Step& step : steps) {
        // What the user had before the change is made outside the clock.
        std::error_code ec;
        bool staged_ok = true;
        if (step.what == Case::kBigFirst) {
            // An hour old, so that an edit within the same second still shows in the time
            // that rsync's quick check compares.
            staged_ok = fs::copy_file(d.big, staged, ec);
            fs::last_write_time(staged, fs::file_time_type::clock::now() - std::chrono::hours(1),
                                ec);
        } else if (step.what == Case::kInsert || step.what == Case::kInsertRealigned) {
            staged_ok = PrepareInsert(file, staged);
        }
        std::printf("%-8s %s ...\n", tool.Name(), CaseName(step.what));
        const Figures f = staged_ok ? tool.Run(step) : Figures();
        rows.push_back({step.what, tool.Name(), f});
        if (!f.ok || g_interrupted) return false;
    }
    return true;
}

std::string Ratio(double ours, double peer) {
    char text[16];
    if (peer <= 0) return "-";
    std::snprintf(text, sizeof text, "%.2f", ours / peer);
    return text;
}

// For our rows, ours over each peer's figures of the same case: time/wire/memory.
void PrintTable(const std::vector<Row>& rows, const std::vector<std::string>& peers) {
    std::printf("\n%-36s %-7s %9s %14s %9s", "case", "tool", "seconds", "wire bytes", "peak MiB");
    for (const std::string& p : peers) std::printf("   ours/%-6s t/wire/mem", p.c_str());
    std::printf("\n");
    for (const Row& r : rows) {
        if (!r.f.ok) {
            std::printf("%-36s %-7s %9s\n", CaseName(r.what), r.tool.c_str(), "failed");
            continue;
        }
        std::printf("%-36s %-7s %9.2f %14llu %9.1f", CaseName(r.what), r.tool.c_str(), r.f.seconds,
                    static_cast<unsigned long long>(r.f.wire),
                    static_cast<double>(r.f.peak_kib) / 1024.0);
        if (r.tool == "ours") {
            const Case peer_case = r.what == Case::kInsertRealigned ? Case::kInsert
                                   : r.what == Case::kEditRealigned ? Case::kEdit
                                                                    : r.what;
            for (const std::string& p : peers) {
                const Row* peer = nullptr;
                for (const Row& q : rows)
                    if (q.tool == p && q.what == peer_case && q.f.ok) peer = &q;
                std::string cell = "-";
                if (peer != nullptr)
                    cell = Ratio(r.f.seconds, peer->f.seconds) + "/" +
                           Ratio(static_cast<double>(r.f.wire), static_cast<double>(peer->f.wire)) +
                           "/" +
                           Ratio(static_cast<double>(r.f.peak_kib),
                                 static_cast<double>(peer->f.peak_kib));
                std::printf("   %24s", cell.c_str());
            }
        }
        std::printf("\n");
    }
}

std::string LoadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one, five;
    in >> one >> five;
    return one + " " + five;
}

// Installs the peers through the project's set-up script when either is missing.
bool PeersInstalled() {
    if (!FindProgram("rsync").empty() && !FindProgram("unison").empty()) return true;
    std::printf("sync-vs-peers: installing the peers with scripts/setup bench\n");
    const std::string command = std::string(TB_SOURCE_DIR) + "/scripts/setup bench";
    return std::system(command.c_str()) == 0 && !FindProgram("rsync").empty() &&
           !FindProgram("unison").empty();
}

void OnSignal(int) {
    g_interrupted = true;
}

int Bench(const Options& o) {
    ::setenv("TMPDIR", o.dir.c_str(), 1);
    TempDir scratch;
    std::printf(
        "sync-vs-peers: %llu files of 1-8 KB in 100 folders, one file of %llu MiB, "
        "under %s; %ld cores, load %s\n",
        static_cast<unsigned long long>(o.files), static_cast<unsigned long long>(o.big_mib),
        scratch.path().c_str(), ::sysconf(_SC_NPROCESSORS_ONLN), LoadAverage().c_str());
    Data data;
    if (!MakeData(o, scratch / "data", data)) {
        std::fprintf(stderr, "sync-vs-peers: the data could not be written\n");
        return 1;
    }
    std::vector<Row> rows;
    std::vector<std::string> peers;
    bool ok = true;
    for (const char* name : {"ours", "rsync", "unison"}) {
        if (!o.only.empty() && o.only != name) continue;
        std::unique_ptr<Tool> tool;
        if (std::strcmp(name, "ours") == 0) tool = std::make_unique<OurTool>();
        if (std::strcmp(name, "rsync") == 0) tool = std::make_unique<RsyncTool>();
        if (std::strcmp(name, "unison") == 0) tool = std::make_unique<UnisonTool>();
        if (std::strcmp(name, "ours") != 0) peers.push_back(name);
        const std::string root = scratch / name;
        fs::create_directories(root);
        // The harness's folders and the peers' scratch files go under the tool's root.
        ::setenv("TMPDIR", root.c_str(), 1);
        ok = RunTool(*tool, root, data, rows) && ok;
        tool.reset();  // its processes end and its folders go before the next tool starts
        std::error_code ec;
        fs::remove_all(root, ec);
        ::setenv("TMPDIR", scratch.path().c_str(), 1);
        if (g_interrupted) break;
    }
    PrintTable(rows, peers);
    std::printf("load at the end %s\n", LoadAverage().c_str());
    return ok && !g_interrupted ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    if (!Parse(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: sync-vs-peers [--small] [--files N] [--big-mib N] [--only TOOL] "
                     "[--dir DIR]\n");
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    if (!PeersInstalled()) {
        std::fprintf(stderr,
                     "sync-vs-peers: rsync or unison is missing and could not be "
                     "installed\n");
        return 1;
    }
    // The harness throws when it can't make a folder: caught here, so that everything
    // made so far is still removed on the way out.
    try {
        return Bench(o);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "sync-vs-peers: %s\n", e.what());
        return 1;
    }
}
