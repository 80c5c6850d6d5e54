#include <information_api/record_file.h>

#include <glog/logging.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRandomGenerator>
#include <QSettings>
#include <QStringList>
#include <QTemporaryDir>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace information_api {

QDateTime (*record_clock)() = &QDateTime::currentDateTimeUtc;

namespace {

// Record files are read with QSettings, which decodes a value beginning "@Variant(" or
// "@DateTime(" with QDataStream. That trusts the counts it reads: 61 bytes can make it reserve
// billions of entries, and a deeply nested list overflows the stack. The library writes neither,
// so such a file is refused before QSettings sees it. The scan follows QSettings' INI reading
// (lines, quotes, escapes, list items) far enough to see how each value begins once unescaped.
constexpr qint64 kMaxIniBytes = 16 << 20;

// The items of one value (one unless it is a comma-separated list), unescaped.
QStringList ini_value_items(const QByteArray& d, int i, int end)
{
    static const char escaped[] = "abfnrtv\"?'\\", unescaped[] = "\a\b\f\n\r\t\v\"?'\\";
    QStringList items(QString{});
    bool quoted = false;
    const auto skip_blanks = [&] {
        while (i < end && (d[i] == ' ' || d[i] == '\t'))
            ++i;
    };
    const auto digit = [](char c) {
        return c >= '0' && c <= '9'   ? uint(c - '0')
               : c >= 'a' && c <= 'f' ? uint(c - 'a' + 10)
               : c >= 'A' && c <= 'F' ? uint(c - 'A' + 10)
                                      : 99u;
    };
    const auto read_number = [&](uint base, uint value) {  // \x and octal escapes, any length
        while (i < end && digit(d[i]) < base)
            value = value * base + digit(d[i++]);
        items.last() += QChar(ushort(value));
    };
    skip_blanks();
    while (i < end) {
        const char c = d[i++];
        if (c == '\\') {
            if (i == end)
                break;
            const char e = d[i++];
            if (const char* n = e ? std::strchr(escaped, e) : nullptr)
                items.last() += QLatin1Char(unescaped[n - escaped]);
            else if (e == 'x' && i < end && digit(d[i]) < 16)
                read_number(16, 0);
            else if (e >= '0' && e <= '7')
                read_number(8, uint(e - '0'));
            else if ((e == '\n' || e == '\r') && i < end && (d[i] == '\n' || d[i] == '\r') && d[i] != e)
                ++i;  // an escaped line end, "\r\n" and "\n\r" included
        } else if (c == '"') {
            quoted = !quoted;
            if (!quoted)
                skip_blanks();
        } else if (c == ',' && !quoted) {
            items << QString();
            skip_blanks();
        } else {
            items.last() += QLatin1Char(c);
        }
    }
    return items;
}

bool holds_serialised_variant(const QByteArray& d)
{
    for (int i = 0; i < d.size();) {
        while (i < d.size() && (d[i] == ' ' || d[i] == '\t' || d[i] == '\n' || d[i] == '\r'))
            ++i;
        // A line as QSettings reads it: quotes span line ends, a backslash takes the next
        // character along, ';' outside quotes starts a comment.
        const int start = i;
        int equals = -1;
        bool quoted = false;
        for (; i < d.size(); ++i) {
            const char c = d[i];
            if (c == '=' && !quoted && equals < 0)
                equals = i;
            else if (c == '"')
                quoted = !quoted;
            else if (c == '\\')
                i += (i + 2 < d.size() && (d[i + 1] == '\n' || d[i + 1] == '\r') &&
                         (d[i + 2] == '\n' || d[i + 2] == '\r') && d[i + 1] != d[i + 2])
                         ? 2
                         : 1;
            else if (!quoted && (c == '\n' || c == '\r' || c == ';'))
                break;
        }
        const int end = qMin(i, int(d.size()));
        if (equals >= 0 && d[start] != '[') {
            for (const QString& item : ini_value_items(d, equals + 1, end))
                if (item.startsWith(QLatin1String("@Variant(")) || item.startsWith(QLatin1String("@DateTime(")))
                    return true;
        }
        while (i < d.size() && d[i] != '\n' && d[i] != '\r')
            ++i;  // the rest of a comment
    }
    return false;
}

QByteArray native(const QString& path) { return QFile::encodeName(path); }

QString error_text(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

long long modified_ns(const struct stat& info)
{
#ifdef __APPLE__
    return info.st_mtimespec.tv_sec * 1000000000LL + info.st_mtimespec.tv_nsec;
#else
    return info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
#endif
}

written_file identity(const struct stat& info)
{
    return {true, static_cast<unsigned long long>(info.st_dev), static_cast<unsigned long long>(info.st_ino),
        static_cast<unsigned long long>(info.st_size), modified_ns(info)};
}

bool same_file(const written_file& a, const written_file& b)
{
    return a.valid && b.valid && a.device == b.device && a.inode == b.inode && a.size == b.size &&
           a.modified_ns == b.modified_ns;
}

struct descriptor {
    int fd;
    ~descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

// A temporary file beside a record; removed unless it was put in place.
struct leftover {
    QByteArray path;
    ~leftover()
    {
        if (!path.isEmpty())
            ::unlink(path.constData());
    }
};

bool write_all(int fd, const QByteArray& bytes)
{
    for (qint64 done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n > 0)
            done += n;
        else if (n == 0 || errno != EINTR)
            return false;
    }
    return true;
}

// Reads at most `limit` bytes from the start of `fd`.
bool read_up_to(int fd, qint64 limit, QByteArray& bytes)
{
    bytes.resize(int(limit));
    qint64 done = 0;
    while (done < limit) {
        const ssize_t n = ::pread(fd, bytes.data() + done, size_t(limit - done), off_t(done));
        if (n == 0)
            break;
        if (n > 0)
            done += n;
        else if (errno != EINTR)
            return false;
    }
    bytes.resize(int(done));
    return true;
}

// Why the bytes at `path` must not reach QSettings; null when `bytes` holds them (none for a file
// that is missing or cannot be opened: QSettings would read nothing from it either; none either
// when the file is refused). Records must be regular files themselves; configuration files may be
// links to one.
const char* checked_bytes(const QString& path, QByteArray& bytes, bool follow_links)
{
    bytes.clear();
    struct stat info;
    if ((follow_links ? ::stat(native(path).constData(), &info) : ::lstat(native(path).constData(), &info)) != 0)
        return nullptr;
    if (!S_ISREG(info.st_mode))
        return "not a regular file";  // a pipe or device is never opened: that alone may block
    // Non-blocking, and the checks repeated on what was opened: the path may have changed since.
    const descriptor file{::open(
        native(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (follow_links ? 0 : O_NOFOLLOW))};
    if (file.fd < 0)
        return errno == ELOOP ? "not a regular file" : nullptr;
    if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode))
        return "not a regular file";
    if (info.st_size > kMaxIniBytes)
        return "larger than 16 MiB";
    // Never beyond the size the file reports: /proc files report 0 and may block or lose what is read.
    if (!read_up_to(file.fd, info.st_size, bytes)) {
        const int error = errno;
        bytes.clear();
        return error == EAGAIN ? "would block" : nullptr;
    }
    if (holds_serialised_variant(bytes))
        return bytes.clear(), "holds a serialised QVariant";
    return nullptr;
}

// A new name in this process's private directory (one per temporary-file location, that only this
// user can enter, made when first needed), where QSettings writes and reads; empty when there is
// none. Each name is used once: QSettings caches what it read by path, size and time.
QString private_file()
{
    static std::mutex mutex;
    static std::map<QString, std::unique_ptr<QTemporaryDir>> dirs;
    static unsigned long long count = 0;
    const QString location = QDir::tempPath();
    std::lock_guard<std::mutex> lock(mutex);
    std::unique_ptr<QTemporaryDir>& dir = dirs[location];
    if (!dir || !dir->isValid() || !QFileInfo::exists(dir->path()))  // a cleaner may have removed it
        dir = std::make_unique<QTemporaryDir>(location + "/information_api-XXXXXX");
    return dir->isValid() ? dir->filePath(QString::number(++count) + ".ini") : QString();
}

// Hands `bytes` to QSettings through a private file.
bool decode(const QByteArray& bytes, const std::function<void(const QSettings&)>& read)
{
    QFile copy(private_file());
    if (copy.fileName().isEmpty() || !copy.open(QIODevice::WriteOnly | QIODevice::NewOnly) ||
        copy.write(bytes) != bytes.size() || !copy.flush() || copy.size() != bytes.size()) {
        copy.remove();
        return false;
    }
    copy.close();
    read(QSettings(copy.fileName(), QSettings::IniFormat));
    copy.remove();
    return true;
}

// The bytes QSettings writes for a record, made in a private directory and read back: Qt can
// report success for a file it left empty (a full disk in its last flush).
bool ini_bytes(const QByteArray& data, const QString& type, QByteArray& bytes, QString& reason)
{
    QFile written(private_file());
    if (written.fileName().isEmpty()) {
        reason = "no private directory in " + QDir::tempPath();
        return false;
    }
    const std::shared_ptr<void> remove(nullptr, [&](void*) { written.remove(); });
    {
        QSettings file(written.fileName(), QSettings::IniFormat);
        file.setValue("data", data);
        file.setValue("type", type);
        file.sync();
        if (file.status() != QSettings::NoError)
            return reason = file.status() == QSettings::AccessError ? "QSettings status AccessError"
                                                                    : "QSettings status FormatError",
                   false;
    }
    bytes = written.open(QIODevice::ReadOnly) ? written.readAll() : QByteArray();
    bool same = false;
    if (!bytes.isEmpty() && !decode(bytes, [&](const QSettings& file) {
            same = file.value("data").toByteArray() == data && file.value("type").toString() == type;
        })) {
        reason = "no private copy to check";
        return false;
    }
    if (!same)
        reason = "QSettings wrote " + QString::number(bytes.size()) + " bytes that do not read back as the record";
    return same;
}

// `path` with "-n" before its extension: x.info2, x-1.info2, x-2.info2 ...
QString numbered(const QString& path, int n)
{
    const int dot = path.lastIndexOf('.');
    const int at = dot > path.lastIndexOf('/') ? dot : path.size();
    return n == 0 ? path : path.left(at) + '-' + QString::number(n) + path.mid(at);
}

// Gives the finished file `temp` the first free name among `own_path` (if set) and `path`'s
// numbered names. A hard link is exclusive and shows the whole file at once; a file system
// without hard links gets an exclusively created name replaced by the file.
QString claim_free_name(const QByteArray& temp, const QString& own_path, const QString& path, QString& reason)
{
    for (int n = own_path.isEmpty() ? 0 : -1; n < 1000000; ++n) {
        const QString name = n < 0 ? own_path : numbered(path, n);
        if (::link(temp.constData(), native(name).constData()) == 0)
            return name;
        if (errno == EEXIST)
            continue;
        if (errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP && errno != ENOSYS)
            return reason = "cannot create " + name + ": " + error_text(errno), QString();
        const descriptor claimed{::open(native(name).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)};
        if (claimed.fd < 0 && errno == EEXIST)
            continue;
        if (claimed.fd < 0 || ::rename(temp.constData(), native(name).constData()) != 0)
            return reason = "cannot create " + name + ": " + error_text(errno), QString();
        return name;
    }
    return reason = "no free name beside " + path, QString();
}

// Writes `bytes` to a new file beside `path`, checks it, and puts it in place: over `own_path`
// while that is still `own`'s file, else under a free name. Returns the path written.
QString install(
    const QString& path, const QByteArray& bytes, written_file* own, const QString& own_path, QString& reason)
{
    if (!QDir().mkpath(QFileInfo(path).path()))
        return reason = "cannot create the folder " + QFileInfo(path).path(), QString();
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    leftover temp;  // "<record>.XXXXXX": a killed writer's leftover that the uploader knows
    descriptor file{-1};
    for (int attempt = 0; attempt < 100 && file.fd < 0; ++attempt) {
        temp.path = native(path) + '.';
        for (int i = 0; i < 6; ++i)
            temp.path += letters[QRandomGenerator::global()->bounded(62)];
        file.fd = ::open(temp.path.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (file.fd < 0 && errno != EEXIST)
            break;
    }
    if (file.fd < 0)
        return temp.path.clear(), reason = "cannot create a file beside it: " + error_text(errno), QString();

    struct stat info;
    const bool replace = own && own->valid && !own_path.isEmpty() &&
                         ::lstat(native(own_path).constData(), &info) == 0 && same_file(*own, identity(info));
    if (replace)
        ::fchmod(file.fd, info.st_mode & 07777);
    QByteArray back;
    if (!write_all(file.fd, bytes) || ::fsync(file.fd) != 0 || ::fstat(file.fd, &info) != 0)
        return reason = "cannot write it: " + error_text(errno), QString();
    if (info.st_size != bytes.size() || !read_up_to(file.fd, info.st_size, back) || back != bytes)
        return reason = "the file written does not read back as the record", QString();
    const int fd = file.fd;
    file.fd = -1;
    if (::close(fd) != 0)
        return reason = "cannot write it: " + error_text(errno), QString();

    QString written;
    if (replace && ::rename(temp.path.constData(), native(own_path).constData()) == 0)
        written = own_path, temp.path.clear();
    else if (replace)
        return reason = "cannot replace it: " + error_text(errno), QString();
    else
        written = claim_free_name(temp.path, own && own->valid ? own_path : QString(), path, reason);
    if (own && !written.isEmpty())
        *own = identity(info);
    return written;
}

// Private copies of configuration files that settings objects keep reading: copy -> source.
std::mutex copies_mutex;
QHash<QString, QString> copy_sources;

// Brings `copy` up to date with the checked bytes of `source`; false when it already was.
bool update_copy(const QString& source, const QString& copy)
{
    QByteArray bytes;
    const char* refused = checked_bytes(source, bytes, true);
    QFile current(copy);
    if (current.open(QIODevice::ReadOnly) && current.readAll() == bytes)
        return false;
    current.close();
    if (refused)
        LOG(WARNING) << "configuration ignored: " << source.toUtf8().constData() << ": " << refused;
    // Replaced whole, and never with the modification time it had: QSettings reads a file again
    // only when its size or time changed.
    struct stat before;
    const bool existed = ::stat(native(copy).constData(), &before) == 0;
    const QByteArray next = native(copy) + ".new";
    const descriptor file{::open(next.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    leftover unused{next};
    struct stat after;
    if (file.fd < 0 || !write_all(file.fd, bytes) || ::fstat(file.fd, &after) != 0)
        return false;
    if (existed && modified_ns(after) / 1000000 <= modified_ns(before) / 1000000) {
        const long long later = (modified_ns(before) / 1000000 + 1) * 1000000;
        const timespec times[2] = {{0, UTIME_OMIT}, {time_t(later / 1000000000), long(later % 1000000000)}};
        ::futimens(file.fd, times);
    }
    if (::rename(next.constData(), native(copy).constData()) != 0)
        return false;
    unused.path.clear();
    return true;
}

}  // namespace

QString store_record(const QString& path, const QByteArray& data, const QString& type, QString& failure,
    written_file* own, const QString& own_path)
{
    QByteArray bytes;
    return ini_bytes(data, type, bytes, failure) ? install(path, bytes, own, own_path, failure) : QString();
}

const char* read_checked_ini(const QString& path, bool follow_links, const std::function<void(const QSettings&)>& read)
{
    QByteArray bytes;
    if (const char* refused = checked_bytes(path, bytes, follow_links))
        return refused;
    return decode(bytes, read) ? nullptr : "no private copy";
}

QString make_checked_copy(const QString& source)
{
    const QString copy = private_file();
    if (copy.isEmpty()) {
        LOG(WARNING) << "configuration ignored: " << source.toUtf8().constData() << ": no private copy";
        return QString();
    }
    {
        std::lock_guard<std::mutex> lock(copies_mutex);
        copy_sources.insert(copy, QFileInfo(source).absoluteFilePath());
    }
    update_copy(source, copy);
    return copy;
}

void refresh_checked_copy(QSettings& settings)
{
    QString source;
    {
        std::lock_guard<std::mutex> lock(copies_mutex);
        source = copy_sources.value(settings.fileName());
    }
    if (!source.isEmpty() && update_copy(source, settings.fileName()))
        settings.sync();
}

void remove_checked_copy(const QString& copy)
{
    {
        std::lock_guard<std::mutex> lock(copies_mutex);
        if (!copy_sources.remove(copy))
            return;
    }
    QFile::remove(copy);
}

}  // namespace information_api
