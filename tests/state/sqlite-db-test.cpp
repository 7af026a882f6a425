// The SQLite helper beneath the databases: statements kept for reuse answer each run afresh
// and hold no lock between runs, failures name their call, what a transaction or an atomic
// script began is undone when it fails, and a savepoint undoes only its own part.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "state/sqlite-db.h"
#include "support/temp-dir.h"

namespace {

class SqliteHelper : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(db.Open(path.c_str()), 0);
        ASSERT_EQ(db.Exec("CREATE TABLE t (k TEXT, v INTEGER); INSERT INTO t VALUES ('a', 1), "
                          "('a', 2), ('b', 3);"),
                  0);
    }
    std::vector<std::string> Keys() {
        std::vector<std::string> keys;
        EXPECT_EQ(db.Query("SELECT k FROM t ORDER BY v;",
                           [&](const sqlite::Statement& r) { keys.push_back(r.String(0)); }),
                  0);
        return keys;
    }

    TempDir dir;
    std::string path = dir / "t.sqlite";
    sqlite::Database db;
};

TEST_F(SqliteHelper, KeptStatementRebindsAndLeavesNoLockBehind) {
    const char* sql = "SELECT v FROM t WHERE k = ? ORDER BY v;";
    int64_t first = 0;
    auto read = [&](const sqlite::Statement& r) { first = r.Int64(0); };
    ASSERT_EQ(db.Reuse(sql)->Bind(1, std::string("a")).First(read), 1);
    EXPECT_EQ(first, 1);
    sqlite::Statement* again = db.Reuse(sql);
    ASSERT_EQ(again->Bind(1, std::string("b")).First(read), 1);
    EXPECT_EQ(first, 3);
    EXPECT_EQ(again->Bind(1, std::string("none")).First(read), 0);

    // Rows were left unread above; a writer on another connection, which never waits, must
    // still get through (this file keeps a rollback journal, where a reader blocks writers).
    sqlite::Database other;
    ASSERT_EQ(other.Open(path.c_str()), 0);
    EXPECT_EQ(other.Run("DELETE FROM t WHERE k = ?;", std::string("a")), 0)
        << other.failure().message;
    EXPECT_EQ(Keys(), std::vector<std::string>{"b"});
}

TEST_F(SqliteHelper, FailuresNameTheirCallAndChangeNothing) {
    EXPECT_FALSE(db.Prepare("SELECT v FROM nowhere;").ok());
    EXPECT_STREQ(db.failure().call, "sqlite3_prepare_v2");
    EXPECT_NE(db.failure().message.find("nowhere"), std::string::npos);
    EXPECT_EQ(db.Run("DELETE FROM t WHERE k = ?;", std::string("a"), std::string("extra")), -1);
    EXPECT_STREQ(db.failure().call, "sqlite3_bind_text");
    EXPECT_EQ(db.failure().rc, SQLITE_RANGE);

    EXPECT_EQ(db.ExecAtomic("BEGIN; DELETE FROM t; INSERT INTO nowhere VALUES (1); COMMIT;"), -1);
    EXPECT_FALSE(db.InTransaction());
    {
        sqlite::Transaction txn(db);
        ASSERT_TRUE(txn.ok());
        ASSERT_EQ(db.Exec("DELETE FROM t;"), 0);
    }
    EXPECT_EQ(Keys(), (std::vector<std::string>{"a", "a", "b"}));
    sqlite::Transaction txn(db);
    ASSERT_EQ(db.Exec("DELETE FROM t WHERE k = 'b';"), 0);
    ASSERT_EQ(txn.Commit(), 0);
    EXPECT_EQ(Keys(), (std::vector<std::string>{"a", "a"}));
}

TEST_F(SqliteHelper, SavepointUndoesOnlyItsOwnPartAndBlobsKeepEmptyApartFromNull) {
    sqlite::Transaction txn(db);
    ASSERT_EQ(db.Exec("DELETE FROM t WHERE k = 'b';"), 0);
    {
        sqlite::Savepoint kept(db);
        ASSERT_EQ(db.Exec("INSERT INTO t VALUES ('c', 4);"), 0);
        ASSERT_EQ(kept.Release(), 0);
    }
    {
        sqlite::Savepoint undone(db);
        ASSERT_TRUE(undone.ok());
        ASSERT_EQ(db.Exec("DELETE FROM t;"), 0);
    }
    ASSERT_EQ(db.Exec("CREATE TABLE b (v BLOB);"), 0);
    sqlite::Statement* ins = db.Reuse("INSERT INTO b VALUES (?);");
    ASSERT_EQ(ins->BindBlob(1, "x\0y", 3).Execute(), 0);
    ASSERT_EQ(db.Reuse("INSERT INTO b VALUES (?);")->BindBlob(1, "", 0).Execute(), 0);
    ASSERT_EQ(db.Reuse("INSERT INTO b VALUES (?);")->BindBlob(1, nullptr, 0).Execute(), 0);
    ASSERT_EQ(txn.Commit(), 0);
    EXPECT_EQ(Keys(), (std::vector<std::string>{"a", "a", "c"}));
    std::vector<std::string> blobs;
    EXPECT_EQ(db.Query("SELECT v FROM b ORDER BY rowid;",
                       [&](const sqlite::Statement& r) {
                           std::string bytes;
                           blobs.push_back(r.Blob(0, bytes) ? "[" + bytes + "]" : "null");
                       }),
              0);
    EXPECT_EQ(blobs, (std::vector<std::string>{std::string("[x\0y]", 5), "[]", "null"}));
}

}  // namespace
