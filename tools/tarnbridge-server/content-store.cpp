// content-store.cpp: content files on disk.
#include "content-store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "foundation/log.h"
#include "foundation/tmp-name-gen.h"

namespace fs = std::filesystem;

namespace {

const char* const kLog = "server_debug";

std::string Bucket(int64_t id) {
    char name[8];
    std::snprintf(name, sizeof name, "%02x", static_cast<unsigned>(id & 0xFF));
    return name;
}

int SyncDirectory(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = ::fsync(fd);
    ::close(fd);
    return rc == 0 ? 0 : -1;
}

}  // namespace

int ContentStore::Open(const std::string& data_dir) {
    m_root = data_dir + "/content";
    m_temp = m_root + "/tmp";
    m_spool = data_dir + "/spool";
    m_resume = data_dir + "/resume";
    std::error_code ec;
    for (const std::string& dir : {m_root, m_temp, m_spool, m_resume}) {
        fs::create_directories(dir, ec);
        if (ec) {
            Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): mkdir %s: %s\n",
                           __LINE__, dir.c_str(), ec.message().c_str());
            return -1;
        }
    }
    return 0;
}

std::string ContentStore::PathOf(int64_t id) const {
    return m_root + "/" + Bucket(id) + "/" + std::to_string(id);
}

std::string ContentStore::NewTempPath() const {
    return TmpNameGen::getTmpName(m_temp.c_str()).str();
}

std::string ContentStore::NewSpoolPath() const {
    return TmpNameGen::getTmpName(m_spool.c_str()).str();
}

int ContentStore::Sync(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    int rc = ::fsync(fd);
    ::close(fd);
    return rc == 0 ? 0 : -1;
}

int ContentStore::Adopt(const std::string& temp_path, int64_t id) {
    std::string dir = m_root + "/" + Bucket(id);
    std::error_code ec;
    fs::create_directories(dir, ec);
    fs::rename(temp_path, PathOf(id), ec);
    if (ec) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] content-store(%d): adopt %s: %s\n", __LINE__,
                       temp_path.c_str(), ec.message().c_str());
        return -1;
    }
    SyncDirectory(dir);
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
