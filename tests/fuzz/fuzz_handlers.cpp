// Arbitrary service answers through the three response handlers. The first byte picks the
// handler and whether the reply carries a transport error; the rest is the body.
#include <information_api/json_handler.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QNetworkReply>

#include <glog/logging.h>

#include <cstring>

using namespace information_api;

namespace {

// A finished reply with a given body, without a network.
class canned_reply : public QNetworkReply {
public:
    canned_reply(const QByteArray& body, bool failed) : body_(body)
    {
        setError(failed ? QNetworkReply::RemoteHostClosedError : QNetworkReply::NoError,
                 failed ? QStringLiteral("closed") : QString());
        setAttribute(QNetworkRequest::HttpStatusCodeAttribute, failed ? 500 : 200);
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    }
    void abort() override {}
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return body_.size() - offset_ + QIODevice::bytesAvailable(); }

protected:
    qint64 readData(char* data, qint64 max) override
    {
        const qint64 n = qMin(max, qint64(body_.size()) - offset_);
        std::memcpy(data, body_.constData() + offset_, size_t(n));
        offset_ += n;
        return n;
    }

private:
    QByteArray body_;
    qint64 offset_ = 0;
};

// Checks what every handler promises: one report, success only as (true, 0), failure as (10, -2).
class checking_sink : public information_sink {
public:
    int reports = 0;
    void on_response(int, QVariant result) override
    {
        ++reports;
        const response_info_t info = result.value<response_info_t>();
        if (info.ok ? info.ret != 0 : (info.ret != 10 || info.net_error != -2))
            __builtin_trap();
        if (!info.ok && (info.content.isValid() || !info.result.isEmpty()))
            __builtin_trap();
    }
    void on_download_progress(qint64, qint64) override {}
    void on_download_finished(bool, int, int) override {}
};

void silence(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static QCoreApplication app(*argc, *argv);
    qInstallMessageHandler(silence);
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
    switch (data[0] % 3) {
    case 0: upload_handler(&sink, 1)(&reply); break;
    case 1: upload_file_handler(&sink, 1)(&reply); break;
    default: get_url_json_file_handler(&sink, 1)(&reply); break;
    }
    if (sink.reports != 1)
        __builtin_trap();
    return 0;
}
