// The collector's ingest rate: 2,000 record uploads through the library, 16 in flight, each
// acknowledged only after its commit, against nginx answering a fixed success body over the same
// TLS settings and certificate (the HTTP ceiling), in the same run, taking turns. Also the server's
// CPU time per record, the client's, and the bytes per record on disk. PostgreSQL is measured when
// BENCH_DATABASE names one (tools/bench.sh runs this under pg_virtualenv).
#include <information_api/information_api.h>
#include <tools/collector/app_ids.h>
#include <tools/collector/data_folder.h>

#include <benchmark/benchmark.h>
#include <glog/logging.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <vector>

using namespace information_api;

namespace {

using steady = std::chrono::steady_clock;
const char* const kAppId = collector::kReleaseAppId;
constexpr int kRecords = 2000, kInFlight = 16;

// A record of the size a host sends, distinct per upload (the collector keeps duplicates once).
QString record(int n)
{
    return QString(R"({"seriaNum":"SN-%1","softwareName":"ExampleScan","softwareVer":"2.1.0","modelName":"S1",)"
                   R"("osSoftExt":{"osName":"Windows 11","lang":"de"},"tracingType":"usage","pad":"%2"})")
        .arg(n)
        .arg(QString(600, 'x'));
}

// User and system CPU time a process has used, in seconds.
double cpu_seconds(qint64 pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string field;
    double ticks = 0;
    for (int i = 1; i <= 15 && stat >> field; ++i)
        if (i == 14 || i == 15)
            ticks += std::stod(field);
    return ticks / double(sysconf(_SC_CLK_TCK));
}

class driver : public information_sink {
public:
    std::function<void(int, bool)> on_report;
    void on_response(int id, QVariant result) override
    {
        const bool ok = result.value<response_info_t>().ok;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [this, id, ok] { on_report(id, ok); }, Qt::QueuedConnection);
    }
    void on_download_progress(qint64, qint64) override {}
    void on_download_finished(bool, int, int) override {}
};

// Uploads kRecords records, kInFlight at once, numbered from `first`; records per second.
double upload_rate(const QString& url, int first, int& failures)
{
    driver sink;
    QEventLoop loop;
    int next = 0, done = 0;
    failures = 0;
    const auto issue = [&] {
        upload_information(url + "/dtta", record(first + next), kAppId, "usage", &sink, next, 30000);
        ++next;
    };
    sink.on_report = [&](int id, bool ok) {
        if (release_connect(id) != 0)
            return;
        failures += ok ? 0 : 1;
        if (++done == kRecords)
            loop.quit();
        else if (next < kRecords)
            issue();
    };
    const auto start = steady::now();
    while (next < kInFlight)
        issue();
    loop.exec();
    return kRecords / std::chrono::duration<double>(steady::now() - start).count();
}

struct server {
    QProcess process;
    QString url;
    qint64 pid() const { return process.processId(); }
    ~server()
    {
        process.terminate();
        process.waitForFinished(60000);
    }
};

QTemporaryDir& work()
{
    static QTemporaryDir dir(QDir::currentPath() + "/bench-collector-XXXXXX");
    return dir;
}

// information_collector serve on `database` (empty: SQLite in its data folder).
void start_collector(server& s, const QString& name, const QString& database)
{
    QStringList arguments{"serve", "--data-dir", work().path() + "/" + name};
    if (!database.isEmpty())
        arguments << "--database" << database;
    s.process.start(COLLECTOR_PATH, arguments);
    s.process.waitForReadyRead(30000);
    s.url = QString(s.process.readLine()).section(' ', 2).trimmed();
}

