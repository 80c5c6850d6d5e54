// Opt-in server verification and download_verified, against local services whose certificates
// the tests make: a small authority with a server certificate for 127.0.0.1, and a self-signed
// forger for the same address.
#include "net_support.h"

#include <information_api/transport_security.h>

#include <QCryptographicHash>
#include <QtTest>

using namespace information_api;
using namespace test_support;
using collection::reply;

namespace {

enum class policy { none, authority, authority_and_pin, wrong_pin, system_store };
enum class server { genuine, forger, plain_http };
enum class request { record, file, fetch };

std::unique_ptr<collection::collection_service> service_for(server kind)
{
    collection::service_options options;
    options.tls = kind != server::plain_http;
    options.self_signed = kind == server::forger;
    auto service = start_service(options);
    QDir().mkpath(QString::fromStdString(service->data_dir()) + "/software/scan");
    QFile json(QString::fromStdString(service->data_dir()) + "/software/scan/interface.json");
    json.open(QIODevice::WriteOnly);
    json.write(R"({"version":"2"})");
    return service;
}

// Trusts the genuine service's authority, as set_trusted_certificates() and pins.
void apply(policy p, const collection::collection_service& genuine)
{
    const QString authority = QString::fromStdString(genuine.data_dir() + "/ca.pem");
    if (p == policy::system_store)
        QCOMPARE(set_trusted_certificates(""), 0);
    else if (p != policy::none)
        QCOMPARE(set_trusted_certificates(authority), 0);
    const QString pin = QString::fromStdString(genuine.public_key_pin());
    if (p == policy::authority_and_pin)
        QCOMPARE(set_pinned_public_keys({QString(QByteArray(32, 'x').toBase64()), pin}), 0);
    if (p == policy::wrong_pin)
        QCOMPARE(set_pinned_public_keys({QString(QByteArray(32, 'x').toBase64())}), 0);
}

QByteArray sha256_hex(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

}  // namespace

using outcome = std::tuple<bool, int, int>;  // on_download_finished's arguments
Q_DECLARE_METATYPE(outcome)
Q_DECLARE_METATYPE(policy)
Q_DECLARE_METATYPE(server)
Q_DECLARE_METATYPE(request)

class tst_transport_security : public QObject {
    Q_OBJECT
private slots:
    void cleanup() { clear_transport_security(); }
    void settings();
    void verification_data();
    void verification();
    void verified_download_data();
    void verified_download();
    void release_cancels_a_verified_download();
};

void tst_transport_security::settings()
{
    scoped_working_dir dir;
    QFile("no-certificate.pem").open(QIODevice::WriteOnly);
    QCOMPARE(set_trusted_certificates("missing.pem"), -1);
    QCOMPARE(set_trusted_certificates("no-certificate.pem"), -1);
    QCOMPARE(set_pinned_public_keys({"not base64!"}), -1);
    QCOMPARE(set_pinned_public_keys({QString(QByteArray(31, 'x').toBase64())}), -1);
    QCOMPARE(set_pinned_public_keys({}), 0);
    QCOMPARE(download_verified(1, nullptr, "https://127.0.0.1:1/x", "x.bin", "abc", 1000), -1);
    QCOMPARE(download_verified(1, nullptr, "https://127.0.0.1:1/x", "", QString(64, 'a'), 1000), -1);
    QVERIFY(g_conn_manager.empty());  // nothing was started
}

void tst_transport_security::verification_data()
{
    QTest::addColumn<policy>("settings");
    QTest::addColumn<server>("kind");
    QTest::addColumn<request>("what");
    QTest::addColumn<int>("ret");  // of the last report; the server received the request when 0
    QTest::addColumn<int>("net_error");
    QTest::addColumn<QString>("msg");  // contained in the last report's msg

    const int refused = QNetworkReply::SslHandshakeFailedError;
    QTest::newRow("default: the forger is accepted") << policy::none << server::forger << request::record << 0 << 0 << "";
    QTest::newRow("the right chain") << policy::authority << server::genuine << request::record << 0 << 0 << "";
    QTest::newRow("the right chain and pin") << policy::authority_and_pin << server::genuine << request::file << 0 << 0 << "";
    QTest::newRow("forger refused") << policy::authority << server::forger << request::record << 7 << refused << "self-signed";
    QTest::newRow("forger refused: interface fetch") << policy::authority << server::forger << request::fetch << 7 << refused << "self-signed";
    QTest::newRow("pinned out") << policy::wrong_pin << server::genuine << request::record << 7 << refused
                                << "public key pin mismatch";
    QTest::newRow("pinned out: file upload") << policy::wrong_pin << server::genuine << request::file << 7 << refused
                                             << "public key pin mismatch";
    QTest::newRow("plain http refused") << policy::authority << server::plain_http << request::record << 7
                                        << int(QNetworkReply::ProtocolInvalidOperationError) << "only https";
    QTest::newRow("the system store knows no local authority") << policy::system_store << server::genuine
                                                               << request::fetch << 7 << refused << "";
}

void tst_transport_security::verification()
{
    QFETCH(policy, settings);
    QFETCH(server, kind);
    QFETCH(request, what);
    QFETCH(int, ret);
    QFETCH(int, net_error);
    QFETCH(QString, msg);
    recording_sink sink;
    library_session session;
    const auto genuine = service_for(server::genuine);
    const auto target = kind == server::genuine ? nullptr : service_for(kind);
    const collection::collection_service& service = target ? *target : *genuine;
    apply(settings, *genuine);
    QFile("attachment.bin").open(QIODevice::WriteOnly);

    const QString base = QString::fromStdString(service.base_url());
    if (what == request::record)
        upload_information(base + "/dtta", "{}", kAppId, "usage", &sink, 1, 10000);
    else if (what == request::file)
        upload_file(base + "/up", "attachment.bin", kAppId, "", &sink, 1, 10000);
    else
        get_url_json_file(base, "scan", &sink, 1, 10000);
    // A failure's last report is the one with the reply's text.
    QTRY_VERIFY_WITH_TIMEOUT(sink.count(1) > 0 && (ret == 0 || !sink.reports(1).back().info.msg.isEmpty()), 20000);
    const response_info_t last = sink.reports(1).back().info;
    QCOMPARE(last.ret, ret);
    QCOMPARE(last.net_error, net_error);
    QVERIFY2(last.msg.contains(msg), qPrintable(last.msg));
    QCOMPARE(service.received_count(), std::size_t(ret == 0 ? 1 : 0));
}

void tst_transport_security::verified_download_data()
{
    QTest::addColumn<QByteArray>("served");  // "<redirect>": 302 to the same file over http
    QTest::addColumn<bool>("right_hash");
    QTest::addColumn<QString>("target");
    QTest::addColumn<outcome>("finished");

    const QByteArray installer(3 << 20, 'i');
    QTest::newRow("verified, a leftover ignored") << installer << true << "app.exe" << outcome(true, 0, 0);
    QTest::newRow("hash mismatch") << installer << false << "app.exe" << outcome(false, 9, 0);
    QTest::newRow("404") << QByteArray() << true << "app.exe"
                         << outcome(false, 7, int(QNetworkReply::ContentNotFoundError));
    QTest::newRow("folder cannot be written") << installer << true << "no-such-folder/app.exe"
                                              << outcome(false, 8, 0);
    QTest::newRow("silent server") << QByteArray("<silent>") << true << "app.exe" << outcome(false, 6, -1);
    QTest::newRow("redirect off https") << QByteArray("<redirect>") << true << "app.exe"
                                        << outcome(false, 7, int(QNetworkReply::InsecureRedirectError));
}

void tst_transport_security::verified_download()
{
    QFETCH(QByteArray, served);
    QFETCH(bool, right_hash);
    QFETCH(QString, target);
    QFETCH(outcome, finished);
    recording_sink sink;
    library_session session;
    const auto service = service_for(server::genuine);
    const QByteArray installer(3 << 20, 'i');
    const QString data = QString::fromStdString(service->data_dir());
    if (served == installer) {
        QDir().mkpath(data + "/files");
        QFile file(data + "/files/app.exe");
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(served) == served.size());
    }
    const auto plain = service_for(server::plain_http);
    const std::string insecure = plain->base_url() + "/files/app.exe";
    service->set_script([served, insecure](const collection::received_request&) -> std::optional<reply> {
        reply r;
        r.silent = served == "<silent>";
        r.status = 302;
        r.headers = {{"Location", insecure}};
        return served.startsWith('<') ? std::optional<reply>(r) : std::nullopt;
    });
    QFile previous("app.exe"), leftover("app.temp");
    QVERIFY(previous.open(QIODevice::WriteOnly) && previous.write("previous") && leftover.open(QIODevice::WriteOnly));
    previous.close();

