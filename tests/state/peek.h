// peek.h: what the state tests read behind the modules' backs: the rows a statement
// gives over a database connection of the test's own (and, through files.h, a file's bytes).
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "support/files.h"

// The first column of every row `sql` gives ("<null>" for NULL); a statement that gives
// no rows is simply run.
inline std::vector<std::string> Rows(const std::string& db, const std::string& sql) {
    std::vector<std::string> out;
    sqlite3* handle = nullptr;
    sqlite3_open(db.c_str(), &handle);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(handle, sql.c_str(), -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        const unsigned char* text = sqlite3_column_text(stmt, 0);
        out.emplace_back(text != nullptr ? reinterpret_cast<const char*>(text) : "<null>");
    }
    sqlite3_finalize(stmt);
    sqlite3_close(handle);
    return out;
}
