// information_uploader against the local collection service: which records leave the folder,
// which stay, and the exit status of each run.
#include "test_support.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace test_support;

// What a row arranges besides the folder and the settings.
enum run_condition { as_is, forced, misbehaving, service_down, locked, read_only, turns_read_only };
Q_DECLARE_METATYPE(run_condition)

// Writes ./veltrainfo/ from `files`, "name[:days since it changed]" each: *.info2 and *.score2
// names as records carrying their name, anything else as an empty file.
static void write_folder(const QString& files)
{
    QDir().mkpath("veltrainfo");
    for (const QString& file : files.split(' ', Qt::SkipEmptyParts)) {
        const QString name = file.section(':', 0, 0), path = "veltrainfo/" + name;
        if (path.endsWith(".info2") || path.endsWith(".score2"))
            write_ini(path, {{"data", QByteArray(R"({"record":")" + name.toUtf8() + R"("})")}, {"type", "usage"}});
        QFile f(path);
        QVERIFY(f.open(QIODevice::Append));
        f.setFileTime(QDateTime::currentDateTime().addDays(-file.section(':', 1).toInt()),
                      QFileDevice::FileModificationTime);
    }
}

class tst_uploader : public QObject {
    Q_OBJECT
private slots:
    void one_run_data();
    void one_run();
};

void tst_uploader::one_run_data()
{
    QTest::addColumn<QString>("settings");  // "key=value" over enable=1, uploadintval=0
    QTest::addColumn<QString>("files");
    QTest::addColumn<run_condition>("condition");
    QTest::addColumn<QString>("expected");  // exit status, files left, requests received
    QTest::addColumn<QString>("err");       // a part of standard error
    QTest::newRow("due uploaded, score kept") << "" << "a.info2 b.info2:1 c.info2:2 s.score2" << as_is
                                              << "exit 0, left [s.score2], 3 received" << "";
    QTest::newRow("only confirmed records removed") << "" << "a.info2 b.info2 c.info2 d.info2 e.info2" << misbehaving
        << "exit 1, left [b.info2 c.info2 d.info2], 5 received" << "b.info2: duplicate record";
    QTest::newRow("disabled") << "enable=0" << "a.info2" << as_is << "exit 3, left [a.info2], 0 received" << "disabled";
    QTest::newRow("disabled, forced") << "enable=0" << "a.info2" << forced << "exit 0, left [], 1 received" << "";
    QTest::newRow("second run while locked") << "" << "a.info2" << locked
        << "exit 4, left [.information_uploader.lock a.info2], 0 received"
        << QString("in use by tst_uploader (pid %1 on ").arg(QCoreApplication::applicationPid());
    QTest::newRow("read-only folder") << "" << "a.info2" << read_only << "exit 1, left [a.info2], 0 received"
                                      << "cannot remove records from ./veltrainfo/";
    QTest::newRow("folder read-only once sent") << "" << "a.info2" << turns_read_only
        << "exit 1, left [.information_uploader.lock a.info2], 1 received"
        << "first failure: a.info2: uploaded, but not removed";
    for (const QString remain : {"thirty", "0", "-3", ""})
        QTest::newRow(qPrintable("remain=" + remain)) << "remain=" + remain << "a.info2:3" << as_is
            << "exit 0, left [], 1 received" << QString(R"(warning: "remain" is "%1")").arg(remain);
    QTest::newRow("uploadintval=abc") << "uploadintval=abc" << "a.info2" << as_is << "exit 0, left [], 1 received"
                                      << R"(warning: "uploadintval" is "abc")";
    QTest::newRow("connection refused") << "" << "a.info2" << service_down << "exit 1, left [a.info2], 0 received"
                                        << "first failure: a.info2: Connection refused";
    QTest::newRow("nothing due: no records") << "" << "s.score2" << as_is << "exit 0, left [s.score2], 0 received"
                                             << "nothing due: no records";
    QTest::newRow("nothing due: young, the old one expired") << "uploadintval=1" << "a.info2 b.info2 old.info2:40"
        << as_is << "exit 0, left [a.info2 b.info2], 0 received"
        << R"(nothing due: 2 records younger than 1 "uploadintval" day(s))";
    QTest::newRow("write leftovers older than a day removed") << ""
        << "a.info2.lock:2 a.info2.x1Y2z3:2 s.score2.lock:2 b.info2.lock b.info2.q9W8e7 s.score2:2" << as_is
        << "exit 0, left [b.info2.lock b.info2.q9W8e7 s.score2], 0 received" << "";
}

void tst_uploader::one_run()
{
    QFETCH(QString, settings);
    QFETCH(QString, files);
    QFETCH(run_condition, condition);
    QFETCH(QString, expected);
    QFETCH(QString, err);
    scoped_working_dir dir;
    QVariantMap system{{"enable", 1}, {"uploadintval", 0}};
    for (const QString& setting : settings.split(' ', Qt::SkipEmptyParts))
        system[setting.section('=', 0, 0)] = setting.section('=', 1);
    write_ini("res/system.ini", system);
    write_folder(files);
    auto service = start_service();
    if (condition == service_down)
        service->stop();
    service->set_script([condition](const collection::received_request& r) -> std::optional<collection::reply> {
        if (condition == turns_read_only)
            chmod("veltrainfo", 0555);
        // Misbehaving, by the record's name: b.info2 refused, c.info2 never answered (until the
        // uploader's time-out), d.info2 cut off in the middle of its answer.
        const auto carries = [&](const char* name) { return r.body.find(name) != std::string::npos; };
        collection::reply answer = json_reply(R"({"status":"failed","result":"duplicate record"})");
        answer.silent = carries("c.info2");
        answer.reset_midway = carries("d.info2");
        if (condition == misbehaving && (carries("b.info2") || answer.silent || answer.reset_midway))
            return answer;
        return std::nullopt;
    });
    QLockFile other_run("veltrainfo/.information_uploader.lock");
    if (condition == locked)
        QVERIFY(other_run.lock());
    if (condition == read_only)
        QVERIFY(chmod("veltrainfo", 0555) == 0);

    QString program = UPLOADER_PATH;
    QStringList args{"--dir", QDir::currentPath(), "--url", record_url(*service), "--timeout", "3000"};
    if (condition == forced)
        args << "--force";
    // Permissions do not bind root: as root, the uploader runs without the capabilities that override them.
    if ((condition == read_only || condition == turns_read_only) && geteuid() == 0) {
        args = QStringList{"--bounding-set=-dac_override,-fowner", program} + args;
        program = "setpriv";
    }
    QProcess uploader;
    uploader.start(program, args);
    const bool finished = uploader.waitForFinished(30000);
    chmod("veltrainfo", 0755);
    QVERIFY(finished);
    const QString err_text = uploader.readAllStandardError();
    QVERIFY2(err_text.contains(err), qPrintable(err_text));
    QCOMPARE(QString("exit %1, left [%2], %3 received")
                 .arg(uploader.exitCode()).arg(record_files().join(' ')).arg(service->received_count()),
             expected);
    for (const auto& request : service->received()) {
        QCOMPARE(request.target, std::string("/dtta?type=usage"));
        QCOMPARE(request.header("X-Auth-AppID"), std::string(collection::kReleaseAppId));
    }
}

QTEST_GUILESS_MAIN(tst_uploader)
#include "tst_uploader.moc"
