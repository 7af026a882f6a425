// log.cpp: levels, line format and rotation of the log.
#include "foundation/log.h"

#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/config.h"
#include "platform/fs.h"

namespace {

constexpr long kRotateAt = 1048576;
constexpr int kDefaultLimit = Logger::L_WARNING;

struct LogState {
    std::mutex mutex;
    int type = Logger::STDOUT_LOGGER;
    // Standard error although the type says standard output: kept so on purpose.
    FILE* console = stderr;
    std::unique_ptr<platform::File> file;  // the log file of a FILE_LOGGER
    ustring path;
    long size = -1;
    int rotate_count = 50;
    std::map<ustring, int> levels;
};

LogState& state() {
    static LogState s;
    return s;
}

// The log goes to the platform's own file system, not to one a test installed: its lines
// must neither fail with a test's injected faults nor count among the operations it fails.
std::unique_ptr<platform::File> open_append(const ustring& path) {
    std::unique_ptr<platform::File> file;
    platform::default_file_system().open(
        path.c_str_utf8(), platform::kOpenWrite | platform::kOpenCreate | platform::kOpenAppend,
        file, nullptr);
    return file;
}

// True when the whole line reached its destination.
bool write_line(LogState& s, const std::string& line) {
    if (s.file) return s.file->write(line.data(), line.size(), nullptr) >= 0;
    bool written = std::fputs(line.c_str(), s.console) >= 0;
    std::fflush(s.console);
    return written;
}

int limit_of(const LogState& s, const ustring& component) {
    auto it = s.levels.find(component);
    return it == s.levels.end() ? kDefaultLimit : it->second;
}

// Rotation counts characters, not bytes.
long count_chars(const char* text, size_t len) {
    long n = 0;
    for (size_t i = 0; i < len; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++n;
    return n;
}

ustring numbered(const ustring& path, int i) {
    return path + "_" + ustring(std::to_string(i));
}

int rotate_locked(LogState& s) {
    for (int i = s.rotate_count - 2; i >= 0; --i)
        platform::rename_noreplace(numbered(s.path, i).c_str_utf8(),
                                   numbered(s.path, i + 1).c_str_utf8());
    platform::default_file_system().remove_file(numbered(s.path, s.rotate_count - 1).c_str_utf8(),
                                                nullptr);
    s.file.reset();
    s.console = nullptr;
    if (platform::rename_noreplace(s.path.c_str_utf8(), numbered(s.path, 0).c_str_utf8()) != 0)
        return -1;
    s.file = open_append(s.path);
    return s.file ? 0 : -1;
}

}  // namespace

int Logger::Initialize(int type, const ustring& log_path, const ustring& level_path,
                       int rotate_count) {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    s.levels[ustring("default_component")] = 4;
    Config::map_type levels;
    if (!level_path.empty() && Config::read(level_path, levels) == 0)
        for (const auto& [component, level] : levels) s.levels[component] = Config::get_int(level);
    s.type = type;
    if (type != FILE_LOGGER) {
        s.file.reset();
        s.console = type == SYSLOG_LOGGER ? nullptr : (type == STDOUT_LOGGER ? stdout : stderr);
        s.path.clear();
        s.size = -1;
        return 0;
    }
    if (log_path.empty()) return -1;
    std::unique_ptr<platform::File> file = open_append(log_path);
    if (!file) return -1;
    s.file = std::move(file);
    s.console = nullptr;
    s.size = 0;
    s.path = log_path;
    s.rotate_count = rotate_count;
    return 0;
}

void Logger::Destroy() {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.type != FILE_LOGGER) return;
    s.file.reset();
    // The reverse pairing of Initialize's default, kept as it has always been.
    s.type = STDERR_LOGGER;
    s.console = stdout;
    s.size = -1;
    s.path.clear();
    s.rotate_count = 32;
}

bool Logger::Enabled(int level, const ustring& component) {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return level <= limit_of(s, component);
}

void Logger::LogMsg(int level, const ustring& component, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogMsg2(level, component, format, args);
    va_end(args);
}

void Logger::LogMsg2(int level, const ustring& component, const char* format, va_list args) {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    if (s.type != SYSLOG_LOGGER && !s.file && s.console == nullptr) return;
    if (level > limit_of(s, component)) return;
    if (s.type == SYSLOG_LOGGER) {
        std::vfprintf(stderr, format, args);
        return;
    }
    char stamp[64];
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    size_t stamp_len = std::strftime(stamp, sizeof stamp, "%b %d %H:%M:%S ", &local);
    va_list copy;
    va_copy(copy, args);
    int need = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (need < 0) return;
    std::string line(stamp, stamp_len);
    line.resize(stamp_len + static_cast<size_t>(need) + 1);
    std::vsnprintf(line.data() + stamp_len, static_cast<size_t>(need) + 1, format, args);
    line.resize(stamp_len + static_cast<size_t>(need));
    bool written = write_line(s, line);
    if (s.type != FILE_LOGGER || s.size < 0 || !written) return;
    s.size += count_chars(line.data(), line.size());
    if (s.size > kRotateAt) {
        rotate_locked(s);
        s.size = 0;
    }
}

int Logger::Rotate() {
    LogState& s = state();
    std::lock_guard<std::mutex> guard(s.mutex);
    return rotate_locked(s);
}

void LogMSG_c(int level, const char* component, const char* format, va_list args) {
    Logger::LogMsg2(level, ustring(component), format, args);
}
