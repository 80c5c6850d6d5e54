// The macOS collector's own source against a scripted Mac (fake_apple/): each probe's whole map for each machine, and
// after every row the release of all that the collector owned.
#include <CoreGraphics/CoreGraphics.h>  // fake_machine.h, and the displays of its machine

#include <information_api/KrMacosInfo.h>

#include <QtTest>

#include <mutex>

using information_api::KrMacosInfo;
using namespace fake;
using namespace std::string_literals;
using probe = QVariantMap (*)();
Q_DECLARE_METATYPE(machine)
Q_DECLARE_METATYPE(probe)

namespace {

const probe screenInfo = KrMacosInfo::getScreenResolutionInfo, systemInfo = KrMacosInfo::getSystemVersionInfo,
            languageInfo = KrMacosInfo::getSystemLanguageInfo, cpuInfo = KrMacosInfo::getCpuModelInfo,
            memoryInfo = KrMacosInfo::getMemoryInfo, gpuInfo = KrMacosInfo::getGpuInfo;

// allSystemInfo() twice: whether each call's signal, from a pool thread, carries what the probes tell.
QVariantMap collectTwice()
{
    const QVariantMap probed{{"cpu", cpuInfo()}, {"memory", memoryInfo()}, {"screen", screenInfo()},
                             {"system", systemInfo()}, {"language", languageInfo()}};
    KrMacosInfo info;
    std::mutex mutex;  // a QMutex's futex is invisible to ThreadSanitizer
    QVariantList received;
    QObject::connect(&info, &KrMacosInfo::allSystemInfoFinished, [&](const QVariantMap& all) {
        std::lock_guard<std::mutex> lock(mutex);
        received << (QThread::currentThread() == info.thread() ? QVariant("from the caller's thread") : all);
    });
    info.allSystemInfo();
    info.allSystemInfo();
    QThreadPool::globalInstance()->waitForDone();
    std::lock_guard<std::mutex> lock(mutex);
    return {{"as probed", received == QVariantList{probed, probed}}};
}

void row(const char* name, probe run, const machine& m, const QVariantMap& expected)
{
    QTest::newRow(name) << run << m << expected;
}

QVariant screen(const char* name, const char* pixels, const char* geometry, double logicalDpi, double physicalDpi)
{
    return QVariantMap{{"name", name}, {"resolution", pixels}, {"availableGeometry", geometry},
                       {"logicalDpi", logicalDpi}, {"physicalDpi", physicalDpi}};
}

}  // namespace

class tst_macos_info : public QObject {
    Q_OBJECT

private slots:
    // Every row gives back all it owned; fake_machine.h tells which other misuse fails, and where.
    void cleanup() { QCOMPARE(unreleased.exchange(0), 0); }

