// inotify-source.h (Linux): the change source on inotify. One inotify instance per
// session watches every directory of its tree; directories that appear are watched as
// they come (and what was created in them before the watch existed is reported), the
// watches of a renamed subtree follow it and those of a subtree moved out are dropped.
// Used through make_change_source by the detector; tests build one with short timings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/change-source.h"

namespace platform {

struct InotifyOptions {
    // How long an IN_MOVED_FROM waits for its IN_MOVED_TO before it counts as a move
    // out of the tree (a removal). It is never decided before the next read.
    int move_grace_ms = 20;
    // Removals are held until no removal has come for this long, so that a removal
    // of the root can still cancel them: a tree that is deleted empties from the
    // bottom up, and its files must not be deleted on the server.
    int removal_settle_ms = 150;
    // ... but a removal is never held longer than this.
    int removal_max_hold_ms = 3000;
    // How often a root that is gone is looked for again.
    int root_probe_ms = 1000;
    // A cap of our own on the watches of one session, met exactly like the system's
    // limit (fs.inotify.max_user_watches); 0 for none.
    size_t watch_limit = 0;
};

class InotifySource : public ChangeSource {
  public:
    // Null with *err set when inotify or the wake-up descriptor cannot be had.
    static std::unique_ptr<InotifySource> Create(const InotifyOptions& options, int* err);
    ~InotifySource() override;
    InotifySource(const InotifySource&) = delete;
    InotifySource& operator=(const InotifySource&) = delete;

    int add(uint64_t sess_id, const std::string& root, const std::string& private_dir,
            int* err) override;
    int remove(uint64_t sess_id) override;
    int wait(int timeout_ms, int* err) override;
    void wake() override;
    int read(std::vector<ChangeNotice>& out, int* err) override;

    // Directories of the session that are watched now; -1 for an unknown session.
    int watch_count(uint64_t sess_id);

  private:
    struct Item;
    struct Session;

    InotifySource(const InotifyOptions& options, int epoll_fd, int wake_fd);

    // Opens the session's instance and watches its whole tree. 0; -1 with *err.
    int Start(Session& s, int* err);
    void Close(Session& s);
    // Watches one directory (relative path) with the mask its place calls for.
    // The watch descriptor, or -1 with the problem noted in the session.
    int WatchDir(Session& s, const std::string& rel);
    // Watches `rel` and every directory below it; with `report`, every entry found
    // is queued as an addition (the tree is new and its contents were made before
    // their directories were watched).
    void WatchTree(Session& s, const std::string& rel, bool report, int64_t now);
    // Stops watching `rel` and everything below it; the watches dropped.
    std::unordered_set<int> DropSubtree(Session& s, const std::string& rel);
    void MoveSubtree(Session& s, const std::string& from, const std::string& to, int64_t now);

    void Drain(Session& s, int64_t now);
    void Handle(Session& s, uint32_t wd, uint32_t mask, uint32_t cookie, const char* name,
                int64_t now);
    // `wd` is the watch the change came from.
    void Queue(Session& s, int action, const std::string& path, bool is_dir, int wd, int64_t now);
    void PairMove(Session& s, uint32_t cookie, const std::string& path, bool is_dir, int wd,
                  int64_t now);
    void Finish(Session& s, int64_t now, std::vector<ChangeNotice>& out);
    void Release(Session& s, int64_t now, std::vector<ChangeNotice>& out);
    void GoDormant(Session& s, int64_t now, std::vector<ChangeNotice>& out);
    void Probe(Session& s, int64_t now, std::vector<ChangeNotice>& out);
    bool RootStillThere(const Session& s) const;
    // When the session next has something to deliver without new input; -1 never.
    int64_t NextDue(const Session& s) const;

    const InotifyOptions m_options;
    const int m_epoll_fd;
    const int m_wake_fd;
    std::mutex m_mutex;  // guards m_sessions and everything in them
    std::map<uint64_t, std::unique_ptr<Session>> m_sessions;
    uint64_t m_next_token = 1;  // epoll token of a session's instance; 0 is the wake-up
    uint64_t m_read_no = 0;
};

}  // namespace platform
