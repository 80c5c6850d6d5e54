// The record folder's housekeeping: which records are due for upload (by the host's "start_time")
// and which are expired, by whole calendar days of their modification times.
#include "test_support.h"

#include <information_api/windows_information_imp.h>

#include <QtTest>

#include <memory>

using namespace information_api;

namespace {

// Creates ./veltrainfo/<name> last modified at `when` (local time).
bool make_record(const QString& name, const QDateTime& when)
{
    QDir().mkpath("veltrainfo");
    QFile file("veltrainfo/" + name);
    return file.open(QIODevice::WriteOnly) && file.write("[General]\ntype=usage\n") > 0 && file.flush()
           && file.setFileTime(when, QFileDevice::FileModificationTime);
}

QString absolute(const QString& name) { return QDir::current().absoluteFilePath("veltrainfo/" + name); }

QDateTime on(int day, const char* time) { return QDateTime(QDate(2026, 1, day), QTime::fromString(time)); }

}  // namespace

class tst_housekeeping : public QObject {
    Q_OBJECT
private slots:
    void init()
    {
        cwd_ = std::make_unique<test_support::scoped_working_dir>();
        QCoreApplication::instance()->setProperty("start_time", QVariant());
    }
    void cleanup() { cwd_.reset(); }

    void upload_files_data();
    void upload_files();
    void walk_order_is_qdir_time_reversed();
    void clear_timeout_file_data();
    void clear_timeout_file();

private:
    std::unique_ptr<test_support::scoped_working_dir> cwd_;
};

void tst_housekeeping::upload_files_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QVariant>("startTime");
    QTest::addColumn<QStringList>("files");  // "name|day|hh:mm:ss" in January 2026
    QTest::addColumn<QStringList>("given");  // already in the caller's list
    QTest::addColumn<QStringList>("listed");  // names, oldest first

    const QStringList others{"a.score2|1|08:00:00", "b.txt|1|08:00:00", "c.info2.bak|1|08:00:00"};
    QTest::newRow("default minimum: one day or more")
        << QVariantMap{} << QVariant(on(15, "12:00:00"))
        << QStringList{"older.info2|10|12:00:00", "same-day.info2|15|08:00:00", "yesterday.info2|14|12:00:00"} + others
        << QStringList{} << QStringList{"older.info2", "yesterday.info2"};
    QTest::newRow("start just after midnight")
        << QVariantMap{} << QVariant(on(15, "00:00:30"))
        << QStringList{"before.info2|14|23:59:59", "after.info2|15|00:00:01"} << QStringList{}
        << QStringList{"before.info2"};
    QTest::newRow("start just before midnight")
        << QVariantMap{} << QVariant(on(15, "23:59:59"))
        << QStringList{"day-before.info2|14|23:59:59", "same-day.info2|15|00:00:00"} << QStringList{}
        << QStringList{"day-before.info2"};
    QTest::newRow("minimum 0: up to the reference day, later days skipped")
        << QVariantMap{{"uploadintval", 0}} << QVariant(on(15, "12:00:00"))
        << QStringList{"later-today.info2|15|23:00:00", "tomorrow.info2|16|00:00:01", "old.info2|13|09:00:00"}
        << QStringList{} << QStringList{"old.info2", "later-today.info2"};
    QTest::newRow("minimum 2")
        << QVariantMap{{"uploadintval", 2}} << QVariant(on(15, "12:00:00"))
        << QStringList{"one.info2|14|12:00:00", "two.info2|13|00:00:00", "three.info2|12|23:59:59"} << QStringList{}
        << QStringList{"three.info2", "two.info2"};
    QTest::newRow("no start_time: every age is 0") << QVariantMap{} << QVariant()
                                                   << QStringList{"old.info2|1|00:00:00"} << QStringList{} << QStringList{};
    QTest::newRow("no start_time, minimum 0") << QVariantMap{{"uploadintval", 0}} << QVariant()
                                              << QStringList{"old.info2|1|00:00:00"} << QStringList{}
                                              << QStringList{"old.info2"};
    QTest::newRow("caller's entries are counted") << QVariantMap{} << QVariant(on(15, "12:00:00"))
                                                  << QStringList{"due.info2|2|00:00:00"} << QStringList{"x", "y"}
                                                  << QStringList{"due.info2"};
    QTest::newRow("no folder") << QVariantMap{{"uploadintval", 0}} << QVariant(on(15, "12:00:00")) << QStringList{}
                               << QStringList{"x", "y"} << QStringList{};
}

