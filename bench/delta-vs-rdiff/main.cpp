// delta-vs-rdiff: times tarnbridge-delta against rdiff (original rolling sum, MD4, blocks of
// 2048, 8-byte strong sums) on a large file and an edited copy, in one run, and prints for
// each operation the seconds, the throughput, the peak memory and the ratios. Deltas are
// made in both modes, the default (chunked) one and the realigned one (--realign), and the
// realigned delta's size is compared with rdiff's. It also times the daemon's one-pass read
// (MD4 and signature together) against OpenSSL's MD4 alone.
//
//   delta-vs-rdiff [--size MIB] [--dir DIR] [--reps N]
//
// Files go to a fresh folder under DIR (default /dev/shm when it exists, so the disk's
// write-back doesn't decide the figures) and are removed at the end. Each timing is the best
// of N runs (default 3); the peak memory is the largest of them.
#ifndef OPENSSL_SUPPRESS_DEPRECATED
#define OPENSSL_SUPPRESS_DEPRECATED
#endif
#include <openssl/md4.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "delta/file-reader.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    size_t size = 256u << 20;
    std::string dir;
    int reps = 3;
};

struct Measure {
    double seconds = 0;
    long peak_kib = 0;
    bool ok = true;
};

// Deterministic pseudo-random bytes, fast enough not to dominate the set-up.
class Random {
  public:
    explicit Random(uint64_t seed) : m_state(seed) {}
    uint64_t next() {
        uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint64_t below(uint64_t n) { return next() % n; }
    void fill(char* p, size_t n) {
        for (size_t i = 0; i < n; i += 8) {
            uint64_t v = next();
            std::memcpy(p + i, &v, std::min<size_t>(8, n - i));
        }
    }

  private:
    uint64_t m_state;
};

std::string randomBytes(Random& rng, size_t n) {
    std::string s(n, '\0');
    rng.fill(s.data(), n);
    return s;
}

// 200 scattered edits: inserts and deletes of up to 3000 bytes, overwrites of 1000.
std::string edited(const std::string& old, Random& rng) {
    std::vector<size_t> at(200);
    for (auto& p : at) p = rng.below(old.size());
    std::sort(at.begin(), at.end());
    std::string out;
    out.reserve(old.size() + 400000);
    size_t pos = 0;
    for (size_t p : at) {
        if (p < pos) continue;
        out.append(old, pos, p - pos);
        pos = p;
        switch (rng.below(3)) {
            case 0:
                out += randomBytes(rng, 1 + rng.below(3000));
                break;
            case 1:
                pos = std::min(old.size(), pos + 1 + rng.below(3000));
                break;
            default: {
                size_t n = std::min<size_t>(1000, old.size() - pos);
                out += randomBytes(rng, n);
                pos += n;
            }
        }
    }
    out.append(old, pos, std::string::npos);
    return out;
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint64_t fileSize(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// A child's peak memory as wait4 reports it includes whatever its parent had resident when it
// forked, so commands are started by a fresh, small exec of this program (launch mode), which
// forks them and passes their figures back through a pipe.
int launch(int argc, char** argv) {
    int out = std::atoi(argv[2]);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execvp(argv[3], argv + 3);
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    dprintf(out, "%ld %d\n", usage.ru_maxrss, ok ? 1 : 0);
    (void)argc;
    return 0;
}

Measure runOnce(const std::vector<std::string>& args) {
    int fds[2];
    if (::pipe(fds) != 0) return Measure{0, 0, false};
    std::string fd = std::to_string(fds[1]);
    std::vector<char*> argv = {const_cast<char*>("delta-vs-rdiff"), const_cast<char*>("--launch"),
                               fd.data()};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    auto start = Clock::now();
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    char report[64] = {};
    ssize_t got = ::read(fds[0], report, sizeof report - 1);
    ::close(fds[0]);
    ::waitpid(pid, nullptr, 0);
    Measure m;
    m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    int ok = 0;
    m.ok = got > 0 && std::sscanf(report, "%ld %d", &m.peak_kib, &ok) == 2 && ok == 1;
    return m;
}

// Best time and largest peak over the repetitions; `before` runs ahead of each (removing
// the previous output, so both tools always create a new file).
Measure best(int reps, const std::function<void()>& before, const std::vector<std::string>& args) {
    Measure result{1e30, 0, true};
    for (int i = 0; i < reps; ++i) {
        before();
        Measure m = runOnce(args);
        result.seconds = std::min(result.seconds, m.seconds);
        result.peak_kib = std::max(result.peak_kib, m.peak_kib);
        result.ok = result.ok && m.ok;
    }
    return result;
}

Measure bestInProcess(int reps, const std::function<bool()>& work) {
    Measure result{1e30, 0, true};
    for (int i = 0; i < reps; ++i) {
        auto start = Clock::now();
        result.ok = work() && result.ok;
        result.seconds =
            std::min(result.seconds, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return result;
}

double mbps(uint64_t bytes, double seconds) {
    return bytes / 1e6 / seconds;
}

void printHeader() {
    std::printf("%-34s %8s %8s %9s | %8s %8s %9s | %7s %7s  %s\n", "operation", "ours s", "MB/s",
                "peak MiB", "rdiff s", "MB/s", "peak MiB", "speed", "memory", "target");
}

void printRow(const char* name, uint64_t bytes, const Measure& ours, const Measure& theirs,
              const char* target) {
    std::printf("%-34s %8.3f %8.1f %9.1f | %8.3f %8.1f %9.1f | %6.2fx %6.2fx  %s%s\n", name,
                ours.seconds, mbps(bytes, ours.seconds), ours.peak_kib / 1024.0, theirs.seconds,
                mbps(bytes, theirs.seconds), theirs.peak_kib / 1024.0,
                theirs.seconds / ours.seconds,
                static_cast<double>(ours.peak_kib) / static_cast<double>(theirs.peak_kib), target,
                ours.ok && theirs.ok ? "" : "  (A RUN FAILED)");
}

bool md4Alone(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    std::vector<unsigned char> buf(1 << 20);
    MD4_CTX ctx;
    MD4_Init(&ctx);
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), f)) > 0) MD4_Update(&ctx, buf.data(), n);
    unsigned char digest[16];
    MD4_Final(digest, &ctx);
    std::fclose(f);
    return true;
}

bool onePass(const std::string& path, const std::string& sig, const std::string& delta_sig,
             const std::string& delta, DeltaMode mode = DeltaMode::CHUNKED) {
    SimpleFileReader reader;
    reader.setFile(path.c_str());
    ustring hash;
    reader.setHashString(hash);
    reader.setSignature(sig.c_str(), 2048, 8);
    if (!delta.empty()) reader.setDelta(delta.c_str(), delta_sig.c_str(), mode);
    return reader.readFile() == 0;
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string key = argv[i];
        if (key == "--size") o.size = std::strtoull(argv[i + 1], nullptr, 10) << 20;
        if (key == "--dir") o.dir = argv[i + 1];
        if (key == "--reps") o.reps = std::max(1, std::atoi(argv[i + 1]));
    }
    if (o.dir.empty()) {
        struct stat st;
        const char* tmp = std::getenv("TMPDIR");
        o.dir = ::stat("/dev/shm", &st) == 0 ? "/dev/shm" : (tmp && *tmp ? tmp : "/tmp");
    }
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3 && std::string(argv[1]) == "--launch") return launch(argc, argv);
    Options opt = parse(argc, argv);
    if (std::system("command -v rdiff >/dev/null 2>&1") != 0) {
        std::fprintf(stderr,
                     "delta-vs-rdiff: rdiff is not installed (scripts/setup installs it)\n");
        return 1;
    }
    std::string root = opt.dir + "/delta-vs-rdiff-XXXXXX";
    if (::mkdtemp(root.data()) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    auto at = [&](const char* name) { return root + "/" + name; };
    const std::string ours = TB_DELTA_TOOL;
    const std::string rdiff = "rdiff";
    const std::vector<std::string> rdiff_sig = {rdiff, "-f", "signature", "-R", "rollsum", "-H",
                                                "md4", "-b", "2048",      "-S", "8"};
    auto args = [](std::vector<std::string> head, std::initializer_list<std::string> tail) {
        head.insert(head.end(), tail);
        return head;
    };

    std::printf("delta-vs-rdiff: %zu MiB files in %s, best of %d\n", opt.size >> 20, root.c_str(),
                opt.reps);
    {
        Random rng(20240601);
        std::string old = randomBytes(rng, opt.size);
        writeFile(at("old"), old);
        std::string next = edited(old, rng);
        writeFile(at("new"), next);
        writeFile(at("other"), randomBytes(rng, opt.size));
        writeFile(at("old.q"), old.substr(0, opt.size / 4));
        writeFile(at("new.q"), next.substr(0, opt.size / 4));
    }
    const uint64_t old_size = fileSize(at("old"));
    const uint64_t new_size = fileSize(at("new"));
    auto removing = [](std::string path) { return [path] { ::unlink(path.c_str()); }; };

    printHeader();
    Measure s_ours =
        best(opt.reps, removing(at("sig.ours")), {ours, "signature", at("old"), at("sig.ours")});
    Measure s_theirs =
        best(opt.reps, removing(at("sig.rdiff")), args(rdiff_sig, {at("old"), at("sig.rdiff")}));
    printRow("signature", old_size, s_ours, s_theirs, ">= 1.00x");
    bool same_sig = readFile(at("sig.ours")) == readFile(at("sig.rdiff"));

    Measure d_ours = best(opt.reps, removing(at("delta.ours")),
                          {ours, "delta", at("sig.ours"), at("new"), at("delta.ours")});
    Measure d_theirs = best(opt.reps, removing(at("delta.rdiff")),
                            {rdiff, "-f", "delta", at("sig.rdiff"), at("new"), at("delta.rdiff")});
    printRow("delta (edited copy)", new_size, d_ours, d_theirs, "n/a");
    Measure r_ours =
        best(opt.reps, removing(at("realigned.ours")),
             {ours, "delta", "--realign", at("sig.ours"), at("new"), at("realigned.ours")});
    printRow("delta --realign (edited copy)", new_size, r_ours, d_theirs, ">= 1.20x");

    runOnce({ours, "signature", at("other"), at("other.sig")});
    Measure n_ours = best(opt.reps, removing(at("nomatch.ours")),
                          {ours, "delta", at("other.sig"), at("new"), at("nomatch.ours")});
    Measure n_theirs =
        best(opt.reps, removing(at("nomatch.rdiff")),
             {rdiff, "-f", "delta", at("other.sig"), at("new"), at("nomatch.rdiff")});
    printRow("delta (unrelated file, no match)", new_size, n_ours, n_theirs, ">= 3.00x");

    Measure p_ours = best(opt.reps, removing(at("patched.ours")),
                          {ours, "patch", at("old"), at("delta.rdiff"), at("patched.ours")});
    Measure p_theirs =
        best(opt.reps, removing(at("patched.rdiff")),
             {rdiff, "-f", "patch", at("old"), at("delta.rdiff"), at("patched.rdiff")});
    printRow("patch (rdiff's delta, both)", new_size, p_ours, p_theirs, ">= 1.20x");
    bool patched_ok = readFile(at("patched.ours")) == readFile(at("new")) &&
                      readFile(at("patched.rdiff")) == readFile(at("new"));

    Measure q_ours = best(opt.reps, removing(at("patched2.ours")),
                          {ours, "patch", at("old"), at("delta.ours"), at("patched2.ours")});
    Measure q_theirs =
        best(opt.reps, removing(at("patched2.rdiff")),
             {rdiff, "-f", "patch", at("old"), at("delta.ours"), at("patched2.rdiff")});
    printRow("patch (our delta, both)", new_size, q_ours, q_theirs, ">= 1.20x");
    patched_ok = patched_ok && readFile(at("patched2.ours")) == readFile(at("new")) &&
                 readFile(at("patched2.rdiff")) == readFile(at("new"));

    Measure a_ours = best(opt.reps, removing(at("patched3.ours")),
                          {ours, "patch", at("old"), at("realigned.ours"), at("patched3.ours")});
    Measure a_theirs =
        best(opt.reps, removing(at("patched3.rdiff")),
             {rdiff, "-f", "patch", at("old"), at("realigned.ours"), at("patched3.rdiff")});
    printRow("patch (our realigned delta, both)", new_size, a_ours, a_theirs, ">= 1.20x");
    patched_ok = patched_ok && readFile(at("patched3.ours")) == readFile(at("new")) &&
                 readFile(at("patched3.rdiff")) == readFile(at("new"));

    const uint64_t rdiff_size = fileSize(at("delta.rdiff"));
    const uint64_t realigned_size = fileSize(at("realigned.ours"));
    std::printf(
        "\ndelta sizes: ours %llu bytes, realigned %llu bytes, rdiff %llu bytes; realigned / "
        "rdiff = %.3fx (target <= 1.05x)\n",
        static_cast<unsigned long long>(fileSize(at("delta.ours"))),
        static_cast<unsigned long long>(realigned_size),
        static_cast<unsigned long long>(rdiff_size),
        static_cast<double>(realigned_size) / static_cast<double>(rdiff_size));
    std::printf("no-match delta sizes: ours %llu, rdiff %llu\n",
                static_cast<unsigned long long>(fileSize(at("nomatch.ours"))),
                static_cast<unsigned long long>(fileSize(at("nomatch.rdiff"))));
    std::printf("signatures byte-identical: %s; every patch rebuilds the new file: %s\n",
                same_sig ? "yes" : "NO", patched_ok ? "yes" : "NO");

    Measure md4 = bestInProcess(opt.reps, [&] { return md4Alone(at("old")); });
    Measure pass =
        bestInProcess(opt.reps, [&] { return onePass(at("old"), at("pass.sig"), "", ""); });
    Measure upload = bestInProcess(opt.reps, [&] {
        return onePass(at("new"), at("pass.sig"), at("sig.ours"), at("pass.delta"));
    });
    Measure upload_realigned = bestInProcess(opt.reps, [&] {
        return onePass(at("new"), at("pass.sig"), at("sig.ours"), at("pass.delta"),
                       DeltaMode::REALIGNED);
    });
    std::printf("\none read of %llu bytes, in process:\n",
                static_cast<unsigned long long>(old_size));
    std::printf("  OpenSSL MD4 alone                 %8.3f s %8.1f MB/s\n", md4.seconds,
                mbps(old_size, md4.seconds));
    std::printf(
        "  MD4 + signature in one pass       %8.3f s %8.1f MB/s  = %5.1f%% of MD4 alone"
        " (target >= 90%%)\n",
        pass.seconds, mbps(old_size, pass.seconds), 100.0 * md4.seconds / pass.seconds);
    std::printf("  MD4 + signature + delta (upload)  %8.3f s %8.1f MB/s  (edited copy)\n",
                upload.seconds, mbps(new_size, upload.seconds));
    std::printf("  the same, realigned delta         %8.3f s %8.1f MB/s  (edited copy)\n",
                upload_realigned.seconds, mbps(new_size, upload_realigned.seconds));

    // The same operations on a quarter of the data: the peak should not follow the size.
    runOnce({ours, "signature", at("old.q"), at("sig.q")});
    Measure sq = runOnce({ours, "signature", at("old.q"), at("sig.q")});
    Measure dq = runOnce({ours, "delta", at("sig.q"), at("new.q"), at("delta.q")});
    Measure rq = runOnce({ours, "delta", "--realign", at("sig.q"), at("new.q"), at("delta.q")});
    ::unlink(at("patched.q").c_str());
    Measure pq = runOnce({ours, "patch", at("old.q"), at("delta.q"), at("patched.q")});
    std::printf(
        "\nours, peak MiB at %zu MiB vs %zu MiB: signature %.1f vs %.1f, delta %.1f vs "
        "%.1f, realigned delta %.1f vs %.1f, patch %.1f vs %.1f\n",
        opt.size >> 22, opt.size >> 20, sq.peak_kib / 1024.0, s_ours.peak_kib / 1024.0,
        dq.peak_kib / 1024.0, d_ours.peak_kib / 1024.0, rq.peak_kib / 1024.0,
        r_ours.peak_kib / 1024.0, pq.peak_kib / 1024.0, q_ours.peak_kib / 1024.0);

    std::string cleanup = "rm -rf '" + root + "'";
    if (std::system(cleanup.c_str()) != 0)
        std::fprintf(stderr, "could not remove %s\n", root.c_str());
    return same_sig && patched_ok ? 0 : 1;
}
