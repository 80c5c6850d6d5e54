// information_uploader against the local collection service: which records leave the folder,
// which stay, and the exit status of each run.
#include "net_support.h"

#include <QProcess>
#include <QtTest>

#include <atomic>
#include <set>

using namespace test_support;

namespace {

void write_records(int count)
{
    QDir().mkpath("veltrainfo");
    for (int i = 0; i < count; ++i) {
        QSettings record(QString("veltrainfo/2026-11-0%1T10-00-00Z.info2").arg(i + 1), QSettings::IniFormat);
        record.setValue("data", QByteArray(R"({"seriaNum":"SN-)" + QByteArray::number(i) + R"("})"));
        record.setValue("type", "usage");
    }
}

struct run_result {
    int exit_code;
    QString err;
};

run_result run_uploader(const QString& url, const QStringList& extra = {})
{
    QProcess uploader;
    uploader.start(UPLOADER_PATH, QStringList{"--dir", QDir::currentPath(), "--url", url,
                                              "--timeout", "3000"} + extra);
    if (!uploader.waitForFinished(60000))
        return {-1, "did not finish"};
    return {uploader.exitCode(), QString::fromUtf8(uploader.readAllStandardError())};
}

}  // namespace

class tst_uploader : public QObject {
    Q_OBJECT
private slots:
    void every_due_record_uploaded_and_removed();
    void refusal_keeps_the_file();
    void disabled_uploads_nothing();
    void service_dying_mid_run_loses_nothing();
};

void tst_uploader::every_due_record_uploaded_and_removed()
{
    scoped_working_dir dir;
    write_ini("res/system.ini", {{"enable", 1}, {"uploadintval", 0}});
    write_records(5);
    write_ini("veltrainfo/2026-11-01T10-00-00.score2", {{"data", "{}"}, {"type", "score"}});
    auto service = start_service();

    const run_result run = run_uploader(record_url(*service));
    QCOMPARE(run.exit_code, 0);
    QCOMPARE(record_files(), QStringList{"2026-11-01T10-00-00.score2"});
    const auto requests = service->received();
    QCOMPARE(requests.size(), std::size_t(5));
    for (const auto& request : requests) {
        QCOMPARE(request.target, std::string("/dtta?type=usage"));
        QCOMPARE(request.header("X-Auth-AppID"), std::string(collection::kReleaseAppId));
    }
}

void tst_uploader::refusal_keeps_the_file()
{
    scoped_working_dir dir;
    write_ini("res/system.ini", {{"enable", 1}, {"uploadintval", 0}});
    write_records(3);
    auto service = start_service();
    service->set_script([](const collection::received_request& r) -> std::optional<collection::reply> {
        if (r.body.find("SN-1") != std::string::npos)
            return json_reply(R"({"status":"failed","result":"duplicate record"})");
        return std::nullopt;
    });

    const run_result run = run_uploader(record_url(*service));
    QCOMPARE(run.exit_code, 1);
    QVERIFY2(run.err.contains("duplicate record"), qPrintable(run.err));
    QCOMPARE(record_files(), QStringList{"2026-11-02T10-00-00Z.info2"});
}

void tst_uploader::disabled_uploads_nothing()
{
    scoped_working_dir dir;
    write_ini("res/system.ini", {{"enable", 0}, {"uploadintval", 0}});
    write_records(2);
    auto service = start_service();

    const run_result run = run_uploader(record_url(*service));
    QCOMPARE(run.exit_code, 3);
    QVERIFY(run.err.contains("disabled"));
    QCOMPARE(service->received_count(), std::size_t(0));
    QCOMPARE(record_files().size(), 2);

    QCOMPARE(run_uploader(record_url(*service), {"--force"}).exit_code, 0);
    QCOMPARE(record_files().size(), 0);
}

void tst_uploader::service_dying_mid_run_loses_nothing()
{
    scoped_working_dir dir;
    write_ini("res/system.ini", {{"enable", 1}, {"uploadintval", 0}});
    write_records(8);
    auto service = start_service();
    // Three records are confirmed, then the service hangs and dies.
    std::atomic<int> answered{0};
    service->set_script([&](const collection::received_request&) -> std::optional<collection::reply> {
        if (++answered <= 3)
            return std::nullopt;
        collection::reply hang;
        hang.silent = true;
        return hang;
    });
    QProcess uploader;
    uploader.start(UPLOADER_PATH, {"--dir", QDir::currentPath(), "--url", record_url(*service), "--timeout", "60000"});
    QVERIFY(service->wait_for_requests(5, std::chrono::seconds(30)));
    service->stop();
    QVERIFY(uploader.waitForFinished(60000));
    QCOMPARE(uploader.exitCode(), 1);
    QCOMPARE(record_files().size(), 5);

    auto restarted = start_service();
    QCOMPARE(run_uploader(record_url(*restarted)).exit_code, 0);
    QCOMPARE(record_files().size(), 0);
    std::set<std::string> bodies;
    for (const auto* s : {service.get(), restarted.get()})
        for (const auto& request : s->received())
            bodies.insert(request.body);
    QCOMPARE(bodies.size(), std::size_t(8));
}

QTEST_GUILESS_MAIN(tst_uploader)
#include "tst_uploader.moc"
