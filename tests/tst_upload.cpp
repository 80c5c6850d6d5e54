// upload_information end to end against the local collection service: what goes on the wire and
// what the host's sink receives for every kind of answer and every transport failure.
#include "net_support.h"

#include <information_api/http.h>

#include <QtTest>

#include <string>

using namespace information_api;
using namespace test_support;
using collection::reply;

namespace {

enum class server { https, http, tls13_only, stopped };

std::string nested_array(int depth)
{
    return std::string(std::size_t(depth), '[') + std::string(std::size_t(depth), ']');
}

}  // namespace

Q_DECLARE_METATYPE(server)

class tst_upload : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QLoggingCategory::setFilterRules("default.debug=false"); }  // 10 MB bodies
    void request_on_the_wire_data();
    void request_on_the_wire();
    void outcome_data();
    void outcome();
    void null_sink_still_uploads();
    void same_id_twice();
    void works_without_init_on_an_event_loop_thread();
};

void tst_upload::request_on_the_wire_data()
{
    QTest::addColumn<QString>("body");
    QTest::addColumn<QString>("app_id");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("target");

    QTest::newRow("record") << QString::fromUtf8(R"({"seriaNum":"扫描仪-1","q":"a\"b=c;d,e"})")
                            << kAppId << "usage" << "/dtta?type=usage";
    QTest::newRow("empty app id and type") << "{}" << "" << "" << "/dtta?type=";
    QTest::newRow("space in type is escaped") << "{}" << kAppId << "scan mode"
                                              << "/dtta?type=scan%20mode";
}

void tst_upload::request_on_the_wire()
{
    QFETCH(QString, body);
    QFETCH(QString, app_id);
    QFETCH(QString, type);
    QFETCH(QString, target);
    recording_sink sink;
    library_session session;
    auto service = start_service();

    QCOMPARE(upload_information(record_url(*service), body, app_id, type, &sink, 1, 5000), 0);
    QTRY_COMPARE(sink.count(1), std::size_t(1));

    const auto requests = service->received();
    QCOMPARE(requests.size(), std::size_t(1));
    const collection::received_request& request = requests.front();
    QCOMPARE(request.method, std::string("POST"));
    QCOMPARE(QString::fromStdString(request.target), target);
    // The service's HTTP parser drops a header line with an empty value; that one is sent is
    // checked on a raw connection by the connector's test.
    QCOMPARE(request.header_count("X-Auth-AppID"), app_id.isEmpty() ? 0 : 1);
    QCOMPARE(QString::fromStdString(request.header("X-Auth-AppID")), app_id);
    QCOMPARE(request.header("Content-Type"), std::string("application/json;charset=utf-8"));
    QCOMPARE(QByteArray::fromStdString(request.body), body.toUtf8());
}

void tst_upload::outcome_data()
{
    QTest::addColumn<server>("kind");
    QTest::addColumn<reply>("answer");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<int>("ret");
    QTest::addColumn<int>("net_error");
    QTest::addColumn<QString>("msg");       // contained in the last report's msg
    QTest::addColumn<QString>("log_line");  // a glog line that must have been written

    const QString no_error = "Unknown error";
    const QString parse_failure = "error: json parse exception: ";
    QTest::newRow("accepted") << server::https << json_reply(R"({"status":"success"})") << true
                              << 0 << 0 << no_error << "upload_handler:   response= ";
    QTest::newRow("accepted over http") << server::http << json_reply(R"({"status":"success"})")
                                        << true << 0 << 0 << no_error << "";
    QTest::newRow("refused with a reason")
        << server::https << json_reply(R"({"status":"failed","result":"配额已满"})") << false
        << 10 << -2 << QString::fromUtf8("配额已满") << "error: failed response Unknown error";
    QTest::newRow("refused without a reason") << server::https
                                              << json_reply(R"({"status":"failed"})") << false
                                              << 10 << -2 << no_error << "";
    QTest::newRow("status spelled Success") << server::https
                                            << json_reply(R"({"status":"Success"})") << false
                                            << 10 << -2 << no_error << "";
    QTest::newRow("no status") << server::https << json_reply(R"({"result":"why"})") << false
                               << 10 << -2 << "why" << "";
    QTest::newRow("not JSON") << server::https << json_reply("hello") << false << 10 << -2
                              << no_error << parse_failure + "hello";
    QTest::newRow("empty body") << server::https << json_reply("") << false << 10 << -2
                                << no_error << parse_failure;
    QTest::newRow("10 MB body")
        << server::https
        << json_reply(R"({"status":"success","result":")" + std::string(10u << 20, 'x') + "\"}")
        << true << 0 << 0 << no_error << "";
    QTest::newRow("nested 100000 deep")
        << server::https << json_reply(R"({"status":"success","x":)" + nested_array(100000) + "}")
        << false << 10 << -2 << no_error << parse_failure + R"({"status":"success","x":[[[)";
    QTest::newRow("nested 400 deep is fine")
        << server::https << json_reply(R"({"status":"success","x":)" + nested_array(400) + "}")
        << true << 0 << 0 << no_error << "";

    reply html = json_reply("<html><body><h1>500 Internal Server Error</h1></body></html>", 500);
    html.content_type = "text/html";
    QTest::newRow("HTML error page") << server::https << html << false << 7
                                     << int(QNetworkReply::InternalServerError)
                                     << "Internal Server Error" << "";
    reply reset = json_reply(R"({"status":"success","result":")" + std::string(100000, 'r') + "\"}");
    reset.reset_midway = true;
    QTest::newRow("reset mid-answer") << server::https << reset << false << 7
                                      << int(QNetworkReply::RemoteHostClosedError) << "closed"
                                      << "";
    QTest::newRow("connection refused") << server::stopped << reply() << false << 7
                                        << int(QNetworkReply::ConnectionRefusedError)
                                        << "refused" << "";
    QTest::newRow("TLS handshake failure") << server::tls13_only << reply() << false << 7
                                           << int(QNetworkReply::SslHandshakeFailedError) << ""
                                           << "";
}

