// main.cpp: what TLS costs a large transfer. One file goes up to the reference server and
// comes back down on loopback, through the channel layer and the wire form the daemon's
// transfers use, once over plain TCP and once over TLS (the login's "encrypt_channel", the
// certificate pinned), in the same run against the same server. For each direction and
// mode it prints MB/s, the client's CPU seconds and the server's, and the TLS/plain ratios.
//
//   tls-transfer [--mib N] [--runs N] [--data-root DIR]
//
// Everything it makes lives in a folder under --data-root (the system's temporary folder
// by default) and goes at the end.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "delta/md4-hash-handler.h"
#include "foundation/channel.h"
#include "foundation/stream.h"
#include "support/process.h"
#include "transport/proto-common.h"
#include "transport/ssl-channel.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
    int mib = 1024;
    int runs = 3;
    std::string root = fs::temp_directory_path();
};

// What one init made: the account's session, its view and the certificate's pin.
struct Account {
    std::string session;
    uint64_t view = 0;
    std::string pin;
};

std::string ValueOf(const std::string& text, const std::string& key) {
    const size_t at = text.find("\n" + key + " = ");
    if (at == std::string::npos) return std::string();
    const size_t start = at + key.size() + 4;
    std::string value = text.substr(start, text.find('\n', start) - start);
    if (!value.empty() && value.front() == '"') value = value.substr(1, value.size() - 2);
    return value;
}

