#include "information_api/http.h"

#include "information_api/json_handler.h"

#include <glog/logging.h>

#include <QDebug>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/magic.h>
#include <sys/vfs.h>
#endif

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

// Answers larger than these are abandoned as they arrive, before Qt has buffered them whole for a
// handler. Record and file answers are a few dozen bytes, and the JSON reader that takes them
// spends about 150 bytes per element: 16 KiB cost it at most 3 MiB and a few milliseconds. The
// interface file, read by Qt at about 10 bytes per element, is a configuration: 1 MiB costs at
// most 10 MiB and 35 ms.
constexpr qint64 kMaxServiceAnswerBytes = 16 << 10;
constexpr qint64 kMaxInterfaceFileBytes = 1 << 20;

// Kernel pseudo-files claim to be regular, but their size says nothing about their content.
bool on_pseudo_file_system(int fd)
{
#if defined(__linux__)
    struct statfs fs;
    if (fstatfs(fd, &fs) != 0)
        return true;
    switch (fs.f_type) {
    case PROC_SUPER_MAGIC:
    case SYSFS_MAGIC:
    case DEBUGFS_MAGIC:
    case TRACEFS_MAGIC:
    case SECURITYFS_MAGIC:
    case CGROUP_SUPER_MAGIC:
    case CGROUP2_SUPER_MAGIC:
        return true;
    }
#else
    Q_UNUSED(fd);
#endif
    return false;
}

// A header line ends at CR or LF: one inside a name or value would start a header of the sender's
// choosing. Taken up to the first NUL, as before.
QByteArray header_field(const char* text)
{
    QByteArray field(text);
    return field.replace('\r', QByteArray()).replace('\n', QByteArray());
}

// The reply properties that say why the library ended a reply itself, and as which error.
const char* const kRefusal = "information_api_refusal";
const char* const kRefusalCode = "information_api_refusal_code";

void limit_answer(QNetworkReply* reply, qint64 limit)
{
    // On the length announced and on what has arrived (Qt's progress signal comes too late: its
    // last one follows the reply's end).
    const auto check = [reply, limit] {
        const qint64 announced = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
        if ((announced <= limit && reply->bytesAvailable() <= limit) || reply->property(kRefusalCode).isValid())
            return;
        LOG(WARNING) << "answer larger than " << limit << " bytes, abandoned";
        mark_refused(reply, QNetworkReply::OperationCanceledError,
            QStringLiteral("answer larger than %1 bytes, abandoned").arg(limit));
        reply->abort();  // ends as a network error
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, check);
    QObject::connect(reply, &QNetworkReply::readyRead, reply, check);
}

double processor_seconds() { return double(clock()) / 1000000; }

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

