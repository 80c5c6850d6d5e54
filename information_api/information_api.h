// Public entry of information_api: include this header to use the library.
//
// Start the library with information_init() and end it with information_clean(), both from the
// thread that calls every other function here (normally the host's UI thread). The upload, fetch
// and download functions return at once; every outcome arrives later through the host's
// information_sink, called on the library's worker thread.
#pragma once

#include <information_api/information_api_export.h>
#include <information_api/windows_information_imp.h>

#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QtGlobal>

#include <map>

namespace information_api {

class api_thread;
class http_connector;

// The outcome of one request, delivered inside a QVariant to information_sink::on_response.
typedef struct _tag_response_info {
    bool ok = false;    // the request succeeded
    QString msg;        // the reply's error text, "timeout", or the service's refusal text
    int ret = 0;        // 0 success, 6 time-out, 7 network error, 10 failed response
    int net_error = 0;  // QNetworkReply::NetworkError; -1 after a time-out, -2 after a failed response
    QString result;     // a file upload's stored id (dfs_id); empty otherwise
    QVariant content;   // a JSON fetch's QJsonDocument; invalid otherwise
} response_info_t;

// Implemented by the host. Every operation is called on the library's worker thread, never on the
// caller's; the sink must outlive its connections (until release_connect or information_clean).
// A request's failure may be reported more than once under the same id.
class INFORMATION_API_EXPORT information_sink {
public:
    virtual ~information_sink();
    virtual void on_response(int id, QVariant result) = 0;  // holds one response_info_t
    virtual void on_download_progress(qint64 received, qint64 total) = 0;
    virtual void on_download_finished(bool success, int code, int net_error) = 0;
};

// Starts the worker thread and creates the record manager, once; returns the manager.
INFORMATION_API_EXPORT VeltraInfoMgr* information_init();
// Schedules every connection for deletion, stops the worker thread (waiting for its loop to end)
// and deletes the manager. No sink call happens after it has returned. Returns 0.
INFORMATION_API_EXPORT int information_clean();
// Ends connection `id`; 0 when it existed, -1 otherwise. Call it once per connection.
INFORMATION_API_EXPORT int release_connect(int id);

// Posts one record (JSON text) to base_url?type=<type> with the header X-Auth-AppID: app_id.
// `id` names the connection in g_conn_manager and in every sink call; use a fresh one per
// request. `timeout` (ms): a report with ret 6 follows every `timeout` ms without an answer.
INFORMATION_API_EXPORT int upload_information(const QString& base_url, const QString& body,
                                              const QString& app_id, const QString& type,
                                              information_sink* sink, int id, int timeout);

// Posts a local file as a multipart form (the file part named "file") to
// base_url?category=feedback&bucket=pub; the report's `result` holds the stored file's id.
// `extra` is ignored. A file that cannot be opened is not sent and nothing is reported.
INFORMATION_API_EXPORT int upload_file(const QString& base_url, const QString& file_path,
                                       const QString& app_id, const QString& extra,
                                       information_sink* sink, const int id, int timeout);

// Fetches base_url/software/<software>/interface.json past every cache; the report's `content`
// holds the parsed QJsonDocument. base_url must not end in "/".
INFORMATION_API_EXPORT int get_url_json_file(const QString& base_url, const QString& software,
                                             information_sink* sink, const int id, int timeout);

// Downloads `url` into file_path (through a ".temp" file beside it, named by replacing the last
// four characters of file_path); progress through on_download_progress, the end through
// on_download_finished. A failed download is not reported and leaves the temporary file.
INFORMATION_API_EXPORT int downLoadApp(int id, information_sink* sink, const QString& url,
                                       const QString& file_path);

// The worker thread, the record manager and the open connections by id.
extern INFORMATION_API_EXPORT api_thread* g_api_thread;
extern INFORMATION_API_EXPORT VeltraInfoMgr* g_information;
extern INFORMATION_API_EXPORT std::map<int, http_connector*> g_conn_manager;

}  // namespace information_api

Q_DECLARE_METATYPE(information_api::response_info_t)
