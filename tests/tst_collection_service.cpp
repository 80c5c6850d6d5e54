// The local collection service against hostile clients: nothing a request says becomes a path,
// bodies are bounded and answered honestly, its key stays private, slow clients starve nobody.
#include "test_support.h"
#include "tools/collector/data_folder.h"

#include <tools/collector/store.h>

#include <QSslSocket>

#include <sys/socket.h>

using namespace test_support;

// Sends `request` on a fresh connection, half-closes it (a short body ends there), returns the answer.
// No step waits longer than the service's request deadline (3 s) could keep a starved request waiting.
static QByteArray exchange(int port, bool tls, const QByteArray& request)
{
    QSslSocket socket;
    socket.setPeerVerifyMode(QSslSocket::VerifyNone);
    tls ? socket.connectToHostEncrypted("127.0.0.1", quint16(port)) : socket.connectToHost("127.0.0.1", quint16(port));
    tls ? socket.waitForEncrypted(2000) : socket.waitForConnected(2000);
    socket.write(request);
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(2000)) {
    }
    ::shutdown(int(socket.socketDescriptor()), SHUT_WR);
    while (socket.waitForReadyRead(2000)) {
    }
    return socket.readAll();
}

static QByteArray post(const QByteArray& target, const QByteArray& body, const QByteArray& headers = {})
{
    return "POST " + target + " HTTP/1.1\r\nX-Auth-AppID: " + kAppId + "\r\n" + headers +
           "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

class tst_collection_service : public QObject {
    Q_OBJECT
private slots:
    void request_data();
    void request();
};

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_collection_service::request_data()
{
    QTest::addColumn<bool>("tls");
    QTest::addColumn<QByteArray>("slow");  // what each of 200 slow clients sends first, then a byte each half second
    QTest::addColumn<QByteArray>("request");
    // Status, the status the service logged, the files under the data folder but its store (it held
    // a half-written upload), the kinds of the records it kept.
    QTest::addColumn<QString>("expected");
    const QByteArray big = '{' + QByteArray(4 << 20, ' ') + '}';  // still on its way when refused
    QTest::newRow("type climbing out, over https, slow clients in the handshake")  // a TLS record of 512 bytes
        << true << QByteArray("\x16\x03\x01\x02\x00", 5) << post("/dtta?type=../../../../a/b\\c", "{}")
        << "200 200 ca.pem cert.pem key.pem kept ../../../../a/b\\c";
    QTest::newRow("a served file, slow clients in the head") << false << QByteArray("POST /dtta HTTP/1.1\r\nX-")
        << QByteArray("GET /files/setup.bin HTTP/1.1\r\n\r\n") << "200 200 kept";
    QTest::newRow("file name with folders") << false << QByteArray()
        << post("/up", "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"..\\..\\scan 1.zip\"\r\n\r\n"
                       "PK\r\n--b--\r\n", "Content-Type: multipart/form-data; boundary=b\r\n")
        << "200 200 files/uploads/<sha256> kept";
    QTest::newRow("body over the limit") << false << QByteArray()
        << "POST /dtta?type=big HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n400002\r\n" + big + "\r\n0\r\n\r\n"
        << "413 413 kept";
    QTest::newRow("body shorter than announced") << false << QByteArray()
        << QByteArray("POST /dtta HTTP/1.1\r\nContent-Length: 9\r\n\r\n{}") << "400 400 kept";
}
// clang-format on

void tst_collection_service::request()
{
    QFETCH(bool, tls);
    QFETCH(QByteArray, slow);
    QFETCH(QByteArray, request);
    QFETCH(QString, expected);
    QTemporaryDir dir;  // the data folder is a level below, so that a file climbing out shows too
    const QString data = dir.path() + "/data";
    for (const char* earlier : {"/incoming/half-written", "/files/setup.bin"})
        write_file(data + earlier, "{}");
    collection::service_options options;
    options.tls = tls;
    options.data_dir = data.toStdString();
    options.store_received = true;
    options.max_body_size = 1024;
    options.request_deadline = std::chrono::seconds(3);
    std::atomic<int> logged{0};
    options.on_answer = [&logged](const collection::received_request&, int status) { logged = status; };
    const auto service = start_service(options);
    std::vector<QTcpSocket> clients(slow.isEmpty() ? 0 : 200);
    for (QTcpSocket& s : clients) {
        s.connectToHost("127.0.0.1", quint16(service->port()));
        s.write(slow);
    }
    QTimer trickle;  // no single read waits long
    connect(&trickle, &QTimer::timeout, [&] {
        for (QTcpSocket& s : clients)
            s.write("x");
    });
    trickle.start(500);
    const auto connected = [&] {
        return int(std::count_if(clients.begin(), clients.end(),
            [](const QTcpSocket& s) { return s.state() == QAbstractSocket::ConnectedState; }));
    };
    QTRY_COMPARE(connected(), int(clients.size()));

    // Slow clients starve nobody: a request starved of a thread would go unanswered until exchange() gives up.
    const QByteArray answer = exchange(service->port(), tls, request);
    QStringList outcome{answer.mid(9, 3), QString::number(logged)}, files;
    using namespace collector::data_folder;
    for (QDirIterator it(dir.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        if (const QString path = it.next(); !path.contains(kRecords) && !path.endsWith("/setup.bin"))
            files << QDir(data).relativeFilePath(path).replace(QRegularExpression("\\w\\w/\\w{64}$"), "<sha256>");
    files.sort();
    files << "kept";
    collector::open_store(default_database(data.toStdString()))->list({}, 0, 0, [&](const auto& r) {
        files << QString::fromStdString(r.kind);
        return true;
    });
    QCOMPARE((outcome + files).join(' '), expected);
    if (tls)  // the key it made for itself is its owner's only
        QCOMPARE(QFile::permissions(data + "/key.pem"),
            QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
    QTRY_COMPARE_WITH_TIMEOUT(connected(), 0, 10000);  // the deadline cut them off although they kept sending
}

QTEST_GUILESS_MAIN(tst_collection_service)
#include "tst_collection_service.moc"
