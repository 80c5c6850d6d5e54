// The connector and the library's lifecycle: URL and TLS rules, the repeating time-out, the
// worker thread hand-over, the registry, and shutdown with requests in flight.
#include "net_support.h"

#include <information_api/http.h>
#include <information_api/json_handler.h>

#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

#include <array>
#include <atomic>
#include <optional>
#include <thread>

using namespace information_api;
using namespace test_support;

Q_DECLARE_METATYPE(std::string)
using query_map = std::map<std::string, std::string>;
Q_DECLARE_METATYPE(query_map)

namespace {

collection::reply silence()
{
    collection::reply r;
    r.silent = true;
    return r;
}

QStringList captured_warnings;
QMutex captured_mutex;
void capture_warning(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    QMutexLocker lock(&captured_mutex);
    if (type == QtWarningMsg)
        captured_warnings << text;
}

}  // namespace

class tst_http_connector : public QObject {
    Q_OBJECT
private slots:
    void init_returns_with_the_network_stack_warm();  // first: nothing may have warmed it before
    void meta_object_table();
    void url_rule_data();
    void url_rule();
    void tls_configuration_data();
    void tls_configuration();
    void download_temporary_name_data();
    void download_temporary_name();
    void timeout_repeats_until_released();
    void timeout_works_from_a_thread_qt_did_not_start();
    void no_timeout_after_the_end_data();
    void no_timeout_after_the_end();
    void registry();
    void calls_from_inside_a_report();
    void thousand_in_flight();
    void release_frees_the_connector();
};

void tst_http_connector::init_returns_with_the_network_stack_warm()
{
    // Qt registers its network types with the first network access manager of a process. The
    // worker does that as it starts, and information_init() waits for it: the host's first
    // request neither pays for it nor races the worker over the registrations.
    QCOMPARE(QMetaType::type("QPair<QByteArray,QByteArray>"), int(QMetaType::UnknownType));
    library_session session;
    QVERIFY(QMetaType::type("QPair<QByteArray,QByteArray>") != QMetaType::UnknownType);
}

void tst_http_connector::meta_object_table()
{
    // Hosts and queued connections address these by index.
    const char* const expected[] = {
        "finished()",
        "replyFinished(QNetworkReply*)",
        "replyDownload(QNetworkReply*)",
        "timeout_event()",
        "http_ready_read()",
        "update_data_read_progress(qlonglong,qlonglong)",
        "update_data_write_progress(qlonglong,qlonglong)",
        "error(QNetworkReply::NetworkError)",
        "sslErrors(QList<QSslError>)",
        "slot_onDownLoadFileReadyRead()",
        "slot_onDownLoadFileError(QNetworkReply::NetworkError)",
        "slot_onDownLoadFileSSLError(QList<QSslError>)",
        "slot_onDownLoadFileDownloadProgress(qlonglong,qlonglong)",
        "slot_onDownLoadFileFinished()",
    };
    const QMetaObject& meta = http_connector::staticMetaObject;
    QCOMPARE(meta.methodCount() - meta.methodOffset(), int(std::size(expected)));
    for (int i = 0; i < int(std::size(expected)); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        QCOMPARE(method.methodSignature(), QByteArray(expected[i]));
        QCOMPARE(method.methodType(), i == 0 ? QMetaMethod::Signal : QMetaMethod::Slot);
    }
    QCOMPARE(api_thread::staticMetaObject.methodCount(), QThread::staticMetaObject.methodCount());
}

void tst_http_connector::url_rule_data()
{
    QTest::addColumn<std::string>("path");
    QTest::addColumn<std::string>("sub_path");
    QTest::addColumn<query_map>("query");
    QTest::addColumn<QString>("target");

    QTest::newRow("no query") << std::string("/dtta") << std::string() << query_map{} << "/dtta";
    QTest::newRow("one parameter") << std::string("/dtta") << std::string()
                                   << query_map{{"k", "v"}} << "/dtta?k=v";
    QTest::newRow("every parameter after ?") << std::string("/dtta") << std::string()
                                             << query_map{{"b", "2"}, {"a", "1"}}
                                             << "/dtta?a=1?b=2";
    QTest::newRow("sub path") << std::string("/api") << std::string("records")
                              << query_map{{"type", "scan"}} << "/api/records?type=scan";
}

void tst_http_connector::url_rule()
{
    QFETCH(std::string, path);
    QFETCH(std::string, sub_path);
    QFETCH(query_map, query);
    QFETCH(QString, target);
    // A raw listener: the request line as sent, which an HTTP server library would reject or
    // normalise (a second '?', a header with an empty value).
    QTcpServer listener;
    QVERIFY(listener.listen(QHostAddress::LocalHost));
    QByteArray raw;
    connect(&listener, &QTcpServer::newConnection, [&] {
        QTcpSocket* socket = listener.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, [&raw, socket] { raw += socket->readAll(); });
    });
    http_connector connector(1, nullptr, nullptr);  // stays on this thread, served by QTRY's loop

    connector.send_request(path, "{}", query, 5000, sub_path, false,
                           {{"X-Auth-AppID", ""}, {"X-B", "2"}},
                           "http://127.0.0.1:" + std::to_string(listener.serverPort()));
    QTRY_VERIFY(raw.contains("\r\n\r\n{}"));
    QCOMPARE(raw.left(raw.indexOf("\r\n")), "POST " + target.toLatin1() + " HTTP/1.1");
    QVERIFY(raw.contains("\r\nX-Auth-AppID: \r\n"));
    QVERIFY(raw.contains("\r\nX-B: 2\r\n"));
    QVERIFY(raw.contains("\r\nContent-Type: application/json;charset=utf-8\r\n"));
}

