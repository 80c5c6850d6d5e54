#include <information_api/windows_information_imp.h>
#ifdef Q_OS_LINUX
#include <information_api/linux_machine_info.h>
#endif

#include <information_api/record_file.h>

#include <glog/logging.h>

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <vector>

#include <sys/stat.h>
#include <time.h>

namespace information_api {

namespace {

const char* const kRecordPathPattern = "./veltrainfo/%1.info2";
const char* const kUtcStampFormat = "yyyy-MM-ddThh:mm:ssZ";
const char* const kUsageStemFormat = "yyyy-MM-ddThh-mm-ss";
const char* const kUtcStemFormat = "yyyy-MM-ddThh-mm-ssZ";
const char* const kUserRecordStemFormat = "yyyy-MM-ddThh-mm-ss";

// The service hosts are deployment values, compiled in from the build's cache variables.
const char* const kReleaseUploadUrl = "https://" INFORMATION_API_RELEASE_SERVICE_HOST "/dtta";
const char* const kTestUploadUrl = "https://" INFORMATION_API_TEST_SERVICE_HOST "/dtta";
const char* const kFileUploadUrl = "https://" INFORMATION_API_TEST_API_HOST "/up";
const char* const kCdnBaseUrl = "https://" INFORMATION_API_CDN_HOST;
const char* const kTestAppId = "3c9d0a7e51b24f68e0a7c2d9b4f6e183";
const char* const kReleaseAppId = "a0f4c9e27d5b3816c4e9a7d2f05b68c1";

QString utc_now_stamp() { return record_clock().toString(kUtcStampFormat); }

QString utc_now_stem(const char* format) { return record_clock().toString(format); }

QString record_path(const QString& stem) { return QString(kRecordPathPattern).arg(stem); }

// Where a K300 profile's name starts when a variant stands between the profile's last "-" and
// that name ("2x" in pro-2xK300.ple); -1 for every other profile.
int k300_name_after_variant(const QString& ple)
{
    const int dash = ple.lastIndexOf('-');
    const int match = ple.lastIndexOf("K300.ple", -1, Qt::CaseInsensitive);
    return match >= 1 && match - dash >= 2 && dash >= 1 ? match : -1;
}

// Feedback and score records drop that variant: pro-2xK300.ple is recorded as pro-K300.ple.
QString normalised_profile(const QString& ple)
{
    const int name = k300_name_after_variant(ple);
    return name < 0 ? ple : ple.left(ple.lastIndexOf('-') + 1) + ple.mid(name);
}

// Feedback and scores take the identity they are given and describe the moment the user gave
// them: their period is now. Returns the record's file stem.
QString begin_user_record(windows_information_imp& m, const QString& ple, const QString& softwareVer,
    const QString& modelName, const QString& modular, int enableGuide)
{
    m.enableGuide = enableGuide;
    m.modelName = modelName;
    m.modular = modular;
    const QString now = utc_now_stamp();
    const QString stem = utc_now_stem(kUserRecordStemFormat);
    m.ple = normalised_profile(ple);
    m.softwareVer = softwareVer;
    m.startOn = now;
    m.endOn = now;
    return stem;
}

// A box value as receivers expect it: the single-precision value, widened, so 0.1 is stored as
// 0.10000000149011612. Text that is no finite float (letters, 1e39, nan) is 0: Qt's toFloat
// answers inf for an overflow, which JSON would write as null.
double widened_float(const QString& text)
{
    bool ok = false;
    const float value = text.toFloat(&ok);
    return ok && std::isfinite(value) ? double(value) : 0.0;
}

// One *.info2 file of the record folder with its modification time in local terms.
struct record_entry {
    QString name;
    qint64 wallClock;  // local wall-clock time in ms: the key QDir::Time sorts by
    QDate day;         // local calendar day: what QDateTime::daysTo counts from
};

// The record folder's *.info2 files from the oldest to the newest, exactly the reverse of a
// QDir::Time listing (newest first, equal times by name). QDir sorts by converting two file times
// to local time per comparison, and every Qt conversion calls tzset(), which stats
// /etc/localtime: 10,000 records took seconds. Here the zone is read once per walk and each
// file's time converted once, by the same localtime_r() that Qt uses.
std::vector<record_entry> records_oldest_first()
{
    const QDir folder("./veltrainfo/");
    const QStringList names = folder.entryList(QStringList{"*.info2"}, QDir::Files, QDir::Unsorted);
    tzset();
    std::vector<record_entry> entries;
    entries.reserve(size_t(names.size()));
    for (const QString& name : names) {
        struct stat info;
        if (stat(QFile::encodeName(folder.filePath(name)).constData(), &info) != 0)
            continue;  // removed since the listing
#ifdef __APPLE__
        const timespec modified = info.st_mtimespec;
#else
        const timespec modified = info.st_mtim;
#endif
        tm local{};
        if (!localtime_r(&modified.tv_sec, &local))
            continue;
        const qint64 wallClock = (qint64(modified.tv_sec) + local.tm_gmtoff) * 1000 + modified.tv_nsec / 1000000;
        entries.push_back({name, wallClock, QDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday)});
    }
    std::sort(entries.begin(), entries.end(), [](const record_entry& a, const record_entry& b) {
        return a.wallClock != b.wallClock ? a.wallClock < b.wallClock : a.name > b.name;
    });
    return entries;
}

QString record_absolute_path(const record_entry& record)
{
    return QFileInfo(QDir("./veltrainfo/"), record.name).absoluteFilePath();
}

// Stores a record of any kind. One that cannot be written is not reported to the caller; the log says so.
QString store(const QString& path, const QJsonObject& record, const QString& type, written_file* own = nullptr,
    const QString& own_path = QString())
{
    QString failure;
    const QString written = store_record(path, QJsonDocument(record).toJson(), type, failure, own, own_path);
    if (written.isEmpty())
        LOG(WARNING) << "record not written: " << (own && own->valid ? own_path : path).toUtf8().constData() << " ("
                     << failure.toUtf8().constData() << ")";
    return written;
}

// Each manager's usage record file, as it last wrote it: rewrites replace that file and no other.
std::mutex usage_files_mutex;
std::map<const windows_information_imp*, written_file> usage_files;

// Stores the run's usage record: the first write claims a free name, later ones replace that file.
void store_usage_record(windows_information_imp& m)
{
    const QString base = record_path(m.usageStart.toString(kUsageStemFormat));
    written_file own;
    {
        std::lock_guard<std::mutex> lock(usage_files_mutex);
        own = usage_files[&m];
    }
    const QString written = store(own.valid ? m.usageFilePath : base, m.usageRecord, "usage", &own, m.usageFilePath);
    if (!written.isEmpty()) {
        m.usageFilePath = written;
        std::lock_guard<std::mutex> lock(usage_files_mutex);
        usage_files[&m] = own;
    } else if (!own.valid) {
        m.usageFilePath = base;
    }
}

}  // namespace

