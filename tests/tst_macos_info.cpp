// The macOS collector's real source against a scripted fake Mac (fake_apple/): every key and
// rule of its maps, and the release of every CoreFoundation and IOKit object it obtains.
#include "fake_machine.h"

#include <information_api/KrMacosInfo.h>

#include <QLocale>
#include <QThread>
#include <QtTest>

#include <mutex>

#include <CoreFoundation/CoreFoundation.h>

using information_api::KrMacosInfo;
using fake_apple::cf_data;
using fake_apple::display;
using fake_apple::machine;
using fake_apple::registry_entry;

Q_DECLARE_METATYPE(fake_apple::machine)

namespace {

// First difference between two variants, comparing types too (QVariant's == converts 2 to 2.0).
QString difference(const QVariant& actual, const QVariant& expected, const QString& path = "")
{
    if (actual.userType() != expected.userType())
        return QString("%1: type %2, expected %3")
            .arg(path, actual.typeName() ? actual.typeName() : "invalid",
                 expected.typeName() ? expected.typeName() : "invalid");
    if (expected.userType() == QMetaType::QVariantMap) {
        const QVariantMap a = actual.toMap(), e = expected.toMap();
        if (a.keys() != e.keys())
            return QString("%1: keys %2, expected %3")
                .arg(path, a.keys().join(','), e.keys().join(','));
        for (const QString& key : e.keys())
            if (QString d = difference(a[key], e[key], path + '/' + key); !d.isEmpty())
                return d;
        return QString();
    }
    if (expected.userType() == QMetaType::QVariantList) {
        const QVariantList a = actual.toList(), e = expected.toList();
        if (a.size() != e.size())
            return QString("%1: %2 items, expected %3").arg(path).arg(a.size()).arg(e.size());
        for (int i = 0; i < e.size(); ++i)
            if (QString d = difference(a[i], e[i], QString("%1[%2]").arg(path).arg(i)); !d.isEmpty())
                return d;
        return QString();
    }
    if (actual != expected)
        return QString("%1: %2, expected %3").arg(path, actual.toString(), expected.toString());
    return QString();
}

#define COMPARE_TYPED(actual, expected)                                                   \
    do {                                                                                  \
        const QString d = difference(QVariant(actual), QVariant(expected));               \
        QVERIFY2(d.isEmpty(), qPrintable(d));                                             \
    } while (false)

display named(uint32_t id, const char* name, bool isMain = false)
{
    display d;
    d.id = id;
    d.productNames = {{"en_US", name}};
    d.isMain = isMain;
    return d;
}

QVariantMap screen(const QString& name, const QString& resolution, const QString& geometry,
                   double logicalDpi, double physicalDpi)
{
    return {{"name", name},
            {"resolution", resolution},
            {"availableGeometry", geometry},
            {"logicalDpi", logicalDpi},
            {"physicalDpi", physicalDpi}};
}

// The 1920 x 1080 display of named(), 600 x 340 mm.
const double kDefaultPhysicalDpi = (1920 * 25.4 / 600 + 1080 * 25.4 / 340) * 0.5;

QVariantMap screen1080(const QString& name, const QString& geometry = "1920 x 1080 (0,0)")
{
    return screen(name, "1920 x 1080", geometry, 72.0, kDefaultPhysicalDpi);
}

registry_entry pci(const char* model, fake_apple::property classCode)
{
    registry_entry e;
    e.className = "IOPCIDevice";
    e.properties = {{"model", cf_data{QByteArray(model) + '\0'}}, {"class-code", classCode}};
    return e;
}

registry_entry gpu(const char* className, std::map<std::string, fake_apple::property> properties)
{
    registry_entry e;
    e.className = className;
    e.superclasses = {"IOGPU"};
    e.properties = std::move(properties);
    return e;
}

QVariantMap adapter(const QString& name, QVariant vramMB = QVariant(), QString driver = QString())
{
    QVariantMap a{{"name", name}};
    if (vramMB.isValid())
        a.insert("vramMB", vramMB);
    if (!driver.isEmpty())
        a.insert("driverVersion", driver);
    return a;
}

const cf_data kDisplayClassLE{QByteArray("\x00\x00\x03\x00", 4)};  // how the registry stores 0x030000
const cf_data kDisplayClassBE{QByteArray("\x00\x03\x00\x00", 4)};
const int64_t kGiB = 1024LL * 1024 * 1024;

}  // namespace

