// trash.cpp (POSIX): the freedesktop.org trash, through a FileSystem.
#include "platform/posix/trash.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

namespace platform {
namespace {

// Keeps "NAME.trashinfo" and numbered variants inside the 255-byte name limit.
constexpr size_t kMaxTrashName = 200;

int set_err(int* err, int e) {
    if (err != nullptr) *err = e;
    return -1;
}

std::string absolute(const char* path) {
    std::string abs(path);
    if (abs[0] != '/') {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof cwd) == nullptr) return {};
        abs = std::string(cwd) + "/" + abs;
    }
    while (abs.size() > 1 && abs.back() == '/') abs.pop_back();
    return abs;
}

std::string parent_of(const std::string& path) {
    size_t cut = path.rfind('/');
    return cut == 0 || cut == std::string::npos ? std::string("/") : path.substr(0, cut);
}

std::string join(const std::string& dir, const std::string& name) {
    return dir == "/" ? "/" + name : dir + "/" + name;
}

std::string home_trash() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    if (xdg != nullptr && *xdg == '/') return std::string(xdg) + "/Trash";
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home == '/') return std::string(home) + "/.local/share/Trash";
    return {};
}

// mkdir -p with private directories; links in the chain are followed, since users
// often link parts of their home.
int make_dirs(FileSystem& fs, const std::string& path, int* err) {
    NodeInfo node;
    if (fs.stat(path.c_str(), node, nullptr) == 0)
        return node.kind == NodeKind::kDirectory ? 0 : set_err(err, ENOTDIR);
    std::string parent = parent_of(path);
    if (parent != path && make_dirs(fs, parent, err) != 0) return -1;
    int e = 0;
    if (fs.mkdir(path.c_str(), 0700, &e) == 0 || e == EEXIST) return 0;
    return set_err(err, e);
}

// A per-user trash on a shared volume must be a real directory that the user owns,
// or another user could read or swap what we put there.
int ensure_private_dir(FileSystem& fs, const std::string& path, uint32_t uid, int* err) {
    NodeInfo node;
    int e = 0;
    if (fs.lstat(path.c_str(), node, &e) != 0) {
        if (e != ENOENT) return set_err(err, e);
        if (fs.mkdir(path.c_str(), 0700, &e) != 0 && e != EEXIST) return set_err(err, e);
        if (fs.lstat(path.c_str(), node, &e) != 0) return set_err(err, e);
    }
    if (node.kind != NodeKind::kDirectory || node.uid != uid) return set_err(err, EPERM);
    return 0;
}

// The highest directory above `path` that is still on `device`.
std::string volume_top(FileSystem& fs, const std::string& path, uint64_t device) {
    std::string top = path;
    while (top != "/") {
        std::string up = parent_of(top);
        NodeInfo node;
        if (fs.lstat(up.c_str(), node, nullptr) != 0 || node.device != device) break;
        top = up;
    }
    return top;
}

int volume_trash(FileSystem& fs, const std::string& top, std::string& out, int* err) {
    uint32_t uid = ::getuid();
    std::string admin = join(top, ".Trash");
    NodeInfo node;
    if (fs.lstat(admin.c_str(), node, nullptr) == 0 && node.kind == NodeKind::kDirectory &&
        (node.mode & 01000) != 0) {
        std::string mine = admin + "/" + std::to_string(uid);
        if (ensure_private_dir(fs, mine, uid, nullptr) == 0) {
            out = mine;
            return 0;
        }
    }
    std::string own = join(top, ".Trash-" + std::to_string(uid));
    if (ensure_private_dir(fs, own, uid, err) != 0) return -1;
    out = own;
    return 0;
}

std::string escape_path(const std::string& path) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                     c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
        if (plain) {
            out += static_cast<char>(c);
            continue;
        }
        out += '%';
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    return out;
}

std::string deletion_date() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &local);
    return buf;
}

// The object's name in the trash, cut on a character boundary when too long.
std::string trash_base(const std::string& abs) {
    std::string base = abs.substr(abs.rfind('/') + 1);
    if (base.size() <= kMaxTrashName) return base;
    size_t cut = kMaxTrashName;
    while (cut > 0 && (static_cast<unsigned char>(base[cut]) & 0xC0) == 0x80) --cut;
    return base.substr(0, cut);
}

int write_info(FileSystem& fs, const std::string& info_file, const std::string& text, int* err) {
    std::unique_ptr<File> file;
    if (fs.open(info_file.c_str(), kOpenWrite | kOpenCreate | kOpenExclusive, file, err) != 0)
        return -1;
    if (file->write(text.data(), text.size(), err) >= 0 && file->sync(err) == 0 &&
        file->close(err) == 0)
        return 0;
    file.reset();
    fs.remove_file(info_file.c_str(), nullptr);
    return -1;
}

int put_in_trash(FileSystem& fs, const std::string& trash, const std::string& abs,
                 const std::string& recorded, int* err) {
    std::string files = trash + "/files";
    std::string info = trash + "/info";
    if (make_dirs(fs, files, err) != 0 || make_dirs(fs, info, err) != 0) return -1;
    std::string text =
        "[Trash Info]\nPath=" + escape_path(recorded) + "\nDeletionDate=" + deletion_date() + "\n";
    std::string base = trash_base(abs);
    for (int n = 1; n < 10000; ++n) {
        std::string name = n == 1 ? base : base + "." + std::to_string(n);
        std::string target = files + "/" + name;
        NodeInfo taken;
        if (fs.lstat(target.c_str(), taken, nullptr) == 0) continue;
        std::string info_file = info + "/" + name + ".trashinfo";
        int e = 0;
        if (write_info(fs, info_file, text, &e) != 0) {
            if (e == EEXIST) continue;
            return set_err(err, e);
        }
        if (fs.rename_noreplace(abs.c_str(), target.c_str(), &e) == 0) return 0;
        fs.remove_file(info_file.c_str(), nullptr);
        if (e != EEXIST) return set_err(err, e);
    }
    return set_err(err, EEXIST);
}

}  // namespace

int freedesktop_trash(FileSystem& fs, const char* path, int* err) {
    if (path == nullptr || *path == '\0') return set_err(err, EINVAL);
    std::string abs = absolute(path);
    if (abs.empty()) return set_err(err, errno);
    if (abs == "/") return set_err(err, EINVAL);
    NodeInfo obj;
    if (fs.lstat(abs.c_str(), obj, err) != 0) return -1;

    std::string home = home_trash();
    NodeInfo home_node;
    if (!home.empty() && make_dirs(fs, home, nullptr) == 0 &&
        fs.stat(home.c_str(), home_node, nullptr) == 0 && home_node.device == obj.device)
        return put_in_trash(fs, home, abs, abs, err);

    std::string top = volume_top(fs, abs, obj.device);
    if (top == abs) return set_err(err, EXDEV);
    std::string trash;
    if (volume_trash(fs, top, trash, err) != 0) return -1;
    std::string relative = top == "/" ? abs.substr(1) : abs.substr(top.size() + 1);
    return put_in_trash(fs, trash, abs, relative, err);
}

}  // namespace platform
