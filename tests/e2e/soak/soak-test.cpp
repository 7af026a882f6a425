// The whole system under a random load on both sides at once: files created, edited (whole
// and in place), renamed, moved between folders and removed, and folders made, locally
// and on the server, while the session is paused and resumed, connections are
// cut by the server's fault file and the daemon is killed or stopped and started again. Each round
// ends in quiescence; then both trees must agree, and every version that was ever the last one of
// a name on a side must still exist (under any name, so conflict copies count) or have
// reached the recycle bin, unless a side replaced or removed it knowingly.
//
// Folders are neither moved nor removed: a folder removal that meets other events for the
// folder or below it can still leave the two sides apart for good, and is left out until
// that is mended.
//
// TARNBRIDGE_SOAK_SECONDS sets the length of the load (60 by default), TARNBRIDGE_SOAK_SEED
// the seed, which is printed so that a failure's sequence of operations can be replayed.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "harness/sync-world.h"
#include "support/files.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kRound{120};
constexpr size_t kMaxFiles = 60, kMaxDirs = 25;

uint64_t FromEnv(const char* name, uint64_t fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::strtoull(value, nullptr, 10) : fallback;
}

// Paths under `root` with a leading "/", the daemon's working directory left out; `dirs`
// starts with the root itself, "".
struct Paths {
    std::vector<std::string> files, dirs{""};
};

Paths Walk(const std::string& root) {
    Paths paths;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string rel = "/" + it->path().lexically_relative(root).generic_string();
        if (rel.rfind("/.", 0) == 0) {
            it.disable_recursion_pending();
            continue;
        }
        (it->is_directory(ec) ? paths.dirs : paths.files).push_back(rel);
    }
    return paths;
}

Paths Split(const Tree& tree) {
    Paths paths;
    for (const auto& [path, entry] : tree)
        (entry.is_dir ? paths.dirs : paths.files).push_back(path);
    return paths;
}

// Adds the MD4 of every file under `root` to `into`.
void HashAll(const std::string& root, std::set<std::string>& into) {
    std::error_code ec;
    if (fs::is_regular_file(root, ec)) into.insert(Md4OfFile(root));
    for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec)) into.insert(Md4OfFile(it->path()));
}

std::string LastLines(const std::string& text, size_t count) {
    size_t at = text.size();
    while (count-- > 0 && at != std::string::npos && at > 0) at = text.rfind('\n', at - 1);
    return at == std::string::npos ? text : text.substr(at);
}

// The whole content behind `fd`.
std::string ReadAll(int fd) {
    std::string bytes;
    char buf[65536];
    ssize_t n;
    for (off_t at = 0; (n = ::pread(fd, buf, sizeof buf, at)) > 0; at += n)
        bytes.append(buf, static_cast<size_t>(n));
    return bytes;
}

class Soak : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(world.ok());
        ASSERT_TRUE(world.Connect().isNull());
        ASSERT_FALSE(world.AddSession(1).hasMember("error"));
        ASSERT_FALSE(world.Resume(1).hasMember("error"));
    }

    template <typename T>
    T Pick(const std::vector<T>& from) {
        return from[rng() % from.size()];
    }
    bool Chance(int percent) { return static_cast<int>(rng() % 100) < percent; }
    std::string Bytes() {
        // Mostly small; now and then over the resumable upload's threshold.
        const size_t size = Chance(8) ? 0x80000 + rng() % 0x40000 : rng() % 20000;
        return RandomBytes(size, static_cast<unsigned>(rng()));
    }
    std::string Local(const std::string& path) { return world.Folder(1) + path; }
    std::string Bin() { return world.Folder(1) + "/.ZephanorWorkingDirectory/#ZephRecycle"; }
    void Made(const std::string& md4, const std::string& how) {
        made.emplace(md4, "op " + std::to_string(op) + " " + how);
    }

    void LocalOp();
    void ServerOp();
    void Disturb();
    // A file written through one descriptor that first read what it replaces, so the
    // version replaced is exactly known; a file the daemon renamed over meanwhile counts
    // as never written.
    void EditLocal(const std::string& path);
    // Moves the object out of the folder in one step, as a desktop's trash does, then
    // learns what it held.
    void RemoveLocal(const std::string& path);
    void Restart(bool crash);
    bool Quiet();
    void Check(int round);

    SyncWorld world;
    TempDir trash;
    std::mt19937_64 rng;
    uint64_t op = 0;
    size_t restarts = 0;
    bool paused = false;
    // Every version made in the round (MD4 and how), those a side replaced or removed
    // knowingly, and those seen in the recycle bin before a start of the session wiped it.
    std::map<std::string, std::string> made;
    std::set<std::string> dropped, binned;
};

