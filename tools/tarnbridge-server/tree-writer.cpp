// tree-writer.cpp: the changes of a view's tree inside one write transaction.
#include "tree-writer.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "server-path.h"

namespace {

// The ancestors of a path, nearest first, without the root.
std::vector<std::string> Ancestors(const std::string& path) {
    std::vector<std::string> out;
    std::string p = server_path::Parent(path);
    while (p != "/") {
        out.push_back(p);
        p = server_path::Parent(p);
    }
    return out;
}

// Binds ?3 and ?4 to the descendant range of `path`.
void BindRange(SqliteStmt& stmt, const std::string& path) {
    stmt.Bind(3, server_path::DescendantLow(path)).Bind(4, server_path::DescendantHigh(path));
}

}  // namespace

TreeWriter::TreeWriter(ServerStore& store, uint64_t view_id)
    : m_store(store), m_view(view_id), m_txn(store.db()) {
    if (!m_txn.ok()) return;
    int64_t last = m_store.LastSyncId(view_id);
    if (last < 0) return;
    m_last = m_first_last = static_cast<uint64_t>(last);
    m_ok = true;
}

int TreeWriter::Get(const std::string& path, ServerObject& obj) {
    return m_store.GetObject(m_view, path, obj);
}

int TreeWriter::ImportContent(const std::string& temp_path, const std::string& md4, uint64_t size,
                              FileContent& out) {
    SqliteDb& db = m_store.db();
    SqliteStmt find(db, "SELECT id FROM contents WHERE md4 = ? AND size = ?");
    int rc = find.Bind(1, md4).Bind(2, size).Step();
    if (rc < 0) return TREE_FAIL;
    std::error_code ec;
    if (rc == 1) {
        out = FileContent{find.Int(0), md4, size};
        std::filesystem::remove(temp_path, ec);
        return TREE_OK;
    }
    SqliteStmt ins(db, "INSERT INTO contents (md4, size) VALUES (?, ?)");
    if (ins.Bind(1, md4).Bind(2, size).Run() < 0) return TREE_FAIL;
    int64_t id = db.LastInsertRowId();
    // Should this transaction roll back, the file is an orphan that the next start sweeps.
    if (ContentStore::Sync(temp_path) < 0 || m_store.contents().Adopt(temp_path, id) < 0)
        return TREE_FAIL;
    out = FileContent{id, md4, size};
    return TREE_OK;
}

int TreeWriter::Insert(const ServerObject& obj) {
    SqliteStmt ins(m_store.db(),
                   "INSERT OR REPLACE INTO objects (view_id, path, parent, is_dir, sync_id, max_id,"
                   " size, md4, mtime, exec_bit, content_id) VALUES (?,?,?,?,?,?,?,?,?,?,?)");
    ins.Bind(1, m_view)
        .Bind(2, obj.path)
        .Bind(3, server_path::Parent(obj.path))
        .Bind(4, obj.is_dir)
        .Bind(5, obj.sync_id)
        .Bind(6, obj.max_id)
        .Bind(7, obj.size)
        .Bind(8, obj.md4)
        .Bind(9, obj.mtime)
        .Bind(10, obj.exec_bit)
        .Bind(11, obj.content_id);
    return ins.Run() < 0 ? TREE_FAIL : TREE_OK;
}

int TreeWriter::AddVersion(const std::string& path, uint64_t sync_id, int64_t content_id) {
    SqliteStmt ins(m_store.db(),
                   "INSERT OR REPLACE INTO versions (view_id, sync_id, path, content_id) VALUES "
                   "(?, ?, ?, ?)");
    if (ins.Bind(1, m_view).Bind(2, sync_id).Bind(3, path).Bind(4, content_id).Run() < 0)
        return TREE_FAIL;
    return PruneVersions(path);
}

int TreeWriter::PruneVersions(const std::string& path) {
    SqliteDb& db = m_store.db();
    SqliteStmt old(db,
                   "SELECT sync_id, content_id FROM versions WHERE view_id = ?1 AND path = ?2 "
                   "ORDER BY sync_id DESC LIMIT -1 OFFSET ?3");
    old.Bind(1, m_view).Bind(2, path).Bind(3, static_cast<int64_t>(m_store.versions_kept()));
    std::vector<uint64_t> ids;
    int rc;
    while ((rc = old.Step()) == 1) {
        ids.push_back(old.UInt(0));
        m_dropped.insert(old.Int(1));
    }
    if (rc < 0) return TREE_FAIL;
    SqliteStmt del(db, "DELETE FROM versions WHERE view_id = ? AND sync_id = ?");
    for (uint64_t id : ids) {
        if (del.Bind(1, m_view).Bind(2, id).Run() < 0) return TREE_FAIL;
    }
    return TREE_OK;
}

