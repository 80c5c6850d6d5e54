#include <information_api/windows_information_imp.h>

#include <glog/logging.h>

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

#include <cstdio>

namespace information_api {

namespace {

const char* const kRecordPathPattern = "./veltrainfo/%1.info2";
const char* const kUtcStampFormat = "yyyy-MM-ddThh:mm:ssZ";
const char* const kUsageStemFormat = "yyyy-MM-ddThh-mm-ss";

QString utc_now_stamp()
{
    return QDateTime::currentDateTimeUtc().toString(kUtcStampFormat);
}

// Stores one record: "data" holds the indented JSON text as a byte array, "type" its kind.
// QSettings writes through a temporary file and a rename, so a reader never sees half a record.
void write_record_file(const QString& path, const QJsonObject& record, const QString& type)
{
    const QByteArray data = QJsonDocument(record).toJson();
    QSettings file(path, QSettings::IniFormat);
    file.setValue("data", data);
    file.setValue("type", type);
    file.sync();
}

}  // namespace

VeltraInfoMgr::~VeltraInfoMgr() = default;

windows_information_imp::windows_information_imp()
    : systemSettings("./res/system.ini", QSettings::IniFormat)
{
    softwareName = QString("");
    if (QCoreApplication::applicationName() != QLatin1String("information_uploader"))
        get_usage_info();
}

windows_information_imp::~windows_information_imp()
{
    qDebug() << "~windows_information_imp";
    usageRecord["endOn"] = utc_now_stamp();
    // Written even when no usage record was begun: an empty path makes the write a no-op.
    write_record_file(usageFilePath, usageRecord, "usage");
}

void windows_information_imp::get_usage_info()
{
    usageStart = QDateTime::currentDateTime();
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

void windows_information_imp::create_usage_inifo(const QString& start, QString& ple, QString& softwareVer,
                                                 QString& modelName, QString& modular, int enableGuide)
{
    LOG(INFO) << "create_usage_inifo 0";
    this->ple = ple;
    this->softwareVer = softwareVer;
    this->modelName = modelName;
    this->modular = modular;
    modularPles.clear();
    this->enableGuide = enableGuide;

    create_usage_inner(start, usageRecord);
    // usageStart is fixed for the run, so every call rewrites the same file.
    usageFilePath = QString(kRecordPathPattern).arg(usageStart.toString(kUsageStemFormat));
    write_record_file(usageFilePath, usageRecord, "usage");

    printf("\r\n create_usage_inifo=%s ", usageFilePath.toUtf8().constData());
    LOG(INFO) << "create_usage_inifo 1";
}

void windows_information_imp::set_ple(const QString& ple)
{
    const int dash = ple.lastIndexOf('-');
    const int match = ple.lastIndexOf("K300.ple", -1, Qt::CaseInsensitive);
    // A K300 profile with a variant between the dash and the name gets its name repeated.
    if (match >= 1 && match - dash >= 2 && dash >= 1)
        this->ple = ple + ple.mid(match);
    else
        this->ple = ple;
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

// Machine probes: stubs on this platform, so the envelope's machine fields stay empty.
bool windows_information_imp::get_os_info(QString&, QString&, QString&) { return true; }
bool windows_information_imp::get_install_info(QString&, QString&, QString&) { return true; }
bool windows_information_imp::get_cpu_info(QString&, QString&) { return true; }
bool windows_information_imp::get_gpu_info(QStringList&, QStringList&) { return true; }
bool windows_information_imp::get_memory_info(QString&) { return true; }
bool windows_information_imp::get_default_browser(QString&, QString&) { return false; }
bool windows_information_imp::get_os_name_is11() { return false; }
bool windows_information_imp::get_os_name(QString&) { return true; }
bool windows_information_imp::get_os_language(QString&) { return false; }
bool windows_information_imp::get_gpu_info_vista(QStringList&, QStringList&) { return true; }

// Record kinds, configuration and housekeeping that are not built yet: they do nothing.
void windows_information_imp::add_scan_info(const _tag_scan_info&, int) {}
void windows_information_imp::create_calibrate_inifo(QStringList&, QString&, QString&, QString&, QString&,
                                                     QStringList&, QString&, QString&, QStringList&,
                                                     QStringList&, QStringList&, QStringList&, int) {}
void windows_information_imp::create_share_inifo(QString&, QString&, QString&, QString&, QString&, QString&,
                                                 QString&, QString&, int) {}
void windows_information_imp::create_scan_inifo(QString&, QString&, QString&, QString&, QString&, QString&,
                                                QString&, QString&, QString&, QString&, QString&, QString&,
                                                QString&, QString&, QString&, QString, int) {}
QString windows_information_imp::add_user_score(const QString&, const QString&, const QString&, QString&,
                                                QString&, const QString&, int) { return QString(); }
QString windows_information_imp::create_userfeedback_info(QString&, QString&, QString&, QString&, QStringList&,
                                                          int, QString&, QString&, QString&, QStringList&)
{
    return QString();
}
void windows_information_imp::clear_timeout_file() {}
int windows_information_imp::get_upload_files(QStringList& files) { return files.size(); }
int windows_information_imp::get_reconnect_intval() { return 0; }
void windows_information_imp::get_upload_config(int&, int&, QString&, QString&, QString&) {}
int windows_information_imp::get_scan_info(const QString&, QString&, QString&) { return 0; }
void windows_information_imp::get_domain_manger_url(QString&) {}
void windows_information_imp::getUploadFileUrl(QString&) {}

}  // namespace information_api
