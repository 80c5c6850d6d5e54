// information_uploader against the local collection service: which records leave the folder,
// which stay, and the exit status of each run.
#include "test_support.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace test_support;

// What a row arranges besides the folder and the settings.
enum run_condition { as_is, misbehaving, service_down, locked, read_only, read_only_once_sent };
Q_DECLARE_METATYPE(run_condition)

// Writes ./veltrainfo/ from `files`, "name[=text][:days since it changed]" each: *.info2 and
// *.score2 names as records carrying their name, anything else as a file holding `text`;
// "name/" as a folder, "name@target" as a symbolic link.
static void write_folder(const QString& files)
{
    for (const QString& file : files.split(' ', Qt::SkipEmptyParts)) {
        const QString name = file.section(':', 0, 0).section('=', 0, 0), path = "veltrainfo/" + name.section('@', 0, 0);
        QDir().mkpath(name.endsWith('/') ? path : QFileInfo(path).path());
        if (name.contains('@'))
            QVERIFY(QFile::link(name.section('@', 1), path));
        if (name.contains('@') || name.endsWith('/'))
            continue;
        if (path.endsWith(".info2") || path.endsWith(".score2"))
            write_ini(path, {{"data", QByteArray(R"({"record":")" + name.toUtf8() + R"("})")}, {"type", "usage"}});
        QFile f(path);
        const QByteArray appended = file.section(':', 0, 0).section('=', 1).toUtf8();
        QVERIFY(f.open(QIODevice::Append) && f.write(appended) >= 0 && f.flush());
        f.setFileTime(
            QDateTime::currentDateTime().addDays(-file.section(':', 1).toInt()), QFileDevice::FileModificationTime);
    }
}