int TreeWriter::DropVersions(const std::string& path) {
    SqliteDb& db = m_store.db();
    const char* where = " WHERE view_id = ?1 AND (path = ?2 OR (path > ?3 AND path < ?4))";
    std::string select = std::string("SELECT DISTINCT content_id FROM versions") + where;
    SqliteStmt q(db, select.c_str());
    q.Bind(1, m_view).Bind(2, path);
    BindRange(q, path);
    int rc;
    while ((rc = q.Step()) == 1) m_dropped.insert(q.Int(0));
    if (rc < 0) return TREE_FAIL;
    std::string sql = std::string("DELETE FROM versions") + where;
    SqliteStmt del(db, sql.c_str());
    del.Bind(1, m_view).Bind(2, path);
    BindRange(del, path);
    return del.Run() < 0 ? TREE_FAIL : TREE_OK;
}

int TreeWriter::RaiseAncestors(const std::string& path, uint64_t id) {
    SqliteStmt up(
        m_store.db(),
        "UPDATE objects SET max_id = ?1 WHERE view_id = ?2 AND path = ?3 AND max_id < ?1");
    for (const std::string& a : Ancestors(path)) {
        if (up.Bind(1, id).Bind(2, m_view).Bind(3, a).Run() < 0) return TREE_FAIL;
    }
    return TREE_OK;
}

int TreeWriter::RecomputeAncestors(const std::string& path) {
    // A removal lowers the subtree maximum: a client that removed the children it knew
    // must still be able to remove the emptied directory, and it never learns the ids of
    // its own removals.
    SqliteStmt up(m_store.db(),
                  "UPDATE objects SET max_id = max(sync_id, coalesce((SELECT max(max_id) FROM "
                  "objects c WHERE c.view_id = ?1 AND c.parent = ?2), 0)) WHERE view_id = ?1 "
                  "AND path = ?2");
    for (const std::string& a : Ancestors(path)) {
        if (up.Bind(1, m_view).Bind(2, a).Run() < 0) return TREE_FAIL;
    }
    return TREE_OK;
}

int TreeWriter::Tombstone(const ServerObject& obj, uint64_t id) {
    SqliteDb& db = m_store.db();
    if (obj.is_dir) {
        // What lay below is covered by the directory's own tombstone.
        SqliteStmt del(db, "DELETE FROM tombstones WHERE view_id = ?1 AND path > ?3 AND path < ?4");
        del.Bind(1, m_view);
        BindRange(del, obj.path);
        if (del.Run() < 0) return TREE_FAIL;
    }
    SqliteStmt ins(db,
                   "INSERT OR REPLACE INTO tombstones (view_id, path, parent, is_dir, sync_id, "
                   "max_id) VALUES (?, ?, ?, ?, ?, ?)");
    ins.Bind(1, m_view)
        .Bind(2, obj.path)
        .Bind(3, server_path::Parent(obj.path))
        .Bind(4, obj.is_dir)
        .Bind(5, id)
        .Bind(6, obj.max_id);
    return ins.Run() < 0 ? TREE_FAIL : TREE_OK;
}

int TreeWriter::DeleteSubtree(const std::string& path) {
    SqliteDb& db = m_store.db();
    SqliteStmt users(db,
                     "SELECT DISTINCT content_id FROM objects WHERE view_id = ?1 AND content_id "
                     "!= 0 AND (path = ?2 OR (path > ?3 AND path < ?4))");
    users.Bind(1, m_view).Bind(2, path);
    BindRange(users, path);
    int rc;
    while ((rc = users.Step()) == 1) m_dropped.insert(users.Int(0));
    if (rc < 0) return TREE_FAIL;
    SqliteStmt del(db,
                   "DELETE FROM objects WHERE view_id = ?1 AND (path = ?2 OR (path > ?3 AND path "
                   "< ?4))");
    del.Bind(1, m_view).Bind(2, path);
    BindRange(del, path);
    if (del.Run() < 0) return TREE_FAIL;
    return DropVersions(path);
}

int TreeWriter::EnsureParents(const std::string& path, uint32_t mtime) {
    std::vector<std::string> above = Ancestors(path);
    std::reverse(above.begin(), above.end());
    for (const std::string& a : above) {
        ServerObject obj;
        int rc = Get(a, obj);
        if (rc < 0) return TREE_FAIL;
        if (rc == 1) {
            if (!obj.is_dir) return TREE_CLASH;
            continue;
        }
        ServerObject dir;
        dir.path = a;
        dir.is_dir = true;
        dir.sync_id = dir.max_id = NextId();
        dir.mtime = mtime;
        if (Insert(dir) < 0 || RaiseAncestors(a, dir.sync_id) < 0) return TREE_FAIL;
    }
    return TREE_OK;
}

