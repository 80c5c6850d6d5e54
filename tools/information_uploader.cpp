// information_uploader: sends the records that are due from ./veltrainfo/ to the collection
// service, through the library's public API only. A record file is deleted only after the service
// confirmed it, and only while it still holds what was sent, so an interrupted run, a dead
// service or a host rewriting a record never loses one: the next run sends what is left.
#include <information_api/information_api.h>
#include <information_api/information_api_version.h>
#include <information_api/queued_sink.h>
#include <information_api/transport_security.h>
#include <information_api/windows_information_imp.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryFile>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <deque>
#include <map>
#include <sys/stat.h>
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

const QString kLockPath = "veltrainfo/.information_uploader.lock";
// A record taken out of the listing while the uploader checks what it holds (see remove_if_sent).
const QString kParkedPrefix = ".information_uploader.parked.";
// The library reads no larger record.
constexpr qint64 kLargestRecord = 16 << 20;

int records_in_folder() { return QDir("veltrainfo").entryList({"*.info2"}, QDir::Files).size(); }

// The library reads "remain" and "uploadintval" as ints, and a typo reads as 0: with "remain" 0
// or less every record is expired before it is sent, with "uploadintval" 0 every record is due.
// The manager's settings are a checked copy of ./res/system.ini: a serialised QVariant in the file
// would crash a QSettings reading it directly.
void check_system_settings(VeltraInfoMgr* manager, options& opts)
{
    const QSettings& system = static_cast<windows_information_imp*>(manager)->systemSettings;
    const QVariant remain = system.value("remain");
    if (remain.isValid() && remain.toInt() <= 0) {  // what is not a whole number reads as 0
        std::fprintf(stderr,
            "warning: \"remain\" is \"%s\" in ./res/system.ini, not a positive whole "
            "number of days; no record expires\n",
            qPrintable(remain.toString()));
        opts.expire = false;
    }
    const QVariant interval = system.value("uploadintval", 1);
    bool ok = true;
    opts.due_after_days = interval.toInt(&ok);
    if (!ok)
        std::fprintf(stderr,
            "warning: \"uploadintval\" is \"%s\" in ./res/system.ini, not a whole "
            "number of days; it reads as 0, every record is due\n",
            qPrintable(interval.toString()));
}

// A lock that names no process (empty or garbage: a run killed while creating it, a power loss;
// a symbolic link or a folder, which no uploader makes) would block every run for ever: QLockFile
// ages such a lock only by time, and a --watch run's lock must never age. It is removed under the
// removal lock QLockFile itself uses, unless it is a regular file younger than a few seconds:
// the lock of an uploader starting this instant is empty until its process id is written.
bool remove_nameless_lock(QLockFile& lock)
{
    QLockFile removal(kLockPath + ".rmlock");
    qint64 pid = 0;
    QString host, app;
    struct stat st;
    const QByteArray path = QFile::encodeName(kLockPath);
    if (!removal.tryLock() || lock.getLockInfo(&pid, &host, &app))
        return false;
    if (::lstat(path.constData(), &st) != 0)
        return errno == ENOENT;  // gone meanwhile: try again
    if (S_ISREG(st.st_mode) && std::time(nullptr) - st.st_mtime < 5)
        return false;
    return S_ISDIR(st.st_mode) ? ::rmdir(path.constData()) == 0 : ::unlink(path.constData()) == 0;
}

// Two uploaders on one folder would send every record twice; a record the uploader cannot remove
// would be sent again by every run. Returns 0 when this run may send, else its exit status.
int claim_record_folder(QLockFile& lock)
{
    if (!QDir().mkpath("veltrainfo")) {
        std::fprintf(stderr, "cannot create ./veltrainfo/; nothing sent\n");
        return some_failed;
    }
    QTemporaryFile probe("veltrainfo/.information_uploader.probe");
    if (!probe.open() || !probe.remove()) {
        std::fprintf(stderr,
            "cannot remove records from ./veltrainfo/ (%s); nothing sent, every "
            "run would send them again\n",
            qPrintable(probe.errorString()));
        return some_failed;
    }
    lock.setStaleLockTime(0);  // only a dead owner's lock is stale: a --watch run holds it for days
    if (lock.tryLock() || (lock.error() == QLockFile::LockFailedError && remove_nameless_lock(lock) && lock.tryLock()))
        return 0;
    if (lock.error() != QLockFile::LockFailedError) {
        std::fprintf(stderr, "cannot create the lock in ./veltrainfo/; nothing sent\n");
        return some_failed;
    }
    qint64 pid = 0;
    QString host, app;
    if (lock.getLockInfo(&pid, &host, &app)) {
        std::fprintf(stderr, "./veltrainfo/ is in use by %s (pid %lld on %s); nothing sent\n", qPrintable(app), pid,
            qPrintable(host));
        return busy;
    }
    const QFileInfo in_place(kLockPath);
    if (in_place.isDir() && !in_place.isSymLink()) {  // a folder is not removed with what it holds
        std::fprintf(stderr,
            "%s is a folder that is not empty, not a lock; remove it to let uploads "
            "run; nothing sent\n",
            qPrintable(kLockPath));
        return some_failed;
    }
    std::fprintf(stderr, "./veltrainfo/ is in use by another information_uploader; nothing sent\n");
    return busy;
}

