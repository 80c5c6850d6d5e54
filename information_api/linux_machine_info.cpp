#include <information_api/linux_machine_info.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QLocale>
#include <QScreen>
#include <QSysInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace information_api {
namespace linux_machine {

namespace {

constexpr qint64 kMiB = 1 << 20;

QByteArray hex4(uint id) { return QByteArray::number(id & 0xffff, 16).rightJustified(4, '0'); }

// A file of /proc or /sys: they report no size, so it is read to its end (at most `limit` bytes).
// Null when it cannot be opened. A sysfs attribute comes whole in one read: `one_read` spares the
// second, which would only see its end (one system call per PCI function).
QByteArray read_file(const std::string& path, int limit = 8 << 20, bool one_read = false)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return QByteArray();
    QByteArray text("");
    char buffer[16384];
    while (text.size() < limit) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        text.append(buffer, int(n));
        if (one_read)
            break;
    }
    ::close(fd);
    return text;
}

}  // namespace

cpu_description parse_cpuinfo(const QByteArray& cpuinfo, const QString& architecture)
{
    cpu_description cpu;
    std::set<std::pair<QByteArray, QByteArray>> pairs;
    QByteArray physical, core;
    bool hasPhysical = false, hasCore = false;
    const auto end_block = [&] {
        if (hasPhysical && hasCore)
            pairs.emplace(physical, core);
        hasPhysical = hasCore = false;
    };
    int logical = 0;
    for (const QByteArray& line : cpuinfo.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon < 0)
            continue;
        const QByteArray key = line.left(colon).trimmed(), value = line.mid(colon + 1).trimmed();
        if (key == "processor") {
            end_block();
            ++logical;
        } else if (key == "physical id") {
            physical = value, hasPhysical = true;
        } else if (key == "core id") {
            core = value, hasCore = true;
        } else if (key == "model name" && cpu.model.isEmpty()) {
            cpu.model = QString::fromUtf8(value);
        }
    }
    end_block();
    cpu.cores = pairs.empty() ? logical : int(pairs.size());
    if (cpu.model.isEmpty())
        cpu.model = architecture;  // most arm64 kernels name no model
    return cpu;
}

qint64 parse_meminfo_mib(const QByteArray& meminfo)
{
    for (const QByteArray& line : meminfo.split('\n')) {
        if (!line.startsWith("MemTotal:"))
            continue;
        bool ok = false;
        const qint64 kib = line.mid(9).simplified().split(' ').value(0).toLongLong(&ok);  // "<n> kB"
        return ok && kib >= 0 ? kib / 1024 : -1;
    }
    return -1;
}

QString with_home_as_tilde(const QString& path, const QString& home)
{
    if (home.isEmpty() || home == QLatin1String("/"))
        return path;
    if (path == home)
        return QStringLiteral("~");
    // On a boundary only: /home/ann is not the start of /home/anna.
    if (path.startsWith(home + QLatin1Char('/')))
        return QLatin1Char('~') + path.mid(home.size());
    return path;
}

bool is_display_controller(const QByteArray& classCode)
{
    bool ok = false;
    const uint code = classCode.trimmed().toUInt(&ok, 16);
    return ok && (code >> 16) == 0x03;
}

QString pci_name(const QByteArray& ids, uint vendor, uint device)
{
    // A vendor's line starts with its id and two spaces (after a line end: the database begins with
    // comments); its devices follow, indented by one tab (their subsystems by two), up to the next
    // line that is not indented or a comment. The vendor is found with strstr, which glibc
    // vectorises: a million bytes in 13 us, where memmem takes 20 times as long.
    const char* const begin = ids.constData();
    const char* const end = begin + ids.size();
    const QByteArray vendorKey = '\n' + hex4(vendor) + "  ", deviceKey = '\t' + hex4(device) + "  ";
    const char* const found = std::strstr(begin, vendorKey.constData());
    if (!found || found >= end)
        return QString();
    const char* const at = found + vendorKey.size();  // the vendor's name
    const auto line_end = [end](const char* from) {
        const void* newline = memchr(from, '\n', size_t(end - from));
        return newline ? static_cast<const char*>(newline) : end;
    };
    const char* const vendorEnd = line_end(at);
    for (const char* line = vendorEnd + 1; line < end && (*line == '\t' || *line == '#');) {
        const char* const lineEnd = line_end(line);
        if (line[1] == deviceKey[1] && lineEnd - line >= deviceKey.size() &&
            std::memcmp(line, deviceKey.constData(), size_t(deviceKey.size())) == 0) {
            const QByteArray name =
                QByteArray(at, int(vendorEnd - at)).trimmed() + ' ' +
                QByteArray(line + deviceKey.size(), int(lineEnd - line - deviceKey.size())).trimmed();
            return QString::fromUtf8(name);
        }
        line = lineEnd + 1;
    }
    return QString();
}

