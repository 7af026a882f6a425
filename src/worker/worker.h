// worker.h: Worker, the task that carries out pending events one at a time. Several run
// side by side, each on its own thread, all taking work from the EventManager. A worker
// copies what is known of its event into its context, routes it to the handler for its
// kind (upload, download, removal in either direction, rescan, expansion) and turns the
// handler's result, by one table, into done, wait and retry, or give back, telling the
// user interface what it must hear. It also holds what every handler shares: the way to
// the server on a pooled connection (RequestChannel, RunProtocol, CallServer), the state
// an interrupted transfer keeps for resuming, and the filter tests.
//
// Started by the daemon's "link" with the other tasks. Other threads only pause, resume,
// stop and abort it, read its status, and install the drop barrier through which the
// control thread learns that every worker busy with a paused session has let go.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "events/event.h"
#include "foundation/file-op.h"
#include "foundation/mutex.h"
#include "foundation/object.h"
#include "foundation/stream.h"
#include "foundation/temp-file.h"
#include "foundation/ustring.h"
#include "runtime/registry.h"
#include "runtime/task.h"
#include "state/file-event-db.h"
#include "transport/connection-pool.h"
#include "transport/exchange.h"

class BlackList2;
class FileList;
class WhiteListCpp;
class Worker;
struct FilterLocalEvent;

// The handlers an event is routed to. Each works on the worker's current context and
// returns a daemon code (0 or an ERR_ code); a rescan or an expansion gives 0 or -1. A
// worker starts with its own member handlers; a test may put others in their place.
struct WorkerHandlers {
    std::function<int(Worker&)> upload_local;
    std::function<int(Worker&)> download_remote;
    std::function<int(Worker&)> remove_local;
    std::function<int(Worker&)> remove_remote;
    std::function<int(Worker&)> rescan;
    std::function<int(Worker&)> expand;
    std::function<int(Worker&)> expand_delete_event;
};

class Worker : public Task, private ServerCaller {
  public:
    // Everything known of the current event. Belongs to the worker's own thread.
    struct EventContext {
        Event current_event;                  // EV_EMPTY while the worker holds no event
        Registry::Entry root_entry;           // the session, copied from the registry
        ClientFileEventInfo database_record;  // the row of the event's path, or empty
        ustring working_directory;            // local_path + "/.ZephanorWorkingDirectory"
        ustring sign_directory;               // config_path + "/db/sign"
        ustring full_path;                    // local_path joined with the event's path
        // Empties every field; the event becomes EV_EMPTY, the mark of an idle context.
        void clear();
    };

    enum WorkingType { W_TYPE_NONE = 0, W_TYPE_UPLOAD = 1, W_TYPE_DOWNLOAD = 2 };
    // What the status query shows of a worker.
    struct ProcessEvent_T {
        uint64_t session_id = 0;
        ustring path;
        WorkingType working_type = W_TYPE_NONE;
    };

    // The drop barrier of a paused session. The control thread makes one with the number
    // of workers it aborts, installs it on each (setPauseInstance) and, holding
    // pause_mutex, waits in WaitForAll; each worker counts itself off at the top of its
    // next loop turn, and the last one wakes the control thread.
    struct PauseType_T {
        explicit PauseType_T(uint32_t workers) : count(workers) {}
        // Returns once every worker has counted itself off.
        void WaitForAll() REQUIRES(pause_mutex);

        Mutex pause_mutex;
        CondVar pause_cond;
        uint32_t count GUARDED_BY(pause_mutex);  // workers still to report
    };

    // What DoneEvent tells the user interface of a finished event.
    enum NotifyEventType {
        NOTIFY_NONE = 0,
        NOTIFY_FILTERED = 1,
        NOTIFY_SERVER_MODIFY = 2,
        NOTIFY_SERVER_REMOVE = 3,
        NOTIFY_CLIENT_MODIFY = 4,
        NOTIFY_CLIENT_REMOVE = 5,
    };
    // Whom the user interface is told of an error.
    enum ErrorType { ERR_NONE = 0, ERR_SESSION = 1, ERR_CONNECTION = 2, ERR_FILE = 3 };

