// What disks, processes and servers can do to the library: a writer killed at random moments,
// a service misbehaving under load, shutdown with transfers in flight, unwritable record folders.
#include "test_support.h"

#include <information_api/http.h>

#include <csignal>

using namespace test_support;

// How the service answers a record whose "type" is a behaviour's number.
enum behaviour { normal, slow, silent, cut_off, html, broken, refused, kinds };

class tst_faults : public QObject {
    Q_OBJECT
private slots:
    void killed_writer_leaves_only_complete_records();
    void misbehaving_service_under_load_then_clean();
    void unwritable_record_folder_data();
    void unwritable_record_folder();
};

void tst_faults::killed_writer_leaves_only_complete_records()
{
    scoped_working_dir dir;
    for (int kill = 0; kill < 200; ++kill) {
        QProcess writer;
        writer.start(QCoreApplication::applicationFilePath(), {"--record-writer"});
        QVERIFY(writer.waitForStarted());
        // Let it run a moment: sometimes not yet writing, mostly in the middle of a record.
        QTest::qSleep(int(QRandomGenerator::global()->bounded(5, 80)));
        ::kill(pid_t(writer.processId()), SIGKILL);
        QVERIFY(writer.waitForFinished());
        // Checked after every kill: the next writer may overwrite a record of the same second.
        for (const QString& name : QDir("veltrainfo").entryList({"*.info2", "*.score2"}, QDir::Files)) {
            const record_file record = read_record("veltrainfo/" + name);
            QVERIFY2(!record.type.isEmpty() && QJsonDocument::fromJson(record.data).isObject(), qPrintable(name));
        }
    }
    QVERIFY2(!record_files().isEmpty(), "the writer never got to write");
}

void tst_faults::misbehaving_service_under_load_then_clean()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    service->set_script([](const collection::received_request& request) -> std::optional<collection::reply> {
        collection::reply r = json_reply(R"({"status":"success"})");
        if (request.path == "/installer") {  // 1 MiB, 4 KiB every 20 ms: still arriving at clean()
            r.body = std::string(1 << 20, 'i');
            r.chunk_size = 4096;
            r.chunk_pause = std::chrono::milliseconds(20);
            return r;
        }
        switch (behaviour(std::stoi(request.target.substr(request.target.find("type=") + 5)))) {
        case slow: r.delay = std::chrono::milliseconds(300); break;
        case silent: r.silent = true; break;
        case cut_off: r.reset_midway = true; r.body = std::string(4000, ' ') + r.body; break;
        case html: r.status = 500; r.content_type = "text/html"; r.body = "<html>oops</html>"; break;
        case broken: r.body = "{\"status\":\"succ"; break;
        case refused: r.body = R"({"status":"failed","result":"no"})"; break;
        default: break;
        }
        return r;
    });
    const auto upload = [&](int id, int b, int timeout_ms) {
        upload_information(record_url(*service), "{}", kAppId, QString::number(b), &sink, id, timeout_ms);
    };
    // The ret each id from `from` up to `to` reported: a cut connection reports its error (7) first.
    const auto rets = [&](int from, int to) {
        QStringList all;
        for (int id = from; id < to; ++id) {
            const auto reports = sink.reports(id);
            const int ret = reports.empty() ? -1 : reports.front().info.ret == 7 ? 7 : reports.back().info.ret;
            all << (ret < 0 ? QString("none") : QString::number(ret));
        }
        return all.join(' ');
    };
    const int count = 30 * kinds;
    for (int id = 0; id < count; ++id)
        upload(id, id % kinds, 5000);
    QTRY_VERIFY_WITH_TIMEOUT(!rets(0, count).contains("none"), 60000);  // silent ones through their time-out
    QCOMPARE(rets(0, count), QString("0 0 6 7 7 10 10 ").repeated(30).trimmed());
    upload(count, normal, 5000);
    QTRY_COMPARE(rets(count, count + 1), QString("0"));  // still serving

    // clean() with uploads timing out and a download in flight: no report comes after it.
    const std::size_t before = sink.total();
    for (int id = count + 1; id <= 2 * count; ++id)
        upload(id, id % 2 ? slow : silent, 50);
    downLoadApp(2 * count + 1, &sink, QString::fromStdString(service->base_url() + "/installer"), "app.exe");
    QTRY_VERIFY(sink.total() >= before + count && !sink.progress().empty());  // all of it is under way
    QThread* worker = g_api_thread;
    QCOMPARE(information_clean(), 0);
    const std::size_t reports = sink.total(), progress = sink.progress().size();
    QVERIFY(worker->isFinished());  // no thread is left that could call the sink
    service->release_silent();
    QCoreApplication::processEvents();
    QCOMPARE(sink.total(), reports);
    QCOMPARE(sink.progress().size(), progress);
    QVERIFY(sink.finished().empty());
}

void tst_faults::unwritable_record_folder_data()
{
    QTest::addColumn<QString>("target");  // what ./veltrainfo links to; none: it is a file
    QTest::newRow("a file") << "";
    QTest::newRow("a folder nobody can write") << "/proc/self/fdinfo";  // even root cannot create files under /proc
}

void tst_faults::unwritable_record_folder()
{
    QFETCH(QString, target);
    scoped_working_dir dir;
    const QByteArray precious = "an earlier file, not a folder";
    if (target.isEmpty())
        write_file("veltrainfo", precious);
    else
        QVERIFY(QFile::link(target, "veltrainfo"));
    glog_capture log;
    {
        windows_information_imp manager;
        for (int k = 0; k <= int(kind::score); ++k)
            write_kind(manager, kind(k), "text");
    }  // the destructor rewrites the usage record: it fails too
    // Every lost record leaves one warning: the kinds, then the usage record once more.
    const QStringList lost = log.lines().filter(QRegularExpression(
        R"(^record not written: \./veltrainfo/[^ ]+\.(info2|score2) \(QSettings status AccessError\)$)"));
    QCOMPARE(lost.size(), int(kind::score) + 2);
    if (target.isEmpty())
        QCOMPARE(read_file("veltrainfo"), precious);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], "--record-writer") == 0) {  // the killed writer: records until it is killed
        windows_information_imp manager;
        for (int round = 0;; ++round)
            for (int k = 0; k <= int(kind::score); ++k)
                write_kind(manager, kind(k), QString("round %1 ").arg(round) + QString(400, 'x'));
    }
    tst_faults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults.moc"
