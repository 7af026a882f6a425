// pstream-recv.cpp: feeds arbitrary bytes to PStream::Recv through a real socket pair,
// as a hostile peer of the control socket or the server connection would. Binaries are
// received into a scratch folder and removed again. Whatever is accepted must encode
// back and decode to the same text form.
#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include "foundation/channel.h"
#include "foundation/log.h"
#include "foundation/object.h"
#include "foundation/stream.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;

void empty_folder(const std::string& path) {
    DIR* d = ::opendir(path.c_str());
    if (d == nullptr) return;
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") ::unlink((path + "/" + name).c_str());
    }
    ::closedir(d);
}

// The scratch folder for received binaries, removed at exit, and quiet logs: only
// critical lines.
struct Scratch {
    Scratch() {
        char templ[] = "/tmp/tarnbridge-fuzz-XXXXXX";
        if (::mkdtemp(templ) == nullptr) std::abort();
        dir = templ;
        std::string levels = dir + "/levels";
        if (FILE* f = std::fopen(levels.c_str(), "w")) {
            std::fputs("channel_debug = 2\nstream = 2\n", f);
            std::fclose(f);
        }
        Logger::Initialize(Logger::STDERR_LOGGER, ustring(), ustring(levels.c_str()), 50);
        ::unlink(levels.c_str());
    }
    ~Scratch() {
        empty_folder(dir);
        ::rmdir(dir.c_str());
    }
    std::string dir;
};

const std::string& scratch() {
    static Scratch s;
    return s.dir;
}

void empty_scratch() {
    empty_folder(scratch());
}

// Feeds `bytes` into one end of a socket pair, closes it for writing, and receives
// from the other end.
int receive(const std::string& bytes, PObject& out) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return -100;
    int big = 1 << 20;
    ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fds[0], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::shutdown(fds[0], SHUT_WR);
    Channel ch;
    int rc = ch.Open(fds[1], true);
    if (rc == 0) {
        ch.SetTimeout(1);
        PStream ps;
        ps.SetDefaultRecvLocation(ustring(scratch().c_str()));
        rc = ps.Recv(ch, out);
    } else {
        ::close(fds[1]);
    }
    ::close(fds[0]);
    return rc;
}

// Encodes `obj` into bytes through another socket pair, with a reader alongside.
std::string send(const PObject& obj) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return std::string();
    std::string wire;
    std::thread reader([&] {
        char buf[65536];
        ssize_t n;
        while ((n = ::recv(fds[0], buf, sizeof buf, 0)) > 0)
            wire.append(buf, static_cast<size_t>(n));
    });
    {
        Channel ch;
        if (ch.Open(fds[1], true) == 0) {
            PStream ps;
            ps.Send(ch, obj);
        } else {
            ::close(fds[1]);
        }
    }
    reader.join();
    ::close(fds[0]);
    return wire;
}

// Binaries are stretches of files that a round trip would have to stage, and a key's
// leading underscore is stripped on sending by design: values with either are not
// expected to come back the same.
bool round_trips(const PObject& obj) {
    if (obj.isBinary()) return false;
    for (const PObject& e : obj.asArray())
        if (!round_trips(e)) return false;
    for (const auto& [key, value] : obj.asMap())
        if ((!key.empty() && key[0] == '_') || !round_trips(value)) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    PObject got;
    int rc = receive(std::string(reinterpret_cast<const char*>(data), size), got);
    if (rc == 0 && round_trips(got)) {
        PObject again;
        if (receive(send(got), again) != 0 || again.toString() != got.toString()) std::abort();
    }
    empty_scratch();
    return 0;
}