// Opens `path` for reading only if it is a regular file; null otherwise. Opening a FIFO would
// block until a writer comes, and Qt's multipart device writes past its buffer when a device or
// a pseudo-file yields more than its size. Checked before opening (opening a device may act) and
// again on what was opened.
std::unique_ptr<QFile> open_regular_file(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat info;
    if (name.isEmpty() || ::stat(name.constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return nullptr;
    const int fd = ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    auto file = std::make_unique<QFile>(path);
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || on_pseudo_file_system(fd) ||
        !file->open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return nullptr;
    }
    return file;
}

// Same test as the regular expression "^[Hh][Tt]{2}[Pp][Ss]:", without compiling one per request.
bool is_https_url(const QString& url)
{
    return url.size() >= 6 && url[0].toLower() == 'h' && url[1].toLower() == 't' && url[2].toLower() == 't' &&
           url[3].toLower() == 'p' && url[4].toLower() == 's' && url[5] == ':';
}

void mark_refused(QNetworkReply* reply, QNetworkReply::NetworkError code, const QString& why)
{
    reply->setProperty(kRefusal, why);
    reply->setProperty(kRefusalCode, int(code));
}

// A reply's error as the sink hears it: one the library ended itself, or that failed
// verification, reports why.
int reply_error(const QNetworkReply* reply)
{
    const QVariant refused = reply->property(kRefusalCode);
    return refused.isValid() ? refused.toInt() : int(reply->error());
}

QString reply_error_text(const QNetworkReply* reply)
{
    const QVariant refusal = reply->property(kRefusal);
    return refusal.isValid() ? refusal.toString() : reply->errorString();
}

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

http_connector::http_connector(int id, information_sink* sink, QObject* parent) : QObject(parent), sink_(sink), id_(id)
{
    register_signal_argument_types();
    timer_ = new QTimer(this);
    manager = new QNetworkAccessManager(this);
    connect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(replyFinished(QNetworkReply*)));
    connect(timer_, SIGNAL(timeout()), this, SLOT(timeout_event()));
    // A connector serves one request. Once it has ended and been handled (every kind, downloads
    // too), the manager goes: in Qt 5 it keeps a thread and its descriptors until deleted, and an
    // unreleased connection would hold them for ever. Its replies go with it.
    connect(
        manager, &QNetworkAccessManager::finished, this,
        [this] {
            if (!manager)
                return;
            manager->deleteLater();
            manager = nullptr;
            reply_ = nullptr;
        },
        Qt::QueuedConnection);
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
    if (timeout_ms <= 0)
        return;  // no time-out: 0 would report one on every turn of the loop, a negative one warn
    timer_->setInterval(timeout_ms);
    if (!g_api_thread) {  // the connector stays on the caller's thread, and so does its timer
        timer_->start();
        return;
    }
    // Moving to the worker: the timer starts there once the connector has arrived (a host
    // thread that Qt did not start has no event dispatcher to run it, and a timer moved while
    // running leaves Qt's registration behind if the worker stops first). A reply that has
    // already ended by then, as a refused or malformed request does at once, needs none.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!manager)
                return;  // the request has ended and been handled
            const auto replies = manager->findChildren<QNetworkReply*>();
            if (std::any_of(replies.begin(), replies.end(), [](QNetworkReply* r) { return !r->isFinished(); }))
                timer_->start();
        },
        Qt::QueuedConnection);
}

void http_connector::connect_reply_slots()
{
    connect(reply_, SIGNAL(readyRead()), this, SLOT(http_ready_read()));
    connect(reply_, SIGNAL(error(QNetworkReply::NetworkError)), this, SLOT(error(QNetworkReply::NetworkError)));
    connect(reply_, SIGNAL(sslErrors(const QList<QSslError>&)), this, SLOT(sslErrors(const QList<QSslError>&)));
    connect(reply_, SIGNAL(downloadProgress(qint64, qint64)), this, SLOT(update_data_read_progress(qint64, qint64)));
}

void http_connector::send_request(const std::string& path, const QString& body,
    const std::map<std::string, std::string>& query, int timeout_ms, const std::string& sub_path, bool /*flag*/,
    const std::map<std::string, std::string>& headers, const std::string& base_url)
{
    std::string url_text = base_url + path;
    if (!sub_path.empty())
        url_text += "/" + sub_path;
    // Every parameter is introduced by '?', not only the first: the service expects it so.
    for (const auto& parameter : query)
        url_text += "?" + parameter.first + "=" + parameter.second;
    const QString url = QString::fromLatin1(url_text.data(), int(url_text.size()));
    qDebug() << "send_request"
             << "url : " << url;

    request_.setUrl(QUrl(url, QUrl::TolerantMode));
    if (!secure_request(request_, url, is_https_url(url))) {
        refuse_request(url);
        return;
    }
    request_.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json;charset=utf-8"));
    for (const auto& header : headers)
        request_.setRawHeader(header_field(header.first.c_str()), header_field(header.second.c_str()));

    start_timeout(timeout_ms);
    choose_handler("");
    reply_ = manager->post(request_, body.toUtf8());
    check_server(reply_);
    limit_answer(reply_, kMaxServiceAnswerBytes);
    connect_reply_slots();
    bytes_received_ = 0;
    last_activity_ = processor_seconds();
}

