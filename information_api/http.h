// The library's worker thread and its connections.
//
// One http_connector serves one public request: the entry point creates it on the caller's
// thread, issues the request there, then moves it (with its timer, manager and reply) to the
// worker thread, where all of its slots run and the sink is called.
#pragma once

#include <information_api/information_api.h>

#include <QCryptographicHash>
#include <QList>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QSaveFile>
#include <QSslError>
#include <QString>
#include <QThread>
#include <QTimer>

#include <map>
#include <memory>
#include <string>

class QFile;
class QHttpPart;
class QNetworkAccessManager;
class tst_records;

// One text field of a multipart form.
QHttpPart part_parameter(QString name, QString value);

namespace information_api {

class json_handler;

// ThreadSanitizer cannot see the synchronisation inside an uninstrumented Qt (its futexes), so
// it would report the hand-overs this library relies on as races: these mark them. They do
// nothing in other builds.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
inline void mark_acquire(void* address) { __tsan_acquire(address); }
inline void mark_release(void* address) { __tsan_release(address); }
#else
inline void mark_acquire(void*) {}
inline void mark_release(void*) {}
#endif

class api_thread : public QThread {
    Q_OBJECT
public:
    api_thread();
    void run() override;
    virtual int start();
    virtual int stop();  // quits the event loop and waits, without limit, for the thread to end
};

class http_connector : public QObject {
    Q_OBJECT
public:
    http_connector(int id, information_sink* sink, QObject* parent);
    ~http_connector() override;

    // POSTs `body` (UTF-8) to base_url + path [+ "/" + sub_path] + "?k=v" per query entry.
    void send_request(const std::string& path, const QString& body, const std::map<std::string, std::string>& query,
        int timeout_ms, const std::string& sub_path, bool flag, const std::map<std::string, std::string>& headers,
        const std::string& base_url);
    int send_multipart_request(const QString& path, const QString& file_path, const std::map<QString, QString>& fields,
        const std::map<QString, QString>& headers, int timeout_ms, const QString& base_url);
    int get_json_file(QString url, int timeout_ms);
    void downloadAppFile(QString url, QString file_path);
    // download_verified(): the body into a temporary file beside file_path, hashed as it arrives.
    void download_verified_file(
        const QString& url, const QString& file_path, const QString& sha256_hex, int timeout_ms);
    bool installNewApp();
    json_handler* choose_handler(const std::string& name);

signals:
    void finished();

public slots:
    void replyFinished(QNetworkReply* reply);
    void replyDownload(QNetworkReply* reply);
    void timeout_event();
    void http_ready_read();
    void update_data_read_progress(qint64 received, qint64 total);
    void update_data_write_progress(qint64 sent, qint64 total);
    void error(QNetworkReply::NetworkError code);
    void sslErrors(const QList<QSslError>& errors);
    void slot_onDownLoadFileReadyRead();
    void slot_onDownLoadFileError(QNetworkReply::NetworkError code);
    void slot_onDownLoadFileSSLError(const QList<QSslError>& errors);
    void slot_onDownLoadFileDownloadProgress(qint64 received, qint64 total);
    void slot_onDownLoadFileFinished();

private:
    void start_timeout(int timeout_ms);
    void connect_reply_slots();  // reply_'s data, error and progress signals to the request slots
    void report_network_error(QNetworkReply* reply);
    void refuse_request(const QString& url);  // reports a request the transport policy forbids
    QString download_temp_path() const;

    int rt_ = 0;
    QTimer* timer_ = nullptr;
    QNetworkAccessManager* manager = nullptr;
    QNetworkRequest request_;
    QNetworkReply* reply_ = nullptr;
    qint64 bytes_received_ = 0;
    double last_activity_ = 0;
    information_sink* sink_ = nullptr;
    int id_ = 0;
    json_handler* handler_ = nullptr;
    QString file_path_;

    friend class ::tst_records;  // reads the members' offsets
};

// Shared by the connector (http.cpp) and the transport policy (transport_security.cpp).

// Opens `path` for reading only if it is a regular file (not a FIFO, device or pseudo-file);
// null otherwise.
std::unique_ptr<QFile> open_regular_file(const QString& path);
bool is_https_url(const QString& url);
// Ends `reply` as the library's own decision: the sink hears `code` and `why`.
void mark_refused(QNetworkReply* reply, QNetworkReply::NetworkError code, const QString& why);
// A reply's error and its text as the sink hears them (a refusal's, when there is one).
int reply_error(const QNetworkReply* reply);
QString reply_error_text(const QNetworkReply* reply);

// Configures TLS for a request to `url` under the current policy; false when the policy forbids
// sending it at all (anything but https while verifying or pinning). `default_applies`: whether the
// default configuration is given to this URL (some requests give it only to https URLs).
bool secure_request(QNetworkRequest& request, const QString& url, bool default_applies);
// Checks the server of `reply` as the current policy asks, before the request is written.
void check_server(QNetworkReply* reply);

// One download_verified() transfer. It streams the body into a QSaveFile beside the target while
// hashing it and reports exactly once. A child of its connector: released with it, it takes the
// temporary file along and reports nothing.
class verified_download : public QObject {
public:
    verified_download(QObject* connector, information_sink* sink, int id, const QString& target,
        const QString& sha256_hex, int timeout_ms);
    bool open();  // false when the target may not be replaced or no temporary file can be made
    // Ends before anything was sent; reported from the connector's thread, as any outcome is.
    void fail_unsent(int code, int net_error);
    void watch(QNetworkReply* reply);

private:
    void take(QNetworkReply* reply);
    void end(QNetworkReply* reply);
    void finish(bool ok, int code, int net_error);

    information_sink* const sink_;
    const int id_;
    QSaveFile file_;
    QCryptographicHash hash_{QCryptographicHash::Sha256};
    const QByteArray expected_;
    QTimer idle_{this};
    bool done_ = false;
};

}  // namespace information_api
