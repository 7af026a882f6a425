// files.h: whole files for tests, read and written behind the code under test with the
// system's own calls, so that a fault of ours can't hide in the check. Header-only.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// The whole content of a file; empty when it can't be read.
inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Replaces the file's content with `bytes` (appends with `append`). False on failure.
inline bool WriteFile(const std::string& path, const std::string& bytes, bool append = false) {
    std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
    out << bytes;
    return static_cast<bool>(out.flush());
}

// Whether anything answers to `path`, a dangling link included.
inline bool Exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// How often `what` occurs in `text`, overlaps counted.
inline size_t CountIn(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// The lines of `text`, without their ends.
inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

// `n` bytes from a seed; two calls with one seed agree.
inline std::string RandomBytes(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string out(n, '\0');
    for (char& c : out) c = static_cast<char>(gen() & 0xFF);
    return out;
}

// `n` bytes whose pattern repeats only after a long stretch, so a misplaced chunk shows;
// cheaper than RandomBytes for large buffers.
inline std::string PatternBytes(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
    return s;
}
