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

void batched_store::submit(item what)
{
    waiter w{what, false, false, {}};
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_)
        throw store_error("the store is closing");
    queue_.push_back(&w);
    queued_.notify_one();
    committed_.wait(lock, [&] { return w.done; });
    if (w.rejected)
        throw record_rejected(w.error);
    if (!w.error.empty())
        throw store_error(w.error);
}

void batched_store::commit_loop()
{
    constexpr std::size_t kMostPerCommit = 1000;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        queued_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (queue_.empty())
            return;  // stopping, and every writer has been answered
        std::vector<waiter*> batch;
        while (!queue_.empty() && batch.size() < kMostPerCommit)
            batch.push_back(queue_.front()), queue_.pop_front();
        lock.unlock();
        const auto write_all = [this](const std::vector<waiter*>& ws) {
            std::vector<item> items;
            for (const waiter* w : ws)
                items.push_back(w->what);
            write(items);
        };
        try {
            write_all(batch);
        } catch (const record_rejected&) {
            for (waiter* w : batch) {  // one by one: only the refused record fails
                try {
                    write_all({w});
                } catch (const store_error& e) {
                    w->error = e.what();
                    w->rejected = dynamic_cast<const record_rejected*>(&e) != nullptr;
                }
            }
        } catch (const store_error& e) {
            for (waiter* w : batch)
                w->error = e.what();
        }
        lock.lock();
        for (waiter* w : batch)
            w->done = true;
        committed_.notify_all();
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
