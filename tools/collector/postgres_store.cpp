// The shared engine: PostgreSQL through libpq, several collectors on one database. Commits with
// synchronous_commit on; a unique key on (app_id, kind, sha256) keeps a record once whichever
// collector receives it, and a lost connection is opened again before the next write or read.
#include "daily_counts.h"
#include "store_engine.h"

#include <libpq-fe.h>

#include <algorithm>
#include <tuple>

namespace collector {
namespace {

const char* const kMigrations[] = {
    R"(CREATE TABLE records (
         id bigserial PRIMARY KEY,
         received_at timestamptz NOT NULL DEFAULT now(),
         app_id text NOT NULL,
         kind text NOT NULL,
         body jsonb NOT NULL,
         sha256 text NOT NULL,
         software_name text NOT NULL, software_ver text NOT NULL, model_name text NOT NULL,
         os_name text NOT NULL, serial text NOT NULL, start_on text NOT NULL, lang text NOT NULL,
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
         dfs_id text PRIMARY KEY,
         received_at timestamptz NOT NULL DEFAULT now(),
         app_id text NOT NULL,
         filename text NOT NULL,
         sha256 text NOT NULL,
         size bigint NOT NULL);)",
    kPostgresDailyCounts,
};

const char* const kDay = "to_char(received_at AT TIME ZONE 'UTC', 'YYYY-MM-DD')";

// One result, cleared when it goes.
class result {
public:
    explicit result(PGresult* r) : r_(r) {}
    ~result() { PQclear(r_); }
    result(result&& other) noexcept : r_(other.r_) { other.r_ = nullptr; }
    result(const result&) = delete;
    result& operator=(const result&) = delete;
    PGresult* get() const { return r_; }
    std::string text(int row, int column) const
    {
        return std::string(PQgetvalue(r_, row, column), std::size_t(PQgetlength(r_, row, column)));
    }

private:
    PGresult* r_;
};

class connection {
public:
    explicit connection(const std::string& uri) : uri_(uri) { open(); }
    ~connection() { PQfinish(conn_); }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    // Opens the connection again if it was lost (the server restarted, the network failed);
    // true when it did: the new session has no prepared statements.
    bool ensure()
    {
        if (PQstatus(conn_) == CONNECTION_OK)
            return false;
        PQreset(conn_);
        if (PQstatus(conn_) != CONNECTION_OK)
            throw store_error("PostgreSQL: " + message());
        setup();
        return true;
    }
    bool lost() const { return PQstatus(conn_) != CONNECTION_OK; }

    PGconn* get() const { return conn_; }

    // Runs `sql` with text parameters; throws unless it succeeded.
    result run(const std::string& sql, const std::vector<std::string>& params = {})
    {
        std::vector<const char*> values;
        for (const std::string& p : params)
            values.push_back(p.c_str());
        result r(values.empty() ? PQexec(conn_, sql.c_str())  // several statements allowed
                                : PQexecParams(conn_, sql.c_str(), int(values.size()), nullptr, values.data(), nullptr,
                                      nullptr, 0));
        check(r);
        return r;
    }
    result run_prepared(const char* name, const std::vector<const std::string*>& params)
    {
        std::vector<const char*> values;
        for (const std::string* p : params)
            values.push_back(p->c_str());
        result r(PQexecPrepared(conn_, name, int(values.size()), values.data(), nullptr, nullptr, 0));
        check(r);
        return r;
    }
    void check(const result& r)
    {
        const ExecStatusType status = PQresultStatus(r.get());
        if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_SINGLE_TUPLE)
            return;
        const char* state = PQresultErrorField(r.get(), PG_DIAG_SQLSTATE);
        const std::string why = "PostgreSQL: " + message();
        if (state && std::string(state).rfind("22", 0) == 0)  // a data exception: this record's content
            throw record_rejected(why);
        throw store_error(why);
    }
    std::string message() const
    {
        std::string text = PQerrorMessage(conn_);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
            text.pop_back();
        return text;
    }

private:
    void open()
    {
        conn_ = PQconnectdb(uri_.c_str());
        if (PQstatus(conn_) != CONNECTION_OK)
            throw store_error("cannot connect to PostgreSQL: " + message());
        setup();
    }
    void setup()
    {
        run("SET synchronous_commit = on");
        run("SET client_encoding = 'UTF8'");
    }

    std::string uri_;
    PGconn* conn_ = nullptr;
};

