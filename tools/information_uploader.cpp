// information_uploader: sends the records that are due from ./veltrainfo/ to the collection
// service, through the library's public API only. A record file is deleted only after the service
// confirmed it, so an interrupted run or a dead service never loses a record: the next run
// sends what is left.
#include <information_api/information_api.h>
#include <information_api/information_api_version.h>
#include <information_api/transport_security.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSettings>
#include <QTemporaryFile>
#include <QTimer>

#include <cstdio>
#include <deque>
#include <map>
#include <unistd.h>

using namespace information_api;

namespace {

enum exit_code { all_uploaded = 0, some_failed = 1, bad_usage = 2, disabled = 3, busy = 4 };

struct options {
    QString url;  // overrides the configured service
    int timeout_ms = 10000;
    int in_flight = 4;
    bool dry_run = false;
    bool force = false;
    bool watch = false;
    // From ./res/system.ini, checked before the library acts on them.
    bool expire = true;
    int due_after_days = 1;
};

int records_in_folder()
{
    return QDir("veltrainfo").entryList({"*.info2"}, QDir::Files).size();
}

// The library reads "remain" and "uploadintval" as ints, and a typo reads as 0: with "remain" 0
// or less every record is expired before it is sent, with "uploadintval" 0 every record is due.
void check_system_settings(options& opts)
{
    const QSettings system("./res/system.ini", QSettings::IniFormat);
    const QVariant remain = system.value("remain");
    if (remain.isValid() && remain.toInt() <= 0) {  // what is not a whole number reads as 0
        std::fprintf(stderr, "warning: \"remain\" is \"%s\" in ./res/system.ini, not a positive whole "
                             "number of days; no record expires\n", qPrintable(remain.toString()));
        opts.expire = false;
    }
    const QVariant interval = system.value("uploadintval", 1);
    bool ok = true;
    opts.due_after_days = interval.toInt(&ok);
    if (!ok)
        std::fprintf(stderr, "warning: \"uploadintval\" is \"%s\" in ./res/system.ini, not a whole "
                             "number of days; it reads as 0, every record is due\n",
                     qPrintable(interval.toString()));
}

// Two uploaders on one folder would send every record twice; a record the uploader cannot remove
// would be sent again by every run. Returns 0 when this run may send, else its exit status.
int claim_record_folder(QLockFile& lock)
{
    QDir().mkpath("veltrainfo");
    QTemporaryFile probe("veltrainfo/.information_uploader.probe");
    if (!probe.open() || !probe.remove()) {
        std::fprintf(stderr, "cannot remove records from ./veltrainfo/ (%s); nothing sent, every "
                             "run would send them again\n", qPrintable(probe.errorString()));
        return some_failed;
    }
    lock.setStaleLockTime(0);  // only a dead owner's lock is stale: a --watch run holds it for days
    if (lock.tryLock())
        return 0;
    if (lock.error() != QLockFile::LockFailedError) {
        std::fprintf(stderr, "cannot create the lock in ./veltrainfo/; nothing sent\n");
        return some_failed;
    }
    qint64 pid = 0;
    QString host, app;
    const QString owner = lock.getLockInfo(&pid, &host, &app)
                              ? QString("%1 (pid %2 on %3)").arg(app).arg(pid).arg(host)
                              : QString("another information_uploader");
    std::fprintf(stderr, "./veltrainfo/ is in use by %s; nothing sent\n", qPrintable(owner));
    return busy;
}

// A writer killed inside QSettings::sync() leaves its lock and temporary file beside the record
// ("<record>.lock", "<record>.XXXXXX"); after a day no living writer owns them.
void remove_stale_write_leftovers()
{
    const QDateTime day_ago = QDateTime::currentDateTime().addDays(-1);
    const QDir folder("veltrainfo");
    for (const QFileInfo& file : folder.entryInfoList({"*.info2.*", "*.score2.*"}, QDir::Files))
        if (file.lastModified() < day_ago && file.suffix() != "info2" && file.suffix() != "score2")
            QFile::remove(file.filePath());
}

// Reports arrive on the library's worker thread; they are handed to the uploader's thread.
class forwarding_sink : public information_sink {
public:
    explicit forwarding_sink(std::function<void(int, response_info_t)> handle)
        : handle_(std::move(handle)) {}
    void on_response(int id, QVariant result) override
    {
        const response_info_t info = result.value<response_info_t>();
        QMetaObject::invokeMethod(QCoreApplication::instance(),
                                  [this, id, info] { handle_(id, info); }, Qt::QueuedConnection);
    }
    void on_download_progress(qint64, qint64) override {}
    void on_download_finished(bool, int, int) override {}

private:
    std::function<void(int, response_info_t)> handle_;
};

// One pass over the due records: uploads them a few at a time, deletes each confirmed one.
class upload_round : public QObject {
public:
    upload_round(VeltraInfoMgr* manager, const options& opts, QString url, QString app_id,
                 std::function<void(int)> done)
        : manager_(manager), opts_(opts), url_(std::move(url)), app_id_(std::move(app_id)),
          done_(std::move(done)), sink_([this](int id, response_info_t info) { on_report(id, info); }),
          tty_(isatty(fileno(stdout)))
    {
    }