class tst_macos_info : public QObject {
    Q_OBJECT

private slots:
    void init() { fake_apple::install(machine()); }

    // Every test, on every path, must give back whatever it obtained, and nothing more.
    void cleanup()
    {
        const fake_apple::ledger_t book = fake_apple::ledger();
        QVERIFY2(book.errors.isEmpty(), qPrintable(book.errors.join('\n')));
        QCOMPARE(book.cfLive, 0);
        QCOMPARE(book.cfReleased, book.cfCreated + book.cfCopied);
        QCOMPARE(book.ioLive, 0);
        QCOMPARE(book.ioReleased, book.ioObtained);
    }

    void ledgerSeesLeaksAndMisuse()
    {
        fake_apple::machine m;
        m.preferredLanguages = std::vector<std::string>{"en"};
        fake_apple::install(m);
        const CFArrayRef languages = CFLocaleCopyPreferredLanguages();
        QCOMPARE(fake_apple::ledger().cfCopied, 1);
        QCOMPARE(fake_apple::ledger().cfLive, 1);
        CFRelease(languages);
        CFRelease(languages);
        CFRelease(CFSTR("model"));
        QCOMPARE(fake_apple::ledger().errors,
                 QStringList({"CFRelease of a released object", "CFRelease of a constant string"}));
        fake_apple::install(machine());
    }

    void screens_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");
        const QVariantMap none{{"size", 0}, {"screens", QVariantList()}};
        machine m;

        QTest::newRow("no display") << m << none;
        m.displays = {named(1, "LG", true)};
        m.displayListFails = true;
        QTest::newRow("display list fails") << m << none;
        m.displayListFails = false;
        m.displayListFailsOnSecondCall = true;
        QTest::newRow("display list fails on the second call") << m << none;

        m = machine();
        m.displays = {named(1, "Studio Display", true), named(2, "LG")};
        m.displaysGoneBeforeSecondCall = 1;
        QTest::newRow("display unplugged between the calls")
            << m
            << QVariantMap{{"size", 1},
                           {"screens", QVariantList{screen1080("Studio Display")}},
                           {"primaryScreenName", "Studio Display"}};

        const auto unnamed = [](display d) {
            machine u;
            d.id = 69733378;
            d.isMain = true;
            u.displays = {d};
            return u;
        };
        const QVariantMap unnamedResult{{"size", 1},
                                        {"screens", QVariantList{screen1080("Display 69733378")}},
                                        {"primaryScreenName", "Display 69733378"}};
        display d;
        d.hasServicePort = false;
        QTest::newRow("unnamed: no service port") << unnamed(d) << unnamedResult;
        d = display();
        d.hasInfoDictionary = false;
        QTest::newRow("unnamed: no info dictionary") << unnamed(d) << unnamedResult;
        d = display();
        d.hasProductName = false;
        QTest::newRow("unnamed: no product name key") << unnamed(d) << unnamedResult;
        d = display();
        QTest::newRow("unnamed: empty product name dictionary") << unnamed(d) << unnamedResult;

        m = machine();
        m.displays = {named(5, "Projector", true)};
        m.displays[0].widthMm = m.displays[0].heightMm = 0;
        m.displays[0].hasMode = false;
        QTest::newRow("zero physical size, no current mode")
            << m
            << QVariantMap{{"size", 1},
                           {"screens", QVariantList{screen("Projector", "1920 x 1080",
                                                           "1920 x 1080 (0,0)", 72.0, 0.0)}},
                           {"primaryScreenName", "Projector"}};