    Worker();
    // Stops the thread, if it runs, and waits for it.
    ~Worker() override;

    // The thread's loop: take an event, route it, settle its fate by the error table.
    void DoTask() override;
    // Pause and Stop raise the abort flag first, so a transfer under way gives up within
    // a second; Resume lowers it. SetAbort sets it. All give 0.
    int Pause() override;
    int Resume() override;
    int Stop() override;
    int SetAbort(bool abort) override;

    // The event held, or a new one from the EventManager (with empty caches). 0; -1 when
    // there is none (the context is then idle).
    int GetEvent();
    // Fills the context from the registry and the session's database. 0; -1 when the event
    // was settled here instead: finished (its session is gone, or a non-recursive session
    // does not take it) or given back (its session is paused).
    int UpdateContext();
    // Routes the event to its handler and gives the handler's code.
    int ProcessEvent();
    // True when the current local event of a file held back a server removal and the
    // file is as its row says (nothing of the user's to keep): the removal is then
    // carried out instead, else it would be lost for good. False on any doubt.
    bool ServerRemovalStands();
    // Finishes the event: tells the user interface, clears its status row, empties the
    // context. 0; -1 when a newer event for the same path was waiting, which is now the
    // current event.
    int DoneEvent();
    // Gives the event back to its session's queue, empties the context, waits 2 seconds.
    void RedoEvent();
    // The action for a handler's code: 0 done, 1 wait and retry, 2 give back, negative
    // unexpected. Reports the error to the user interface by its type and keeps the
    // counters of system and patch failures.
    int HandleError(int err);
    // Tells the user interface of the current event as carried out. 0.
    int NotifyEvent(NotifyEventType type);

    // The current event, its transfer type and, while a file body moves, its progress. All
    // zero or empty while the worker is paused or stopped.
    void GetWorkingStatus(uint64_t& session_id, ustring& path, WorkingType& w_type, uint64_t& sent,
                          uint64_t& total_size) EXCLUDES(worker_state_lock);
    void SetCurrentProcessEventInfo(uint64_t sess_id, const ustring& path, WorkingType w_type)
        EXCLUDES(worker_state_lock);
    void GetCurrentProcessEventInfo(ProcessEvent_T& info) EXCLUDES(worker_state_lock);
    void ClearCurrentProcessEventInfo() EXCLUDES(worker_state_lock);
    // The current event's session and path with no transfer type; nothing for a rescan or
    // an expansion.
    void AdjustCurrentProcessEventInfo() EXCLUDES(worker_state_lock);

    // Installs the drop barrier (not owned; it must outlive the worker's report).
    void setPauseInstance(PauseType_T* instance);
    // Counts this worker off the installed barrier, if any, and forgets it.
    void NotifyAbortDone();

    // Releases what an interrupted transfer kept: the cached request and response with
    // their received files, and the resumable upload's signature file.
    void ClearCache();
    // Empties `p`, deleting the received file of its "file"."data" when that lies in the
    // working directory, and the file of its "mac_attribute"."data" wherever it lies.
    void ClearPObject(PObject& p);
    // A stream failure as a daemon code. A raised abort flag is lowered and gives -21 in a
    // pause (caches kept, the transfer resumes), else -1. Otherwise: a file or malformed
    // input -3 and a full disk -22, both clearing the caches; a channel failure or a
    // time-out -2 with the caches kept; any other failure -3. Never 0 for a failure.
    int streamErr2DaemonErr(int err);

