// information_collector as installed, on the database named by COLLECTOR_DATABASE (SQLite in the
// data folder when unset): an acknowledged record survives every fault, nothing refused is kept,
// governance commands see what serving kept.
#include "test_support.h"
#include "tools/collector/data_folder.h"

#include <sqlite3.h>

#include <csignal>

using namespace test_support;

enum class fault { none, kill9, unavailable, sigterm, two_collectors };
Q_DECLARE_METATYPE(fault)

namespace {

QByteArray record_body(int i, const QString& serial = "SN-1")
{
    return QString(R"({"seriaNum":"%1","softwareVer":"2.%2","osSoftExt":{"osName":"Linux","lang":"de"},"n":%3})")
        .arg(serial)
        .arg(i % 3)
        .arg(i)
        .toUtf8();
}

struct serving {
    QProcess process;
    ~serving()
    {
        process.kill();
        process.waitForFinished();
    }
    QString url;
    void start(const QString& data, const QString& database)
    {
        QStringList arguments{"serve", "--data-dir", data, "--max-body-mb", "1"};
        if (!database.isEmpty())
            arguments << "--database" << database;
        process.start(COLLECTOR_PATH, arguments);
        QTRY_VERIFY(process.canReadLine());
        url = QString(process.readLine()).section(' ', 2).trimmed();
        QVERIFY(url.startsWith("https://127.0.0.1:"));
    }
};

// Posts each body (up to six at once) and collects "status result" per body.
QStringList post_all(const QString& url, const QList<QByteArray>& bodies, const QByteArray& app_id = kAppId,
    const std::function<void(int answered)>& after_each = {})
{
    QNetworkAccessManager manager;
    QStringList answers;
    for (int i = 0; i < bodies.size(); ++i)
        answers << "";
    int answered = 0;
    for (int i = 0; i < bodies.size(); ++i) {
        QNetworkRequest request(QUrl(url + "/dtta?type=usage"));
        request.setRawHeader("X-Auth-AppID", app_id);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        QNetworkReply* reply = manager.post(request, bodies[i]);
        reply->ignoreSslErrors();
        QObject::connect(reply, &QNetworkReply::finished, [&, reply, i] {
            const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
            answers[i] = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toString() + " " +
                         answer.value("status").toString("-");
            reply->deleteLater();
            if (after_each)
                after_each(++answered);
            else
                ++answered;
        });
    }
    [&] { QTRY_COMPARE_WITH_TIMEOUT(answered, int(bodies.size()), 60000); }();
    return answers;
}

QStringList run(const QStringList& arguments, int expected_exit = 0)
{
    QProcess p;
    p.start(COLLECTOR_PATH, arguments);
    p.waitForFinished(60000);
    [&] { QCOMPARE(p.exitCode(), expected_exit); }();
    return QString(p.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
}

}  // namespace

class tst_collector : public QObject {
    Q_OBJECT
private slots:
    void faults_data();
    void faults();
    void governance();

private:
    QString database_ = qEnvironmentVariable("COLLECTOR_DATABASE");
    // The database out of reach: PostgreSQL stopped, the SQLite file locked by another writer.
    void set_available(const QString& data, bool available)
    {
        static sqlite3* holder = nullptr;
        if (!database_.isEmpty()) {
            QCOMPARE(QProcess::execute(
                         "pg_ctlcluster", {qEnvironmentVariable("PGVERSION"), "regress", available ? "start" : "stop"}),
                0);
        } else if (!available) {
            QCOMPARE(sqlite3_open((data + "/" + collector::data_folder::kRecords).toUtf8(), &holder), SQLITE_OK);
            QCOMPARE(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
        } else {
            sqlite3_close_v2(holder);  // its transaction rolls back
        }
    }
    QStringList exported(const QString& data)
    {
        const QStringList database = database_.isEmpty() ? QStringList() : QStringList{"--database", database_};
        return run(QStringList{"export", "--data-dir", data} + database);
    }
};

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_collector::faults_data()
{
    QTest::addColumn<fault>("what");
    QTest::addColumn<QString>("expected");  // the answers in order, then what an export holds
    QTest::newRow("sent twice, unknown id, no object, too large") << fault::none
        << "200 success|200 success|200 failed|200 failed|413 failed / kept 1";
    QTest::newRow("kill -9 under load: every acknowledged record kept") << fault::kill9 << "lost 0";
    QTest::newRow("database unavailable mid-run: 503, then recovered") << fault::unavailable
        << "200 success|503 failed|200 success / kept 2";
    QTest::newRow("SIGTERM: the request in flight is answered, exit 0") << fault::sigterm
        << "200 success / exit 0 / kept 1";
    QTest::newRow("two collectors, one database: each record once") << fault::two_collectors
        << "200 success x 80 / kept 40";
}
// clang-format on

void tst_collector::faults()
{
    QFETCH(fault, what);
    QFETCH(QString, expected);
    QTemporaryDir data;
    const QString& database = database_;
    if (!database.isEmpty())  // a fresh database for each row
        QCOMPARE(QProcess::execute("psql", {"-qc", "DROP TABLE IF EXISTS records, attachments, schema_version"}), 0);
    serving first;
    first.start(data.path(), database);
    QString outcome;
    if (what == fault::none) {
        const QByteArray big = '{' + QByteArray(1 << 20, ' ') + '}';
        QStringList answers = post_all(first.url, {record_body(1), record_body(1)});
        answers += post_all(first.url, {record_body(2)}, "0000");
        answers += post_all(first.url, {"[1]", big});
        outcome = answers.join('|') + QString(" / kept %1").arg(exported(data.path()).size());
    } else if (what == fault::kill9) {
        QList<QByteArray> bodies;
        for (int i = 0; i < 400; ++i)
            bodies << record_body(i, "K" + QString::number(i));
        QStringList acknowledged;
        const QStringList answers = post_all(first.url, bodies, kAppId, [&](int answered) {
            if (answered == 100)
                ::kill(pid_t(first.process.processId()), SIGKILL);
        });
        for (int i = 0; i < bodies.size(); ++i)
            if (answers[i] == "200 success")
                acknowledged << QCryptographicHash::hash(bodies[i], QCryptographicHash::Sha256).toHex();
        QVERIFY(acknowledged.size() >= 100 && acknowledged.size() < 400);
        first.process.waitForFinished();
        const QString kept = exported(data.path()).join('\n');
        outcome = QString("lost %1").arg(std::count_if(
            acknowledged.begin(), acknowledged.end(), [&](const QString& r) { return !kept.contains(r); }));
    } else if (what == fault::unavailable) {
        QStringList answers = post_all(first.url, {record_body(1)});
        set_available(data.path(), false);
        answers += post_all(first.url, {record_body(2)});
        set_available(data.path(), true);
        answers += post_all(first.url, {record_body(3)});
        outcome = answers.join('|') + QString(" / kept %1").arg(exported(data.path()).size());
    } else if (what == fault::sigterm) {
        QSslSocket slow;  // a request under way: its head and half its body sent
        slow.setPeerVerifyMode(QSslSocket::VerifyNone);
        slow.connectToHostEncrypted("127.0.0.1", quint16(QUrl(first.url).port()));
        QVERIFY(slow.waitForEncrypted(5000));
        const QByteArray body = record_body(1);
        slow.write("POST /dtta?type=usage HTTP/1.1\r\nX-Auth-AppID: " + QByteArray(kAppId) +
                   "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body.left(10));
        QVERIFY(slow.waitForBytesWritten(5000));
        ::kill(pid_t(first.process.processId()), SIGTERM);
        QByteArray said, answer;
        QTRY_VERIFY((said += first.process.readAllStandardOutput()).contains("stopping"));
        slow.write(body.mid(10));
        QTRY_VERIFY((answer += slow.readAll()).contains("\"success\""));
        QVERIFY(first.process.waitForFinished(10000));
        outcome =
            QString("200 success / exit %1 / kept %2").arg(first.process.exitCode()).arg(exported(data.path()).size());
    } else {
        serving second;
        const std::string shared_database = collector::data_folder::default_database(data.path().toStdString());
        second.start(data.path() + "/second", database.isEmpty() ? QString::fromStdString(shared_database) : database);
        QList<QByteArray> bodies;
        for (int i = 0; i < 40; ++i)
            bodies << record_body(i, "T" + QString::number(i));
        QStringList answers = post_all(first.url, bodies) + post_all(second.url, bodies);
        answers.removeAll("200 success");
        outcome = QString("200 success x %1 / kept %2").arg(80 - answers.size()).arg(exported(data.path()).size());
    }
    QCOMPARE(outcome, expected);
}

void tst_collector::governance()
{
    QTemporaryDir data;
    const QStringList where =
        database_.isEmpty() ? QStringList{"--data-dir", data.path()} : QStringList{"--database", database_};
    const QString today = QDateTime::currentDateTimeUtc().date().toString(Qt::ISODate);
    if (!database_.isEmpty())
        QCOMPARE(QProcess::execute("psql", {"-qc", "DROP TABLE IF EXISTS records, attachments, schema_version"}), 0);
    serving c;
    c.start(data.path(), database_);
    for (const QByteArray& body : {record_body(1, "A"), record_body(2, "A"), record_body(3, "B")})
        post_all(c.url, {body});  // one at a time: the ids follow this order
    const QStringList line = run(QStringList{"export", "--format", "csv", "--since", today} + where);
    QCOMPARE(line.size(), 4);  // the header and three records
    QVERIFY(line[1].contains(R"(,"usage",)") && line[1].contains(R"(,"2.1","","Linux","A","","de",)"));
    const QJsonObject first = QJsonDocument::fromJson(run(QStringList{"export"} + where).value(0).toUtf8()).object();
    QCOMPARE(QStringList(first.keys()), QStringList({"app_id", "id", "kind", "received_at", "record", "sha256"}));
    QCOMPARE(first.value("record").toObject().value("n").toInt(), 1);
    QCOMPARE(run(QStringList{"delete", "--serial", "A"} + where), QStringList{"deleted 2 records of device A"});
    QCOMPARE(run(QStringList{"stats"} + where).join('|').remove(QRegularExpression(" +")),
        "records:1|bykind:|usage1|byversion:|2.01|byday:|" + today + "1");
    QCOMPARE(run(QStringList{"purge", "--older-than-days", "1"} + where).value(0).section(' ', 0, 1), "purged 0");
    QCOMPARE(run(QStringList{"export", "--until", "2000-01-01"} + where).size(), 0);
}

QTEST_GUILESS_MAIN(tst_collector)
#include "tst_collector.moc"
