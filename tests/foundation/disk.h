// disk.h: small look-ups at real files for the foundation tests.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>

// Whether anything (a dangling link included) answers to `path`.
inline bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// The whole content of a file; empty when it cannot be read.
inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// `n` bytes whose pattern repeats only after a long stretch, so a misplaced chunk shows.
inline std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
    return s;
}
