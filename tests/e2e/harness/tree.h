// tree.h: a folder tree as the end-to-end tests compare it: every path with its type,
// size and MD4, read from the local disk or from the server's listing.
#pragma once

#include <cstdint>
#include <map>
#include <string>

struct TreeEntry {
    bool is_dir = false;
    uint64_t size = 0;  // files only
    std::string md4;    // files only, lower-case hex

    bool operator==(const TreeEntry&) const = default;
};

// Paths relative to the tree's root with a leading "/", as the server names them.
using Tree = std::map<std::string, TreeEntry>;

// The tree under `root`, without the daemon's working directory. Links and other special
// files are listed as files of size 0 with the MD4 "link", so that they show in a diff.
Tree LocalTree(const std::string& root);

// The tree in the output of `tarnbridge-server ls` ("d|f sync_id max_id size md4 path").
Tree ParseServerListing(const std::string& listing);

// The differences, one line each ("only local: /a", "differs: /b local f 3 ... server
// ..."); empty when both trees are the same.
std::string TreeDiff(const Tree& local, const Tree& server);

// The MD4 of a file's bytes in lower-case hex; empty when it can't be read.
std::string Md4OfFile(const std::string& path);
std::string Md4OfBytes(const std::string& bytes);
