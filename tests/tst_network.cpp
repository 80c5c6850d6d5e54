// Every request end to end against the local collection service: what goes on the wire, what the
// sink hears (on which thread, how often) and what a download leaves on disk, under the default
// transport and with verification on; the time-out, the registry and the worker thread's lifecycle.
#include "test_support.h"

#include <information_api/http.h>
#include <information_api/transport_security.h>

#include <atomic>
#include <optional>
#include <thread>

#include <sys/stat.h>

using namespace test_support;
using collection::reply;

enum class server { https, http, tls13_only, forger, stopped };
enum class policy { none, authority, authority_and_pin, wrong_pin, wrong_pin_only, system_store };
using request = std::function<void(const QString& base, information_sink* sink)>;
// One row of a request kind's table, which tst_network::exchange() runs.
struct exchange_row {
    server kind;
    collection::reply answer;
    policy settings;
    bool initialised;  // false: no worker, the caller's thread serves
    request call;
    QString sent, heard, left;  // wire(), told(), files()
};
Q_DECLARE_METATYPE(exchange_row)

class tst_network : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QLoggingCategory::setFilterRules("default.debug=false"); }  // 10 MB answers
    void registry_and_clean();  // first: nothing may have warmed the network stack before
    void cleanup() { clear_transport_security(); }
    void transport_settings();
    // clang-format off
    // One table per request kind, each row run by exchange().
    void record_uploads_data();         void record_uploads() { exchange(); }
    void time_outs_and_threads_data();  void time_outs_and_threads() { exchange(); }
    void file_uploads_data();           void file_uploads() { exchange(); }
    void interface_fetches_data();      void interface_fetches() { exchange(); }
    void downloads_data();              void downloads() { exchange(); }  // downLoadApp, download_verified
    void verification_data();           void verification() { exchange(); }
    // clang-format on
    void calls_from_inside_a_report();

private:
    void exchange();
};

namespace {

const QString kBody = QString::fromUtf8(R"({"seriaNum":"扫描仪-1","q":"a\"b=c;d,e"})");
const QByteArray kInstaller(3 << 20, 'i');

request record(int timeout = 10000, QString base_suffix = "/dtta", QString type = "usage", QString app_id = kAppId)
{
    return [=](const QString& base, information_sink* sink) {
        upload_information(base + base_suffix, kBody, app_id, type, sink, 1, timeout);
    };
}

// Binary, CRLF too; beside it a FIFO, which is never sent.
void write_attachment()
{
    write_file("in/scan report.bin", QByteArray("PK\3\4\0\xff\r\n", 8));
    mkfifo("in/fifo", 0600);
}

request file(QString path = "in/scan report.bin", int timeout = 10000)
{
    return [=](const QString& base, information_sink* sink) {
        write_attachment();
        upload_file(base + "/up", path, kAppId, "ignored", sink, 1, timeout);
    };
}

request fetch(int timeout = 10000)
{
    return [=](const QString& base, information_sink* sink) { get_url_json_file(base, "scan", sink, 1, timeout); };
}

// downLoadApp into `target`, over a "previous" file and beside a stale temporary file if given.
request download(QString target = "setup.exe", QByteArray stale_temp = {})
{
    return [=](const QString& base, information_sink* sink) {
        if (!stale_temp.isEmpty())
            write_file(target.chopped(4) + ".temp", stale_temp);
        if (QFileInfo(target).dir().exists())
            write_file(target, "previous");
        downLoadApp(1, sink, base + "/files/app.exe", target);
    };
}

// download_verified over "previous" app.exe, beside a leftover app.temp; "link.exe" a symbolic link to
// app.exe, "fifo.exe" a FIFO.
request verified(QString target = "app.exe", QByteArray expected = kInstaller, int timeout = 1000)
{
    return [=](const QString& base, information_sink* sink) {
        write_file("app.exe", "previous");
        write_file("app.temp", "leftover");
        if (target == "link.exe")
            QFile::link("app.exe", "link.exe");
        mkfifo("fifo.exe", 0600);
        const auto sha256 = QCryptographicHash::hash(expected, QCryptographicHash::Sha256).toHex();
        QCOMPARE(download_verified(1, sink, base + "/files/app.exe", target, sha256, timeout), 0);
    };
}

