// Helpers for the network tests: a sink that records every call, and a running local service.
#pragma once

#include "test_support.h"

#include <information_api/information_api.h>
#include <tools/collection_service/collection_service.h>

#include <QtTest>

#include <chrono>
#include <functional>
#include <memory>
#include <tuple>
#include <mutex>
#include <vector>

namespace test_support {

// The test deployment's application id, as the service expects it in "X-Auth-AppID".
const char* const kAppId = "3c9d0a7e51b24f68e0a7c2d9b4f6e183";

struct report {
    int id;
    information_api::response_info_t info;
    QThread* thread;
    std::chrono::steady_clock::time_point at;
};

// Records every sink call, from whatever thread it comes, then runs `then` (if set) with the
// connection id (-1 for the download calls): a host's own reaction, which may throw.
class recording_sink : public information_api::information_sink {
public:
    std::function<void(int)> then;

    void on_response(int id, QVariant result) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            reports_.push_back({id, result.value<information_api::response_info_t>(), QThread::currentThread(),
                                std::chrono::steady_clock::now()});
        }
        if (then)
            then(id);
    }
    void on_download_progress(qint64 received, qint64 total) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            progress_.push_back({received, total});
        }
        if (then)
            then(-1);
    }
    void on_download_finished(bool success, int code, int net_error) override
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_.push_back({success, code, net_error});
        }
        if (then)
            then(-1);
    }

    std::vector<report> reports(int id) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<report> out;
        for (const report& r : reports_)
            if (r.id == id)
                out.push_back(r);
        return out;
    }
    std::size_t count(int id) const { return reports(id).size(); }
    std::size_t total() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return reports_.size();
    }
    std::vector<std::pair<qint64, qint64>> progress() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return progress_;
    }
    std::vector<std::tuple<bool, int, int>> finished() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return finished_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<report> reports_;
    std::vector<std::pair<qint64, qint64>> progress_;
    std::vector<std::tuple<bool, int, int>> finished_;
};

// information_init() for the test's lifetime, in a private working directory. Declare sinks
// before it: connections may report until it ends.
class library_session {
public:
    library_session() { information_api::information_init(); }
    ~library_session() { information_api::information_clean(); }

private:
    scoped_working_dir dir_;
};

inline std::unique_ptr<collection::collection_service> start_service(
    collection::service_options options = {})
{
    auto service = std::make_unique<collection::collection_service>(options);
    if (!service->start())
        qFatal("collection service: %s", service->error().c_str());
    return service;
}

inline collection::reply json_reply(const std::string& body, int status = 200)
{
    collection::reply r;
    r.status = status;
    r.body = body;
    return r;
}

inline QString record_url(const collection::collection_service& service)
{
    return QString::fromStdString(service.base_url() + "/dtta");
}

}  // namespace test_support

using information_api::response_info_t;

Q_DECLARE_METATYPE(collection::reply)