    void run()
    {
        if (!opts_.dry_run) {  // a dry run changes nothing
            remove_stale_write_leftovers();
            if (opts_.expire)
                manager_->clear_timeout_file();
        }
        QStringList files;
        manager_->get_upload_files(files);
        total_ = files.size();
        if (total_ == 0)
            explain_nothing_due();
        for (const QString& file : files)
            pending_.push_back(file);
        if (opts_.dry_run) {
            for (const QString& file : files) {
                QString data, type;
                manager_->get_scan_info(file, data, type);
                std::printf("due: %s (%s, %d bytes)\n", qPrintable(file), qPrintable(type),
                            int(data.toUtf8().size()));
            }
            std::printf("%d records due, none sent (dry run)\n", total_);
            done_(all_uploaded);
            return;
        }
        fill();
        finish_if_done();
    }

private:
    void explain_nothing_due() const
    {
        const int records = records_in_folder();
        if (records == 0) {
            std::fprintf(stderr, "nothing due: no records in ./veltrainfo/\n");
            return;
        }
        const QDateTime start = QCoreApplication::instance()->property("start_time").toDateTime();
        std::fprintf(stderr, "nothing due: %d records younger than %d \"uploadintval\" day(s) counted "
                             "from start_time %s\n", records, opts_.due_after_days,
                     qPrintable(start.toString("yyyy-MM-dd hh:mm")));
    }

    void fill()
    {
        while (in_flight_.size() < std::size_t(opts_.in_flight) && !pending_.empty()) {
            const QString file = pending_.front();
            pending_.pop_front();
            QString data, type;
            if (manager_->get_scan_info(file, data, type) != 0 || type.isEmpty()) {
                fail(file, QStringLiteral("unreadable record file"));
                continue;
            }
            const int id = next_id_++;
            in_flight_[id] = file;
            upload_information(url_, data, app_id_, type, &sink_, id, opts_.timeout_ms);
        }
    }

    void on_report(int id, const response_info_t& info)
    {
        const auto it = in_flight_.find(id);
        if (it == in_flight_.end())
            return;  // a repeated report for a connection already ended
        if (!info.ok && info.ret == 7 && info.msg.isEmpty())
            return;  // the reply's error signal; its end follows with the error's text
        const QString file = it->second;
        in_flight_.erase(it);
        release_connect(id);
        QFile record(file);
        if (info.ok && (record.remove() || !record.exists())) {  // gone already is fine too
            ++uploaded_;
        } else if (info.ok) {
            fail(file, "uploaded, but not removed (" + record.errorString() + "); the next run sends it again");
        } else {
            fail(file, info.msg.isEmpty() ? QStringLiteral("network error %1").arg(info.net_error)
                                          : info.msg);
        }
        show_progress();
        fill();
        finish_if_done();
    }

    void fail(const QString& file, const QString& reason)
    {
        ++failed_;
        if (first_failure_.isEmpty())
            first_failure_ = QFileInfo(file).fileName() + ": " + reason;
        if (!tty_)
            std::fprintf(stderr, "not uploaded: %s: %s\n", qPrintable(file), qPrintable(reason));
    }

    void show_progress() const
    {
        if (tty_)
            std::printf("\r%d of %d records uploaded, %d failed", uploaded_, total_, failed_);
        std::fflush(stdout);
    }

    void finish_if_done()
    {
        if (!in_flight_.empty() || !pending_.empty() || finished_)
            return;
        finished_ = true;
        if (tty_ && total_ > 0)
            std::printf("\n");
        const int left = records_in_folder();
        std::printf("uploaded %d of %d due records, %d failed; %d records left in ./veltrainfo/\n",
                    uploaded_, total_, failed_, left);
        std::fflush(stdout);
        if (failed_ > 0)
            std::fprintf(stderr, "%d records not uploaded; first failure: %s\n", failed_,
                         qPrintable(first_failure_));
        done_(failed_ > 0 ? some_failed : all_uploaded);
    }

