// Attachments, the remote interface file and the installer download, end to end against the
// local collection service.
#include "net_support.h"

#include <information_api/http.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QtTest>

#include <cstdlib>
#include <ctime>
#include <set>

using namespace information_api;
using namespace test_support;
using collection::reply;

namespace {

QByteArray every_byte_value()
{
    QByteArray bytes;
    for (int round = 0; round < 3; ++round)
        for (int b = 0; b < 256; ++b)
            bytes.append(char(b));
    return bytes;
}

QByteArray read_file(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<absent>");
}

// Qt debug lines from any thread, to wait for the download's end when it reports nothing.
QStringList debug_lines;
QMutex debug_mutex;
void capture_debug(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&debug_mutex);
    debug_lines << text;
}
bool debug_seen(const QString& piece)
{
    QMutexLocker lock(&debug_mutex);
    return std::any_of(debug_lines.begin(), debug_lines.end(),
                       [&](const QString& l) { return l.contains(piece); });
}

}  // namespace

class tst_transfers : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void multipart_on_the_wire();
    void upload_file_outcome_data();
    void upload_file_outcome();
    void missing_file_sends_nothing();
    void fetch_request_on_the_wire();
    void fetch_outcome_data();
    void fetch_outcome();
    void download_data();
    void download();

private:
    QtMessageHandler previous_ = nullptr;
};

void tst_transfers::init()
{
    debug_lines.clear();
    previous_ = qInstallMessageHandler(capture_debug);
}

void tst_transfers::cleanup()
{
    qInstallMessageHandler(previous_);
}

void tst_transfers::multipart_on_the_wire()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    const QByteArray content = every_byte_value();
    write_file("attachments/sub dir/scan report.bin", content);

    // The fourth argument is ignored: two calls differing only there send the same request.
    upload_file(QString::fromStdString(service->base_url() + "/up"), "attachments/sub dir/scan report.bin",
                kAppId, "first", &sink, 1, 5000);
    upload_file(QString::fromStdString(service->base_url() + "/up"), "attachments/sub dir/scan report.bin",
                kAppId, "second", &sink, 2, 5000);
    QTRY_VERIFY(sink.count(1) == 1 && sink.count(2) == 1);

    const auto requests = service->received();
    QCOMPARE(requests.size(), std::size_t(2));
    for (const collection::received_request& request : requests) {
        QCOMPARE(request.method, std::string("POST"));
        QCOMPARE(request.target, std::string("/up?category=feedback&bucket=pub"));
        QCOMPARE(request.header_count("X-Auth-AppID"), 1);
        QCOMPARE(request.header("X-Auth-AppID"), std::string(kAppId));
        QVERIFY(QByteArray::fromStdString(request.header("Content-Type")).startsWith("multipart/form-data; boundary="));
        QCOMPARE(request.parts.size(), std::size_t(1));
        const collection::received_part& part = request.parts.front();
        QCOMPARE(part.name, std::string("file"));
        QCOMPARE(part.filename, std::string("scan report.bin"));
        QCOMPARE(part.content_type, std::string("application/octet-stream"));
        QCOMPARE(QByteArray::fromStdString(part.content), content);
    }

    // Fields come first, in key order, each cut at a NUL; only the first header is sent.
    http_connector connector(3, &sink, nullptr);
    const QString nul_value = QString("x") + QChar(0) + "y";
    QCOMPARE(connector.send_multipart_request("/up", "attachments/sub dir/scan report.bin",
                                              {{"size", "12"}, {"name", nul_value}},
                                              {{"X-B", "2"}, {"X-A", "1"}}, 5000,
                                              QString::fromStdString(service->base_url())),
             0);
    QTRY_COMPARE(sink.count(3), std::size_t(1));
    const collection::received_request fields = service->received().at(2);
    QVERIFY(fields.has_header("X-A") && !fields.has_header("X-B"));
    QCOMPARE(fields.parts.size(), std::size_t(3));
    QCOMPARE(fields.parts[0].name, std::string("name"));
    QCOMPARE(fields.parts[0].content, std::string("x"));
    QCOMPARE(fields.parts[1].name, std::string("size"));
    QCOMPARE(fields.parts[1].content, std::string("12"));
    QVERIFY(fields.parts[1].content_type.empty());
    QCOMPARE(fields.parts[2].name, std::string("file"));
}

void tst_transfers::upload_file_outcome_data()
{
    QTest::addColumn<reply>("answer");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<int>("ret");
    QTest::addColumn<QString>("result");
    QTest::addColumn<QString>("msg");

    QTest::newRow("stored") << reply() << true << 0 << "<dfs_id>" << "Unknown error";
    QTest::newRow("stored without an id") << json_reply(R"({"status":"success","result":{}})")
                                          << true << 0 << "" << "Unknown error";
    QTest::newRow("refused: the reason is not passed on")
        << json_reply(R"({"status":"failed","result":"too big"})") << false << 10 << ""
        << "Unknown error";
    QTest::newRow("not JSON") << json_reply("<html></html>") << false << 10 << "" << "Unknown error";
}

