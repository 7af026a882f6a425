// temp-file.h: owners of files on disk made under fresh names. TempFile is shared by
// its copies and deletes its file with the last one unless made permanent; SFFile
// leaves its file unless told to remove it. Used by the workers (signatures and
// deltas), the event tree and the transport.
//
// Objects belong to one thread at a time; copies of a TempFile share a plain counter
// and must not cross threads.
#pragma once

#include <cstdint>
#include <memory>

#include "foundation/ustring.h"

class TempFile {
  public:
    // An owner of nothing yet, making its file under `prefix` (empty: the default).
    explicit TempFile(const ustring& prefix = ustring());
    // Shares the file of `t`, if it has one.
    TempFile(const TempFile& t);
    // Lets go of the own file as the destructor would, then shares that of `t`.
    TempFile& operator=(const TempFile& t);
    // The last owner removes the file unless it was made permanent.
    ~TempFile();

    // Sets the directory that later TempFiles without a prefix use. 0.
    static int initialize(const ustring& prefix);
    void setPrefix(const ustring& prefix) { tmp_prefix = prefix; }

    // Makes an empty file under a fresh name. 0; -1 when this object already owns a
    // file (left alone) or the file cannot be made.
    int create();
    // Deletes the file now, for every copy; the object owns nothing afterwards.
    void remove();
    // The last owner will leave the file in place.
    void convert_permanent() { permanent = true; }
    const ustring& getPath() const { return path; }

  private:
    void release();

    static ustring default_prefix;
    ustring tmp_prefix;
    ustring path;
    // 0: no file; 1: one owner; more: shared by that many copies.
    std::shared_ptr<int> ref;
    bool permanent = false;
};

class SFFile {
  public:
    explicit SFFile(const ustring& prefix = ustring());
    SFFile(const SFFile&) = default;
    SFFile& operator=(const SFFile&) = default;
    // Leaves the file on disk.
    ~SFFile() = default;

    // Sets the directory that later SFFiles without a prefix use. 0.
    static int initialize(const ustring& prefix);
    void setPrefix(const ustring& prefix) { m_prefix = prefix; }

    // Reuses the own file if there is one, else makes an empty file under a fresh
    // name. 0; -1.
    int create();
    // Deletes the file; the object owns nothing afterwards.
    void remove();
    // Size of the file in bytes (0 when it is absent).
    uint64_t getSize() const;
    const ustring& getPath() const { return m_path; }

  private:
    static ustring default_prefix;
    ustring m_prefix;
    ustring m_path;
};
