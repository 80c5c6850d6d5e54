// Fixtures every test shares: a private working directory, log capture, record files, a sink that
// records what it hears, and a running local collection service.
#pragma once

#include <information_api/information_api.h>
#include <information_api/windows_information_imp.h>
#include <tools/collection_service/collection_service.h>

#include <glog/logging.h>

#include <QtTest>

#include <functional>
#include <memory>
#include <mutex>

namespace test_support {

using namespace information_api;

template <typename T> T locked_copy(std::mutex& mutex, const T& value)
{
    std::lock_guard<std::mutex> lock(mutex);
    return value;
}

// The test deployment's application id, as the service expects it in "X-Auth-AppID".
const char* const kAppId = collector::kTestAppId;

// Makes a fresh temporary directory the working directory while it lives: ./veltrainfo/, ./res/.
class scoped_working_dir {
public:
    scoped_working_dir() : previous_(QDir::currentPath()) { QDir::setCurrent(dir_.path()); }
    ~scoped_working_dir() { QDir::setCurrent(previous_); }

private:
    QTemporaryDir dir_;
    QString previous_;
};

// Collects every glog message's text (without glog's prefix) while it lives.
class glog_capture : public google::LogSink {
public:
    glog_capture() { google::AddLogSink(this); }
    ~glog_capture() override { google::RemoveLogSink(this); }
    void send(
        google::LogSeverity, const char*, const char*, int, const struct ::tm*, const char* text, size_t size) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_ << QString::fromUtf8(text, int(size));
    }
    QStringList lines() const { return locked_copy(mutex_, lines_); }

private:
    mutable std::mutex mutex_;
    QStringList lines_;
};

inline QString utc_now() { return QDateTime::currentDateTimeUtc().toString("yyyy-MM-ddThh:mm:ssZ"); }

// Writes `bytes` to `path`, creating its folders.
inline void write_file(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

inline QByteArray read_file(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<absent>");
}

// Writes an INI file (./res/system.ini, a record) holding `values` at top level.
inline void write_ini(const QString& path, const QVariantMap& values)
{
    QSettings file(path, QSettings::IniFormat);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        file.setValue(it.key(), it.value());
}

// A record file as an uploader reads it: "data" and "type".
struct record_file {
    QByteArray data;
    QString type;
    QJsonObject json() const { return QJsonDocument::fromJson(data).object(); }
};

inline record_file read_record(const QString& path)
{
    QSettings file(path, QSettings::IniFormat);
    return {file.value("data").toByteArray(), file.value("type").toString()};
}

// The names in ./veltrainfo/, sorted.
inline QStringList record_files() { return QDir("veltrainfo").entryList(QDir::Files | QDir::Hidden, QDir::Name); }

// Records every sink call, from whatever thread it comes, then runs `then` (if set) with the
// connection id (-1 for the download calls): a host's own reaction, which may throw.
class recording_sink : public information_sink {
public:
    struct report {
        int id;
        response_info_t info;
        QThread* thread;
    };
    std::function<void(int)> then;

    void on_response(int id, QVariant result) override
    {
        add([&] { reports_.push_back({id, result.value<response_info_t>(), QThread::currentThread()}); }, id);
    }
    void on_download_progress(qint64 received, qint64 total) override
    {
        add([&] { progress_.push_back({received, total}); }, -1);
    }
    void on_download_finished(bool success, int code, int net_error) override
    {
        add([&] { finished_ << QString("%1 %2 %3").arg(success).arg(code).arg(net_error); }, -1);
    }

    std::vector<report> reports(int id) const
    {
        std::vector<report> all = locked_copy(mutex_, reports_);
        all.erase(std::remove_if(all.begin(), all.end(), [id](const report& r) { return r.id != id; }), all.end());
        return all;
    }
    std::size_t total() const { return locked_copy(mutex_, reports_).size(); }
    std::vector<std::pair<qint64, qint64>> progress() const { return locked_copy(mutex_, progress_); }
    QStringList finished() const { return locked_copy(mutex_, finished_); }  // "success code net_error"

private:
    template <typename Add> void add(Add record, int id)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            record();
        }
        if (then)
            then(id);
    }
    mutable std::mutex mutex_;
    std::vector<report> reports_;
    std::vector<std::pair<qint64, qint64>> progress_;
    QStringList finished_;
};

inline std::unique_ptr<collection::collection_service> start_service(collection::service_options options = {})
{
    auto service = std::make_unique<collection::collection_service>(options);
    if (!service->start())
        qFatal("collection service: %s", service->error().c_str());
    return service;
}

inline collection::reply answer(std::string body, int status = 200, std::string type = "application/json")
{
    collection::reply r;
    r.status = status;
    r.content_type = std::move(type);
    r.body = std::move(body);
    return r;
}

inline QString record_url(const collection::collection_service& service)
{
    return QString::fromStdString(service.base_url() + "/dtta");
}

}  // namespace test_support

Q_DECLARE_METATYPE(collection::reply)