    // One request and its reply on `ch`, keep-alives skipped; received files land in the
    // working directory. The abort flag interrupts the wait for the reply, except for an
    // upload, whose data is all on the wire by then. 0, or a daemon code (the connection
    // must then be dropped).
    int RunProtocol(Channel& ch, uint8_t cmd, const PObject& request, PObject& response);
    // Makes a borrowed connection usable for the session's view: nothing while its
    // keep-alive grant runs, else connect (TLS in the login when the pool asks) and log
    // in. 0, or a daemon code; the caller then drops the connection.
    int RequestChannel(Connection* conn);
    // Opens the connection anew to the pool's server. 0 or the channel's code.
    int EstablishConnection(Connection* conn);
    // One operation on the server as every handler does it: borrow a connection, make it
    // usable (RequestChannel), run `exchange` on its channel, give it back, dropped when
    // either step failed, else holding the grant of the response's "alive". 0, or the
    // first failure's code; -2 while no pool is linked.
    int CallServer(const std::function<int(Channel&, PObject&)>& exchange, PObject& response);

    // The filter tests of the current event. TestWhiteList: 0 when the name is on the
    // session's white list (the root always is), else -1. TestBlackListPath: 0 or the
    // FILTER_ code of the first rule that blocks the path. TestCommonFilter: both, the white
    // list first (FILTER_EXT_SELECTIVE_SYNC). TestDirectory and TestFilePath: the global
    // black list, then the session's, on the path and the length of the full path.
    int TestCommonFilter();
    int TestBlackListPath();
    int TestWhiteList();
    int TestDirectory(const ustring& path, const ustring& full_path);
    int TestFilePath(const ustring& path, const ustring& full_path);

    // Checks with no counterpart on this platform: nothing to do, 0 or true.
    int CheckFileByPlatform(const ustring&) { return 0; }
    int UpdatePathInode() { return 0; }
    int UpdateMacAttribute() { return 0; }
    bool CanMergeMacAttribute() { return true; }
    bool CanMergeExecBit() { return true; }

    // The handlers, each in the source file of its subject.
    int UploadLocal();
    int DownloadRemote();
    int RemoveLocal();
    int RemoveRemote();
    int Rescan();
    int Expand();
    int ExpandDeleteEvent();
    // After the children of a directory were looked at, the event for the directory itself.
    void CreateDirSelfEvent();