void tst_upload::outcome()
{
    QFETCH(server, kind);
    QFETCH(reply, answer);
    QFETCH(bool, ok);
    QFETCH(int, ret);
    QFETCH(int, net_error);
    QFETCH(QString, msg);
    QFETCH(QString, log_line);
    recording_sink sink;
    sink.then = [](int) { throw std::runtime_error("host bug"); };  // later reports still come
    library_session session;
    glog_capture log;
    collection::service_options options;
    options.tls = kind != server::http;
    options.tls13_only = kind == server::tls13_only;
    auto service = start_service(options);
    service->answer_all(answer);
    const QString url = record_url(*service);
    if (kind == server::stopped)
        service->stop();

    upload_information(url, "{}", kAppId, "usage", &sink, 7, 10000);
    if (ok || ret == 10) {
        QTRY_COMPARE_WITH_TIMEOUT(sink.count(7), std::size_t(1), 20000);
    } else {
        // A transport failure is reported by the error signal and again when the reply ends.
        QTRY_VERIFY_WITH_TIMEOUT(sink.count(7) >= 2, 20000);
        QCOMPARE(sink.reports(7).front().info.msg, QString());
    }
    QTRY_VERIFY(service->received_count() > 0 || kind == server::stopped ||
                kind == server::tls13_only);

    const response_info_t last = sink.reports(7).back().info;
    QCOMPARE(last.ok, ok);
    QCOMPARE(last.ret, ret);
    QCOMPARE(last.net_error, net_error);
    QVERIFY2(last.msg.contains(msg), qPrintable(last.msg));
    QVERIFY(last.result.isEmpty());
    QVERIFY(!last.content.isValid());
    for (const report& r : sink.reports(7))
        QCOMPARE(r.thread, static_cast<QThread*>(g_api_thread));
    if (!log_line.isEmpty()) {
        const QStringList lines = log.lines();
        QVERIFY2(std::any_of(lines.begin(), lines.end(),
                             [&](const QString& l) { return l.startsWith(log_line); }),
                 qPrintable(lines.join('\n').left(2000)));
    }
}

void tst_upload::null_sink_still_uploads()
{
    library_session session;
    auto service = start_service();
    QCOMPARE(upload_information(record_url(*service), "{}", kAppId, "score", nullptr, 3, 5000), 0);
    QVERIFY(service->wait_for_requests(1, std::chrono::seconds(10)));
    QCOMPARE(release_connect(3), 0);
}

void tst_upload::same_id_twice()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    upload_information(record_url(*service), "{}", kAppId, "a", &sink, 5, 5000);
    http_connector* first = g_conn_manager.at(5);
    upload_information(record_url(*service), "{}", kAppId, "b", &sink, 5, 5000);
    QCOMPARE(g_conn_manager.size(), std::size_t(1));
    QVERIFY(g_conn_manager.at(5) != first);
    QTRY_COMPARE(sink.count(5), std::size_t(2));  // both keep reporting under the one id
    first->deleteLater();  // the registry dropped it; only its creator can end it now
}

void tst_upload::works_without_init_on_an_event_loop_thread()
{
    scoped_working_dir dir;
    auto service = start_service();
    recording_sink sink;
    QVERIFY(g_api_thread == nullptr);
    QCOMPARE(upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 9, 5000), 0);
    QTRY_COMPARE(sink.count(9), std::size_t(1));
    QCOMPARE(sink.reports(9).front().thread, QThread::currentThread());
    QVERIFY(sink.reports(9).front().info.ok);
    QCOMPARE(release_connect(9), 0);
}

QTEST_GUILESS_MAIN(tst_upload)
#include "tst_upload.moc"