VeltraInfoMgr::~VeltraInfoMgr() = default;

// systemSettings reads a checked private copy of "./res/system.ini", brought up to date before each
// use: QSettings would decode whatever the file holds when a key is read.
windows_information_imp::windows_information_imp()
    : systemSettings(make_checked_copy("./res/system.ini"), QSettings::IniFormat)
{
    softwareName = QString("");
    if (QCoreApplication::applicationName() != QLatin1String("information_uploader"))
        get_usage_info();
}

windows_information_imp::~windows_information_imp()
{
    qDebug() << "~windows_information_imp";
    usageRecord["endOn"] = utc_now_stamp();
    if (!usageFilePath.isEmpty())  // no usage record was begun: there is nothing to close
        store_usage_record(*this);
    {
        std::lock_guard<std::mutex> lock(usage_files_mutex);
        usage_files.erase(this);
    }
    remove_checked_copy(systemSettings.fileName());
}

void windows_information_imp::get_usage_info()
{
    usageStart = record_clock().toLocalTime();
    startOn = utc_now_stamp();
    endOn = startOn;
    get_os_info(osName, lang, resolution);
    get_install_info(installPath, hddSize, hddRemainSize);
    get_cpu_info(cpuCores, cpuModel);
    get_memory_info(memSize);
    get_gpu_info(gpuModels, gpuMemSizes);
    get_default_browser(browserName, browserVersion);
}