// A writer killed while it replaced a record leaves its lock and temporary file beside the
// record: "<record>.lock" and "<record>.XXXXXX" (six letters or digits). After a day no living
// writer owns them. Nothing else in the folder is touched: it may be the user's.
void remove_stale_write_leftovers()
{
    static const QRegularExpression leftover(R"(^.+\.(info2|score2)\.(lock|[A-Za-z0-9]{6})$)");
    const QDateTime day_ago = QDateTime::currentDateTime().addDays(-1);
    const QDir folder("veltrainfo");
    for (const QFileInfo& file : folder.entryInfoList(QDir::Files | QDir::Hidden))
        if (file.lastModified() < day_ago && leftover.match(file.fileName()).hasMatch())
            QFile::remove(file.filePath());
}

// Puts a parked record back under its name or, when a record was written under that name
// meanwhile, under the first free "<stem>-<n>" name: a rename never replaces a file, and both
// versions stay records.
bool put_back(QFile& parked, const QString& file)
{
    const QFileInfo name(file);
    for (int n = 0; n < 1000; ++n) {
        const QString target =
            n == 0 ? file
                   : name.path() + "/" + name.completeBaseName() + "-" + QString::number(n) + "." + name.suffix();
        if (parked.rename(target))
            return true;
        if (!QFileInfo::exists(target))
            return false;
    }
    return false;
}

// A run killed while a record was parked (see remove_if_sent) left it under its parked name: it
// goes back. It may have been sent; sent twice beats lost.
void restore_parked_records()
{
    const QDir folder("veltrainfo");
    for (const QString& parked : folder.entryList({kParkedPrefix + "*"}, QDir::Files | QDir::Hidden)) {
        QFile file(folder.filePath(parked));
        put_back(file, folder.filePath(parked.mid(kParkedPrefix.size())));
    }
}

// Reads a record as the library will send it. The library reads a private copy of the bytes read
// here, so what is sent is exactly `bytes`, however the host rewrites the record meanwhile.
bool read_record(VeltraInfoMgr* manager, const QString& file, QByteArray& bytes, QString& data, QString& type)
{
    QFile record(file);
    QTemporaryFile copy;
    if (!QFileInfo(file).isFile() || !record.open(QIODevice::ReadOnly))  // a FIFO would block
        return false;
    bytes = record.read(kLargestRecord + 1);
    return copy.open() && copy.write(bytes) == bytes.size() && copy.flush() &&
           manager->get_scan_info(copy.fileName(), data, type) == 0 && !type.isEmpty();
}

enum class removal { removed, changed, failed };

// Deletes a confirmed record only while it holds exactly the bytes sent. A check and a delete by
// name would race with a host replacing the record (it writes a new file and renames it onto the
// name): the record is first renamed to a private name in its folder, so nothing can change what
// is compared and deleted. A changed record goes back for the next run (see put_back).
removal remove_if_sent(const QString& file, const QByteArray& sent, QString& error)
{
    const QString parked = QFileInfo(file).path() + "/" + kParkedPrefix + QFileInfo(file).fileName();
    QFile record(file);
    if (!record.rename(parked)) {
        error = record.errorString();
        return QFileInfo::exists(file) ? removal::failed : removal::removed;  // gone already is fine too
    }
    QFile kept(parked);
    if (kept.open(QIODevice::ReadOnly) && kept.size() == sent.size() && kept.readAll() == sent) {
        kept.close();
        if (kept.remove())
            return removal::removed;
        error = kept.errorString();
    } else if (!put_back(kept, file)) {
        error = kept.errorString();
    }
    return error.isEmpty() ? removal::changed : removal::failed;
}

