// What a record costs the host, and how the folder housekeeping grows with the folder.
//
// Every benchmark times its subject and its baselines in the same iterations, interleaved, so the
// reported ratios hold even while the disk or the other core is busy. The reported time is the
// subject's; the counters carry the medians per operation and their ratios.
#include <information_api/windows_information_imp.h>

#include <benchmark/benchmark.h>
#include <glog/logging.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

using namespace information_api;

namespace {

using steady = std::chrono::steady_clock;

double seconds_since(steady::time_point start) { return std::chrono::duration<double>(steady::now() - start).count(); }

// CPU time of this thread: separates what the builder computes from what the disk makes it wait.
double thread_cpu_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

double median(std::vector<double> samples)
{
    std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
    return samples[samples.size() / 2];
}

enum kind { calibration, share, structured_scan, flat_scan, feedback, score };

// Writes one record of a realistic size: a few calibration steps, two scanning modes, two modules.
void build(windows_information_imp& m, kind k)
{
    QString ver = "3.2.1", ple = "HX-2xK300.ple", model = "K300", modular = "turntable", start = "2026-11-15T13:04:07Z",
            end = "2026-11-15T13:09:41Z", text = "Scanned a molar crown; alignment was quick.";
    QStringList pls{"turntable.ple", "", "marker.ple"};
    switch (k) {
    case calibration: {
        QStringList mods{"camera", "camera", "turntable"}, classes{"intrinsic", "extrinsic", "turntable"},
            starts{start, start, start}, ends{end, end, end}, results{"ok", "ok", "retry"};
        m.create_calibrate_inifo(mods, ver, ple, model, modular, pls, start, end, classes, starts, ends, results, 1);
        break;
    }
    case share: {
        QString target = "cloud", name = "crown.stl", account = "lab@example.com";
        m.create_share_inifo(ple, model, modular, start, end, target, name, account, 1);
        break;
    }
    case structured_scan: {
        _tag_scan_info info;
        info.ple = ple;
        info.modelName = model;
        info.modular = modular;
        info.startOn = start;
        info.endOn = end;
        info.modes = {{start, end, "hd", "8", "on", {"marker", "feature"}, "turntable"},
            {start, end, "fast", "", "off", {"feature"}, "handheld"}};
        info.texture = "color";
        info.totalPoint = "1843200";
        info.pointDis = "0.05";
        info.length = "41.5";
        info.width = "12.25";
        info.height = "9.1";
        info.handHeldPointGenWay = "fusion";
        info.meshType = "watertight";
        info.fileName = "crown.stl";
        info.modularPles = pls;
        m.add_scan_info(info, 1);
        break;
    }
    case flat_scan: {
        QString h = "9.1", l = "41.5", w = "12.25", file = "crown.stl", way = "fusion", mesh = "watertight",
                align = "marker", cls = "hd", hdr = "on", dis = "0.05", tex = "color", pts = "1843200";
        m.create_scan_inifo(
            h, l, w, file, way, mesh, align, cls, hdr, modular, start, end, dis, tex, pts, "3686396", 1);
        break;
    }
    case feedback: {
        QString email = "lab@example.com", industry = "dental";
        QStringList attachs{"shot1.png", "shot2.png"};
        m.create_userfeedback_info(ple, ver, model, modular, pls, 1, email, industry, text, attachs);
        break;
    }
    case score:
        m.add_user_score("9", ple, ver, model, modular, "dental", 1);
        break;
    }
}

// The newest file of the record folder: the one the builder just wrote.
QString newest_record() { return QDir("veltrainfo").entryInfoList(QDir::Files, QDir::Time).value(0).filePath(); }

void bare_qsettings_write(const QString& path, const QByteArray& data, const QString& type)
{
    QSettings file(path, QSettings::IniFormat);
    file.setValue("data", data);
    file.setValue("type", type);
    file.sync();
}

// The least a durable replacement of the file can cost: temporary file, fdatasync, rename.
void raw_durable_write(const QByteArray& path, const QByteArray& bytes)
{
    const QByteArray temporary = path + ".tmp";
    const int fd = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::write(fd, bytes.constData(), size_t(bytes.size())) != bytes.size() || ::fdatasync(fd) != 0)
        std::abort();
    ::close(fd);
    ::rename(temporary.constData(), path.constData());
}

