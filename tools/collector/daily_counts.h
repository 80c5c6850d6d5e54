// The daily roll-up's schema and reads for each engine (a read first folds in what is pending);
// the engines call these. Not part of the store's interface.
#pragma once

#include "store.h"

struct sqlite3;
struct pg_conn;

namespace collector {

// A schema migration each: the roll-up, counted from the records already kept, and the
// triggers that note every record added or removed.
extern const char* const kSqliteDailyCounts;
extern const char* const kPostgresDailyCounts;

std::vector<daily_count> sqlite_daily_counts(sqlite3* db, const std::string& first_day, const std::string& last_day);
std::vector<daily_count> postgres_daily_counts(
    pg_conn* conn, const std::string& first_day, const std::string& last_day);
bool sqlite_find_attachment(sqlite3* db, const std::string& dfs_id, new_attachment& out);
bool postgres_find_attachment(pg_conn* conn, const std::string& dfs_id, new_attachment& out);

}  // namespace collector
