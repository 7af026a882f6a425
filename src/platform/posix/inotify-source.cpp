// inotify-source.cpp (Linux): the change source on inotify, epoll and an eventfd.
#include "platform/posix/inotify-source.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "platform/clock.h"

namespace platform {
namespace {

// Everything a user does to names and contents. IN_CLOSE_WRITE catches writes that
// give no IN_MODIFY (through a mapping) and a bare touch; IN_DONT_FOLLOW keeps a
// directory swapped for a link between listing and watching from leading out.
constexpr uint32_t kTreeMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                               IN_CLOSE_WRITE | IN_ONLYDIR | IN_DONT_FOLLOW;
// The root also reports its own end. It may be a link to the real folder.
constexpr uint32_t kRootMask = (kTreeMask & ~IN_DONT_FOLLOW) | IN_DELETE_SELF | IN_MOVE_SELF;
// The caller's private area: names that come, go or move; creations only matter for
// the directories that must be watched.
constexpr uint32_t kPrivateMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW;

constexpr size_t kReadBufferBytes = 64 * 1024;
// One Drain takes at most this much, so a busy tree can't keep a read going forever.
constexpr size_t kDrainLimitBytes = 4 * 1024 * 1024;

// Where a relative path lies with respect to the private directory.
enum Area { kUser, kPrivateTop, kPrivateChild, kPrivateDeep };

bool EqualsNoCase(const std::string& a, size_t a_len, const std::string& b) {
    if (a_len != b.size()) return false;
    for (size_t i = 0; i < a_len; ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

Area AreaOf(const std::string& rel, const std::string& private_dir) {
    if (private_dir.empty() || rel.empty()) return kUser;
    const size_t slash = rel.find('/');
    const size_t first_len = slash == std::string::npos ? rel.size() : slash;
    if (!EqualsNoCase(rel, first_len, private_dir)) return kUser;
    if (slash == std::string::npos) return kPrivateTop;
    return rel.find('/', slash + 1) == std::string::npos ? kPrivateChild : kPrivateDeep;
}

std::string Join(const std::string& dir, const std::string& name) {
    return dir.empty() ? name : dir + "/" + name;
}

bool IsAtOrBelow(const std::string& rel, const std::string& top) {
    if (rel.size() < top.size() || rel.compare(0, top.size(), top) != 0) return false;
    return rel.size() == top.size() || rel[top.size()] == '/';
}

}  // namespace

struct InotifySource::Item {
    int action = 0;
    std::string path;
    uint32_t cookie = 0;  // non-zero: an IN_MOVED_FROM still waiting for its IN_MOVED_TO
    bool is_dir = false;
    int wd = -1;  // the watch it came from
    int64_t at_ms = 0;
    uint64_t read_no = 0;  // the read that saw it
};

struct InotifySource::Session {
    uint64_t id = 0;
    uint64_t token = 0;
    std::string root;
    std::string private_dir;
    int fd = -1;
    int root_wd = -1;
    dev_t device = 0;  // the root's identity while it is watched
    ino_t inode = 0;
    bool dormant = false;  // the root is gone; looked for every root_probe_ms
    int64_t next_probe_ms = 0;
    std::unordered_map<int, std::string> dirs;  // watch descriptor -> relative path
    // What has been seen and not yet delivered, in the order it happened.
    std::deque<Item> queue;
    bool overflowed = false;
    bool root_gone = false;
    bool limit_hit = false;  // the watch limit was met in this pass; said once
    std::vector<ChangeNotice> problems;

    std::string Abs(const std::string& rel) const { return rel.empty() ? root : root + "/" + rel; }
};

std::unique_ptr<ChangeSource> make_change_source(int* err) {
    return InotifySource::Create(InotifyOptions{}, err);
}

std::unique_ptr<InotifySource> InotifySource::Create(const InotifyOptions& options, int* err) {
    const int epoll_fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd < 0) {
        if (err != nullptr) *err = errno;
        return nullptr;
    }
    const int wake_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = 0;
    if (wake_fd < 0 || ::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, wake_fd, &ev) != 0) {
        if (err != nullptr) *err = errno;
        if (wake_fd >= 0) ::close(wake_fd);
        ::close(epoll_fd);
        return nullptr;
    }
    return std::unique_ptr<InotifySource>(new InotifySource(options, epoll_fd, wake_fd));
}

InotifySource::InotifySource(const InotifyOptions& options, int epoll_fd, int wake_fd)
    : m_options(options), m_epoll_fd(epoll_fd), m_wake_fd(wake_fd) {}

InotifySource::~InotifySource() {
    for (auto& [id, s] : m_sessions) Close(*s);
    ::close(m_wake_fd);
    ::close(m_epoll_fd);
}

int InotifySource::add(uint64_t sess_id, const std::string& root, const std::string& private_dir,
                       int* err) {
    auto s = std::make_unique<Session>();
    s->id = sess_id;
    s->root = root;
    while (s->root.size() > 1 && s->root.back() == '/') s->root.pop_back();
    s->private_dir = private_dir;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        s->token = m_next_token++;
    }
    // The tree is walked without the lock: a large one takes a while, and the session
    // is nobody else's business until it is in the table.
    if (Start(*s, err) != 0) return -1;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto& slot = m_sessions[sess_id];
        if (slot) Close(*slot);
        slot = std::move(s);
    }
    wake();
    return 0;
}

