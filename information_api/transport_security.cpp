#include "information_api/transport_security.h"

#include "information_api/http.h"
#include "information_api/json_handler.h"

#include <QFile>
#include <QSet>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>

#include <cerrno>
#include <memory>
#include <mutex>
#include <sys/stat.h>

namespace information_api {

namespace {

constexpr qint64 kMaxCaFileBytes = 16 << 20;

// The process's transport policy. By default the service's hosts are not checked and the
// protocol is pinned to TLS 1.2, as the deployed service requires; a host may turn verification
// on (transport_security.h). Set on the host's thread, read as each request is built; the pins
// are checked on the worker thread against a copy taken then.
struct transport_policy {
    bool verify = false;
    QList<QSslCertificate> authorities;  // empty while verifying: the system's store
    QSet<QByteArray> pins;               // base64 of SHA-256 of SubjectPublicKeyInfo
};
std::mutex policy_mutex;
transport_policy policy;

transport_policy current_policy()
{
    std::lock_guard<std::mutex> lock(policy_mutex);
    return policy;
}

// A download may replace a regular file or create a new name, nothing else: QSaveFile would write
// through a symbolic link, and replace a FIFO or a device node.
bool may_replace(const QString& path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) != 0 ? errno == ENOENT : S_ISREG(info.st_mode);
}

}  // namespace

bool secure_request(QNetworkRequest& request, const QString& url, bool default_applies)
{
    const transport_policy current = current_policy();
    QSslConfiguration config = request.sslConfiguration();
    if (!current.verify) {
        if (!current.pins.isEmpty() && !is_https_url(url))
            return false;  // a pin cannot be checked without TLS
        if (!default_applies)
            return true;
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        config.setProtocol(QSsl::TlsV1_2);
    } else {
        if (!is_https_url(url))
            return false;
        config.setPeerVerifyMode(QSslSocket::VerifyPeer);
        config.setProtocol(QSsl::TlsV1_2OrLater);
        config.setCaCertificates(
            current.authorities.isEmpty() ? QSslConfiguration::systemCaCertificates() : current.authorities);
    }
    request.setSslConfiguration(config);
    return true;
}

// While verifying, a failed verification is reported with the TLS errors' own text. Whenever pins
// are set, a server whose key is not pinned is cut off where Qt reports the connection encrypted,
// which is before the request is written.
void check_server(QNetworkReply* reply)
{
    const transport_policy current = current_policy();
    if (current.verify) {
        QObject::connect(reply, &QNetworkReply::sslErrors, reply, [reply](const QList<QSslError>& errors) {
            QStringList texts;
            for (const QSslError& e : errors)
                texts << e.errorString();
            mark_refused(reply, QNetworkReply::SslHandshakeFailedError,
                QStringLiteral("SSL handshake failed: ") + texts.join(QStringLiteral("; ")));
        });
    }
    if (current.pins.isEmpty())
        return;
    QObject::connect(reply, &QNetworkReply::encrypted, reply, [reply, pins = current.pins] {
        const QByteArray key = reply->sslConfiguration().peerCertificate().publicKey().toDer();
        if (pins.contains(QCryptographicHash::hash(key, QCryptographicHash::Sha256).toBase64()))
            return;
        mark_refused(reply, QNetworkReply::SslHandshakeFailedError, QStringLiteral("public key pin mismatch"));
        reply->abort();
    });
}

verified_download::verified_download(QObject* connector, information_sink* sink, int id, const QString& target,
    const QString& sha256_hex, int timeout_ms)
    : QObject(connector), sink_(sink), id_(id), file_(target, this), expected_(sha256_hex.toLower().toLatin1())
{
    idle_.setSingleShot(true);
    idle_.setInterval(timeout_ms);
}

bool verified_download::open() { return may_replace(file_.fileName()) && file_.open(QIODevice::WriteOnly); }

void verified_download::fail_unsent(int code, int net_error)
{
    QMetaObject::invokeMethod(
        this, [this, code, net_error] { finish(false, code, net_error); }, Qt::QueuedConnection);
}

void verified_download::watch(QNetworkReply* reply)
{
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] { take(reply); });
    connect(reply, &QNetworkReply::downloadProgress, this, [this](qint64 received, qint64 total) {
        if (done_)
            return;  // the end has been reported: nothing follows it
        idle_.start();
        report_download_progress(sink_, id_, received, total);
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { end(reply); });
    connect(&idle_, &QTimer::timeout, reply, [this, reply] {
        finish(false, 6, -1);
        reply->abort();
    });
    // Started where the connector ends up, like the requests' time-out.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!done_)
                idle_.start();
        },
        Qt::QueuedConnection);
}

void verified_download::take(QNetworkReply* reply)
{
    if (done_)
        return;  // ended, and the reply perhaps aborted: reading it would warn
    const QByteArray chunk = reply->readAll();
    if (chunk.isEmpty())
        return;
    hash_.addData(chunk);
    if (file_.write(chunk) != chunk.size()) {
        finish(false, 8, 0);
        reply->abort();
    }
}

void verified_download::end(QNetworkReply* reply)
{
    take(reply);
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status < 200 || status > 299)
        finish(false, 7, reply_error(reply));
    else if (hash_.result().toHex() != expected_)
        finish(false, 9, 0);
    else
        finish(true, 8, 0);  // 8 if the file cannot take its target's place
}

void verified_download::finish(bool ok, int code, int net_error)
{
    if (done_)
        return;
    done_ = true;
    idle_.stop();
    if (!ok)
        file_.cancelWriting();
    ok = file_.commit() && ok;  // cancelled: removes the temporary file, the target untouched
    report_download_end(sink_, id_, ok, ok ? 0 : code, ok ? 0 : net_error);
}

int set_trusted_certificates(const QString& ca_file)
{
    QList<QSslCertificate> authorities;
    if (!ca_file.isEmpty()) {
        const std::unique_ptr<QFile> file = open_regular_file(ca_file);
        const QByteArray pem = file ? file->read(kMaxCaFileBytes + 1) : QByteArray();
        if (pem.size() > kMaxCaFileBytes)
            return -1;
        authorities = QSslCertificate::fromData(pem, QSsl::Pem);
        if (authorities.isEmpty())
            return -1;
    }
    std::lock_guard<std::mutex> lock(policy_mutex);
    policy.verify = true;
    policy.authorities = authorities;
    return 0;
}

int set_pinned_public_keys(const QStringList& sha256_base64)
{
    QSet<QByteArray> pins;
    for (const QString& pin : sha256_base64) {
        const auto decoded = QByteArray::fromBase64Encoding(pin.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded || decoded.decoded.size() != 32)
            return -1;
        pins.insert(decoded.decoded.toBase64());
    }
    std::lock_guard<std::mutex> lock(policy_mutex);
    policy.pins = pins;
    return 0;
}

int clear_transport_security()
{
    std::lock_guard<std::mutex> lock(policy_mutex);
    policy = transport_policy();
    return 0;
}

}  // namespace information_api
