// main.cpp: the tarnbridge-relay command line.
//   tarnbridge-relay [--listen ADDR] [--port P] [--cert FILE --key FILE]
//                    [--connect-timeout S] [--request-timeout S]
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "foundation/log.h"
#include "relay.h"

namespace {

const char* const kUsage =
    "usage: tarnbridge-relay [--listen ADDR] [--port P] [--cert FILE --key FILE]\n"
    "                        [--connect-timeout SECONDS] [--request-timeout SECONDS]\n";

bool ParseNumber(const char* text, long max, int& out) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < 0 || value > max) return false;
    out = static_cast<int>(value);
    return true;
}

// 0, or 2 after printing what was wrong.
int ParseArgs(int argc, char** argv, RelayOptions& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc) {
            std::fprintf(stderr, "tarnbridge-relay: %s needs a value\n%s", a.c_str(), kUsage);
            return 2;
        }
        const char* value = argv[++i];
        bool ok = true;
        if (a == "--listen")
            o.listen = value;
        else if (a == "--port")
            ok = ParseNumber(value, 65535, o.port);
        else if (a == "--cert")
            o.cert_file = value;
        else if (a == "--key")
            o.key_file = value;
        else if (a == "--connect-timeout")
            ok = ParseNumber(value, 3600, o.connect_timeout) && o.connect_timeout > 0;
        else if (a == "--request-timeout")
            ok = ParseNumber(value, 3600, o.request_timeout) && o.request_timeout > 0;
        else {
            std::fprintf(stderr, "tarnbridge-relay: unknown option %s\n%s", a.c_str(), kUsage);
            return 2;
        }
        if (!ok) {
            std::fprintf(stderr, "tarnbridge-relay: bad value '%s' for %s\n", value, a.c_str());
            return 2;
        }
    }
    return 0;
}

volatile sig_atomic_t g_signalled = 0;

void OnSignal(int) {
    g_signalled = 1;
}

}  // namespace

int main(int argc, char** argv) {
    Logger::Initialize(Logger::STDERR_LOGGER, "", "", 0);
    RelayOptions options;
    if (int rc = ParseArgs(argc, argv, options); rc != 0) return rc;
    Relay relay(options);
    std::string error;
    if (relay.Start(error) != 0) {
        std::fprintf(stderr, "tarnbridge-relay: %s\n", error.c_str());
        return 1;
    }
    std::printf("tarnbridge-relay listening on %s port %d%s\n", options.listen.c_str(),
                relay.port(), options.cert_file.empty() ? " (throwaway certificate)" : "");
    std::fflush(stdout);
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    while (!g_signalled) {
        struct timespec t {
            0, 100 * 1000 * 1000
        };
        nanosleep(&t, nullptr);
    }
    relay.Stop();
    return 0;
}
