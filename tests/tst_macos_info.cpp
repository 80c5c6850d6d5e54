// The macOS collector's own source against a scripted Mac (fake_apple/): each probe's whole map for each machine, and
// after every row the release of all that the collector owned.
#include <CoreGraphics/CoreGraphics.h>  // fake_machine.h, and the displays of its machine

#include <information_api/KrMacosInfo.h>

#include <QtTest>

using information_api::KrMacosInfo;
using namespace fake;
using namespace std::string_literals;
using probe = QVariantMap (*)();
Q_DECLARE_METATYPE(machine)
Q_DECLARE_METATYPE(probe)

static const probe screenInfo = KrMacosInfo::getScreenResolutionInfo, systemInfo = KrMacosInfo::getSystemVersionInfo,
                   languageInfo = KrMacosInfo::getSystemLanguageInfo, cpuInfo = KrMacosInfo::getCpuModelInfo,
                   memoryInfo = KrMacosInfo::getMemoryInfo, gpuInfo = KrMacosInfo::getGpuInfo;

// allSystemInfo(): whether it returns before its signal, which comes from another thread and carries what the probes
// tell.
static QVariantMap collect()
{
    const QVariantMap probed{{"cpu", cpuInfo()}, {"memory", memoryInfo()}, {"screen", screenInfo()},
        {"system", systemInfo()}, {"language", languageInfo()}};
    KrMacosInfo info;
    QVariantList received;  // on this thread: from another, the signal is queued
    QObject::connect(&info, &KrMacosInfo::allSystemInfoFinished, &info, [&](QVariantMap all) { received << all; });
    info.allSystemInfo();
    const bool returnedFirst = received.isEmpty();
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::sendPostedEvents();
    return {{"as probed", returnedFirst && received == QVariantList{probed}}};
}

static void row(const char* tag, probe p, machine m, QVariantMap expected) { QTest::newRow(tag) << p << m << expected; }

static QVariant screen(const char* name, const char* pixels = "1920 x 1080", const char* geometry = "1920 x 1080 (0,0)",
    double logicalDpi = 72, double physicalDpi = 0)
{
    return QVariantMap{{"name", name}, {"resolution", pixels}, {"availableGeometry", geometry},
        {"logicalDpi", logicalDpi}, {"physicalDpi", physicalDpi}};
}

class tst_macos_info : public QObject {
    Q_OBJECT

    // Rows of a table, one row a line: clang-format leaves them as they are.
    // clang-format off
private slots:
    // Every row gives back all it owned; fake_machine.h tells which other misuse fails, and where.
    void cleanup() { QCOMPARE(std::exchange(unreleased, 0), 0); }