class tst_uploader : public QObject {
    Q_OBJECT
private slots:
    void one_run_data();
    void one_run();
};

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_uploader::one_run_data()
{
    QTest::addColumn<QString>("settings");  // "key=value" over enable=1, uploadintval=0
    QTest::addColumn<QString>("files");
    QTest::addColumn<run_condition>("condition");
    QTest::addColumn<QString>("expected");  // exit status, files left, requests received
    QTest::addColumn<QString>("err");       // parts of standard error, "|"-separated
    // A record parked by a killed run goes back (f), beside the record written under its name meanwhile (b-1).
    QTest::newRow("only confirmed records removed, as sent") << ""
        << "a.info2 b.info2 c.info2 d.info2 e.info2 s.score2 .information_uploader.parked.f.info2 "
        ".information_uploader.parked.b.info2" << misbehaving
        << "exit 1, left [b-1.info2 b.info2 c.info2 d.info2 e.info2 f.info2 s.score2], 7 received"
        << "b.info2: duplicate record|e.info2 changed while it was sent";
    QTest::newRow("disabled") << "enable=0" << "a.info2" << as_is << "exit 3, left [a.info2], 0 received" << "disabled";
    QTest::newRow("second run while locked") << "" << "a.info2" << locked
        << "exit 4, left [.information_uploader.lock a.info2], 0 received" << "is in use by tst_uploader (pid";
    for (const QString lock : {":1", "=garbage:1", "@gone", "/"})  // empty, garbage, a dangling link, a folder
        QTest::newRow(qPrintable("nameless lock " + lock)) << "" << ".information_uploader.lock" + lock + " a.info2"
                                                          << as_is << "exit 0, left [], 1 received" << "";
    QTest::newRow("empty lock being written") << "" << ".information_uploader.lock a.info2" << as_is
        << "exit 4, left [.information_uploader.lock a.info2], 0 received" << "in use by another information_uploader";
    QTest::newRow("lock is a folder with a file") << "" << ".information_uploader.lock/kept a.info2" << as_is
        << "exit 1, left [a.info2], 0 received" << "is a folder that is not empty, not a lock";
    QTest::newRow("read-only folder") << "" << "a.info2" << read_only << "exit 1, left [a.info2], 0 received"
                                      << "cannot remove records from ./veltrainfo/";
    QTest::newRow("folder read-only once sent") << "" << "a.info2" << read_only_once_sent
        << "exit 1, left [.information_uploader.lock a.info2], 1 received"
        << "first failure: a.info2: uploaded, but not removed";
    for (const QString remain : {"thirty", "0", "-3", ""})
        QTest::newRow(qPrintable("remain=" + remain)) << "remain=" + remain + " uploadintval=abc" << "a.info2:3"
            << as_is << "exit 0, left [], 1 received"
            << QString(R"(warning: "remain" is "%1"|warning: "uploadintval" is "abc")").arg(remain);
    QTest::newRow("connection refused") << "" << "a.info2" << service_down << "exit 1, left [a.info2], 0 received"
                                        << "first failure: a.info2: Connection refused";
    QTest::newRow("nothing due: young, the old one expired") << "uploadintval=1" << "a.info2 b.info2 old.info2:40"
        << as_is << "exit 0, left [a.info2 b.info2], 0 received"
        << R"(nothing due: 2 records younger than 1 "uploadintval" day(s))";
    QTest::newRow("only old write leftovers removed") << ""
        << "a.info2.lock:2 s.score2.x1Y2z3:2 b.info2.lock s.score2:2 x.info2.bak:2 x.info2.backup1:2 notes.txt:2"
        << as_is
        << "exit 0, left [b.info2.lock notes.txt s.score2 x.info2.backup1 x.info2.bak], 0 received" << "";
}
// clang-format on

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
    // Misbehaving, by the record's name: b.info2 refused, c.info2 never answered (until the
    // uploader's time-out), d.info2 cut off in the middle of its answer; a.info2 and e.info2
    // stored, e.info2 rewritten by its host meanwhile.
    if (condition == misbehaving)
        service->set_script([](const collection::received_request& r) -> std::optional<collection::reply> {
            const auto carries = [&](const char* name) { return r.body.find(name) != std::string::npos; };
            if (carries("e.info2"))
                write_ini("veltrainfo/e.info2", {{"type", "scan"}});
            collection::reply refusal = answer(R"({"status":"failed","result":"duplicate record"})");
            refusal.silent = carries("c.info2");
            refusal.reset_midway = carries("d.info2");
            return carries("a.info2") || carries("e.info2") ? std::nullopt : std::optional(refusal);
        });
    QLockFile other_run("veltrainfo/.information_uploader.lock");
    if (condition == locked)
        QVERIFY(other_run.lock());
    if (condition == read_only)
        QVERIFY(chmod("veltrainfo", 0555) == 0);
    if (condition == read_only_once_sent)
        service->set_script([](const collection::received_request&) {
            chmod("veltrainfo", 0555);
            return std::optional<collection::reply>();
        });
    QStringList args{"--dir", QDir::currentPath(), "--url", record_url(*service), "--timeout", "3000"};
    // Permissions do not bind root: as root, the uploader runs without the capabilities that override them.
    if (geteuid() == 0)
        args = QStringList{"--bounding-set=-dac_override,-fowner", UPLOADER_PATH} + args;
    QProcess uploader;
    uploader.start(geteuid() == 0 ? "setpriv" : UPLOADER_PATH, args);
    const bool finished = uploader.waitForFinished(30000);
    chmod("veltrainfo", 0755);
    QVERIFY(finished);
    const QString err_text = uploader.readAllStandardError();
    for (const QString& part : err.split('|'))
        QVERIFY2(err_text.contains(part), qPrintable(err_text));
    QCOMPARE(QString("exit %1, left [%2], %3 received")
                 .arg(uploader.exitCode())
                 .arg(record_files().join(' '))
                 .arg(service->received_count()),
        expected);
}

QTEST_GUILESS_MAIN(tst_uploader)
#include "tst_uploader.moc"
