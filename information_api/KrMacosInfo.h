/// @file
/// The macOS machine description: screens, operating-system version, language, processor and
/// memory, collected on a pool thread and delivered as one map; plus a probe of the graphics
/// adapters. Built into the library, and installed, on macOS only; the record manager does not
/// use it.
#pragma once

#include <information_api/information_api_export.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

namespace information_api {

/// Describes the Mac the host runs on, through the Apple C APIs (sysctl, Mach, CoreGraphics,
/// IOKit, CoreFoundation).
///
/// allSystemInfo() returns at once and delivers the description later through
/// allSystemInfoFinished(); the static probes may be called directly, on any thread. No probe
/// reports an error: what a platform call cannot tell is left out, or given the default the probe
/// names.
class INFORMATION_API_EXPORT KrMacosInfo : public QObject {
    Q_OBJECT

public:
    /// A collector without a parent; it holds no state.
    KrMacosInfo();
    ~KrMacosInfo() override;  ///< Keep the collector until every signal it owes has arrived.

    /// Starts one collection on Qt's global thread pool and returns at once. Each call emits
    /// allSystemInfoFinished exactly once, from the pool thread, with the keys "cpu", "memory",
    /// "screen", "system" and "language". The object must outlive every collection it started.
    void allSystemInfo();

    /// The active displays: "size" (their number, 0 when the list cannot be read), "screens"
    /// (one map per display: "name", "resolution" "W x H" in pixels, "availableGeometry"
    /// "W x H (X,Y)" in points, "logicalDpi", "physicalDpi") and "primaryScreenName". A display
    /// without a product name is named "Display <id>"; "logicalDpi" is 72.0 without a display
    /// mode, "physicalDpi" 0.0 without a physical size.
    static QMap<QString, QVariant> getScreenResolutionInfo();
    /// "systemName" ("macOS") and "productVersion" (the product version, else the kernel release).
    static QMap<QString, QVariant> getSystemVersionInfo();
    /// "languageCode": the user's first preferred language with "_" for "-" (zh_Hans_CN), else the
    /// system locale's name.
    static QMap<QString, QVariant> getSystemLanguageInfo();
    /// "name", "manufacturer" ("Intel" or "Apple"), "cores", "threads" and "maxClockSpeedMHz",
    /// each only where the system tells it.
    static QMap<QString, QVariant> getCpuModelInfo();
    /// "gpuCount" and "gpus" (one map per adapter: "name", and "vramMB" and "driverVersion" where
    /// known). Not part of allSystemInfo().
    static QMap<QString, QVariant> getGpuInfo();  // not part of allSystemInfo()
    /// "totalMemoryGB" and "freeMemoryGB" (free and inactive pages), in GiB, where known.
    static QMap<QString, QVariant> getMemoryInfo();

signals:
    /// The description of one allSystemInfo() call, emitted from the pool thread: connect with an
    /// automatic or queued connection to receive it on the receiver's thread.
    void allSystemInfoFinished(const QMap<QString, QVariant>& info);
};

}  // namespace information_api
