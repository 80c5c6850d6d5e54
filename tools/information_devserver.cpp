// information_devserver: information_collector with development defaults (its local authority,
// its SQLite store in the data folder, a line per request) and switches that make it misbehave,
// to develop and demonstrate against. Lists what it kept with --list.
#include "collection_service/collection_service.h"
#include "collector/data_folder.h"
#include "collector/store.h"

#include <information_api/information_api_version.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

volatile std::sig_atomic_t stop_requested = 0;
void request_stop(int) { stop_requested = 1; }

const char* const kDescription =
    "information_collector with development defaults: answers POST .../dtta?type=KIND (records), "
    "POST .../up (multipart files), GET /software/NAME/interface.json and GET /files/PATH. HTTPS on "
    "127.0.0.1 with a certificate from its own local authority; prints the URL and writes it to "
    "DIR/url; one line per request on standard output. Keeps what it accepted in DIR as the "
    "collector does: information_collector export|stats --data-dir DIR reads it too.\n"
    "\n"
    "Data folder DIR:\n"
    "  ca.pem, cert.pem, key.pem    the local authority, the server's certificate (127.0.0.1,\n"
    "                               localhost) and its key (0600); made on first start\n"
    "  records.sqlite3              accepted records (SQLite)\n"
    "  files/uploads/XX/SHA256      accepted files, by content\n"
    "  incoming/                    files still arriving (cleared at start)\n"
    "  files/PATH                   served as GET /files/PATH (installers)\n"
    "  software/NAME/interface.json served as GET /software/NAME/interface.json\n"
    "  url                          the URL it listens on\n"
    "\n"
    "Uploading to it with verification (it prints the pin at start):\n"
    "  information_uploader --url $(cat DIR/url)/dtta --ca-file DIR/ca.pem --pin PIN\n"
    "\n"
    "Exit status: 0 stopped by SIGINT or SIGTERM; 1 cannot serve (the data folder cannot be made, "
    "the address is taken, DIR/url cannot be written: the message says which); 2 bad usage.";

// Accepted records in arrival order.
int list(const fs::path& data_dir)
{
    try {
        const auto store = collector::open_store(collector::data_folder::default_database(data_dir.string()));
        store->list({}, 0, 0, [](const collector::stored_record& r) {
            std::printf("%lld %s %s (%zu bytes)\n", static_cast<long long>(r.id), r.received_at.c_str(), r.kind.c_str(),
                r.body.size());
            return true;
        });
    } catch (const collector::store_error& e) {
        std::fprintf(stderr, "information_devserver: %s\n", e.what());
        return 1;
    }
    return 0;
}

