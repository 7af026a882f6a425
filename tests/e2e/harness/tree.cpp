// tree.cpp: reading trees from the disk and from the server's listing, and comparing them.
#include "harness/tree.h"

#include <openssl/md4.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

constexpr const char* kWorkingDirectory = "/.ZephanorWorkingDirectory";

std::string Describe(const TreeEntry& e) {
    if (e.is_dir) return "d";
    return "f " + std::to_string(e.size) + " " + e.md4;
}

std::string Hex(MD4_CTX& ctx) {
    unsigned char digest[MD4_DIGEST_LENGTH];
    MD4_Final(digest, &ctx);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : digest) {
        hex += kHex[b >> 4];
        hex += kHex[b & 15];
    }
    return hex;
}

}  // namespace

std::string Md4OfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::string();
    MD4_CTX ctx;
    MD4_Init(&ctx);
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0)
        MD4_Update(&ctx, buf, static_cast<size_t>(in.gcount()));
    return Hex(ctx);
}

std::string Md4OfBytes(const std::string& bytes) {
    MD4_CTX ctx;
    MD4_Init(&ctx);
    MD4_Update(&ctx, bytes.data(), bytes.size());
    return Hex(ctx);
}

Tree LocalTree(const std::string& root) {
    Tree tree;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        // Lexical: relative() would resolve a link to wherever it points.
        const std::string rel = "/" + it->path().lexically_relative(root).generic_string();
        if (rel == kWorkingDirectory) {
            it.disable_recursion_pending();
            continue;
        }
        TreeEntry entry;
        const fs::file_status status = it->symlink_status();
        if (fs::is_directory(status)) {
            entry.is_dir = true;
        } else if (fs::is_regular_file(status)) {
            entry.size = it->file_size();
            entry.md4 = Md4OfFile(it->path());
        } else {
            entry.md4 = "link";
        }
        tree[rel] = entry;
    }
    return tree;
}

Tree ParseServerListing(const std::string& listing) {
    Tree tree;
    std::istringstream lines(listing);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string kind, md4;
        uint64_t sync_id = 0, max_id = 0;
        TreeEntry entry;
        if (!(fields >> kind >> sync_id >> max_id >> entry.size >> md4)) continue;
        fields >> std::ws;
        std::string path;
        std::getline(fields, path);
        entry.is_dir = kind == "d";
        if (entry.is_dir)
            entry.size = 0;
        else
            entry.md4 = md4;
        tree[path] = entry;
    }
    return tree;
}

std::string TreeDiff(const Tree& local, const Tree& server) {
    std::string out;
    for (const auto& [path, entry] : local) {
        auto it = server.find(path);
        if (it == server.end())
            out += "only local: " + path + "\n";
        else if (!(it->second == entry))
            out += "differs: " + path + " local " + Describe(entry) + " server " +
                   Describe(it->second) + "\n";
    }
    for (const auto& [path, entry] : server)
        if (local.find(path) == local.end()) out += "only on the server: " + path + "\n";
    return out;
}
