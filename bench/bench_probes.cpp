// What the machine description costs the host: the manager's constructor (which information_init()
// runs on the host's thread) in fresh processes, with the probes and without them (a process named
// "information_uploader" skips them), and each probe's first call alone.
//
// Every child is this program, started with kChild set; it is a QGuiApplication on the offscreen
// platform, as a host has a screen. The parent interleaves the three kinds of child, so the
// medians share whatever the machine was doing.
#include <information_api/linux_machine_info.h>
#include <information_api/windows_information_imp.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QGuiApplication>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

using namespace information_api;

namespace {

using steady = std::chrono::steady_clock;

const char* const kChild = "BENCH_PROBES_CHILD";  // "with", "without", "each", "mapped" or "read"

double micros_since(steady::time_point start)
{
    return std::chrono::duration<double, std::micro>(steady::now() - start).count();
}

double median(std::vector<double> samples)
{
    if (samples.empty())
        return std::nan("");
    std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
    return samples[samples.size() / 2];
}

// Naming two adapters (a vendor near the end of the PCI ID database, one near its start) with the
// database mapped or read whole: what the GPU probe adds once it finds a display controller.
double two_names(bool mapped)
{
    const auto start = steady::now();
    QFile database("/usr/share/misc/pci.ids");
    if (!database.open(QIODevice::ReadOnly))
        return std::nan("");
    const QByteArray ids =
        mapped ? QByteArray::fromRawData(
                     reinterpret_cast<const char*>(database.map(0, database.size())), int(database.size()))
               : database.readAll();
    benchmark::DoNotOptimize(linux_machine::pci_name(ids, 0x8086, 0x3e92).size());
    benchmark::DoNotOptimize(linux_machine::pci_name(ids, 0x10de, 0x2684).size());
    return micros_since(start);
}

// Prints the microseconds of the constructor ("with", "without"), of each probe ("each") or of
// two names ("mapped", "read").
int child(const QByteArray& mode)
{
    if (mode == "mapped" || mode == "read")
        return std::printf("%f\n", two_names(mode == "mapped")) < 0;
    // The constructor's time stamps load the time zone once per process, probes or not: done first
    // so that the difference is the probes'.
    (void)QDateTime::currentDateTime().toString();
    if (mode != "with")
        QCoreApplication::setApplicationName("information_uploader");
    auto start = steady::now();
    windows_information_imp manager;
    const double constructor = micros_since(start);
    if (mode != "each")
        return std::printf("%f\n", constructor) < 0;
    QString a, b, c;
    QStringList models, sizes;
    double each[6];
    start = steady::now();
    manager.get_os_info(a, b, c);
    each[0] = micros_since(start), start = steady::now();
    manager.get_install_info(a, b, c);
    each[1] = micros_since(start), start = steady::now();
    manager.get_cpu_info(a, b);
    each[2] = micros_since(start), start = steady::now();
    manager.get_memory_info(a);
    each[3] = micros_since(start), start = steady::now();
    manager.get_gpu_info(models, sizes);
    each[4] = micros_since(start), start = steady::now();
    manager.get_gpu_info(models, sizes);  // again: the walk itself, without first-call costs
    each[5] = micros_since(start);
    return std::printf("%f %f %f %f %f %f\n", each[0], each[1], each[2], each[3], each[4], each[5]) < 0;
}

void BM_probes_in_a_fresh_process(benchmark::State& state)
{
    const int runs = 200;
    const char* const modes[] = {"with", "without", "each", "mapped", "read"};
    std::vector<double> with, without, each[6], mapped, read;
    int failed = 0;
    QTemporaryDir runtime;  // for the platform plugin
    for (auto _ : state) {
        for (int i = 0; i < 5 * runs; ++i) {
            const QString mode = modes[i % 5];
            QProcess process;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(kChild, mode);
            env.insert("QT_QPA_PLATFORM", "offscreen");
            env.insert("XDG_RUNTIME_DIR", runtime.path());
            process.setProcessEnvironment(env);
            process.start(QCoreApplication::applicationFilePath(), QStringList());
            if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
                process.exitCode() != 0) {
                ++failed;
                continue;
            }
            const QList<QByteArray> times = process.readAllStandardOutput().trimmed().split(' ');
            if (mode == "with")
                with.push_back(times.value(0).toDouble());
            else if (mode == "without")
                without.push_back(times.value(0).toDouble());
            else if (mode == "mapped")
                mapped.push_back(times.value(0).toDouble());
            else if (mode == "read")
                read.push_back(times.value(0).toDouble());
            else
                for (int p = 0; p < 6; ++p)
                    each[p].push_back(times.value(p).toDouble());
        }
        state.SetIterationTime((median(with) - median(without)) * 1e-6);
    }
    state.counters["runs"] = runs;
    state.counters["failed_runs"] = failed;
    state.counters["with_probes_us"] = median(with);
    state.counters["without_probes_us"] = median(without);
    state.counters["probes_added_us"] = median(with) - median(without);
    const char* const names[] = {"os_us", "install_us", "cpu_us", "memory_us", "gpu_us", "gpu_again_us"};
    for (int p = 0; p < 6; ++p)
        state.counters[names[p]] = median(each[p]);
    state.counters["two_names_mapped_us"] = median(mapped);
    state.counters["two_names_read_us"] = median(read);
}

}  // namespace

BENCHMARK(BM_probes_in_a_fresh_process)->Iterations(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet(kChild)) {
        QGuiApplication app(argc, argv);
        return child(qgetenv(kChild));
    }
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