    void probes_data()
    {
        QTest::addColumn<probe>("run");
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");

        // Displays by id: a Retina one without display information, one named in two languages, one whose information
        // has no names, one with none in its names, the main one, without an IOKit port (as on Apple silicon), and the
        // last, unplugged between the count and the list.
        machine m;
        m.displays = {{1, {no_info, {}, false, {330, 206}, {1440, 2880}, {{0, 0}, {1440, 900}}, 2880, 1800}},
                      {4, {named, {"de_DE", "Sidecar-Display", "en_GB", "Sidecar – iPad"}, false, {600, 0}, {0, 1920},
                           {{-1279.6, -0.5}, {1279.6, 720.4}}}},
                      {5, {no_names}}, {6, {}}, {69733378, {no_port, {}, true}}, {69733379, {}}};
        m.unplugged = 1;
        row("screen: names or fallbacks, Retina, a mode of zero width, a zero dimension, halves rounded", screenInfo, m,
            {{"size", 5}, {"primaryScreenName", "Display 69733378"},
             {"screens", QVariantList{screen("Display 1", "2880 x 1800", "1440 x 900 (0,0)", 144,
                                             (2880 * 25.4 / 330 + 1800 * 25.4 / 206) * 0.5),
                                      screen("Sidecar – iPad", "1920 x 1080", "1280 x 720 (-1280,0)"),
                                      screen("Display 5"), screen("Display 6"), screen("Display 69733378")}}});
        m.sysctls = {{"hw.memsize", (uint64_t(24) << 30) + 1}};
        m.vmPages = {0xFFFFFFFF, 11111, 0xFFFFFFFF, 11111};  // free and inactive: their sum needs 33 bits
        row("memory: unrounded, 64-bit page arithmetic", memoryInfo, m,
            {{"totalMemoryGB", 24 + 1.0 / (1 << 30)}, {"freeMemoryGB", 2.0 * 0xFFFFFFFF * 16384 / (1 << 30)}});
        row("all: signalled from another thread", collect, m, {{"as probed", true}});  // languages unset: NULL
        m.pageSize = 0;
        row("memory: no page size", memoryInfo, m, {{"totalMemoryGB", 24 + 1.0 / (1 << 30)}});
        row("memory: nothing readable", memoryInfo, machine(), {});

        m.sysctls = {{"kern.osproductversion", " 14.2.1\n"}, {"kern.osrelease", "23.2.0"}, {"hw.model", "Mac14,2"}};
        row("system: product version, trimmed", systemInfo, m, {{"systemName", "macOS"}, {"productVersion", "14.2.1"}});
        row("cpu: no brand, not Arm: the model", cpuInfo, m, {{"name", "Mac14,2"}});
        m.sysctls.erase("kern.osproductversion");
        row("system: the kernel release alone", systemInfo, m, {{"systemName", "macOS"}, {"productVersion", "23.2.0"}});
        m.preferredLanguages = value(cf_array, 0, {"zh-Hans-CN", "en-GB"});
        row("language: the first, dashes replaced", languageInfo, m, {{"languageCode", "zh_Hans_CN"}});
        m.preferredLanguages->members.clear();
        row("language: an empty list", languageInfo, m, {{"languageCode", QLocale::system().name()}});

        m.sysctls = {{"machdep.cpu.brand_string", "Virtual CPU"}, {"hw.optional.arm64", 1}, {"hw.physicalcpu", 0}};
        row("cpu: Arm, a brand naming neither maker", cpuInfo, m, {{"name", "Virtual CPU"}, {"manufacturer", "Apple"}});
        row("cpu: nothing readable", cpuInfo, machine(), {});
        m.sysctls = {{"machdep.cpu.brand_string", "intel"}, {"hw.physicalcpu", 4}, {"hw.logicalcpu", 8},
                     {"hw.cpufrequency_max", uint64_t(999999999)}, {"hw.cpufrequency", uint64_t(800000000)}};
        row("cpu: lower-case intel, maximum frequency, MHz truncated", cpuInfo, m,
            {{"name", "intel"}, {"manufacturer", "Intel"}, {"cores", 4}, {"threads", 8}, {"maxClockSpeedMHz", 999ull}});

        // A 3D controller, its name as firmware data; a class code read most significant byte first, so that one stored
        // little-endian does not count; Apple silicon, whose accelerator finds VRAM and driver on its parent; IOGPU
        // names from the fallbacks, one twice, and one with none anywhere.
        m.registry = {{{"IOPCIDevice"}, {{"model", "NVIDIA Tesla\0"s}, {"class-code", "\0\3\2\0"s},
                                         {"VRAM,totalMB", 8192}, {"driver-version", "4.6.1"}}},
                      {{"IOPCIDevice"}, {{"model", "Radeon"}, {"class-code", "\0\0\3\0"s}}}, {{"", "IOGPU"}},
                      {{"AppleARMIODevice"}, {{"VRAM,totalsize", int64_t(8) << 30}, {"driver-version", " 12.1 \0x"s}}},
                      {{"AGXAcceleratorG14X", "IOGPU"}, {{"model", "Apple M2 Pro"}}, 3},
                      {{"G", "IOGPU"}, {{"gpu-model", " Tiny \0"s}}}, {{"Zero", "IOGPU"}}, {{"Zero", "IOGPU"}}};
        const QVariantList gpus{QVariantMap{{"name", "NVIDIA Tesla"}, {"vramMB", 8192.0}, {"driverVersion", "4.6.1"}},
                                QVariantMap{{"name", "Apple M2 Pro"}, {"vramMB", 8192.0}, {"driverVersion", "12.1"}},
                                QVariantMap{{"name", "Tiny"}}, QVariantMap{{"name", "Zero"}}};
        row("gpu: both classes", gpuInfo, m, {{"gpuCount", 4}, {"gpus", gpus}});

        m.unplugged = -1;  // the window server, after the count
        row("screen: the list fails", screenInfo, m, {{"size", 0}, {"screens", QVariantList()}});
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
    // clang-format on
};

QTEST_GUILESS_MAIN(tst_macos_info)
#include "tst_macos_info.moc"