int InotifySource::remove(uint64_t sess_id) {
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto it = m_sessions.find(sess_id);
        if (it == m_sessions.end()) return -1;
        Close(*it->second);
        m_sessions.erase(it);
    }
    wake();
    return 0;
}

void InotifySource::wake() {
    const uint64_t one = 1;
    // A full counter already means "wake up"; nothing else can go wrong here.
    [[maybe_unused]] ssize_t n = ::write(m_wake_fd, &one, sizeof one);
}

int InotifySource::wait(int timeout_ms, int* err) {
    int64_t due = -1;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        for (auto& [id, s] : m_sessions) {
            const int64_t d = NextDue(*s);
            if (d >= 0 && (due < 0 || d < due)) due = d;
        }
    }
    int timeout = timeout_ms < 0 ? 0 : timeout_ms;
    if (due >= 0) timeout = static_cast<int>(std::clamp<int64_t>(due - TickMs(), 0, timeout));

    epoll_event events[32];
    const int n = ::epoll_wait(m_epoll_fd, events, 32, timeout);
    if (n < 0) {
        if (errno == EINTR) return 0;
        if (err != nullptr) *err = errno;
        return -1;
    }
    int ready = 0;
    for (int i = 0; i < n; ++i) {
        if (events[i].data.u64 != 0) {
            ++ready;
            continue;
        }
        uint64_t count = 0;
        [[maybe_unused]] ssize_t r = ::read(m_wake_fd, &count, sizeof count);
    }
    if (ready > 0) return ready;
    return due >= 0 && TickMs() >= due ? 1 : 0;
}

int InotifySource::read(std::vector<ChangeNotice>& out, int*) {
    std::lock_guard<std::mutex> guard(m_mutex);
    ++m_read_no;
    const int64_t now = TickMs();
    const size_t before = out.size();
    for (auto& [id, s] : m_sessions) {
        if (s->dormant) {
            Probe(*s, now, out);
            continue;
        }
        Drain(*s, now);
        Finish(*s, now, out);
    }
    return static_cast<int>(out.size() - before);
}

int InotifySource::watch_count(uint64_t sess_id) {
    std::lock_guard<std::mutex> guard(m_mutex);
    auto it = m_sessions.find(sess_id);
    return it == m_sessions.end() ? -1 : static_cast<int>(it->second->dirs.size());
}