// One pass over the due records: uploads them a few at a time, deletes each confirmed one.
class upload_round : public QObject {
public:
    upload_round(
        VeltraInfoMgr* manager, const options& opts, QString url, QString app_id, std::function<void(int)> done)
        : manager_(manager), opts_(opts), url_(std::move(url)), app_id_(std::move(app_id)), done_(std::move(done)),
          sink_(this, [this](int id, const response_info_t& info) { on_report(id, info); }),
          tty_(isatty(fileno(stdout)))
    {}

    void run()
    {
        if (!opts_.dry_run) {  // a dry run changes nothing
            remove_stale_write_leftovers();
            restore_parked_records();
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
                std::printf("due: %s (%s, %d bytes)\n", qPrintable(file), qPrintable(type), int(data.toUtf8().size()));
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
        std::fprintf(stderr,
            "nothing due: %d records younger than %d \"uploadintval\" day(s) counted "
            "from start_time %s\n",
            records, opts_.due_after_days, qPrintable(start.toString("yyyy-MM-dd hh:mm")));
    }

    void fill()
    {
        while (in_flight_.size() < std::size_t(opts_.in_flight) && !pending_.empty()) {
            const QString file = pending_.front();
            pending_.pop_front();
            QString data, type;
            QByteArray bytes;
            if (!read_record(manager_, file, bytes, data, type)) {
                fail(file, QStringLiteral("unreadable record file"));
                continue;
            }
            const int id = next_id_++;
            in_flight_[id] = {file, bytes};
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
        const auto [file, sent] = it->second;
        in_flight_.erase(it);
        release_connect(id);
        QString error;
        const removal removed = info.ok ? remove_if_sent(file, sent, error) : removal::failed;
        if (removed != removal::failed) {
            ++uploaded_;
            if (removed == removal::changed)
                std::fprintf(stderr,
                    "%s changed while it was sent: the new version stays for the "
                    "next run\n",
                    qPrintable(file));
        } else if (info.ok) {
            fail(file, "uploaded, but not removed (" + error + "); the next run sends it again");
        } else {
            fail(file, info.msg.isEmpty() ? QStringLiteral("network error %1").arg(info.net_error) : info.msg);
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
        std::printf("uploaded %d of %d due records, %d failed; %d records left in ./veltrainfo/\n", uploaded_, total_,
            failed_, left);
        std::fflush(stdout);
        if (failed_ > 0)
            std::fprintf(stderr, "%d records not uploaded; first failure: %s\n", failed_, qPrintable(first_failure_));
        done_(failed_ > 0 ? some_failed : all_uploaded);
    }

    VeltraInfoMgr* manager_;
    const options& opts_;
    const QString url_;
    const QString app_id_;
    std::function<void(int)> done_;
    queued_sink sink_;  // queues each report from the worker thread to this round's thread
    const bool tty_;
    std::deque<QString> pending_;
    std::map<int, std::pair<QString, QByteArray>> in_flight_;  // record file and the bytes sent
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
        "the service confirmed while it still holds what was sent.\n\nExit status: 0 every due "
        "record uploaded, 1 some not uploaded (or ./veltrainfo/ cannot be created, or records "
        "cannot be removed from it, or a folder with files in it stands where the uploader's lock "
        "goes), 2 bad usage (or --dir cannot be entered), 3 uploading disabled, 4 another uploader "
        "works on the folder.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption dir_option({"d", "dir"}, "Directory holding ./veltrainfo/ and ./res/.", "dir");
    const QCommandLineOption url_option("url", "Service URL instead of the configured one.", "url");
    const QCommandLineOption timeout_option("timeout", "Time-out per record in ms (10000).", "ms");
    const QCommandLineOption dry_option("dry-run", "List the due records, send nothing.");
    const QCommandLineOption force_option("force", "Upload even when \"enable\" is 0.");
    const QCommandLineOption watch_option("watch", "Repeat every \"time_intval\" seconds.");
    const QCommandLineOption ca_option("ca-file",
        "Verify the service: its certificate chain must lead to one "
        "in FILE (PEM) and name its host. Without it, no certificate "
        "is checked.",
        "file");
    const QCommandLineOption pin_option("pin",
        "With --ca-file: the service's public key must also have this "
        "SHA-256 (base64 of its SubjectPublicKeyInfo); repeatable.",
        "sha256");
    parser.addOptions(
        {dir_option, url_option, timeout_option, dry_option, force_option, watch_option, ca_option, pin_option});
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
    check_system_settings(manager, opts);
    QLockFile lock(kLockPath);
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
                QMetaObject::invokeMethod(
                    &app, [code] { QCoreApplication::exit(code); }, Qt::QueuedConnection);
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
