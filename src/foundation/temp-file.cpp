// temp-file.cpp: TempFile and SFFile on the file layer.
#include "foundation/temp-file.h"

#include "foundation/file-op.h"
#include "foundation/log.h"

namespace {
const char kLog[] = "utility_debug";
// The system's own place for temporary files; set up properly by initialize().
const char kSystemTemp[] = "/tmp";
}  // namespace

ustring TempFile::default_prefix = kSystemTemp;
ustring SFFile::default_prefix = kSystemTemp;

TempFile::TempFile(const ustring& prefix)
    : tmp_prefix(prefix.empty() ? default_prefix : prefix), ref(std::make_shared<int>(0)) {}

TempFile::TempFile(const TempFile& t) : ref(std::make_shared<int>(0)) {
    *this = t;
}

TempFile& TempFile::operator=(const TempFile& t) {
    if (this == &t) return *this;
    if (ref == t.ref) {
        tmp_prefix = t.tmp_prefix;
        permanent = t.permanent;
        return *this;
    }
    release();
    tmp_prefix = t.tmp_prefix;
    path = t.path;
    permanent = t.permanent;
    if (path.empty()) return *this;
    ref = t.ref;
    ++*ref;
    return *this;
}

TempFile::~TempFile() {
    release();
}

void TempFile::release() {
    if (*ref >= 2) {
        --*ref;
    } else if (*ref == 1 && !permanent) {
        remove();
    }
    ref = std::make_shared<int>(0);
    path.clear();
}

int TempFile::initialize(const ustring& prefix) {
    default_prefix = prefix;
    return 0;
}

int TempFile::create() {
    if (*ref != 0) return -1;
    if (FSMktemp(tmp_prefix, path) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] utility(%d): failed to create TempFile ...\n",
                       __LINE__);
        return -1;
    }
    *ref = 1;
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): creating TempFile '%s'\n", __LINE__,
                   path.c_str_utf8());
    return 0;
}

void TempFile::remove() {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): removing TempFile '%s'\n", __LINE__,
                   path.c_str_utf8());
    FSRemove(path, false);
    // The copies keep the emptied counter, so none of them deletes anything later; this
    // object starts a counter of its own, so a file it creates next is not tied to them.
    *ref = 0;
    ref = std::make_shared<int>(0);
    path.clear();
}

SFFile::SFFile(const ustring& prefix) : m_prefix(prefix.empty() ? default_prefix : prefix) {}

int SFFile::initialize(const ustring& prefix) {
    default_prefix = prefix;
    return 0;
}

int SFFile::create() {
    if (!m_path.empty()) {
        Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): use exist file\n", __LINE__);
        return 0;
    }
    if (FSMktemp(m_prefix, m_path) != 0) {
        Logger::LogMsg(Logger::L_ERR, kLog, "[ERROR] utility(%d): failed to create File ...\n",
                       __LINE__);
        return -1;
    }
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): creating File '%s'\n", __LINE__,
                   m_path.c_str_utf8());
    return 0;
}

void SFFile::remove() {
    Logger::LogMsg(Logger::L_DEBUG, kLog, "[DEBUG] utility(%d): removing File '%s'\n", __LINE__,
                   m_path.c_str_utf8());
    FSRemove(m_path, false);
    m_path.clear();
}

uint64_t SFFile::getSize() const {
    FILE_INFO info;
    FSStat(m_path, info, true);
    return info.isExist ? info.size : 0;
}
