// information_uploader against the local collection service: which records leave the folder,
// which stay, and the exit status of each run.
#include "net_support.h"

#include <QLockFile>
#include <QProcess>
#include <QtTest>

#include <atomic>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace test_support;

// What a row arranges besides the folder and the settings.
enum run_condition { as_is, forced, refusing_b, service_down, locked, read_only, turns_read_only };
Q_DECLARE_METATYPE(run_condition)

namespace {

// Writes ./veltrainfo/ from `ages` (file name: days since it changed): *.info2 and *.score2 names
// as records carrying their name, anything else as an empty file.
void write_folder(const QVariantMap& ages)
{
    QDir().mkpath("veltrainfo");
    for (auto it = ages.cbegin(); it != ages.cend(); ++it) {
        const QString path = "veltrainfo/" + it.key();
        if (path.endsWith(".info2") || path.endsWith(".score2"))
            write_ini(path, {{"data", QByteArray(R"({"record":")" + it.key().toUtf8() + R"("})")}, {"type", "usage"}});
        QFile file(path);
        QVERIFY(file.open(QIODevice::Append));
        file.setFileTime(QDateTime::currentDateTime().addDays(-it.value().toInt()), QFileDevice::FileModificationTime);
    }
}

struct run_result {
    int exit_code;
    QString err;
};

run_result run_uploader(const QString& url, const QStringList& extra = {}, bool bound_by_permissions = false)
{
    QStringList args = QStringList{"--dir", QDir::currentPath(), "--url", url, "--timeout", "3000"} + extra;
    QString program = UPLOADER_PATH;
    if (bound_by_permissions) {  // root without the capabilities that override file permissions
        args = QStringList{"--bounding-set=-dac_override,-fowner", program} + args;
        program = "setpriv";
    }
    QProcess uploader;
    uploader.start(program, args);
    if (!uploader.waitForFinished(60000))
        return {-1, "did not finish"};
    return {uploader.exitCode(), QString::fromUtf8(uploader.readAllStandardError())};
}

}  // namespace

class tst_uploader : public QObject {
    Q_OBJECT
private slots:
    void one_run_data();
    void one_run();
    void service_dying_mid_run_loses_nothing();
};

void tst_uploader::one_run_data()
{
    QTest::addColumn<QVariantMap>("settings");  // over enable=1, uploadintval=0
    QTest::addColumn<QVariantMap>("files");
    QTest::addColumn<run_condition>("condition");
    QTest::addColumn<int>("exit_code");
    QTest::addColumn<QString>("err");  // a part of standard error
    QTest::addColumn<QStringList>("left");
    QTest::addColumn<int>("received");
    const auto row = [](const QString& name, QVariantMap settings, QVariantMap files, run_condition condition, int code,
                        QString err, QStringList left, int received) {
        QTest::newRow(qPrintable(name)) << settings << files << condition << code << err << left << received;
    };
    const QVariantMap a{{"a.info2", 0}};
    row("due uploaded, score kept", {}, {{"a.info2", 0}, {"b.info2", 1}, {"c.info2", 2}, {"d.info2", 0}, {"e.info2", 0}, {"s.score2", 0}},
        as_is, 0, "", {"s.score2"}, 5);
    row("refused record kept", {}, {{"a.info2", 0}, {"b.info2", 0}, {"c.info2", 0}}, refusing_b, 1,
        "b.info2: duplicate record", {"b.info2"}, 3);
    row("disabled", {{"enable", 0}}, a, as_is, 3, "disabled", {"a.info2"}, 0);
    row("disabled, forced", {{"enable", 0}}, a, forced, 0, "", {}, 1);
    row("second run while locked", {}, a, locked, 4,
        QString("in use by tst_uploader (pid %1 on ").arg(QCoreApplication::applicationPid()),
        {".information_uploader.lock", "a.info2"}, 0);
    row("read-only folder", {}, a, read_only, 1, "cannot remove records from ./veltrainfo/", {"a.info2"}, 0);
    row("folder read-only once sent", {}, a, turns_read_only, 1, "first failure: a.info2: uploaded, but not removed",
        {".information_uploader.lock", "a.info2"}, 1);
    for (const QString remain : {"thirty", "0", "-3", ""})
        row(R"(remain ")" + remain + '"', {{"remain", remain}}, {{"a.info2", 3}}, as_is, 0,
            QString(R"(warning: "remain" is "%1")").arg(remain), {}, 1);
    row("uploadintval abc", {{"uploadintval", "abc"}}, a, as_is, 0, R"(warning: "uploadintval" is "abc")", {}, 1);
    row("connection refused", {}, a, service_down, 1, "first failure: a.info2: Connection refused", {"a.info2"}, 0);
    row("nothing due: no records", {}, {{"s.score2", 0}}, as_is, 0, "nothing due: no records", {"s.score2"}, 0);
    row("nothing due: young, the old one expired", {{"uploadintval", 1}}, {{"a.info2", 0}, {"b.info2", 0}, {"old.info2", 40}},
        as_is, 0, R"(nothing due: 2 records younger than 1 "uploadintval" day(s))", {"a.info2", "b.info2"}, 0);
    row("write leftovers older than a day removed", {},
        {{"a.info2.lock", 2}, {"a.info2.x1Y2z3", 2}, {"s.score2.lock", 2}, {"b.info2.lock", 0}, {"b.info2.q9W8e7", 0}, {"s.score2", 2}},
        as_is, 0, "", {"b.info2.lock", "b.info2.q9W8e7", "s.score2"}, 0);
}

