// file-list.cpp: interned path tree and its reverse walk.
#include "state/file-list.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// Sized so that a typical rescan fits in the first few chunks.
constexpr size_t kFirstChunk = 65536;
constexpr size_t kMaxPath = 4096;
constexpr size_t kMaxElement = 1023;

}  // namespace

bool StringBuffer::String::operator==(const String& o) const {
    return std::strcmp(ptr, o.ptr) == 0;
}
bool StringBuffer::String::operator<(const String& o) const {
    return std::strcmp(ptr, o.ptr) < 0;
}
bool StringBuffer::String::operator>(const String& o) const {
    return std::strcmp(ptr, o.ptr) > 0;
}

void StringBuffer::Chunk::allocate(size_t size) {
    data = std::make_unique<char[]>(size);
    capacity = size;
    offset = 0;
}

char* StringBuffer::Chunk::get(size_t size) {
    if (!data || capacity - offset < size) return nullptr;
    char* p = data.get() + offset;
    offset += size;
    return p;
}

int StringBuffer::insert(const char* s, String& out) {
    auto found = dic.find(String{s});
    if (found != dic.end()) {
        out = *found;
        return 0;
    }
    const size_t length = std::strlen(s) + 1;
    char* room = nullptr;
    for (int i = 0; i < used && room == nullptr; ++i) room = chunk[i].get(length);
    if (room == nullptr) {
        if (used == kChunks) return -1;
        size_t previous = used == 0 ? kFirstChunk / 2 : chunk[used - 1].capacity;
        Chunk& next = chunk[used];
        if (!next.data) next.allocate(2 * std::max(length, previous));
        ++used;
        room = next.get(length);
    }
    std::memcpy(room, s, length);
    out = String{room};
    dic.insert(out);
    return 0;
}

FileList::FileList(StringBuffer& sb) : buf(sb) {
    auto top = std::make_unique<DirNode>();
    top->name = String{""};
    root = top.get();
    node.push_back(std::move(top));
}

FileList::~FileList() = default;

FileList::DirNode* FileList::dir_by_id(int dir_id) const {
    if (dir_id < 0 || static_cast<size_t>(dir_id) >= node.size()) return nullptr;
    return node[static_cast<size_t>(dir_id)].get();
}

int FileList::AddFile(DirNode* parent, const char* name, uint32_t mtime, uint64_t size) {
    if (parent == nullptr || name == nullptr) return -1;
    FileNode f;
    if (buf.insert(name, f.name) != 0) return -1;
    f.mtime = mtime;
    f.size = size;
    return parent->file.insert(f).second ? 0 : -1;
}

int FileList::AddFile(int dir_id, const char* name, uint32_t mtime, uint64_t size) {
    return AddFile(dir_by_id(dir_id), name, mtime, size);
}

int FileList::AddFile(const char* pathname, uint32_t mtime, uint64_t size) {
    if (pathname == nullptr) return -1;
    size_t len = std::strlen(pathname);
    if (len == 0 || pathname[len - 1] == '/') return -1;
    std::string last;
    DirNode* parent = walk(pathname, last);
    return parent == nullptr ? -1 : AddFile(parent, last.c_str(), mtime, size);
}

int FileList::AddDirectory(DirNode* parent, const char* name, uint32_t mtime) {
    if (parent == nullptr || name == nullptr) return -1;
    String s;
    if (buf.insert(name, s) != 0) return -1;
    if (parent->dir.count(s) != 0) return -1;
    auto d = std::make_unique<DirNode>();
    d->name = s;
    d->parent = parent;
    d->mtime = mtime;
    d->id = static_cast<int>(node.size());
    parent->dir.emplace(s, d.get());
    node.push_back(std::move(d));
    return node.back()->id;
}

int FileList::AddDirectory(int dir_id, const char* name, uint32_t mtime) {
    return AddDirectory(dir_by_id(dir_id), name, mtime);
}

int FileList::AddDirectory(const char* pathname, uint32_t mtime) {
    if (pathname == nullptr) return -1;
    std::string last;
    DirNode* parent = walk(pathname, last);
    if (parent == nullptr) return -1;
    String s;
    if (buf.insert(last.c_str(), s) != 0) return -1;
    auto existing = parent->dir.find(s);
    if (existing == parent->dir.end()) return AddDirectory(parent, last.c_str(), mtime);
    // Rows come in any order: a file below may have made this directory already.
    existing->second->mtime = mtime;
    return existing->second->id;
}

