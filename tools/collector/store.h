// The record store: where the collector keeps what it acknowledged. One interface, two engines
// (SQLite for one machine, PostgreSQL for several collectors sharing a database). A write returns
// only once the transaction holding it has committed durably; concurrent writers share commits.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace collector {

// The store cannot be reached, is locked or full: nothing was written, try again later.
class store_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A record as a client sent it, with what the store derives from it for its indexes.
struct new_record {
    std::string app_id;
    std::string kind;    // the request's "type"
    std::string body;    // a JSON object, as received
    std::string sha256;  // of body, lowercase hex
    // Taken from the body; empty when absent. "osName" and "lang" live under "osSoftExt".
    std::string software_name, software_ver, model_name, os_name, serial, start_on, lang;
};

// A record as kept.
struct stored_record {
    std::int64_t id = 0;
    std::string received_at;  // "YYYY-MM-DDThh:mm:ssZ", UTC
    std::string app_id, kind, sha256;
    std::string body;  // the JSON object
    std::string software_name, software_ver, model_name, os_name, serial, start_on, lang;
};

// An uploaded file: its bytes live content-addressed under DATA_DIR/files/, this in the database.
struct new_attachment {
    std::string dfs_id;
    std::string app_id;
    std::string filename;  // as the client named it, without folders
    std::string sha256;    // of the bytes: the file's name under files/
    std::uint64_t size = 0;
};

// Which records a read or a removal covers; an empty field does not restrict.
struct record_filter {
    std::string kind, version, model, serial, os, lang;
    std::string since;  // received at or after, "YYYY-MM-DDThh:mm:ssZ"
    std::string until;  // received before, same form
};

// What stats and summaries group by.
enum class dimension { kind, version, model, os, lang, day };

// Records of one UTC day with one value of one dimension (kind, version, model, os or lang).
struct daily_count {
    std::string day;  // YYYY-MM-DD
    dimension by = dimension::kind;
    std::string value;
    std::int64_t count = 0;
};

struct count_row {
    std::vector<std::string> keys;  // one per dimension asked for, in that order ("day": YYYY-MM-DD)
    std::int64_t count = 0;
};

class record_store {
public:
    virtual ~record_store() = default;

    // Keeps the record and returns once it is durable. A record equal to a kept one (same
    // application id, kind and body hash) is not kept twice, and returns all the same.
    // Throws store_error when the store is unavailable.
    virtual void add(const new_record& record) = 0;
    virtual void add(const new_attachment& attachment) = 0;
    // As add(), but returns at once: `done` is called, on a thread of the store's, with null once
    // the record is durable, or with the store_error add() would have thrown. (This default waits
    // in add() first.)
    using added = std::function<void(std::exception_ptr)>;
    virtual void add_async(new_record record, added done);

    // Calls `each` for the matching records in id order, from `offset`, at most `limit` of them
    // (0: all) while it returns true. Streams: a whole export is never held in memory.
    virtual void list(const record_filter& filter, std::int64_t limit, std::int64_t offset,
        const std::function<bool(const stored_record&)>& each) = 0;
    virtual std::int64_t count(const record_filter& filter) = 0;
    // Counts of the matching records grouped by `by`, largest first, at most `limit` rows (0: all).
    virtual std::vector<count_row> counts(
        const record_filter& filter, const std::vector<dimension>& by, std::int64_t limit = 0) = 0;
    // Removes the matching records; returns how many. An empty filter removes nothing.
    virtual std::int64_t remove(const record_filter& filter) = 0;

    virtual int schema_version() = 0;

    // The daily counts from `first_day` to `last_day` ("YYYY-MM-DD", both included), which the
    // database keeps up to date as records come and go: the cost follows days and values, not records.
    virtual std::vector<daily_count> daily_counts(const std::string& first_day, const std::string& last_day) = 0;
    // The attachment uploaded as `dfs_id`; false when there is none.
    virtual bool find_attachment(const std::string& dfs_id, new_attachment& out) = 0;
};

// The current schema version, written by every engine when it creates or migrates its schema.
constexpr int kSchemaVersion = 2;

// Opens (creating and migrating the schema) "sqlite:PATH" or a libpq URI "postgresql://..." /
// "postgres://...". Throws store_error with a readable reason.
std::unique_ptr<record_store> open_store(const std::string& url);

// A record ready for add(): its hash and indexed fields. False when the body is not a JSON object.
bool make_record(const std::string& app_id, const std::string& kind, std::string body, new_record& out);

std::string sha256_hex(const void* data, std::size_t size);
// Now, or `days` ago, as "YYYY-MM-DDThh:mm:ssZ".
std::string utc_timestamp(int days_ago = 0);

}  // namespace collector
