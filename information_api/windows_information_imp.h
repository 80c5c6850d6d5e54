// The record manager: the interface the host drives (VeltraInfoMgr) and its one implementation.
//
// The class layout below is a binary contract with existing hosts: the virtual operations keep
// their slot order and the data members their declaration order. Append nothing in between.
#pragma once

#include <information_api/information_api_export.h>

#include <QDateTime>
#include <QJsonObject>
#include <QSettings>
#include <QString>
#include <QStringList>

#include <vector>

namespace information_api {

// One scanning mode used during a scan, as the host describes it.
struct INFORMATION_API_EXPORT _tag_scan_mode {
    QString startOn;
    QString endOn;
    QString classsify;
    QString turntableSteps;
    QString hdr;
    QStringList alignMode;
    QString modular;
};

// A scan as the host describes it to add_scan_info(). The spare fields hold the host's own
// data at fixed places; the library never reads them.
struct INFORMATION_API_EXPORT _tag_scan_info {
    QString ple;
    QString modelName;
    QString modular;
    void* spare1 = nullptr;
    QString startOn;
    QString endOn;
    std::vector<_tag_scan_mode> modes;
    QString texture;
    QString totalPoint;
    QString pointDis;
    QString length;
    QString width;
    QString height;
    QString handHeldPointGenWay;
    QString meshType;
    QString fileName;
    void* spare2 = nullptr;
    void* spare3 = nullptr;
    void* spare4 = nullptr;
    QStringList modularPles;
};

// The manager interface. Every builder copies some of its arguments into these fields, and
// every later record's envelope is built from them.
class INFORMATION_API_EXPORT VeltraInfoMgr {
public:
    virtual ~VeltraInfoMgr();

    virtual void setSoftwareName(const QString& name) = 0;
    virtual void add_scan_info(const _tag_scan_info& info, int enableGuide) = 0;
    virtual void create_calibrate_inifo(QStringList& stepModulars, QString& softwareVer, QString& ple,
                                        QString& modelName, QString& modular, QStringList& modularPles,
                                        QString& startOn, QString& endOn, QStringList& stepClasses,
                                        QStringList& stepStarts, QStringList& stepEnds,
                                        QStringList& stepResults, int enableGuide) = 0;
    virtual void create_share_inifo(QString& ple, QString& modelName, QString& modular, QString& startOn,
                                    QString& endOn, QString& target, QString& name, QString& account,
                                    int enableGuide) = 0;
    virtual void create_usage_inifo(const QString& start, QString& ple, QString& softwareVer,
                                    QString& modelName, QString& modular, int enableGuide) = 0;
    virtual QString add_user_score(const QString& score, const QString& ple, const QString& softwareVer,
                                   QString& modelName, QString& modular, const QString& industry,
                                   int enableGuide) = 0;
    virtual QString create_userfeedback_info(QString& ple, QString& softwareVer, QString& modelName,
                                             QString& modular, QStringList& modularPles, int enableGuide,
                                             QString& email, QString& industry, QString& content,
                                             QStringList& attachs) = 0;
    virtual void clear_timeout_file() = 0;
    virtual int get_upload_files(QStringList& files) = 0;
    virtual int get_reconnect_intval() = 0;
    virtual void set_ple(const QString& ple) = 0;
    virtual void set_sn(const QString& sn) = 0;
    virtual void get_upload_config(int& enable, int& time_intval, QString& url, QString& app_id,
                                   QString& extra) = 0;
    virtual int get_scan_info(const QString& path, QString& data, QString& type) = 0;
    virtual void get_score_files(QStringList& files) = 0;
    virtual void get_domain_manger_url(QString& url) = 0;
    virtual void set_upload_url(QString& release_url, QString& test_url) = 0;
    virtual void downloadApp(const QString& url, const QString& path) = 0;
    virtual void getUploadFileUrl(QString& url) = 0;
    virtual void setUploadFileUrl(QString& release_url, QString& test_url) = 0;
    virtual void end_usage_info(const QString&) {}
    virtual QString begin_calib_info() { return QString(""); }
    virtual void end_calib_info(const QString&) {}
    virtual QString begin_scan_info() { return QString(""); }
    virtual void end_scan_info(const QString&) {}
    virtual void setDeviceSerial(const QString& serial) { seriaNum = serial; }
    virtual void setSoftwareVer(const QString& ver) = 0;