const reply real = answer("", 0);  // status 0: the service's own behaviour

// `r` with the base URL's scheme spelt otherwise.
request via(QString scheme, request r)
{
    return [=](const QString& base, information_sink* sink) { r(QString(base).replace("https", scheme), sink); };
}

std::string nested(int depth) { return std::string(size_t(depth), '[') + std::string(size_t(depth), ']'); }

// A successful answer padded to `size` bytes.
reply sized(std::size_t size, std::string json = R"({"status":"success"})")
{
    return answer(json.append(size - json.size(), ' '));
}

// Threads of network access managers (Qt names them so), each with its event loop's descriptors.
int manager_threads()
{
    int found = 0;
    for (QDirIterator it("/proc/self/task"); it.hasNext();)
        found += read_file(it.next() + "/comm").startsWith("QNetworkAccessM");
    return found;
}

time_t row_started;

// What the service received, one request per line; a fetch's cache-defeating number shown as <t> when
// it is rand() % 1000 after srand(time(nullptr)) in a second since the row started.
QString wire(const collection::collection_service& service)
{
    QStringList lines;
    for (const collection::received_request& r : service.received()) {
        QString line = QString::fromStdString(r.method + " " + r.target);
        for (time_t second = row_started; second <= time(nullptr); ++second) {
            srand(unsigned(second));
            line.replace(QRegularExpression(QString("t=%1$").arg(rand() % 1000)), "t=<t>");
        }
        for (const auto& [name, value] : r.headers)
            if (name.rfind("X-", 0) == 0 || name == "Content-Type" || name == "Cache-Control")
                line += QString::fromStdString(" " + name + ": ") +
                        QString::fromStdString(value).section(';', 0, r.parts.empty() ? -1 : 0);
        for (const collection::received_part& p : r.parts)
            line += QString::fromStdString(" [" + p.name + " " + p.filename + " " + p.content_type + " ") +
                    QByteArray::fromStdString(p.content).toHex() + "]";
        lines << line + (r.parts.empty() && r.body_size ? " " + QString::fromStdString(r.body) : "");
    }
    return lines.join('\n');
}

// What the sink heard for connection 1, and what the working directory holds (but in/).
QString told(const recording_sink& sink)
{
    QStringList said;
    for (const auto& r : sink.reports(1)) {
        const response_info_t& i = r.info;
        const QString result = QString(i.result).replace(QRegularExpression("^[0-9a-f]{24}$"), "<id>");
        const QByteArray content = i.content.toJsonDocument().toJson(QJsonDocument::Compact);
        said << QString("%1 %2 %3%4").arg(i.ok).arg(i.ret).arg(i.net_error).arg(i.msg.isEmpty() ? "" : " " + i.msg) +
                    (i.result.isEmpty() ? "" : " result " + result) +
                    (i.content.isValid() ? " content " + content : "");
    }
    for (const QString& f : sink.finished())
        said << "finished " + f;
    return said.join(" / ");
}

