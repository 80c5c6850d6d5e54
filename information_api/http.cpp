#include "information_api/http.h"

#include "information_api/json_handler.h"

#include <glog/logging.h>

#include <QDebug>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <ctime>
#include <string>
#include <unistd.h>

QHttpPart part_parameter(QString name, QString value)
{
    QHttpPart part;
    part.setHeader(QNetworkRequest::ContentDispositionHeader,
                   QVariant(QStringLiteral("form-data; name=\"") + name + QLatin1Char('"')));
    part.setBody(QByteArray(value.toUtf8().constData()));  // up to the first NUL
    return part;
}

namespace information_api {

namespace {

// An answer bigger than this is abandoned: it would only be buffered to be parsed, and a hostile
// or broken server must not be able to exhaust the host's memory.
constexpr qint64 kMaxAnswerBytes = 64 << 20;

// Same test as the regular expression "^[Hh][Tt]{2}[Pp][Ss]:", without compiling one per request.
bool is_https_url(const QString& url)
{
    return url.size() >= 6 && url[0].toLower() == 'h' && url[1].toLower() == 't' &&
           url[2].toLower() == 't' && url[3].toLower() == 'p' && url[4].toLower() == 's' &&
           url[5] == ':';
}

// The service runs on hosts whose certificates are not checked; the protocol is pinned to TLS 1.2.
void use_unverified_tls12(QNetworkRequest& request)
{
    QSslConfiguration config = request.sslConfiguration();
    config.setPeerVerifyMode(QSslSocket::VerifyNone);
    config.setProtocol(QSsl::TlsV1_2);
    request.setSslConfiguration(config);
}

double processor_seconds()
{
    return double(clock()) / 1000000;
}

response_info_t failure(const QString& msg, int ret, int net_error)
{
    response_info_t info;
    info.ok = false;
    info.msg = msg;
    info.ret = ret;
    info.net_error = net_error;
    return info;
}

void register_signal_argument_types()
{
    static const bool registered = [] {
        qRegisterMetaType<QNetworkReply::NetworkError>("QNetworkReply::NetworkError");
        qRegisterMetaType<QList<QSslError>>("QList<QSslError>");
        qRegisterMetaType<QNetworkReply*>("QNetworkReply*");
        return true;
    }();
    Q_UNUSED(registered);
}

}  // namespace

api_thread::api_thread() : QThread(nullptr) {}

void api_thread::run()
{
    exec();
    mark_release(this);  // everything the worker did happens before stop() returns
}

int api_thread::start()
{
    QThread::start(QThread::InheritPriority);
    return 0;
}

int api_thread::stop()
{
    quit();
    wait(QDeadlineTimer(QDeadlineTimer::Forever));
    mark_acquire(this);
    return 0;
}

http_connector::http_connector(int id, information_sink* sink, QObject* parent)
    : QObject(parent), sink_(sink), id_(id)
{
    register_signal_argument_types();
    timer_ = new QTimer(this);
    manager = new QNetworkAccessManager(this);
    connect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(replyFinished(QNetworkReply*)));
    connect(timer_, SIGNAL(timeout()), this, SLOT(timeout_event()));
}

http_connector::~http_connector()
{
    if (timer_ && timer_->isActive())
        timer_->stop();
    delete handler_;
    handler_ = nullptr;
    if (reply_) {
        reply_->deleteLater();
        reply_ = nullptr;
    }
    if (manager) {
        manager->deleteLater();
        manager = nullptr;
    }
}

json_handler* http_connector::choose_handler(const std::string&)
{
    delete handler_;  // a connector serves one request; an earlier handler is done with
    handler_ = new upload_handler(sink_, id_);
    return handler_;
}

void http_connector::start_timeout(int timeout_ms)
{
    timer_->setInterval(timeout_ms);
    if (!g_api_thread) {  // the connector stays on the caller's thread, and so does its timer
        timer_->start();
        return;
    }
    // Moving to the worker: the timer starts there once the connector has arrived (a host
    // thread that Qt did not start has no event dispatcher to run it, and a timer moved while
    // running leaves Qt's registration behind if the worker stops first). A reply that has
    // already ended by then, as a refused or malformed request does at once, needs none.
    QMetaObject::invokeMethod(this, [this] {
        const auto replies = manager->findChildren<QNetworkReply*>();
        if (std::any_of(replies.begin(), replies.end(), [](QNetworkReply* r) { return !r->isFinished(); }))
            timer_->start();
    }, Qt::QueuedConnection);
}

