// The macOS collector's own source against a scripted Mac (fake_apple/): each probe's whole map
// for each machine, and after every row the release of all that the collector was handed.
#include "fake_machine.h"

#include <information_api/KrMacosInfo.h>

#include <QThread>
#include <QtTest>

#include <mutex>

using information_api::KrMacosInfo;
using namespace fake_apple;
using namespace std::string_literals;
using probe = QVariantMap (*)();
Q_DECLARE_METATYPE(machine)
Q_DECLARE_METATYPE(probe)

namespace {

const probe screenInfo = KrMacosInfo::getScreenResolutionInfo, systemInfo = KrMacosInfo::getSystemVersionInfo,
            languageInfo = KrMacosInfo::getSystemLanguageInfo, cpuInfo = KrMacosInfo::getCpuModelInfo,
            memoryInfo = KrMacosInfo::getMemoryInfo, gpuInfo = KrMacosInfo::getGpuInfo;
const double kGiB = 1024.0 * 1024 * 1024;

// A value's text with the type of every part, so that 2 and 2.0 differ (QVariant's == converts).
QString typed(const QVariant& v)
{
    QString text;
    QDebug(&text) << qSetRealNumberPrecision(17) << v;
    return text;
}

void row(const char* name, probe run, const machine& m, const QVariantMap& expected)
{
    QTest::newRow(name) << run << m << expected;
}

// One display's map, by default that of a fake_apple::display: 1920 x 1080 pixels and points, 600 x 340 mm.
QVariant screen(const QString& name, const char* geometry = "1920 x 1080 (0,0)", double logicalDpi = 72,
                double physicalDpi = (1920 * 25.4 / 600 + 1080 * 25.4 / 340) * 0.5, const char* pixels = "1920 x 1080")
{
    return QVariantMap{{"name", name}, {"resolution", pixels}, {"availableGeometry", geometry},
                       {"logicalDpi", logicalDpi}, {"physicalDpi", physicalDpi}};
}

registry_entry pci(const char* model, value classCode, values more = {})
{
    more.insert({{"model", model + "\0"s}, {"class-code", classCode}});
    return {{"IOPCIDevice"}, more};
}

}  // namespace

class tst_macos_info : public QObject {
    Q_OBJECT

private slots:
    // Every row gives back all it was handed; the fake throws at once at any other misuse.
    void cleanup() { QVERIFY2(leaks().isEmpty(), qPrintable(leaks().join('\n'))); }