    // The steps of UploadLocal (upload.cpp). TestUploadLocalFilter: 1 pass, 0 filtered (the
    // event is done), or a daemon code. IsUploadLocalFakeEvent: true when there is nothing
    // to upload (the object vanished or is neither file nor directory).
    // IsUploadLocalFakeRequest: true when every part of the request refers to the base.
    int TestUploadLocalFilter();
    bool IsUploadLocalFakeEvent(const FILE_INFO& local);
    bool IsUploadLocalFakeRequest(const PObject& request);
    // Fill the request's parts. PrepareFileBlock reads the file once for its hash, its new
    // signature (into `signature`) and, against the row's signature, a delta; 0, -1 when
    // the file changed while being read, -21 when a pause ended the read, -3 on any other
    // failure.
    int PrepareFileBlock(PObject& request, TempFile& signature);
    int PrepareMtime(const FILE_INFO& local, const ClientFileEventInfo& db, PObject& request);
    int PrepareMacAttrFile(PObject& request);
    int PrepareExecBit(PObject& request);
    // The upload exchanges on `ch`: plain, or resumable with its token, dry run and
    // resumption. 0 (an error reply stands in `response`) or a daemon code.
    int ProtoUploadObject(Channel& ch, PObject& request, PObject& response);
    int ProtoResumeUploadObject(Channel& ch, PObject& request, PObject& response);
    // Writes the row the server's answer makes, moving `sign_path` into the session's
    // signature store. 0; -1.
    int CommitDatabaseUpload(const PObject& request, const PObject& response,
                             const ClientFileEventInfo& base, const ustring& sign_path);
    // After the commit: an object gone meanwhile gets its removal event. 0; -1.
    int CheckLocalModification(const PObject& request);
    // A name the server cannot hold (blanks at its ends, a final dot) is renamed locally:
    // 1 for a clean name, 0 renamed (the new name brings its own event), -3 on failure.
    int TestBaseNameConflict(const ustring& basename);
    // Remembers a local change a selective sync rule kept back. 0.
    int AddFilteredEventToDB(const Event& ev, int filtered_type);
    // Queues the removal of a local object. 0 or the event manager's code.
    int PushRemoveEvent(const ustring& path, bool is_dir);
    // What TestDownloadConflict finds, or a negative daemon code.
    enum DownloadConflict {
        CONFLICT_NONE = 0,     // the local object is the base: it may be replaced
        CONFLICT_RETRY = 1,    // changed on both sides: the local one moves to a conflict name
        CONFLICT_IGNORE = 2,   // the local object already is the new one
        CONFLICT_REMOVED = 3,  // the local object is gone
    };
    // The steps of DownloadRemote (download.cpp). `response` is a "resume_download" reply.
    // TestDownloadRemoteFilter: 1 pass, 0 filtered. MergeEvent: 0 when the local object
    // already is what the event describes (its row is then written), else -1.
    // PrepareFileFromLocal: 0 when content of the event's hash found in the recycle bin or
    // elsewhere in the folder was put in place and committed, else -1.
    int TestDownloadRemoteFilter();
    int MergeEvent();
    int PrepareFileFromLocal();
    int TestDownloadConflict(const FILE_INFO& local, const ClientFileEventInfo& db,
                             const PObject& response);
    // 0 when the target may be replaced (a local change moved to a conflict name, a base
    // of the other type moved to the recycle bin), or a daemon code.
    int HandleDownloadConflict(const PObject& response);
    // After a patch or hash failure: 0 when the local file already is the new one, -1
    // when a changed local file was moved aside (fetch again whole), -3 otherwise.
    int HandleDownloadPatchError(const PObject& response);
    // The verified new file in `new_path` (the full path itself when nothing is to be
    // replaced), its signature in `signature`. 0 or a daemon code.
    int PrepareDownloadFile(const PObject& response, ustring& new_path, TempFile& signature);
    int ProcessDownloadFile(const PObject& response, TempFile& signature);
    int ProcessDownloadDirectory(const PObject& response);
    // "resume_download" on `ch`, asking for a resume token first when the request has
    // none. 0 (an error reply stands in `response`) or a daemon code.
    int ProtoResumeDownloadObject(Channel& ch, PObject& request, PObject& response);
    int CommitDatabaseDownload(const PObject& response, const ClientFileEventInfo& base,
                               const ustring& sign_path);
    // Sets the object's time from the reply. 0.
    int UpdateAttribute(const ustring& full_path, const PObject& response);
    // FSStat of the full path. 0; -1.
    int GetFilesystemInfo(FILE_INFO& info);

    // `locked`, and when it is, the one line every handler logs before it gives back
    // ERR_LOCKED_FILE for `path` (worker-commit.cpp).
    bool ReportLocked(bool locked, const ustring& path);
    // Shared by the transfers (worker-commit.cpp). LocallyModified: true when `cur` is not
    // what the row `base` describes (type, size, time, and `cur_hash` when given).
    // UpdateDatabaseInfo: writes the row, 0 or -1. CalculateMD4: 0 with the file's hash, -1.
    bool LocallyModified(const FILE_INFO& cur, const ClientFileEventInfo& base,
                         const ustring& cur_hash);
    int UpdateDatabaseInfo(const ClientFileEventInfo& info);
    int CalculateMD4(const ustring& full_path, ustring& hash);