void http_connector::report_network_error(QNetworkReply* reply)
{
    rt_ = 7;
    report_response(sink_, id_, failure(reply_error_text(reply), 7, reply_error(reply)));
}

void http_connector::refuse_request(const QString& url)
{
    LOG(INFO) << "refused to send to " << url.toStdString() << ": verification is on";
    // Reported from the connector's own thread, as any outcome is.
    QMetaObject::invokeMethod(
        this,
        [this] {
            rt_ = 7;
            report_response(sink_, id_,
                failure(QStringLiteral("refused to send: only https is allowed while "
                                       "server verification is on"),
                    7, QNetworkReply::ProtocolInvalidOperationError));
        },
        Qt::QueuedConnection);
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
    const auto* reply = qobject_cast<const QNetworkReply*>(sender());
    report_response(sink_, id_, failure(QString(), 7, reply ? reply_error(reply) : int(code)));
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
    const std::map<QString, QString>& fields, const std::map<QString, QString>& headers, int timeout_ms,
    const QString& base_url)
{
    const QString url = base_url + path;
    QNetworkRequest request(QUrl(url, QUrl::TolerantMode));
    if (!secure_request(request, url, is_https_url(url))) {
        refuse_request(url);
        return 0;
    }
    QFile* file = open_regular_file(file_path).release();
    if (!file) {
        LOG(INFO) << "file open faied or not readable  !" << file_path.toLocal8Bit().constData();
        return -1;
    }
    auto* body = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    for (const auto& field : fields)
        body->append(part_parameter(field.first, field.second));

    // Only the first header is sent: the service reads nothing else from a file upload.
    if (!headers.empty()) {
        const auto& header = *headers.begin();
        request.setRawHeader(
            header_field(header.first.toUtf8().constData()), header_field(header.second.toUtf8().constData()));
    }

    QHttpPart file_part;
    file_part.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/octet-stream"));
    file_part.setHeader(QNetworkRequest::ContentDispositionHeader,
        QStringLiteral("form-data; name=\"file\"; filename=\"") + QFileInfo(file_path).fileName() + QLatin1Char('"'));
    file_part.setBodyDevice(file);  // streamed from disk while the request is sent
    file->setParent(body);
    body->append(file_part);

    delete handler_;
    handler_ = new upload_file_handler(sink_, id_);
    QNetworkReply* reply = manager->post(request, body);
    check_server(reply);
    limit_answer(reply, kMaxServiceAnswerBytes);
    body->setParent(reply);
    connect(reply, SIGNAL(uploadProgress(qint64, qint64)), this, SLOT(update_data_write_progress(qint64, qint64)));
    start_timeout(timeout_ms);
    return 0;
}

int http_connector::get_json_file(QString url, int timeout_ms)
{
    const QUrl parsed(url, QUrl::TolerantMode);
    qDebug() << "url_path=" << url;
    QNetworkRequest request;
    if (!secure_request(request, url, true)) {
        refuse_request(url);
        return 0;
    }
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::MaximumDownloadBufferSizeAttribute, 20971520);
    request.setAttribute(QNetworkRequest::DownloadBufferAttribute, 20971520);
    request.setRawHeader("Cache-Control", "must-revalidate,max-age=0;no-store");
    delete handler_;
    handler_ = new get_url_json_file_handler(sink_, id_);
    request.setUrl(parsed);
    reply_ = manager->get(request);
    check_server(reply_);
    limit_answer(reply_, kMaxInterfaceFileBytes);
    LOG(INFO) << "manager->post reply_=" << reinterpret_cast<quintptr>(reply_);
    connect_reply_slots();
    start_timeout(timeout_ms);
    return 0;
}

