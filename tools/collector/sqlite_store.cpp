// The embedded engine: one SQLite file in WAL mode with synchronous=FULL, so a commit has reached
// the disk before any answer is given. One connection writes (the committer's), one reads.
#include "daily_counts.h"
#include "store_engine.h"

#include <sqlite3.h>

namespace collector {
namespace {

// Each schema version's statements; the store runs those above the version it finds.
const char* const kMigrations[] = {
    R"(CREATE TABLE records (
         id INTEGER PRIMARY KEY,
         received_at TEXT NOT NULL,
         app_id TEXT NOT NULL,
         kind TEXT NOT NULL,
         body TEXT NOT NULL,
         sha256 TEXT NOT NULL,
         software_name TEXT NOT NULL, software_ver TEXT NOT NULL, model_name TEXT NOT NULL,
         os_name TEXT NOT NULL, serial TEXT NOT NULL, start_on TEXT NOT NULL, lang TEXT NOT NULL,
         UNIQUE (app_id, kind, sha256));
       CREATE INDEX records_received_at ON records (received_at);
       CREATE INDEX records_kind ON records (kind, received_at);
       CREATE INDEX records_software ON records (software_name, software_ver);
       CREATE INDEX records_version ON records (software_ver);
       CREATE INDEX records_model ON records (model_name);
       CREATE INDEX records_os ON records (os_name);
       CREATE INDEX records_serial ON records (serial);
       CREATE INDEX records_start_on ON records (start_on);
       CREATE INDEX records_lang ON records (lang);
       CREATE TABLE attachments (
         dfs_id TEXT PRIMARY KEY,
         received_at TEXT NOT NULL,
         app_id TEXT NOT NULL,
         filename TEXT NOT NULL,
         sha256 TEXT NOT NULL,
         size INTEGER NOT NULL);)",
    kSqliteDailyCounts,
};

const char* const kColumns =
    "id, received_at, app_id, kind, sha256, body, software_name, software_ver, model_name, os_name, serial, "
    "start_on, lang";

class statement {
public:
    statement(sqlite3* db, const std::string& sql) : db_(db)
    {
        if (sqlite3_prepare_v2(db, sql.c_str(), int(sql.size()), &stmt_, nullptr) != SQLITE_OK)
            fail();
    }
    ~statement() { sqlite3_finalize(stmt_); }
    statement(const statement&) = delete;
    statement& operator=(const statement&) = delete;

    statement& bind(int index, const std::string& text)
    {
        sqlite3_bind_text(stmt_, index, text.data(), int(text.size()), SQLITE_TRANSIENT);
        return *this;
    }
    statement& bind(int index, std::int64_t value)
    {
        sqlite3_bind_int64(stmt_, index, value);
        return *this;
    }
    // True while there is a row.
    bool step()
    {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW)
            return true;
        if (rc != SQLITE_DONE)
            fail();
        return false;
    }
    void reset()
    {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    std::string text(int column) const
    {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return p ? std::string(p, std::size_t(sqlite3_column_bytes(stmt_, column))) : std::string();
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }

private:
    [[noreturn]] void fail() { throw store_error(std::string("SQLite: ") + sqlite3_errmsg(db_)); }
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

void exec(sqlite3* db, const std::string& sql)
{
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : sqlite3_errmsg(db);
        sqlite3_free(message);
        throw store_error("SQLite: " + text);
    }
}

sqlite3* connect(const std::string& path)
{
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr) !=
        SQLITE_OK) {
        const std::string why = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw store_error("cannot open " + path + ": " + why);
    }
    sqlite3_busy_timeout(db, 5000);  // a writer of another process holds the lock for a moment only
    try {
        // temp_store: a statement journal in memory, not a temporary file for every insert that fires
        // a trigger (that file tripled an insert's CPU time).
        exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA temp_store=MEMORY;");
    } catch (...) {
        sqlite3_close(db);
        throw;
    }
    return db;
}

class sqlite_store final : public batched_store {
public:
    explicit sqlite_store(const std::string& path) : writer_(connect(path)), reader_(nullptr)
    {
        try {
            migrate();
            reader_ = connect(path);
            insert_record_ = std::make_unique<statement>(writer_,
                "INSERT INTO records (received_at, app_id, kind, body, sha256, software_name, "
                "software_ver, model_name, os_name, serial, start_on, lang) VALUES "
                "(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12) "
                "ON CONFLICT (app_id, kind, sha256) DO NOTHING");
            insert_attachment_ = std::make_unique<statement>(writer_,
                "INSERT INTO attachments (dfs_id, received_at, app_id, filename, sha256, size) "
                "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
        } catch (...) {
            insert_record_.reset();
            sqlite3_close(reader_);
            sqlite3_close(writer_);
            throw;
        }
        start_committer();
    }
    ~sqlite_store() override
    {
        stop_committer();
        insert_record_.reset();
        insert_attachment_.reset();
        sqlite3_close(reader_);
        sqlite3_close(writer_);
    }

    void list(const record_filter& filter, std::int64_t limit, std::int64_t offset,
        const std::function<bool(const stored_record&)>& each) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        std::vector<std::string> params;
        statement s(reader_, std::string("SELECT ") + kColumns + " FROM records" + where(filter, params) +
                                 " ORDER BY id LIMIT " + std::to_string(limit > 0 ? limit : -1) + " OFFSET " +
                                 std::to_string(offset));
        bind_all(s, params);
        while (s.step()) {
            stored_record r;
            r.id = s.integer(0);
            std::string* fields[] = {&r.received_at, &r.app_id, &r.kind, &r.sha256, &r.body, &r.software_name,
                &r.software_ver, &r.model_name, &r.os_name, &r.serial, &r.start_on, &r.lang};
            for (int i = 0; i < 12; ++i)
                *fields[i] = s.text(i + 1);
            if (!each(r))
                break;
        }
    }

