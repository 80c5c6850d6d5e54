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
// transaction, then answers all of its writers. Throughput follows the number of writers instead
// of falling to one fsync per record. add_async() queues a record without waiting.
class batched_store : public record_store {
public:
    void add(const new_record& record) override { submit({&record, nullptr}); }
    void add(const new_attachment& attachment) override { submit({nullptr, &attachment}); }
    void add_async(new_record record, added done) override;

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
        added done;                       // called once, after the commit, outside the lock
        std::unique_ptr<new_record> own;  // what an asynchronous writer handed over
        std::exception_ptr error;
    };
    void submit(item what);
    void enqueue(std::unique_ptr<waiter> w);
    void commit_loop();

    std::mutex mutex_;
    std::condition_variable queued_;
    std::deque<std::unique_ptr<waiter>> queue_;
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
