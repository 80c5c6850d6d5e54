#include <information_api/KrMacosInfo.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/graphics/IOGraphicsLib.h>
#include <mach/mach.h>
#include <sys/sysctl.h>

#include <QLocale>
#include <QSet>
#include <QThreadPool>
#include <QVariantList>
#include <QtConcurrent/QtConcurrentRun>

#include <cstdint>
#include <vector>

namespace information_api {

namespace {

constexpr double kBytesPerGiB = 1024.0 * 1024.0 * 1024.0;
constexpr IOOptionBits kSearchUpwards = kIORegistryIterateRecursively | kIORegistryIterateParents;

// Text from the bytes before the first zero byte; `bytes` is zero-terminated by QByteArray.
QString utf8UpToZero(const QByteArray& bytes) { return QString::fromUtf8(bytes.constData()); }

QString readSysctlString(const char* name)
{
    size_t length = 0;
    if (sysctlbyname(name, nullptr, &length, nullptr, 0) != 0 || length == 0)
        return QString();
    QByteArray buffer(int(length), '\0');
    if (sysctlbyname(name, buffer.data(), &length, nullptr, 0) != 0)
        return QString();
    return utf8UpToZero(buffer).trimmed();
}

// Fixed-width sysctl values; false when the key is missing or the read fails.
template <typename T> bool readSysctlValue(const char* name, T& value)
{
    size_t length = sizeof value;
    return sysctlbyname(name, &value, &length, nullptr, 0) == 0;
}

QString fromCfString(CFStringRef s)
{
    if (!s)
        return QString();
    const CFIndex size = CFStringGetMaximumSizeForEncoding(CFStringGetLength(s), kCFStringEncodingUTF8) + 1;
    if (size <= 0)  // kCFNotFound: the length overflows the maximum size
        return QString();
    QByteArray buffer(int(size), '\0');
    if (!CFStringGetCString(s, buffer.data(), size, kCFStringEncodingUTF8))
        return QString();
    return utf8UpToZero(buffer);
}

// Numbers as signed 64-bit; data as a big-endian integer (first byte most significant, only the
// last 8 bytes survive). Registry data such as "class-code" is stored little-endian, so callers
// see it byte-swapped.
quint64 cfTypeToUInt64(CFTypeRef value)
{
    if (!value)
        return 0;
    const CFTypeID type = CFGetTypeID(value);
    if (type == CFNumberGetTypeID()) {
        int64_t number = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(value), kCFNumberSInt64Type, &number);
        return quint64(number);
    }
    if (type == CFDataGetTypeID()) {
        const auto data = static_cast<CFDataRef>(value);
        const UInt8* bytes = CFDataGetBytePtr(data);
        const CFIndex length = CFDataGetLength(data);
        if (!bytes || length < 1)
            return 0;
        quint64 result = 0;
        for (CFIndex i = 0; i < length; ++i)
            result = (result << 8) | bytes[i];
        return result;
    }
    return 0;
}

// Looks `key` up on `entry` and, failing that, on its ancestors in the service plane.
CFTypeRef searchRegistry(io_registry_entry_t entry, CFStringRef key)
{
    return IORegistryEntrySearchCFProperty(entry, kIOServicePlane, key, kCFAllocatorDefault, kSearchUpwards);
}

QString getRegistryString(io_registry_entry_t entry, CFStringRef key)
{
    const CFTypeRef value = searchRegistry(entry, key);
    if (!value)
        return QString();
    QString text;
    const CFTypeID type = CFGetTypeID(value);
    if (type == CFStringGetTypeID()) {
        text = fromCfString(static_cast<CFStringRef>(value));
    } else if (type == CFDataGetTypeID()) {
        // Firmware stores names such as "model" as zero-terminated, sometimes padded bytes.
        const auto data = static_cast<CFDataRef>(value);
        const UInt8* bytes = CFDataGetBytePtr(data);
        const CFIndex length = CFDataGetLength(data);
        if (bytes && length > 0) {
            QByteArray raw(reinterpret_cast<const char*>(bytes), int(length));
            const int end = raw.indexOf('\0');
            if (end >= 0)
                raw.truncate(end);
            text = QString::fromUtf8(raw).trimmed();
        }
    }
    CFRelease(value);
    return text;
}

QString serviceClassName(io_service_t service)
{
    io_name_t className = {};
    if (IOObjectGetClass(service, className) != KERN_SUCCESS)
        return QString();
    return QString::fromLatin1(className, int(qstrnlen(className, sizeof className)));
}

quint64 vramMegabytes(io_service_t service)
{
    quint64 megabytes = 0;
    if (const CFTypeRef totalMB = searchRegistry(service, CFSTR("VRAM,totalMB"))) {
        megabytes = cfTypeToUInt64(totalMB);
        CFRelease(totalMB);
    }
    if (megabytes == 0) {
        if (const CFTypeRef totalBytes = searchRegistry(service, CFSTR("VRAM,totalsize"))) {
            megabytes = cfTypeToUInt64(totalBytes) >> 20;
            CFRelease(totalBytes);
        }
    }
    return megabytes;
}

bool isPciDisplayController(io_service_t service)
{
    const CFTypeRef classCode = IORegistryEntryCreateCFProperty(service, CFSTR("class-code"), kCFAllocatorDefault, 0);
    const quint64 value = cfTypeToUInt64(classCode);
    if (classCode)
        CFRelease(classCode);
    return (value & 0xFF0000) == 0x030000;  // PCI base class 3: display controller
}

void collectGpuInfo(const char* className, bool requireDisplayClass, QList<QVariant>& gpus, QSet<QString>& seenNames)
{
    io_iterator_t services = 0;
#pragma GCC diagnostic push
    // kIOMainPortDefault needs macOS 12; both name the same default port.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const mach_port_t mainPort = kIOMasterPortDefault;
#pragma GCC diagnostic pop
    // The matching dictionary is consumed by the lookup, whatever its outcome.
    if (IOServiceGetMatchingServices(mainPort, IOServiceMatching(className), &services) != KERN_SUCCESS)
        return;

    while (const io_service_t service = IOIteratorNext(services)) {
        if (!requireDisplayClass || isPciDisplayController(service)) {
            QString name = getRegistryString(service, CFSTR("model"));
            if (name.isEmpty())
                name = getRegistryString(service, CFSTR("gpu-model"));
            if (name.isEmpty())
                name = serviceClassName(service);
            if (!name.isEmpty() && !seenNames.contains(name)) {
                QVariantMap adapter;
                adapter.insert("name", name);
                if (const quint64 megabytes = vramMegabytes(service))
                    adapter.insert("vramMB", double(megabytes));
                const QString driver = getRegistryString(service, CFSTR("driver-version"));
                if (!driver.isEmpty())
                    adapter.insert("driverVersion", driver);
                gpus.append(adapter);
                seenNames.insert(name);
            }
        }
        IOObjectRelease(service);
    }
    IOObjectRelease(services);
}

double logicalDpi(CGDirectDisplayID display)
{
    double dpi = 72.0;
    if (const CGDisplayModeRef mode = CGDisplayCopyDisplayMode(display)) {
        const size_t points = CGDisplayModeGetWidth(mode);
        const size_t pixels = CGDisplayModeGetPixelWidth(mode);
        if (points != 0 && pixels != 0)
            dpi = double(pixels) / double(points) * 72.0;
        CGDisplayModeRelease(mode);
    }
    return dpi;
}

// The product name in the user's preferred language; empty when IOKit has none.
QString displayProductName(CGDirectDisplayID display)
{
#pragma GCC diagnostic push
    // Deprecated without a public replacement; it is the only route from a display id to the
    // IOKit service that holds the product name. The port is borrowed, not released.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const io_service_t port = CGDisplayIOServicePort(display);
#pragma GCC diagnostic pop
    if (port == MACH_PORT_NULL)
        return QString();
    const CFDictionaryRef info = IODisplayCreateInfoDictionary(port, kIODisplayOnlyPreferredName);
    if (!info)
        return QString();
    QString name;
    const CFTypeRef names = CFDictionaryGetValue(info, CFSTR(kDisplayProductName));
    if (names && CFGetTypeID(names) == CFDictionaryGetTypeID()) {
        // Maps a locale to a name; only the preferred one was asked for.
        const auto namesByLocale = static_cast<CFDictionaryRef>(names);
        const CFIndex count = CFDictionaryGetCount(namesByLocale);
        if (count > 0) {
            const auto entries = size_t(count);
            std::vector<const void*> keys(entries), values(entries);
            CFDictionaryGetKeysAndValues(namesByLocale, keys.data(), values.data());
            if (values[0] && CFGetTypeID(values[0]) == CFStringGetTypeID())
                name = fromCfString(static_cast<CFStringRef>(values[0]));
        }
    }
    CFRelease(info);
    return name;
}

double physicalDpi(size_t pixelsWide, size_t pixelsHigh, CGSize millimetres)
{
    if (millimetres.width <= 0 || millimetres.height <= 0)
        return 0.0;
    return (double(pixelsWide) * 25.4 / millimetres.width + double(pixelsHigh) * 25.4 / millimetres.height) * 0.5;
}

QVariantMap noScreens()
{
    QVariantMap info;
    info.insert("size", 0);
    info.insert("screens", QVariantList());
    return info;
}

// One collection, on a pool thread.
void collect_and_report(KrMacosInfo* collector)
{
    QVariantMap info;
    info.insert("cpu", KrMacosInfo::getCpuModelInfo());
    info.insert("memory", KrMacosInfo::getMemoryInfo());
    info.insert("screen", KrMacosInfo::getScreenResolutionInfo());
    info.insert("system", KrMacosInfo::getSystemVersionInfo());
    info.insert("language", KrMacosInfo::getSystemLanguageInfo());
    emit collector->allSystemInfoFinished(info);
}

}  // namespace

