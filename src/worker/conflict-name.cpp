// conflict-name.cpp: the names a conflicting local object is moved aside to.
#include "worker/conflict-name.h"

#include <cstdarg>
#include <ctime>
#include <string>

#include "foundation/file-op.h"
#include "foundation/log.h"
#include "platform/clock.h"

namespace {

constexpr int kMaxTries = 99;
// The suffix is held to the wide characters a fixed name buffer takes, less its end mark.
constexpr size_t kSuffixUnits = 1023;

void ConflictLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void ConflictLog(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Logger::LogMsg2(level, "conflict_rename_debug", format, args);
    va_end(args);
}

// Cuts `text` to kSuffixUnits UTF-16 units, never between the halves of a pair.
ustring CutSuffix(const ustring& text) {
    const std::u16string wide(text.c_str());
    if (wide.size() <= kSuffixUnits) return text;
    size_t keep = kSuffixUnits;
    if (wide[keep - 1] >= 0xD800 && wide[keep - 1] <= 0xDBFF) --keep;
    return ustring(wide.data(), keep);
}

ustring Suffix(const ustring& client, const ustring& last) {
    return CutSuffix("_" + client + "_" + ConflictTimeStamp(platform::Now()) + "_" + last);
}

// Where a path splits for a suffix: the last separator and the last dot, npos if absent.
struct Split {
    size_t slash;
    size_t dot;
    explicit Split(const ustring& path) : slash(path.find_last_of("/\\")), dot(path.rfind('.')) {}
    // A dot in the last element (right behind the separator included).
    bool HasExtension() const {
        return dot != ustring::npos && (slash == ustring::npos || dot >= slash);
    }
};

// Stem, suffix, "_n", extension; or path, suffix, "_n" when there is no extension.
ustring Numbered(const ustring& path, const Split& at, const ustring& suffix, int n) {
    const ustring number = "_" + ustring(std::to_string(n));
    if (!at.HasExtension()) return path + suffix + number;
    return path.substr(0, at.dot) + suffix + number + path.substr(at.dot);
}

// Tries numbered names from `first` while `candidate` is taken; the last one tried stands.
ustring FreeName(const ustring& path, const ustring& suffix, ustring candidate, int first) {
    const Split at(path);
    for (int i = first; i <= kMaxTries && IsFileExist(candidate, true); ++i)
        candidate = Numbered(path, at, suffix, i);
    return candidate;
}

// The rename replaces an existing target, so a name still taken after every number is
// refused here: an earlier conflict copy must never be overwritten by a later one.
int MoveAside(const ustring& from, const ustring& to) {
    if (IsFileExist(to, true)) return -1;
    return FSRename(from, to, true);
}

}  // namespace

ustring ConflictTimeStamp(int64_t when) {
    const time_t t = static_cast<time_t>(when);
    struct tm local {};
    localtime_r(&t, &local);
    char stamp[64];
    const size_t n = strftime(stamp, sizeof(stamp), "%b-%d-%H%M-%Y", &local);
    return ustring(stamp, n);
}

int ConflictRename(const ustring& org_path, const ustring& client_name, const ustring& reason) {
    const ustring suffix = Suffix(client_name, reason);
    const Split at(org_path);
    // A path that ends in its dot keeps that dot ahead of the suffix here, behind the
    // number in the retries: the first name reads as the old one with a tail added.
    const bool ext_first = at.HasExtension() && at.dot + 1 != org_path.length();
    const ustring first = ext_first ? org_path.substr(0, at.dot) + suffix + org_path.substr(at.dot)
                                    : org_path + suffix;
    const ustring target = FreeName(org_path, suffix, first, 1);
    const int rc = MoveAside(org_path, target);
    if (rc == 0)
        ConflictLog(Logger::L_INFO,
                    "[INFO] conflict-rename(%d): ConflictRename from [%s] to [%s], reason = "
                    "[%s].\n",
                    __LINE__, org_path.c_str_utf8(), target.c_str_utf8(), reason.c_str_utf8());
    else
        ConflictLog(Logger::L_ERR,
                    "[ERROR] conflict-rename(%d): ConflictRename failed. From:[%s] To:[%s] err = "
                    "[%d]\n",
                    __LINE__, org_path.c_str_utf8(), target.c_str_utf8(), rc);
    return rc;
}

int WhiteSpaceConflictRename(const ustring& fullpath, const ustring& basename,
                             const ustring& clientname) {
    const size_t slash = fullpath.rfind('/');
    const ustring base_path = slash == ustring::npos ? ustring() : fullpath.substr(0, slash);
    ustring trimmed = basename;
    trimmed.trim(" ");
    const ustring new_path = base_path + "/" + trimmed;
    if (!IsFileExist(new_path, true) && FSRename(fullpath, new_path, true) == 0) {
        ConflictLog(Logger::L_INFO,
                    "[INFO] conflict-rename(%d): WhiteSpaceConflictRename from [%s] to [%s].\n",
                    __LINE__, fullpath.c_str_utf8(), new_path.c_str_utf8());
        return 0;
    }
    const ustring suffix = Suffix(clientname, "WhiteSpaceConflict");
    const Split at(new_path);
    const ustring first = at.HasExtension()
                              ? new_path.substr(0, at.dot) + suffix + new_path.substr(at.dot)
                              : new_path + suffix;
    const ustring target = FreeName(new_path, suffix, first, 0);
    const int rc = MoveAside(fullpath, target);
    if (rc == 0)
        ConflictLog(Logger::L_INFO,
                    "[INFO] conflict-rename(%d): WhiteSpaceConflictRename from [%s] to [%s].\n",
                    __LINE__, fullpath.c_str_utf8(), target.c_str_utf8());
    else
        ConflictLog(Logger::L_ERR,
                    "[ERROR] conflict-rename(%d): WhiteSpaceConflictRename failed. From:[%s] "
                    "To:[%s] err=[%d]\n",
                    __LINE__, fullpath.c_str_utf8(), target.c_str_utf8(), rc);
    return rc;
}
