// tree-writer.cpp: the changes of a view's tree inside one savepoint.
#include "tree-writer.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "server-path.h"

namespace {

// Binds ?3 and ?4 to the descendant range of `path`.
void BindRange(sqlite::Statement& stmt, const std::string& path) {
    stmt.Bind(3, server_path::DescendantLow(path)).Bind(4, server_path::DescendantHigh(path));
}

}  // namespace

TreeWriter::TreeWriter(WriteBatch& batch, uint64_t view_id)
    : m_batch(batch), m_store(batch.store()), m_view(view_id), m_savepoint(m_store.db()) {
    if (!m_batch.ok() || !m_savepoint.ok()) return;
    int64_t last = m_batch.LastId(view_id);
    if (last < 0) return;
    m_last = static_cast<uint64_t>(last);
    m_ok = true;
}

sqlite::Statement* TreeWriter::Kept(const char* sql) {
    sqlite::Statement* st = m_store.db().Reuse(sql);
    if (!st) m_store.Fail(sql);
    return st;
}

int TreeWriter::Get(const std::string& path, ServerObject& obj) {
    return m_store.GetObject(m_view, path, obj);
}

int TreeWriter::LookUp(const std::string& path, PathState& state) {
    return m_store.LookUpPath(m_view, path, state);
}

int TreeWriter::ImportContent(NewContent& content, FileContent& out) {
    sqlite::Statement* find = Kept("SELECT id FROM contents WHERE md4 = ? AND size = ?");
    if (!find) return TREE_FAIL;
    int64_t id = 0;
    int rc = find->BindAll(content.md4, content.size).First([&](const sqlite::Statement& r) {
        id = r.Int64(0);
    });
    if (rc < 0) return m_store.Fail("find content");
    out = FileContent{id, content.md4, content.size};
    std::error_code ec;
    if (rc == 1) {
        if (!content.temp.empty()) std::filesystem::remove(content.temp, ec);
        content.temp.clear();
        return TREE_OK;
    }
    sqlite::Statement* ins = Kept("INSERT INTO contents (md4, size, data) VALUES (?, ?, ?)");
    if (!ins) return TREE_FAIL;
    ins->BindAll(content.md4, content.size);
    bool in_file = !content.temp.empty();
    ins->BindBlob(3, in_file ? nullptr : content.bytes.data(), content.bytes.size());
    if (ins->Execute() < 0) return m_store.Fail("record content");
    out.content_id = m_store.db().LastInsertRowId();
    if (!in_file) return TREE_OK;
    // Should this change or its batch roll back, the file is an orphan that the next start
    // sweeps, or that the next content given the same id replaces.
    if (m_store.contents().Adopt(content.temp, out.content_id) < 0) return TREE_FAIL;
    content.temp.clear();
    m_batch.Touch(m_store.contents().FolderOf(out.content_id));
    return TREE_OK;
}

int TreeWriter::Insert(const ServerObject& obj) {
    // An upsert on the path alone: a clash on the sync id index would be a bug, and must
    // fail rather than replace another object.
    sqlite::Statement* ins = Kept(
        "INSERT INTO objects (view_id, path, parent, is_dir, sync_id, max_id, size, md4, mtime,"
        " exec_bit, content_id) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11) ON CONFLICT"
        " (view_id, path) DO UPDATE SET parent = ?3, is_dir = ?4, sync_id = ?5, max_id = ?6,"
        " size = ?7, md4 = ?8, mtime = ?9, exec_bit = ?10, content_id = ?11");
    if (!ins) return TREE_FAIL;
    ins->BindAll(m_view, obj.path, server_path::Parent(obj.path), static_cast<int>(obj.is_dir),
                 obj.sync_id, obj.max_id, obj.size, obj.md4, obj.mtime,
                 static_cast<int>(obj.exec_bit), obj.content_id);
    return ins->Execute() < 0 ? m_store.Fail("insert object") : TREE_OK;
}

int TreeWriter::AddVersion(const std::string& path, uint64_t sync_id, int64_t content_id,
                           bool prune) {
    sqlite::Statement* ins = Kept(
        "INSERT OR REPLACE INTO versions (view_id, sync_id, path, content_id) VALUES "
        "(?, ?, ?, ?)");
    if (!ins || ins->BindAll(m_view, sync_id, path, content_id).Execute() < 0)
        return m_store.Fail("add version");
    if (!prune) return TREE_OK;
    sqlite::Statement* old = Kept(
        "DELETE FROM versions WHERE view_id = ?1 AND path = ?2 AND sync_id <= (SELECT sync_id "
        "FROM versions WHERE view_id = ?1 AND path = ?2 ORDER BY sync_id DESC LIMIT 1 OFFSET "
        "?3) RETURNING content_id");
    if (!old) return TREE_FAIL;
    old->BindAll(m_view, path, static_cast<int64_t>(m_store.versions_kept()));
    int rc = old->ForEach([&](const sqlite::Statement& r) { m_batch.MayDrop(r.Int64(0)); });
    return rc < 0 ? m_store.Fail("prune versions") : TREE_OK;
}

