// What the network side costs the host: the caller's time per upload_information call, the
// throughput against libcurl over the same loopback HTTPS service, memory per connection and over
// many upload-and-release cycles, and 200 MB attachment uploads and installer downloads (peak
// memory and rate, against libcurl). Each figure comes with its baseline from the same run.
#include <information_api/information_api.h>
#include <information_api/queued_sink.h>
#include <tools/collection_service/collection_service.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <glog/logging.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSslConfiguration>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace information_api;

namespace {

using steady = std::chrono::steady_clock;
const char* const kAppId = collector::kReleaseAppId;
const QString kRecord =
    QString(R"({"seriaNum":"SN-0001","softwareName":"ExampleScan","tracingType":"usage","pad":"%1"})")
        .arg(QString(600, 'x'));

double micros(steady::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(std::vector<double> samples, double p)
{
    if (samples.empty())
        return std::nan("");
    std::sort(samples.begin(), samples.end());
    return samples[std::min(samples.size() - 1, std::size_t(p * double(samples.size())))];
}

long status_kib(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long value = 0;
    while (status >> key) {
        if (key == field) {
            status >> value;
            return value;
        }
        status.ignore(1 << 10, '\n');
    }
    return 0;
}

long rss_kib() { return status_kib("VmRSS:"); }

// Peak memory from here on: resets the kernel's high-water mark to the current RSS.
void reset_peak_rss() { std::ofstream("/proc/self/clear_refs") << "5"; }
long peak_rss_kib() { return status_kib("VmHWM:"); }

collection::collection_service make_service(bool prompt_ack)
{
    collection::service_options options;
    options.keep_limit = 4096;           // the service keeps no 200 MB body in this process
    options.max_body_size = 1ull << 30;  // and accepts the 200 MB attachments
    options.prompt_ack = prompt_ack;
    return collection::collection_service(options);
}

// A service that delays its acknowledgements as Linux does by default, and one that does not.
collection::collection_service& service(bool prompt_ack = false)
{
    static collection::collection_service delaying = make_service(false);
    static collection::collection_service prompt = make_service(true);
    return prompt_ack ? prompt : delaying;
}

QString record_url(bool prompt_ack = false) { return QString::fromStdString(service(prompt_ack).base_url() + "/dtta"); }

// Runs each report on the benchmark's thread, where the next upload is issued. The last byte is
// timed on the worker thread, where it arrives: queued, the progress reports would add their
// queue to the figures.
class driver : public queued_sink {
public:
    driver()
        : queued_sink(
              QCoreApplication::instance(), [this](int id, const response_info_t& info) { on_report(id, info.ok); }, {},
              [this](bool, int, int) { on_report(-1, true); })
    {}
    void on_download_progress(qint64 received, qint64 total) override
    {
        if (received == total && total > 0)
            last_byte = steady::now();
    }
    std::function<void(int, bool)> on_report;
    std::atomic<steady::time_point> last_byte{};
};

// Uploads `count` records with `in_flight` connections open at once; returns records per second.
double library_rate(int count, int in_flight, bool prompt_ack = false, int* failures = nullptr)
{
    driver sink;
    QEventLoop loop;
    int next = 0, done = 0, failed = 0;
    const auto issue = [&] {
        upload_information(record_url(prompt_ack), kRecord, kAppId, "usage", &sink, next, 30000);
        ++next;
    };
    sink.on_report = [&](int id, bool ok) {
        if (release_connect(id) != 0)
            return;  // a repeated report of a failure
        failed += ok ? 0 : 1;
        if (++done == count)
            loop.quit();
        else if (next < count)
            issue();
    };
    const auto start = steady::now();
    while (next < std::min(count, in_flight))
        issue();
    loop.exec();
    if (failures)
        *failures = failed;
    return count / std::chrono::duration<double>(steady::now() - start).count();
}

// The same POSTs through libcurl, a fresh connection each, from `in_flight` threads.
double curl_rate(int count, int in_flight, bool prompt_ack)
{
    const std::string url = service(prompt_ack).base_url() + "/dtta?type=usage";
    const std::string body = kRecord.toStdString();
    std::atomic<int> next{0};
    const auto worker = [&] {
        curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json;charset=utf-8");
        headers = curl_slist_append(headers, (std::string("X-Auth-AppID: ") + kAppId).c_str());
        while (next++ < count) {
            CURL* curl = curl_easy_init();
            curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
            curl_easy_setopt(curl, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2);
            curl_easy_setopt(
                curl, CURLOPT_WRITEFUNCTION, +[](char*, size_t size, size_t n, void*) { return size * n; });
            curl_easy_perform(curl);
            curl_easy_cleanup(curl);
        }
        curl_slist_free_all(headers);
    };
    const auto start = steady::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < in_flight; ++i)
        threads.emplace_back(worker);
    for (auto& t : threads)
        t.join();
    return count / std::chrono::duration<double>(steady::now() - start).count();
}

// The caller's side of upload_information, against a bare QNetworkAccessManager post of the
// same request on the same thread (what any Qt host pays at least). One request at a time, each
// waited for, so that the figures are the call's own and not the other core's load.
void BM_upload_call(benchmark::State& state)
{
    std::vector<double> calls, bare;
    double first_call = 0;
    driver sink;
    QEventLoop loop;
    sink.on_report = [&](int id, bool) {
        release_connect(id);
        loop.quit();
    };
    for (auto _ : state) {
        information_init();
        for (int i = 0; i < 300; ++i) {
            auto start = steady::now();
            upload_information(record_url(), kRecord, kAppId, "usage", &sink, i, 30000);
            const double us = micros(steady::now() - start);
            if (i == 0)
                first_call = us;
            else
                calls.push_back(us);
            loop.exec();

            start = steady::now();
            QNetworkAccessManager manager;
            QNetworkRequest request(QUrl(record_url() + "?type=usage"));
            request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json;charset=utf-8");
            request.setRawHeader("X-Auth-AppID", kAppId);
            QNetworkReply* reply = manager.post(request, kRecord.toUtf8());
            bare.push_back(micros(steady::now() - start));
            QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
            loop.exec();
        }
        information_clean();
        state.SetIterationTime(first_call * 1e-6);
    }
    state.counters["first_call_us"] = first_call;
    state.counters["median_us"] = percentile(calls, 0.5);
    state.counters["p99_us"] = percentile(calls, 0.99);
    state.counters["bare_post_median_us"] = percentile(bare, 0.5);
    state.counters["median_ratio"] = percentile(calls, 0.5) / percentile(bare, 0.5);
}

void BM_throughput(benchmark::State& state)
{
    const int in_flight = int(state.range(0));
    const bool prompt_ack = state.range(1) != 0;
    const int count = 1000;
    double library = 0, curl = 0;
    int failures = 0;
    information_init();
    for (auto _ : state) {
        curl = curl_rate(count, in_flight, prompt_ack);
        library = library_rate(count, in_flight, prompt_ack, &failures);
        state.SetIterationTime(count / library);
    }
    information_clean();
    state.counters["library_per_s"] = library;
    state.counters["curl_per_s"] = curl;
    state.counters["ratio"] = library / curl;
    state.counters["failures"] = failures;
}

void BM_memory(benchmark::State& state)
{
    information_init();
    for (auto _ : state) {
        // Connections held open: the service keeps every request unanswered.
        collection::reply silent;
        silent.silent = true;
        service().answer_all(silent);
        driver sink;
        sink.on_report = [](int, bool) {};
        const int open = 100;
        const long before_open = rss_kib();
        for (int id = 0; id < open; ++id)
            upload_information(record_url(), kRecord, kAppId, "usage", &sink, id, 60000);
        while (service().received_count() < std::size_t(open))
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        const double per_connection_kib = double(rss_kib() - before_open) / open;
        for (int id = 0; id < open; ++id)
            release_connect(id);
        service().release_silent();
        service().set_script(nullptr);

        // Upload-and-release cycles: growth between the first thousand and the ten thousandth.
        library_rate(1000, 16);
        service().clear_received();
        const long after_warm_up = rss_kib();
        for (int round = 0; round < 9; ++round) {
            library_rate(1000, 16);
            service().clear_received();
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const long after_cycles = rss_kib();
        state.counters["rss_per_connection_kib"] = per_connection_kib;
        state.counters["rss_growth_10k_cycles_kib"] = double(after_cycles - after_warm_up);
        state.counters["rss_after_warm_up_mib"] = after_warm_up / 1024.0;
        state.SetIterationTime(1);
    }
    information_clean();
}

constexpr qint64 kTransferBytes = 200ll << 20;

// A 200 MB file of varied bytes, made once.
const QString& big_file()
{
    static const QString path = [] {
        const QString p = QString::fromStdString(service().data_dir()) + "/files/installer.bin";
        QDir().mkpath(QFileInfo(p).path());
        QFile file(p);
        file.open(QIODevice::WriteOnly);
        QByteArray block(1 << 20, Qt::Uninitialized);
        for (int i = 0; i < block.size(); ++i)
            block[i] = char((i * 131) ^ (i >> 9));
        for (qint64 written = 0; written < kTransferBytes; written += block.size())
            file.write(block);
        return p;
    }();
    return path;
}

double mb_per_s(steady::duration d) { return kTransferBytes / 1e6 / std::chrono::duration<double>(d).count(); }

CURL* curl_for(const std::string& url)
{
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2 | CURL_SSLVERSION_MAX_TLSv1_2);
    return curl;
}

size_t discard(char*, size_t size, size_t n, void*) { return size * n; }
size_t to_file(char* data, size_t size, size_t n, void* file)
{
    return fwrite(data, size, n, static_cast<FILE*>(file)) * size;
}

// Rates in MB/s and peak RSS growth in KiB of the library's transfer and curl's.
void report_transfer(benchmark::State& state, double library, double curl, long library_peak, long curl_peak)
{
    state.counters["MBps"] = library;
    state.counters["curl_MBps"] = curl;
    state.counters["ratio"] = library / curl;
    state.counters["peak_rss_growth_MiB"] = library_peak / 1024.0;
    state.counters["curl_peak_rss_growth_MiB"] = curl_peak / 1024.0;
}

// upload_file of a 200 MB attachment, and curl posting the same multipart form.
void BM_attachment_upload(benchmark::State& state)
{
    const QString file = big_file();
    information_init();
    QThread::msleep(100);
    driver sink;
    QEventLoop loop;
    sink.on_report = [&](int id, bool) {
        release_connect(id);
        loop.quit();
    };
    double library = 0, curl = 0;
    long library_peak = 0, curl_peak = 0;
    for (auto _ : state) {
        const std::string url = service().base_url() + "/up?category=feedback&bucket=pub";
        long base = rss_kib();
        reset_peak_rss();
        auto start = steady::now();
        CURL* c = curl_for(url);
        curl_mime* form = curl_mime_init(c);
        curl_mimepart* part = curl_mime_addpart(form);
        curl_mime_name(part, "file");
        curl_mime_filedata(part, file.toLocal8Bit().constData());
        curl_mime_type(part, "application/octet-stream");
        curl_easy_setopt(c, CURLOPT_MIMEPOST, form);
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, discard);
        curl_easy_perform(c);
        curl_mime_free(form);
        curl_easy_cleanup(c);
        curl = mb_per_s(steady::now() - start);
        curl_peak = peak_rss_kib() - base;

        base = rss_kib();
        reset_peak_rss();
        start = steady::now();
        upload_file(QString::fromStdString(service().base_url() + "/up"), file, kAppId, "", &sink, 1, 60000);
        loop.exec();
        const auto elapsed = steady::now() - start;
        library = mb_per_s(elapsed);
        library_peak = peak_rss_kib() - base;
        service().clear_received();
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    information_clean();
    report_transfer(state, library, curl, library_peak, curl_peak);
}

// downLoadApp of a 200 MB installer, and curl writing the same file. The library settles for
// 2 s after the last byte before it renames the file; the rate counts up to the last byte.
void BM_installer_download(benchmark::State& state)
{
    big_file();
    information_init();
    QThread::msleep(100);
    driver sink;
    QEventLoop loop;
    sink.on_report = [&](int, bool) { loop.quit(); };
    double library = 0, curl = 0;
    long library_peak = 0, curl_peak = 0;
    const std::string url = service().base_url() + "/files/installer.bin";
    for (auto _ : state) {
        long base = rss_kib();
        reset_peak_rss();
        auto start = steady::now();
        FILE* out = std::fopen("curl-installer.bin", "wb");
        CURL* c = curl_for(url);
        curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, to_file);
        curl_easy_setopt(c, CURLOPT_WRITEDATA, out);
        curl_easy_perform(c);
        curl_easy_cleanup(c);
        std::fclose(out);
        curl = mb_per_s(steady::now() - start);
        curl_peak = peak_rss_kib() - base;

        base = rss_kib();
        reset_peak_rss();
        start = steady::now();
        downLoadApp(2, &sink, QString::fromStdString(url), "installer.exe");
        loop.exec();
        const auto elapsed = sink.last_byte.load() - start;
        library = mb_per_s(elapsed);
        library_peak = peak_rss_kib() - base;
        release_connect(2);
        state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
    }
    information_clean();
    report_transfer(state, library, curl, library_peak, curl_peak);
}

