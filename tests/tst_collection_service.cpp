// The local collection service against hostile clients: nothing a request says becomes a path,
// bodies are bounded and answered honestly, its key stays private, slow clients starve nobody.
#include "net_support.h"

#include <QSslSocket>

#include <sys/socket.h>
#include <sys/stat.h>

using namespace test_support;

// Sends `request` on a fresh connection, half-closes it (a short body ends there), returns the answer.
static QByteArray exchange(int port, bool tls, const QByteArray& request)
{
    QSslSocket socket;
    socket.setPeerVerifyMode(QSslSocket::VerifyNone);
    tls ? socket.connectToHostEncrypted("127.0.0.1", quint16(port)) : socket.connectToHost("127.0.0.1", quint16(port));
    tls ? socket.waitForEncrypted(5000) : socket.waitForConnected(5000);
    socket.write(request);
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(5000)) {}
    ::shutdown(int(socket.socketDescriptor()), SHUT_WR);
    while (socket.waitForReadyRead(5000)) {}
    return socket.readAll();
}

static QByteArray post(const QByteArray& target, const QByteArray& body, const QByteArray& headers = {})
{
    return "POST " + target + " HTTP/1.1\r\nX-Auth-AppID: " + kAppId + "\r\n" + headers + "Content-Length: " +
           QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

class tst_collection_service : public QObject {
    Q_OBJECT
private slots:
    void hostile_request_data();
    void hostile_request();
    void key_is_private();
    void slow_clients_data();
    void slow_clients();
};

void tst_collection_service::hostile_request_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QString>("expected");  // status, answer's "status", files under the data folder
    const QByteArray big = '{' + QByteArray(4 << 20, ' ') + '}';  // still on its way when refused
    QTest::newRow("type climbing out") << post("/dtta?type=../../../../x", "{}") << "200 success received/1-x.json";
    QTest::newRow("type with slashes") << post("/dtta?type=a/b\\c", "{}") << "200 success received/1-abc.json";
    QTest::newRow("type empty once reduced") << post("/dtta?type=/..", "{}") << "200 success received/1-untyped.json";
    QTest::newRow("file name with folders")
        << post("/up",
                "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"..\\..\\scan 1.zip\"\r\n\r\nPK\r\n--b--\r\n",
                "Content-Type: multipart/form-data; boundary=b\r\n")
        << "200 success uploads/<id>-scan1.zip";
    QTest::newRow("body over the limit") << post("/dtta?type=big", big) << "413 failed";
    QTest::newRow("chunked body over the limit")
        << "POST /dtta?type=big HTTP/1.1\r\nX-Auth-AppID: " + QByteArray(kAppId) +
               "\r\nTransfer-Encoding: chunked\r\n\r\n400002\r\n" + big + "\r\n0\r\n\r\n"
        << "413 failed";
    QTest::newRow("body shorter than announced")
        << post("/dtta?type=short", "{}").replace("Content-Length: 2", "Content-Length: 200") << "400 failed";
}

void tst_collection_service::hostile_request()
{
    QFETCH(QByteArray, request);
    QFETCH(QString, expected);
    QTemporaryDir dir;  // the data folder is a level below, so that a file climbing out shows too
    const QString data = dir.path() + "/data";
    collection::service_options options;
    options.tls = false;
    options.data_dir = data.toStdString();
    options.store_received = true;
    options.max_body_size = 1024;
    const auto service = start_service(options);

    const QByteArray answer = exchange(service->port(), false, request);
    const QJsonObject body = QJsonDocument::fromJson(answer.mid(answer.indexOf("\r\n\r\n") + 4)).object();
    QStringList outcome{answer.mid(9, 3), body["status"].toString()};
    for (QDirIterator it(dir.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        outcome << QDir(data).relativeFilePath(it.next()).replace(QRegularExpression("^uploads/\\w{24}-"), "uploads/<id>-");
    QCOMPARE(outcome.join(' '), expected);
}

void tst_collection_service::key_is_private()
{
    const auto service = start_service();
    struct stat key;
    QCOMPARE(::stat((service->data_dir() + "/key.pem").c_str(), &key), 0);
    QCOMPARE(key.st_mode & 0777, mode_t(0600));
}

void tst_collection_service::slow_clients_data()
{
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QByteArray>("opening");  // what each slow client sends before trickling
    QTest::newRow("http, in the head") << false << QByteArray("POST /dtta HTTP/1.1\r\nX-");
    QTest::newRow("https, in the handshake") << true << QByteArray("\x16\x03\x01\x02\x00", 5);  // record of 512 bytes
}

void tst_collection_service::slow_clients()
{
    QFETCH(bool, tls);
    QFETCH(QByteArray, opening);
    collection::service_options options;
    options.tls = tls;
    options.request_deadline = std::chrono::seconds(3);
    const auto service = start_service(options);
    std::array<QTcpSocket, 200> slow;
    for (QTcpSocket& s : slow) {
        s.connectToHost("127.0.0.1", quint16(service->port()));
        s.write(opening);
    }
    QTimer trickle;  // a byte each half second: no single read waits long
    connect(&trickle, &QTimer::timeout, [&] { for (QTcpSocket& s : slow) s.write("x"); });
    trickle.start(500);
    const auto connected = [&] { return int(std::count_if(slow.begin(), slow.end(), [](const QTcpSocket& s) {
        return s.state() == QAbstractSocket::ConnectedState; })); };
    QTRY_COMPARE(connected(), 200);

    QElapsedTimer answered;
    answered.start();
    QVERIFY(exchange(service->port(), tls, "GET /nothing HTTP/1.1\r\n\r\n").startsWith("HTTP/1.1 404"));
#if defined(__SANITIZE_THREAD__)
    const qint64 bound = 10000;  // ThreadSanitizer slows every thread of both sides tenfold
#else
    const qint64 bound = 1000;
#endif
    QVERIFY2(answered.elapsed() < bound, qPrintable(QString::number(answered.elapsed())));
    QTRY_COMPARE_WITH_TIMEOUT(connected(), 0, 10000);  // the deadline cut them off although they kept sending
}

QTEST_GUILESS_MAIN(tst_collection_service)
#include "tst_collection_service.moc"