    std::int64_t count(const record_filter& filter) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        std::vector<std::string> params;
        statement s(reader_, "SELECT count(*) FROM records" + where(filter, params));
        bind_all(s, params);
        return s.step() ? s.integer(0) : 0;
    }

    std::vector<count_row> counts(
        const record_filter& filter, const std::vector<dimension>& by, std::int64_t limit) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        std::vector<std::string> params;
        std::string columns;
        for (const dimension d : by)
            columns += (columns.empty() ? "" : ", ") + dimension_column(d, "substr(received_at, 1, 10)");
        statement s(reader_, "SELECT " + columns + ", count(*) FROM records" + where(filter, params) + " GROUP BY " +
                                 columns + " ORDER BY count(*) DESC, " + columns + " LIMIT " +
                                 std::to_string(limit > 0 ? limit : -1));
        bind_all(s, params);
        std::vector<count_row> rows;
        while (s.step()) {
            count_row row;
            for (std::size_t i = 0; i < by.size(); ++i)
                row.keys.push_back(s.text(int(i)));
            row.count = s.integer(int(by.size()));
            rows.push_back(std::move(row));
        }
        return rows;
    }

    std::int64_t remove(const record_filter& filter) override
    {
        std::vector<std::string> params;
        const std::string condition = where(filter, params);
        if (condition.empty())
            return 0;
        std::lock_guard<std::mutex> lock(read_mutex_);
        statement s(reader_, "DELETE FROM records" + condition);
        bind_all(s, params);
        s.step();
        return sqlite3_changes(reader_);
    }

    int schema_version() override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        statement s(reader_, "SELECT version FROM schema_version");
        return s.step() ? int(s.integer(0)) : 0;
    }

    std::vector<daily_count> daily_counts(const std::string& first_day, const std::string& last_day) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        return sqlite_daily_counts(reader_, first_day, last_day);
    }
    bool find_attachment(const std::string& dfs_id, new_attachment& out) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        return sqlite_find_attachment(reader_, dfs_id, out);
    }

protected:
    void write(const std::vector<item>& items) override
    {
        try {
            exec(writer_, "BEGIN IMMEDIATE");
            const std::string now = utc_timestamp();
            for (const item& i : items) {
                if (i.record) {
                    const new_record& r = *i.record;
                    insert_record_->reset();
                    int n = 0;
                    for (const std::string* v : {&now, &r.app_id, &r.kind, &r.body, &r.sha256, &r.software_name,
                             &r.software_ver, &r.model_name, &r.os_name, &r.serial, &r.start_on, &r.lang})
                        insert_record_->bind(++n, *v);
                    insert_record_->step();
                } else {
                    const new_attachment& a = *i.attachment;
                    statement& s = *insert_attachment_;
                    s.reset();
                    s.bind(1, a.dfs_id).bind(2, now).bind(3, a.app_id).bind(4, a.filename);
                    s.bind(5, a.sha256).bind(6, std::int64_t(a.size)).step();
                }
            }
            exec(writer_, "COMMIT");
        } catch (const store_error&) {
            sqlite3_exec(writer_, "ROLLBACK", nullptr, nullptr, nullptr);
            throw;
        }
    }

private:
    void migrate()
    {
        exec(writer_, "BEGIN IMMEDIATE");
        try {
            exec(writer_, "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
            int version = 0;
            {
                statement s(writer_, "SELECT version FROM schema_version");
                if (s.step())
                    version = int(s.integer(0));
            }
            if (version > kSchemaVersion)
                throw store_error("the database has schema version " + std::to_string(version) +
                                  ", newer than this collector's " + std::to_string(kSchemaVersion));
            for (int v = version; v < kSchemaVersion; ++v)
                exec(writer_, kMigrations[v]);
            exec(writer_, "DELETE FROM schema_version; INSERT INTO schema_version VALUES (" +
                              std::to_string(kSchemaVersion) + ")");
            exec(writer_, "COMMIT");
        } catch (...) {
            sqlite3_exec(writer_, "ROLLBACK", nullptr, nullptr, nullptr);
            throw;
        }
    }

    static std::string where(const record_filter& filter, std::vector<std::string>& params)
    {
        return where_clause(
            filter, params, [](std::size_t n) { return "?" + std::to_string(n); },
            [](const std::string& p) { return p; });
    }
    static void bind_all(statement& s, const std::vector<std::string>& params)
    {
        for (std::size_t i = 0; i < params.size(); ++i)
            s.bind(int(i + 1), params[i]);
    }

    sqlite3* writer_;
    sqlite3* reader_;
    std::mutex read_mutex_;
    // Prepared once, used by the committer only.
    std::unique_ptr<statement> insert_record_, insert_attachment_;
};

}  // namespace

std::unique_ptr<record_store> open_sqlite_store(const std::string& path)
{
    return std::make_unique<sqlite_store>(path);
}

}  // namespace collector