    VeltraInfoMgr* manager_;
    const options& opts_;
    const QString url_;
    const QString app_id_;
    std::function<void(int)> done_;
    forwarding_sink sink_;
    const bool tty_;
    std::deque<QString> pending_;
    std::map<int, QString> in_flight_;
    int next_id_ = 1;
    int total_ = 0;
    int uploaded_ = 0;
    int failed_ = 0;
    bool finished_ = false;
    QString first_failure_;
};

bool parse(const QCoreApplication& app, options& opts, QString& dir)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Uploads the due records of ./veltrainfo/ to the collection service and deletes each one "
        "the service confirmed.\n\nExit status: 0 every due record uploaded, 1 some not uploaded "
        "(or records cannot be removed from ./veltrainfo/), 2 bad usage, 3 uploading disabled, "
        "4 another uploader works on the folder.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption dir_option({"d", "dir"}, "Directory holding ./veltrainfo/ and ./res/.", "dir");
    const QCommandLineOption url_option("url", "Service URL instead of the configured one.", "url");
    const QCommandLineOption timeout_option("timeout", "Time-out per record in ms (10000).", "ms");
    const QCommandLineOption dry_option("dry-run", "List the due records, send nothing.");
    const QCommandLineOption force_option("force", "Upload even when \"enable\" is 0.");
    const QCommandLineOption watch_option("watch", "Repeat every \"time_intval\" seconds.");
    const QCommandLineOption ca_option("ca-file", "Verify the service: its certificate chain must lead to one "
                                       "in FILE (PEM) and name its host. Without it, no certificate "
                                       "is checked.", "file");
    const QCommandLineOption pin_option("pin", "With --ca-file: the service's public key must also have this "
                                        "SHA-256 (base64 of its SubjectPublicKeyInfo); repeatable.", "sha256");
    parser.addOptions({dir_option, url_option, timeout_option, dry_option, force_option, watch_option,
                       ca_option, pin_option});
    if (!parser.parse(app.arguments())) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return false;
    }
    if (parser.isSet("help"))
        parser.showHelp(0);
    if (parser.isSet("version"))
        parser.showVersion();
    bool ok = true;
    if (parser.isSet(timeout_option))
        opts.timeout_ms = parser.value(timeout_option).toInt(&ok);
    if (!ok || opts.timeout_ms <= 0) {
        std::fprintf(stderr, "--timeout needs a positive number of milliseconds\n");
        return false;
    }
    if (parser.isSet(pin_option) && !parser.isSet(ca_option)) {
        std::fprintf(stderr, "--pin needs --ca-file\n");
        return false;
    }
    if (parser.isSet(ca_option) && set_trusted_certificates(parser.value(ca_option)) != 0) {
        std::fprintf(stderr, "--ca-file %s: no certificate could be read\n", qPrintable(parser.value(ca_option)));
        return false;
    }
    if (set_pinned_public_keys(parser.values(pin_option)) != 0) {
        std::fprintf(stderr, "--pin needs the base64 of a 32-byte SHA-256\n");
        return false;
    }
    opts.url = parser.value(url_option);
    opts.dry_run = parser.isSet(dry_option);
    opts.force = parser.isSet(force_option);
    opts.watch = parser.isSet(watch_option);
    dir = parser.value(dir_option);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The manager starts no usage period for this application name.
    QCoreApplication::setApplicationName("information_uploader");
    QCoreApplication::setApplicationVersion(INFORMATION_API_VERSION_STRING);
    app.setProperty("start_time", QDateTime::currentDateTime());

    options opts;
    QString dir;
    if (!parse(app, opts, dir))
        return bad_usage;
    if (!dir.isEmpty() && !QDir::setCurrent(dir)) {
        std::fprintf(stderr, "cannot enter %s\n", qPrintable(dir));
        return bad_usage;
    }

    VeltraInfoMgr* manager = information_init();
    int enable = 0, interval = 60;
    QString url, app_id, extra;
    manager->get_upload_config(enable, interval, url, app_id, extra);
    if (!opts.url.isEmpty())
        url = opts.url;
    if (enable == 0 && !opts.force && !opts.dry_run) {
        std::fprintf(stderr, "uploading is disabled (\"enable\" is 0 in ./res/system.ini); nothing "
                             "uploaded (--force overrides)\n");
        information_clean();
        return disabled;
    }
    check_system_settings(opts);
    QLockFile lock("veltrainfo/.information_uploader.lock");
    if (!opts.dry_run) {
        if (const int refused = claim_record_folder(lock)) {
            information_clean();
            return refused;
        }
    }

    std::unique_ptr<upload_round> round;
    QTimer repeat;
    const auto start_round = [&] {
        app.setProperty("start_time", QDateTime::currentDateTime());
        round = std::make_unique<upload_round>(manager, opts, url, app_id, [&](int code) {
            if (opts.watch && !opts.dry_run)
                repeat.start(qMax(1, interval) * 1000);
            else
                QMetaObject::invokeMethod(&app, [code] { QCoreApplication::exit(code); },
                                          Qt::QueuedConnection);
        });
        round->run();
    };
    repeat.setSingleShot(true);
    QObject::connect(&repeat, &QTimer::timeout, start_round);
    QMetaObject::invokeMethod(&app, start_round, Qt::QueuedConnection);
    const int code = app.exec();
    information_clean();  // no report can reach the round after this
    round.reset();
    return code;
}