void windows_information_imp::create_usage_inner(const QString& start, QJsonObject& record)
{
    record["modelName"] = modelName;
    record["seriaNum"] = seriaNum;
    record["softwareName"] = softwareName;
    record["softwareVer"] = softwareVer;
    record["tracingType"] = "usage";
    if (start.isEmpty()) {
        // The period fields are shared: after a calibration, share or structured scan they hold
        // that record's period, and later envelopes carry it.
        record["endOn"] = endOn;
        record["startOn"] = startOn;
    } else {
        record["endOn"] = utc_now_stamp();
        record["startOn"] = start;
    }
    record["enableGuide"] = enableGuide == 1 ? "yes" : "no";

    QJsonObject browser;
    browser["name"] = browserName;
    browser["ver"] = browserVersion;
    QJsonObject osSoft;
    osSoft["osName"] = osName;
    osSoft["lang"] = lang;
    osSoft["resolution"] = resolution;
    osSoft["installPath"] = installPath;
    osSoft["browser"] = browser;
    record["osSoftExt"] = osSoft;

    QJsonObject cpu;
    cpu["cpuCores"] = cpuCores.toInt();
    cpu["cpuModel"] = cpuModel;
    QJsonArray gpus;
    for (int i = 0; i < gpuModels.size(); ++i) {
        QJsonObject gpu;
        gpu["gpuModel"] = gpuModels[i];
        if (i < gpuMemSizes.size())
            gpu["gpuMemSize"] = gpuMemSizes[i].toLongLong();
        gpus.append(gpu);
    }
    QJsonObject osHd;
    osHd["cpu"] = QJsonArray{cpu};
    osHd["memSize"] = memSize.toLongLong();
    osHd["gpu"] = gpus;
    osHd["hddSize"] = hddSize.toLongLong();
    osHd["hddRemainSize"] = hddRemainSize.toLongLong();
    record["osHdExt"] = osHd;

    QJsonObject modularExt;
    modularExt["ple"] = ple;
    LOG(INFO) << "modular=" << modular.toUtf8().constData() << "modular_ple.size=" << modularPles.size();

    auto module_object = [this](const QString& mple) {
        QJsonObject module;
        module["name"] = modular;
        module["sn"] = "";
        module["mple"] = mple;
        return module;
    };
    QJsonArray modules;
    // The first profile is always listed, even when empty; later empty ones are skipped.
    for (int i = 0; i < modularPles.size(); ++i) {
        if (i == 0 || !modularPles[i].isEmpty())
            modules.append(module_object(modularPles[i]));
    }
    if (!modular.isEmpty() && modularPles.isEmpty())
        modules.append(module_object(""));
    if (!modules.isEmpty())
        modularExt["modular"] = modules;
    record["modularExt"] = modularExt;
}

void windows_information_imp::create_usage_inifo(
    const QString& start, QString& ple, QString& softwareVer, QString& modelName, QString& modular, int enableGuide)
{
    LOG(INFO) << "create_usage_inifo 0";
    this->ple = ple;
    this->softwareVer = softwareVer;
    this->modelName = modelName;
    this->modular = modular;
    modularPles.clear();
    this->enableGuide = enableGuide;

    create_usage_inner(start, usageRecord);
    // Named after usageStart, the first call claims a free name; every later call rewrites that file.
    store_usage_record(*this);

    printf("\r\n create_usage_inifo=%s ", usageFilePath.toUtf8().constData());
    LOG(INFO) << "create_usage_inifo 1";
}

void windows_information_imp::set_ple(const QString& ple)
{
    // A K300 profile with a variant between the dash and the name gets its name repeated.
    const int name = k300_name_after_variant(ple);
    this->ple = name < 0 ? ple : ple + ple.mid(name);
}

void windows_information_imp::set_sn(const QString&)
{
    // Deliberately discarded: the serial changes only through setDeviceSerial().
}

void windows_information_imp::setSoftwareName(const QString& name) { softwareName = name; }
void windows_information_imp::setSoftwareVer(const QString& ver) { softwareVer = ver; }

void windows_information_imp::set_upload_url(QString& release_url, QString& test_url)
{
    releaseUploadUrl = release_url;
    testUploadUrl = test_url;
}

void windows_information_imp::setUploadFileUrl(QString& release_url, QString& test_url)
{
    releaseFileUploadUrl = release_url;
    testFileUploadUrl = test_url;
}

void windows_information_imp::get_score_files(QStringList&) {}
void windows_information_imp::downloadApp(const QString&, const QString&) {}
void windows_information_imp::end_usage_info(const QString&) {}
QString windows_information_imp::begin_calib_info() { return QString(""); }
void windows_information_imp::end_calib_info(const QString&) {}
QString windows_information_imp::begin_scan_info() { return QString(""); }
void windows_information_imp::end_scan_info(const QString&) {}