void tst_http_connector::tls_configuration_data()
{
    QTest::addColumn<QString>("base_url");
    QTest::addColumn<bool>("pinned");
    QTest::newRow("https") << "https://127.0.0.1:1" << true;
    QTest::newRow("HTTPS") << "HTTPS://127.0.0.1:1" << true;
    QTest::newRow("hTtPs") << "hTtPs://127.0.0.1:1" << true;
    QTest::newRow("http") << "http://127.0.0.1:1" << false;
}

void tst_http_connector::tls_configuration()
{
    QFETCH(QString, base_url);
    QFETCH(bool, pinned);
    http_connector connector(1, nullptr, nullptr);
    connector.send_request("", "{}", {}, 5000, "", false, {}, base_url.toStdString());
    const QSslConfiguration config = connector.request_.sslConfiguration();
    QCOMPARE(config.protocol() == QSsl::TlsV1_2, pinned);
    QCOMPARE(config.peerVerifyMode() == QSslSocket::VerifyNone, pinned);
}

void tst_http_connector::download_temporary_name_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("temporary");
    QTest::newRow("exe") << "C:/x/app.exe" << "C:/x/app.temp";
    QTest::newRow("dmg") << "/tmp/app.dmg" << "/tmp/app.temp";
    QTest::newRow("any four characters") << "setup.pkg" << "setup.temp";
    QTest::newRow("shorter than the suffix") << "a.b" << ".temp";
}

void tst_http_connector::download_temporary_name()
{
    QFETCH(QString, target);
    QFETCH(QString, temporary);
    http_connector connector(1, nullptr, nullptr);
    connector.file_path_ = target;
    QCOMPARE(connector.download_temp_path(), temporary);
}

void tst_http_connector::timeout_repeats_until_released()
{
    recording_sink sink;
    library_session session;
    glog_capture log;
    auto service = start_service();
    service->answer_all(silence());
    const int timeout_ms = 100;

    sink.then = [](int) { throw std::runtime_error("host bug"); };  // the reports go on regardless
    upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 2, timeout_ms);
    QPointer<http_connector> connector = g_conn_manager.at(2);
    std::atomic<std::size_t> reports_at_destruction{0};
    connect(connector, &QObject::destroyed, [&] { reports_at_destruction = sink.count(2); });
    QTRY_VERIFY(sink.count(2) >= 3);

    const auto reports = sink.reports(2);
    for (std::size_t i = 0; i < reports.size(); ++i) {
        QCOMPARE(reports[i].info.ok, false);
        QCOMPARE(reports[i].info.ret, 6);
        QCOMPARE(reports[i].info.net_error, -1);
        QCOMPARE(reports[i].info.msg, QString("timeout"));
        if (i > 0)  // repeats every interval, not faster
            QVERIFY(reports[i].at - reports[i - 1].at >= std::chrono::milliseconds(timeout_ms * 8 / 10));
    }
    QVERIFY(log.lines().contains("net connect time out"));
    QVERIFY(log.lines().contains("the sink of connection 2 threw: host bug"));
    QTRY_COMPARE(service->received_count(), std::size_t(1));  // the request is left running

    QCOMPARE(release_connect(2), 0);
    QTRY_VERIFY(connector.isNull());
    QCOMPARE(sink.count(2), reports_at_destruction.load());
}

void tst_http_connector::timeout_works_from_a_thread_qt_did_not_start()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    service->answer_all(silence());
    captured_warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler(capture_warning);
    std::thread host([&] { upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 3, 50); });
    host.join();
    qInstallMessageHandler(previous);

    QTRY_VERIFY(sink.count(3) >= 2);
    QCOMPARE(sink.reports(3).back().info.ret, 6);
    QVERIFY2(captured_warnings.isEmpty(), qPrintable(captured_warnings.join('\n')));
}

void tst_http_connector::no_timeout_after_the_end_data()
{
    QTest::addColumn<int>("request");  // record upload, file upload, interface fetch
    QTest::addColumn<bool>("initialised");
    for (bool initialised : {false, true})
        for (int request : {0, 1, 2})
            QTest::addRow("%s, %s", std::array{"upload", "file", "fetch"}[request],
                          initialised ? "worker" : "caller's thread")
                << request << initialised;
}