KrMacosInfo::KrMacosInfo() : QObject(nullptr) {}

KrMacosInfo::~KrMacosInfo() = default;

void KrMacosInfo::allSystemInfo() { QtConcurrent::run(QThreadPool::globalInstance(), collect_and_report, this); }

QMap<QString, QVariant> KrMacosInfo::getScreenResolutionInfo()
{
    uint32_t count = 0;
    if (CGGetActiveDisplayList(0, nullptr, &count) != kCGErrorSuccess || count == 0)
        return noScreens();
    std::vector<CGDirectDisplayID> displays(count, 0);
    // Displays may come and go between the two calls; the second count is the one that holds.
    if (CGGetActiveDisplayList(count, displays.data(), &count) != kCGErrorSuccess)
        return noScreens();

    QVariantMap info;
    QVariantList screens;
    for (uint32_t i = 0; i < count && i < displays.size(); ++i) {
        const CGDirectDisplayID display = displays[i];
        const CGRect bounds = CGDisplayBounds(display);
        const size_t pixelsWide = CGDisplayPixelsWide(display);
        const size_t pixelsHigh = CGDisplayPixelsHigh(display);

        QString name = displayProductName(display);
        if (name.isEmpty())
            name = QStringLiteral("Display %1").arg(display);

        QVariantMap screen;
        screen.insert("name", name);
        screen.insert("resolution", QStringLiteral("%1 x %2").arg(pixelsWide).arg(pixelsHigh));
        screen.insert("availableGeometry", QStringLiteral("%1 x %2 (%3,%4)")
                                               .arg(qRound(bounds.size.width))
                                               .arg(qRound(bounds.size.height))
                                               .arg(qRound(bounds.origin.x))
                                               .arg(qRound(bounds.origin.y)));
        screen.insert("logicalDpi", logicalDpi(display));
        screen.insert("physicalDpi", physicalDpi(pixelsWide, pixelsHigh, CGDisplayScreenSize(display)));
        screens.append(screen);

        if (CGDisplayIsMain(display))
            info.insert("primaryScreenName", name);
    }
    info.insert("size", int(count));
    info.insert("screens", screens);
    return info;
}

