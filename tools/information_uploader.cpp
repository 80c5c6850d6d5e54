// information_uploader: sends the records that are due from ./veltrainfo/ to the collection
// service, through the library's public API only. A record file is deleted only after the service
// confirmed it, so an interrupted run or a dead service never loses a record: the next run
// sends what is left.
#include <information_api/information_api.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <cstdio>
#include <deque>
#include <map>
#include <unistd.h>

using namespace information_api;

namespace {

enum exit_code { all_uploaded = 0, some_failed = 1, bad_usage = 2, disabled = 3 };

struct options {
    QString url;  // overrides the configured service
    int timeout_ms = 10000;
    int in_flight = 4;
    bool dry_run = false;
    bool force = false;
    bool watch = false;
};

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
        manager_->clear_timeout_file();
        QStringList files;
        manager_->get_upload_files(files);
        total_ = files.size();
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
        const QString file = it->second;
        in_flight_.erase(it);
        release_connect(id);
        if (info.ok) {
            QFile::remove(file);
            ++uploaded_;
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
        const int left = QDir("veltrainfo").entryList({"*.info2"}, QDir::Files).size();
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
        "the service confirmed.");
    parser.addHelpOption();
    const QCommandLineOption dir_option({"d", "dir"}, "Directory holding ./veltrainfo/ and ./res/.", "dir");
    const QCommandLineOption url_option("url", "Service URL instead of the configured one.", "url");
    const QCommandLineOption timeout_option("timeout", "Time-out per record in ms (10000).", "ms");
    const QCommandLineOption dry_option("dry-run", "List the due records, send nothing.");
    const QCommandLineOption force_option("force", "Upload even when \"enable\" is 0.");
    const QCommandLineOption watch_option("watch", "Repeat every \"time_intval\" seconds.");
    parser.addOptions({dir_option, url_option, timeout_option, dry_option, force_option, watch_option});
    if (!parser.parse(app.arguments())) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.errorText()));
        return false;
    }
    if (parser.isSet("help"))
        parser.showHelp(0);
    bool ok = true;
    if (parser.isSet(timeout_option))
        opts.timeout_ms = parser.value(timeout_option).toInt(&ok);
    if (!ok || opts.timeout_ms <= 0) {
        std::fprintf(stderr, "--timeout needs a positive number of milliseconds\n");
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