class postgres_store final : public batched_store {
public:
    explicit postgres_store(const std::string& uri) : writer_(uri), reader_(uri)
    {
        migrate();
        start_committer();
    }
    ~postgres_store() override { stop_committer(); }

    void list(const record_filter& filter, std::int64_t limit, std::int64_t offset,
        const std::function<bool(const stored_record&)>& each) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        std::vector<std::string> params;
        const std::string sql =
            std::string("SELECT id, to_char(received_at AT TIME ZONE 'UTC', 'YYYY-MM-DD\"T\"HH24:MI:SS\"Z\"'), app_id, "
                        "kind, sha256, body::text, software_name, software_ver, model_name, os_name, serial, "
                        "start_on, lang FROM records") +
            where(filter, params) + " ORDER BY id" + (limit > 0 ? " LIMIT " + std::to_string(limit) : "") + " OFFSET " +
            std::to_string(offset);
        std::vector<const char*> values;
        for (const std::string& p : params)
            values.push_back(p.c_str());
        PGconn* conn = reader_.get();
        if (!PQsendQueryParams(conn, sql.c_str(), int(values.size()), nullptr, values.data(), nullptr, nullptr, 0))
            throw store_error("PostgreSQL: " + reader_.message());
        PQsetSingleRowMode(conn);  // one row at a time: an export of millions streams
        bool wanted = true, cancelled = false;
        std::string error;
        while (PGresult* raw = PQgetResult(conn)) {
            result r(raw);
            const ExecStatusType status = PQresultStatus(raw);
            if (status != PGRES_SINGLE_TUPLE && status != PGRES_TUPLES_OK) {
                error = error.empty() ? "PostgreSQL: " + reader_.message() : error;
                continue;
            }
            for (int row = 0; wanted && row < PQntuples(raw); ++row) {
                stored_record s;
                s.id = std::stoll(r.text(row, 0));
                std::string* fields[] = {&s.received_at, &s.app_id, &s.kind, &s.sha256, &s.body, &s.software_name,
                    &s.software_ver, &s.model_name, &s.os_name, &s.serial, &s.start_on, &s.lang};
                for (int i = 0; i < 12; ++i)
                    *fields[i] = r.text(row, i + 1);
                wanted = each(s);
            }
            if (!wanted && !cancelled)
                cancelled = PQrequestCancel(conn);  // what is still on its way is read and dropped
        }
        if (!error.empty() && wanted)
            throw store_error(error);
    }

    std::int64_t count(const record_filter& filter) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        std::vector<std::string> params;
        const std::string condition = where(filter, params);
        const result r = reader_.run("SELECT count(*) FROM records" + condition, params);
        return std::stoll(r.text(0, 0));
    }

    std::vector<count_row> counts(
        const record_filter& filter, const std::vector<dimension>& by, std::int64_t limit) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        std::vector<std::string> params;
        std::string columns;
        for (const dimension d : by)
            columns += (columns.empty() ? "" : ", ") + dimension_column(d, kDay);
        const std::string condition = where(filter, params);
        const result r = reader_.run("SELECT " + columns + ", count(*) FROM records" + condition + " GROUP BY " +
                                         columns + " ORDER BY count(*) DESC, " + columns +
                                         (limit > 0 ? " LIMIT " + std::to_string(limit) : ""),
            params);
        std::vector<count_row> rows;
        for (int row = 0; row < PQntuples(r.get()); ++row) {
            count_row c;
            for (std::size_t i = 0; i < by.size(); ++i)
                c.keys.push_back(r.text(row, int(i)));
            c.count = std::stoll(r.text(row, int(by.size())));
            rows.push_back(std::move(c));
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
        reader_.ensure();
        const result r = reader_.run("DELETE FROM records" + condition, params);
        return std::stoll(PQcmdTuples(r.get()));
    }

    int schema_version() override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        const result r = reader_.run("SELECT version FROM schema_version");
        return PQntuples(r.get()) ? std::stoi(r.text(0, 0)) : 0;
    }

    std::vector<daily_count> daily_counts(const std::string& first_day, const std::string& last_day) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        return postgres_daily_counts(reader_.get(), first_day, last_day);
    }
    bool find_attachment(const std::string& dfs_id, new_attachment& out) override
    {
        std::lock_guard<std::mutex> lock(read_mutex_);
        reader_.ensure();
        return postgres_find_attachment(reader_.get(), dfs_id, out);
    }