    void probes_data()
    {
        QTest::addColumn<probe>("run");
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");

        machine m;
        m.displays = {{1, "LG"}};
        m.listFailsOnSecondCall = true;
        row("screen: the list fails after the count", screenInfo, m, {{"size", 0}, {"screens", QVariantList()}});
        // The four unnamed displays lack in turn each step on the way to a product name, and have no mode,
        // a zero in it, or one zero dimension; the main one is not listed first; the last is unplugged
        // between the count and the list.
        m = machine();
        m.displays = {{4, "iPad", false, named, {600, 340}, {{1920, 0}}, {{-1279.6, -0.5}, {1279.6, 720.4}}},
                      {69733378, "", true, no_port, {0, 340}}, {7, "", false, no_info, {600, 0}},
                      {8, "", false, no_name_key, {600, 340}, {}}, {9, "", false, named, {600, 340}, {{0, 1920}}},
                      {3, "Sidecar – iPad", false, named, {600, 340}, {{1920, 1920}}, {{-2.5, 2.5}, {1366.5, -0.5}}},
                      {1, "Built-in", false, named, {330, 206}, {{1440, 2880}}, {{0, 0}, {1440, 900}}, 2880, 1800},
                      {2, "LG", true}};
        m.unpluggedBeforeSecondCall = 1;
        row("screen: no names, halves rounded up, Retina, no mode or a zero in it, a zero dimension", screenInfo, m,
            {{"size", 7}, {"primaryScreenName", "Display 69733378"},
             {"screens", QVariantList{screen("iPad", "1280 x 720 (-1280,0)"),
                                      screen("Display 69733378", "1920 x 1080 (0,0)", 72, 0),
                                      screen("Display 7", "1920 x 1080 (0,0)", 72, 0), screen("Display 8"),
                                      screen("Display 9"), screen("Sidecar – iPad", "1367 x 0 (-2,3)"),
                                      screen("Built-in", "1440 x 900 (0,0)", 144,
                                             (2880 * 25.4 / 330 + 1800 * 25.4 / 206) * 0.5, "2880 x 1800")}}});

        m = machine();
        m.sysctls = {{"kern.osproductversion", " 14.2.1\n"}, {"kern.osrelease", "23.2.0"}};
        row("system: product version, trimmed", systemInfo, m, {{"systemName", "macOS"}, {"productVersion", "14.2.1"}});
        m.sysctls["kern.osproductversion"] = " ";
        row("system: product version blank", systemInfo, m, {{"systemName", "macOS"}, {"productVersion", "23.2.0"}});

        m.preferredLanguages = {{"zh-Hans-CN", "en-GB"}};
        row("language: the first, dashes replaced", languageInfo, m, {{"languageCode", "zh_Hans_CN"}});
        m.preferredLanguages->clear();
        row("language: an empty list", languageInfo, m, {{"languageCode", QLocale::system().name()}});
        m.preferredLanguages.reset();
        row("language: no list", languageInfo, m, {{"languageCode", QLocale::system().name()}});

        m.sysctls = {{"machdep.cpu.brand_string", ""}, {"hw.optional.arm64", 1}, {"hw.physicalcpu", 8},
                     {"hw.logicalcpu", 10}, {"hw.model", "Mac14,2"}};
        row("cpu: Arm, empty brand, no frequency", cpuInfo, m,
            {{"name", "Apple Silicon"}, {"manufacturer", "Apple"}, {"cores", 8}, {"threads", 10}});
        m.sysctls["machdep.cpu.brand_string"] = "Virtual CPU";
        row("cpu: Arm, a brand naming neither maker", cpuInfo, m,
            {{"name", "Virtual CPU"}, {"manufacturer", "Apple"}, {"cores", 8}, {"threads", 10}});
        m.sysctls = {{"machdep.cpu.brand_string", "Apple M2 Pro"}, {"hw.physicalcpu", 0}, {"hw.logicalcpu", 0},
                     {"hw.cpufrequency", uint64_t(999999)}};
        row("cpu: Apple brand, no cores, under 1 MHz", cpuInfo, m,
            {{"name", "Apple M2 Pro"}, {"manufacturer", "Apple"}, {"maxClockSpeedMHz", quint64(0)}});
        m.sysctls = {{"machdep.cpu.brand_string", "genuine intel"}, {"hw.physicalcpu", 8}, {"hw.logicalcpu", 16},
                     {"hw.cpufrequency_max", uint64_t(2400000000)}, {"hw.cpufrequency", uint64_t(2300000000)}};
        row("cpu: lower-case intel, maximum frequency", cpuInfo, m,
            {{"name", "genuine intel"}, {"manufacturer", "Intel"}, {"cores", 8}, {"threads", 16},
             {"maxClockSpeedMHz", quint64(2400)}});
        m.sysctls = {{"hw.optional.arm64", 0}, {"hw.model", "MacPro7,1"}, {"hw.cpufrequency", uint64_t(3199999999)}};
        row("cpu: neither maker, model name, MHz truncated", cpuInfo, m,
            {{"name", "MacPro7,1"}, {"maxClockSpeedMHz", quint64(3199)}});
        row("cpu: nothing readable", cpuInfo, machine(), {});

        m.sysctls = {{"hw.memsize", (uint64_t(24) << 30) + 1}};
        m.freeAndInactivePages = {{0xFFFFFFFF, 0xFFFFFFFF}};  // their sum needs 33 bits
        row("memory: unrounded, 64-bit page arithmetic", memoryInfo, m,
            {{"totalMemoryGB", 24 + 1 / kGiB}, {"freeMemoryGB", 2.0 * 0xFFFFFFFF * 16384 / kGiB}});
        m.freeAndInactivePages.reset();
        row("memory: the statistics fail", memoryInfo, m, {{"totalMemoryGB", 24 + 1 / kGiB}});
        m = machine();
        m.pageSize = 0;
        m.freeAndInactivePages = {{1, 1}};
        row("memory: the page size fails, no memsize", memoryInfo, m, {});

        // An iMac's card, whose accelerator reports the same model; class codes as a number, as data,
        // little-endian, of a 3D controller, of a network card, none; Apple silicon, whose accelerator
        // finds VRAM and driver on its parent, twice; IOGPU names from the fallbacks, VRAM in bytes.
        const registry_entry agx{{"AGXAcceleratorG14X", "IOGPU"}, {{"model", "Apple M2 Pro"}}, 7};
        m.registry = {pci("AMD Radeon Pro 5700", "\0\3\0\0"s, {{"VRAM,totalMB", 8192}, {"driver-version", "4.6.1"}}),
                      {{"AMDRadeonX6000", "IOGPU"}, {{"model", "AMD Radeon Pro 5700"}}, 0},
                      pci("Intel UHD Graphics 630", 0x030000, {{"VRAM,totalsize", "\x60\0\0\0"s}}),
                      pci("Ethernet", 0x020000), pci("Radeon LE", "\0\0\3\0"s), pci("NVIDIA Tesla", 0x030200),
                      {{"IOPCIDevice"}, {{"model", "Mystery"}}},
                      {{"AppleARMIODevice"}, {{"VRAM,totalsize", int64_t(8) << 30}, {"driver-version", " 12.1 \0x"s}}},
                      agx, {{"SmallGPU", "IOGPU"}, {{"gpu-model", " Tiny \0"s}, {"VRAM,totalsize", 1048575}}},
                      {{"ZeroGPU", "IOGPU"}, {{"VRAM,totalMB", 0}, {"VRAM,totalsize", 2097152}}},
                      {{"", "IOGPU"}, {}}, agx};
        const QVariantList gpus{
            QVariantMap{{"name", "AMD Radeon Pro 5700"}, {"vramMB", 8192.0}, {"driverVersion", "4.6.1"}},
            QVariantMap{{"name", "Intel UHD Graphics 630"}, {"vramMB", 1536.0}}, QVariantMap{{"name", "NVIDIA Tesla"}},
            QVariantMap{{"name", "Apple M2 Pro"}, {"vramMB", 8192.0}, {"driverVersion", "12.1"}},
            QVariantMap{{"name", "Tiny"}}, QVariantMap{{"name", "ZeroGPU"}, {"vramMB", 2.0}}};
        row("gpu: both classes", gpuInfo, m, {{"gpuCount", 6}, {"gpus", gpus}});
    }