QString files()
{
    QStringList found;
    for (QDirIterator it(".", QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();)
        if (const QString path = it.next().mid(2); !path.startsWith("in/")) {
            const QByteArray bytes = read_file(path);
            found << path + "=" + (bytes.size() > 60 ? QString("<%1 bytes>").arg(bytes.size()) : QString(bytes));
        }
    found.sort();
    return found.join(' ');
}

// A row's expectation ends with "..." where more of the same may follow.
QString as_expected(const QString& actual, const QString& expected)
{
    return expected.endsWith("...") && actual.startsWith(expected.chopped(3)) ? expected : actual;
}

void columns() { QTest::addColumn<exchange_row>("row"); }

void row(const char* name, server kind, reply a, policy p, request call, QString sent, QString heard, QString left = "",
    bool initialised = true)
{
    QTest::newRow(name) << exchange_row{kind, a, p, initialised, call, sent, heard, left};
}

// `r` sent `size` bytes at a time, `pause_ms` apart.
reply paced(reply r, std::size_t size, int pause_ms)
{
    r.chunk_size = size;
    r.chunk_pause = std::chrono::milliseconds(pause_ms);
    return r;
}

const reply silent = [] {  // accepts the request and never answers
    reply r = answer("");
    r.silent = true;
    return r;
}();

const server https = server::https;
const policy none = policy::none;
const QString post =
    "POST /dtta?type=usage Content-Type: application/json;charset=utf-8 X-Auth-AppID: " + QString(kAppId) + " " + kBody;
const QString ok = "1 0 0 Unknown error", refused = "0 10 -2 Unknown error";
const QString get = "GET /software/scan/interface.json?t=<t> Cache-Control: must-revalidate,max-age=0;no-store";
const QString up = "POST /up?category=feedback&bucket=pub X-Auth-AppID: " + QString(kAppId) +
                   " Content-Type: multipart/form-data "
                   "[file scan report.bin application/octet-stream 504b030400ff0d0a]";
const QString app = "GET /files/app.exe";
const QString kept = "app.exe=previous app.temp=leftover";  // what a failed download_verified leaves
const reply installer = answer(kInstaller.toStdString(), 200, "application/octet-stream");

}  // namespace

