// Response handlers: each turns one finished reply into one response_info_t for the caller's sink.
#pragma once

#include <information_api/information_api.h>

class QNetworkReply;

namespace information_api {

class json_handler {
public:
    typedef int return_type;

    json_handler(information_sink* sink, int id) : sink_(sink), id_(id) {}
    virtual ~json_handler() = default;
    // Called once when the reply has ended without a transport error.
    virtual return_type operator()(QNetworkReply* reply);
    // Called on every readyRead of a reply without error.
    virtual return_type processing(QNetworkReply* reply);

protected:
    information_sink* sink_;
    int id_;
};

// Record upload: the service answers {"status": "success" | ..., "result": text}.
class upload_handler : public json_handler {
public:
    using json_handler::json_handler;
    return_type operator()(QNetworkReply* reply) override;
};

// File upload: the service answers {"status": "success", "result": {"dfs_id": id}}.
class upload_file_handler : public json_handler {
public:
    using json_handler::json_handler;
    return_type operator()(QNetworkReply* reply) override;
};

// Remote interface file: any JSON document, handed to the caller as a QJsonDocument.
class get_url_json_file_handler : public json_handler {
public:
    using json_handler::json_handler;
    return_type operator()(QNetworkReply* reply) override;
};

// Every call into the host's sink goes through these. A null sink takes nothing. An exception
// the sink lets escape is logged and dropped: on its way through Qt's event loop it would end the
// host's process. After information_clean() was called from a sink on the worker thread, nothing
// more is delivered there.
void report_response(information_sink* sink, int id, const response_info_t& info);
void report_download_progress(information_sink* sink, int id, qint64 received, qint64 total);
void report_download_end(information_sink* sink, int id, bool success, int code, int net_error);

// Answers nested deeper than this are refused before the property_tree reader sees them: it
// recurses once per level with no limit, and real answers are a few levels deep.
constexpr int kMaxJsonNesting = 512;
bool json_nesting_exceeds(const char* text, std::size_t size, int limit);

}  // namespace information_api
