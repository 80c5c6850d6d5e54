// Helpers shared by the tests: an isolated working directory, glog capture, record file reading.
#pragma once

#include <glog/logging.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStringList>
#include <QVariantMap>
#include <QTemporaryDir>

#include <mutex>
#include <string>

namespace test_support {

// Makes a fresh temporary directory the process's working directory for its lifetime, so that
// every test gets its own ./veltrainfo/ and ./res/.
class scoped_working_dir {
public:
    scoped_working_dir() : previous_(QDir::currentPath()) { QDir::setCurrent(dir_.path()); }
    ~scoped_working_dir() { QDir::setCurrent(previous_); }
    QString path() const { return dir_.path(); }

private:
    QTemporaryDir dir_;
    QString previous_;
};

// Collects the text of every glog message (without glog's prefix) while it lives.
class glog_capture : public google::LogSink {
public:
    glog_capture() { google::AddLogSink(this); }
    ~glog_capture() override { google::RemoveLogSink(this); }

    void send(google::LogSeverity, const char*, const char* base_filename, int,
              const struct ::tm*, const char* message, size_t message_len) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_ << QString::fromUtf8(message, int(message_len));
        files_ << QString::fromUtf8(base_filename);
    }
    QStringList lines() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    QStringList files() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return files_;
    }

private:
    mutable std::mutex mutex_;
    QStringList lines_;
    QStringList files_;
};

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

// Writes an INI settings file (e.g. res/system.ini) holding `values` at top level.
inline void write_ini(const QString& path, const QVariantMap& values)
{
    QSettings file(path, QSettings::IniFormat);
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        file.setValue(it.key(), it.value());
    file.sync();
}

// Record files in ./veltrainfo/, names only, sorted.
inline QStringList record_files()
{
    return QDir("veltrainfo").entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

}  // namespace test_support