        m = machine();
        display retina = named(1, "Built-in Retina Display", true);
        retina.width = 1440, retina.height = 900;
        retina.pixelsWide = 2880, retina.pixelsHigh = 1800;
        retina.modeWidth = 1440, retina.modePixelWidth = 2880;
        retina.widthMm = 330, retina.heightMm = 206;
        m.displays = {retina};
        QTest::newRow("retina mode")
            << m
            << QVariantMap{{"size", 1},
                           {"screens", QVariantList{screen("Built-in Retina Display", "2880 x 1800",
                                                           "1440 x 900 (0,0)", 144.0,
                                                           (2880 * 25.4 / 330 + 1800 * 25.4 / 206) * 0.5)}},
                           {"primaryScreenName", "Built-in Retina Display"}};

        m = machine();
        display left = named(7, "DELL U2720Q");
        left.x = -1920;
        m.displays = {named(1, "Studio Display", true), left};
        m.displays[1].hasMode = true;
        QTest::newRow("left of the main display")
            << m
            << QVariantMap{{"size", 2},
                           {"screens", QVariantList{screen1080("Studio Display"),
                                                    screen1080("DELL U2720Q", "1920 x 1080 (-1920,0)")}},
                           {"primaryScreenName", "Studio Display"}};

        m = machine();
        display halves = named(3, "Sidecar", true);
        halves.x = -2.5, halves.y = 2.5, halves.width = 1366.5, halves.height = -0.5;
        display fractions = named(4, "iPad");
        fractions.x = -1279.6, fractions.y = -0.5, fractions.width = 1279.6, fractions.height = 720.4;
        m.displays = {halves, fractions};
        QTest::newRow("halves round upwards")
            << m
            << QVariantMap{{"size", 2},
                           {"screens", QVariantList{screen1080("Sidecar", "1367 x 0 (-2,3)"),
                                                    screen1080("iPad", "1280 x 720 (-1280,0)")}},
                           {"primaryScreenName", "Sidecar"}};