// nginx with the collector's certificate, TLS 1.2 and 1.3, one fixed success body for everything.
void start_nginx(server& s)
{
    const QString dir = work().path(), certs = dir + "/sqlite";
    QDir().mkpath(dir + "/nginx");
    QFile conf(dir + "/nginx/nginx.conf");
    conf.open(QIODevice::WriteOnly);
    conf.write(
        QString("daemon off; master_process off; error_log %1/nginx/error.log; pid %1/nginx/pid;\n"
                "events { worker_connections 1024; }\n"
                "http { access_log off; client_body_temp_path %1/nginx;\n"
                "  server { listen 127.0.0.1:18443 ssl; ssl_certificate %2/cert.pem; ssl_certificate_key %2/key.pem;\n"
                "    ssl_protocols TLSv1.2 TLSv1.3; keepalive_timeout 0;\n"
                "    location / { default_type application/json; return 200 "
                "'{\"status\":\"success\",\"result\":\"stored\"}'; } } }\n")
            .arg(dir, certs)
            .toUtf8());
    conf.close();
    s.process.start("nginx", {"-c", dir + "/nginx/nginx.conf", "-p", dir + "/nginx"});
    s.process.waitForStarted();
    s.url = "https://127.0.0.1:18443";
    QEventLoop wait;  // until it listens: it writes its pid file after binding
    for (int i = 0; i < 200 && !QFile::exists(dir + "/nginx/pid"); ++i)
        QTimer::singleShot(50, &wait, &QEventLoop::quit), wait.exec();
}

qint64 storage_bytes(const QString& name, const QString& database)
{
    if (database.isEmpty()) {
        qint64 bytes = 0;
        for (const char* suffix : {"", "-wal"})
            bytes += QFileInfo(work().path() + "/" + name + "/" + collector::data_folder::kRecords + suffix).size();
        return bytes;
    }
    QProcess psql;
    psql.start("psql", {"-Atc", "SELECT pg_total_relation_size('records')", database});
    psql.waitForFinished();
    return psql.readAllStandardOutput().trimmed().toLongLong();
}

void BM_collector_ingest(benchmark::State& state)
{
    const QString database = qEnvironmentVariable("BENCH_DATABASE");
    server sqlite, postgres, nginx;
    start_collector(sqlite, "sqlite", "");
    start_nginx(nginx);
    if (!database.isEmpty())
        start_collector(postgres, "postgresql", database);
    std::map<std::string, std::vector<double>> rate, cpu_us;
    int failures = 0, first = 0, stored = 0;
    information_init();
    for (auto _ : state) {
        std::vector<std::pair<std::string, server*>> turns{{"nginx", &nginx}, {"sqlite", &sqlite}};
        if (!database.isEmpty())
            turns.push_back({"postgresql", &postgres});
        std::rotate(turns.begin(), turns.begin() + (first / kRecords) % turns.size(),
            turns.end());  // taking turns at going first
        for (auto& [name, s] : turns) {
            const double cpu = cpu_seconds(s->pid()), mine = cpu_seconds(getpid());
            int failed = 0;
            rate[name].push_back(upload_rate(s->url, first, failed));
            cpu_us[name].push_back((cpu_seconds(s->pid()) - cpu) * 1e6 / kRecords);
            cpu_us[name + "_client"].push_back((cpu_seconds(getpid()) - mine) * 1e6 / kRecords);
            failures += failed;
            first += kRecords;
        }
        ++stored;
        state.SetIterationTime(kRecords / rate["sqlite"].back());
    }
    information_clean();
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    for (const auto& [name, rates] : rate) {
        state.counters[name + "_per_s"] = median(rates);
        state.counters[name + "_cpu_us"] = median(cpu_us[name]);
        state.counters[name + "_client_us"] = median(cpu_us[name + "_client"]);
        if (name != "nginx")
            state.counters[name + "_vs_nginx"] = median(rates) / median(rate["nginx"]);
    }
    state.counters["failures"] = failures;
    state.counters["sqlite_bytes_per_record"] = double(storage_bytes("sqlite", "")) / (stored * kRecords);
    if (!database.isEmpty())
        state.counters["postgresql_bytes_per_record"] =
            double(storage_bytes("postgresql", database)) / (stored * kRecords);
}

void discard_message(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

BENCHMARK(BM_collector_ingest)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    FLAGS_log_dir = work().path().toStdString();  // as in a host: glog writes to its files
    google::InitGoogleLogging(argv[0]);
    qInstallMessageHandler(discard_message);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