void http_connector::connect_reply_slots()
{
    connect(reply_, SIGNAL(readyRead()), this, SLOT(http_ready_read()));
    connect(reply_, SIGNAL(error(QNetworkReply::NetworkError)), this,
            SLOT(error(QNetworkReply::NetworkError)));
    connect(reply_, SIGNAL(sslErrors(const QList<QSslError>&)), this,
            SLOT(sslErrors(const QList<QSslError>&)));
    connect(reply_, SIGNAL(downloadProgress(qint64, qint64)), this,
            SLOT(update_data_read_progress(qint64, qint64)));
}

void http_connector::send_request(const std::string& path, const QString& body,
                                  const std::map<std::string, std::string>& query, int timeout_ms,
                                  const std::string& sub_path, bool /*flag*/,
                                  const std::map<std::string, std::string>& headers,
                                  const std::string& base_url)
{
    std::string url_text = base_url + path;
    if (!sub_path.empty())
        url_text += "/" + sub_path;
    // Every parameter is introduced by '?', not only the first: the service expects it so.
    for (const auto& parameter : query)
        url_text += "?" + parameter.first + "=" + parameter.second;
    const QString url = QString::fromLatin1(url_text.data(), int(url_text.size()));
    qDebug() << "send_request" << "url : " << url;

    request_.setUrl(QUrl(url, QUrl::TolerantMode));
    if (is_https_url(url))
        use_unverified_tls12(request_);
    request_.setHeader(QNetworkRequest::ContentTypeHeader,
                       QStringLiteral("application/json;charset=utf-8"));
    for (const auto& header : headers)
        request_.setRawHeader(QByteArray(header.first.c_str()), QByteArray(header.second.c_str()));

    start_timeout(timeout_ms);
    choose_handler("");
    reply_ = manager->post(request_, body.toUtf8());
    connect_reply_slots();
    bytes_received_ = 0;
    last_activity_ = processor_seconds();
}

void http_connector::report_network_error(QNetworkReply* reply)
{
    const QString text = reply->errorString();
    rt_ = 7;
    report_response(sink_, id_, failure(text, 7, reply->error()));
}

void http_connector::timeout_event()
{
    rt_ = 6;
    const response_info_t info = failure(QStringLiteral("timeout"), 6, -1);
    LOG(INFO) << "net connect time out";
    report_response(sink_, id_, info);
}

void http_connector::http_ready_read()
{
    if (timer_ && timer_->isActive())
        timer_->stop();
    if (!reply_)
        return;
    const std::string text = reply_->errorString().toStdString();
    LOG(INFO) << text;
    qDebug() << "http_ready_read reply_->errorString().toStdString()=" << text.c_str();
    if (reply_->error() == QNetworkReply::NoError) {
        if (handler_)
            rt_ = handler_->processing(reply_);
        if (reply_->bytesAvailable() > kMaxAnswerBytes) {
            LOG(WARNING) << "answer larger than " << kMaxAnswerBytes << " bytes, abandoned";
            reply_->abort();  // ends as a network error through replyFinished
        }
        return;
    }
    LOG(INFO) << text;
    report_network_error(reply_);
}

void http_connector::replyFinished(QNetworkReply* reply)
{
    if (timer_->isActive())
        timer_->stop();
    if (!reply)
        return;
    const std::string text = reply->errorString().toStdString();
    LOG(INFO) << text;
    qDebug() << "reply_->errorString().toStdString()=" << text.c_str();
    if (reply->error() != QNetworkReply::NoError)
        report_network_error(reply);
    else if (handler_)
        rt_ = (*handler_)(reply);
    // A multipart reply is not kept in reply_; it is done with as well.
    reply->deleteLater();
    if (reply_ == reply)
        reply_ = nullptr;
}

void http_connector::error(QNetworkReply::NetworkError code)
{
    LOG(INFO) << "error" << int(code);
    report_response(sink_, id_, failure(QString(), 7, code));
}

void http_connector::sslErrors(const QList<QSslError>& errors)
{
    for (const QSslError& e : errors)
        LOG(INFO) << "error" << e.errorString().toStdString();
}

