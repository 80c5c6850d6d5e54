#include "store_engine.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <openssl/evp.h>

#include <ctime>

namespace collector {

std::string sha256_hex(const void* data, std::size_t size)
{
    unsigned char digest[32];
    EVP_Digest(data, size, digest, nullptr, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char b : digest)
        out += hex[b >> 4], out += hex[b & 15];
    return out;
}

std::string utc_timestamp(int days_ago)
{
    const std::time_t t = std::time(nullptr) - std::time_t(days_ago) * 86400;
    std::tm tm{};
    gmtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

bool make_record(const std::string& app_id, const std::string& kind, std::string body, new_record& out)
{
    QJsonParseError error{};
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray::fromRawData(body.data(), int(body.size())), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    const QJsonObject object = document.object();
    const QJsonObject os = object.value("osSoftExt").toObject();
    const auto text = [](const QJsonValue& v) { return v.isString() ? v.toString().toStdString() : std::string(); };
    out.app_id = app_id;
    out.kind = kind;
    out.sha256 = sha256_hex(body.data(), body.size());
    out.software_name = text(object.value("softwareName"));
    out.software_ver = text(object.value("softwareVer"));
    out.model_name = text(object.value("modelName"));
    out.serial = text(object.value("seriaNum"));
    out.start_on = text(object.value("startOn"));
    out.os_name = text(os.value("osName"));
    out.lang = text(os.value("lang"));
    out.body = std::move(body);
    return true;
}

std::unique_ptr<record_store> open_store(const std::string& url)
{
    if (url.rfind("sqlite:", 0) == 0 && url.size() > 7)
        return open_sqlite_store(url.substr(7));
    if (url.rfind("postgresql://", 0) == 0 || url.rfind("postgres://", 0) == 0)
        return open_postgres_store(url);
    throw store_error("unknown database \"" + url + "\": use sqlite:PATH or postgresql://...");
}

void batched_store::start_committer()
{
    committer_ = std::thread([this] { commit_loop(); });
}

void batched_store::stop_committer()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    queued_.notify_all();
    if (committer_.joinable())
        committer_.join();
}

void record_store::add_async(new_record record, added done)
{
    std::exception_ptr error;
    try {
        add(record);
    } catch (const store_error&) {
        error = std::current_exception();
    }
    done(error);
}

void batched_store::enqueue(std::unique_ptr<waiter> w)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_) {
        lock.unlock();
        w->done(std::make_exception_ptr(store_error("the store is closing")));
        return;
    }
    queue_.push_back(std::move(w));
    queued_.notify_one();
}

void batched_store::submit(item what)
{
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
    std::exception_ptr error;
    auto w = std::make_unique<waiter>();
    w->what = what;
    w->done = [&](std::exception_ptr e) {
        std::lock_guard<std::mutex> lock(mutex);
        error = e;
        done = true;
        answered.notify_one();
    };
    enqueue(std::move(w));
    std::unique_lock<std::mutex> lock(mutex);
    answered.wait(lock, [&] { return done; });
    if (error)
        std::rethrow_exception(error);
}

void batched_store::add_async(new_record record, added done)
{
    auto w = std::make_unique<waiter>();
    w->own = std::make_unique<new_record>(std::move(record));
    w->what = {w->own.get(), nullptr};
    w->done = std::move(done);
    enqueue(std::move(w));
}

void batched_store::commit_loop()
{
    constexpr std::size_t kMostPerCommit = 1000;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        queued_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (queue_.empty())
            return;  // stopping, and every writer has been answered
        std::vector<std::unique_ptr<waiter>> batch;
        while (!queue_.empty() && batch.size() < kMostPerCommit) {
            batch.push_back(std::move(queue_.front()));
            queue_.pop_front();
        }
        lock.unlock();
        std::vector<item> items;
        for (const auto& w : batch)
            items.push_back(w->what);
        try {
            write(items);
        } catch (const record_rejected&) {
            for (auto& w : batch) {  // one by one: only the refused record fails
                try {
                    write({w->what});
                } catch (const store_error&) {
                    w->error = std::current_exception();
                }
            }
        } catch (const store_error&) {
            for (auto& w : batch)
                w->error = std::current_exception();
        }
        for (auto& w : batch)
            w->done(w->error);
        batch.clear();  // the records handed over go before the lock is taken again
        lock.lock();
    }
}

std::string where_clause(const record_filter& filter, std::vector<std::string>& params,
    const std::function<std::string(std::size_t)>& placeholder,
    const std::function<std::string(const std::string&)>& time)
{
    std::string sql;
    const auto add = [&](const std::string& value, const std::string& condition_head, bool is_time = false) {
        if (value.empty())
            return;
        params.push_back(value);
        const std::string p = placeholder(params.size());
        sql += (sql.empty() ? " WHERE " : " AND ") + condition_head + (is_time ? time(p) : p);
    };
    add(filter.kind, "kind = ");
    add(filter.version, "software_ver = ");
    add(filter.model, "model_name = ");
    add(filter.serial, "serial = ");
    add(filter.os, "os_name = ");
    add(filter.lang, "lang = ");
    add(filter.since, "received_at >= ", true);
    add(filter.until, "received_at < ", true);
    return sql;
}

std::string dimension_column(dimension d, const std::string& day)
{
    switch (d) {
    case dimension::kind:
        return "kind";
    case dimension::version:
        return "software_ver";
    case dimension::model:
        return "model_name";
    case dimension::os:
        return "os_name";
    case dimension::lang:
        return "lang";
    case dimension::day:
        return day;
    }
    return "kind";
}

}  // namespace collector
