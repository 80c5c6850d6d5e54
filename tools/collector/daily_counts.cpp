// The daily roll-up behind the dashboard's summaries: per UTC day, how many records each kind,
// software version, device model, operating system and language had. The database's triggers note
// every record added or removed, so a summary reads a few rows per day however many records there are.
#include "daily_counts.h"

#include <libpq-fe.h>
#include <sqlite3.h>

namespace collector {

namespace {

const char* const kDimensionNames[] = {"kind", "version", "model", "os", "lang"};

bool dimension_named(const std::string& name, dimension& out)
{
    const dimension all[] = {dimension::kind, dimension::version, dimension::model, dimension::os, dimension::lang};
    for (int i = 0; i < 5; ++i)
        if (name == kDimensionNames[i]) {
            out = all[i];
            return true;
        }
    return false;
}

}  // namespace

// Updating shared counter rows from every write would double a write's cost and, with several
// collectors on one database, make their transactions wait for (and deadlock with) each other.
// So a write only appends one row per record to daily_counts_pending (-1 for a removed record),
// and a reader folds those into daily_counts before it reads. A migration first drops what a
// database whose records were dropped by hand may have left of an earlier roll-up.
const char* const kSqliteDailyCounts = R"(
DROP TABLE IF EXISTS daily_counts;
DROP TABLE IF EXISTS daily_counts_pending;
CREATE TABLE daily_counts (
  day TEXT NOT NULL, dimension TEXT NOT NULL, value TEXT NOT NULL, n INTEGER NOT NULL,
  PRIMARY KEY (day, dimension, value)) WITHOUT ROWID;
CREATE TABLE daily_counts_pending (
  day TEXT NOT NULL, kind TEXT NOT NULL, software_ver TEXT NOT NULL, model_name TEXT NOT NULL,
  os_name TEXT NOT NULL, lang TEXT NOT NULL, n INTEGER NOT NULL);
INSERT INTO daily_counts
  SELECT substr(received_at, 1, 10), 'kind', kind, count(*) FROM records GROUP BY 1, 3
  UNION ALL SELECT substr(received_at, 1, 10), 'version', software_ver, count(*) FROM records GROUP BY 1, 3
  UNION ALL SELECT substr(received_at, 1, 10), 'model', model_name, count(*) FROM records GROUP BY 1, 3
  UNION ALL SELECT substr(received_at, 1, 10), 'os', os_name, count(*) FROM records GROUP BY 1, 3
  UNION ALL SELECT substr(received_at, 1, 10), 'lang', lang, count(*) FROM records GROUP BY 1, 3;
CREATE TRIGGER records_counted AFTER INSERT ON records BEGIN
  INSERT INTO daily_counts_pending VALUES (substr(NEW.received_at, 1, 10), NEW.kind, NEW.software_ver,
    NEW.model_name, NEW.os_name, NEW.lang, 1);
END;
CREATE TRIGGER records_uncounted AFTER DELETE ON records BEGIN
  INSERT INTO daily_counts_pending VALUES (substr(OLD.received_at, 1, 10), OLD.kind, OLD.software_ver,
    OLD.model_name, OLD.os_name, OLD.lang, -1);
END;
)";

const char* const kPostgresDailyCounts = R"(
DROP TABLE IF EXISTS daily_counts, daily_counts_pending;
DROP FUNCTION IF EXISTS records_count_changes() CASCADE;
CREATE TABLE daily_counts (
  day date NOT NULL, dimension text NOT NULL, value text NOT NULL, n bigint NOT NULL,
  PRIMARY KEY (day, dimension, value));
CREATE TABLE daily_counts_pending (
  day date NOT NULL, kind text NOT NULL, software_ver text NOT NULL, model_name text NOT NULL,
  os_name text NOT NULL, lang text NOT NULL, n integer NOT NULL);
INSERT INTO daily_counts
  SELECT (r.received_at AT TIME ZONE 'UTC')::date, d.dimension, d.value, count(*)
  FROM records r CROSS JOIN LATERAL (VALUES ('kind', r.kind), ('version', r.software_ver),
    ('model', r.model_name), ('os', r.os_name), ('lang', r.lang)) AS d(dimension, value)
  GROUP BY 1, 2, 3;
CREATE FUNCTION records_count_changes() RETURNS trigger LANGUAGE plpgsql AS $$
BEGIN
  INSERT INTO daily_counts_pending
    SELECT (received_at AT TIME ZONE 'UTC')::date, kind, software_ver, model_name, os_name, lang,
           CASE TG_OP WHEN 'INSERT' THEN 1 ELSE -1 END
    FROM changed;
  RETURN NULL;
END $$;
CREATE TRIGGER records_counted AFTER INSERT ON records REFERENCING NEW TABLE AS changed
  FOR EACH STATEMENT EXECUTE FUNCTION records_count_changes();
CREATE TRIGGER records_uncounted AFTER DELETE ON records REFERENCING OLD TABLE AS changed
  FOR EACH STATEMENT EXECUTE FUNCTION records_count_changes();
)";

namespace {

// The pending rows `source` (a table or a CTE) as counts per day, dimension and value.
std::string pending_counts(const std::string& source)
{
    std::string sql;
    const std::pair<const char*, const char*> columns[] = {
        {"kind", "kind"}, {"version", "software_ver"}, {"model", "model_name"}, {"os", "os_name"}, {"lang", "lang"}};
    for (const auto& c : columns)
        sql += std::string(sql.empty() ? "" : " UNION ALL ") + "SELECT day, '" + c.first + "' AS dimension, " +
               c.second + " AS value, sum(n) AS n FROM " + source + " GROUP BY day, " + c.second;
    return sql;
}

const char* const kFoldConflict = " ON CONFLICT (day, dimension, value) DO UPDATE SET n = daily_counts.n + excluded.n";

void sqlite_exec(sqlite3* db, const std::string& sql)
{
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        const std::string why = std::string("SQLite: ") + sqlite3_errmsg(db);
        sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
        throw store_error(why);
    }
}

}  // namespace

