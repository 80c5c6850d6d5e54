// Helpers shared by the tests: an isolated working directory, log capture, record file reading.
#pragma once

#include <information_api/windows_information_imp.h>

#include <glog/logging.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStringList>
#include <QVariantMap>
#include <QtGlobal>
#include <QTemporaryDir>
#include <QTest>

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

// Collects the process's qDebug() messages while it lives: their texts, and each with where it
// was logged from as "category|file|function|text".
class qdebug_capture {
public:
    qdebug_capture() : previous_(qInstallMessageHandler(&handle)) { active() = this; }
    ~qdebug_capture()
    {
        qInstallMessageHandler(previous_);
        active() = nullptr;
    }
    QStringList texts() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return texts_;
    }
    QStringList located() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return located_;
    }

private:
    static qdebug_capture*& active()
    {
        static qdebug_capture* capture = nullptr;
        return capture;
    }
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        qdebug_capture* self = active();
        if (type != QtDebugMsg || !self)
            return;
        std::lock_guard<std::mutex> lock(self->mutex_);
        self->texts_ << text;
        self->located_ << QString("%1|%2|%3|%4").arg(context.category, context.file, context.function, text);
    }

    QtMessageHandler previous_;
    mutable std::mutex mutex_;
    QStringList texts_;
    QStringList located_;
};

// The current UTC time as records stamp their periods.
inline QString utc_now() { return QDateTime::currentDateTimeUtc().toString("yyyy-MM-ddThh:mm:ssZ"); }

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

// Writes `bytes` to `path`, creating its folders.
inline void write_file(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
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

enum class kind { usage, calibration, share, structured_scan, flat_scan, feedback, score };

// Writes one record of kind `k` carrying `text` in the field that the round-trip rows name, and
// `pls` / `modular` as the module description where the builder takes them.
// Returns the path the builder reports (void builders: the one file in ./veltrainfo/).
inline QString write_kind(information_api::windows_information_imp& m, kind k, QString text, QStringList pls = {}, QString modular = "M")
{
    QString ver = "3.1", ple = "dev.ple", model = "K300", start = "S", end = "E";
    switch (k) {
    case kind::usage:
        m.create_usage_inifo(QString(), ple, ver, model, text, 0);
        return m.usageFilePath;
    case kind::calibration: {
        QStringList mods{"m1"}, classes{"c1"}, starts{"s1"}, ends{"e1"}, results{text};
        m.create_calibrate_inifo(mods, ver, ple, model, modular, pls, start, end, classes, starts, ends, results, 1);
        break;
    }
    case kind::share: {
        QString target = "wechat", name = "part.stl";
        m.create_share_inifo(ple, model, modular, start, end, target, name, text, 0);
        break;
    }
    case kind::structured_scan: {
        information_api::_tag_scan_info info;
        info.ple = ple;
        info.modelName = model;
        info.modular = modular;
        info.startOn = start;
        info.endOn = end;
        info.fileName = text;
        info.modularPles = pls;
        m.add_scan_info(info, 0);
        break;
    }
    case kind::flat_scan: {
        QString v = "v";
        m.create_scan_inifo(v, v, v, text, v, v, v, v, v, v, v, v, v, v, v, "9", 1);
        break;
    }
    case kind::feedback: {
        QString email = "a@b.c", industry = "dental";
        QStringList attachs;
        return m.create_userfeedback_info(ple, ver, model, modular, pls, 0, email, industry, text, attachs);
    }
    case kind::score:
        return m.add_user_score("5", ple, ver, model, modular, text, 0);
    }
    const QStringList files = record_files();
    return files.size() == 1 ? "./veltrainfo/" + files.first() : QString();
}

}  // namespace test_support