QMap<QString, QVariant> KrMacosInfo::getSystemVersionInfo()
{
    QString version = readSysctlString("kern.osproductversion");
    if (version.isEmpty())
        version = readSysctlString("kern.osrelease");
    QVariantMap info;
    info.insert("systemName", QStringLiteral("macOS"));
    info.insert("productVersion", version);
    return info;
}

QMap<QString, QVariant> KrMacosInfo::getSystemLanguageInfo()
{
    QString code;
    if (const CFArrayRef languages = CFLocaleCopyPreferredLanguages()) {
        if (CFArrayGetCount(languages) > 0)
            code = fromCfString(static_cast<CFStringRef>(CFArrayGetValueAtIndex(languages, 0))).replace('-', '_');
        CFRelease(languages);
    }
    if (code.isEmpty())
        code = QLocale::system().name();
    QVariantMap info;
    info.insert("languageCode", code);
    return info;
}

QMap<QString, QVariant> KrMacosInfo::getCpuModelInfo()
{
    QString brand = readSysctlString("machdep.cpu.brand_string");
    int32_t arm64 = 0;
    const bool isArm = readSysctlValue("hw.optional.arm64", arm64) && arm64 == 1;
    if (brand.isEmpty() && isArm)
        brand = QStringLiteral("Apple Silicon");
    if (brand.isEmpty())
        brand = readSysctlString("hw.model");

    QVariantMap info;
    if (!brand.isEmpty())
        info.insert("name", brand);
    if (brand.contains("Intel", Qt::CaseInsensitive))
        info.insert("manufacturer", QStringLiteral("Intel"));
    else if (brand.contains("Apple", Qt::CaseInsensitive) || isArm)
        info.insert("manufacturer", QStringLiteral("Apple"));

    int32_t cores = 0;
    if (readSysctlValue("hw.physicalcpu", cores) && cores >= 1)
        info.insert("cores", int(cores));
    int32_t threads = 0;
    if (readSysctlValue("hw.logicalcpu", threads) && threads >= 1)
        info.insert("threads", int(threads));

    // Apple silicon reports no "hw.cpufrequency_max"; Intel Macs report both.
    uint64_t hertz = 0;
    if (!readSysctlValue("hw.cpufrequency_max", hertz))
        readSysctlValue("hw.cpufrequency", hertz);
    if (hertz != 0)
        info.insert("maxClockSpeedMHz", quint64(hertz / 1000000));
    return info;
}