int TreeWriter::DropVersions(const std::string& path) {
    sqlite::Statement* del = Kept(
        "DELETE FROM versions WHERE view_id = ?1 AND (path = ?2 OR (path > ?3 AND path < "
        "?4)) RETURNING content_id");
    if (!del) return TREE_FAIL;
    del->BindAll(m_view, path);
    BindRange(*del, path);
    int rc = del->ForEach([&](const sqlite::Statement& r) { m_batch.MayDrop(r.Int64(0)); });
    return rc < 0 ? m_store.Fail("drop versions") : TREE_OK;
}

int TreeWriter::RaiseAncestors(const std::string& path, uint64_t id) {
    std::vector<std::string> above = Ancestors(path);
    if (above.empty()) return TREE_OK;
    std::string sql =
        "UPDATE objects SET max_id = ?1 WHERE view_id = ?2 AND max_id < ?1 AND "
        "path IN (" +
        ParameterList(3, above.size()) + ")";
    sqlite::Statement once;
    sqlite::Statement* up = m_store.ForDepth(sql, above.size(), once);
    if (!up) return m_store.Fail("raise ancestors");
    up->BindAll(id, m_view);
    for (size_t i = 0; i < above.size(); ++i) up->Bind(static_cast<int>(i) + 3, above[i]);
    return up->Execute() < 0 ? m_store.Fail("raise ancestors") : TREE_OK;
}

int TreeWriter::RecomputeAncestors(const std::string& path) {
    // A removal lowers the subtree maximum: a client that removed the children it knew
    // must still be able to remove the emptied directory, and it never learns the ids of
    // its own removals.
    sqlite::Statement* up = Kept(
        "UPDATE objects SET max_id = max(sync_id, coalesce((SELECT max(max_id) FROM "
        "objects c WHERE c.view_id = ?1 AND c.parent = ?2), 0)) WHERE view_id = ?1 "
        "AND path = ?2");
    if (!up) return TREE_FAIL;
    for (const std::string& a : Ancestors(path)) {
        if (up->BindAll(m_view, a).Execute() < 0) return m_store.Fail("recompute ancestors");
        up->Reset();
    }
    return TREE_OK;
}

int TreeWriter::Tombstone(const ServerObject& obj, uint64_t id) {
    if (obj.is_dir) {
        // What lay below is covered by the directory's own tombstone.
        sqlite::Statement* del =
            Kept("DELETE FROM tombstones WHERE view_id = ?1 AND path > ?3 AND path < ?4");
        if (!del) return TREE_FAIL;
        del->Bind(1, m_view);
        BindRange(*del, obj.path);
        if (del->Execute() < 0) return m_store.Fail("tombstone");
    }
    sqlite::Statement* ins = Kept(
        "INSERT OR REPLACE INTO tombstones (view_id, path, parent, is_dir, sync_id, max_id)"
        " VALUES (?, ?, ?, ?, ?, ?)");
    if (!ins) return TREE_FAIL;
    ins->BindAll(m_view, obj.path, server_path::Parent(obj.path), static_cast<int>(obj.is_dir), id,
                 obj.max_id);
    return ins->Execute() < 0 ? m_store.Fail("tombstone") : TREE_OK;
}

int TreeWriter::DeleteSubtree(const std::string& path) {
    sqlite::Statement* del =
        Kept("DELETE FROM objects WHERE view_id = ?1 AND (path = ?2 OR (path > ?3 AND path < ?4))");
    if (!del) return TREE_FAIL;
    del->BindAll(m_view, path);
    BindRange(*del, path);
    if (del->Execute() < 0) return m_store.Fail("delete subtree");
    return DropVersions(path);
}

int TreeWriter::MakeParents(const std::vector<std::string>& missing, uint32_t mtime) {
    // Their maxima are raised with the rest of the ancestors once the change's own object,
    // whose id is higher, is in place.
    for (const std::string& a : missing) {
        ServerObject dir;
        dir.path = a;
        dir.is_dir = true;
        dir.sync_id = dir.max_id = NextId();
        dir.mtime = mtime;
        if (Insert(dir) < 0) return TREE_FAIL;
    }
    return TREE_OK;
}

