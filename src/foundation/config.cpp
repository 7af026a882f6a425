// config.cpp: the line grammar of configuration and level files.
#include "foundation/config.h"

#include <memory>
#include <sstream>
#include <string>

#include "platform/fs.h"

namespace Config {
namespace {

constexpr size_t kLineLimit = 8192;

bool is_space(unsigned char c) {
    return c == ' ' || (c >= 9 && c <= 13);
}
bool is_key_char(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_';
}
bool is_control(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

// One line without its newline. 1 stored a pair, 0 ignorable line, -1 rejects the file.
int parse_line(const std::string& line, map_type& out) {
    size_t i = 0, n = line.size();
    auto at = [&](size_t k) { return static_cast<unsigned char>(line[k]); };
    auto skip_space = [&] {
        while (i < n && is_space(at(i))) ++i;
    };
    skip_space();
    size_t key_start = i;
    while (i < n && is_key_char(at(i))) ++i;
    std::string key = line.substr(key_start, i - key_start);
    // A key with nothing after it but blanks or a comment is a line to ignore.
    skip_space();
    if (i == n || line[i] == '#') return 0;
    if (line[i] != '=') return -1;
    ++i;
    skip_space();
    if (i == n) return -1;
    std::string value;
    char quote = line[i];
    if (quote == '"' || quote == '\'') {
        size_t close = line.find(quote, i + 1);
        if (close == std::string::npos) return -1;
        for (size_t k = i + 1; k < close; ++k)
            if (is_control(at(k))) return -1;
        value = line.substr(i + 1, close - i - 1);
        i = close + 1;
    } else {
        size_t start = i;
        while (i < n && line[i] != ' ' && !is_control(at(i))) ++i;
        value = line.substr(start, i - start);
    }
    skip_space();
    if (i < n && line[i] != '#') return -1;
    out[ustring(key)] = ustring(value);
    return 1;
}

}  // namespace

int parse(const char* text, size_t len, map_type& out) {
    out.clear();
    map_type collected;
    size_t pos = 0;
    while (pos < len) {
        size_t end = pos;
        while (end < len && text[end] != '\n') ++end;
        // Lines are read with a fixed limit; the rest of a longer line is read as a line
        // of its own, as a bounded line reader would.
        for (size_t start = pos; start < end || start == pos; start += kLineLimit - 1) {
            size_t piece = std::min(end - start, kLineLimit - 1);
            if (parse_line(std::string(text + start, piece), collected) < 0) return -1;
            if (start + piece >= end) break;
        }
        pos = end + 1;
    }
    out.swap(collected);
    return 0;
}

int read(const ustring& path, map_type& out) {
    out.clear();
    if (path.empty()) return -1;
    std::unique_ptr<platform::File> file;
    if (platform::file_system().open(path.c_str_utf8(), platform::kOpenRead, file, nullptr) != 0)
        return -1;
    std::string text;
    char buf[8192];
    int64_t got;
    while ((got = file->read(buf, sizeof buf, nullptr)) > 0)
        text.append(buf, static_cast<size_t>(got));
    if (got < 0) return -1;
    return parse(text.data(), text.size(), out);
}

int get_int(const ustring& value) {
    std::istringstream in(value.str());
    int v = 0;
    in >> v;
    return in.fail() ? 0 : v;
}

}  // namespace Config