QMap<QString, QVariant> KrMacosInfo::getMemoryInfo()
{
    QVariantMap info;
    uint64_t bytes = 0;
    if (readSysctlValue("hw.memsize", bytes))
        info.insert("totalMemoryGB", double(bytes) / kBytesPerGiB);

    const host_t host = mach_host_self();
    vm_size_t pageSize = 0;
    if (host_page_size(host, &pageSize) != KERN_SUCCESS)
        return info;
    vm_statistics64_data_t statistics = {};
    mach_msg_type_number_t count = HOST_VM_INFO64_COUNT;
    if (host_statistics64(host, HOST_VM_INFO64, reinterpret_cast<host_info64_t>(&statistics), &count) != KERN_SUCCESS)
        return info;
    const uint64_t freeBytes = (uint64_t(statistics.free_count) + statistics.inactive_count) * uint64_t(pageSize);
    info.insert("freeMemoryGB", double(freeBytes) / kBytesPerGiB);
    return info;
}

QMap<QString, QVariant> KrMacosInfo::getGpuInfo()
{
    QVariantList gpus;
    QSet<QString> seenNames;
    collectGpuInfo("IOPCIDevice", true, gpus, seenNames);
    collectGpuInfo("IOGPU", false, gpus, seenNames);
    QVariantMap info;
    info.insert("gpuCount", gpus.size());
    info.insert("gpus", gpus);
    return info;
}

}  // namespace information_api