int TreeWriter::PutFile(const std::string& path, const PathState& state, const FileContent& content,
                        uint32_t mtime, bool exec_bit, ServerObject& out) {
    if (path == "/" || state.under_file || (state.found == 1 && state.obj.is_dir))
        return TREE_CLASH;
    if (state.found == 1) m_batch.MayDrop(state.obj.content_id);
    if (MakeParents(state.missing, mtime) < 0) return TREE_FAIL;
    ServerObject obj;
    obj.path = path;
    obj.sync_id = obj.max_id = NextId();
    obj.size = content.size;
    obj.md4 = content.md4;
    obj.mtime = mtime;
    obj.exec_bit = exec_bit;
    obj.content_id = content.content_id;
    // A new path has one version: nothing to prune.
    if (Insert(obj) < 0 || AddVersion(path, obj.sync_id, obj.content_id, state.found == 1) < 0 ||
        RaiseAncestors(path, obj.sync_id) < 0)
        return TREE_FAIL;
    out = obj;
    return TREE_OK;
}

int TreeWriter::MakeDir(const std::string& path, uint32_t mtime, ServerObject& out) {
    if (path == "/") return TREE_EXISTS;
    PathState state;
    if (LookUp(path, state) < 0) return TREE_FAIL;
    if (state.found == 1) {
        out = state.obj;
        return state.obj.is_dir ? TREE_EXISTS : TREE_CLASH;
    }
    if (state.under_file) return TREE_CLASH;
    if (MakeParents(state.missing, mtime) < 0) return TREE_FAIL;
    ServerObject dir;
    dir.path = path;
    dir.is_dir = true;
    dir.sync_id = dir.max_id = NextId();
    dir.mtime = mtime;
    if (Insert(dir) < 0 || RaiseAncestors(path, dir.sync_id) < 0) return TREE_FAIL;
    out = dir;
    return TREE_OK;
}

int TreeWriter::Remove(const std::string& path, uint64_t& removal_id) {
    if (path == "/") return TREE_NOENT;
    ServerObject cur;
    int rc = Get(path, cur);
    if (rc < 0) return TREE_FAIL;
    if (rc == 0) return TREE_NOENT;
    removal_id = NextId();
    if (Tombstone(cur, removal_id) < 0 || DeleteSubtree(path) < 0 || RecomputeAncestors(path) < 0)
        return TREE_FAIL;
    return TREE_OK;
}

int TreeWriter::Move(const std::string& from, const std::string& to) {
    if (from == "/" || to == "/" || server_path::IsWithin(to, from)) return TREE_CLASH;
    ServerObject src;
    int rc = Get(from, src);
    if (rc < 0) return TREE_FAIL;
    if (rc == 0) return TREE_NOENT;
    PathState target;
    if (LookUp(to, target) < 0) return TREE_FAIL;
    if (target.found == 1) return TREE_EXISTS;
    if (target.under_file) return TREE_CLASH;
    std::vector<ServerObject> subtree;
    if (m_store.ListTree(m_view, from, subtree) < 0) return TREE_FAIL;
    if (MakeParents(target.missing, src.mtime) < 0) return TREE_FAIL;
    uint64_t shared = NextId();
    if (Tombstone(src, shared) < 0) return TREE_FAIL;
    // The old paths' histories end; each moved file starts a new one at its new path with
    // its present content.
    if (DeleteSubtree(from) < 0 || RecomputeAncestors(from) < 0) return TREE_FAIL;
    std::vector<std::string> moved_dirs;
    for (size_t i = 0; i < subtree.size(); ++i) {
        ServerObject obj = subtree[i];
        obj.path = to + obj.path.substr(from.size());
        obj.sync_id = obj.max_id = (i == 0) ? shared : NextId();
        if (Insert(obj) < 0) return TREE_FAIL;
        if (obj.is_dir) {
            moved_dirs.push_back(obj.path);
            continue;
        }
        if (AddVersion(obj.path, obj.sync_id, obj.content_id, false) < 0) return TREE_FAIL;
    }
    // Children follow their parents in path order and got higher ids, so a moved
    // directory's maximum is the highest id below it.
    sqlite::Statement* up = Kept(
        "UPDATE objects SET max_id = (SELECT max(sync_id) FROM objects c WHERE "
        "c.view_id = ?1 AND (c.path = ?2 OR (c.path > ?3 AND c.path < ?4))) WHERE "
        "view_id = ?1 AND path = ?2");
    if (!up) return TREE_FAIL;
    for (const std::string& d : moved_dirs) {
        up->BindAll(m_view, d);
        BindRange(*up, d);
        if (up->Execute() < 0) return m_store.Fail("move");
        up->Reset();
    }
    return RaiseAncestors(to, m_last) < 0 ? TREE_FAIL : TREE_OK;
}

int TreeWriter::Keep() {
    if (!m_ok) return TREE_FAIL;
    m_ok = false;
    if (m_savepoint.Release() < 0) return m_store.Fail("keep change");
    m_batch.SetLastId(m_view, m_last);
    return TREE_OK;
}
