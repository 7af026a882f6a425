// server-path.cpp: normalisation and arithmetic of view paths.
#include "server-path.h"

#include <cctype>

namespace server_path {

namespace {

bool BadComponent(const std::string& part) {
    if (part == "." || part == "..") return true;
    return part.find('\\') != std::string::npos;
}

bool DrivePrefix(const std::string& part) {
    return part.size() == 2 && part[1] == ':' && std::isalpha(static_cast<unsigned char>(part[0]));
}

}  // namespace

bool Normalize(const std::string& in, std::string& out) {
    if (in.find('\0') != std::string::npos) return false;
    std::string result;
    size_t pos = 0;
    bool first = true;
    while (pos <= in.size()) {
        size_t slash = in.find('/', pos);
        if (slash == std::string::npos) slash = in.size();
        std::string part = in.substr(pos, slash - pos);
        pos = slash + 1;
        if (part.empty()) continue;
        if (BadComponent(part) || (first && DrivePrefix(part))) return false;
        first = false;
        result += '/';
        result += part;
    }
    out = result.empty() ? "/" : result;
    return true;
}

std::string Parent(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return path;
    return path.substr(slash + 1);
}

bool IsWithin(const std::string& path, const std::string& root) {
    if (root == "/") return true;
    if (path.compare(0, root.size(), root) != 0) return false;
    return path.size() == root.size() || path[root.size()] == '/';
}

std::string Relative(const std::string& path, const std::string& root) {
    if (root == "/") return path;
    if (path.size() == root.size()) return "/";
    return path.substr(root.size());
}

std::string DescendantLow(const std::string& dir) {
    return dir == "/" ? "/" : dir + "/";
}

std::string DescendantHigh(const std::string& dir) {
    return dir == "/" ? "0" : dir + "0";
}

}  // namespace server_path