int InotifySource::Start(Session& s, int* err) {
    struct stat st {};
    int e = ENOTDIR;
    if (::stat(s.root.c_str(), &st) != 0) e = errno;
    if (e != ENOTDIR || !S_ISDIR(st.st_mode)) {
        if (err != nullptr) *err = e;
        return -1;
    }
    s.device = st.st_dev;
    s.inode = st.st_ino;
    s.fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (s.fd < 0) {
        if (err != nullptr) *err = errno;
        return -1;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = s.token;
    if (::epoll_ctl(m_epoll_fd, EPOLL_CTL_ADD, s.fd, &ev) != 0) {
        if (err != nullptr) *err = errno;
        Close(s);
        return -1;
    }
    s.root_wd = ::inotify_add_watch(s.fd, s.root.c_str(), kRootMask);
    if (s.root_wd < 0) {
        if (err != nullptr) *err = errno;
        Close(s);
        return -1;
    }
    s.dirs[s.root_wd] = "";
    WatchTree(s, "", false, TickMs());
    s.limit_hit = false;
    return 0;
}

void InotifySource::Close(Session& s) {
    if (s.fd >= 0) {
        ::epoll_ctl(m_epoll_fd, EPOLL_CTL_DEL, s.fd, nullptr);
        ::close(s.fd);
    }
    s.fd = -1;
    s.root_wd = -1;
    s.dirs.clear();
}

int InotifySource::WatchDir(Session& s, const std::string& rel) {
    const Area area = AreaOf(rel, s.private_dir);
    if (area == kPrivateDeep) return -1;
    int e = ENOSPC;
    int wd = -1;
    if (m_options.watch_limit == 0 || s.dirs.size() < m_options.watch_limit) {
        const uint32_t mask = rel.empty() ? kRootMask : area == kUser ? kTreeMask : kPrivateMask;
        wd = ::inotify_add_watch(s.fd, s.Abs(rel).c_str(), mask);
        e = errno;
    }
    if (wd >= 0) {
        s.dirs[wd] = rel;
        return wd;
    }
    // A directory that is gone again has nothing to watch and its removal is reported.
    if (e == ENOENT || e == ENOTDIR) return -1;
    if (e == ENOSPC) {
        if (!s.limit_hit) s.problems.push_back({ChangeNotice::kWatchLimit, s.id, 0, rel, e});
        s.limit_hit = true;
        return -1;
    }
    s.problems.push_back({ChangeNotice::kWatchFailed, s.id, 0, rel, e});
    return -1;
}

void InotifySource::WatchTree(Session& s, const std::string& top, bool report, int64_t now) {
    std::vector<std::string> stack{top};
    bool first = true;
    while (!stack.empty()) {
        const std::string rel = std::move(stack.back());
        stack.pop_back();
        // The top of a tree being started is watched already; the rest is watched
        // before it is listed, so nothing made meanwhile goes unseen.
        const bool watched = first && rel.empty() && s.root_wd >= 0;
        first = false;
        if (s.limit_hit) break;
        const int wd = watched ? s.root_wd : WatchDir(s, rel);
        if (wd < 0) continue;
        const Area area = AreaOf(rel, s.private_dir);
        DIR* dir = ::opendir(s.Abs(rel).c_str());
        if (dir == nullptr) continue;
        while (const dirent* ent = ::readdir(dir)) {
            const std::string name = ent->d_name;
            if (name == "." || name == "..") continue;
            const std::string child = Join(rel, name);
            bool is_dir = ent->d_type == DT_DIR;
            if (ent->d_type == DT_UNKNOWN) {
                struct stat st {};
                is_dir = ::lstat(s.Abs(child).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
            }
            if (report && area == kUser) Queue(s, kActionAdded, child, is_dir, wd, now);
            if (is_dir && AreaOf(child, s.private_dir) != kPrivateDeep) stack.push_back(child);
        }
        ::closedir(dir);
    }
}

std::unordered_set<int> InotifySource::DropSubtree(Session& s, const std::string& rel) {
    std::unordered_set<int> dropped;
    for (auto it = s.dirs.begin(); it != s.dirs.end();) {
        if (it->first != s.root_wd && IsAtOrBelow(it->second, rel)) {
            ::inotify_rm_watch(s.fd, it->first);
            dropped.insert(it->first);
            it = s.dirs.erase(it);
        } else {
            ++it;
        }
    }
    return dropped;
}

void InotifySource::MoveSubtree(Session& s, const std::string& from, const std::string& to,
                                int64_t now) {
    for (auto& [wd, rel] : s.dirs) {
        if (wd != s.root_wd && IsAtOrBelow(rel, from)) rel = to + rel.substr(from.size());
    }
    // Into, out of or within the private area the masks and depth change: watch it
    // again as a newcomer would be.
    if (AreaOf(from, s.private_dir) != kUser || AreaOf(to, s.private_dir) != kUser) {
        DropSubtree(s, to);
        WatchTree(s, to, false, now);
    }
}

void InotifySource::Drain(Session& s, int64_t now) {
    alignas(inotify_event) char buf[kReadBufferBytes];
    size_t taken = 0;
    while (taken < kDrainLimitBytes && !s.root_gone) {
        const ssize_t n = ::read(s.fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return;
        if (n <= 0) {
            // The instance is broken: rebuild it and have the tree compared.
            s.overflowed = true;
            return;
        }
        taken += static_cast<size_t>(n);
        for (const char* p = buf; p < buf + n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(p);
            p += sizeof(inotify_event) + ev->len;
            if (s.overflowed || s.root_gone) continue;
            Handle(s, static_cast<uint32_t>(ev->wd), ev->mask, ev->cookie,
                   ev->len > 0 ? ev->name : "", now);
        }
    }
}

void InotifySource::Handle(Session& s, uint32_t wd_bits, uint32_t mask, uint32_t cookie,
                           const char* name, int64_t now) {
    if (mask & IN_Q_OVERFLOW) {
        s.overflowed = true;
        return;
    }
    const int wd = static_cast<int>(wd_bits);
    auto it = s.dirs.find(wd);
    if (it == s.dirs.end()) return;  // a watch dropped a moment ago
    if (wd == s.root_wd && (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED))) {
        s.root_gone = true;
        return;
    }
    if (mask & IN_IGNORED) {
        s.dirs.erase(it);
        return;
    }
    if (*name == '\0') return;
    const std::string dir = it->second;
    const std::string rel = Join(dir, name);
    const bool is_dir = (mask & IN_ISDIR) != 0;
    const bool in_private = AreaOf(dir, s.private_dir) != kUser;
    if (mask & IN_CREATE) {
        if (in_private) {
            if (is_dir) WatchDir(s, rel);
            return;
        }
        Queue(s, kActionAdded, rel, is_dir, wd, now);
        if (is_dir) WatchTree(s, rel, true, now);
    } else if (mask & IN_DELETE) {
        Queue(s, kActionRemoved, rel, is_dir, wd, now);
    } else if (mask & (IN_MODIFY | IN_CLOSE_WRITE)) {
        if (!in_private && !is_dir) Queue(s, kActionModified, rel, false, wd, now);
    } else if (mask & IN_MOVED_FROM) {
        Item item;
        item.action = kActionRenamedOldName;
        item.path = rel;
        item.cookie = cookie != 0 ? cookie : 1;
        item.is_dir = is_dir;
        item.wd = wd;
        item.at_ms = now;
        item.read_no = m_read_no;
        s.queue.push_back(std::move(item));
    } else if (mask & IN_MOVED_TO) {
        PairMove(s, cookie, rel, is_dir, wd, now);
    }
}

void InotifySource::Queue(Session& s, int action, const std::string& path, bool is_dir, int wd,
                          int64_t now) {
    if (action == kActionModified && !s.queue.empty()) {
        const Item& last = s.queue.back();
        if (last.action == kActionModified && last.cookie == 0 && last.path == path) return;
    }
    Item item;
    item.action = action;
    item.path = path;
    item.is_dir = is_dir;
    item.wd = wd;
    item.at_ms = now;
    item.read_no = m_read_no;
    s.queue.push_back(std::move(item));
}

void InotifySource::PairMove(Session& s, uint32_t cookie, const std::string& path, bool is_dir,
                             int wd, int64_t now) {
    auto from = std::find_if(s.queue.rbegin(), s.queue.rend(),
                             [cookie](const Item& i) { return cookie != 0 && i.cookie == cookie; });
    if (from == s.queue.rend()) {
        // From outside the tree: its contents are new to us, but whoever consumes the
        // addition of a directory walks it anyway, so only the watches are set up.
        Queue(s, kActionAdded, path, is_dir, wd, now);
        if (is_dir) WatchTree(s, path, false, now);
        return;
    }
    from->cookie = 0;
    const std::string old_path = from->path;
    Item item;
    item.action = kActionRenamedNewName;
    item.path = path;
    item.is_dir = is_dir;
    item.wd = wd;
    item.at_ms = now;
    item.read_no = m_read_no;
    s.queue.insert(from.base(), std::move(item));
    if (is_dir) MoveSubtree(s, old_path, path, now);
}

void InotifySource::Finish(Session& s, int64_t now, std::vector<ChangeNotice>& out) {
    if (s.root_gone) {
        GoDormant(s, now, out);
        return;
    }
    if (s.overflowed) {
        s.overflowed = false;
        s.queue.clear();
        s.problems.clear();
        Close(s);
        if (Start(s, nullptr) != 0) {
            GoDormant(s, now, out);
            return;
        }
        out.push_back({ChangeNotice::kOverflow, s.id, 0, "", 0});
        for (auto& p : s.problems) out.push_back(std::move(p));
        s.problems.clear();
        return;
    }
    // An IN_MOVED_FROM whose pair did not come by this read went out of the tree.
    for (size_t k = 0; k < s.queue.size(); ++k) {
        Item& item = s.queue[k];
        if (item.cookie == 0 || item.read_no >= m_read_no ||
            now - item.at_ms < m_options.move_grace_ms) {
            continue;
        }
        item.cookie = 0;
        item.action = kActionRemoved;
        if (!item.is_dir) continue;
        // What came since from inside the departed directory happened outside the tree.
        const std::unordered_set<int> dropped = DropSubtree(s, item.path);
        const auto first_after = s.queue.begin() + static_cast<std::ptrdiff_t>(k + 1);
        s.queue.erase(std::remove_if(first_after, s.queue.end(),
                                     [&](const Item& i) { return dropped.count(i.wd) != 0; }),
                      s.queue.end());
    }
    for (auto& p : s.problems) out.push_back(std::move(p));
    s.problems.clear();
    s.limit_hit = false;
    Release(s, now, out);
}

void InotifySource::Release(Session& s, int64_t now, std::vector<ChangeNotice>& out) {
    int64_t first_removal = -1, last_removal = -1;
    for (const Item& item : s.queue) {
        if (item.action != kActionRemoved || item.cookie != 0) continue;
        if (first_removal < 0 || item.at_ms < first_removal) first_removal = item.at_ms;
        last_removal = std::max(last_removal, item.at_ms);
    }
    const bool hold_over = first_removal < 0 || now - last_removal >= m_options.removal_settle_ms ||
                           now - first_removal >= m_options.removal_max_hold_ms;
    size_t n = 0;
    bool removals = false;
    for (; n < s.queue.size(); ++n) {
        const Item& item = s.queue[n];
        if (item.cookie != 0) break;
        if (item.action == kActionRemoved) {
            if (!hold_over) break;
            removals = true;
        }
    }
    if (n == 0) return;
    // Removals go out only while the root is still the folder we watch: if it went,
    // they were the emptying of the whole tree.
    if (removals && !RootStillThere(s)) {
        GoDormant(s, now, out);
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        Item& item = s.queue[i];
        out.push_back({ChangeNotice::kRecord, s.id, item.action, std::move(item.path), 0});
    }
    s.queue.erase(s.queue.begin(), s.queue.begin() + static_cast<std::ptrdiff_t>(n));
}

void InotifySource::GoDormant(Session& s, int64_t now, std::vector<ChangeNotice>& out) {
    Close(s);
    s.queue.clear();
    s.problems.clear();
    s.overflowed = false;
    s.root_gone = false;
    s.limit_hit = false;
    s.dormant = true;
    s.next_probe_ms = now + m_options.root_probe_ms;
    out.push_back({ChangeNotice::kRootGone, s.id, 0, "", 0});
}

void InotifySource::Probe(Session& s, int64_t now, std::vector<ChangeNotice>& out) {
    if (now < s.next_probe_ms) return;
    s.next_probe_ms = now + m_options.root_probe_ms;
    struct stat st {};
    // Only the same volume counts: an unmounted folder leaves an empty mount point
    // behind, and that is not the user's folder.
    if (::stat(s.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_dev != s.device) return;
    if (Start(s, nullptr) != 0) {
        Close(s);
        s.problems.clear();
        return;
    }
    s.dormant = false;
    out.push_back({ChangeNotice::kRootBack, s.id, 0, "", 0});
    for (auto& p : s.problems) out.push_back(std::move(p));
    s.problems.clear();
}

bool InotifySource::RootStillThere(const Session& s) const {
    struct stat st {};
    return ::stat(s.root.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_dev == s.device &&
           st.st_ino == s.inode;
}

int64_t InotifySource::NextDue(const Session& s) const {
    if (s.dormant) return s.next_probe_ms;
    if (!s.problems.empty()) return 0;
    int64_t due = -1;
    int64_t first_removal = -1, last_removal = -1;
    for (const Item& item : s.queue) {
        if (item.cookie != 0) {
            const int64_t d = item.at_ms + m_options.move_grace_ms;
            if (due < 0 || d < due) due = d;
        } else if (item.action == kActionRemoved) {
            if (first_removal < 0 || item.at_ms < first_removal) first_removal = item.at_ms;
            last_removal = std::max(last_removal, item.at_ms);
        }
    }
    if (first_removal >= 0) {
        const int64_t d = std::min(last_removal + m_options.removal_settle_ms,
                                   first_removal + m_options.removal_max_hold_ms);
        if (due < 0 || d < due) due = d;
    }
    return due;
}

}  // namespace platform
