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

Q_DECLARE_METATYPE(fake_apple::machine)

namespace {

// A value's text with the type of every part, so that 2 and 2.0 differ (QVariant's == converts).
QString typed(const QVariant& v)
{
    QStringList parts;
    for (const auto& [key, value] : v.toMap().toStdMap())
        parts << key + ": " + typed(value);
    for (const QVariant& value : v.toList())
        parts << typed(value);
    return v.type() == QVariant::Map    ? "{" + parts.join(", ") + "}"
           : v.type() == QVariant::List ? "[" + parts.join(", ") + "]"
                                        : QString("%1 %2").arg(v.typeName(), v.toString());
}

QVariantMap screen(const char* name, const char* pixels, const char* geometry, double logicalDpi, double physicalDpi)
{
    return {{"name", name}, {"resolution", pixels}, {"availableGeometry", geometry}, {"logicalDpi", logicalDpi},
            {"physicalDpi", physicalDpi}};
}

// A display as fake_apple::display describes one by default: 1920 x 1080 pixels and points, 600 x 340 mm.
QVariantMap hd(const char* name, const char* geometry = "1920 x 1080 (0,0)")
{
    return screen(name, "1920 x 1080", geometry, 72.0, (1920 * 25.4 / 600 + 1080 * 25.4 / 340) * 0.5);
}

QVariantMap screen_info(const QVariantList& screens, const char* primary = nullptr)
{
    QVariantMap info{{"size", screens.size()}, {"screens", screens}};
    if (primary)
        info.insert("primaryScreenName", primary);
    return info;
}

QVariantMap gpu_info(const QVariantList& gpus) { return {{"gpuCount", gpus.size()}, {"gpus", gpus}}; }

registry_entry pci(const char* model, property classCode, std::map<std::string, property> more = {})
{
    more.insert({{"model", QByteArray(model) + '\0'}, {"class-code", classCode}});
    return {{"IOPCIDevice"}, more};
}

const double kGiB = 1024.0 * 1024 * 1024;

}  // namespace

class tst_macos_info : public QObject {
    Q_OBJECT

    static void columns()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");
    }

    static void check(QVariantMap (*probe)())
    {
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        install(mac);
        QCOMPARE(typed(probe()), typed(expected));
    }