    QCOMPARE(information_api::download_verified(3, &sink, QString::fromStdString(service->base_url()) + "/files/app.exe",
                                                target, right_hash ? sha256_hex(installer) : sha256_hex("other"), 500),
             0);
    QTRY_COMPARE_WITH_TIMEOUT(sink.finished().size(), std::size_t(1), 20000);
    QCOMPARE(sink.finished().front(), finished);
    // The temporary file is gone, the leftover of another download untouched.
    QCOMPARE(QDir().entryList(QDir::Files, QDir::Name), QStringList({"app.exe", "app.temp"}));
    QFile result("app.exe");
    QVERIFY(result.open(QIODevice::ReadOnly));
    QCOMPARE(result.readAll(), std::get<0>(finished) ? installer : QByteArray("previous"));
    QTest::qWait(100);  // exactly one end
    QCOMPARE(sink.finished().size(), std::size_t(1));
}

void tst_transport_security::release_cancels_a_verified_download()
{
    recording_sink sink;
    library_session session;
    const auto service = service_for(server::genuine);
    reply trickle;
    trickle.body = std::string(1 << 20, 'i');
    trickle.content_type = "application/octet-stream";
    trickle.chunk_size = 4096;
    trickle.chunk_pause = std::chrono::milliseconds(20);
    service->answer_all(trickle);
    information_api::download_verified(4, &sink, QString::fromStdString(service->base_url()) + "/x", "app.exe",
                                       QString(64, 'a'), 5000);
    QTRY_VERIFY(!sink.progress().empty());
    QCOMPARE(release_connect(4), 0);
    QTest::qWait(200);
    QVERIFY(sink.finished().empty());
    QVERIFY(QDir().entryList(QDir::Files | QDir::Hidden).isEmpty());  // no target, no temporary file
}

QTEST_GUILESS_MAIN(tst_transport_security)
#include "tst_transport_security.moc"