void http_connector::update_data_read_progress(qint64 received, qint64)
{
    if (timer_->isActive())
        timer_->stop();
    bytes_received_ = received;
    last_activity_ = processor_seconds();
}

void http_connector::update_data_write_progress(qint64, qint64)
{
    if (timer_->isActive())
        timer_->stop();
}

int http_connector::send_multipart_request(const QString& path, const QString& file_path,
                                           const std::map<QString, QString>& fields,
                                           const std::map<QString, QString>& headers,
                                           int timeout_ms, const QString& base_url)
{
    auto* file = new QFile(file_path);
    if (!file->open(QIODevice::ReadOnly)) {
        LOG(INFO) << "file open faied or not readable  !" << file_path.toLocal8Bit().constData();
        delete file;
        return -1;
    }
    auto* body = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    const QString url = base_url + path;
    for (const auto& field : fields)
        body->append(part_parameter(field.first, field.second));

    QNetworkRequest request(QUrl(url, QUrl::TolerantMode));
    // Only the first header is sent: the service reads nothing else from a file upload.
    if (!headers.empty()) {
        const auto& header = *headers.begin();
        request.setRawHeader(QByteArray(header.first.toUtf8().constData()),
                             QByteArray(header.second.toUtf8().constData()));
    }
    if (is_https_url(url))
        use_unverified_tls12(request);

    QHttpPart file_part;
    file_part.setHeader(QNetworkRequest::ContentTypeHeader,
                        QStringLiteral("application/octet-stream"));
    file_part.setHeader(QNetworkRequest::ContentDispositionHeader,
                        QStringLiteral("form-data; name=\"file\"; filename=\"") +
                            QFileInfo(file_path).fileName() + QLatin1Char('"'));
    file_part.setBodyDevice(file);  // streamed from disk while the request is sent
    file->setParent(body);
    body->append(file_part);

    delete handler_;
    handler_ = new upload_file_handler(sink_, id_);
    QNetworkReply* reply = manager->post(request, body);
    body->setParent(reply);
    connect(reply, SIGNAL(uploadProgress(qint64, qint64)), this,
            SLOT(update_data_write_progress(qint64, qint64)));
    start_timeout(timeout_ms);
    return 0;
}

int http_connector::get_json_file(QString url, int timeout_ms)
{
    const QUrl parsed(url, QUrl::TolerantMode);
    qDebug() << "url_path=" << url;
    QNetworkRequest request;
    use_unverified_tls12(request);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::MaximumDownloadBufferSizeAttribute, 20971520);
    request.setAttribute(QNetworkRequest::DownloadBufferAttribute, 20971520);
    request.setRawHeader("Cache-Control", "must-revalidate,max-age=0;no-store");
    delete handler_;
    handler_ = new get_url_json_file_handler(sink_, id_);
    request.setUrl(parsed);
    reply_ = manager->get(request);
    LOG(INFO) << "manager->post reply_=" << reinterpret_cast<quintptr>(reply_);
    connect_reply_slots();
    start_timeout(timeout_ms);
    return 0;
}

QString http_connector::download_temp_path() const
{
    // The last four characters make way for ".temp", whatever they are (setup.exe -> setup.temp).
    return file_path_.left(qMax(0, file_path_.size() - 4)) + QStringLiteral(".temp");
}

void http_connector::downloadAppFile(QString url, QString file_path)
{
    qDebug() << "downloadAppFile" << "downloadUrl  : " << url;
    qDebug() << "downloadAppFile" << "fileNamePath : " << file_path;
    file_path_ = file_path;
    const bool removed = QFile::remove(file_path);
    qDebug() << "downloadAppFile" << "remove ret : " << removed;

    QNetworkRequest request;
    use_unverified_tls12(request);
    request.setUrl(QUrl(url, QUrl::TolerantMode));
    reply_ = manager->get(request);

    disconnect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(replyFinished(QNetworkReply*)));
    const auto rewire = [this](const char* signal, const char* slot) {
        disconnect(reply_, signal, this, slot);
        connect(reply_, signal, this, slot);
    };
    rewire(SIGNAL(readyRead()), SLOT(slot_onDownLoadFileReadyRead()));
    rewire(SIGNAL(finished()), SLOT(slot_onDownLoadFileFinished()));
    rewire(SIGNAL(error(QNetworkReply::NetworkError)),
           SLOT(slot_onDownLoadFileError(QNetworkReply::NetworkError)));
    rewire(SIGNAL(sslErrors(const QList<QSslError>&)),
           SLOT(slot_onDownLoadFileSSLError(const QList<QSslError>&)));
    rewire(SIGNAL(downloadProgress(qint64, qint64)),
           SLOT(slot_onDownLoadFileDownloadProgress(qint64, qint64)));

    const quintptr address = reinterpret_cast<quintptr>(reply_);
    LOG(INFO) << "downloadAppFile reply_ = " << address;
    qDebug() << "downloadAppFile" << "downloadAppFile reply_ = " << address;
}