private slots:
    void init() { install(machine()); }
    // Every row, on every path, gives back all it was handed and nothing it was only lent.
    void cleanup() { QVERIFY2(misuse().isEmpty(), qPrintable(misuse().join('\n'))); }

    void screens_data()
    {
        columns();
        machine m;
        m.displays = {{1, "LG"}, {2, "Studio Display", true}};
        m.displayListFailsOnSecondCall = true;
        QTest::newRow("the list fails after the count") << m << screen_info({});
        m.displayListFailsOnSecondCall = false;
        m.displaysGoneBeforeSecondCall = 1;
        QTest::newRow("the main display unplugged after the count") << m << screen_info({hd("LG")});

        const char* const routes[] = {"no service port", "no info dictionary", "no product name key", "no names"};
        for (const naming route : {no_port, no_info, no_name_key, named}) {
            m = machine();
            m.displays = {{69733378, "", true}};
            m.displays[0].route = route;
            QTest::newRow(routes[route]) << m << screen_info({hd("Display 69733378")}, "Display 69733378");
        }

        m.displays = {{5, "Projector", true, {{0, 0}, {1920, 1080}}, 1920, 1080, {600, 0}, std::nullopt},
                      {6, "Wall", false, {{0, 0}, {1920, 1080}}, 1920, 1080, {0, 340}, {{0, 1920}}}};
        QTest::newRow("no mode or one zero wide, one zero dimension")
            << m << screen_info({screen("Projector", "1920 x 1080", "1920 x 1080 (0,0)", 72.0, 0.0),
                                 screen("Wall", "1920 x 1080", "1920 x 1080 (0,0)", 72.0, 0.0)}, "Projector");
        m.displays = {{1, "Built-in", true, {{0, 0}, {1440, 900}}, 2880, 1800, {330, 206}, {{1440, 2880}}}};
        QTest::newRow("retina") << m << screen_info({screen("Built-in", "2880 x 1800", "1440 x 900 (0,0)", 144.0,
                                                            (2880 * 25.4 / 330 + 1800 * 25.4 / 206) * 0.5)}, "Built-in");
        m.displays = {{4, "iPad", false, {{-1279.6, -0.5}, {1279.6, 720.4}}},
                      {3, "Sidecar", true, {{-2.5, 2.5}, {1366.5, -0.5}}}};
        QTest::newRow("halves round upwards, the main display second")
            << m << screen_info({hd("iPad", "1280 x 720 (-1280,0)"), hd("Sidecar", "1367 x 0 (-2,3)")}, "Sidecar");
    }

    void screens() { check(KrMacosInfo::getScreenResolutionInfo); }

    void systemVersion_data()
    {
        columns();
        const auto version = [](const char* v) { return QVariantMap{{"systemName", "macOS"}, {"productVersion", v}}; };
        machine m;
        m.sysctls = {{"kern.osproductversion", sysctl_value(" 14.2.1\n")}, {"kern.osrelease", sysctl_value("23.2.0")}};
        QTest::newRow("product version, trimmed") << m << version("14.2.1");
        m.sysctls["kern.osproductversion"] = sysctl_value("  ");
        QTest::newRow("product version blank") << m << version("23.2.0");
        m.sysctls["kern.osproductversion"] = std::nullopt;
        QTest::newRow("product version unreadable") << m << version("23.2.0");
        m.sysctls.erase("kern.osrelease");
        QTest::newRow("kernel release missing too") << m << version("");
    }

    void systemVersion() { check(KrMacosInfo::getSystemVersionInfo); }

    void language_data()
    {
        columns();
        machine m;
        m.preferredLanguages = {{"zh-Hans-CN", "en-GB"}};
        QTest::newRow("the first, dashes replaced") << m << QVariantMap{{"languageCode", "zh_Hans_CN"}};
        m.preferredLanguages->clear();
        QTest::newRow("empty list") << m << QVariantMap{{"languageCode", QLocale::system().name()}};
        m.preferredLanguages.reset();
        QTest::newRow("no list") << m << QVariantMap{{"languageCode", QLocale::system().name()}};
    }

    void language() { check(KrMacosInfo::getSystemLanguageInfo); }

    void cpu_data()
    {
        columns();
        machine m;
        m.sysctls = {{"machdep.cpu.brand_string", sysctl_value("")}, {"hw.optional.arm64", sysctl_value(1)},
                     {"hw.physicalcpu", sysctl_value(8)}, {"hw.logicalcpu", sysctl_value(8)},
                     {"hw.model", sysctl_value("Mac14,2")}};
        QTest::newRow("Arm, empty brand, no frequency")
            << m << QVariantMap{{"name", "Apple Silicon"}, {"manufacturer", "Apple"}, {"cores", 8}, {"threads", 8}};
        m.sysctls["machdep.cpu.brand_string"] = sysctl_value("Virtual CPU");
        QTest::newRow("Arm, a brand naming neither maker")
            << m << QVariantMap{{"name", "Virtual CPU"}, {"manufacturer", "Apple"}, {"cores", 8}, {"threads", 8}};
        m.sysctls = {{"machdep.cpu.brand_string", sysctl_value("Apple M2 Pro")}, {"hw.physicalcpu", sysctl_value(0)}};
        QTest::newRow("Apple brand, no cores") << m << QVariantMap{{"name", "Apple M2 Pro"}, {"manufacturer", "Apple"}};
        m.sysctls = {{"machdep.cpu.brand_string", sysctl_value("Intel(R) Core(TM) i9-9880H")},
                     {"hw.physicalcpu", sysctl_value(8)}, {"hw.logicalcpu", sysctl_value(16)},
                     {"hw.cpufrequency_max", sysctl_value(uint64_t(2400000000))},
                     {"hw.cpufrequency", sysctl_value(uint64_t(2300000000))}};
        QTest::newRow("Intel, maximum frequency")
            << m << QVariantMap{{"name", "Intel(R) Core(TM) i9-9880H"}, {"manufacturer", "Intel"}, {"cores", 8},
                                {"threads", 16}, {"maxClockSpeedMHz", quint64(2400)}};
        m.sysctls = {{"machdep.cpu.brand_string", sysctl_value("genuine intel")},
                     {"hw.cpufrequency", sysctl_value(uint64_t(999999))}};
        QTest::newRow("lower-case intel, under 1 MHz")
            << m << QVariantMap{{"name", "genuine intel"}, {"manufacturer", "Intel"}, {"maxClockSpeedMHz", quint64(0)}};
        m.sysctls = {{"hw.optional.arm64", sysctl_value(0)}, {"hw.model", sysctl_value("MacPro7,1")},
                     {"hw.cpufrequency", sysctl_value(uint64_t(3199999999))}};
        QTest::newRow("neither maker, model name, MHz truncated")
            << m << QVariantMap{{"name", "MacPro7,1"}, {"maxClockSpeedMHz", quint64(3199)}};
        QTest::newRow("nothing readable") << machine() << QVariantMap();
    }

    void cpu() { check(KrMacosInfo::getCpuModelInfo); }

    void memory_data()
    {
        columns();
        machine m;
        m.sysctls = {{"hw.memsize", sysctl_value((uint64_t(24) << 30) + 1)}};
        m.freeAndInactivePages = {{0xFFFFFFFF, 0xFFFFFFFF}};  // their sum needs 33 bits
        QTest::newRow("unrounded, 64-bit page arithmetic")
            << m << QVariantMap{{"totalMemoryGB", 24 + 1 / kGiB}, {"freeMemoryGB", 2.0 * 0xFFFFFFFF * 16384 / kGiB}};
        m.freeAndInactivePages.reset();
        QTest::newRow("statistics fail") << m << QVariantMap{{"totalMemoryGB", 24 + 1 / kGiB}};
        m = machine();
        m.pageSize.reset();
        m.freeAndInactivePages = {{1, 1}};
        QTest::newRow("page size fails, no memsize") << m << QVariantMap();
    }

    void memory() { check(KrMacosInfo::getMemoryInfo); }

    void gpus_data()
    {
        columns();
        machine m;
        QTest::newRow("no adapters") << m << gpu_info({});

        // An iMac's discrete card: its VRAM sits on the PCI device; the IOGPU accelerator below it
        // reports the same model and must not count twice.
        m.registry = {pci("AMD Radeon Pro 5700", QByteArray("\0\3\0\0", 4), {{"VRAM,totalMB", 8192}, {"driver-version", "4.6.1"s}}),
                      {{"AMDRadeonX6000", "IOGPU"}, {{"model", "AMD Radeon Pro 5700"s}}, 0}};
        const QVariantMap radeon{{"name", "AMD Radeon Pro 5700"}, {"vramMB", 8192.0}, {"driverVersion", "4.6.1"}};
        QTest::newRow("same adapter in both classes") << m << gpu_info({radeon});
        m.failingLookups = {"IOPCIDevice"};
        QTest::newRow("PCI lookup fails, the accelerator finds its card's properties") << m << gpu_info({radeon});

        m = machine();
        m.registry = {pci("Intel UHD Graphics 630", 0x030000, {{"VRAM,totalsize", QByteArray("\x60\0\0\0", 4)}}),
                      pci("Ethernet", 0x020000), pci("Radeon LE", QByteArray("\0\0\3\0", 4)),
                      pci("NVIDIA Tesla", 0x030200), {{"IOPCIDevice"}, {{"model", "Mystery"s}}}};
        QTest::newRow("class codes: number, network, little-endian data, 3D controller, none")
            << m << gpu_info({QVariantMap{{"name", "Intel UHD Graphics 630"}, {"vramMB", 1536.0}},
                              QVariantMap{{"name", "NVIDIA Tesla"}}});

        const registry_entry agx{{"AGXAcceleratorG14X", "IOGPU"}, {{"model", "Apple M2 Pro"s}}, 0};
        m.registry = {{{"AppleARMIODevice"}, {{"VRAM,totalsize", int64_t(8) << 30}, {"driver-version", QByteArray(" 12.1 \0x", 8)}}},
                      agx,
                      {{"SmallGPU", "IOGPU"}, {{"gpu-model", QByteArray(" Tiny \0", 7)}, {"VRAM,totalsize", 1048575}}},
                      {{"ZeroGPU", "IOGPU"}, {{"VRAM,totalMB", 0}, {"VRAM,totalsize", 2097152}}},
                      {{"", "IOGPU"}, {}},
                      agx};
        QTest::newRow("IOGPU: parents, fallbacks, small VRAM, class name")
            << m << gpu_info({QVariantMap{{"name", "Apple M2 Pro"}, {"vramMB", 8192.0}, {"driverVersion", "12.1"}},
                              QVariantMap{{"name", "Tiny"}}, QVariantMap{{"name", "ZeroGPU"}, {"vramMB", 2.0}}});
    }

    void gpus() { check(KrMacosInfo::getGpuInfo); }

    void allSystemInfoSignalsOncePerCallFromThePool()
    {
        machine m;
        m.displays = {{1, "Studio Display", true}};
        m.sysctls = {{"kern.osproductversion", sysctl_value("14.2")}, {"hw.memsize", sysctl_value(uint64_t(8) << 30)}};
        m.preferredLanguages = {{"fr-CA"}};
        install(m);
        const QVariantMap expected{
            {"cpu", KrMacosInfo::getCpuModelInfo()}, {"memory", KrMacosInfo::getMemoryInfo()},
            {"screen", KrMacosInfo::getScreenResolutionInfo()}, {"system", KrMacosInfo::getSystemVersionInfo()},
            {"language", KrMacosInfo::getSystemLanguageInfo()}};

        // Both collections may emit at once, which QSignalSpy does not survive.
        KrMacosInfo info;
        std::mutex mutex;  // a QMutex's futex is invisible to ThreadSanitizer
        QList<QPair<QThread*, QVariantMap>> received;
        connect(&info, &KrMacosInfo::allSystemInfoFinished, this, [&](const QVariantMap& all) {
            std::lock_guard<std::mutex> lock(mutex);
            received.append({QThread::currentThread(), all});
        }, Qt::DirectConnection);
        info.allSystemInfo();
        info.allSystemInfo();
        QVERIFY(QThreadPool::globalInstance()->waitForDone(5000));

        std::lock_guard<std::mutex> lock(mutex);
        QCOMPARE(received.size(), 2);
        for (const auto& [emitter, all] : received) {
            QVERIFY(emitter != QThread::currentThread());
            QCOMPARE(typed(all), typed(expected));
        }
        const QMetaObject& meta = KrMacosInfo::staticMetaObject;  // the signal is all that it adds
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
        QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("allSystemInfoFinished(QVariantMap)"));
    }
};

QTEST_GUILESS_MAIN(tst_macos_info)
#include "tst_macos_info.moc"
