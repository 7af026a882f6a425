// content-store.h: the files behind the server's contents, named by content id under
// DIR/content, plus the working folders of transfers (DIR/spool for request binaries,
// DIR/resume for resumable transfers). A content file is written once under a temporary
// name, synced, and renamed to its id inside the transaction that records it, so that a
// recorded content always has its file; files without a record are swept at start.
// Used by the tree writer (import, release), downloads (read) and the server at start.
#pragma once

#include <cstdint>
#include <set>
#include <string>

class ContentStore {
  public:
    // Makes the folders below `data_dir`. 0 or -1.
    int Open(const std::string& data_dir);

    // The file of a content id.
    std::string PathOf(int64_t id) const;
    // A fresh, unused name for a content being produced (in the same file system as the
    // store, so that Adopt is a rename).
    std::string NewTempPath() const;
    // A fresh name in the spool folder for a binary that arrives with a request.
    std::string NewSpoolPath() const;
    const std::string& SpoolDir() const { return m_spool; }
    const std::string& ResumeDir() const { return m_resume; }

    // Flushes a produced file to disk. 0 or -1.
    static int Sync(const std::string& path);
    // Moves a synced temporary file in place as content `id`. 0 or -1.
    int Adopt(const std::string& temp_path, int64_t id);
    // Deletes the file of a content that is no longer recorded; a missing file is fine.
    void Release(int64_t id);
    // Deletes temporaries, spooled binaries and content files whose id is not in
    // `recorded`. Returns how many files went.
    size_t Sweep(const std::set<int64_t>& recorded);

  private:
    std::string m_root;
    std::string m_temp;
    std::string m_spool;
    std::string m_resume;
};
