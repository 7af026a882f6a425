// content-store.cpp: content files on disk.
#include "content-store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "foundation/log.h"
#include "foundation/tmp-name-gen.h"

namespace fs = std::filesystem;

namespace {

const char* const kLog = "server_debug";
constexpr int kBuckets = 256;

std::string Bucket(int64_t id) {
    char name[8];
    std::snprintf(name, sizeof name, "%02x", static_cast<unsigned>(id & 0xFF));
    return name;
}

int SyncPath(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = ::fsync(fd);
    ::close(fd);
    return rc == 0 ? 0 : -1;
}

}  // namespace

std::atomic<uint64_t> ContentStore::s_flushes{0};

int ContentStore::Open(const std::string& data_dir) {
    m_root = data_dir + "/content";
    m_temp = m_root + "/tmp";
    m_spool = data_dir + "/spool";
    m_resume = data_dir + "/resume";
    std::error_code ec;
    if (fs::is_directory(m_root + "/" + Bucket(kBuckets - 1), ec) &&
        fs::is_directory(m_temp, ec) && fs::is_directory(m_spool, ec) &&
        fs::is_directory(m_resume, ec))
        return 0;
    // Every bucket exists from the start, so that adopting a content never makes a folder.
    for (const std::string& dir : {m_root, m_temp, m_spool, m_resume})
        fs::create_directories(dir, ec);
    for (int b = 0; b < kBuckets && !ec; ++b) fs::create_directories(m_root + "/" + Bucket(b), ec);
    if (ec) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): mkdir in %s: %s\n",
                       __LINE__, data_dir.c_str(), ec.message().c_str());
        return -1;
    }
    return SyncFolder(m_root);
}

std::string ContentStore::PathOf(int64_t id) const {
    return m_root + "/" + Bucket(id) + "/" + std::to_string(id);
}

std::string ContentStore::FolderOf(int64_t id) const {
    return m_root + "/" + Bucket(id);
}

std::string ContentStore::NewTempPath() const {
    return TmpNameGen::getTmpName(m_temp.c_str()).str();
}

std::string ContentStore::NewSpoolPath() const {
    return TmpNameGen::getTmpName(m_spool.c_str()).str();
}

int ContentStore::Sync(const std::string& path) {
    ++s_flushes;
    return SyncPath(path, O_RDONLY);
}

int ContentStore::SyncFolder(const std::string& dir) {
    ++s_flushes;
    return SyncPath(dir, O_RDONLY | O_DIRECTORY);
}

int ContentStore::Adopt(const std::string& temp_path, int64_t id) {
    std::string target = PathOf(id);
    if (std::rename(temp_path.c_str(), target.c_str()) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): adopt %s: %s\n", __LINE__,
                       temp_path.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

void ContentStore::Release(int64_t id) {
    std::error_code ec;
    fs::remove(PathOf(id), ec);
}

size_t ContentStore::Sweep(const std::set<int64_t>& recorded) {
    size_t removed = 0;
    std::error_code ec;
    for (const std::string& dir : {m_temp, m_spool}) {
        for (const auto& entry : fs::directory_iterator(dir, ec)) {
            if (fs::remove_all(entry.path(), ec) > 0) ++removed;
        }
    }
    for (const auto& bucket : fs::directory_iterator(m_root, ec)) {
        if (!bucket.is_directory() || bucket.path() == fs::path(m_temp)) continue;
        for (const auto& entry : fs::directory_iterator(bucket.path(), ec)) {
            const std::string name = entry.path().filename().string();
            char* end = nullptr;
            long long id = std::strtoll(name.c_str(), &end, 10);
            if (end && *end == '\0' && recorded.count(id)) continue;
            if (fs::remove(entry.path(), ec)) ++removed;
        }
    }
    return removed;
}

int ContentStore::ReadFile(const std::string& path, std::string& bytes) {
    FILE* f = std::fopen(path.c_str(), "rbe");
    bool ok = f != nullptr;
    bytes.clear();
    char buf[65536];
    size_t got;
    while (ok && (got = std::fread(buf, 1, sizeof buf, f)) > 0) bytes.append(buf, got);
    if (f) ok = !std::ferror(f) && std::fclose(f) == 0;
    if (!ok)
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): read %s: %s\n", __LINE__,
                       path.c_str(), std::strerror(errno));
    return ok ? 0 : -1;
}

int ContentStore::WriteFile(const std::string& path, const std::string& bytes) {
    FILE* f = std::fopen(path.c_str(), "wbe");
    bool ok = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f) ok = std::fclose(f) == 0 && ok;
    if (!ok)
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): write %s: %s\n", __LINE__,
                       path.c_str(), std::strerror(errno));
    return ok ? 0 : -1;
}
