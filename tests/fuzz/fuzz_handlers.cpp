// Arbitrary service answers through the three response handlers. The first byte picks the
// handler and whether the reply carries a transport error; the rest is the body.
#include <information_api/json_handler.h>

#include <QBuffer>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QNetworkReply>

#include <glog/logging.h>

#include <functional>

using namespace information_api;

namespace {

// A finished reply with a given body, without a network.
class canned_reply : public QNetworkReply {
public:
    canned_reply(const QByteArray& body, bool failed)
    {
        setError(failed ? QNetworkReply::RemoteHostClosedError : QNetworkReply::NoError,
                 failed ? QStringLiteral("closed") : QString());
        setAttribute(QNetworkRequest::HttpStatusCodeAttribute, failed ? 500 : 200);
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

// Checks what every handler promises: one report, success only as (true, 0), a failure as (10, -2)
// with neither content nor result.
class checking_sink : public information_sink {
public:
    int reports = 0;
    void on_response(int, QVariant result) override
    {
        const response_info_t info = result.value<response_info_t>();
        const bool failure = info.ret == 10 && info.net_error == -2 && !info.content.isValid() && info.result.isEmpty();
        if (++reports > 1 || (info.ok ? info.ret != 0 : !failure))
            __builtin_trap();
    }
    void on_download_progress(qint64, qint64) override {}
    void on_download_finished(bool, int, int) override {}
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication app(*argc, *argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    FLAGS_minloglevel = 3;  // glog: fatal only
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray body(reinterpret_cast<const char*>(data) + 1, int(size - 1));
    canned_reply reply(body, data[0] & 0x80);
    checking_sink sink;
    const std::function<int(QNetworkReply*)> handlers[] = {upload_handler(&sink, 1), upload_file_handler(&sink, 1),
                                                           get_url_json_file_handler(&sink, 1)};
    handlers[data[0] % 3](&reply);
    if (sink.reports != 1)
        __builtin_trap();
    return 0;
}