// Machine probes: real on Linux (linux_machine_info), stubs elsewhere. Always true, as hosts expect.
#ifdef Q_OS_LINUX
bool windows_information_imp::get_os_info(QString& osName, QString& lang, QString& resolution)
{
    linux_machine::probe_os(osName, lang, resolution);
    return true;
}
bool windows_information_imp::get_install_info(QString& installPath, QString& hddSize, QString& hddRemainSize)
{
    linux_machine::probe_install(installPath, hddSize, hddRemainSize);
    return true;
}
bool windows_information_imp::get_cpu_info(QString& cores, QString& model)
{
    linux_machine::probe_cpu(cores, model);
    return true;
}
bool windows_information_imp::get_gpu_info(QStringList& models, QStringList& memSizes)
{
    linux_machine::probe_gpus(models, memSizes);
    return true;
}
bool windows_information_imp::get_memory_info(QString& size)
{
    linux_machine::probe_memory(size);
    return true;
}
#else
bool windows_information_imp::get_os_info(QString&, QString&, QString&) { return true; }
bool windows_information_imp::get_install_info(QString&, QString&, QString&) { return true; }
bool windows_information_imp::get_cpu_info(QString&, QString&) { return true; }
bool windows_information_imp::get_gpu_info(QStringList&, QStringList&) { return true; }
bool windows_information_imp::get_memory_info(QString&) { return true; }
#endif
bool windows_information_imp::get_default_browser(QString&, QString&) { return false; }
bool windows_information_imp::get_os_name_is11() { return false; }
bool windows_information_imp::get_os_name(QString&) { return true; }
bool windows_information_imp::get_os_language(QString&) { return false; }
bool windows_information_imp::get_gpu_info_vista(QStringList&, QStringList&) { return true; }

void windows_information_imp::create_calibrate_inifo(QStringList& stepModulars, QString& softwareVer, QString& ple,
    QString& modelName, QString& modular, QStringList& modularPles, QString& startOn, QString& endOn,
    QStringList& stepClasses, QStringList& stepStarts, QStringList& stepEnds, QStringList& stepResults, int enableGuide)
{
    this->enableGuide = enableGuide;
    this->softwareVer = softwareVer;
    this->ple = ple;
    this->modelName = modelName;
    this->modular = modular;
    this->modularPles = modularPles;
    LOG(INFO) << "modular=" << this->modular.toUtf8().constData() << "device_ex_ple.size=" << modularPles.size();
    this->startOn = startOn;
    this->endOn = endOn;

    QJsonObject record;
    create_usage_inner(QString(), record);
    record["tracingType"] = "calibration";
    // The category list decides the step count; shorter lists leave their fields empty.
    QJsonArray steps;
    for (int i = 0; i < stepClasses.size(); ++i) {
        QJsonObject step;
        step["classsify"] = stepClasses[i];
        step["startOn"] = stepStarts.value(i);
        step["endOn"] = stepEnds.value(i);
        step["result"] = stepResults.value(i);
        step["modular"] = stepModulars.value(i);
        steps.append(step);
    }
    record["content"] = steps;
    store(record_path(utc_now_stem(kUtcStemFormat)), record, "calibration");
}

void windows_information_imp::create_share_inifo(QString& ple, QString& modelName, QString& modular, QString& startOn,
    QString& endOn, QString& target, QString& name, QString& account, int enableGuide)
{
    this->enableGuide = enableGuide;
    this->ple = ple;
    this->modelName = modelName;
    this->modular = modular;
    this->startOn = startOn;
    this->endOn = endOn;

    QJsonObject record;
    create_usage_inner(QString(), record);
    record["tracingType"] = "share";
    QJsonObject content;
    content["target"] = target;
    content["name"] = name;
    content["account"] = account;
    record["content"] = content;
    store(record_path(utc_now_stem(kUtcStemFormat)), record, "share");
}

