// main.cpp: the reference server under load, measured from outside with a protocol client
// of its own: small uploads over 2 and 8 connections, a pull of a large view from 0, and
// one large upload and download. For each it prints wall time and the server's CPU time
// per request (from /proc), the new server's flushes per upload (its --stats line) and,
// given --old PATH, the same for that build in the same run, with the ratio.
//
//   server-load [--old PATH] [--data-root DIR] [--runs N] [--small N] [--pull N] [--big MIB]
//
// Everything it makes lives in a folder under --data-root (the system's temporary folder by
// default) and goes at the end.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench-support.h"
#include "delta/md4-hash-handler.h"
#include "foundation/channel.h"
#include "foundation/stream.h"
#include "state/sqlite-db.h"
#include "transport/proto-common.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A server process on a data folder; standard output and error go to a file.
class ServerProcess {
  public:
    ServerProcess(const std::string& binary, const std::vector<std::string>& args,
                  const std::string& out)
        : m_out(out) {
        std::vector<std::string> all{binary};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        if (posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, argv.data(), environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~ServerProcess() { Stop(); }

    // Waits for the first line and reads the port from it; 0 when none came.
    int WaitForPort() {
        for (int i = 0; i < 500 && m_pid > 0; ++i) {
            std::string text = Slurp(m_out);
            size_t at = text.find(" port ");
            if (at != std::string::npos && text.find('\n', at) != std::string::npos)
                return std::atoi(text.c_str() + at + 6);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return 0;
    }
    // Waits for a process that ends by itself (a command); its exit status.
    int Wait() {
        int status = 0;
        if (m_pid > 0) waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // SIGTERM, then waits; the whole output.
    std::string Stop() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            Wait();
        }
        return Slurp(m_out);
    }
    // User and system CPU seconds so far.
    double CpuSeconds() const { return ::CpuSeconds(m_pid); }
    // The peak resident memory in MiB.
    double PeakMiB() const { return static_cast<double>(PeakKiB(m_pid)) / 1024.0; }

  private:
    std::string m_out;
    pid_t m_pid = -1;
};

std::string Md4Of(const char* data, size_t length) {
    MD4HashHandler md4;
    md4.begin();
    md4.update(data, length);
    md4.end();
    return md4.getResult().str();
}

// One protocol connection.
class Client {
  public:
    Client(int port, const std::string& session, uint64_t view, const std::string& recv_dir)
        : m_session(session), m_view(view) {
        m_ok = m_ch.Open("127.0.0.1", port) == 0;
        m_ch.SetTimeout(600);
        m_stream.SetDefaultRecvLocation(recv_dir.c_str());
    }
    PObject Request(const char* action) const {
        PObject req;
        req["_action"] = action;
        req["session"] = m_session.c_str();
        req["view_id"] = m_view;
        AppendAgent(req);
        return req;
    }
    // The reply, keep-alives skipped; false when the exchange or the request failed.
    bool Call(uint8_t cmd, const PObject& request, PObject& reply) {
        if (!m_ok) return false;
        reply = PObject();
        int rc = ProtoWriteObjectRequest(m_ch, m_stream, cmd, request);
        while (rc == 0 && (rc = ProtoReadObjectReply(m_ch, m_stream, reply)) == 0 &&
               reply["type"].asString() == "keep_alive")
            reply = PObject();
        return rc == 0 && !reply.hasMember("error");
    }
    // Sends a pull and walks its reply on the wire without building it as values, so that
    // what is timed is the server's delivery, not the client's decoding. The number of
    // events and the reply's mark; false on failure.
    bool Pull(uint64_t from, size_t& events, uint64_t& next) {
        PObject req = Request("pull_event");
        req["sync_id"] = from;
        if (!m_ok || ProtoWriteObjectRequest(m_ch, m_stream, SCMD_EVT_PULL, req) < 0) return false;
        events = 0;
        m_events = &events;
        m_next = &next;
        uint8_t tag = 0;
        return m_ch.ReadByte(tag) == 0 && Skip(tag, 0, "");
    }
    bool Upload(const std::string& path, const std::string& local, const std::string& md4,
                uint64_t size) {
        PObject req = Request("upload");
        req["path"] = path.c_str();
        req["sync_id"] = uint64_t{0};
        req["file"]["hash"] = md4.c_str();
        req["file"]["size"] = size;
        req["file"]["is_delta"] = false;
        PObject::binary_type data;
        data.path = local.c_str();
        data.length = size;
        req["file"]["data"] = data;
        PObject reply;
        return Call(SCMD_EVT_RECV_4, req, reply);
    }

  private:
    // Reads past one value whose tag is read, counting the events and taking the mark.
    bool Skip(uint8_t tag, int depth, const std::string& key) {
        uint8_t length = 0;
        uint16_t text = 0;
        uint64_t value = 0;
        switch (tag) {
            case ptag::kNull:
                return m_ch.ReadByte(length) == 0;
            case ptag::kInteger: {
                if (m_ch.ReadByte(length) < 0 || length > 8) return false;
                char bytes[8];
                if (m_ch.Read(bytes, length) < 0) return false;
                for (uint8_t i = 0; i < length; ++i)
                    value = value << 8 | static_cast<uint8_t>(bytes[i]);
                if (depth == 1 && key == "next_sync_id") *m_next = value;
                return true;
            }
            case ptag::kString: {
                if (m_ch.ReadInt16(text) < 0) return false;
                std::string skipped(text, '\0');
                return text == 0 || m_ch.Read(skipped.data(), text) == 0;
            }
            case ptag::kArray:
            case ptag::kMap:
                for (;;) {
                    std::string member;
                    if (m_ch.ReadByte(length) < 0) return false;
                    if (length == ptag::kEnd) return true;
                    if (tag == ptag::kMap) {
                        if (length != ptag::kString || m_ch.ReadInt16(text) < 0) return false;
                        member.resize(text);
                        if (text > 0 && m_ch.Read(member.data(), text) < 0) return false;
                        if (m_ch.ReadByte(length) < 0) return false;
                    } else if (depth == 1 && key == "event_list") {
                        ++*m_events;
                    }
                    if (!Skip(length, depth + 1, tag == ptag::kMap ? member : key)) return false;
                }
            default:
                return false;
        }
    }

    Channel m_ch;
    PStream m_stream;
    size_t* m_events = nullptr;
    uint64_t* m_next = nullptr;
    std::string m_session;
    uint64_t m_view;
    bool m_ok = false;
};

struct Options {
    std::string new_binary = TB_SERVER_BINARY;
    std::string old_binary;
    std::string root = fs::temp_directory_path();
    int runs = 3;
    int small = 5000;
    int pull = 100000;
    int big_mib = 1024;
};

// One measurement of one scenario on one server.
struct Sample {
    double wall = 0;
    double cpu = 0;       // server CPU seconds
    double flushes = -1;  // per upload, when the server counts them
    double batch = 0;     // changes per committed batch
    double peak_mib = 0;
};

// A fresh store made by the server's own "init": the session and view to use.
bool InitStore(const std::string& binary, const std::string& data, std::string& session,
               uint64_t& view) {
    ServerProcess init(binary, {"init", "--data", data}, data + ".init");
    if (init.Wait() != 0) return false;
    std::string text = Slurp(data + ".init");
    size_t s = text.find("session = \""), v = text.find("view_id = ");
    if (s == std::string::npos || v == std::string::npos) return false;
    session = text.substr(s + 11, 32);
    view = std::strtoull(text.c_str() + v + 10, nullptr, 10);
    return true;
}

// Reads the server's --stats line into the sample.
void ReadStats(const std::string& output, int uploads, Sample& sample) {
    size_t at = output.find("tarnbridge-server stats:");
    unsigned long long changes = 0, batches = 0, log = 0, content = 0;
    if (at == std::string::npos ||
        std::sscanf(output.c_str() + at,
                    "tarnbridge-server stats: %llu changes in %llu batches, %llu log flushes, "
                    "%llu content flushes",
                    &changes, &batches, &log, &content) != 4)
        return;
    sample.flushes = static_cast<double>(log + content) / uploads;
    sample.batch = batches ? static_cast<double>(changes) / static_cast<double>(batches) : 0;
}

// The small files: 1 to 8 KiB, made once and shared by every run.
struct SmallFiles {
    std::vector<std::string> local, md4;
    std::vector<uint64_t> size;
};

SmallFiles MakeSmallFiles(const std::string& dir, int count) {
    SmallFiles files;
    std::mt19937 random(7);
    fs::create_directories(dir);
    for (int i = 0; i < count; ++i) {
        std::string bytes(1024 + random() % (7 * 1024), '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        files.local.push_back(dir + "/" + std::to_string(i));
        std::ofstream(files.local.back(), std::ios::binary) << bytes;
        files.md4.push_back(Md4Of(bytes.data(), bytes.size()));
        files.size.push_back(bytes.size());
    }
    return files;
}

Sample SmallUploads(const Options& o, const std::string& binary, const std::string& work,
                    const SmallFiles& files, int connections) {
    std::string data = work + "/small", session;
    uint64_t view = 0;
    fs::remove_all(data);
    Sample sample;
    if (!InitStore(binary, data, session, view)) return sample;
    bool counts = binary == o.new_binary;
    std::vector<std::string> args{"--data", data, "--port", "0"};
    if (counts) args.push_back("--stats");
    ServerProcess server(binary, args, work + "/small.out");
    int port = server.WaitForPort();
    std::atomic<int> failures{0};
    double cpu = server.CpuSeconds();
    auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < connections; ++c) {
        threads.emplace_back([&, c] {
            Client client(port, session, view, work);
            for (size_t i = c; i < files.local.size(); i += connections) {
                std::string path = "/d" + std::to_string(i % 50) + "/f" + std::to_string(i);
                if (!client.Upload(path, files.local[i], files.md4[i], files.size[i])) ++failures;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    sample.wall = Seconds(Clock::now() - start);
    sample.cpu = server.CpuSeconds() - cpu;
    std::string out = server.Stop();
    if (counts) ReadStats(out, static_cast<int>(files.local.size()), sample);
    if (failures) std::fprintf(stderr, "server-load: %d uploads failed\n", failures.load());
    return sample;
}

// Adds objects behind the server's back, so that a view of `count` objects takes seconds to
// make: copies of one uploaded file in folders of 1,000, with their versions.
bool FillView(const std::string& data, uint64_t view, int count) {
    sqlite::Database db;
    if (db.Open((data + "/server.db").c_str()) < 0) return false;
    db.SetBusyTimeout(10000);
    int64_t content = 0, mtime = 0, size = 0, last = 0;
    std::string md4;
    if (db.QueryFirst("SELECT content_id, md4, size, mtime FROM objects WHERE path = '/seed'",
                      [&](const sqlite::Statement& r) {
                          content = r.Int64(0);
                          md4 = r.String(1);
                          size = r.Int64(2);
                          mtime = r.Int64(3);
                      }) != 1 ||
        db.QueryFirst(
            "SELECT last_sync_id FROM views WHERE id = ?",
            [&](const sqlite::Statement& r) { last = r.Int64(0); }, view) != 1)
        return false;
    sqlite::Transaction txn(db);
    sqlite::Statement obj = db.Prepare(
        "INSERT INTO objects (view_id, path, parent, is_dir, sync_id, max_id, size, md4, mtime,"
        " exec_bit, content_id) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, 0, ?)");
    sqlite::Statement ver =
        db.Prepare("INSERT INTO versions (view_id, sync_id, path, content_id) VALUES (?,?,?,?)");
    for (int made = 1, folder = 0; made < count; ++folder) {
        std::string dir = "/p" + std::to_string(folder);
        int64_t dir_id = ++last, files = std::min(1000, count - made - 1);
        obj.BindAll(view, dir, std::string("/"), 1, dir_id, dir_id + files, 0, std::string(), mtime,
                    0);
        if (obj.Execute() < 0) return false;
        obj.Reset();
        ++made;
        for (int64_t f = 0; f < files; ++f, ++made) {
            std::string path = dir + "/f" + std::to_string(f);
            int64_t id = ++last;
            obj.BindAll(view, path, dir, 0, id, id, size, md4, mtime, content);
            ver.BindAll(view, id, path, content);
            if (obj.Execute() < 0 || ver.Execute() < 0) return false;
            obj.Reset();
            ver.Reset();
        }
    }
    return db.Run("UPDATE views SET last_sync_id = ? WHERE id = ?", last, view) == 0 &&
           txn.Commit() == 0;
}

Sample PullFromZero(const Options& o, const std::string& binary, const std::string& work) {
    std::string data = work + "/pull", session;
    uint64_t view = 0;
    fs::remove_all(data);
    Sample sample;
    if (!InitStore(binary, data, session, view)) return sample;
    {
        ServerProcess seed(binary, {"--data", data, "--port", "0"}, work + "/pull.out");
        Client client(seed.WaitForPort(), session, view, work);
        std::string local = work + "/seed";
        std::ofstream(local) << "seed";
        if (!client.Upload("/seed", local, Md4Of("seed", 4), 4)) return sample;
    }
    if (!FillView(data, view, o.pull)) return sample;
    ServerProcess server(binary, {"--data", data, "--port", "0"}, work + "/pull.out");
    Client client(server.WaitForPort(), session, view, work);
    double cpu = server.CpuSeconds();
    auto start = Clock::now();
    uint64_t mark = 0;
    size_t events = 0;
    for (;;) {
        size_t page = 0;
        if (!client.Pull(mark, page, mark)) return sample;
        if (page == 0) break;
        events += page;
    }
    sample.wall = Seconds(Clock::now() - start);
    sample.cpu = server.CpuSeconds() - cpu;
    sample.peak_mib = server.PeakMiB();
    if (events != static_cast<size_t>(o.pull))
        std::fprintf(stderr, "server-load: pulled %zu events of %d\n", events, o.pull);
    return sample;
}

// The big file, made once: a pattern that doesn't repeat within a block.
std::string MakeBigFile(const std::string& dir, int mib, std::string& md4) {
    std::string path = dir + "/big";
    std::vector<char> block(1 << 20);
    MD4HashHandler hash;
    hash.begin();
    std::ofstream out(path, std::ios::binary);
    for (int m = 0; m < mib; ++m) {
        for (size_t i = 0; i + 8 <= block.size(); i += 8) {
            uint32_t words[2] = {static_cast<uint32_t>(m), static_cast<uint32_t>(i)};
            std::memcpy(&block[i], words, sizeof words);
        }
        hash.update(block.data(), block.size());
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    hash.end();
    md4 = hash.getResult().str();
    return path;
}

// Upload, then download, of the big file: two samples.
std::pair<Sample, Sample> BigTransfer(const Options& o, const std::string& binary,
                                      const std::string& work, const std::string& big,
                                      const std::string& md4) {
    std::string data = work + "/big-store", session;
    uint64_t view = 0;
    fs::remove_all(data);
    std::pair<Sample, Sample> out;
    if (!InitStore(binary, data, session, view)) return out;
    ServerProcess server(binary, {"--data", data, "--port", "0"}, work + "/big.out");
    std::string recv = work + "/recv";
    fs::create_directories(recv);
    Client client(server.WaitForPort(), session, view, recv);
    uint64_t size = static_cast<uint64_t>(o.big_mib) << 20;
    double cpu = server.CpuSeconds();
    auto start = Clock::now();
    if (!client.Upload("/big", big, md4, size)) return out;
    out.first.wall = Seconds(Clock::now() - start);
    out.first.cpu = server.CpuSeconds() - cpu;
    PObject req = client.Request("resume_download");
    req["path"] = "/big";
    PObject reply;
    cpu = server.CpuSeconds();
    start = Clock::now();
    if (!client.Call(SCMD_RESUME_TRANSFER, req, reply)) return out;
    out.second.wall = Seconds(Clock::now() - start);
    out.second.cpu = server.CpuSeconds() - cpu;
    std::error_code ec;
    if (fs::file_size(reply["file"]["data"].asBinary().path.str(), ec) != size)
        std::fprintf(stderr, "server-load: the download came out short\n");
    fs::remove_all(recv, ec);
    fs::remove_all(data, ec);
    return out;
}

// Best wall time of the runs, with the spread, and the CPU of that best run.
struct Summary {
    Sample best;
    double worst_wall = 0;
};

Summary Summarise(const std::vector<Sample>& samples) {
    Summary s;
    s.best = samples.front();
    for (const Sample& x : samples) {
        if (x.wall < s.best.wall) s.best = x;
        s.worst_wall = std::max(s.worst_wall, x.wall);
    }
    return s;
}

void PrintRow(const char* name, const char* unit, double per, const Summary* old,
              const Summary& now) {
    auto cell = [&](const Summary& s) {
        char text[160];
        std::snprintf(text, sizeof text, "%7.3f s (..%.3f) cpu %8.1f us/%s", s.best.wall,
                      s.worst_wall, s.best.cpu * 1e6 / per, unit);
        return std::string(text);
    };
    std::printf("%-30s %s", name, cell(now).c_str());
    if (now.best.flushes >= 0)
        std::printf("  %.2f flushes/upload, %.1f a batch", now.best.flushes, now.best.batch);
    if (now.best.peak_mib > 0) std::printf("  peak %.0f MiB", now.best.peak_mib);
    if (old) {
        std::printf("\n%-30s %s", "  old", cell(*old).c_str());
        if (old->best.peak_mib > 0) std::printf("  peak %.0f MiB", old->best.peak_mib);
        std::printf("  -> %.2fx faster", old->best.wall / now.best.wall);
    }
    std::printf("\n");
    std::fflush(stdout);
}

bool ParseArgs(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--old")
            o.old_binary = argv[i + 1];
        else if (a == "--data-root")
            o.root = argv[i + 1];
        else if (a == "--runs")
            o.runs = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--small")
            o.small = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--pull")
            o.pull = std::max(2, std::atoi(argv[i + 1]));
        else if (a == "--big")
            o.big_mib = std::max(1, std::atoi(argv[i + 1]));
        else
            return false;
    }
    return argc % 2 == 1;
}

template <typename Run>
void Scenario(const Options& o, const char* name, const char* unit, double per, Run run) {
    std::vector<Sample> now, old;
    for (int r = 0; r < o.runs; ++r) {
        now.push_back(run(o.new_binary));
        if (!o.old_binary.empty()) old.push_back(run(o.old_binary));
    }
    Summary old_summary = old.empty() ? Summary() : Summarise(old);
    PrintRow(name, unit, per, old.empty() ? nullptr : &old_summary, Summarise(now));
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!ParseArgs(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: server-load [--old PATH] [--data-root DIR] [--runs N] [--small N] "
                     "[--pull N] [--big MIB]\n");
        return 2;
    }
    std::string work = o.root + "/server-load-" + std::to_string(getpid());
    fs::create_directories(work);
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    std::printf("server-load: data under %s, best of %d runs (..worst), load average %.2f\n",
                o.root.c_str(), o.runs, load[0]);
    SmallFiles files = MakeSmallFiles(work + "/small-src", o.small);
    for (int connections : {2, 8}) {
        std::string name =
            std::to_string(o.small) + " small uploads, " + std::to_string(connections) + " conns";
        Scenario(o, name.c_str(), "upload", o.small, [&](const std::string& binary) {
            return SmallUploads(o, binary, work, files, connections);
        });
    }
    std::string pull_name = "pull of " + std::to_string(o.pull) + " from 0";
    Scenario(o, pull_name.c_str(), "event", o.pull,
             [&](const std::string& binary) { return PullFromZero(o, binary, work); });
    std::string md4;
    std::string big = MakeBigFile(work, o.big_mib, md4);
    std::vector<Sample> up, down, old_up, old_down;
    for (int r = 0; r < o.runs; ++r) {
        auto now = BigTransfer(o, o.new_binary, work, big, md4);
        up.push_back(now.first);
        down.push_back(now.second);
        if (o.old_binary.empty()) continue;
        auto old = BigTransfer(o, o.old_binary, work, big, md4);
        old_up.push_back(old.first);
        old_down.push_back(old.second);
    }
    double mib = o.big_mib;
    for (int d = 0; d < 2; ++d) {
        const std::vector<Sample>& n = d == 0 ? up : down;
        const std::vector<Sample>& p = d == 0 ? old_up : old_down;
        Summary ns = Summarise(n), ps = p.empty() ? Summary() : Summarise(p);
        std::string name = std::to_string(o.big_mib) + " MiB " + (d == 0 ? "upload" : "download");
        PrintRow(name.c_str(), "MiB", mib, p.empty() ? nullptr : &ps, ns);
        std::printf("%-30s %.0f MB/s", "", mib * 1.048576 / ns.best.wall);
        if (!p.empty()) std::printf(" (old %.0f MB/s)", mib * 1.048576 / ps.best.wall);
        std::printf("\n");
    }
    std::error_code ec;
    fs::remove_all(work, ec);
    return 0;
}