void describe_gpus(
    const std::vector<pci_function>& functions, const QByteArray& ids, QStringList& models, QStringList& memSizes)
{
    QStringList names, sizes;
    for (const pci_function& function : functions) {
        bool vendorOk = false, deviceOk = false;
        const uint vendor = function.vendor.trimmed().toUInt(&vendorOk, 16);
        const uint device = function.device.trimmed().toUInt(&deviceOk, 16);
        if (!is_display_controller(function.classCode) || !vendorOk || !deviceOk)
            continue;
        const QString name = pci_name(ids, vendor, device);
        names << (name.isEmpty() ? QString::fromLatin1(hex4(vendor) + ':' + hex4(device)) : name);
        bool sizeOk = false;
        const qint64 bytes = function.vramTotal.trimmed().toLongLong(&sizeOk);
        sizes << (sizeOk && bytes >= 0 ? QString::number(bytes / kMiB) : QString());
    }
    // The envelope writes a size wherever the list has an entry: none for adapters after the last
    // one with a size.
    while (!sizes.isEmpty() && sizes.last().isEmpty())
        sizes.removeLast();
    models = names;
    memSizes = sizes;
}

void probe_os(QString& osName, QString& lang, QString& resolution)
{
    osName = QSysInfo::prettyProductName();
    lang = QLocale::system().name();
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        return;  // no screens to ask
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        const QSize pixels = screen->size() * screen->devicePixelRatio();
        resolution = QStringLiteral("%1 x %2").arg(pixels.width()).arg(pixels.height());
    }
}

void probe_install(QString& installPath, QString& hddSize, QString& hddRemainSize)
{
    if (!QCoreApplication::instance())
        return;  // the application's folder is unknown before the application exists
    const QString folder = QCoreApplication::applicationDirPath();
    if (folder.isEmpty())
        return;
    const QString home = QDir::homePath();
    // The folder is a canonical path; the home directory may be reached through a link.
    installPath = with_home_as_tilde(with_home_as_tilde(folder, home), QFileInfo(home).canonicalFilePath());
    // QStorageInfo's totals, from the same statvfs() call; QStorageInfo itself first reads every
    // mount point and device label, 140 us of the host's start here.
    struct statvfs volume;
    if (::statvfs(QFile::encodeName(folder).constData(), &volume) == 0 && volume.f_blocks > 0) {
        hddSize = QString::number(qint64(volume.f_blocks) * qint64(volume.f_frsize) / kMiB);
        hddRemainSize = QString::number(qint64(volume.f_bavail) * qint64(volume.f_frsize) / kMiB);
    }
}

void probe_cpu(QString& cores, QString& model)
{
    const QByteArray cpuinfo = read_file("/proc/cpuinfo");
    if (cpuinfo.isEmpty())
        return;
    const cpu_description cpu = parse_cpuinfo(cpuinfo, QSysInfo::currentCpuArchitecture());
    if (cpu.cores > 0)
        cores = QString::number(cpu.cores);
    model = cpu.model;
}

void probe_memory(QString& size)
{
    const qint64 mib = parse_meminfo_mib(read_file("/proc/meminfo"));
    if (mib >= 0)
        size = QString::number(mib);
}

void probe_gpus(QStringList& models, QStringList& memSizes)
{
    const std::string root = "/sys/bus/pci/devices/";
    DIR* folder = ::opendir(root.c_str());
    if (!folder)
        return;
    std::vector<std::string> addresses;
    while (const dirent* entry = ::readdir(folder))
        if (entry->d_name[0] != '.')
            addresses.emplace_back(entry->d_name);
    ::closedir(folder);
    std::sort(addresses.begin(), addresses.end());

    std::vector<pci_function> functions;
    bool anyDisplay = false;
    for (const std::string& address : addresses) {
        pci_function function;
        const std::string path = root + address + '/';
        function.classCode = read_file(path + "class", 64, true);
        if (is_display_controller(function.classCode)) {
            anyDisplay = true;
            function.vendor = read_file(path + "vendor", 64, true);
            function.device = read_file(path + "device", 64, true);
            function.vramTotal = read_file(path + "mem_info_vram_total", 64, true);
        }
        functions.push_back(function);
    }
    if (!anyDisplay)
        return;
    // The database is about 1.3 MB of text: mapped, not read, and searched only for these ids.
    // pci_name needs a NUL after the text; a mapping's last page is filled up with zeros, so only a
    // file that fills its last page exactly is read instead.
    QByteArray ids;
    QFile database;
    for (const char* path : {"/usr/share/misc/pci.ids", "/usr/share/hwdata/pci.ids"}) {
        database.setFileName(QString::fromLatin1(path));
        if (!database.open(QIODevice::ReadOnly))
            continue;
        const qint64 size = database.size();
        const uchar* mapped = size % ::sysconf(_SC_PAGESIZE) != 0 ? database.map(0, size) : nullptr;
        ids = mapped ? QByteArray::fromRawData(reinterpret_cast<const char*>(mapped), int(size)) : database.readAll();
        break;
    }
    describe_gpus(functions, ids, models, memSizes);
}

}  // namespace linux_machine
}  // namespace information_api
