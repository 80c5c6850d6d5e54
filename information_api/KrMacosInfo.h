// The macOS machine description: screens, operating-system version, language, processor and
// memory, collected on a pool thread and delivered as one map; plus a probe of the graphics
// adapters. Built into the library on macOS only.
#pragma once

#include <information_api/information_api_export.h>

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

namespace information_api {

class INFORMATION_API_EXPORT KrMacosInfo : public QObject {
    Q_OBJECT

public:
    KrMacosInfo();
    ~KrMacosInfo() override;

    // Starts one collection on Qt's global thread pool and returns at once. Each call emits
    // allSystemInfoFinished exactly once, from the pool thread, with the keys "cpu", "memory",
    // "screen", "system" and "language". The object must outlive every collection it started.
    void allSystemInfo();

    // Probes, each returning a fresh map; stateless, callable from any thread.
    static QMap<QString, QVariant> getScreenResolutionInfo();
    static QMap<QString, QVariant> getSystemVersionInfo();
    static QMap<QString, QVariant> getSystemLanguageInfo();
    static QMap<QString, QVariant> getCpuModelInfo();
    static QMap<QString, QVariant> getGpuInfo();  // not part of allSystemInfo()
    static QMap<QString, QVariant> getMemoryInfo();

signals:
    void allSystemInfoFinished(const QMap<QString, QVariant>& info);
};

}  // namespace information_api
