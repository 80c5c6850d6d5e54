// The machine description on Linux, for the manager's probes. Internal: not installed.
//
// The parsers take the texts of the files they read, so tests feed them files captured on other
// machines; the probes below them read this machine's files and call them.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <vector>

namespace information_api {
namespace linux_machine {

struct cpu_description {
    int cores = 0;  // 0 when the text lists no processor
    QString model;
};

// From /proc/cpuinfo: the physical cores (distinct "physical id" and "core id" pairs, else the
// number of processors) and the first "model name", trimmed, else `architecture`.
cpu_description parse_cpuinfo(const QByteArray& cpuinfo, const QString& architecture);

// "MemTotal" of /proc/meminfo in MiB, rounded down; -1 without one.
qint64 parse_meminfo_mib(const QByteArray& meminfo);

// `path` with `home` written as "~" when it is that directory or lies below it.
QString with_home_as_tilde(const QString& path, const QString& home);

// The files of one PCI function in /sys/bus/pci/devices/<address>/: "class", "vendor", "device"
// and, from amdgpu, "mem_info_vram_total" (empty where there is none).
struct pci_function {
    QByteArray classCode, vendor, device, vramTotal;
};

bool is_display_controller(const QByteArray& classCode);  // PCI class 0x03xxxx

// "<vendor> <device>" as the PCI ID database (pci.ids text, followed by a NUL byte as a
// QByteArray's own data is) names them; empty unless it names both.
QString pci_name(const QByteArray& ids, uint vendor, uint device);

// One model per display controller among `functions`: its name, else "vendor:device" in hex.
// Memory sizes in MiB, parallel to the models, end with the last adapter that reports one; one
// that reports none before it gets an empty entry.
void describe_gpus(
    const std::vector<pci_function>& functions, const QByteArray& ids, QStringList& models, QStringList& memSizes);

// The probes: each sets the fields its sources give and leaves the others as they are.
void probe_os(QString& osName, QString& lang, QString& resolution);
void probe_install(QString& installPath, QString& hddSize, QString& hddRemainSize);
void probe_cpu(QString& cores, QString& model);
void probe_memory(QString& size);
void probe_gpus(QStringList& models, QStringList& memSizes);

}  // namespace linux_machine
}  // namespace information_api