protected:
    void write(const std::vector<item>& items) override
    {
        try {
            write_once(items);
        } catch (const record_rejected&) {
            throw;
        } catch (const store_error&) {
            if (!writer_.lost())
                throw;
            write_once(items);  // the server restarted since the last write: once more, on a new session
        }
    }

private:
    void write_once(const std::vector<item>& given)
    {
        if (writer_.ensure())
            prepared_ = false;
        if (!prepared_) {
            writer_.check(result(PQprepare(writer_.get(), "record",
                "INSERT INTO records (app_id, kind, body, sha256, software_name, "
                "software_ver, model_name, os_name, serial, start_on, lang) VALUES "
                "($1, $2, $3::jsonb, $4, $5, $6, $7, $8, $9, $10, $11) "
                "ON CONFLICT (app_id, kind, sha256) DO NOTHING",
                0, nullptr)));
            writer_.check(result(PQprepare(writer_.get(), "attachment",
                "INSERT INTO attachments (dfs_id, app_id, filename, sha256, size) "
                "VALUES ($1, $2, $3, $4, $5::bigint)",
                0, nullptr)));
            prepared_ = true;
        }
        // In key order: two collectors writing the same records lock them in the same order and
        // never deadlock each other.
        std::vector<item> items = given;
        const auto key = [](const item& i) {
            return i.record ? std::tie(i.record->app_id, i.record->kind, i.record->sha256)
                            : std::tie(i.attachment->app_id, i.attachment->dfs_id, i.attachment->sha256);
        };
        std::sort(items.begin(), items.end(), [&](const item& a, const item& b) { return key(a) < key(b); });
        try {
            writer_.run("BEGIN");
            for (const item& i : items) {
                if (i.record) {
                    const new_record& r = *i.record;
                    writer_.run_prepared(
                        "record", {&r.app_id, &r.kind, &r.body, &r.sha256, &r.software_name, &r.software_ver,
                                      &r.model_name, &r.os_name, &r.serial, &r.start_on, &r.lang});
                } else {
                    const new_attachment& a = *i.attachment;
                    const std::string size = std::to_string(a.size);
                    writer_.run_prepared("attachment", {&a.dfs_id, &a.app_id, &a.filename, &a.sha256, &size});
                }
            }
            writer_.run("COMMIT");
        } catch (const store_error&) {
            if (PQstatus(writer_.get()) == CONNECTION_OK)
                PQclear(PQexec(writer_.get(), "ROLLBACK"));
            else
                prepared_ = false;  // a new session knows none of them
            throw;
        }
    }

    void migrate()
    {
        writer_.run("BEGIN");
        try {
            writer_.run("SELECT pg_advisory_xact_lock(7215392)");  // one collector migrates at a time
            writer_.run("CREATE TABLE IF NOT EXISTS schema_version (version integer NOT NULL)");
            const result r = writer_.run("SELECT version FROM schema_version");
            const int version = PQntuples(r.get()) ? std::stoi(r.text(0, 0)) : 0;
            if (version > kSchemaVersion)
                throw store_error("the database has schema version " + std::to_string(version) +
                                  ", newer than this collector's " + std::to_string(kSchemaVersion));
            for (int v = version; v < kSchemaVersion; ++v)
                writer_.run(kMigrations[v]);
            writer_.run("DELETE FROM schema_version");
            writer_.run("INSERT INTO schema_version VALUES (" + std::to_string(kSchemaVersion) + ")");
            writer_.run("COMMIT");
        } catch (...) {
            PQclear(PQexec(writer_.get(), "ROLLBACK"));
            throw;
        }
    }

    static std::string where(const record_filter& filter, std::vector<std::string>& params)
    {
        return where_clause(
            filter, params, [](std::size_t n) { return "$" + std::to_string(n); },
            [](const std::string& p) { return p + "::timestamptz"; });
    }

    connection writer_;  // the committer's
    connection reader_;
    std::mutex read_mutex_;
    bool prepared_ = false;
};

}  // namespace

std::unique_ptr<record_store> open_postgres_store(const std::string& uri)
{
    return std::make_unique<postgres_store>(uri);
}

}  // namespace collector