void tst_uploader::one_run()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QVariantMap, files);
    QFETCH(run_condition, condition);
    QFETCH(int, exit_code);
    QFETCH(QString, err);
    QFETCH(QStringList, left);
    QFETCH(int, received);
    scoped_working_dir dir;
    QVariantMap system{{"enable", 1}, {"uploadintval", 0}};
    for (auto it = settings.cbegin(); it != settings.cend(); ++it)
        system[it.key()] = it.value();
    write_ini("res/system.ini", system);
    write_folder(files);
    auto service = start_service();
    const QString url = record_url(*service);
    if (condition == service_down)
        service->stop();
    if (condition == refusing_b)
        service->set_script([](const collection::received_request& r) -> std::optional<collection::reply> {
            if (r.body.find("b.info2") != std::string::npos)
                return json_reply(R"({"status":"failed","result":"duplicate record"})");
            return std::nullopt;
        });
    if (condition == turns_read_only)
        service->set_script([](const collection::received_request&) {
            chmod("veltrainfo", 0555);
            return std::optional<collection::reply>();
        });
    QLockFile other_run("veltrainfo/.information_uploader.lock");
    if (condition == locked)
        QVERIFY(other_run.lock());
    // Permissions do not bind root: as root, the uploader runs without the capabilities that
    // override them.
    const bool unwritable = condition == read_only || condition == turns_read_only;
    if (condition == read_only)
        QVERIFY(chmod("veltrainfo", 0555) == 0);
    const run_result run = run_uploader(url, condition == forced ? QStringList{"--force"} : QStringList{},
                                        unwritable && geteuid() == 0);
    chmod("veltrainfo", 0755);
    QCOMPARE(run.exit_code, exit_code);
    QVERIFY2(run.err.contains(err), qPrintable(run.err));
    QCOMPARE(record_files(), left);
    QCOMPARE(service->received_count(), std::size_t(received));
    for (const auto& request : service->received()) {
        QCOMPARE(request.target, std::string("/dtta?type=usage"));
        QCOMPARE(request.header("X-Auth-AppID"), std::string(collection::kReleaseAppId));
    }
}

void tst_uploader::service_dying_mid_run_loses_nothing()
{
    scoped_working_dir dir;
    write_ini("res/system.ini", {{"enable", 1}, {"uploadintval", 0}});
    QVariantMap eight;
    for (int i = 0; i < 8; ++i)
        eight[QString("%1.info2").arg(i)] = 0;
    write_folder(eight);
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
