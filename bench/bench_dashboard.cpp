// The dashboard's summary over 10^4, 10^5 and 10^6 records in SQLite, spread over 56 days: the
// summary as the dashboard answers it (from the daily roll-up, once the first summary folded every
// record in) against the same figures counted from the records themselves (what it would cost
// without the roll-up), timed in the same iterations, taking turns at going first. Also one page
// of the records list, and what the roll-up's trigger costs a write.
#include "tools/collector/dashboard.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <QDir>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <random>

namespace {

using clock_type = std::chrono::steady_clock;

class fake_exchange : public collector::exchange {
public:
    explicit fake_exchange(std::string target)
    {
        request_.method = "GET";
        request_.target = target;
        request_.path = target.substr(0, target.find('?'));
    }
    const collector::http_request& request() const override { return request_; }
    body_state read_body(const std::function<void(const char*, std::size_t)>&) override { return body_state::complete; }
    void send(int status, const std::string&, const std::string& body, const collector::header_list&) override
    {
        status_ = status;
        body_ = body;
    }
    bool send_head(int status, const std::string&, std::uint64_t, const collector::header_list&) override
    {
        status_ = status;
        return true;
    }
    bool send_piece(const char* data, std::size_t size) override
    {
        body_.append(data, size);
        return true;
    }
    void abort(bool) override {}
    int status() const override { return status_; }
    std::string body_;

private:
    collector::http_request request_;
    int status_ = 0;
};

QTemporaryDir& folder()
{
    static QTemporaryDir dir;
    return dir;
}

// Adds `n` records received over the last 56 days in one transaction (the roll-up's triggers, if
// there, run for each).
void fill(const std::string& path, long n)
{
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(
        db, "PRAGMA synchronous=FULL; PRAGMA temp_store=MEMORY; BEGIN", nullptr, nullptr, nullptr);  // as the store
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
        "INSERT INTO records (received_at, app_id, kind, body, sha256, software_name, software_ver, "
        "model_name, os_name, serial, start_on, lang) VALUES (?1, 'app', ?2, ?3, ?4, 'ExampleScan', "
        "?5, ?6, ?7, ?8, '', ?9)",
        -1, &insert, nullptr);
    std::mt19937 random(42);
    const char* kinds[] = {"usage", "scan", "calibration", "share", "feedback"};
    const char* systems[] = {"Windows 10", "Windows 11", "macOS 14", "macOS 15"};
    const char* langs[] = {"en", "de", "zh", "ja", "fr"};
    const std::time_t now = std::time(nullptr);
    static long next_id = 0;  // the body hash must differ from every record's before
    for (long i = next_id; i < next_id + n; ++i) {
        const std::time_t at = now - std::time_t(random() % (56 * 86400));
        char when[32];
        std::tm tm{};
        gmtime_r(&at, &tm);
        std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
        const std::string values[] = {when, kinds[random() % 5], "{\"n\":" + std::to_string(i) + "}", std::to_string(i),
            "2." + std::to_string(random() % 12) + ".0", "K" + std::to_string(random() % 8), systems[random() % 4],
            "SN-" + std::to_string(random() % 5000), langs[random() % 5]};
        for (int v = 0; v < 9; ++v)
            sqlite3_bind_text(insert, v + 1, values[v].c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    next_id += n;
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

// A store of `n` records, reused across runs.
std::string store_of(long n)
{
    const std::string path = QDir(folder().path()).filePath(QString("records-%1.sqlite3").arg(n)).toStdString();
    if (!QFile::exists(QString::fromStdString(path))) {
        collector::open_store("sqlite:" + path);  // the schema
        fill(path, n);
    }
    return path;
}

double ms_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

// The figures of the default summary (28 days and the 28 before), counted from the records.
void count_from_records(collector::record_store& store)
{
    using collector::dimension;
    collector::record_filter current, previous;
    current.since = collector::utc_timestamp(27).substr(0, 10) + "T00:00:00Z";
    previous.since = collector::utc_timestamp(55).substr(0, 10) + "T00:00:00Z";
    previous.until = current.since;
    benchmark::DoNotOptimize(store.counts(current, {dimension::day, dimension::kind}));
    benchmark::DoNotOptimize(store.counts(previous, {dimension::kind}));
    for (const dimension d : {dimension::version, dimension::model, dimension::os, dimension::lang})
        benchmark::DoNotOptimize(store.counts(current, {d}, 10));
}

void summary(benchmark::State& state)
{
    const auto store = collector::open_store("sqlite:" + store_of(state.range(0)));
    collector::dashboard dashboard(*store, {});
    std::vector<double> rolled, counted, listed;
    const auto first = clock_type::now();  // folds every record in: they are all pending yet
    fake_exchange warm_up("/api/v1/summary");
    dashboard.handle(warm_up);
    state.counters["first_summary_ms"] = ms_since(first);
    for (auto _ : state) {
        const bool rolled_first = rolled.size() % 2 == 0;
        for (int turn = 0; turn < 2; ++turn) {
            const auto start = clock_type::now();
            if ((turn == 0) == rolled_first) {
                fake_exchange ex("/api/v1/summary");
                dashboard.handle(ex);
                if (ex.status() != 200)
                    state.SkipWithError("the summary failed");
                rolled.push_back(ms_since(start));
            } else {
                count_from_records(*store);
                counted.push_back(ms_since(start));
            }
        }
        const auto start = clock_type::now();
        fake_exchange ex("/api/v1/records?kind=scan&offset=1000");
        dashboard.handle(ex);
        listed.push_back(ms_since(start));
    }
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    state.counters["summary_ms"] = median(rolled);
    state.counters["counted_ms"] = median(counted);
    state.counters["summary/counted"] = median(rolled) / median(counted);
    state.counters["records_page_ms"] = median(listed);
}

// What the roll-up costs the writer: 20,000 records in one transaction into a store that holds
// `n`, against the same into a copy without the roll-up's insert trigger.
void insert(benchmark::State& state)
{
    std::vector<double> with, without;
    for (auto _ : state) {
        state.PauseTiming();
        const std::string plain = store_of(state.range(0)) + ".plain", counted = store_of(state.range(0)) + ".counted";
        for (const std::string& copy : {plain, counted}) {
            QFile::remove(QString::fromStdString(copy));
            QFile::copy(QString::fromStdString(store_of(state.range(0))), QString::fromStdString(copy));
        }
        sqlite3* db = nullptr;
        sqlite3_open(plain.c_str(), &db);
        sqlite3_exec(db, "DROP TRIGGER records_counted", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        state.ResumeTiming();
        for (int turn = 0; turn < 2; ++turn) {
            const bool plain_now = (turn == 0) == (with.size() % 2 == 0);
            const auto start = clock_type::now();
            fill(plain_now ? plain : counted, 20000);
            (plain_now ? without : with).push_back(ms_since(start));
        }
    }
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    state.counters["with_rollup_ms"] = median(with);
    state.counters["without_ms"] = median(without);
    state.counters["with/without"] = median(with) / median(without);
}

}  // namespace

BENCHMARK(summary)->Arg(10000)->Arg(100000)->Arg(1000000)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK(insert)->Arg(100000)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