double ClientCpu() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double ProcessCpu(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i)
        if (i >= 14) ticks += std::strtoull(field.c_str(), nullptr, 10);
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The big file: a pattern that doesn't repeat within a block, and its MD4.
std::string MakeBigFile(const std::string& dir, int mib, std::string& md4) {
    const std::string path = dir + "/big";
    std::vector<char> block(1 << 20);
    MD4HashHandler hash;
    hash.begin();
    std::ofstream out(path, std::ios::binary);
    for (int m = 0; m < mib; ++m) {
        for (size_t i = 0; i + 8 <= block.size(); i += 8) {
            const uint32_t words[2] = {static_cast<uint32_t>(m), static_cast<uint32_t>(i)};
            std::memcpy(&block[i], words, sizeof words);
        }
        hash.update(block.data(), block.size());
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    hash.end();
    md4 = hash.getResult().str();
    return path;
}

// One logged-in connection, encrypted or not.
class Client {
  public:
    Client(int port, const Account& account, bool tls, const std::string& recv_dir)
        : m_account(account) {
        m_stream.SetDefaultRecvLocation(recv_dir.c_str());
        m_ok = m_ch.Open("127.0.0.1", port) == 0;
        m_ch.SetTimeout(600);
        PObject reply;
        if (m_ok && tls) {
            TlsIdentity pinned;
            pinned.pin = account.pin.c_str();
            m_ok = Call(SCMD_REQUEST_SSL_2, Request("encrypt_channel"), reply) &&
                   ConvertToSSLChannel(m_ch, false, pinned) == 0;
        }
        m_ok = m_ok && Call(SCMD_REQUEST_CONNECT, Request("connect"), reply);
    }
    bool ok() const { return m_ok; }

    PObject Request(const char* action) const {
        PObject req;
        req["_action"] = action;
        req["session"] = m_account.session.c_str();
        req["view_id"] = m_account.view;
        AppendAgent(req);
        return req;
    }
    // The reply, keep-alives skipped; false when the exchange or the request failed.
    bool Call(uint8_t cmd, const PObject& request, PObject& reply) {
        reply = PObject();
        int rc = ProtoWriteObjectRequest(m_ch, m_stream, cmd, request);
        while (rc == 0 && (rc = ProtoReadObjectReply(m_ch, m_stream, reply)) == 0 &&
               reply["type"].asString() == "keep_alive")
            reply = PObject();
        return rc == 0 && !reply.hasMember("error");
    }

  private:
    Account m_account;
    Channel m_ch;
    PStream m_stream;
    bool m_ok = false;
};

struct Sample {
    double wall = 1e30;
    double client_cpu = 0;
    double server_cpu = 0;
};

// The best run of each direction for one mode: {upload, download}.
std::pair<Sample, Sample> Measure(const Options& o, int port, pid_t server, const Account& account,
                                  bool tls, const std::string& big, const std::string& md4,
                                  const std::string& recv) {
    std::pair<Sample, Sample> best;
    const uint64_t size = static_cast<uint64_t>(o.mib) << 20;
    for (int r = 0; r < o.runs; ++r) {
        Client client(port, account, tls, recv);
        if (!client.ok()) {
            std::fprintf(stderr, "tls-transfer: cannot log in (%s)\n", tls ? "TLS" : "plain");
            return best;
        }
        const std::string path =
            std::string("/big-") + (tls ? "tls-" : "plain-") + std::to_string(r);
        PObject up = client.Request("upload");
        up["path"] = path.c_str();
        up["sync_id"] = uint64_t{0};
        up["file"]["hash"] = md4.c_str();
        up["file"]["size"] = size;
        up["file"]["is_delta"] = false;
        PObject::binary_type data;
        data.path = big.c_str();
        data.length = size;
        up["file"]["data"] = data;
        PObject down = client.Request("resume_download");
        down["path"] = path.c_str();
        for (int d = 0; d < 2; ++d) {
            PObject reply;
            const double client0 = ClientCpu(), server0 = ProcessCpu(server);
            const auto t0 = Clock::now();
            if (!client.Call(d == 0 ? SCMD_EVT_RECV_4 : SCMD_RESUME_TRANSFER, d == 0 ? up : down,
                             reply)) {
                std::fprintf(stderr, "tls-transfer: the %s failed\n",
                             d == 0 ? "upload" : "download");
                return best;
            }
            Sample s;
            s.wall = std::chrono::duration<double>(Clock::now() - t0).count();
            s.client_cpu = ClientCpu() - client0;
            s.server_cpu = ProcessCpu(server) - server0;
            Sample& keep = d == 0 ? best.first : best.second;
            if (s.wall < keep.wall) keep = s;
            if (d == 1) {
                std::error_code ec;
                const std::string got = reply["file"]["data"].asBinary().path.str();
                if (fs::file_size(got, ec) != size)
                    std::fprintf(stderr, "tls-transfer: the download came out short\n");
                fs::remove(got, ec);
            }
        }
    }
    return best;
}

void PrintRow(const char* name, int mib, const Sample& s) {
    std::printf("%-18s %8.1f MB/s  %6.2f s  client cpu %6.2f s  server cpu %6.2f s\n", name,
                mib * 1.048576 / s.wall, s.wall, s.client_cpu, s.server_cpu);
}

bool ParseArgs(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--mib")
            o.mib = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--runs")
            o.runs = std::max(1, std::atoi(argv[i + 1]));
        else if (a == "--data-root")
            o.root = argv[i + 1];
        else
            return false;
    }
    return argc % 2 == 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!ParseArgs(argc, argv, o)) {
        std::fprintf(stderr, "usage: tls-transfer [--mib N] [--runs N] [--data-root DIR]\n");
        return 2;
    }
    const std::string work = o.root + "/tls-transfer-" + std::to_string(getpid());
    const std::string data = work + "/data", recv = work + "/recv";
    fs::create_directories(recv);
    RunResult init = RunProgram({kServerBinary, "init", "--data", data});
    Account account{ValueOf(init.out, "session"),
                    std::strtoull(ValueOf(init.out, "view_id").c_str(), nullptr, 10),
                    ValueOf(init.out, "ssl_pin")};
    ChildProcess server({kServerBinary, "--data", data, "--port", "0"});
    if (init.status != 0 || account.pin.empty() || !server.WaitForOutput(" port ")) {
        std::fprintf(stderr, "tls-transfer: the server did not start\n%s", init.out.c_str());
        return 1;
    }
    const std::string out = server.Out();
    const int port = std::atoi(out.c_str() + out.find(" port ") + 6);
    std::string md4;
    const std::string big = MakeBigFile(work, o.mib, md4);
    std::printf("tls-transfer: %d MiB on loopback, best of %d runs\n", o.mib, o.runs);
    const auto plain = Measure(o, port, server.pid(), account, false, big, md4, recv);
    const auto tls = Measure(o, port, server.pid(), account, true, big, md4, recv);
    PrintRow("upload, plain", o.mib, plain.first);
    PrintRow("upload, TLS", o.mib, tls.first);
    PrintRow("download, plain", o.mib, plain.second);
    PrintRow("download, TLS", o.mib, tls.second);
    std::printf(
        "TLS/plain: upload time %.2fx, client cpu %.2fx; download time %.2fx, client cpu "
        "%.2fx\n",
        tls.first.wall / plain.first.wall, tls.first.client_cpu / plain.first.client_cpu,
        tls.second.wall / plain.second.wall, tls.second.client_cpu / plain.second.client_cpu);
    server.Kill(SIGTERM);
    std::error_code ec;
    fs::remove_all(work, ec);
    return 0;
}
