// server-options.h: how one server runs: its data folder, where it listens, what it grants
// and how it behaves towards tests. Filled by main from the command line, or directly by
// tests that run a server in-process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "server-store.h"

struct ServerOptions {
    std::string data_dir;
    std::string listen = "127.0.0.1";  // dotted quad; loopback unless asked otherwise
    int port = 7620;                   // 0: the system picks
    // Seconds a connection may stay idle; every reply grants this much.
    uint32_t alive = 600;
    // Answer "connect" as the old server generation that doesn't describe itself.
    bool legacy_2402 = false;
    // Agree to TLS when a client asks ("encrypt_channel", or "connect" with "do_ssl"),
    // presenting the data folder's certificate; false refuses both, as a plain-only server.
    bool tls = true;
    // Print a line for each file payload a download reply carries (path, bytes, form), so
    // that tests and people can see what crossed the wire.
    bool trace_payloads = false;
    // A fault-injection file, re-read when it changes; empty for none.
    std::string faults_path;
    // A request still being worked on after this many seconds gets a keep-alive message,
    // and again after each further stretch.
    uint32_t keepalive_seconds = 20;
    size_t versions_kept = ServerStore::kDefaultVersionsKept;
    size_t max_pull_events = 5000;
};

// What the server announces in its "connect" reply.
constexpr uint64_t kServerBuild = 3100;
constexpr uint64_t kServerMajor = 1;
constexpr uint64_t kServerMinor = 0;