void tst_housekeeping::upload_files()
{
    QFETCH(QVariantMap, system);
    QFETCH(QVariant, startTime);
    QFETCH(QStringList, files);
    QFETCH(QStringList, given);
    QFETCH(QStringList, listed);
    test_support::write_ini("res/system.ini", system);
    for (const QString& file : files) {
        const QStringList parts = file.split('|');
        QVERIFY(make_record(parts[0], on(parts[1].toInt(), qPrintable(parts[2]))));
    }
    QDir().mkpath("veltrainfo/dir.info2");  // folders are never listed
    QCoreApplication::instance()->setProperty("start_time", startTime);

    windows_information_imp m;
    QStringList result = given;
    test_support::qdebug_capture debug;
    const int count = m.get_upload_files(result);
    const QStringList debug_messages = debug.texts();

    QStringList expected = given;
    for (const QString& name : listed)
        expected << absolute(name);
    QCOMPARE(result, expected);
    QCOMPARE(count, expected.size());
    QCOMPARE(debug_messages.size(), listed.size());
    for (int i = 0; i < listed.size(); ++i) {
        const QDateTime reference = startTime.toDateTime();
        const qint64 age = QFileInfo(absolute(listed[i])).lastModified().daysTo(reference);
        QCOMPARE(debug_messages[i], QString("day_diff %1 upload file  \"%2\"").arg(age).arg(absolute(listed[i])));
    }
    QVERIFY(QFile::exists("veltrainfo/dir.info2"));
}

void tst_housekeeping::walk_order_is_qdir_time_reversed()
{
    // Equal times (ordered by name, case-sensitively) and distinct times, created out of order.
    const QStringList names{"b.info2", "B.info2", "aa.info2", "a.info2", "c.info2", "Z.info2", "y.info2"};
    const QDateTime when = on(10, "10:00:00");
    for (int i = 0; i < names.size(); ++i)
        QVERIFY(make_record(names[i], i < 5 ? when : when.addMSecs(i == 5 ? 1 : -1)));
    test_support::write_ini("res/system.ini", {{"uploadintval", 0}});
    QCoreApplication::instance()->setProperty("start_time", on(15, "12:00:00"));

    QStringList expected;
    for (const QFileInfo& file : QDir("veltrainfo").entryInfoList({"*.info2"}, QDir::Files, QDir::Time))
        expected.prepend(file.absoluteFilePath());
    windows_information_imp m;
    QStringList files;
    m.get_upload_files(files);
    QCOMPARE(files, expected);
    QCOMPARE(files.first(), absolute("y.info2"));
    QCOMPARE(files.last(), absolute("Z.info2"));
}

void tst_housekeeping::clear_timeout_file_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QStringList>("files");    // "name|days before today|hh:mm:ss"
    QTest::addColumn<QStringList>("deleted");  // oldest first, as logged

    QTest::newRow("default: kept at 30 days, deleted at 31")
        << QVariantMap{}
        << QStringList{"d30.info2|30|12:00:00", "d31.info2|31|12:00:00", "d45.info2|45|08:00:00",
                       "today.info2|0|00:00:00", "old.score2|90|00:00:00", "old.txt|90|00:00:00"}
        << QStringList{"d45.info2", "d31.info2"};
    QTest::newRow("around midnight")
        << QVariantMap{} << QStringList{"late.info2|31|23:59:59", "early.info2|30|00:00:00"}
        << QStringList{"late.info2"};
    QTest::newRow("remain 5") << QVariantMap{{"remain", 5}}
                              << QStringList{"d5.info2|5|00:00:00", "d6.info2|6|23:59:59", "d7.info2|7|00:00:00"}
                              << QStringList{"d7.info2", "d6.info2"};
    QTest::newRow("remain 0: only today kept") << QVariantMap{{"remain", 0}}
                                               << QStringList{"today.info2|0|00:00:00", "d1.info2|1|23:59:59"}
                                               << QStringList{"d1.info2"};
    QTest::newRow("nothing expired") << QVariantMap{} << QStringList{"d1.info2|1|00:00:00", "d29.info2|29|00:00:00"}
                                     << QStringList{};
    QTest::newRow("no folder") << QVariantMap{} << QStringList{} << QStringList{};
}

void tst_housekeeping::clear_timeout_file()
{
    QFETCH(QVariantMap, system);
    QFETCH(QStringList, files);
    QFETCH(QStringList, deleted);
    test_support::write_ini("res/system.ini", system);
    QStringList kept;
    const QDate today = QDate::currentDate();
    for (const QString& file : files) {
        const QStringList parts = file.split('|');
        QVERIFY(make_record(parts[0], QDateTime(today.addDays(-parts[1].toInt()), QTime::fromString(parts[2]))));
        if (!deleted.contains(parts[0]))
            kept << parts[0];
    }

    windows_information_imp m;
    test_support::glog_capture log;
    m.clear_timeout_file();

    QStringList expectedLog;
    for (const QString& name : deleted)
        expectedLog << "delete file " + absolute(name);
    QCOMPARE(log.lines(), expectedLog);
    kept.sort();
    QCOMPARE(test_support::record_files(), kept);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("tst_housekeeping");
    tst_housekeeping test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_housekeeping.moc"
