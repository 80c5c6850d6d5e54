// Arbitrary service answers through the three response handlers: the first byte picks the
// handler, the rest is the body. A handler only sees replies that ended without a transport
// error (the connector reports those itself), so every reply here is one.
#include <information_api/json_handler.h>

#include <QBuffer>
#include <QNetworkReply>

#include <glog/logging.h>

#include <functional>

using namespace information_api;

namespace {

// A finished reply with a given body, without a network.
class canned_reply : public QNetworkReply {
public:
    explicit canned_reply(const QByteArray& body)
    {
        body_.setData(body);
        body_.open(QIODevice::ReadOnly);
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    }
    void abort() override {}

protected:
    qint64 readData(char* data, qint64 max) override { return body_.read(data, max); }

private:
    QBuffer body_;
};

class keeping_sink : public information_sink {
public:
    std::vector<response_info_t> reports;
    void on_response(int, QVariant result) override { reports.push_back(result.value<response_info_t>()); }
    void on_download_progress(qint64, qint64) override {}
    void on_download_finished(bool, int, int) override {}
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    FLAGS_minloglevel = 3;  // glog: fatal only
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    canned_reply reply(QByteArray(reinterpret_cast<const char*>(data), int(size)).mid(1));
    keeping_sink sink;
    const std::function<int(QNetworkReply*)> handlers[] = {
        upload_handler(&sink, 1), upload_file_handler(&sink, 1), get_url_json_file_handler(&sink, 1)};
    handlers[size > 0 ? data[0] % 3 : 0](&reply);
    // What every handler promises: one report (none: out_of_range, a crash too), a success as
    // (true, 0), a failure as (10, -2) with neither content nor result.
    const response_info_t info = sink.reports.at(0);
    const bool failure = info.ret == 10 && info.net_error == -2 && !info.content.isValid() && info.result.isEmpty();
    if (sink.reports.size() > 1 || (info.ok ? info.ret != 0 : !failure))
        __builtin_trap();
    return 0;
}
