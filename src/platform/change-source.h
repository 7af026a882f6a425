// change-source.h: the platform's change notification, seen as a stream of small
// records per watched folder. The detector turns these records into events; tests feed
// it a scripted source instead. The default source (inotify on Linux) watches a whole
// tree and keeps watching directories that appear in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace platform {

// What happened to a name. A rename inside a watched tree is delivered as
// kRenamedOldName immediately followed by kRenamedNewName; something moved in from
// outside is kAdded, something moved out is kRemoved.
enum ChangeAction : int {
    kActionAdded = 1,
    kActionRemoved = 2,
    kActionModified = 3,
    kActionRenamedOldName = 4,
    kActionRenamedNewName = 5,
};

struct ChangeNotice {
    enum Kind {
        kRecord = 0,  // `action` happened to `path`
        // Changes of the session were lost (the platform's queue overflowed, or the
        // source had to rebuild its watches); only a comparison with the disk can find
        // them. The records of that read are dropped.
        kOverflow = 1,
        // `path` could not be watched because the per-user limit of watches is
        // reached; changes below it are not seen. `err` is the platform's number.
        kWatchLimit = 2,
        // `path` could not be watched for another reason (`err`, e.g. EACCES).
        kWatchFailed = 3,
        // The root itself was removed, moved away or unmounted. The session is no
        // longer watched and none of the changes that led there are delivered.
        kRootGone = 4,
        // A root that was gone is a directory again on the volume it was on, and is
        // watched again. Changes made while it was gone are not delivered.
        kRootBack = 5,
    };

    Kind kind = kRecord;
    uint64_t sess_id = 0;
    int action = 0;    // kRecord: a ChangeAction value
    std::string path;  // relative to the root, "/" between elements, no leading "/"
    int err = 0;       // kWatchLimit, kWatchFailed: the platform's error number
};

// A source of change notices for any number of sessions. add, remove and wake may be
// called from any thread while one other thread waits and reads.
class ChangeSource {
  public:
    virtual ~ChangeSource() = default;

    // Starts watching the tree at `root` (an existing directory) for `sess_id`, replacing
    // any watch of that id. In the top-level directory named `private_dir` (compared
    // without regard to ASCII case) and in its direct sub-directories only names that
    // go away or move are reported, and nothing deeper: the caller keeps its temporary
    // files and its bin there. 0; -1 with the platform's error number in *err when the
    // root cannot be watched at all. Directories below the root that cannot be watched
    // are reported as notices, not as a failure.
    virtual int add(uint64_t sess_id, const std::string& root, const std::string& private_dir,
                    int* err) = 0;
    // Stops watching `sess_id` and drops whatever it had not delivered. 0; -1 when the
    // id is not watched.
    virtual int remove(uint64_t sess_id) = 0;

    // Waits up to `timeout_ms` for notices. 1 or more when read() has something to
    // deliver (the number of sessions concerned); 0 on timeout or wake(); -1 on failure
    // with the error number in *err.
    virtual int wait(int timeout_ms, int* err) = 0;
    // Ends a wait() in progress (or the next one) at once.
    virtual void wake() = 0;
    // Appends, without waiting, every notice that is ready, in the order the changes
    // were made within each session. The number appended; -1 on failure with *err.
    // Some notices are held back for a moment so that they can be paired or cancelled
    // (a rename's two halves, the removals that precede a removal of the root).
    virtual int read(std::vector<ChangeNotice>& out, int* err) = 0;
};

// The platform's own source; null with *err set when it cannot be created.
std::unique_ptr<ChangeSource> make_change_source(int* err);

}  // namespace platform