void tst_network::transport_settings()
{
    // Settings that cannot be right are refused, and a verified download that cannot be right never starts.
    scoped_working_dir dir;
    write_file("no-certificate.pem", "");
    QCOMPARE(mkfifo("ca.fifo", 0600), 0);  // opening it would wait for a writer
    QCOMPARE(set_trusted_certificates("missing.pem"), -1);
    QCOMPARE(set_trusted_certificates("no-certificate.pem"), -1);
    QCOMPARE(set_trusted_certificates("ca.fifo"), -1);
    QCOMPARE(set_pinned_public_keys({"not base64!"}), -1);
    QCOMPARE(set_pinned_public_keys({QByteArray(31, 'x').toBase64()}), -1);
    QCOMPARE(set_pinned_public_keys({}), 0);
    const QString url = "https://127.0.0.1:1/x", hash(64, 'a');
    QCOMPARE(download_verified(1, nullptr, url, "x.bin", "abc", 1000), -1);
    QCOMPARE(download_verified(1, nullptr, url, "x.bin", hash + "\n", 1000), -1);
    QCOMPARE(download_verified(1, nullptr, url, "x.bin", hash, 0), -1);
    QCOMPARE(download_verified(1, nullptr, url, "", hash, 1000), -1);
    QVERIFY(g_conn_manager.empty());
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::record_uploads_data()
{
    columns();
    // The service's answers and the transport's failures.
    row("accepted", https, real, none, record(), post, ok);
    row("refused with a reason", https, answer(R"({"status":"failed","result":"配额已满"})"), none, record(), post,
        QString::fromUtf8("0 10 -2 配额已满"));
    row("refused without a reason", https, answer(R"({"status":"failed"})"), none, record(), post, refused);
    row("status spelled Success", https, answer(R"({"status":"Success"})"), none, record(), post, refused);
    row("no status", https, answer(R"({"result":"why"})"), none, record(), post, "0 10 -2 why");
    row("16 KiB answer", https, sized(16 << 10), none, record(), post, ok);
    row("nested 600 deep", https, answer(R"({"status":"success","x":)" + nested(600) + "}"), none, record(), post,
        refused);
    row("nested 400 deep is fine", https, answer(R"({"status":"success","x":)" + nested(400) + "}"), none, record(),
        post, ok);
    row("HTML error page: reported twice", https,
        answer("<html><body><h1>500 Internal Server Error</h1></body></html>", 500, "text/html"), none, record(), post,
        "0 7 401 / 0 7 401 Error transferring /dtta?type=usage - server replied: Internal Server Error");
    row("connection refused", server::stopped, real, none, record(), "", "0 7 1 / 0 7 1 Connection refused");
    row("TLS 1.3 only: TLS 1.2 is pinned", server::tls13_only, real, none, record(), "",
        "0 7 6 / 0 7 6 SSL handshake failed");
    row("default: a forger accepted, for any spelling of https", server::forger, real, none, via("hTtPs", record()),
        post, ok);
    row("CR LF in the app id: no header of its own", https, real, none,
        record(10000, "/dtta", "usage", "id\r\nX-Injected: 1"), QString(post).replace(kAppId, "idX-Injected: 1"),
        "0 10 -2 unknown application id");
    row("several parameters, each after a '?'", https, real, none, [](const QString& base, information_sink* sink) {
            auto* connector = g_conn_manager[1] = new http_connector(1, sink, nullptr);  // stays on this thread
            connector->send_request("", kBody, {{"type", "usage"}, {"a", "1"}}, 5000, "", true,
                                    {{"X-Auth-AppID", kAppId}}, base.toStdString() + "/dtta");
        }, QString(post).replace("/dtta?type=usage", "/dtta?a=1?type=usage"), ok, "", false);
    row("empty app id and type, a space escaped", https, real, none, record(10000, "/dtta", "scan mode", ""),
        QString(post).replace("type=usage", "type=scan%20mode").replace("X-Auth-AppID: " + QString(kAppId),
                                                                         "X-Auth-AppID: "),
        "0 10 -2 unknown application id");
    row("no sink", https, real, none, [](const QString& base, information_sink*) { record()(base, nullptr); }, post,
        "");
}
// clang-format on

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::time_outs_and_threads_data()
{
    columns();
    row("without init, on the caller's thread", https, real, none, record(), post, ok, "", false);
    // 800 ms in all, never 200 ms silent
    row("a drip slower than the time-out", https, paced(sized(2020), 100, 40), none, record(200), post, ok);
    // 0 would report on every turn of the loop, -1 warn
    row("time-out 0: none", https, silent, none, record(0), post, "");
    row("time-out -1: none", https, silent, none, file("in/scan report.bin", -1), up, "");
    row("silent: a time-out every interval", https, silent, none, record(100), post,
        "0 6 -1 timeout / 0 6 -1 timeout / 0 6 -1 timeout...");
    row("from a thread Qt did not start: the time-out runs on the worker", https, silent, none,
        [](const QString& base, information_sink* sink) { std::thread([&] { record(50)(base, sink); }).join(); }, post,
        "0 6 -1 timeout / 0 6 -1 timeout...");
    for (bool initialised : {true, false}) {  // a request that fails at once has no time-out after its end
        const char* where = initialised ? "worker" : "caller's thread";
        for (const auto& [what, call] : {std::pair{"upload", record(50)}, {"file", file("in/scan report.bin", 50)},
                                         {"fetch", fetch(50)}}) {
            const QString heard = QString(what == QString("file") ? "" : "0 7 301 / ") +
                                  "0 7 301 Protocol \"unknown\" is unknown";
            row(qPrintable(QString("unknown scheme, %1, %2").arg(what, where)), https, real, none,
                via("unknown", call), "", heard, "", initialised);
        }
    }
}
// clang-format on

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::file_uploads_data()
{
    columns();
    // One part, the last path component, only the first header; the stored file's id.
    row("file stored", https, real, none, file(), up, ok + " result <id>");
    row("file refused: the reason is not passed on", https, answer(R"({"status":"failed","result":"too big"})"), none,
        file(), up, refused);
    const reply too_long = sized((16 << 10) + 1, R"({"status":"success","result":{"dfs_id":"x"}})");
    row("file over 16 KiB answer: abandoned", https, too_long, none, file(), up,
        "0 7 5 answer larger than 16384 bytes, abandoned");
    // Only a regular file is sent; a request for another would time out.
    for (const char* path : {"no/such/file.zip", "/proc/self/status", "in/fifo"})
        row(qPrintable(QString("not a file: nothing sent: ") + path), https, real, none, file(path, 20), "", "");
    row("fields first, in key order, cut at NUL; only the first header", https, real, none,
        [](const QString& base, information_sink* sink) {  // the connector stays on this thread
            write_attachment();
            auto* connector = g_conn_manager[1] = new http_connector(1, sink, nullptr);
            connector->send_multipart_request("/up", "in/scan report.bin",
                                              {{"size", "12"}, {"name", QString("x") + QChar(0) + "y"}},
                                              {{"X-B", "2"}, {"X-A", "1"}}, 5000, base);
        }, "POST /up X-A: 1 Content-Type: multipart/form-data [name   78] [size   3132] "
           "[file scan report.bin application/octet-stream 504b030400ff0d0a]",
        ok + " result <id>", "", false);
}
// clang-format on

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::interface_fetches_data()
{
    columns();
    // Fetched past every cache; an empty document, array or object is no interface.
    row("interface object", https, answer(R"({"version":"2.1","notes":["a"]})"), none, fetch(), get,
        ok + R"( content {"notes":["a"],"version":"2.1"})");
    row("interface array of one", https, answer("[1]"), none, fetch(), get, ok + " content [1]");
    row("interface empty array", https, answer("[]"), none, fetch(), get, refused);
    row("interface empty object", https, answer("{}"), none, fetch(), get, refused);
    row("interface over 1 MiB: abandoned", https, sized((1 << 20) + 1, "[1]"), none, fetch(), get,
        "0 7 5 / 0 7 5 answer larger than 1048576 bytes, abandoned");
    row("interface missing", https, real, none, fetch(), get, "0 7 203 / 0 7 203 ...");
}
// clang-format on

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::downloads_data()
{
    columns();
    // downLoadApp: through <target minus four characters>.temp, reporting only success.
    const QString done = "finished 1 0 0";
    row("installer", https, installer, none, download(), app, done, "setup.exe=<3145728 bytes>");
    row("a stale temporary file is appended to", https, answer("NEW", 200, "application/octet-stream"), none,
        download("setup.pkg", "OLD"), app, done, "setup.pkg=OLDNEW");
    row("zero-byte installer: success, no file", https, answer("", 200, "application/octet-stream"), none, download(),
        app, done, "");
    row("target cannot be written: success", https, installer, none, download("no-such-dir/app.exe"), app, done, "");
    row("404: the error page kept, no report", https, real, none, download("a.b"), app, "",
        ".temp=<html><body><h1>404 Not Found</h1></body></html>");  // the target deleted first

    // download_verified: committed only for a 2xx answer with the right SHA-256; exactly one end.
    row("verified", https, installer, none, verified(), app, "finished 1 0 0",
        "app.exe=<3145728 bytes> app.temp=leftover");
    row("hash mismatch", https, installer, none, verified("app.exe", "other"), app, "finished 0 9 0", kept);
    row("300: not a redirect, no installer", https, answer(kInstaller.toStdString(), 300), none, verified(), app,
        "finished 0 7 0", kept);
    row("folder cannot be written", https, installer, none, verified("no-such-dir/app.exe"), "", "finished 0 8 0",
        kept);
    // Only a regular file is replaced.
    row("not a file: link.exe", https, installer, none, verified("link.exe"), "", "finished 0 8 0",
        kept + " link.exe=previous");
    row("not a file: fifo.exe", https, installer, none, verified("fifo.exe"), "", "finished 0 8 0", kept);
    row("silent server", https, silent, none, verified(), app, "finished 0 6 -1", kept);
    reply redirect = answer("", 302);
    redirect.headers = {{"Location", "http://127.0.0.1:1/files/app.exe"}};
    row("redirect off https", https, redirect, none, verified(), app, "finished 0 7 11", kept);
    row("released while under way: cancelled, nothing left, no report", https, paced(installer, 4096, 20), none,
        [](const QString& base, information_sink* sink) {
            verified()(base, sink);
            QTRY_VERIFY(!static_cast<recording_sink*>(sink)->progress().empty());
            QCOMPARE(release_connect(1), 0);
        }, app, "", kept);
}
// clang-format on

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_network::verification_data()
{
    columns();
    // Opt-in: the chain, the host name, pins, https only; refused before a byte of the request.
    const QString tls = "0 7 6 / 0 7 6 SSL handshake failed: The certificate is self-signed, and untrusted";
    const policy ca = policy::authority;
    row("the right chain, https in capitals", https, real, ca, via("HTTPS", record()), post, ok);
    row("the right chain and pin", https, real, policy::authority_and_pin, file(), up, ok + " result <id>");
    row("forger refused: record", server::forger, real, ca, record(), "", tls);
    row("forger refused: interface", server::forger, real, ca, fetch(), "", tls);
    row("forger refused: download", server::forger, installer, ca, download(), "", "", "");
    row("forger refused: verified download", server::forger, installer, ca, verified(), "", "finished 0 7 6", kept);
    row("pinned out: record", https, real, policy::wrong_pin, record(), "", "0 7 6 / 0 7 6 public key pin mismatch");
    row("pinned out without a chain: file", https, real, policy::wrong_pin_only, file(), "",
        "0 7 6 public key pin mismatch");
    row("plain http refused unsent", server::http, real, ca, record(), "",
        "0 7 302 refused to send: only https is allowed while server verification is on");
    row("the system store knows no local authority", https, real, policy::system_store, fetch(), "",
        "0 7 6 / 0 7 6 ...");
}
// clang-format on

void tst_network::exchange()
{
    QFETCH(const exchange_row, row);
    const auto& [kind, answer, settings, initialised, call, sent, heard, left] = row;
    recording_sink sink;
    sink.then = [](int) { throw std::runtime_error("host bug"); };  // a faulty host: later reports still come
    scoped_working_dir dir;
    const auto clean = qScopeGuard([] { information_clean(); });  // before the sink goes
    QThread* const reporter = initialised && information_init() ? g_api_thread : QThread::currentThread();

    const auto genuine = start_service();
    collection::service_options options;
    options.tls = kind != server::http;
    options.tls13_only = kind == server::tls13_only;
    options.self_signed = kind == server::forger;
    const auto other = kind == server::https ? nullptr : start_service(options);
    collection::collection_service& service = other ? *other : *genuine;
    if (answer.status != 0)
        service.answer_all(answer);
    const QString base = QString::fromStdString(service.base_url());
    if (kind == server::stopped)
        service.stop();
    const QString pin = QString::fromStdString(genuine->public_key_pin()), fake_pin = QByteArray(32, 'x').toBase64();
    const QString authority = QString::fromStdString(genuine->data_dir() + "/ca.pem");
    if (settings != policy::none && settings != policy::wrong_pin_only)
        QCOMPARE(set_trusted_certificates(settings == policy::system_store ? "" : authority), 0);
    if (settings == policy::authority_and_pin || settings == policy::wrong_pin || settings == policy::wrong_pin_only)
        QCOMPARE(set_pinned_public_keys(
                     settings == policy::authority_and_pin ? QStringList{fake_pin, pin} : QStringList{fake_pin}),
            0);

    row_started = time(nullptr);
    call(base, &sink);
    QTRY_COMPARE_WITH_TIMEOUT(wire(service).replace(base, ""), sent, 20000);
    QTRY_COMPARE_WITH_TIMEOUT(as_expected(told(sink).replace(base, ""), heard), heard, 20000);
    QTRY_COMPARE_WITH_TIMEOUT(files(), left, 20000);
    QTest::qWait(100);  // and nothing more follows
    QCOMPARE(as_expected(told(sink).replace(base, ""), heard), heard);
    QCOMPARE(wire(service).replace(base, ""), sent);
    for (const auto& r : sink.reports(1))
        QCOMPARE(r.thread, reporter);
    const auto progress = sink.progress();
    for (std::size_t i = 1; i < progress.size(); ++i)
        QVERIFY(progress[i].first >= progress[i - 1].first && progress[i].first <= progress[i].second);
    release_connect(1);
    if (heard.endsWith("...")) {  // released, it reports no more
        const std::size_t reports = sink.total();
        QTest::qWait(250);
        QCOMPARE(sink.total(), reports);
    }
}

void tst_network::registry_and_clean()
{
    recording_sink sink;
    scoped_working_dir dir;
    QCOMPARE(information_clean(), 0);  // without init: nothing to do
    QCOMPARE(release_connect(0), -1);  // empty registry
    // Qt registers its network types with a process's first network access manager. The worker does
    // that as it starts and information_init() waits for it: the host's first request neither pays
    // for it nor races the worker over the registrations.
    QCOMPARE(QMetaType::type("QPair<QByteArray,QByteArray>"), int(QMetaType::UnknownType));
    VeltraInfoMgr* manager = information_init();
    QVERIFY(QMetaType::type("QPair<QByteArray,QByteArray>") != QMetaType::UnknownType);
    QVERIFY(manager && information_init() == manager && g_api_thread->isRunning());
    auto service = start_service();
    service->set_script([](const collection::received_request& r) {
        reply a = paced(answer(std::string(1 << 20, 'i')), 4096, 20);  // a download, silence for the rest
        a.silent = r.path != "/installer";
        return std::optional<reply>(a);
    });
    for (int id : {-5, 0, 8})
        upload_information(record_url(*service), "{}", kAppId, "t", &sink, id, 50);
    http_connector* first = g_conn_manager.at(8);
    upload_information(record_url(*service), "{}", kAppId, "t", &sink, 8, 50);  // takes over the entry
    QVERIFY(g_conn_manager.size() == 3 && g_conn_manager.at(8) != first);
    first->deleteLater();  // unreachable through the registry now
    QCOMPARE(release_connect(1), -1);
    QCOMPARE(release_connect(-5), 0);
    QCOMPARE(release_connect(-5), -1);  // released already
    downLoadApp(9, &sink, QString::fromStdString(service->base_url()) + "/installer", "app.exe");
    QTRY_VERIFY(sink.reports(0).size() > 1 && !sink.progress().empty());  // time-outs and a download under way

    QThread* worker = g_api_thread;
    QCOMPARE(information_clean(), 0);
    const std::size_t reports = sink.total(), progress = sink.progress().size();
    QVERIFY(worker->isFinished() && g_conn_manager.empty() && !g_api_thread && !g_information);
    service->release_silent();
    QCoreApplication::processEvents();
    QVERIFY(sink.total() == reports && sink.progress().size() == progress);  // no sink call after it
}

void tst_network::calls_from_inside_a_report()
{
    recording_sink sink;
    scoped_working_dir dir;
    information_init();
    auto service = start_service();
    // A host ends each connection from its own report while its thread opens more.
    std::atomic<int> released{0};
    sink.then = [&](int id) { released += release_connect(id) == 0; };
    int opened = 0;
    while (released < 50 && opened < 500)
        upload_information(record_url(*service), "{}", kAppId, "usage", &sink, opened++, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(released.load(), opened, 60000);

    // ... or ends the library from a report (the first of a refused request's two): no report
    // follows, not even that request's second, and the library can start again.
    const QString refused = record_url(*start_service());  // gone again
    std::atomic<std::size_t> after_clean{0};
    sink.then = [&](int id) {
        if (id == 3019 && after_clean == 0) {
            information_clean();
            after_clean = sink.total();
        }
    };
    for (int id = 3000; id < 3020; ++id)
        upload_information(refused, "{}", kAppId, "usage", &sink, id, 5000);
    QTRY_VERIFY(after_clean > 0);
    QTest::qWait(200);
    QCOMPARE(sink.total(), after_clean.load());
    QCOMPARE(sink.reports(3019).size(), std::size_t(1));
    QVERIFY(!g_api_thread && !g_information && g_conn_manager.empty());
    sink.then = nullptr;
    QVERIFY(information_init());
    upload_information(record_url(*service), "{}", kAppId, "usage", &sink, 4000, 5000);
    QTRY_VERIFY(sink.reports(4000).size() == 1 && sink.reports(4000).front().info.ok);
    QTRY_COMPARE(manager_threads(), 0);  // a finished connection holds no thread before its release
    information_clean();
}

QTEST_GUILESS_MAIN(tst_network)
#include "tst_network.moc"