    // The steps of the removals (removal.cpp). TestRemoveLocalFilter and
    // TestRemoveRemoteFilter: 1 pass, 0 filtered (the event is done, a selective sync
    // rule's verdict recorded for a local one), negative failure. ExpandLocalDeleteEvent
    // and ExpandServerDeleteEvent: events for the members one level below `path` (the
    // server's, only rows at most `sync_id`), 0 or -1 when interrupted. ProtoRemoveObject:
    // "remove" on `ch`, 0 (an error reply stands in `response`) or a daemon code.
    // ConvertToFilteredEvent: the filter record of a local event, 0.
    int TestRemoveLocalFilter();
    int TestRemoveRemoteFilter();
    int ExpandLocalDeleteEvent(const ustring& path);
    int ExpandServerDeleteEvent(const ustring& path, uint64_t sess_id, uint64_t sync_id);
    int ProtoRemoveObject(Channel& ch, const PObject& request, PObject& response);
    int ConvertToFilteredEvent(const Event& ev, int filter_type, FilterLocalEvent& out);
    // Removal's primitives (removal.cpp). RemoveDatabaseInfo: forgets the row of the
    // current path, 0 or -1. ProcessRenameRemoveLocal: moves the local object to the
    // recycle bin with its rows, 0 or -3. moveFileToRecycleBin: parks a received file
    // there (0), or deletes it (-1).
    int RemoveDatabaseInfo();
    int ProcessRenameRemoveLocal(const FILE_INFO& local);
    int RenameRemoveFile();
    int RenameRemoveDirectory();
    int moveFileToRecycleBin(const ustring& src, uint64_t size, const ustring& hash,
                             const ustring& mac_hash);
    // Rescan's steps (rescan.cpp). CompareFileList merges the disk's list and the
    // database's of the directory `root` into events: an upload for what is new or changed
    // on disk; for what only the database knows a removal, or with `do_merge` a forced
    // download, unless selective sync merely hid it. 0; -1 when the abort flag stopped it
    // (the events pushed so far stay). BuildLocalFileListWithoutResursive lists one level
    // of `path` into `flist`, the working directory left out: 0; -1 when stopped or when
    // the directory cannot be listed. The Push functions forward to the event generator
    // for the current session and give its 1.
    int CompareFileList(const ustring& root, const FileList& fs_list, const FileList& db_list,
                        bool do_merge);
    int BuildLocalFileListWithoutResursive(const ustring& path, FileList& flist);
    int PushUploadEvent(const ustring& path, bool is_dir);
    int PushDownloadEvent(const ustring& path, bool is_dir);
    // 1 when a path gone from the disk was only hidden by selective sync (it is then
    // recorded as filtered, and nothing is removed), else 0.
    int TestFilteredDeleteEvent(uint64_t sess_id, const ustring& path, bool isDir);
    // The session whose folder this worker walks for a rescan or an expansion; 0 when it
    // walks none. Read by other threads, so that a pause reaches a walk too.
    uint64_t WalkingSession() const { return m_walking_session.load(); }

    // Replaces the handlers events are routed to.
    void SetHandlers(WorkerHandlers handlers) { m_handlers = std::move(handlers); }

    // The context, read by the handlers.
    uint64_t GetViewId() const { return context.root_entry.view_id; }
    ustring GetPath() const { return context.current_event.m_path; }
    const ustring& GetFullPath() const { return context.full_path; }
    const ustring& GetWorkingDirectory() const { return context.working_directory; }
    const ustring& GetSignDirectory() const { return context.sign_directory; }
    const ustring& GetLocalWatch() const { return context.root_entry.local_path; }
    const ustring& GetRemoteWatch() const { return context.root_entry.remote_path; }
    ustring GetRecycleBinDir() const;
    FileEventDB* GetEventDatabase() const { return context.root_entry.event_db; }
    BlackList2* GetBlackList() const { return context.root_entry.black_list; }
    WhiteListCpp* GetWhiteList() const { return context.root_entry.white_list; }
    ClientFileEventInfo GetDatabaseInfo() const { return context.database_record; }

  protected:
    // Consecutive results of -3; the fourth gives the event back.
    int sys_err_count = 0;
    // Patch failures of the current download; the third drops the event.
    size_t patch_err_count = 0;
    NotifyEventType notify_event_type = NOTIFY_NONE;
    EventContext context;
    // What an interrupted transfer keeps for resuming, until ClearCache.
    PObject cached_request;
    PObject cached_response;
    ustring upload_sign_file;
    // All of this worker's server traffic; its counters are the progress numbers.
    PStream trans_stream;

