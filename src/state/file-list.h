// file-list.h: compact sorted lists of paths for rescans. A FileList holds a tree of
// directories and files whose names are interned in a StringBuffer, and hands its
// entries out in an order that lets two lists (the database's and the disk's) be
// merged in one pass. Filled by FileEventDB and by the local walk of a rescan.
//
// Names are case-sensitive byte strings ordered by strcmp. Nothing here locks: a
// list and its buffer are used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "foundation/ustring.h"

// A store of unique, immutable C strings. Strings live as long as the buffer, which
// must outlive every list that uses it.
class StringBuffer {
  public:
    // One stored string, compared by strcmp.
    struct String {
        const char* ptr = nullptr;
        bool operator==(const String& o) const;
        bool operator<(const String& o) const;
        bool operator>(const String& o) const;
    };

    // A block of storage handed out front to back.
    struct Chunk {
        size_t capacity = 0;
        size_t offset = 0;
        std::unique_ptr<char[]> data;
        // Gets `size` bytes of storage (capacity set); throws on allocation failure.
        void allocate(size_t size);
        // The next `size` bytes, or null when they do not fit.
        char* get(size_t size);
    };

    static constexpr int kChunks = 32;

    StringBuffer() = default;
    StringBuffer(const StringBuffer&) = delete;
    StringBuffer& operator=(const StringBuffer&) = delete;

    // 0 and the stored copy of `s` (one already stored, or a new one); -1 when all
    // chunks are full.
    int insert(const char* s, String& out);

  private:
    std::set<String> dic;
    Chunk chunk[kChunks];
    int used = 0;
};

class FileList {
  public:
    using String = StringBuffer::String;

    struct FileNode {
        String name;
        uint32_t mtime = 0;
        uint64_t size = 0;
        bool operator<(const FileNode& o) const { return name < o.name; }
    };

    struct DirNode {
        String name;
        DirNode* parent = nullptr;
        std::map<String, DirNode*> dir;
        std::set<FileNode> file;
        uint32_t mtime = 0;
        int id = 0;  // index in the list's table of directories
    };

    // One element as it leaves the list.
    struct Entry {
        int attrb = 0;  // 0 file, 1 directory
        ustring path;   // relative, each element after a "/"
        uint32_t mtime = 0;
        uint64_t size = 0;  // 0 for directories
        bool is_dir() const { return attrb == 1; }
        bool is_file() const { return attrb == 0; }
    };

    // Walks the list backwards: at each level names fall strictly (a directory before
    // a file of the same name), and a directory comes after everything below it. The
    // root itself is never delivered.
    class reverse_iterator {
      public:
        enum State { PRINT_ME = 0, PRINT_DIR = 1, PRINT_FILE = 2 };

        const Entry& operator*() const { return m_entry; }
        const Entry* operator->() const { return &m_entry; }
        reverse_iterator& operator++();
        bool operator==(const reverse_iterator& o) const;
        bool operator!=(const reverse_iterator& o) const { return !(*this == o); }

      private:
        friend class FileList;
        struct stack_entry {
            DirNode* node;
            std::set<FileNode>::const_iterator file_it;         // files before it are left
            std::map<String, DirNode*>::const_iterator dir_it;  // directories before it are left
        };

        reverse_iterator(const FileList* list, DirNode* root) : m_list(list), m_node(root) {}
        void get_last_of(DirNode* dir);
        void choose();
        void build_entry();

        const FileList* m_list;
        DirNode* m_node;
        std::vector<stack_entry> m_stack;
        State m_state = PRINT_ME;
        Entry m_entry;
    };

    // An empty list whose root (empty name, mtime 0) has id 0. `sb` must outlive it.
    explicit FileList(StringBuffer& sb);
    ~FileList();
    FileList(const FileList&) = delete;
    FileList& operator=(const FileList&) = delete;

    // Adds a file below a directory. 0; -1 when the name is taken by a file or
    // cannot be stored, or the directory is unknown.
    int AddFile(DirNode* parent, const char* name, uint32_t mtime, uint64_t size);
    int AddFile(int dir_id, const char* name, uint32_t mtime, uint64_t size);
    // Adds a file by relative path with "/" separators, making missing directories
    // with mtime 0. -1 also for a path that ends in "/", has no name, or is too long
    // (4096 bytes, 1023 per element).
    int AddFile(const char* pathname, uint32_t mtime, uint64_t size);

    // Adds a directory; its id, or -1 when the name is taken or cannot be stored.
    int AddDirectory(DirNode* parent, const char* name, uint32_t mtime);
    int AddDirectory(int dir_id, const char* name, uint32_t mtime);
    // By relative path; a directory that already exists (made for a file below it)
    // takes the mtime and gives its id. -1 for a path with no name or too long.
    int AddDirectory(const char* pathname, uint32_t mtime);

    reverse_iterator rbegin() const;
    reverse_iterator rend() const;

  private:
    DirNode* dir_by_id(int dir_id) const;
    // The directory that holds the last element of `pathname`, made as needed, and
    // that element; null for an unusable path.
    DirNode* walk(const char* pathname, std::string& last);

    StringBuffer& buf;
    DirNode* root;
    std::vector<std::unique_ptr<DirNode>> node;
};