int TreeWriter::PutFile(const std::string& path, const FileContent& content, uint32_t mtime,
                        bool exec_bit, ServerObject& out) {
    if (path == "/") return TREE_CLASH;
    ServerObject cur;
    int rc = Get(path, cur);
    if (rc < 0) return TREE_FAIL;
    if (rc == 1 && cur.is_dir) return TREE_CLASH;
    if (rc == 1) m_dropped.insert(cur.content_id);
    rc = EnsureParents(path, mtime);
    if (rc != TREE_OK) return rc;
    ServerObject obj;
    obj.path = path;
    obj.sync_id = obj.max_id = NextId();
    obj.size = content.size;
    obj.md4 = content.md4;
    obj.mtime = mtime;
    obj.exec_bit = exec_bit;
    obj.content_id = content.content_id;
    if (Insert(obj) < 0 || AddVersion(path, obj.sync_id, obj.content_id) < 0 ||
        RaiseAncestors(path, obj.sync_id) < 0)
        return TREE_FAIL;
    out = obj;
    return TREE_OK;
}

int TreeWriter::MakeDir(const std::string& path, uint32_t mtime, ServerObject& out) {
    if (path == "/") return TREE_EXISTS;
    ServerObject cur;
    int rc = Get(path, cur);
    if (rc < 0) return TREE_FAIL;
    if (rc == 1) {
        out = cur;
        return cur.is_dir ? TREE_EXISTS : TREE_CLASH;
    }
    rc = EnsureParents(path, mtime);
    if (rc != TREE_OK) return rc;
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
    ServerObject dst;
    rc = Get(to, dst);
    if (rc < 0) return TREE_FAIL;
    if (rc == 1) return TREE_EXISTS;
    std::vector<ServerObject> subtree;
    if (m_store.ListTree(m_view, from, subtree) < 0) return TREE_FAIL;
    rc = EnsureParents(to, src.mtime);
    if (rc != TREE_OK) return rc;
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
        if (AddVersion(obj.path, obj.sync_id, obj.content_id) < 0) return TREE_FAIL;
        m_dropped.erase(obj.content_id);
    }
    // Children follow their parents in path order and got higher ids, so a moved
    // directory's maximum is the highest id below it.
    SqliteStmt up(m_store.db(),
                  "UPDATE objects SET max_id = (SELECT max(sync_id) FROM objects c WHERE "
                  "c.view_id = ?1 AND (c.path = ?2 OR (c.path > ?3 AND c.path < ?4))) WHERE "
                  "view_id = ?1 AND path = ?2");
    for (const std::string& d : moved_dirs) {
        up.Bind(1, m_view).Bind(2, d);
        BindRange(up, d);
        if (up.Run() < 0) return TREE_FAIL;
    }
    return RaiseAncestors(to, m_last) < 0 ? TREE_FAIL : TREE_OK;
}

int TreeWriter::Commit() {
    if (!m_ok) return TREE_FAIL;
    SqliteDb& db = m_store.db();
    if (m_last != m_first_last) {
        SqliteStmt up(db, "UPDATE views SET last_sync_id = ? WHERE id = ?");
        if (up.Bind(1, m_last).Bind(2, m_view).Run() < 0) return TREE_FAIL;
    }
    std::vector<int64_t> unused;
    SqliteStmt used(db,
                    "SELECT 1 WHERE EXISTS (SELECT 1 FROM objects WHERE content_id = ?1) OR "
                    "EXISTS (SELECT 1 FROM versions WHERE content_id = ?1)");
    SqliteStmt del(db, "DELETE FROM contents WHERE id = ?");
    for (int64_t id : m_dropped) {
        if (id == 0) continue;
        used.Bind(1, id);
        int rc = used.Step();
        used.Reset();
        if (rc < 0) return TREE_FAIL;
        if (rc == 1) continue;
        if (del.Bind(1, id).Run() < 0) return TREE_FAIL;
        unused.push_back(id);
    }
    if (m_txn.Commit() < 0) return TREE_FAIL;
    m_ok = false;
    // Files go only after the commit: a crash in between leaves files without records,
    // which the next start sweeps, never records without files.
    for (int64_t id : unused) m_store.contents().Release(id);
    return TREE_OK;
}
