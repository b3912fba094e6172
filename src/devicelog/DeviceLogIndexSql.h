// SPDX-License-Identifier: MIT
// DeviceLogIndexSql: the prepared statement the index's source files share. Internal to
// nimb_devicelog; one statement belongs to one thread at a time (the caller holds the
// index's database lock).
#pragma once

#include <string>

#include <sqlite3.h>

namespace DeviceLogIndexSql {

// A prepared statement, finalized on destruction.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) {
        sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(statement_); }
    bool ok() const { return statement_ != nullptr; }
    Statement& bind(int index, long long value) {
        sqlite3_bind_int64(statement_, index, value);
        return *this;
    }
    Statement& bind(int index, const std::string& value) {
        sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bindNull(int index) {
        sqlite3_bind_null(statement_, index);
        return *this;
    }
    // SQLITE_ROW while rows come, SQLITE_DONE at the end, else an error.
    int step() { return statement_ != nullptr ? sqlite3_step(statement_) : SQLITE_ERROR; }
    void reset() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    long long integer(int column) const { return sqlite3_column_int64(statement_, column); }
    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::string text(int column) const {
        const auto* value = sqlite3_column_text(statement_, column);
        return value != nullptr ? reinterpret_cast<const char*>(value) : "";
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace DeviceLogIndexSql