void Soak::EditLocal(const std::string& path) {
    const int fd = ::open(Local(path).c_str(), O_RDWR);
    if (fd < 0) return;
    const std::string before = ReadAll(fd);
    const std::string bytes = Bytes();
    const bool in_place = Chance(50) && !before.empty();
    const off_t at = in_place ? static_cast<off_t>(rng() % before.size()) : 0;
    const std::string piece = in_place ? bytes.substr(0, 1 + rng() % 4096) : bytes;
    struct stat st {};
    const bool written =
        (in_place || ::ftruncate(fd, 0) == 0) &&
        ::pwrite(fd, piece.data(), piece.size(), at) == static_cast<ssize_t>(piece.size());
    const std::string after = ReadAll(fd);
    if (written && ::fstat(fd, &st) == 0 && st.st_nlink > 0)
        Made(Md4OfBytes(after),
             std::string(in_place ? "local in-place edit " : "local rewrite ") + path);
    dropped.insert(Md4OfBytes(before));
    ::close(fd);
}

void Soak::RemoveLocal(const std::string& path) {
    const std::string aside = trash / std::to_string(op);
    if (std::rename(Local(path).c_str(), aside.c_str()) != 0) return;
    HashAll(aside, dropped);
    std::error_code ec;
    fs::remove_all(aside, ec);
}