void tst_http_connector::no_timeout_after_the_end()
{
    QFETCH(int, request);
    QFETCH(bool, initialised);
    recording_sink sink;
    std::optional<library_session> session;
    std::optional<scoped_working_dir> dir;
    if (initialised)
        session.emplace();
    else
        dir.emplace();
    QFile("file.bin").open(QIODevice::WriteOnly);
    const QString url = "unknown://127.0.0.1:1";  // fails at once, before any time-out
    if (request == 0)
        upload_information(url, "{}", kAppId, "usage", &sink, 1, 50);
    else if (request == 1)
        upload_file(url, "file.bin", kAppId, "", &sink, 1, 50);
    else
        get_url_json_file(url, "scan", &sink, 1, 50);
    QTRY_VERIFY(sink.count(1) > 0);
    QTest::qWait(300);  // six time-outs long
    for (const report& r : sink.reports(1))
        QCOMPARE(r.info.ret, 7);
    release_connect(1);
}

void tst_http_connector::registry()
{
    scoped_working_dir dir;
    QCOMPARE(information_clean(), 0);  // without init: nothing to do
    QCOMPARE(release_connect(0), -1);  // empty registry

    VeltraInfoMgr* manager = information_init();
    QVERIFY(manager);
    QCOMPARE(information_init(), manager);
    QVERIFY(g_api_thread && g_api_thread->isRunning());
    for (int id : {-5, 0, 8})
        upload_information("https://127.0.0.1:1", "{}", kAppId, "t", nullptr, id, 5000);
    QCOMPARE(g_conn_manager.size(), std::size_t(3));
    QCOMPARE(release_connect(1), -1);
    QCOMPARE(release_connect(-5), 0);
    QCOMPARE(release_connect(-5), -1);
    QCOMPARE(release_connect(0), 0);

    QThread* worker = g_api_thread;
    QCOMPARE(information_clean(), 0);
    QVERIFY(worker->isFinished());
    QVERIFY(g_conn_manager.empty() && !g_api_thread && !g_information);
    QVERIFY(information_init());  // the library can start again
    QCOMPARE(information_clean(), 0);
}

void tst_http_connector::calls_from_inside_a_report()
{
    recording_sink sink;
    scoped_working_dir dir;
    information_init();
    auto service = start_service();
    // A host ends each connection from its own report while its thread opens more.
    std::atomic<int> released{0};
    sink.then = [&](int id) { released += release_connect(id) == 0; };
    int opened = 0;
    while (released < 50 && opened < 500)
        upload_information(record_url(*service), "{}", kAppId, "usage", &sink, opened++, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(released.load(), opened, 60000);

    // ... or ends the library from a report (the first of the last request's two, a refusal): no
    // report follows, not even that request's second, and the library can start again.
    auto gone = start_service();
    const QString refused = record_url(*gone);
    gone->stop();
    std::atomic<std::size_t> after_clean{0};
    sink.then = [&](int id) {
        if (id == 3019 && after_clean == 0) {
            information_clean();
            after_clean = sink.total();
        }
    };
    captured_warnings.clear();
    const QtMessageHandler previous = qInstallMessageHandler(capture_warning);
    for (int id = 3000; id < 3020; ++id)
        upload_information(refused, "{}", kAppId, "usage", &sink, id, 5000);
    QTRY_VERIFY(after_clean > 0);
    QTest::qWait(200);
    qInstallMessageHandler(previous);
    QCOMPARE(sink.total(), after_clean.load());
    QCOMPARE(sink.count(3019), std::size_t(1));
    QVERIFY2(captured_warnings.isEmpty(), qPrintable(captured_warnings.join('\n')));
    QVERIFY(!g_api_thread && !g_information && g_conn_manager.empty());
    sink.then = nullptr;
    QVERIFY(information_init());
    upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 4000, 5000);
    QTRY_VERIFY(sink.count(4000) == 1 && sink.reports(4000).front().info.ok);
    information_clean();
}

void tst_http_connector::thousand_in_flight()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    const int count = 1000;
    for (int id = 0; id < count; ++id)
        upload_information(record_url(*service), "{}", kAppId, "usage", &sink, id, 60000);
    QCOMPARE(g_conn_manager.size(), std::size_t(count));
    QTRY_COMPARE_WITH_TIMEOUT(sink.total(), std::size_t(count), 120000);
    for (int id = 0; id < count; ++id) {
        QCOMPARE(sink.count(id), std::size_t(1));
        QVERIFY(sink.reports(id).front().info.ok);
    }
}

void tst_http_connector::release_frees_the_connector()
{
    recording_sink sink;
    library_session session;
    auto service = start_service();
    for (int cycle = 0; cycle < 100; ++cycle) {
        upload_information(record_url(*service), "{}", kAppId, "usage", &sink, cycle, 5000);
        QPointer<http_connector> connector = g_conn_manager.at(cycle);
        QTRY_COMPARE(sink.count(cycle), std::size_t(1));
        QCOMPARE(release_connect(cycle), 0);
        QTRY_VERIFY(connector.isNull());
    }
    QVERIFY(g_conn_manager.empty());
}

QTEST_GUILESS_MAIN(tst_http_connector)
#include "tst_http_connector.moc"