    void probes()
    {
        QFETCH(probe, run);
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        install(mac);
        const QString actual = typed(run()), wanted = typed(expected);
        QVERIFY2(actual == wanted, qPrintable("\n   actual:   " + actual + "\n   expected: " + wanted));
    }

    void allSystemInfoSignalsOncePerCallFromThePool()
    {
        machine m;
        m.displays = {{1, "Studio Display", true}};
        m.sysctls = {{"kern.osproductversion", "14.2"}, {"hw.memsize", uint64_t(8) << 30}};
        m.preferredLanguages = {{"fr-CA"}};
        install(m);
        const QString expected = typed(QVariantMap{{"cpu", cpuInfo()}, {"memory", memoryInfo()},
                                                   {"screen", screenInfo()}, {"system", systemInfo()},
                                                   {"language", languageInfo()}});

        // Both collections may emit at once, which QSignalSpy does not survive.
        KrMacosInfo info;
        std::mutex mutex;  // a QMutex's futex is invisible to ThreadSanitizer
        QStringList received;
        connect(&info, &KrMacosInfo::allSystemInfoFinished, this, [&](const QVariantMap& all) {
            std::lock_guard<std::mutex> lock(mutex);
            received << (QThread::currentThread() == thread() ? "emitted by the caller's thread" : typed(all));
        }, Qt::DirectConnection);
        info.allSystemInfo();
        info.allSystemInfo();
        QVERIFY(QThreadPool::globalInstance()->waitForDone(5000));
        std::lock_guard<std::mutex> lock(mutex);
        QCOMPARE(received, QStringList({expected, expected}));

        const QMetaObject& meta = KrMacosInfo::staticMetaObject;  // the signal is all that it adds
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
        QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("allSystemInfoFinished(QVariantMap)"));
    }
};

QTEST_GUILESS_MAIN(tst_macos_info)
#include "tst_macos_info.moc"