void BM_builder(benchmark::State& state, kind k)
{
    QTemporaryDir dir(QDir::current().absoluteFilePath("builder-XXXXXX"));
    QDir::setCurrent(dir.path());
    windows_information_imp m;
    m.setSoftwareName("Studio");
    m.setDeviceSerial("SN-0001");

    // The baselines write exactly the bytes the builder writes.
    build(m, k);
    const QString written = newest_record();
    QSettings record(written, QSettings::IniFormat);
    const QByteArray data = record.value("data").toByteArray();
    const QString type = record.value("type").toString();
    QFile file(written);
    file.open(QIODevice::ReadOnly);
    const QByteArray raw = file.readAll();
    bare_qsettings_write("veltrainfo/bare.ini", data, type);

    std::vector<double> builder, bare, durable, builder_cpu, bare_cpu;
    // Each operation pays for some of the disk work its predecessor left behind, so the three take
    // turns at going first.
    auto timed = [](std::vector<double>& wall, std::vector<double>* cpu, auto&& operation) {
        const auto start = steady::now();
        const double cpu_start = thread_cpu_seconds();
        operation();
        wall.push_back(seconds_since(start));
        if (cpu)
            cpu->push_back(thread_cpu_seconds() - cpu_start);
    };
    int turn = 0;
    for (auto _ : state) {
        for (int i = 0; i < 3; ++i) {
            switch ((turn + i) % 3) {
            case 0:
                timed(builder, &builder_cpu, [&] { build(m, k); });
                break;
            case 1:
                timed(bare, &bare_cpu, [&] { bare_qsettings_write("veltrainfo/bare.ini", data, type); });
                break;
            case 2:
                timed(durable, nullptr, [&] { raw_durable_write("veltrainfo/raw.ini", raw); });
                break;
            }
        }
        turn = (turn + 1) % 3;
        state.SetIterationTime(builder.back());
    }
    const double b = median(builder), q = median(bare), r = median(durable);
    state.counters["builder_us"] = b * 1e6;
    state.counters["qsettings_us"] = q * 1e6;
    state.counters["raw_us"] = r * 1e6;
    state.counters["vs_qsettings"] = b / q;
    state.counters["vs_raw"] = b / r;
    state.counters["cpu_extra_us"] = (median(builder_cpu) - median(bare_cpu)) * 1e6;
    state.counters["bytes"] = raw.size();
    QDir::setCurrent(QFileInfo(dir.path()).path());
}

// One folder of n record files per size, shared by the housekeeping benchmarks (neither deletes
// anything: no record is older than the default 30 days). Modification times spread over 29 days.
QString record_folder(int n)
{
    static std::map<int, std::unique_ptr<QTemporaryDir>> folders;
    auto& dir = folders[n];
    if (!dir) {
        dir = std::make_unique<QTemporaryDir>(QDir::current().absoluteFilePath(QString("records-%1-XXXXXX").arg(n)));
        QDir(dir->path()).mkdir("veltrainfo");
        const QDateTime now = QDateTime::currentDateTime();
        for (int i = 0; i < n; ++i) {
            QFile file(dir->path() + QString("/veltrainfo/%1.info2").arg(i, 8, 10, QChar('0')));
            if (!file.open(QIODevice::WriteOnly) || file.write("[General]\ntype=usage\n") <= 0 || !file.flush() ||
                !file.setFileTime(now.addSecs(-qint64(i) * 29 * 86400 / n), QFileDevice::FileModificationTime))
                std::abort();
        }
    }
    return dir->path();
}

// The straightforward listing, sorted by QDir itself, and the bare directory read beneath any listing.
QFileInfoList qdir_time_listing()
{
    return QDir("./veltrainfo/").entryInfoList(QStringList{"*.info2"}, QDir::Files, QDir::Time);
}

QFileInfoList unsorted_listing()
{
    return QDir("./veltrainfo/").entryInfoList(QStringList{"*.info2"}, QDir::Files, QDir::Unsorted);
}

template <typename Operation> void BM_housekeeping(benchmark::State& state, Operation operation)
{
    const QString previous = QDir::currentPath();
    QDir::setCurrent(record_folder(int(state.range(0))));
    QCoreApplication::instance()->setProperty("start_time", QDateTime::currentDateTime());
    windows_information_imp m;

    std::vector<double> subject, qdir_time, unsorted;
    for (auto _ : state) {
        auto start = steady::now();
        operation(m);
        subject.push_back(seconds_since(start));
        start = steady::now();
        benchmark::DoNotOptimize(qdir_time_listing());
        qdir_time.push_back(seconds_since(start));
        start = steady::now();
        benchmark::DoNotOptimize(unsorted_listing());
        unsorted.push_back(seconds_since(start));
        state.SetIterationTime(subject.back());
    }
    const double s = median(subject), q = median(qdir_time), u = median(unsorted);
    state.counters["qdir_time_ms"] = q * 1e3;
    state.counters["unsorted_ms"] = u * 1e3;
    state.counters["vs_qdir_time"] = s / q;
    state.counters["vs_unsorted"] = s / u;
    state.counters["us_per_file"] = s * 1e6 / double(state.range(0));
    QDir::setCurrent(previous);
}

void BM_get_upload_files(benchmark::State& state)
{
    BM_housekeeping(state, [](windows_information_imp& m) {
        QStringList files;
        m.get_upload_files(files);
        benchmark::DoNotOptimize(files);
    });
}

void BM_clear_timeout_file(benchmark::State& state)
{
    BM_housekeeping(state, [](windows_information_imp& m) { m.clear_timeout_file(); });
}

BENCHMARK_CAPTURE(BM_builder, calibration, calibration)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_builder, share, share)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_builder, structured_scan, structured_scan)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_builder, flat_scan, flat_scan)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_builder, feedback, feedback)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_builder, score, score)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_get_upload_files)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_clear_timeout_file)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

void discard_message(QtMsgType, const QMessageLogContext&, const QString&) {}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // As in a host: glog writes to its files, Qt's debug stream goes nowhere visible.
    QTemporaryDir logs(QDir::current().absoluteFilePath("logs-XXXXXX"));
    FLAGS_log_dir = logs.path().toStdString();
    google::InitGoogleLogging(argv[0]);
    qInstallMessageHandler(discard_message);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    google::ShutdownGoogleLogging();
    return 0;
}