    void probes_data()
    {
        QTest::addColumn<probe>("run");
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");

        // Apple silicon lends no IOKit port for a display. The main display is not listed first.
        machine m;
        m.displays = {{4, "Sidecar – iPad", false, {600, 0}, {0, 1920}, {{-1279.6, -0.5}, {1279.6, 720.4}}},
                      {69733378, nullptr, true, {0, 340}},
                      {1, "Built-in", false, {330, 206}, {1440, 2880}, {{0, 0}, {1440, 900}}, 2880, 1800}};
        row("screen: Retina, unnamed, a mode of zero width, a zero dimension, halves rounded", screenInfo, m,
            {{"size", 3}, {"primaryScreenName", "Display 69733378"},
             {"screens", QVariantList{screen("Sidecar – iPad", "1920 x 1080", "1280 x 720 (-1280,0)", 72, 0),
                                      screen("Display 69733378", "1920 x 1080", "1920 x 1080 (0,0)", 72, 0),
                                      screen("Built-in", "2880 x 1800", "1440 x 900 (0,0)", 144,
                                             (2880 * 25.4 / 330 + 1800 * 25.4 / 206) * 0.5)}}});
        m.sysctls = {{"hw.memsize", (uint64_t(24) << 30) + 1}};
        m.vmPages = {0xFFFFFFFF, 11111, 0xFFFFFFFF, 11111};  // free and inactive: their sum needs 33 bits
        row("memory: unrounded, 64-bit page arithmetic", memoryInfo, m,
            {{"totalMemoryGB", 24 + 1.0 / (1 << 30)}, {"freeMemoryGB", 2.0 * 0xFFFFFFFF * 16384 / (1 << 30)}});
        row("all: one signal per call, from the pool", collectTwice, m, {{"as probed", true}});

        m.sysctls = {{"kern.osproductversion", " 14.2.1\n"}, {"kern.osrelease", "23.2.0"}};
        row("system: product version, trimmed", systemInfo, m, {{"systemName", "macOS"}, {"productVersion", "14.2.1"}});
        m.preferredLanguages = {"zh-Hans-CN", "en-GB"};
        row("language: the first, dashes replaced", languageInfo, m, {{"languageCode", "zh_Hans_CN"}});
        row("language: none", languageInfo, machine(), {{"languageCode", QLocale::system().name()}});

        m.sysctls = {{"machdep.cpu.brand_string", "Virtual CPU"}, {"hw.optional.arm64", 1}, {"hw.physicalcpu", 0}};
        row("cpu: Arm, a brand naming neither maker", cpuInfo, m, {{"name", "Virtual CPU"}, {"manufacturer", "Apple"}});
        m.sysctls.at("machdep.cpu.brand_string") = "Apple M2 Pro";
        row("cpu: Apple silicon", cpuInfo, m, {{"name", "Apple M2 Pro"}, {"manufacturer", "Apple"}});
        row("cpu: nothing readable", cpuInfo, machine(), {});
        m.sysctls = {{"machdep.cpu.brand_string", "intel"}, {"hw.physicalcpu", 4}, {"hw.logicalcpu", 8},
                     {"hw.cpufrequency_max", uint64_t(999999999)}, {"hw.cpufrequency", uint64_t(800000000)}};
        row("cpu: lower-case intel, maximum frequency, MHz truncated", cpuInfo, m,
            {{"name", "intel"}, {"manufacturer", "Intel"}, {"cores", 4}, {"threads", 8}, {"maxClockSpeedMHz", 999ull}});

        // A 3D controller, its name as firmware data; a class code read most significant byte first, so that one stored
        // little-endian does not count; Apple silicon, whose accelerator finds VRAM and driver on its parent; IOGPU
        // names from the fallbacks, one twice.
        m.registry = {{{"IOPCIDevice"}, {{"model", "NVIDIA Tesla\0"s}, {"class-code", "\0\3\2\0"s},
                                         {"VRAM,totalMB", 8192}, {"driver-version", "4.6.1"}}},
                      {{"IOPCIDevice"}, {{"model", "Radeon"}, {"class-code", "\0\0\3\0"s}}},
                      {{"AppleARMIODevice"}, {{"VRAM,totalsize", int64_t(8) << 30}, {"driver-version", " 12.1 \0x"s}}},
                      {{"AGXAcceleratorG14X", "IOGPU"}, {{"model", "Apple M2 Pro"}}, 2},
                      {{"G", "IOGPU"}, {{"gpu-model", " Tiny \0"s}}}, {{"Zero", "IOGPU"}}, {{"Zero", "IOGPU"}}};
        const QVariantList gpus{
            QVariantMap{{"name", "NVIDIA Tesla"}, {"vramMB", 8192.0}, {"driverVersion", "4.6.1"}},
            QVariantMap{{"name", "Apple M2 Pro"}, {"vramMB", 8192.0}, {"driverVersion", "12.1"}},
            QVariantMap{{"name", "Tiny"}}, QVariantMap{{"name", "Zero"}}};
        row("gpu: both classes", gpuInfo, m, {{"gpuCount", 4}, {"gpus", gpus}});
        row("gpu: none", gpuInfo, machine(), {{"gpuCount", 0}, {"gpus", QVariantList()}});
    }

    void probes()
    {
        QFETCH(probe, run);
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        installed = mac;
        QString actual, wanted;  // with the type of every part, so that 2 and 2.0 differ (QVariant's == converts)
        QDebug(&actual) << qSetRealNumberPrecision(17) << run();
        QDebug(&wanted) << qSetRealNumberPrecision(17) << expected;
        QCOMPARE(actual, wanted);
    }
};

QTEST_GUILESS_MAIN(tst_macos_info)
#include "tst_macos_info.moc"