// A fresh process's first request, which pays for what Qt sets up once per process: the child
// (this program, run with kFirstCallChild set to "library" or "bare") starts, times
// information_init() and its first upload_information() (or a bare QNetworkAccessManager and its
// first post), waits for the answer and prints the times. QT_FATAL_WARNINGS makes any Qt warning
// end the child, so that a race over Qt's first registrations shows as a failed run.
const char* const kFirstCallChild = "BENCH_FIRST_CALL_CHILD";

int first_call_child(const QByteArray& mode, const QString& url)
{
    driver sink;
    QEventLoop loop;
    sink.on_report = [&](int, bool) { loop.quit(); };
    auto start = steady::now();
    double init_us = 0;
    if (mode == "library") {
        information_init();
        init_us = micros(steady::now() - start);
        start = steady::now();
        upload_information(url, kRecord, kAppId, "usage", &sink, 1, 30000);
    } else {
        auto* manager = new QNetworkAccessManager(&loop);
        QNetworkRequest request(QUrl(url + "?type=usage"));
        QSslConfiguration tls = request.sslConfiguration();
        tls.setPeerVerifyMode(QSslSocket::VerifyNone);
        request.setSslConfiguration(tls);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json;charset=utf-8");
        QObject::connect(manager->post(request, kRecord.toUtf8()), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    }
    const double first_us = micros(steady::now() - start);
    loop.exec();
    information_clean();
    std::printf("%f %f\n", init_us, first_us);
    return 0;
}

void BM_first_call_in_a_fresh_process(benchmark::State& state)
{
    const int runs = 200;
    std::vector<double> init, first, bare;
    int failed = 0;
    for (auto _ : state) {
        for (int i = 0; i < 2 * runs; ++i) {
            const bool library = i % 2 == 0;
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(kFirstCallChild, library ? "library" : "bare");
            env.insert("BENCH_URL", record_url());
            env.insert("QT_FATAL_WARNINGS", "1");
            child.setProcessEnvironment(env);
            child.start(QCoreApplication::applicationFilePath(), QStringList());
            if (!child.waitForFinished(60000) || child.exitStatus() != QProcess::NormalExit || child.exitCode() != 0) {
                ++failed;
                continue;
            }
            const QList<QByteArray> times = child.readAllStandardOutput().trimmed().split(' ');
            if (library) {
                init.push_back(times.value(0).toDouble());
                first.push_back(times.value(1).toDouble());
            } else {
                bare.push_back(times.value(1).toDouble());
            }
        }
        state.SetIterationTime(percentile(first, 0.5) * 1e-6);
    }
    state.counters["runs"] = runs;
    state.counters["failed_runs"] = failed;
    state.counters["init_median_us"] = percentile(init, 0.5);
    state.counters["first_call_median_us"] = percentile(first, 0.5);
    state.counters["first_call_max_us"] = percentile(first, 1.0);
    state.counters["bare_first_post_median_us"] = percentile(bare, 0.5);
    state.counters["first_call_ratio"] = percentile(first, 0.5) / percentile(bare, 0.5);
}

void discard_message(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

BENCHMARK(BM_first_call_in_a_fresh_process)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_upload_call)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);
// Second argument: 0 against a server delaying its acknowledgements, 1 against a prompt one.
BENCHMARK(BM_throughput)
    ->Args({1, 0})
    ->Args({16, 0})
    ->Args({1, 1})
    ->Args({16, 1})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_memory)->Iterations(1)->UseManualTime();
BENCHMARK(BM_attachment_upload)->Iterations(2)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_installer_download)->Iterations(2)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (qEnvironmentVariableIsSet(kFirstCallChild))
        return first_call_child(qgetenv(kFirstCallChild), qEnvironmentVariable("BENCH_URL"));
    QTemporaryDir work(QDir::current().absoluteFilePath("upload-XXXXXX"));
    QDir::setCurrent(work.path());
    FLAGS_log_dir = work.path().toStdString();  // as in a host: glog writes to its files
    google::InitGoogleLogging(argv[0]);
    qInstallMessageHandler(discard_message);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    for (bool prompt_ack : {false, true})
        if (!service(prompt_ack).start()) {
            std::fprintf(stderr, "collection service: %s\n", service(prompt_ack).error().c_str());
            return 1;
        }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    service(false).stop();
    service(true).stop();
    curl_global_cleanup();
    google::ShutdownGoogleLogging();
    return 0;
}