    QDateTime usageStart;
    QString modelName;
    QString seriaNum;
    QString softwareName;
    QString softwareVer;
    QString spareText1;
    QString startOn;
    QString endOn;
    QString osName;
    QString lang;
    QString resolution;
    QString spareText2;
    QString installPath;
    QString browserName;
    QString browserVersion;
    QString cpuCores;
    QString cpuModel;
    QString memSize;
    QStringList gpuModels;
    QStringList gpuMemSizes;
    QString hddSize;
    QString hddRemainSize;
    QString ple;
    QString modular;
    QStringList modularPles;
};

// The manager the library creates for the host. On this platform the machine probes are stubs.
class INFORMATION_API_EXPORT windows_information_imp : public VeltraInfoMgr {
public:
    windows_information_imp();
    ~windows_information_imp() override;

    void setSoftwareName(const QString& name) override;
    void add_scan_info(const _tag_scan_info& info, int enableGuide) override;
    void create_calibrate_inifo(QStringList& stepModulars, QString& softwareVer, QString& ple,
                                QString& modelName, QString& modular, QStringList& modularPles,
                                QString& startOn, QString& endOn, QStringList& stepClasses,
                                QStringList& stepStarts, QStringList& stepEnds, QStringList& stepResults,
                                int enableGuide) override;
    void create_share_inifo(QString& ple, QString& modelName, QString& modular, QString& startOn,
                            QString& endOn, QString& target, QString& name, QString& account,
                            int enableGuide) override;
    void create_usage_inifo(const QString& start, QString& ple, QString& softwareVer, QString& modelName,
                            QString& modular, int enableGuide) override;
    QString add_user_score(const QString& score, const QString& ple, const QString& softwareVer,
                           QString& modelName, QString& modular, const QString& industry,
                           int enableGuide) override;
    QString create_userfeedback_info(QString& ple, QString& softwareVer, QString& modelName,
                                     QString& modular, QStringList& modularPles, int enableGuide,
                                     QString& email, QString& industry, QString& content,
                                     QStringList& attachs) override;
    void clear_timeout_file() override;
    int get_upload_files(QStringList& files) override;
    int get_reconnect_intval() override;
    void set_ple(const QString& ple) override;
    void set_sn(const QString& sn) override;
    void get_upload_config(int& enable, int& time_intval, QString& url, QString& app_id,
                           QString& extra) override;
    int get_scan_info(const QString& path, QString& data, QString& type) override;
    void get_score_files(QStringList& files) override;
    void get_domain_manger_url(QString& url) override;
    void set_upload_url(QString& release_url, QString& test_url) override;
    void downloadApp(const QString& url, const QString& path) override;
    void getUploadFileUrl(QString& url) override;
    void setUploadFileUrl(QString& release_url, QString& test_url) override;
    void end_usage_info(const QString&) override;
    QString begin_calib_info() override;
    void end_calib_info(const QString&) override;
    QString begin_scan_info() override;
    void end_scan_info(const QString&) override;
    void setSoftwareVer(const QString& ver) override;

    virtual void create_scan_inifo(QString& height, QString& length, QString& width, QString& fileName,
                                   QString& handHeldPointGenWay, QString& meshType, QString& alignMode,
                                   QString& classsify, QString& hdr, QString& modular, QString& startOn,
                                   QString& endOn, QString& pointDis, QString& texture,
                                   QString& totalPoint, QString totalFaces, int unused);
    virtual bool get_os_info(QString& osName, QString& lang, QString& resolution);
    virtual bool get_install_info(QString& installPath, QString& hddSize, QString& hddRemainSize);
    virtual bool get_cpu_info(QString& cores, QString& model);
    virtual bool get_gpu_info(QStringList& models, QStringList& memSizes);
    virtual bool get_memory_info(QString& size);
    virtual bool get_default_browser(QString& name, QString& version);

    // Starts the usage period of this run: stamps its start and asks the machine probes.
    void get_usage_info();
    bool get_os_name_is11();
    bool get_os_name(QString& name);
    bool get_os_language(QString& lang);
    bool get_gpu_info_vista(QStringList& models, QStringList& memSizes);

    int enableGuide = 0;
    QSettings systemSettings;
    QString spareText3;
    bool spareFlag = true;
    QString usageFilePath;
    QJsonObject usageRecord;
    QString releaseUploadUrl;
    QString testUploadUrl;
    QString releaseFileUploadUrl;
    QString testFileUploadUrl;

private:
    // Writes the common envelope of every record kind into `record`.
    void create_usage_inner(const QString& start, QJsonObject& record);
};

}  // namespace information_api
