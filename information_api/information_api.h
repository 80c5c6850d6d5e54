/// @file
/// The public entry of the library: start and end it, send records and files, fetch the remote
/// interface file, download an installer, and the sink through which every result comes back.
///
/// Call every function here, and the record manager, from one thread of the host (normally its
/// UI thread): information_init() first, information_clean() last. The upload, fetch and download
/// functions return 0 at once: the request is issued on the calling thread, then served by the
/// library's single worker thread, which also makes every information_sink call. A request made
/// before information_init() stays on the calling thread and is served only while that thread
/// runs a Qt event loop; its reports then arrive there.
///
/// By default no server certificate is checked and TLS 1.2 is spoken, as the deployed collection
/// service requires; transport_security.h turns verification on.
#pragma once

#include <information_api/information_api_export.h>
#include <information_api/windows_information_imp.h>

#include <QMetaType>
#include <QString>
#include <QVariant>
#include <QtGlobal>

#include <map>

/// Everything the library exports: the free functions and globals (information_api.h,
/// transport_security.h), the sink and result types, the record manager
/// (windows_information_imp.h) and, on macOS, the machine collector (KrMacosInfo.h).
namespace information_api {

class api_thread;
class http_connector;

/// The outcome of one request, delivered inside a QVariant to information_sink::on_response():
/// `result.value<information_api::response_info_t>()`.
///
/// | `ret` | `ok` | `net_error` | `msg` | reported when | final |
/// |---|---|---|---|---|---|
/// | 0 | true | 0 | "Unknown error" (Qt's text for no error) | the service answered "status" "success" (uploads), or the interface file is a non-empty JSON document (fetch) | yes |
/// | 6 | false | -1 | "timeout" | nothing arrived for `timeout` ms since the request was sent; repeated every `timeout` ms for as long as the request runs | no: a success or a failure may follow |
/// | 7 | false | the `QNetworkReply::NetworkError` | empty, the reply's error text, or why the transport policy refused | network error: no connection, TLS failure, an HTTP error status, a record or file answer over 16 KiB or an interface file over 1 MiB (abandoned: `net_error` 5, `msg` "answer larger than 16384 bytes, abandoned"), or a URL the transport policy refuses (transport_security.h) | yes, but usually reported more than once |
/// | 10 | false | -2 | record upload: the service's "result" text, else the reply's error text; file upload and fetch: the reply's error text | failed response: the answer's "status" is not "success", the answer is not JSON or nested deeper than 512 levels, or the interface file is empty (also an empty array or object) | yes |
///
/// A failed request usually reports ret 7 twice under its id: first from the reply's error
/// signal with an empty `msg`, then at the reply's end with its error text (a third time when the
/// failed reply carried a body). A request that fails at once (an unknown scheme, a refused URL)
/// reports its error and no time-out.
typedef struct _tag_response_info {
    bool ok = false;  ///< The request succeeded (`ret` 0).
    QString msg;      ///< The reply's error text, "timeout", or the service's refusal text.
    int ret = 0;      ///< 0 success, 6 time-out, 7 network error, 10 failed response (see above).
    /// `QNetworkReply::NetworkError`; -1 after a time-out, -2 after a failed response.
    int net_error = 0;
    QString result;    ///< A file upload's stored id ("dfs_id"); empty otherwise.
    QVariant content;  ///< A fetch's `QJsonDocument` (`toJsonDocument()`); invalid otherwise.
} response_info_t;

/// Implemented by the host to receive the results of its requests.
///
/// **Thread.** Every call arrives on the library's worker thread, never on the thread that made
/// the request: a sink that touches the host's widgets or data hands the work over to the host's
/// thread itself, for example with `QMetaObject::invokeMethod(window, ...)`.
///
/// **What a sink may call.** release_connect() (for any id) and information_clean(); everything
/// else belongs on the host's thread. A sink must not block waiting for the thread that will call
/// information_clean(): that call waits for the worker thread, which waits for the sink.
///
/// **Exceptions.** One that escapes a sink call is caught and logged as a glog warning naming the
/// connection ("the sink of connection 7 threw: ..."); later reports still arrive.
///
/// **Lifetime.** The library keeps only the pointer, never copies or deletes the sink. Keep it
/// alive until its connections have ended: release_connect() ends a connection on the worker
/// thread's next turn, so a report already under way may still arrive just after it; once
/// information_clean() has returned, no call follows. A null sink is allowed: the request is sent
/// and its results are dropped.
///
/// **What each request reports.**
/// - upload_information(), upload_file(), get_url_json_file(): on_response() only. Zero or more
///   ret 6 (every `timeout` ms while nothing arrives), then either one ret 0, one ret 10, or ret 7
///   one to three times (see response_info_t). upload_file() with a file it cannot open reports
///   nothing at all.
/// - downLoadApp(): on_download_progress() as data arrives, then on a success
///   on_download_finished(true, 0, 0), after the worker thread has slept 2 s. A failure reports
///   nothing, and there is no time-out.
/// - download_verified(): on_download_progress(), then exactly one on_download_finished().
///
/// The download reports carry no connection id: give each download running at the same time a
/// sink of its own.
class INFORMATION_API_EXPORT information_sink {
public:
    /// The library never deletes a sink through this pointer; the host owns it.
    virtual ~information_sink();
    /// The result of connection `id` (the id the request was made with); `result` holds one
    /// response_info_t. May be called several times for one id: see response_info_t.
    virtual void on_response(int id, QVariant result) = 0;  // holds one response_info_t
    /// Bytes of the download received so far, and its size (-1 while the server has not said).
    virtual void on_download_progress(qint64 received, qint64 total) = 0;
    /// The end of a download: (true, 0, 0) on success, else `success` false with `code`:
    ///
    /// | `code` | `net_error` | meaning (download_verified() only; downLoadApp() reports no failure) |
    /// |---|---|---|
    /// | 6 | -1 | no byte arrived for `timeout_ms` |
    /// | 7 | the `QNetworkReply::NetworkError` | network or HTTP failure, or a URL the transport policy refuses |
    /// | 8 | 0 | the file could not be written, or could not replace the target |
    /// | 9 | 0 | the body's SHA-256 is not the expected one |
    virtual void on_download_finished(bool success, int code, int net_error) = 0;
};

/// Starts the library and returns the record manager.
///
/// The first call starts the worker thread and waits until it has set up Qt's network stack (a
/// few milliseconds, once per process), so the host's first request costs no more than any
/// other; it then creates the manager, a windows_information_imp, whose constructor opens
/// "./res/system.ini" and starts the usage period of the run. Later calls create nothing and
/// return the same manager. Create the host's `QCoreApplication` first: the manager's
/// constructor reads the application's name.
/// @return the manager, owned by the library until information_clean() deletes it.
INFORMATION_API_EXPORT VeltraInfoMgr* information_init();
/// Ends the library: ends every open connection, stops the worker thread and deletes the manager.
///
/// It waits for the worker thread to end, so no sink call happens after it has returned. Deleting
/// the manager rewrites the run's usage record, if one was written, with its end time. A later
/// information_init() starts afresh; without an information_init() before, it does nothing.
///
/// Called from a sink, on the worker thread, it cannot wait for that thread: the worker ends as
/// soon as the sink call returns and delivers no further report, and the thread that called
/// information_init() deletes it when its event loop next runs. The manager is deleted at once
/// even then, on the worker thread: the host's thread must not be using it, nor starting requests,
/// at that moment (a host that lets a sink end the library tells its own thread to stop first).
/// @return 0.
INFORMATION_API_EXPORT int information_clean();
/// Ends connection `id`: its request is abandoned if it still runs, and its connector is deleted
/// on the worker thread's next turn.
///
/// The library never ends a connection by itself: call this once per connection, when its final
/// report has arrived or to give up on it. A sink may call it.
/// @return 0 when `id` was open, -1 otherwise.
INFORMATION_API_EXPORT int release_connect(int id);

/// Posts one record to the collection service.
///
/// Sends `body`, the record's JSON text (the `data` of VeltraInfoMgr::get_scan_info()), as UTF-8
/// to `<base_url>?type=<type>` with the headers `Content-Type: application/json;charset=utf-8`
/// and `X-Auth-AppID: <app_id>` (a CR or LF in `app_id` is dropped: it cannot start a header of
/// its own). `base_url` and `app_id` come from VeltraInfoMgr::get_upload_config(); `type` is the
/// record's kind, the `type` of get_scan_info().
/// The result reaches `sink` through information_sink::on_response(): ret 0 when the service
/// answered "status" "success", 10 when it refused (`msg` holds its "result" text).
///
/// `id` names the connection in every report and in release_connect(). Give every open connection
/// a fresh id: a request under an id still open takes that id over, and the earlier one goes on
/// reporting under it, beyond release_connect()'s reach. `timeout` (ms) arms the time-out: a
/// ret 6 report follows every `timeout` ms until the answer begins to arrive; the request itself
/// is never abandoned for it. A `timeout` of 0 or less means no time-out at all.
/// @return 0, at once.
INFORMATION_API_EXPORT int upload_information(const QString& base_url, const QString& body, const QString& app_id,
    const QString& type, information_sink* sink, int id, int timeout);

/// Uploads a local file, a feedback attachment, as a multipart form.
///
/// POSTs `file_path` as the form part "file" (with its file name, as `application/octet-stream`,
/// streamed from disk) to `<base_url>?category=feedback&bucket=pub` with the header
/// `X-Auth-AppID: <app_id>`. `base_url` comes from VeltraInfoMgr::getUploadFileUrl(), `app_id`
/// from VeltraInfoMgr::get_upload_config(). On success the report's `result` holds the id the
/// service stored the file under ("dfs_id"); a refusal is ret 10 with the reply's error text (the
/// service's own text is not passed on). `id`, `sink` and `timeout` as for upload_information();
/// the time-out ends with the first bytes sent. `extra` is ignored.
///
/// Only a regular file is sent. One that is missing or unreadable, or is not a regular file (a
/// directory, a FIFO, a device, a kernel pseudo-file under /proc or /sys), is not sent and
/// nothing is reported: check the file first. The connection is registered all the same, so
/// release it.
/// @return 0, at once.
INFORMATION_API_EXPORT int upload_file(const QString& base_url, const QString& file_path, const QString& app_id,
    const QString& extra, information_sink* sink, const int id, int timeout);

/// Fetches the remote interface file of a software product.
///
/// GETs `<base_url>/software/<software>/interface.json?t=<0..999>` past every cache: the request
/// asks for a fresh copy, and the random `t` defeats caches between the host and the content
/// host. `base_url` comes from VeltraInfoMgr::get_domain_manger_url() and must not end in "/".
/// The report's `content` holds the parsed `QJsonDocument`; a document that is empty, an empty
/// array or object, or not JSON is ret 10. `id`, `sink` and `timeout` as for
/// upload_information().
/// @return 0, at once.
INFORMATION_API_EXPORT int get_url_json_file(
    const QString& base_url, const QString& software, information_sink* sink, const int id, int timeout);

/// Downloads an installer into `file_path`; download_verified() is the safer choice.
///
/// Deletes an existing `file_path` first, appends the body as it arrives to a temporary file named
/// by replacing the last four characters of `file_path` with ".temp" (setup.exe gives setup.temp,
/// setup.pkg too), and at the end renames that file to `file_path`. Progress arrives through
/// information_sink::on_download_progress(). What a host must know:
/// - A success is reported as on_download_finished(true, 0, 0) only after the worker thread has
///   slept 2 s, letting the last writes settle; every other connection waits meanwhile. The report
///   says success even when the rename failed or no byte arrived.
/// - A failure (network, TLS or HTTP error, or a URL the transport policy refuses) is not reported
///   at all and leaves the temporary file. There is no time-out.
/// - A temporary file left by an earlier download is appended to, not replaced, and nothing
///   checks the content: remove a leftover first.
///
/// `id` names the connection for release_connect(); the download reports carry no id.
/// @return 0, at once.
INFORMATION_API_EXPORT int downLoadApp(int id, information_sink* sink, const QString& url, const QString& file_path);

/// The worker thread; null before information_init() and after information_clean().
/// Exported for existing hosts: never change it.
extern INFORMATION_API_EXPORT api_thread* g_api_thread;
/// The record manager information_init() returned; null before it and after information_clean().
/// Exported for existing hosts: never change or delete it.
extern INFORMATION_API_EXPORT VeltraInfoMgr* g_information;
/// The open connections by id, as the request functions, release_connect() and
/// information_clean() keep them. Exported for existing hosts: never change it, and read it only
/// while no sink can call release_connect() (the lock that guards it is the library's own).
extern INFORMATION_API_EXPORT std::map<int, http_connector*> g_conn_manager;

}  // namespace information_api

Q_DECLARE_METATYPE(information_api::response_info_t)
