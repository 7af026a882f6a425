// content-store.h: the files behind the server's larger contents, named by content id under
// DIR/content, plus the working folders of transfers (DIR/spool for request binaries,
// DIR/resume for resumable transfers). A content file is written once under a temporary
// name and flushed by the request that made it, then renamed to its id inside the
// transaction that records it; the folders it lands in are flushed once before that
// transaction commits, so a recorded content always has its file. Files without a record
// are swept at start. Contents up to kInlineLimit bytes live in the database instead.
// Used by the tree writer (import, release), the handlers (read) and the server at start.
//
// Every flush is counted (flushes()), for the server's statistics.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

class ContentStore {
  public:
    // Contents up to this size are kept inside the database, where the commit's one log
    // flush covers them; a file of their own would cost two flushes more.
    static constexpr uint64_t kInlineLimit = 64 * 1024;

    // Makes the folders below `data_dir`. 0 or -1.
    int Open(const std::string& data_dir);

    // The file of a content id, and the folder it lies in.
    std::string PathOf(int64_t id) const;
    std::string FolderOf(int64_t id) const;
    // A fresh, unused name for a content being produced (in the same file system as the
    // store, so that Adopt is a rename).
    std::string NewTempPath() const;
    // A fresh name in the spool folder for a binary made for one request.
    std::string NewSpoolPath() const;
    const std::string& SpoolDir() const { return m_spool; }
    const std::string& ResumeDir() const { return m_resume; }

    // Flushes a produced file, or a folder's entries, to disk. 0 or -1.
    static int Sync(const std::string& path);
    static int SyncFolder(const std::string& dir);
    // Moves a flushed temporary file in place as content `id`; the caller flushes the
    // folder (FolderOf) before it records the content. 0 or -1.
    int Adopt(const std::string& temp_path, int64_t id);
    // Deletes the file of a content that is no longer recorded; a missing file is fine.
    void Release(int64_t id);
    // Deletes temporaries, spooled binaries and content files whose id is not in
    // `recorded`. Returns how many files went.
    size_t Sweep(const std::set<int64_t>& recorded);

    // Whole-file helpers of the handlers: 0 or -1 (logged).
    static int ReadFile(const std::string& path, std::string& bytes);
    static int WriteFile(const std::string& path, const std::string& bytes);

    // Files and folders flushed by any store of this process.
    static uint64_t flushes() { return s_flushes.load(); }

  private:
    static std::atomic<uint64_t> s_flushes;
    std::string m_root;
    std::string m_temp;
    std::string m_spool;
    std::string m_resume;
};
