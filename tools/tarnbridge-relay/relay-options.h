// relay-options.h: what a relay is told on its command line (main.cpp) or by a test.
#pragma once

#include <string>

struct RelayOptions {
    // The address and port to listen on; port 0 lets the system pick.
    std::string listen = "0.0.0.0";
    int port = 0;
    // The PEM certificate (chain) and private key presented to clients. Both empty: a
    // throwaway self-signed certificate made at start, enough for clients that don't
    // verify the relay, which is how the daemon's tunnel works.
    std::string cert_file;
    std::string key_file;
    // Seconds a target may take to accept the connection before the answer is 403.
    int connect_timeout = 10;
    // Seconds a client may take from its connection to the end of its upgrade request.
    int request_timeout = 30;
};