void http_connector::slot_onDownLoadFileReadyRead()
{
    if (!reply_) {
        qDebug() << "slot_onDownLoadFileReadyRead" << " reply_ is NULL!";
        return;
    }
    const QString temp_path = download_temp_path();
    qDebug() << "slot_onDownLoadFileReadyRead" << temp_path;
    // Read the chunk even when it cannot be stored, so the reply never buffers the installer.
    const QByteArray chunk = reply_->readAll();
    QFile file(temp_path);
    if (file.open(QIODevice::Append)) {
        file.write(chunk);
        file.flush();
        file.close();
    }
}

void http_connector::slot_onDownLoadFileDownloadProgress(qint64 received, qint64 total)
{
    qDebug() << "slot_onDownLoadFileDownloadProgress" << "recive : " << received;
    qDebug() << "slot_onDownLoadFileDownloadProgress" << "total  : " << total;
    report_download_progress(sink_, id_, received, total);
}

void http_connector::slot_onDownLoadFileFinished()
{
    if (!reply_)
        return;
    qDebug() << "slot_onDownLoadFileFinished" << "reply_->error()=" << reply_->error();
    if (reply_->error() != QNetworkReply::NoError) {
        qDebug() << "reply->errorString()=" << reply_->errorString();
        return;
    }
    if (reply_->bytesAvailable() > 0)
        slot_onDownLoadFileReadyRead();
    QThread::sleep(2);  // lets the installer's last writes settle before it is moved into place

    const QString temp_path = download_temp_path();
    if (QFile::exists(temp_path)) {
        const bool renamed = QFile::rename(temp_path, file_path_);
        qDebug() << "slot_onDownLoadFileFinished" << "rename : " << "true" << " ;rename ret : "
                 << renamed;
    } else {
        qDebug() << "slot_onDownLoadFileFinished" << temp_path << " is not exists ! Download failed!";
    }
    report_download_end(sink_, id_, true, 0, 0);
}

void http_connector::slot_onDownLoadFileError(QNetworkReply::NetworkError code)
{
    qDebug() << "slot_onDownLoadFileError" << "networkError=" << code;
}

void http_connector::slot_onDownLoadFileSSLError(const QList<QSslError>& errors)
{
    qDebug() << "slot_onDownLoadFileSSLError" << "sslErrors=" << errors;
}

void http_connector::replyDownload(QNetworkReply* reply)
{
    if (timer_->isActive())
        timer_->stop();
    if (!reply)
        return;
    LOG(INFO) << reply->errorString().toStdString();
    qDebug() << "reply->errorString()=" << reply->errorString();
    bool success = false;
    int status = 7;
    const int net_error = reply->error();
    if (reply->error() != QNetworkReply::NoError) {
        rt_ = 7;
    } else {
        QFile file(file_path_);
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            file.write(reply->readAll());
            file.close();
            success = true;
            status = 0;
        } else {
            status = 8;
        }
    }
    if (reply_) {
        reply_->deleteLater();
        reply_ = nullptr;
    }
    qDebug() << "rt_=" << rt_;
    qDebug() << "net_errocode=" << net_error;
    report_download_end(sink_, id_, success, status, net_error);
}

bool http_connector::installNewApp()
{
    qDebug() << "http_connector::installNewApp";
    const std::wstring pid = std::to_wstring(getpid());
    const std::wstring arguments[] = {L" ", L"1033", L"pro"};
    Q_UNUSED(pid);
    Q_UNUSED(arguments);
    // No installer can be launched on this platform, and nothing may get here: stop loudly.
    __builtin_trap();
}

}  // namespace information_api
