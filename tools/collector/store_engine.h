// What the two store engines share: group commit and the SQL of a filter. Not part of the
// store's interface.
#pragma once

#include "store.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace collector {

// The store refused one record's content (PostgreSQL's jsonb is stricter than the protocol's
// check): the others of its batch are written without it.
class record_rejected : public store_error {
public:
    using store_error::store_error;
};

// Group commit: add() queues its record and waits; one thread writes everything queued in one
// transaction, then wakes all of its writers. Throughput follows the number of writers instead
// of falling to one fsync per record.
class batched_store : public record_store {
public:
    void add(const new_record& record) override { submit({&record, nullptr}); }
    void add(const new_attachment& attachment) override { submit({nullptr, &attachment}); }

protected:
    struct item {
        const new_record* record;
        const new_attachment* attachment;
    };
    // Writes `items` in one transaction and returns once it committed durably. Throws
    // store_error (record_rejected when one item's content was refused).
    virtual void write(const std::vector<item>& items) = 0;
    void start_committer();
    void stop_committer();  // every engine's destructor calls it before closing its connections

private:
    struct waiter {
        item what;
        bool done = false;
        bool rejected = false;
        std::string error;
    };
    void submit(item what);
    void commit_loop();

    std::mutex mutex_;
    std::condition_variable queued_, committed_;
    std::deque<waiter*> queue_;
    bool stopping_ = false;
    std::thread committer_;
};

// The WHERE clause of `filter` ("" when it restricts nothing), with `placeholder(n)` naming the
// n-th parameter (from 1) and `time(p)` turning a parameter into a time; `day` is the engine's
// expression for received_at's UTC date.
std::string where_clause(const record_filter& filter, std::vector<std::string>& params,
    const std::function<std::string(std::size_t)>& placeholder,
    const std::function<std::string(const std::string&)>& time);
std::string dimension_column(dimension d, const std::string& day);

std::unique_ptr<record_store> open_sqlite_store(const std::string& path);
std::unique_ptr<record_store> open_postgres_store(const std::string& uri);

}  // namespace collector