std::vector<daily_count> sqlite_daily_counts(sqlite3* db, const std::string& first_day, const std::string& last_day)
{
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT EXISTS (SELECT 1 FROM daily_counts_pending)", -1, &stmt, nullptr) != SQLITE_OK)
        throw store_error(std::string("SQLite: ") + sqlite3_errmsg(db));
    const bool pending = sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_int(stmt, 0) != 0;
    sqlite3_finalize(stmt);
    // IMMEDIATE: no write comes between the fold and the emptying of the pending rows. Only when
    // there is something to fold: a commit costs a disk flush.
    if (pending)
        sqlite_exec(db, "BEGIN IMMEDIATE; INSERT INTO daily_counts SELECT * FROM (" +
                            pending_counts("daily_counts_pending") + ") WHERE true" + kFoldConflict +
                            "; DELETE FROM daily_counts_pending; COMMIT");
    const char* sql = "SELECT day, dimension, value, n FROM daily_counts WHERE day BETWEEN ?1 AND ?2 AND n > 0";
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK)
        throw store_error(std::string("SQLite: ") + sqlite3_errmsg(db));
    sqlite3_bind_text(stmt, 1, first_day.data(), int(first_day.size()), SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt, 2, last_day.data(), int(last_day.size()), SQLITE_TRANSIENT);
    const auto text = [stmt](int column) {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
        return p ? std::string(p, std::size_t(sqlite3_column_bytes(stmt, column))) : std::string();
    };
    std::vector<daily_count> rows;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        daily_count row;
        if (!dimension_named(text(1), row.by))
            continue;
        row.day = text(0);
        row.value = text(2);
        row.count = sqlite3_column_int64(stmt, 3);
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE)
        throw store_error(std::string("SQLite: ") + sqlite3_errmsg(db));
    return rows;
}

namespace {

PGresult* run(PGconn* conn, const char* sql, std::vector<const char*> params = {})
{
    PGresult* r = PQexecParams(conn, sql, int(params.size()), nullptr, params.data(), nullptr, nullptr, 0);
    const ExecStatusType status = PQresultStatus(r);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
        const std::string why = std::string("PostgreSQL: ") + PQerrorMessage(conn);
        PQclear(r);
        PQclear(PQexec(conn, "ROLLBACK"));
        throw store_error(why);
    }
    return r;
}

}  // namespace

std::vector<daily_count> postgres_daily_counts(PGconn* conn, const std::string& first_day, const std::string& last_day)
{
    // One folder at a time, so that two readers never wait on each other's rows.
    PQclear(run(conn, "BEGIN"));
    PQclear(run(conn, "SELECT pg_advisory_xact_lock(7215393)"));
    PQclear(run(conn, ("WITH moved AS (DELETE FROM daily_counts_pending RETURNING *) INSERT INTO daily_counts " +
                          pending_counts("moved") + kFoldConflict)
                          .c_str()));
    PQclear(run(conn, "COMMIT"));
    PGresult* r = run(conn,
        "SELECT to_char(day, 'YYYY-MM-DD'), dimension, value, n FROM daily_counts "
        "WHERE day BETWEEN $1::date AND $2::date AND n > 0",
        {first_day.c_str(), last_day.c_str()});
    std::vector<daily_count> rows;
    for (int i = 0; i < PQntuples(r); ++i) {
        daily_count row;
        if (!dimension_named(PQgetvalue(r, i, 1), row.by))
            continue;
        row.day = PQgetvalue(r, i, 0);
        row.value.assign(PQgetvalue(r, i, 2), std::size_t(PQgetlength(r, i, 2)));
        row.count = std::stoll(PQgetvalue(r, i, 3));
        rows.push_back(std::move(row));
    }
    PQclear(r);
    return rows;
}

bool sqlite_find_attachment(sqlite3* db, const std::string& dfs_id, new_attachment& out)
{
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT app_id, filename, sha256, size FROM attachments WHERE dfs_id = ?1", -1, &stmt,
            nullptr) != SQLITE_OK)
        throw store_error(std::string("SQLite: ") + sqlite3_errmsg(db));
    sqlite3_bind_text(stmt, 1, dfs_id.data(), int(dfs_id.size()), SQLITE_TRANSIENT);
    const bool found = sqlite3_step(stmt) == SQLITE_ROW;
    if (found) {
        const auto text = [stmt](int column) {
            const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
            return p ? std::string(p) : std::string();
        };
        out = {dfs_id, text(0), text(1), text(2), std::uint64_t(sqlite3_column_int64(stmt, 3))};
    }
    sqlite3_finalize(stmt);
    return found;
}

bool postgres_find_attachment(PGconn* conn, const std::string& dfs_id, new_attachment& out)
{
    PGresult* r =
        run(conn, "SELECT app_id, filename, sha256, size FROM attachments WHERE dfs_id = $1", {dfs_id.c_str()});
    const bool found = PQntuples(r) > 0;
    if (found)
        out = {dfs_id, PQgetvalue(r, 0, 0), PQgetvalue(r, 0, 1), PQgetvalue(r, 0, 2),
            std::uint64_t(std::stoull(PQgetvalue(r, 0, 3)))};
    PQclear(r);
    return found;
}

}  // namespace collector