FileList::DirNode* FileList::walk(const char* pathname, std::string& last) {
    size_t len = std::strlen(pathname);
    if (len >= kMaxPath) return nullptr;
    std::vector<std::string> tokens;
    for (size_t pos = 0; pos < len;) {
        const char* slash = std::strchr(pathname + pos, '/');
        size_t end = slash == nullptr ? len : static_cast<size_t>(slash - pathname);
        if (end - pos > kMaxElement) return nullptr;
        if (end > pos) tokens.emplace_back(pathname + pos, end - pos);
        pos = end + 1;
    }
    if (tokens.empty()) return nullptr;
    DirNode* at = root;
    for (size_t i = 0; i + 1 < tokens.size(); ++i) {
        String s;
        if (buf.insert(tokens[i].c_str(), s) != 0) return nullptr;
        auto found = at->dir.find(s);
        if (found != at->dir.end()) {
            at = found->second;
            continue;
        }
        int id = AddDirectory(at, tokens[i].c_str(), 0);
        if (id < 0) return nullptr;
        at = node[static_cast<size_t>(id)].get();
    }
    last = tokens.back();
    return at;
}

FileList::reverse_iterator FileList::rbegin() const {
    reverse_iterator it(this, root);
    it.get_last_of(root);
    return it;
}

FileList::reverse_iterator FileList::rend() const {
    return reverse_iterator(this, root);
}

void FileList::reverse_iterator::get_last_of(DirNode* dir) {
    m_stack.push_back({dir, dir->file.end(), dir->dir.end()});
    m_node = dir;
    choose();
}

// Decides what the top level delivers next, descending into the last directory when
// its subtree comes first.
void FileList::reverse_iterator::choose() {
    stack_entry& top = m_stack.back();
    const bool files_left = top.file_it != top.node->file.begin();
    const bool dirs_left = top.dir_it != top.node->dir.begin();
    if (!dirs_left) {
        m_state = files_left ? PRINT_FILE : PRINT_ME;
    } else if (files_left && std::prev(top.file_it)->name > std::prev(top.dir_it)->first) {
        m_state = PRINT_FILE;
    } else {
        get_last_of(std::prev(top.dir_it)->second);
        return;
    }
    if (m_state == PRINT_ME && m_node == m_list->root) {
        m_stack.clear();
        return;
    }
    build_entry();
}

void FileList::reverse_iterator::build_entry() {
    std::string path;
    for (size_t i = 1; i < m_stack.size(); ++i) {
        path += '/';
        path += m_stack[i].node->name.ptr;
    }
    if (m_state == PRINT_FILE) {
        const FileNode& f = *std::prev(m_stack.back().file_it);
        path += '/';
        path += f.name.ptr;
        m_entry.attrb = 0;
        m_entry.mtime = f.mtime;
        m_entry.size = f.size;
    } else {
        m_entry.attrb = 1;
        m_entry.mtime = m_node == m_list->root ? 0 : m_node->mtime;
        m_entry.size = 0;
    }
    m_entry.path = ustring(path);
}

FileList::reverse_iterator& FileList::reverse_iterator::operator++() {
    if (m_stack.empty()) return *this;
    if (m_state == PRINT_ME) {
        if (m_node == m_list->root) {
            m_stack.clear();
            return *this;
        }
        m_stack.pop_back();
        m_node = m_stack.back().node;
        --m_stack.back().dir_it;
    } else {
        --m_stack.back().file_it;
    }
    choose();
    return *this;
}

bool FileList::reverse_iterator::operator==(const reverse_iterator& o) const {
    if (m_stack.empty() || o.m_stack.empty())
        return m_stack.empty() && o.m_stack.empty() && m_node == o.m_node;
    return m_node == o.m_node && m_state == o.m_state && m_stack.size() == o.m_stack.size() &&
           m_stack.back().file_it == o.m_stack.back().file_it &&
           m_stack.back().dir_it == o.m_stack.back().dir_it;
}
