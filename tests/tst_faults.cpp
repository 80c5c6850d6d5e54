// What disks, processes and servers can do to the library: a writer killed at random moments,
// a service misbehaving under load, shutdown with transfers in flight, unwritable record folders.
#include "net_support.h"

#include <information_api/http.h>

#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>

using namespace information_api;
using namespace test_support;

namespace {

const char* const kWriterEnv = "FAULTS_RECORD_WRITER";

// The child of the crash test: writes records of every kind until it is killed.
int run_record_writer()
{
    windows_information_imp manager;
    for (int round = 0;; ++round)
        for (int k = 0; k <= int(kind::score); ++k)
            write_kind(manager, kind(k), QString("round %1 ").arg(round) + QString(400, 'x'));
}

// Each request's id travels in its "type"; its remainder by 7 picks the service's behaviour.
enum behaviour { normal, slow, silent, reset, html, broken, refused, kinds };

collection::reply answer_for(behaviour b)
{
    collection::reply r;
    r.body = R"({"status":"success"})";
    switch (b) {
    case slow: r.delay = std::chrono::milliseconds(300); break;
    case silent: r.silent = true; break;
    case reset: r.reset_midway = true; r.body = std::string(4000, ' ') + r.body; break;
    case html: r.status = 500; r.content_type = "text/html"; r.body = "<html>oops</html>"; break;
    case broken: r.body = "{\"status\":\"succ"; break;
    case refused: r.body = R"({"status":"failed","result":"no"})"; break;
    default: break;
    }
    return r;
}

}  // namespace

class tst_faults : public QObject {
    Q_OBJECT
private slots:
    void killed_writer_leaves_only_complete_records();
    void misbehaving_service_under_load();
    void clean_with_uploads_and_a_download_in_flight();
    void unwritable_record_folder_data();
    void unwritable_record_folder();
};

void tst_faults::killed_writer_leaves_only_complete_records()
{
    scoped_working_dir dir;
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(kWriterEnv, "1");
    for (int kill = 0; kill < 200; ++kill) {
        QProcess writer;
        writer.setProcessEnvironment(env);
        writer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        writer.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(writer.waitForStarted());
        // Let it run a moment: sometimes not yet writing, mostly in the middle of a record.
        QTest::qSleep(int(random.bounded(5, 80)));
        ::kill(pid_t(writer.processId()), SIGKILL);
        QVERIFY(writer.waitForFinished());
    }
    const QStringList files = QDir("veltrainfo").entryList({"*.info2", "*.score2"}, QDir::Files);
    QVERIFY2(!files.isEmpty(), "the writer never got to write");
    for (const QString& name : files) {
        const record_file record = read_record("veltrainfo/" + name);
        QVERIFY2(!record.type.isEmpty(), qPrintable(name + QString(" seed %1").arg(seed)));
        QVERIFY2(QJsonDocument::fromJson(record.data).isObject(), qPrintable(name + QString(" seed %1").arg(seed)));
    }
}

void tst_faults::misbehaving_service_under_load()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    service->set_script([](const collection::received_request& request) {
        const int id = std::stoi(request.target.substr(request.target.find("type=") + 5));
        return std::optional<collection::reply>(answer_for(behaviour(id % kinds)));
    });
    const int count = 200;
    for (int id = 0; id < count; ++id)
        upload_information(record_url(*service), "{}", kAppId, QString::number(id), &sink, id, 5000);

    // Every id hears back: silent ones through their time-out.
    QTRY_VERIFY_WITH_TIMEOUT(sink.total() >= std::size_t(count) && [&] {
        for (int id = 0; id < count; ++id)
            if (sink.count(id) == 0)
                return false;
        return true;
    }(), 60000);
    const int expected_ret[kinds] = {0, 0, 6, 7, 7, 10, 10};
    for (int id = 0; id < count; ++id)
        QCOMPARE(sink.reports(id).front().info.ret == 7 ? 7 : sink.reports(id).back().info.ret,
                 expected_ret[id % kinds]);

    upload_information(record_url(*service), "{}", kAppId, "0", &sink, count, 5000);
    QTRY_VERIFY(sink.count(count) == 1 && sink.reports(count).front().info.ok);  // still serving
}

void tst_faults::clean_with_uploads_and_a_download_in_flight()
{
    recording_sink sink;
    scoped_working_dir dir;
    information_init();
    auto service = start_service();
    service->set_script([](const collection::received_request& request) -> std::optional<collection::reply> {
        if (request.path == "/installer") {
            collection::reply trickle;
            trickle.body = std::string(1 << 20, 'i');
            trickle.chunk_size = 4096;
            trickle.chunk_pause = std::chrono::milliseconds(20);
            return trickle;
        }
        return answer_for(request.target.find("type=slow") != std::string::npos ? slow : silent);
    });
    for (int id = 0; id < 200; ++id)
        upload_information(record_url(*service), "{}", kAppId, id % 2 ? "slow" : "silent", &sink, id, 50);
    downLoadApp(200, &sink, QString::fromStdString(service->base_url() + "/installer"), "app.exe");
    QTRY_VERIFY(sink.total() >= 200 && !sink.progress().empty());  // all of it is under way

    QThread* worker = g_api_thread;
    QCOMPARE(information_clean(), 0);
    const std::size_t reports = sink.total();
    const std::size_t progress = sink.progress().size();
    QVERIFY(worker->isFinished());  // no thread is left that could call the sink
    service->release_silent();
    QCoreApplication::processEvents();
    QCOMPARE(sink.total(), reports);
    QCOMPARE(sink.progress().size(), progress);
    QVERIFY(sink.finished().empty());
}

void tst_faults::unwritable_record_folder_data()
{
    QTest::addColumn<QString>("folder");  // what ./veltrainfo is
    QTest::newRow("a file") << "file";
    // Even root cannot create files under /proc.
    QTest::newRow("a folder nobody can write") << "/proc/self/fdinfo";
}

void tst_faults::unwritable_record_folder()
{
    QFETCH(QString, folder);
    scoped_working_dir dir;
    const QByteArray precious = "an earlier file, not a folder";
    if (folder == "file") {
        QFile file("veltrainfo");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(precious);
    } else {
        QVERIFY(QFile::link(folder, "veltrainfo"));
    }
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
    if (folder == "file") {
        QFile file("veltrainfo");
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), precious);
    }
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsSet(kWriterEnv))
        return run_record_writer();
    tst_faults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_faults.moc"
