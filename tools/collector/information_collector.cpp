// information_collector: receives the library's records and files and keeps them in a database;
// answers "success" only once a record is durable. Sub-commands serve, export, delete, purge, stats.
#include "app_ids.h"
#include "data_folder.h"
#include "certificates.h"
#include "dashboard.h"
#include "export.h"
#include "protocol.h"
#include "store.h"
#include "transport.h"

#include <information_api/information_api_version.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>

#include <algorithm>
#include <csignal>
#include <map>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace fs = std::filesystem;
using namespace collector;

namespace {

const char* const kDescription =
    "Receives what the library sends and keeps it in a database:\n"
    "  POST .../dtta?type=KIND   a record (a JSON object), answered \"success\" once it is durable\n"
    "  POST .../up               a multipart upload; the \"file\" part is kept, answered with its dfs_id\n"
    "  GET /software/NAME/interface.json, GET /files/PATH   files from the data folder\n"
    "\n"
    "Commands (each takes --data-dir DIR or --database URL):\n"
    "  serve [--listen ADDR:PORT] [--dashboard ADDR:PORT] [--tls-cert PEM --tls-key PEM] [--app-id ID]...\n"
    "        [--retention-days N]\n"
    "        prints \"listening on URL\" and writes the URL to DIR/url. Without --tls-cert it uses\n"
    "        its own local authority in DIR (ca.pem, cert.pem, key.pem) and prints the pin.\n"
    "        The dashboard (pages and JSON API) listens on --dashboard (127.0.0.1 on any free port),\n"
    "        with TLS like the records; it prints \"dashboard on URL\" and writes DIR/dashboard_url.\n"
    "  export [--kind K] [--since DATE] [--until DATE] [--format jsonl|csv]\n"
    "        one line per record; JSONL keys id, received_at, app_id, kind, sha256, record\n"
    "  delete --serial SN      removes every record of one device and prints how many\n"
    "  purge --older-than-days N   removes records received more than N days ago\n"
    "  stats [--kind K] [--since DATE] [--until DATE]   counts by kind, version and day\n"
    "\n"
    "Databases: sqlite:PATH (default DIR/records.sqlite3) or a libpq URI postgresql://...\n"
    "DATE is YYYY-MM-DD (--until includes that day) or YYYY-MM-DDThh:mm:ssZ.\n"
    "\n"
    "Data folder DIR:\n"
    "  records.sqlite3                the records (SQLite engine)\n"
    "  files/uploads/XX/SHA256        uploaded files, by content (never served)\n"
    "  files/PATH                     served as GET /files/PATH (installers)\n"
    "  software/NAME/interface.json   served as GET /software/NAME/interface.json\n"
    "  incoming/                      uploads still arriving (cleared at start)\n"
    "  ca.pem, cert.pem, key.pem      the local authority, the certificate for 127.0.0.1, its key\n"
    "  url                            the URL it listens on\n"
    "\n"
    "Exit status:\n"
    "  0   done; serve: stopped by SIGTERM or SIGINT once the requests in flight were answered\n"
    "  1   failure, with a message saying which\n"
    "  2   bad usage\n";

[[noreturn]] void usage_error(const std::string& message)
{
    std::fprintf(stderr, "information_collector: %s\n", message.c_str());
    std::exit(2);
}

[[noreturn]] void failure(const std::string& message)
{
    std::fprintf(stderr, "information_collector: %s\n", message.c_str());
    std::exit(1);
}

// "YYYY-MM-DD" (with `end_of_day`, the next day's start) or a full UTC time, as stored.
std::string to_timestamp(const QString& text, bool end_of_day, const char* option)
{
    static const QRegularExpression full("^\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}Z$");
    if (full.match(text).hasMatch())
        return text.toStdString();
    std::tm tm{};
    const std::string day = text.toStdString();
    const char* end = strptime(day.c_str(), "%Y-%m-%d", &tm);
    if (day.size() != 10 || !end || *end)
        usage_error(std::string("--") + option + " takes YYYY-MM-DD or YYYY-MM-DDThh:mm:ssZ");
    std::time_t t = timegm(&tm) + (end_of_day ? 86400 : 0);
    gmtime_r(&t, &tm);
    char out[32];
    std::strftime(out, sizeof out, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return out;
}

int serve(const QCommandLineParser& parser, const std::string& data_dir, const std::string& database,
    std::vector<std::string> app_ids, int retention_days)
{
    std::string error;
    if (!data_folder::prepare(data_dir, error))
        failure(error);

    const QString listen = parser.value("listen");
    const int colon = listen.lastIndexOf(':');
    bool port_ok = false;
    const int port = listen.mid(colon + 1).toInt(&port_ok);
    if (colon <= 0 || !port_ok || port < 0 || port > 65535)
        usage_error("--listen takes ADDR:PORT, PORT from 0 (any free one) to 65535");
    transport_options transport;
    transport.host = listen.left(colon).toStdString();
    transport.port = port;
    bool number_ok = false;
    transport.body_limit = parser.value("max-body-mb").toULongLong(&number_ok) << 20;
    if (!number_ok || transport.body_limit == 0)
        usage_error("--max-body-mb takes a positive number");
    transport.max_connections = parser.value("max-connections").toULongLong(&number_ok);
    if (!number_ok || transport.max_connections == 0)
        usage_error("--max-connections takes a positive number");

    tls_settings tls;
    const bool own_certificate = parser.isSet("tls-cert") || parser.isSet("tls-key");
    if (own_certificate && !(parser.isSet("tls-cert") && parser.isSet("tls-key")))
        usage_error("--tls-cert and --tls-key go together");
    if (own_certificate) {
        tls.cert_file = parser.value("tls-cert").toStdString();
        tls.key_file = parser.value("tls-key").toStdString();
    } else {
        tls.cert_file = data_folder::path(data_dir, data_folder::kCertificate);
        tls.key_file = data_folder::path(data_dir, data_folder::kKey);
        if (!ensure_local_certificates(data_dir, false, error))
            failure(error);
    }
    tls.prompt_ack = true;  // Qt's client would wait 40 ms for each delayed acknowledgement
    if (!(transport.tls = make_tls_context(tls, error)))
        failure(error);

    std::unique_ptr<record_store> store;
    try {
        store = open_store(database);
    } catch (const store_error& e) {
        failure(std::string("cannot open the database: ") + e.what());
    }
    protocol answers(protocol_options{data_dir, std::move(app_ids)}, store.get());

    // SIGTERM and SIGINT are taken by sigwait below, on this thread, whichever thread they reach.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    transport.early = [&answers](const std::shared_ptr<exchange>& ex) { return answers.answer_early(ex); };
    http_server server(transport, [&answers](exchange& ex) { answers.handle(ex); });
    if (!server.start(error))
        failure(error);
    const std::string url = "https://" + transport.host + ":" + std::to_string(server.port());
    {
        const std::string url_path = data_folder::path(data_dir, data_folder::kUrl);
        std::ofstream file(url_path);
        if (!(file << url << "\n").flush())
            failure("cannot write " + url_path);
    }
    std::printf("listening on %s\n", url.c_str());
    if (!own_certificate)
        std::printf("trust %s; public-key pin %s\n",
            data_folder::path(fs::absolute(data_dir), data_folder::kAuthority).c_str(),
            public_key_pin(tls.cert_file).c_str());
    std::fflush(stdout);
    dashboard_listener dashboard(*store, data_dir, transport.tls);
    if (!dashboard.start(parser.value("dashboard").toStdString(), error))
        failure(error);

    // Retention: at start, then daily.
    std::mutex mutex;
    std::condition_variable stopped;
    bool stopping = false;
    std::thread retention;
    if (retention_days > 0)
        retention = std::thread([&] {
            std::unique_lock<std::mutex> lock(mutex);
            do {
                lock.unlock();
                record_filter old;
                old.until = utc_timestamp(retention_days);
                try {
                    const std::int64_t n = store->remove(old);
                    std::printf(
                        "purged %lld records received before %s\n", static_cast<long long>(n), old.until.c_str());
                } catch (const store_error& e) {
                    std::fprintf(stderr, "information_collector: purge failed, tried again tomorrow: %s\n", e.what());
                }
                std::fflush(stdout);
                lock.lock();
            } while (!stopped.wait_for(lock, std::chrono::hours(24), [&] { return stopping; }));
        });

    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    std::printf("stopping (%s): answering the requests in flight\n", signal_number == SIGTERM ? "SIGTERM" : "SIGINT");
    std::fflush(stdout);
    server.stop(false);
    dashboard.stop();
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    stopped.notify_all();
    if (retention.joinable())
        retention.join();
    store.reset();
    std::printf("stopped\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("information_collector");
    QCoreApplication::setApplicationVersion(INFORMATION_API_VERSION_STRING);
    QCommandLineParser parser;
    parser.setApplicationDescription(kDescription);
    parser.addPositionalArgument("command", "serve, export, delete, purge or stats.");
    const QCommandLineOption help_option = parser.addHelpOption();
    const QCommandLineOption version_option = parser.addVersionOption();
    parser.addOptions({
        {"data-dir", "Data folder (collector-data).", "dir", "collector-data"},
        {"database", "sqlite:PATH or postgresql://... (default: sqlite:DIR/records.sqlite3).", "url"},
        {"listen", "serve: address and port (127.0.0.1:0, a free port).", "addr:port", "127.0.0.1:0"},
        {"dashboard",
            "serve: the dashboard's address and port (127.0.0.1:0); off loopback every request "
            "needs the token in DIR/dashboard.token.",
            "addr:port", "127.0.0.1:0"},
        {"tls-cert", "serve: the certificate chain (PEM) instead of the local authority's.", "pem"},
        {"tls-key", "serve: its private key (PEM).", "pem"},
        {"app-id", "serve: an accepted application id, repeatable (default: the library's two).", "id"},
        {"retention-days", "serve: remove records older than N days, at start and daily.", "n"},
        {"max-body-mb", "serve: largest body accepted, in MiB (64); larger ones get 413.", "n", "64"},
        {"max-connections", "serve: connections served at once (1024); more wait.", "n", "1024"},
        {"kind", "export, stats: only records of this kind.", "kind"},
        {"since", "export, stats: received on or after DATE.", "date"},
        {"until", "export, stats: received on or before DATE.", "date"},
        {"format", "export: jsonl (default) or csv.", "format", "jsonl"},
        {"serial", "delete: the device's serial number (seriaNum).", "sn"},
        {"older-than-days", "purge: records received more than N days ago.", "n"},
    });
    if (!parser.parse(app.arguments()))
        usage_error(parser.errorText().toStdString());
    if (parser.isSet(help_option))
        parser.showHelp(0);
    if (parser.isSet(version_option))
        parser.showVersion();
    const QStringList positional = parser.positionalArguments();
    if (positional.size() != 1)
        usage_error("name one command: serve, export, delete, purge or stats (see --help)");
    const QString command = positional.first();
    const std::map<QString, QStringList> allowed = {
        {"serve", {"listen", "dashboard", "tls-cert", "tls-key", "app-id", "retention-days", "max-body-mb",
                      "max-connections"}},
        {"export", {"kind", "since", "until", "format"}},
        {"delete", {"serial"}},
        {"purge", {"older-than-days"}},
        {"stats", {"kind", "since", "until"}},
    };
    const auto found = allowed.find(command);
    if (found == allowed.end())
        usage_error("unknown command \"" + command.toStdString() + "\" (serve, export, delete, purge, stats)");
    for (const QString& name : parser.optionNames())
        if (name != "data-dir" && name != "database" && !found->second.contains(name))
            usage_error("--" + name.toStdString() + " does not go with " + command.toStdString());

    const std::string data_dir = parser.value("data-dir").toStdString();
    const std::string database =
        parser.isSet("database") ? parser.value("database").toStdString() : data_folder::default_database(data_dir);
    const auto whole_number = [&](const char* option) {
        bool ok = false;
        const int n = parser.value(option).toInt(&ok);
        if (!ok || n < 1)
            usage_error(std::string("--") + option + " takes a whole number of days, 1 or more");
        return n;
    };
    record_filter filter;
    filter.kind = parser.value("kind").toStdString();
    if (parser.isSet("since"))
        filter.since = to_timestamp(parser.value("since"), false, "since");
    if (parser.isSet("until"))
        filter.until = to_timestamp(parser.value("until"), true, "until");

    if (command == "serve") {
        std::vector<std::string> app_ids;
        for (const QString& id : parser.values("app-id"))
            app_ids.push_back(id.toStdString());
        if (app_ids.empty())
            app_ids = {kTestAppId, kReleaseAppId};
        return serve(
            parser, data_dir, database, app_ids, parser.isSet("retention-days") ? whole_number("retention-days") : 0);
    }
    export_format format = export_format::jsonl;
    if (!parse_export_format(parser.value("format").toStdString(), format))
        usage_error("--format takes jsonl or csv");
    if (command == "delete" && parser.value("serial").isEmpty())
        usage_error("delete needs --serial SN");
    if (command == "purge" && !parser.isSet("older-than-days"))
        usage_error("purge needs --older-than-days N");
    const int older_than_days = command == "purge" ? whole_number("older-than-days") : 0;
    // The other commands read an existing database: they create no data folder.
    if (database.rfind("sqlite:", 0) == 0 && !fs::exists(database.substr(7)))
        failure("no database at " + database.substr(7));
    try {
        const std::unique_ptr<record_store> store = open_store(database);
        if (command == "export") {
            export_records(*store, filter, format, [](const std::string& line) {
                return std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
            });
        } else if (command == "delete") {
            record_filter device;
            device.serial = parser.value("serial").toStdString();
            std::printf("deleted %lld records of device %s\n", static_cast<long long>(store->remove(device)),
                device.serial.c_str());
        } else if (command == "purge") {
            record_filter old;
            old.until = utc_timestamp(older_than_days);
            std::printf("purged %lld records received before %s\n", static_cast<long long>(store->remove(old)),
                old.until.c_str());
        } else {  // stats
            std::printf("records: %lld\n", static_cast<long long>(store->count(filter)));
            for (const auto& [title, by] : {std::make_pair("kind", dimension::kind),
                     std::make_pair("version", dimension::version), std::make_pair("day", dimension::day)}) {
                std::printf("by %s:\n", title);
                auto rows = store->counts(filter, {by});
                if (by == dimension::day)  // days in order, the others largest first
                    std::sort(rows.begin(), rows.end(),
                        [](const count_row& a, const count_row& b) { return a.keys < b.keys; });
                for (const count_row& row : rows)
                    std::printf("  %-24s %lld\n", row.keys[0].empty() ? "(none)" : row.keys[0].c_str(),
                        static_cast<long long>(row.count));
            }
        }
    } catch (const store_error& e) {
        failure(e.what());
    }
    return 0;
}
