#include "information_api/json_handler.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <glog/logging.h>

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>

#include <functional>

#include <sstream>
#include <string>

namespace information_api {

namespace pt = boost::property_tree;

bool json_nesting_exceeds(const char* text, std::size_t size, int limit)
{
    int depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < size; ++i) {
        const char c = text[i];
        if (in_string) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                in_string = false;
        } else if (c == '"') {
            in_string = true;
        } else if (c == '{' || c == '[') {
            if (++depth > limit)
                return true;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return false;
}

namespace {

response_info_t start_record(QNetworkReply* reply)
{
    response_info_t info;
    info.ok = true;
    info.ret = 0;
    info.net_error = reply->error();
    info.msg = reply->errorString();
    return info;
}

void mark_failed(response_info_t& info, QNetworkReply* reply)
{
    info.ok = false;
    info.ret = 10;
    info.net_error = -2;
    LOG(WARNING) << "error: failed response " << reply->errorString().toUtf8().constData();
}

void deliver(information_sink* sink, int id, const std::function<void(information_sink&)>& call)
{
    if (!sink || QThread::currentThread()->isInterruptionRequested())
        return;
    try {
        call(*sink);
    } catch (const std::exception& e) {
        LOG(WARNING) << "the sink of connection " << id << " threw: " << e.what();
    } catch (...) {
        LOG(WARNING) << "the sink of connection " << id << " threw";
    }
}

// Parses a service answer; throws what the reader throws, and refuses absurd nesting the same way.
pt::ptree parse_service_answer(const std::string& body)
{
    if (json_nesting_exceeds(body.data(), body.size(), kMaxJsonNesting))
        throw pt::json_parser_error("nesting too deep", "", 0);
    std::istringstream in(body);
    pt::ptree tree;
    pt::read_json(in, tree);
    return tree;
}

// An empty array or object counts as empty too: there is nothing in it to configure with.
bool is_empty_document(const QJsonDocument& document)
{
    return document.isEmpty() || (document.isArray() && document.array().isEmpty()) ||
           (document.isObject() && document.object().isEmpty());
}

void log_parse_exception(const std::string& body) { LOG(WARNING) << "error: json parse exception: " << body; }

}  // namespace

void report_response(information_sink* sink, int id, const response_info_t& info)
{
    deliver(sink, id, [&](information_sink& s) { s.on_response(id, QVariant::fromValue(info)); });
}

void report_download_progress(information_sink* sink, int id, qint64 received, qint64 total)
{
    deliver(sink, id, [&](information_sink& s) { s.on_download_progress(received, total); });
}

void report_download_end(information_sink* sink, int id, bool success, int code, int net_error)
{
    deliver(sink, id, [&](information_sink& s) { s.on_download_finished(success, code, net_error); });
}

json_handler::return_type json_handler::operator()(QNetworkReply* reply)
{
    const QByteArray bytes = reply->readAll();
    try {
        parse_service_answer(bytes.toStdString());
    } catch (const std::exception&) {
    }
    return 0;
}

json_handler::return_type json_handler::processing(QNetworkReply*) { return 0; }

json_handler::return_type upload_handler::operator()(QNetworkReply* reply)
{
    response_info_t info = start_record(reply);
    const std::string body = reply->readAll().toStdString();
    qDebug() << body.c_str();
    LOG(INFO) << "upload_handler:   response= " << body;

    std::string status = "failed";
    std::string result;
    try {
        const pt::ptree tree = parse_service_answer(body);
        status = tree.get<std::string>("status", "failed");
        result = tree.get<std::string>("result", "");
    } catch (const std::exception&) {
        log_parse_exception(body);
    }
    if (status != "success") {
        mark_failed(info, reply);
        if (!result.empty())
            info.msg = QString::fromStdString(result);
    }
    report_response(sink_, id_, info);
    return 0;
}

json_handler::return_type upload_file_handler::operator()(QNetworkReply* reply)
{
    response_info_t info = start_record(reply);
    const std::string body = reply->readAll().toStdString();
    LOG(INFO) << "upload_file_handler" << body;
    qDebug() << body.c_str();

    std::string status = "failed";
    try {
        const pt::ptree tree = parse_service_answer(body);
        status = tree.get<std::string>("status", "failed");
        LOG(INFO) << "err_info=" << status;
        if (status == "success") {
            const std::string dfs_id = tree.get<std::string>("result.dfs_id", "");
            LOG(INFO) << "dfs_id=" << dfs_id;
            info.result = QString::fromStdString(dfs_id);
        }
    } catch (const std::exception&) {
        log_parse_exception(body);
        status = "failed";
    }
    if (status != "success")
        mark_failed(info, reply);
    report_response(sink_, id_, info);
    return 0;
}

json_handler::return_type get_url_json_file_handler::operator()(QNetworkReply* reply)
{
    const int status_code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    LOG(INFO) << "status_code=" << status_code;
    qDebug() << "status_code=" << status_code;

    response_info_t info = start_record(reply);
    const QByteArray bytes = reply->readAll();
    std::string status = "failed";
    LOG(INFO) << "upload_file_handler" << bytes.toStdString();
    try {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
        qDebug() << "parse_error" << error.errorString();
        if (!is_empty_document(document) && !document.isNull()) {
            qDebug() << "ok" << error.errorString();
            LOG(INFO) << " json parse result : isEmpty=" << is_empty_document(document)
                      << "isNull=" << document.isNull() << "isArray=" << document.isArray();
            status = "success";
            info.content = QVariant::fromValue(document);
        } else {
            LOG(WARNING) << "error: json parse error : isEmpty=" << is_empty_document(document)
                         << "isNull=" << document.isNull();
            qDebug() << "failed" << error.errorString();
        }
    } catch (const std::exception&) {
        log_parse_exception(bytes.toStdString());
        status = "failed";
    }
    if (status != "success")
        mark_failed(info, reply);
    if (sink_) {
        const QJsonDocument document = info.content.toJsonDocument();
        LOG(INFO) << " json  pram   : isEmpty=" << is_empty_document(document) << "isNull=" << document.isNull()
                  << "isArray=" << document.isArray();
    }
    report_response(sink_, id_, info);
    return 0;
}

}  // namespace information_api