        m = machine();
        m.displays = {named(1, "A"), named(2, "B")};
        QTest::newRow("no main display")
            << m << QVariantMap{{"size", 2}, {"screens", QVariantList{screen1080("A"), screen1080("B")}}};
    }

    void screens()
    {
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getScreenResolutionInfo(), expected);
    }

    void systemVersion_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QString>("expected");
        machine m;
        m.sysctls = {{"kern.osproductversion", fake_apple::sysctl_text(" 14.2.1\n")},
                     {"kern.osrelease", fake_apple::sysctl_text("23.2.0")}};
        QTest::newRow("product version, trimmed") << m << "14.2.1";
        m.sysctls.erase("kern.osproductversion");
        QTest::newRow("product version missing") << m << "23.2.0";
        m.sysctls["kern.osproductversion"] = fake_apple::sysctl_text("  ");
        QTest::newRow("product version blank") << m << "23.2.0";
        m.sysctls["kern.osproductversion"] = {fake_apple::sysctl_entry::failing_on_read, "14.2"};
        QTest::newRow("product version read fails") << m << "23.2.0";
        m.sysctls["kern.osrelease"] = {fake_apple::sysctl_entry::failing, "23.2.0"};
        QTest::newRow("both fail") << m << QString();
    }

    void systemVersion()
    {
        QFETCH(machine, mac);
        QFETCH(QString, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getSystemVersionInfo(),
                      (QVariantMap{{"systemName", "macOS"}, {"productVersion", expected}}));
    }

    void language_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QString>("expected");
        machine m;
        m.preferredLanguages = std::vector<std::string>{"zh-Hans-CN", "en-GB"};
        QTest::newRow("script and region") << m << "zh_Hans_CN";
        m.preferredLanguages = std::vector<std::string>{"en-GB"};
        QTest::newRow("region") << m << "en_GB";
        m.preferredLanguages = std::vector<std::string>{"de"};
        QTest::newRow("language only") << m << "de";
        m.preferredLanguages = std::vector<std::string>{};
        QTest::newRow("empty list") << m << QLocale::system().name();
        m.preferredLanguages.reset();
        QTest::newRow("no list") << m << QLocale::system().name();
    }

    void language()
    {
        QFETCH(machine, mac);
        QFETCH(QString, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getSystemLanguageInfo(), (QVariantMap{{"languageCode", expected}}));
    }

    void cpu_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");
        using fake_apple::sysctl_text;
        using fake_apple::sysctl_u32;
        using fake_apple::sysctl_u64;

        machine arm;
        arm.sysctls = {{"machdep.cpu.brand_string", sysctl_text("")},
                       {"hw.optional.arm64", sysctl_u32(1)},
                       {"hw.physicalcpu", sysctl_u32(8)},
                       {"hw.logicalcpu", sysctl_u32(8)},
                       {"hw.model", sysctl_text("Mac14,2")}};
        QTest::newRow("apple silicon, empty brand, no frequency")
            << arm
            << QVariantMap{{"name", "Apple Silicon"}, {"manufacturer", "Apple"}, {"cores", 8}, {"threads", 8}};
        arm.sysctls["machdep.cpu.brand_string"] = sysctl_text("Apple M2 Pro");
        arm.sysctls["hw.physicalcpu"] = sysctl_u32(0);
        arm.sysctls["hw.logicalcpu"] = {fake_apple::sysctl_entry::failing, {}};
        QTest::newRow("apple brand, no core counts")
            << arm << QVariantMap{{"name", "Apple M2 Pro"}, {"manufacturer", "Apple"}};

        machine intel;
        intel.sysctls = {{"machdep.cpu.brand_string", sysctl_text("Intel(R) Core(TM) i9-9880H CPU @ 2.30GHz")},
                         {"hw.physicalcpu", sysctl_u32(8)},
                         {"hw.logicalcpu", sysctl_u32(16)},
                         {"hw.cpufrequency_max", sysctl_u64(2400000000)},
                         {"hw.cpufrequency", sysctl_u64(2300000000)}};
        QTest::newRow("intel, maximum frequency")
            << intel
            << QVariantMap{{"name", "Intel(R) Core(TM) i9-9880H CPU @ 2.30GHz"},
                           {"manufacturer", "Intel"}, {"cores", 8}, {"threads", 16},
                           {"maxClockSpeedMHz", quint64(2400)}};
        intel.sysctls.erase("hw.cpufrequency_max");
        intel.sysctls["hw.cpufrequency"] = sysctl_u64(999999);
        intel.sysctls["machdep.cpu.brand_string"] = sysctl_text("genuine intel");
        intel.sysctls.erase("hw.physicalcpu");
        intel.sysctls.erase("hw.logicalcpu");
        QTest::newRow("lower-case intel, frequency under 1 MHz")
            << intel
            << QVariantMap{{"name", "genuine intel"}, {"manufacturer", "Intel"},
                           {"maxClockSpeedMHz", quint64(0)}};

        machine other;
        other.sysctls = {{"hw.optional.arm64", sysctl_u32(0)},
                         {"hw.model", sysctl_text("MacPro7,1")},
                         {"hw.cpufrequency_max", {fake_apple::sysctl_entry::failing, {}}},
                         {"hw.cpufrequency", sysctl_u64(3199999999)}};
        QTest::newRow("neither, model name, frequency truncated")
            << other << QVariantMap{{"name", "MacPro7,1"}, {"maxClockSpeedMHz", quint64(3199)}};
        QTest::newRow("nothing readable") << machine() << QVariantMap();
    }

    void cpu()
    {
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getCpuModelInfo(), expected);
    }

    void memory_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantMap>("expected");
        machine m;
        m.sysctls = {{"hw.memsize", fake_apple::sysctl_u64(17179869184ULL)}};
        m.pageSize = 16384;
        m.freeAndInactivePages = std::make_pair(100000u, 30000u);
        QTest::newRow("16 GiB")
            << m << QVariantMap{{"totalMemoryGB", 16.0},
                                {"freeMemoryGB", 130000.0 * 16384 / kGiB}};
        m.sysctls = {{"hw.memsize", fake_apple::sysctl_u64(25769803776ULL + 1)}};
        m.freeAndInactivePages = std::make_pair(0xFFFFFFFFu, 0xFFFFFFFFu);  // overflows 32 bits
        QTest::newRow("unrounded, 64-bit page arithmetic")
            << m << QVariantMap{{"totalMemoryGB", 24.0 + 1.0 / kGiB},
                                {"freeMemoryGB", 2.0 * 0xFFFFFFFFu * 16384 / kGiB}};
        m.freeAndInactivePages.reset();
        QTest::newRow("statistics fail") << m << QVariantMap{{"totalMemoryGB", 24.0 + 1.0 / kGiB}};
        m.freeAndInactivePages = std::make_pair(1u, 1u);
        m.pageSize.reset();
        m.sysctls.clear();
        QTest::newRow("page size fails, no memsize") << m << QVariantMap();
    }

    void memory()
    {
        QFETCH(machine, mac);
        QFETCH(QVariantMap, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getMemoryInfo(), expected);
    }

    void gpus_data()
    {
        QTest::addColumn<machine>("mac");
        QTest::addColumn<QVariantList>("expected");
        machine m;
        QTest::newRow("no adapters") << m << QVariantList();

        // An iMac with a discrete card: its VRAM sits on the PCI device, the IOGPU accelerator
        // below it reports the same model, and must not count twice.
        registry_entry radeon = pci("AMD Radeon Pro 5700", kDisplayClassBE);
        radeon.properties["VRAM,totalMB"] = int64_t(8192);
        radeon.properties["driver-version"] = std::string("4.6.1");
        registry_entry accelerator = gpu("AMDRadeonX6000", {{"model", std::string("AMD Radeon Pro 5700")}});
        accelerator.parent = 0;
        m.registry = {radeon, accelerator};
        QTest::newRow("same adapter in both classes")
            << m << QVariantList{adapter("AMD Radeon Pro 5700", 8192.0, "4.6.1")};

        registry_entry intelIgpu = pci("Intel UHD Graphics 630", int64_t(0x030000));
        intelIgpu.properties["VRAM,totalsize"] = cf_data{QByteArray("\x60\x00\x00\x00", 4)};
        registry_entry ethernet = pci("Ethernet", int64_t(0x020000));
        registry_entry littleEndian = pci("Radeon LE", kDisplayClassLE);
        registry_entry noClass = pci("Mystery", int64_t(0));
        noClass.properties.erase("class-code");
        m.registry = {intelIgpu, ethernet, littleEndian, noClass};
        QTest::newRow("class codes: number, network, little-endian data, none")
            << m << QVariantList{adapter("Intel UHD Graphics 630", 1536.0)};

        registry_entry parent;
        parent.className = "AppleARMIODevice";
        parent.properties = {{"VRAM,totalsize", int64_t(1610612736)}, {"driver-version", cf_data{"  12.1 \0junk"}}};
        registry_entry agx = gpu("AGXAcceleratorG14X", {{"model", std::string("Apple M2 Pro")}});
        agx.parent = 0;
        registry_entry small = gpu("SmallGPU", {{"gpu-model", cf_data{QByteArray(" Tiny \0", 7)}},
                                               {"VRAM,totalsize", int64_t(1048575)}});
        registry_entry zeroMB = gpu("ZeroGPU", {{"VRAM,totalMB", int64_t(0)}, {"VRAM,totalsize", int64_t(2097152)}});
        registry_entry nameless = gpu("", {});
        m.registry = {parent, agx, small, zeroMB, nameless, agx};
        QTest::newRow("IOGPU: parents, fallbacks, small VRAM, class name")
            << m
            << QVariantList{adapter("Apple M2 Pro", 1536.0, "12.1"), adapter("Tiny"),
                            adapter("ZeroGPU", 2.0)};

        m.registry = {radeon, accelerator};
        m.failingMatches = {"IOPCIDevice"};
        QTest::newRow("PCI lookup fails, the accelerator finds its card's properties")
            << m << QVariantList{adapter("AMD Radeon Pro 5700", 8192.0, "4.6.1")};
        m.failingMatches = {"IOPCIDevice", "IOGPU"};
        QTest::newRow("both lookups fail") << m << QVariantList();
    }

    void gpus()
    {
        QFETCH(machine, mac);
        QFETCH(QVariantList, expected);
        fake_apple::install(mac);
        COMPARE_TYPED(KrMacosInfo::getGpuInfo(),
                      (QVariantMap{{"gpuCount", expected.size()}, {"gpus", expected}}));
        // Registry properties are searched through the service plane and the entry's parents;
        // "class-code" is read from the entry itself.
        for (const QString& call : fake_apple::ledger().calls)
            QVERIFY2(call.endsWith("in IOService options 3") || call == "create class-code options 0",
                     qPrintable(call));
    }

    void allSystemInfoSignalsOncePerCallFromThePool()
    {
        machine m;
        m.displays = {named(1, "Studio Display", true)};
        m.sysctls = {{"kern.osproductversion", fake_apple::sysctl_text("14.2")},
                     {"hw.memsize", fake_apple::sysctl_u64(8 * kGiB)}};
        m.preferredLanguages = std::vector<std::string>{"fr-CA"};
        fake_apple::install(m);

        // Both collections may emit at the same moment from two pool threads, which QSignalSpy
        // does not survive; record under a lock instead.
        KrMacosInfo info;
        std::mutex mutex;  // a QMutex's futex is invisible to ThreadSanitizer
        QList<QPair<QThread*, QVariantMap>> received;
        const auto count = [&] {
            std::lock_guard<std::mutex> lock(mutex);
            return received.size();
        };
        connect(&info, &KrMacosInfo::allSystemInfoFinished, this, [&](const QVariantMap& all) {
            std::lock_guard<std::mutex> lock(mutex);
            received.append({QThread::currentThread(), all});
        }, Qt::DirectConnection);

        info.allSystemInfo();
        info.allSystemInfo();
        QTRY_COMPARE(count(), 2);
        QVERIFY(QThreadPool::globalInstance()->waitForDone(5000));
        QCOMPARE(count(), 2);
        for (const auto& [emitter, all] : received) {
            QVERIFY(emitter != QThread::currentThread());
            QCOMPARE(all.keys(), QStringList({"cpu", "language", "memory", "screen", "system"}));
            COMPARE_TYPED(all["cpu"], KrMacosInfo::getCpuModelInfo());
            COMPARE_TYPED(all["memory"], KrMacosInfo::getMemoryInfo());
            COMPARE_TYPED(all["screen"], KrMacosInfo::getScreenResolutionInfo());
            COMPARE_TYPED(all["system"], KrMacosInfo::getSystemVersionInfo());
            COMPARE_TYPED(all["language"], (QVariantMap{{"languageCode", "fr_CA"}}));
        }
    }

    void metaObject()
    {
        const QMetaObject& meta = KrMacosInfo::staticMetaObject;
        QCOMPARE(meta.className(), "information_api::KrMacosInfo");
        QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
        QCOMPARE(meta.method(meta.methodOffset()).methodSignature(),
                 QByteArray("allSystemInfoFinished(QVariantMap)"));
        QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_macos_info)
#include "tst_macos_info.moc"