  private:
    // ServerCaller: the worker's log lines and tables.
    void Note(const ExchangeEvent& event) override;
    int ExchangeFailed(ExchangeStep step, const char* action, int code) override;
    int* CallerAbortFlag() override { return AbortFlag(); }
    ProtoRespCaller RespCaller() const override { return PROTO_RESP_WORKER; }
    TlsStyle Tls() const override { return TLS_IN_CONNECT; }

    // UploadLocal's parts (upload.cpp): the request built or taken from the cache; the
    // exchange on a pooled connection; the answer carried out.
    int BuildUploadRequest(const FILE_INFO& local, TempFile& signature, PObject& request,
                           bool& resumable);
    int SendUpload(PObject& request, PObject& response, bool resumable);
    int SettleUploadReply(PObject& request, PObject& response, const ustring& sign_path);
    int HandleUploadError(const PObject& response);
    // DownloadRemote's parts (download.cpp): the request from the base row; the transfer
    // (resumed from the caches when they hold one) and what follows it; a broken
    // transfer's received part kept for the retry; the reply carried out and committed;
    // the filter records of the path forgotten; content found locally by hash and put in
    // place; a failed patch's verdict; the local object moved to a conflict name; and
    // whether the local file already holds the reply's content (1, 0, or -3).
    PObject DownloadRequest(const ClientFileEventInfo& base);
    int FetchAndPlace(const ClientFileEventInfo& base, TempFile& signature);
    void KeepPartialResponse(int rc, PObject& response);
    int SettleReply(const ClientFileEventInfo& base, const PObject& request, PObject& response,
                    TempFile& signature);
    int ForgetFilteredPath();
    int FindLocalCopy(ustring& source, bool& from_recycle);
    int PlaceLocalCopy(const ustring& moved, bool from_recycle, const ustring& source,
                       TempFile& signature);
    int SettlePatchError(const PObject& response, ustring& new_path);
    int MoveAsideConflict();
    int SameContent(const FILE_INFO& local, const PObject& response);
    // RenameRemoveFile and RenameRemoveDirectory, told apart by `is_dir` (removal.cpp).
    int MoveToRecycleBin(bool is_dir);
    // RemoveLocal's and RemoveRemote's parts (removal.cpp): whether a folder about to go
    // to the bin holds anything its rows don't describe (1, 0, or -1 when it could not be
    // looked at or the abort flag stopped the look); the "remove" request from the row;
    // an error reply's verdict: 1 to forget the row, else the handler's code.
    int ChangedBelow(const ustring& dir, const ustring& path);
    PObject RemoveRequest(const ClientFileEventInfo& db);
    int SettleRemoveError(uint32_t code, bool is_dir);

    // Steps 7 to 10 of a loop turn: the event through its handler, then its fate.
    void CarryOut();
    // A rescan or expansion through its handler: finished, or given back when a pause or a
    // stop cut it short, so that it runs whole again.
    void CarryOutWalk();
    // CompareFileList's rule for a path only the database knows (rescan.cpp).
    void OnlyInDatabase(const ustring& path, bool is_dir, bool do_merge);
    // Empties the context and forgets what was to be told of it.
    void ClearContext();
    // The user interface's report of an error of type `type`.
    void ReportError(ErrorType type, int err);

    WorkerHandlers m_handlers;
    Mutex worker_state_lock;
    ProcessEvent_T m_current_event GUARDED_BY(worker_state_lock);
    std::atomic<PauseType_T*> pause_instance{nullptr};
    std::atomic<uint64_t> m_walking_session{0};
    // The folders a rescan could not list (paths in the session), whose rows it leaves be.
    std::vector<ustring> m_unlisted;
};