void windows_information_imp::add_scan_info(const _tag_scan_info& info, int enableGuide)
{
    this->enableGuide = enableGuide;
    startOn = info.startOn;
    endOn = info.endOn;
    ple = info.ple;
    modelName = info.modelName;
    modular = info.modular;
    modularPles = info.modularPles;

    LOG(INFO) << "add_scan_info"
              << " this->softwareVer = " << softwareVer.toUtf8().constData();
    QJsonObject record;
    create_usage_inner(QString(), record);
    record["tracingType"] = "scan";

    QJsonObject content;
    QJsonArray modes;
    for (const _tag_scan_mode& mode : info.modes) {
        QJsonObject entry;
        entry["startOn"] = mode.startOn;
        entry["endOn"] = mode.endOn;
        entry["classsify"] = mode.classsify;
        entry["hdr"] = mode.hdr;
        entry["turntableSteps"] = mode.turntableSteps;
        entry["modular"] = mode.modular;
        entry["alignMode"] = QJsonArray::fromStringList(mode.alignMode);
        modes.append(entry);
    }
    if (!modes.isEmpty())
        content["mode"] = modes;
    content["texture"] = info.texture;
    content["totalPoint"] = info.totalPoint.toInt();
    content["pointDis"] = info.pointDis;
    content["handHeldPointGenWay"] = info.handHeldPointGenWay;
    content["meshType"] = info.meshType;
    content["fileName"] = info.fileName;
    QJsonObject box;
    box["length"] = widened_float(info.length);
    box["width"] = widened_float(info.width);
    box["height"] = widened_float(info.height);
    content["box"] = box;
    record["content"] = content;
    // "sss" is the seconds twice ("ss" then "s"), not milliseconds; receivers know these stems.
    store(record_path(utc_now_stem("yyyy-MM-ddThh-mm-ss.sssZ")), record, "scan");
}

void windows_information_imp::create_scan_inifo(QString& height, QString& length, QString& width, QString& fileName,
    QString& handHeldPointGenWay, QString& meshType, QString& alignMode, QString& classsify, QString& hdr,
    QString& modular, QString& startOn, QString& endOn, QString& pointDis, QString& texture, QString& totalPoint,
    QString totalFaces, int)
{
    // The flat record keeps the envelope's "usage" tracing type; receivers tell it by "type".
    QJsonObject record;
    create_usage_inner(QString(), record);
    record["height"] = height;
    record["length"] = length;
    record["width"] = width;
    record["fileName"] = fileName;
    record["handHeldPointGenWay"] = handHeldPointGenWay;
    record["meshType"] = meshType;
    record["alignMode"] = alignMode;
    record["classsify"] = classsify;
    record["hdr"] = hdr;
    record["modular"] = modular;
    record["startOn"] = startOn;
    record["endOn"] = endOn;
    record["pointDis"] = pointDis;
    record["texture"] = texture;
    record["totalPoint"] = totalPoint;
    record["totalFaces"] = totalFaces;
    store(record_path(utc_now_stem(kUtcStemFormat)), record, "scan");
}

int windows_information_imp::get_scan_info(const QString& path, QString& data, QString& type)
{
    if (!QFile::exists(path)) {
        LOG(INFO) << "file not exist" << path.toUtf8().constData();
        return -1;
    }
    // QSettings opens a path again when it reads: it gets a private copy of the bytes checked here,
    // so a file swapped in meanwhile is never decoded.
    QByteArray bytes;
    QString read_type;
    if (const char* reason = read_checked_ini(path, false, [&](const QSettings& file) {
            bytes = file.value("data", QVariant()).toByteArray();
            read_type = file.value("type").toString();
        })) {
        LOG(INFO) << "get_scan_info refused " << path.toUtf8().constData() << ": " << reason;
        return -1;
    }
    type = read_type;
    // Log readers match the function text of the existing builds, which compilers spell differently.
    QMessageLogger(__FILE__, __LINE__,
        "virtual int information_api::windows_information_imp::get_scan_info(const QString &, "
        "QString &, QString &)")
            .debug()
        << "type=" << type;
    data = bytes.isNull() ? QString() : QString::fromUtf8(bytes.constData());
    return 0;
}

QString windows_information_imp::create_userfeedback_info(QString& ple, QString& softwareVer, QString& modelName,
    QString& modular, QStringList& modularPles, int enableGuide, QString& email, QString& industry, QString& content,
    QStringList& attachs)
{
    this->modularPles = modularPles;
    const QString stem = begin_user_record(*this, ple, softwareVer, modelName, modular, enableGuide);
    QJsonObject record;
    create_usage_inner(QString(), record);
    record["tracingType"] = "feedback";
    QJsonObject feedback;
    feedback["email"] = email;
    feedback["industry"] = industry;
    feedback["content"] = content;
    feedback["attachs"] = QJsonArray::fromStringList(attachs);
    record["content"] = feedback;

    const QString path = record_path(stem);
    const QString written = store(path, record, "feedback");
    return written.isEmpty() ? path : written;
}