void log_answer(const collection::received_request& request, int status)
{
    std::printf("%s %s %s -> %d (%ju bytes)\n", qPrintable(QDateTime::currentDateTime().toString(Qt::ISODate)),
        request.method.c_str(), request.target.c_str(), status, std::uintmax_t(request.body_size));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("information_devserver");
    QCoreApplication::setApplicationVersion(INFORMATION_API_VERSION_STRING);
    QCommandLineParser parser;
    parser.setApplicationDescription(kDescription);
    const QCommandLineOption help_option = parser.addHelpOption();
    const QCommandLineOption version_option = parser.addVersionOption();
    const QCommandLineOption data_option("data-dir", "Data folder (devserver-data).", "dir", "devserver-data");
    const QCommandLineOption host_option("host", "Address to listen on (127.0.0.1).", "host", "127.0.0.1");
    const QCommandLineOption port_option("port", "Port, 1-65535 (default: one the system picks).", "n");
    const QCommandLineOption http_option("http", "Plain HTTP instead of HTTPS.");
    const QCommandLineOption body_option(
        "max-body-mb", "Largest body accepted, in MiB (64); larger ones get 413.", "n", "64");
    const QCommandLineOption list_option("list", "List the accepted records and files in arrival order, then exit.");
    const QCommandLineOption delay_option("delay-ms", "Answer every request this late.", "ms");
    const QCommandLineOption silent_option("silent", "Never answer.");
    const QCommandLineOption refuse_option("refuse", "Refuse every request (\"status\" \"failed\").");
    const QCommandLineOption broken_option("broken", "Answer with a body that is not JSON.");
    const QCommandLineOption reset_option("reset", "Reset every connection halfway through the answer.");
    parser.addOptions({data_option, host_option, port_option, http_option, body_option, list_option, delay_option,
        silent_option, refuse_option, broken_option, reset_option});
    if (!parser.parse(app.arguments())) {
        std::fprintf(stderr, "information_devserver: %s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(help_option))
        parser.showHelp(0);
    if (parser.isSet(version_option))
        parser.showVersion();

    const auto number = [&](const QCommandLineOption& option, qulonglong low, qulonglong high, qulonglong& value) {
        bool ok = true;
        if (parser.isSet(option))
            value = parser.value(option).toULongLong(&ok);
        if (ok && value >= low && value <= high)
            return true;
        std::fprintf(stderr, "information_devserver: --%s takes a number from %llu to %llu\n",
            qPrintable(option.names().first()), low, high);
        return false;
    };
    collection::service_options options;
    options.data_dir = parser.value(data_option).toStdString();
    if (parser.isSet(list_option))
        return list(options.data_dir);
    qulonglong port = 0, max_body_mb = 64, delay_ms = 0;
    if ((parser.isSet(port_option) && !number(port_option, 1, 65535, port)) ||
        !number(body_option, 1, 1 << 20, max_body_mb) || !number(delay_option, 0, 3600000, delay_ms))
        return 2;
    options.host = parser.value(host_option).toStdString();
    options.port = int(port);
    options.tls = !parser.isSet(http_option);
    options.max_body_size = max_body_mb << 20;
    options.store_received = true;  // into the collector's store
    options.keep_limit = 4096;      // a long-running server keeps only a glimpse of each in memory,
    options.keep_requests = false;  // and no request once it has been answered and logged
    options.on_answer = log_answer;

    collection::reply misbehaviour;
    misbehaviour.delay = std::chrono::milliseconds(delay_ms);
    misbehaviour.silent = parser.isSet(silent_option);
    misbehaviour.reset_midway = parser.isSet(reset_option);
    if (parser.isSet(refuse_option))
        misbehaviour.body = R"({"status":"failed","result":"refused by --refuse"})";
    else if (parser.isSet(broken_option))
        misbehaviour.body = "<html>not JSON</html>";
    const bool misbehave = misbehaviour.silent || misbehaviour.reset_midway || !misbehaviour.body.empty();

    collection::collection_service service(options);
    if (misbehave) {
        if (misbehaviour.body.empty())
            misbehaviour.body = R"({"status":"success","result":"ok"})";
        service.answer_all(misbehaviour);
    } else if (delay_ms > 0) {
        // Delayed, but otherwise the real answers: the script only waits.
        service.set_script([delay = misbehaviour.delay](const collection::received_request&) {
            std::this_thread::sleep_for(delay);
            return std::optional<collection::reply>();
        });
    }
    if (!service.start()) {
        std::fprintf(stderr, "information_devserver: %s\n", service.error().c_str());
        return 1;
    }
    const std::string url_path = collector::data_folder::path(service.data_dir(), collector::data_folder::kUrl);
    std::ofstream url_file(url_path);
    if (!(url_file << service.base_url() << "\n").flush()) {
        std::fprintf(stderr, "information_devserver: cannot write %s\n", url_path.c_str());
        return 1;
    }
    std::printf("listening on %s\n", service.base_url().c_str());
    if (options.tls)
        std::printf("trust %s; public-key pin %s\n",
            collector::data_folder::path(fs::absolute(service.data_dir()), collector::data_folder::kAuthority).c_str(),
            service.public_key_pin().c_str());
    std::fflush(stdout);

    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    while (!stop_requested)
        pause();
    service.stop();
    return 0;
}