void http_connector::download_verified_file(
    const QString& url, const QString& file_path, const QString& sha256_hex, int timeout_ms)
{
    file_path_ = file_path;
    auto* transfer = new verified_download(this, sink_, id_, file_path, sha256_hex, timeout_ms);
    QNetworkRequest request(QUrl(url, QUrl::TolerantMode));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    if (!secure_request(request, url, true)) {
        LOG(INFO) << "refused to download from " << url.toStdString() << ": verification is on";
        transfer->fail_unsent(7, QNetworkReply::ProtocolInvalidOperationError);
        return;
    }
    if (!transfer->open()) {
        LOG(INFO) << "download_verified cannot write beside " << file_path.toStdString();
        transfer->fail_unsent(8, 0);
        return;
    }
    disconnect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(replyFinished(QNetworkReply*)));
    reply_ = manager->get(request);
    check_server(reply_);
    transfer->watch(reply_);
}

QString http_connector::download_temp_path() const
{
    // The last four characters make way for ".temp", whatever they are (setup.exe -> setup.temp).
    return file_path_.left(qMax(0, file_path_.size() - 4)) + QStringLiteral(".temp");
}

void http_connector::downloadAppFile(QString url, QString file_path)
{
    qDebug() << "downloadAppFile"
             << "downloadUrl  : " << url;
    qDebug() << "downloadAppFile"
             << "fileNamePath : " << file_path;
    file_path_ = file_path;
    const bool removed = QFile::remove(file_path);
    qDebug() << "downloadAppFile"
             << "remove ret : " << removed;

    QNetworkRequest request;
    if (!secure_request(request, url, true)) {  // reported like any failed download: not at all
        LOG(INFO) << "refused to download from " << url.toStdString() << ": verification is on";
        return;
    }
    request.setUrl(QUrl(url, QUrl::TolerantMode));
    reply_ = manager->get(request);
    check_server(reply_);

    disconnect(manager, SIGNAL(finished(QNetworkReply*)), this, SLOT(replyFinished(QNetworkReply*)));
    const auto rewire = [this](const char* signal, const char* slot) {
        disconnect(reply_, signal, this, slot);
        connect(reply_, signal, this, slot);
    };
    rewire(SIGNAL(readyRead()), SLOT(slot_onDownLoadFileReadyRead()));
    rewire(SIGNAL(finished()), SLOT(slot_onDownLoadFileFinished()));
    rewire(SIGNAL(error(QNetworkReply::NetworkError)), SLOT(slot_onDownLoadFileError(QNetworkReply::NetworkError)));
    rewire(SIGNAL(sslErrors(const QList<QSslError>&)), SLOT(slot_onDownLoadFileSSLError(const QList<QSslError>&)));
    rewire(SIGNAL(downloadProgress(qint64, qint64)), SLOT(slot_onDownLoadFileDownloadProgress(qint64, qint64)));

    const quintptr address = reinterpret_cast<quintptr>(reply_);
    LOG(INFO) << "downloadAppFile reply_ = " << address;
    qDebug() << "downloadAppFile"
             << "downloadAppFile reply_ = " << address;
}

void http_connector::slot_onDownLoadFileReadyRead()
{
    if (!reply_) {
        qDebug() << "slot_onDownLoadFileReadyRead"
                 << " reply_ is NULL!";
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
    qDebug() << "slot_onDownLoadFileDownloadProgress"
             << "recive : " << received;
    qDebug() << "slot_onDownLoadFileDownloadProgress"
             << "total  : " << total;
    report_download_progress(sink_, id_, received, total);
}

void http_connector::slot_onDownLoadFileFinished()
{
    if (!reply_)
        return;
    qDebug() << "slot_onDownLoadFileFinished"
             << "reply_->error()=" << reply_->error();
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
        qDebug() << "slot_onDownLoadFileFinished"
                 << "rename : "
                 << "true"
                 << " ;rename ret : " << renamed;
    } else {
        qDebug() << "slot_onDownLoadFileFinished" << temp_path << " is not exists ! Download failed!";
    }
    report_download_end(sink_, id_, true, 0, 0);
}

void http_connector::slot_onDownLoadFileError(QNetworkReply::NetworkError code)
{
    qDebug() << "slot_onDownLoadFileError"
             << "networkError=" << code;
}

void http_connector::slot_onDownLoadFileSSLError(const QList<QSslError>& errors)
{
    qDebug() << "slot_onDownLoadFileSSLError"
             << "sslErrors=" << errors;
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
