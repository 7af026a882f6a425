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