void Soak::LocalOp() {
    const Paths paths = Walk(world.Folder(1));
    const std::string name = "/l" + std::to_string(op);
    const std::string dir = Pick(paths.dirs);
    switch (paths.files.size() < kMaxFiles ? rng() % 8 : 2 + rng() % 6) {
        case 0:
        case 1: {
            const std::string bytes = Bytes();
            const int fd = ::open(Local(dir + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (fd < 0) return;
            if (::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()))
                Made(Md4OfBytes(bytes), "local create " + dir + name);
            ::close(fd);
            return;
        }
        case 2:
        case 3:
            if (!paths.files.empty()) EditLocal(Pick(paths.files));
            return;
        case 4: {
            // Renamed in its folder or moved to another; never over an existing name.
            if (paths.files.empty()) return;
            const std::string from = Pick(paths.files);
            const std::string to =
                (Chance(50) ? dir : fs::path(from).parent_path().string()) + name;
            ::renameat2(AT_FDCWD, Local(from).c_str(), AT_FDCWD, Local(to).c_str(),
                        RENAME_NOREPLACE);
            return;
        }
        case 5:
            if (!paths.files.empty()) RemoveLocal(Pick(paths.files));
            return;
        default:
            if (paths.dirs.size() < kMaxDirs) ::mkdir(Local(dir + name).c_str(), 0755);
    }
}

void Soak::ServerOp() {
    Tree tree;
    if (!world.server().Listing(tree)) return;
    const Paths paths = Split(tree);
    const std::string name = "/s" + std::to_string(op);
    const std::string dir = Pick(paths.dirs);
    std::vector<std::string> gone;
    switch (paths.files.size() < kMaxFiles ? rng() % 8 : 2 + rng() % 6) {
        case 0:
        case 1:
        case 2:
        case 3: {
            const std::string path =
                rng() % 4 < 2 || paths.files.empty() ? dir + name : Pick(paths.files);
            const std::string bytes = Bytes();
            if (world.server().Put(path, bytes, &gone))
                Made(Md4OfBytes(bytes), "server put " + path);
            break;
        }
        case 4:
        case 5:
            if (!paths.files.empty()) world.server().Rm(Pick(paths.files), &gone);
            break;
        case 6:
            if (!paths.files.empty()) world.server().Mv(Pick(paths.files), dir + name);
            break;
        default:
            if (paths.dirs.size() < kMaxDirs) world.server().Mkdir(dir + name);
    }
    dropped.insert(gone.begin(), gone.end());
}

void Soak::Restart(bool crash) {
    // A daemon that died by itself would otherwise go unnoticed behind the restart.
    ASSERT_TRUE(world.daemon().Ask("get_status").hasMember("ack"))
        << "the daemon no longer answers at op " << op << "\n"
        << LastLines(world.daemon().Log(), 60);
    // A session's start empties its recycle bin: what lay there is counted as kept.
    ASSERT_TRUE(world.Restart(crash, [&] { HashAll(Bin(), binned); }))
        << "restart failed at op " << op;
    ++restarts;
}

void Soak::Disturb() {
    switch (rng() % 7) {
        case 0:
        case 1:
            paused = !paused;
            paused ? world.Pause(1) : world.Resume(1);
            return;
        case 2:
        case 3: {
            static const char* const kFaults[] = {
                "close-after upload 3000 times=2\n",
                "close-after resume_upload 200000 times=1\n",
                "cut-reply resume_download 6000 times=2\n",
                "cut-reply pull_event 300 times=1\n",
                "close-after remove 20 times=1\n",
                "delay * 1500 times=3\n",
            };
            std::string rules;
            for (const char* rule : kFaults)
                if (Chance(30)) rules += rule;
            world.server().WriteFaults(rules);
            return;
        }
        case 4:
            world.server().WriteFaults("");
            return;
        default:
            Restart(rng() % 2 == 0);
    }
}

// Both trees agree and the daemon has nothing left to do, and so it stays for longer than
// the puller's wait between two looks at an idle server.
bool Soak::Quiet() {
    Clock::time_point since{}, looked{};
    return WaitUntil(
        [&] {
            // A look every quarter second is enough, and keeps the daemon's log readable.
            if (Clock::now() - looked < std::chrono::milliseconds(250)) return false;
            looked = Clock::now();
            const bool settled = world.SessionStatus(1)["status"].asString() == "uptodate" &&
                                 world.CompareTrees(1).empty();
            if (!settled)
                since = Clock::time_point{};
            else if (since == Clock::time_point{})
                since = Clock::now();
            return settled && Clock::now() - since > std::chrono::seconds(8);
        },
        240);
}

void Soak::Check(int round) {
    world.server().WriteFaults("");
    if (paused) world.Resume(1);
    paused = false;
    ASSERT_TRUE(Quiet()) << "no quiescence after round " << round << ":\n"
                         << world.CompareTrees(1) << "the daemon's log ends:\n"
                         << LastLines(world.daemon().Log(), 60);
    std::set<std::string> in_tree, in_bin = binned;
    HashAll(Bin(), in_bin);
    for (const auto& [path, entry] : LocalTree(world.Folder(1)))
        if (!entry.is_dir) in_tree.insert(entry.md4);
    size_t kept = 0, from_bin = 0;
    for (const auto& [md4, how] : made) {
        if (dropped.count(md4) != 0) continue;
        ++kept;
        if (in_tree.count(md4) != 0) continue;
        if (in_bin.count(md4) != 0) {
            ++from_bin;
            continue;
        }
        ADD_FAILURE() << "round " << round << ": lost the version of " << how;
    }
    std::printf(
        "soak: round %d, %llu operations, %zu restarts: %zu of %zu versions had to "
        "stay, %zu of them in the recycle bin\n",
        round, static_cast<unsigned long long>(op), restarts, kept, made.size(), from_bin);
    std::fflush(stdout);
    // What the tree holds now is what the next round must keep.
    made.clear();
    dropped.clear();
    binned.clear();
    for (const auto& [path, entry] : LocalTree(world.Folder(1)))
        if (!entry.is_dir) Made(entry.md4, "kept at the end of round " + std::to_string(round));
}

TEST_F(Soak, RandomChangesOnBothSidesLoseNothing) {
    const uint64_t seed = FromEnv("TARNBRIDGE_SOAK_SEED", std::random_device()());
    const uint64_t seconds = FromEnv("TARNBRIDGE_SOAK_SECONDS", 60);
    std::printf("soak: %llu seconds, TARNBRIDGE_SOAK_SEED=%llu\n",
                static_cast<unsigned long long>(seconds), static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    SCOPED_TRACE("replay with TARNBRIDGE_SOAK_SEED=" + std::to_string(seed));
    rng.seed(seed);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    for (int round = 1; (round == 1 || Clock::now() < end) && !HasFailure(); ++round) {
        const Clock::time_point round_end = std::min(end, Clock::now() + kRound);
        while (Clock::now() < round_end && !HasFailure()) {
            ++op;
            // About one disturbance in seventy operations, a few each second.
            const int kind = static_cast<int>(rng() % 1000);
            if (kind < 15)
                Disturb();
            else if (kind < 550)
                LocalOp();
            else
                ServerOp();
        }
        Check(round);
    }
}

}  // namespace