QString windows_information_imp::add_user_score(const QString& score, const QString& ple, const QString& softwareVer,
    QString& modelName, QString& modular, const QString& industry, int enableGuide)
{
    modularPles.clear();
    const QString stem = begin_user_record(*this, ple, softwareVer, modelName, modular, enableGuide);
    QJsonObject record;
    create_usage_inner(QString(), record);
    record["tracingType"] = "score";
    QJsonObject content;
    content["score"] = score.toInt();
    content["industry"] = industry;
    record["content"] = content;

    // Scores live beside the other records under their own extension, so the upload listing
    // (*.info2) never offers them.
    const QString path = QString("./veltrainfo/%1.score2").arg(stem);
    const QString written = store(path, record, "score");
    return written.isEmpty() ? path : written;
}

void windows_information_imp::get_upload_config(int& enable, int& time_intval, QString& url, QString& app_id, QString&)
{
    refresh_checked_copy(systemSettings);
    enable = systemSettings.value("enable", 0).toInt();
    time_intval = systemSettings.value("time_intval", 60).toInt();
    const int test = systemSettings.value("test", 0).toInt();
    LOG(INFO) << "get_upload_config show "
              << "test_type " << test << "_test_url " << testUploadUrl.toUtf8().constData();
    if (test != 0) {
        url = testUploadUrl.isEmpty() ? QString(kTestUploadUrl) : testUploadUrl;
        app_id = kTestAppId;
        return;
    }
    qDebug() << "get_upload_config _release_url=" << releaseUploadUrl;
    if (releaseUploadUrl.isEmpty()) {
        // Cached in the field, so the file is read once per run (unless it names no URL).
        releaseUploadUrl = kReleaseUploadUrl;
        if (const char* reason = read_checked_ini("./url_config.ini", true, [this](const QSettings& urlConfig) {
                releaseUploadUrl = urlConfig.value("upload_url", QString(kReleaseUploadUrl)).toString();
            }))
            LOG(WARNING) << "configuration ignored: ./url_config.ini: " << reason;
        qDebug() << "url_config.ini get_upload_config _release_url=" << releaseUploadUrl;
    }
    url = releaseUploadUrl;
    app_id = kReleaseAppId;
}

void windows_information_imp::getUploadFileUrl(QString& url)
{
    refresh_checked_copy(systemSettings);
    const int test = systemSettings.value("test", 0).toInt();
    url = test != 0 ? testFileUploadUrl : releaseFileUploadUrl;
    if (url.isEmpty())
        url = kFileUploadUrl;  // one file service for both modes
}

void windows_information_imp::get_domain_manger_url(QString& url)
{
    url = kCdnBaseUrl;  // one content-delivery host serves both modes
}

int windows_information_imp::get_reconnect_intval()
{
    refresh_checked_copy(systemSettings);
    return systemSettings.value("connect_time", 20).toInt();
}

int windows_information_imp::get_upload_files(QStringList& files)
{
    refresh_checked_copy(systemSettings);
    const int minimum = systemSettings.value("uploadintval", 1).toInt();
    const QCoreApplication* app = QCoreApplication::instance();
    // Without "start_time" the reference is invalid, every age is 0 and nothing is due by default.
    const QDateTime reference = app ? app->property("start_time").toDateTime() : QDateTime();
    const QDate referenceDay = reference.date();
    // Every file is tested, not only up to the first young one.
    for (const record_entry& record : records_oldest_first()) {
        const qint64 age = record.day.daysTo(referenceDay);  // 0 when there is no reference
        if (age < minimum)
            continue;
        const QString path = record_absolute_path(record);
        qDebug() << "day_diff" << age << "upload file " << path;
        files << path;
    }
    return files.size();
}

void windows_information_imp::clear_timeout_file()
{
    refresh_checked_copy(systemSettings);
    const int limit = systemSettings.value("remain", 30).toInt();
    const QDate today = QDateTime::currentDateTime().date();
    for (const record_entry& record : records_oldest_first()) {
        if (record.day.daysTo(today) <= limit)
            break;  // oldest first: every file after this one is younger
        const QString path = record_absolute_path(record);
        LOG(INFO) << "delete file " << path.toUtf8().constData();
        QFile::remove(path);
    }
}

}  // namespace information_api