void tst_transfers::upload_file_outcome()
{
    QFETCH(reply, answer);
    QFETCH(bool, ok);
    QFETCH(int, ret);
    QFETCH(QString, result);
    QFETCH(QString, msg);
    recording_sink sink;
    library_session session;
    auto service = start_service();
    if (!answer.body.empty())
        service->answer_all(answer);
    write_file("feedback.log", "log");

    upload_file(QString::fromStdString(service->base_url() + "/up"), "feedback.log", kAppId, "", &sink, 4, 5000);
    QTRY_COMPARE(sink.count(4), std::size_t(1));
    const response_info_t info = sink.reports(4).front().info;
    QCOMPARE(info.ok, ok);
    QCOMPARE(info.ret, ret);
    QCOMPARE(info.net_error, ok ? 0 : -2);
    QCOMPARE(info.msg, msg);
    if (result == "<dfs_id>")
        QVERIFY(QRegularExpression("^[0-9a-f]{8,}$").match(info.result).hasMatch());
    else
        QCOMPARE(info.result, result);
}

void tst_transfers::missing_file_sends_nothing()
{
    recording_sink sink;
    library_session session;
    glog_capture log;
    auto service = start_service();
    QCOMPARE(upload_file(QString::fromStdString(service->base_url() + "/up"), "no/such/file.zip", kAppId, "", &sink, 5, 50), 0);
    QVERIFY(log.lines().contains("file open faied or not readable  !no/such/file.zip"));
    QVERIFY(log.lines().contains("send_multipart_request ret=-1"));
    QCOMPARE(g_conn_manager.count(5), std::size_t(1));
    // The request of another connection goes out and back, the missing file's never does.
    upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 6, 5000);
    QTRY_COMPARE(sink.count(6), std::size_t(1));
    QCOMPARE(service->received_count(), std::size_t(1));
    QCOMPARE(sink.count(5), std::size_t(0));
}

void tst_transfers::fetch_request_on_the_wire()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    write_file(QString::fromStdString(service->data_dir()) + "/software/scan/interface.json", R"({"v":1})");

    std::set<int> expected_t;  // the call seeds rand() with the second it runs in
    const time_t before = time(nullptr);
    get_url_json_file(QString::fromStdString(service->base_url()), "scan", &sink, 1, 5000);
    get_url_json_file(QString::fromStdString(service->base_url()), "scan", &sink, 2, 5000);
    for (time_t second = before; second <= time(nullptr); ++second) {
        srand(unsigned(second));
        expected_t.insert(rand() % 1000);
    }
    QTRY_VERIFY(sink.count(1) == 1 && sink.count(2) == 1);

    const auto requests = service->received();
    QCOMPARE(requests.size(), std::size_t(2));
    for (const collection::received_request& request : requests) {
        QCOMPARE(request.method, std::string("GET"));
        const QRegularExpressionMatch m = QRegularExpression("^/software/scan/interface\\.json\\?t=(0|[1-9][0-9]{0,2})$")
                                              .match(QString::fromStdString(request.target));
        QVERIFY2(m.hasMatch(), request.target.c_str());
        QVERIFY(expected_t.count(m.captured(1).toInt()));
        QCOMPARE(request.header("Cache-Control"), std::string("must-revalidate,max-age=0;no-store"));
        QVERIFY(!request.has_header("Content-Type"));
        QCOMPARE(request.body_size, std::uint64_t(0));
    }
    if (expected_t.size() == 1)  // both calls ran in the same second
        QCOMPARE(requests[0].target, requests[1].target);
}

void tst_transfers::fetch_outcome_data()
{
    QTest::addColumn<QByteArray>("document");  // "<absent>": no file on the service
    QTest::addColumn<bool>("ok");
    QTest::addColumn<int>("ret");
    QTest::addColumn<int>("net_error");

    QTest::newRow("object") << QByteArray(R"({"version":"2.1","notes":["a"]})") << true << 0 << 0;
    QTest::newRow("array with one number") << QByteArray("[1]") << true << 0 << 0;
    QTest::newRow("empty array") << QByteArray("[]") << false << 10 << -2;
    QTest::newRow("empty object") << QByteArray("{}") << false << 10 << -2;
    QTest::newRow("not JSON") << QByteArray("version=2") << false << 10 << -2;
    QTest::newRow("nested 100000 deep") << QByteArray(100000, '[') + QByteArray(100000, ']')
                                        << false << 10 << -2;
    QTest::newRow("missing file") << QByteArray("<absent>") << false << 7
                                  << int(QNetworkReply::ContentNotFoundError);
}

