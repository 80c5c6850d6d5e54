#include "information_api/information_api.h"

#include "information_api/http.h"
#include "information_api/transport_security.h"

#include <glog/logging.h>

#include <QDebug>
#include <QNetworkAccessManager>
#include <QRegularExpression>
#include <QSemaphore>
#include <QSslConfiguration>

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <utility>

namespace information_api {

api_thread* g_api_thread = nullptr;
VeltraInfoMgr* g_information = nullptr;
std::map<int, http_connector*> g_conn_manager;

information_sink::~information_sink() = default;

namespace {

// The first network access manager of a process loads Qt's bearer plugins and the first TLS
// configuration loads OpenSSL, milliseconds each. The worker thread pays both as it starts, and
// information_init() waits for it: the host's first request then costs no more than any other,
// and the two threads never race on Qt's first registrations of the network types.
void start_warm_worker(api_thread* thread)
{
    QSemaphore warm;
    const QMetaObject::Connection warming = QObject::connect(thread, &QThread::started, [done = &warm] {
        {
            QNetworkAccessManager warm_up;
        }
        QSslConfiguration::defaultConfiguration();
        QSemaphore* const warmed = done;  // this function object is gone once the caller goes on
        mark_release(warmed);
        warmed->release();
    });
    thread->start();
    warm.acquire();
    mark_acquire(&warm);
    QObject::disconnect(warming);
}

// Guards the registry: the host's thread opens connections while a sink on the worker thread may
// release one.
std::mutex registry_mutex;

// Everything the caller wrote before a hand-over is visible to every event the worker delivers
// afterwards (Qt's event queue sees to it; the marks tell ThreadSanitizer).
int hand_over_mark;

void announce_hand_over()
{
#if defined(__SANITIZE_THREAD__)
    static const bool watching = QInternal::registerCallback(QInternal::EventNotifyCallback, [](void**) {
        mark_acquire(&hand_over_mark);
        return false;  // deliver the event as usual
    });
    Q_UNUSED(watching);
#endif
    mark_release(&hand_over_mark);
}

// A connection is created and registered on the caller's thread; an id already in use is taken
// over by the new connector (the earlier one keeps running, unreachable).
http_connector* open_connection(int id, information_sink* sink)
{
    auto* connector = new http_connector(id, sink, nullptr);
    std::lock_guard<std::mutex> lock(registry_mutex);
    g_conn_manager[id] = connector;
    return connector;
}

// After its request has been issued, the connector lives on the worker thread.
void hand_over(http_connector* connector)
{
    if (QThread* worker = g_api_thread) {
        announce_hand_over();
        connector->moveToThread(worker);
    }
}

}  // namespace

VeltraInfoMgr* information_init()
{
    if (!g_api_thread) {
        g_api_thread = new api_thread;
        start_warm_worker(g_api_thread);
    }
    if (g_information)
        return g_information;
    g_information = new windows_information_imp;
    return g_information;
}

int information_clean()
{
    std::map<int, http_connector*> open;
    {
        std::lock_guard<std::mutex> lock(registry_mutex);
        open.swap(g_conn_manager);
    }
    for (auto& entry : open)
        entry.second->deleteLater();
    if (api_thread* worker = std::exchange(g_api_thread, nullptr)) {
        if (QThread::currentThread() == worker) {
            // Called from a sink: the worker cannot wait for itself. It ends as soon as this
            // report returns and reports nothing more meanwhile; the thread that started it
            // waits for that and deletes it.
            worker->requestInterruption();
            worker->quit();
            QMetaObject::invokeMethod(
                worker,
                [worker] {
                    worker->stop();
                    worker->deleteLater();
                },
                Qt::QueuedConnection);
            announce_hand_over();
        } else {
            worker->stop();
            worker->deleteLater();
        }
    }
    delete std::exchange(g_information, nullptr);
    return 0;
}

int release_connect(int id)
{
    std::lock_guard<std::mutex> lock(registry_mutex);
    if (g_conn_manager.empty())
        return -1;
    const auto it = g_conn_manager.lower_bound(id);
    if (it == g_conn_manager.end() || it->first != id)
        return -1;
    it->second->deleteLater();
    g_conn_manager.erase(it);
    return 0;
}

int upload_information(const QString& base_url, const QString& body, const QString& app_id, const QString& type,
    information_sink* sink, int id, int timeout)
{
    http_connector* connector = open_connection(id, sink);
    const std::map<std::string, std::string> query{{"type", type.toStdString()}};
    const std::map<std::string, std::string> headers{{"X-Auth-AppID", app_id.toStdString()}};
    connector->send_request("", body, query, timeout, "", true, headers, base_url.toStdString());
    hand_over(connector);
    return 0;
}

int upload_file(const QString& base_url, const QString& file_path, const QString& app_id, const QString& /*extra*/,
    information_sink* sink, const int id, int timeout)
{
    http_connector* connector = open_connection(id, sink);
    const QString suffix = QStringLiteral("?category=feedback&bucket=pub");
    const std::map<QString, QString> headers{{QStringLiteral("X-Auth-AppID"), app_id}};
    qDebug() << "upload_file"
             << "url_post : " << suffix;
    const int ret = connector->send_multipart_request(suffix, file_path, {}, headers, timeout, base_url);
    qDebug() << "upload_file ret : " << ret;
    LOG(INFO) << "send_multipart_request ret=" << ret;
    hand_over(connector);
    return 0;
}

int get_url_json_file(
    const QString& base_url, const QString& software, information_sink* sink, const int id, int timeout)
{
    http_connector* connector = open_connection(id, sink);
    srand(unsigned(time(nullptr)));
    const int drawn = rand();
    // "t" only defeats caches between the host and the content host.
    const QString path =
        QStringLiteral("/software/%1/interface.json?t=%2").arg(software, QString::number(drawn % 1000));
    const QString full_url = base_url + path;
    qDebug() << "post_url=" << full_url;
    LOG(INFO) << " get_url_json_file full_url=" << full_url.toUtf8().constData();
    connector->get_json_file(full_url, timeout);
    hand_over(connector);
    return 0;
}

int downLoadApp(int id, information_sink* sink, const QString& url, const QString& file_path)
{
    http_connector* connector = open_connection(id, sink);
    connector->downloadAppFile(url, file_path);
    hand_over(connector);
    return 0;
}

int download_verified(int id, information_sink* sink, const QString& url, const QString& file_path,
    const QString& sha256_hex, int timeout_ms)
{
    static const QRegularExpression sha256(QStringLiteral("\\A[0-9A-Fa-f]{64}\\z"));  // "$" admits a final "\n"
    if (file_path.isEmpty() || !sha256.match(sha256_hex).hasMatch() || timeout_ms <= 0)
        return -1;
    http_connector* connector = open_connection(id, sink);
    connector->download_verified_file(url, file_path, sha256_hex, timeout_ms);
    hand_over(connector);
    return 0;
}

}  // namespace information_api
