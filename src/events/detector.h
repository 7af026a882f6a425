// detector.h: the task that watches the root of every session and turns the
// platform's change records into local events: it drops what lies in the
// working directory, pairs renames, spells paths as on disk and learns each
// path's type from the disk or, for a removal, from the session's database. One
// thread for all sessions; the daemon starts it at link and adds and removes
// sessions' watches while it runs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "events/event-manager.h"
#include "events/event.h"
#include "foundation/mutex.h"
#include "foundation/ustring.h"
#include "platform/change-source.h"
#include "runtime/session-folders.h"
#include "runtime/task.h"

// Where the detector's results go: the event manager and the user interface in
// the daemon, a recorder in tests. Called with the detector's lock held, so an
// implementation must not call back into the detector.
class DetectorSink {
  public:
    virtual ~DetectorSink() = default;
    virtual void PushLocalEvent(const Event& e) = 0;
    virtual void IssueExpand(uint64_t sess_id, const ustring& path) = 0;
    virtual void IssueRescan(uint64_t sess_id, const ustring& path, bool do_merge) = 0;
    // A session-wide error for the user interface (an ERR_ code).
    virtual void ReportSessionError(uint64_t sess_id, int error) = 0;
};

class Detector : public Task {
  public:
    // The top-level directory of a sync folder that holds the daemon's temporary
    // files, and the recycle bin inside it.
    static constexpr const char* kWorkingDirectory = session_folders::kWorkingDirectory;
    static constexpr const char* kRecycleBin = session_folders::kRecycleBin;

    // One watched session.
    struct session_info {
        ustring path;                                     // the session root
        bool folds_case = false;                          // its volume compares names without case
        std::vector<platform::ChangeNotice> read_buffer;  // records awaiting translation
    };

    // `source`: where changes come from, null for the platform's own. `sink`:
    // where the events go, null for the event manager and the user interface; a
    // given sink must outlive the detector.
    explicit Detector(std::unique_ptr<platform::ChangeSource> source = nullptr,
                      DetectorSink* sink = nullptr);
    // Stops and joins the thread, then closes every watch.
    ~Detector() override;

    // Starts watching `path` for session `sess_id` (replacing a watch of that id)
    // and makes sure the working directory exists. 0; -1 when the folder can't be
    // watched.
    int AddWatch(const ustring& path, uint64_t sess_id);
    // Closes that session's watch and drops what it had not translated; an
    // unknown id does nothing. A rename half-seen stays in `cache`.
    void RemoveWatch(uint64_t sess_id);
    // Closes every watch.
    void Clear();

    // The thread's loop: reads and translates until the state is STOP; while
    // paused it reads nothing (the platform's queue may then overflow, which
    // means a rescan).
    void DoTask() override;
    // Change the state and end the current wait at once.
    int Pause() override;
    int Stop() override;

    // Turns one record of `sess_id`, whose root is `watch`, into `e`: 0 with `e`
    // filled, -1 when the record makes no event (working directory, the first
    // half of a rename, a directory's own modification, an unknown type).
    // `following` is how many records of the same read come after this one (for
    // the log).
    int Translate(Event& e, uint64_t sess_id, const ustring& watch,
                  const platform::ChangeNotice& notify, int following = 0);
    // Gives a translated event to the sink: a rename as the removal of its source
    // and the creation of its target; a directory that appeared also gets an
    // expand, since it may have contents of which no record will come.
    void PushEvent(Event& e);

    // Creates root/.ZephanorWorkingDirectory and the recycle bin inside it;
    // failures, an existing directory among them, are ignored.
    static void CreateWorkingDirectory(const ustring& root);
    // `name` (a path relative to the root, no leading "/") is the working
    // directory or lies in it; its name is compared without regard to case.
    static bool IsFromWorkingDirectory(const ustring& name);
    // `path` (with its leading "/") is the recycle bin.
    static bool IsRecycleBin(const ustring& path);
    // The log name of a record's action, "FILE_ACTION_UNKNOWN" for any other
    // value.
    static const char* ActionText(int action);

  private:
    // 1 or more when the source has something to read, 0 on a timeout or a
    // wake-up, -1 on failure (after a pause of a second).
    int WaitHandle();
    // Moves what the source has into the sessions' buffers; answers its notices.
    void ReadFromHandle();
    void HandleNotice(platform::ChangeNotice& notice, session_info& info);
    // Translates and pushes every buffered record.
    void ReadFromBuffer();
    // Where a record points: `name` relative to the root, `path` the same with a
    // leading "/", `full_path` on disk.
    struct RecordPath {
        ustring name;
        ustring path;
        ustring full_path;
    };
    // The phases of Translate, in order; each logs why it ends the record.
    // The record's path, spelt as on disk where the volume ignores case.
    RecordPath SpellAsOnDisk(uint64_t sess_id, const ustring& watch, const ustring& name,
                             int action);
    // True when the record lies in the working directory and makes no event; the
    // working directory is made again when it was taken away.
    bool DropWorkingDirectory(uint64_t sess_id, const ustring& watch, const RecordPath& where,
                              int action);
    // Sets the event's type and path from the action, pairing rename halves through
    // `cache`. 0; -1 for the first half of a rename or an unknown action.
    int MapAction(Event& e, uint64_t sess_id, const ustring& path, int action);
    // Marks a directory from the disk or, for what is gone, from the database; a
    // rename whose target is gone becomes the removal of its source. 0; -1 when the
    // record makes no event.
    int LearnType(Event& e, uint64_t sess_id, const ustring& full_path);
    // The database's type of a path that is not on disk: 0 with F_DIR set or not,
    // -1 when unknown (logged).
    int TypeFromDatabase(Event& e, uint64_t sess_id, const ustring& path);

    // Guards index, cache and the buffers; held while translating and pushing, so
    // it comes before the event manager's lock.
    Mutex lock ACQUIRED_BEFORE(EventManager::m_lock);
    std::map<uint64_t, session_info> index;
    // The old path of a rename whose new name has not been seen, per session.
    std::map<uint64_t, ustring> cache;

    std::unique_ptr<platform::ChangeSource> m_source;
    int m_source_error = 0;  // why there is no source
    std::unique_ptr<DetectorSink> m_own_sink;
    DetectorSink* m_sink;
};