void tst_transfers::fetch_outcome()
{
    QFETCH(QByteArray, document);
    QFETCH(bool, ok);
    QFETCH(int, ret);
    QFETCH(int, net_error);
    recording_sink sink;
    library_session session;
    auto service = start_service();
    if (document != "<absent>")
        write_file(QString::fromStdString(service->data_dir()) + "/software/scan/interface.json", document);

    get_url_json_file(QString::fromStdString(service->base_url()), "scan", &sink, 8, 5000);
    QTRY_VERIFY(sink.count(8) >= 1);
    if (ret == 7)
        QTRY_VERIFY(sink.count(8) >= 2);  // the error signal, then the reply's end
    const response_info_t info = sink.reports(8).back().info;
    QCOMPARE(info.ok, ok);
    QCOMPARE(info.ret, ret);
    QCOMPARE(info.net_error, net_error);
    if (ok)
        QCOMPARE(info.content.value<QJsonDocument>(), QJsonDocument::fromJson(document));
    else
        QVERIFY(!info.content.isValid());
}

void tst_transfers::download_data()
{
    QTest::addColumn<QString>("target");       // relative to the working directory
    QTest::addColumn<QByteArray>("installer");  // "<absent>": 404
    QTest::addColumn<QByteArray>("stale_temp");
    QTest::addColumn<bool>("reset_midway");
    QTest::addColumn<QByteArray>("expected_target");
    QTest::addColumn<QByteArray>("expected_temp");
    QTest::addColumn<bool>("reported");

    const QByteArray big(3 << 20, 'i');
    const QByteArray absent("<absent>");
    QTest::newRow("installer") << "out/setup.exe" << big << QByteArray() << false << big << absent << true;
    QTest::newRow("stale temporary file is appended to")
        << "out/setup.pkg" << QByteArray("NEW") << QByteArray("OLD") << false
        << QByteArray("OLDNEW") << absent << true;
    QTest::newRow("zero-byte installer") << "out/app.dmg" << QByteArray("") << QByteArray() << false
                                         << absent << absent << true;
    QTest::newRow("target cannot be written") << "no-such-dir/app.exe" << big << QByteArray()
                                              << false << absent << absent << true;
    QTest::newRow("404: the error page stays in the temporary file")
        << "out/app.exe" << absent << QByteArray() << false << absent
        << QByteArray("<html><body><h1>404 Not Found</h1></body></html>") << false;
    QTest::newRow("connection refused") << "out/app.exe" << QByteArray("<refused>") << QByteArray()
                                        << false << absent << absent << false;
    QTest::newRow("server stops mid-transfer") << "out/app.exe" << big << QByteArray() << true
                                               << absent << QByteArray("<partial>") << false;
}

void tst_transfers::download()
{
    QFETCH(QString, target);
    QFETCH(QByteArray, installer);
    QFETCH(QByteArray, stale_temp);
    QFETCH(bool, reset_midway);
    QFETCH(QByteArray, expected_target);
    QFETCH(QByteArray, expected_temp);
    QFETCH(bool, reported);
    recording_sink sink;
    sink.then = [](int) { throw std::runtime_error("host bug"); };  // later reports still come
    library_session session;
    auto service = start_service();
    if (installer != "<absent>" && installer != "<refused>")
        write_file(QString::fromStdString(service->data_dir()) + "/files/installer.bin", installer);
    const QString url = QString::fromStdString(service->base_url() + "/files/installer.bin");
    if (installer == "<refused>")
        service->stop();
    if (reset_midway) {
        service->set_script([&](const collection::received_request&) -> std::optional<reply> {
            reply r = json_reply(installer.toStdString());
            r.content_type = "application/octet-stream";
            r.reset_midway = true;
            return r;
        });
    }
    const QString temp = target.left(target.size() - 4) + ".temp";
    if (!stale_temp.isEmpty())
        write_file(temp, stale_temp);
    if (!target.startsWith("no-such-dir"))
        write_file(target, "previous version");  // deleted before the download begins

    downLoadApp(1, &sink, url, target);
    QTRY_VERIFY_WITH_TIMEOUT(debug_seen("reply_->error()="), 20000);
    if (reported)
        QTRY_COMPARE_WITH_TIMEOUT(sink.finished().size(), std::size_t(1), 20000);  // after a 2 s settle
    else
        QCOMPARE(sink.finished().size(), std::size_t(0));
    if (reported)
        QCOMPARE(sink.finished().front(), std::make_tuple(true, 0, 0));

    QCOMPARE(read_file(target), expected_target);
    if (expected_temp == "<partial>")
        QVERIFY(read_file(temp).size() < installer.size() && read_file(temp).size() > 0);
    else
        QCOMPARE(read_file(temp), expected_temp);

    const auto progress = sink.progress();
    for (std::size_t i = 1; i < progress.size(); ++i)
        QVERIFY(progress[i].first >= progress[i - 1].first);
    if (reported && !installer.isEmpty())
        QCOMPARE(progress.back().first, progress.back().second);
}

QTEST_GUILESS_MAIN(tst_transfers)
#include "tst_transfers.moc"
