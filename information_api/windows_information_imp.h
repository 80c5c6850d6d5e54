/// @file
/// The record manager: the interface the host drives (VeltraInfoMgr), its one implementation
/// (windows_information_imp), and the scan structures add_scan_info() takes.
///
/// The class layout below is a binary contract with existing hosts: the virtual operations keep
/// their slot order and the data members their declaration order. Append nothing in between.
#pragma once

#include <information_api/information_api_export.h>

#include <QDateTime>
#include <QJsonObject>
#include <QSettings>
#include <QString>
#include <QStringList>

#include <vector>

namespace information_api {

/// One scanning mode used during a scan, as the host describes it: one object of the scan
/// record's "content" "mode" array. Every field is recorded as given, under its own name.
struct INFORMATION_API_EXPORT _tag_scan_mode {
    QString startOn;         ///< When the mode was first used.
    QString endOn;           ///< When it was last used.
    QString classsify;       ///< The mode's category, recorded as "classsify".
    QString turntableSteps;  ///< Turntable steps, or the turntable setting.
    QString hdr;             ///< HDR setting.
    QStringList alignMode;   ///< Alignment modes used, in order ("alignMode" array).
    QString modular;         ///< The module the mode used.
};

/// A scan as the host describes it to add_scan_info(). The spare fields hold the host's own
/// data at fixed places; the library never reads them.
struct INFORMATION_API_EXPORT _tag_scan_info {
    QString ple;                        ///< Device profile file name; stored in VeltraInfoMgr::ple.
    QString modelName;                  ///< Device model name; stored in VeltraInfoMgr::modelName.
    QString modular;                    ///< Module description; stored in VeltraInfoMgr::modular.
    void* spare1 = nullptr;             ///< The host's own; never read.
    QString startOn;                    ///< Scan start; stored in VeltraInfoMgr::startOn, recorded as given.
    QString endOn;                      ///< Scan end; stored in VeltraInfoMgr::endOn, recorded as given.
    std::vector<_tag_scan_mode> modes;  ///< The scanning modes used, in order.
    QString texture;                    ///< Texture setting.
    QString totalPoint;                 ///< Number of points: recorded as a number, 0 unless a whole number.
    QString pointDis;                   ///< Point distance, recorded as text.
    QString length;                     ///< Bounding box, in "box" as a single-precision number (0 unless one).
    QString width;                      ///< Bounding box, as `length`.
    QString height;                     ///< Bounding box, as `length`.
    QString handHeldPointGenWay;        ///< How hand-held scanning generated its points.
    QString meshType;                   ///< Mesh type.
    QString fileName;                   ///< The scan's file name.
    void* spare2 = nullptr;             ///< The host's own; never read.
    void* spare3 = nullptr;             ///< The host's own; never read.
    void* spare4 = nullptr;             ///< The host's own; never read.
    QStringList modularPles;            ///< Module profile names; stored in VeltraInfoMgr::modularPles.
};

/// The record manager's interface: what the host records through, and where it learns what to
/// upload and where. Every builder copies some of its arguments into these fields, and every later
/// record's envelope is built from them.
///
/// The host gets the one manager from information_init() and calls it from one thread: it has
/// no lock. Each builder writes one record: a QSettings INI file in "./veltrainfo/" (relative to
/// the working directory) holding "data", the record's indented JSON text as a byte array, and
/// "type", its kind. The JSON object begins with the envelope: "modelName", "seriaNum",
/// "softwareName", "softwareVer", "tracingType", "startOn", "endOn", "enableGuide" ("yes" when
/// the manager's guide option is 1, else "no"), "osSoftExt", "osHdExt" and "modularExt" (the
/// profile, and one module per module profile name). Then come the kind's own keys.
///
/// | builder | file in ./veltrainfo/ | "type" / "tracingType" | stores in the manager |
/// |---|---|---|---|
/// | create_usage_inifo() | `<local start of the run, yyyy-MM-ddThh-mm-ss>.info2`, rewritten | usage / usage | ple, softwareVer, modelName, modular, enableGuide; empties modularPles |
/// | create_calibrate_inifo() | `<UTC yyyy-MM-ddThh-mm-ssZ>.info2` | calibration / calibration | enableGuide, softwareVer, ple, modelName, modular, modularPles, startOn, endOn |
/// | create_share_inifo() | `<UTC yyyy-MM-ddThh-mm-ssZ>.info2` | share / share | enableGuide, ple, modelName, modular, startOn, endOn |
/// | add_scan_info() | `<UTC yyyy-MM-ddThh-mm-ss.sssZ>.info2` | scan / scan | enableGuide, startOn, endOn, ple, modelName, modular, modularPles |
/// | windows_information_imp::create_scan_inifo() | `<UTC yyyy-MM-ddThh-mm-ssZ>.info2` | scan / usage | nothing |
/// | create_userfeedback_info() | `<UTC yyyy-MM-ddThh-mm-ss>.info2` | feedback / feedback | enableGuide, modelName, modular, modularPles, ple (normalised), softwareVer; startOn and endOn = now |
/// | add_user_score() | `<UTC yyyy-MM-ddThh-mm-ss>.score2` | score / score | as feedback, but empties modularPles |
///
/// What a builder stores stays: every later record of any kind carries it. That includes the
/// period: after a calibration, share, structured scan, feedback or score, a usage record written
/// with an empty `start` and a flat scan carry that record's "startOn" and "endOn". Existing
/// records look so, and it is kept.
///
/// No builder reports a failure: a record that cannot be written (a read-only folder, a full
/// disk) leaves a glog warning naming its path and why, and every record file stays as it was; a
/// file is only ever replaced by a complete, verified version. Records are named by the second
/// they were written in, and a builder never overwrites another record: when its name is taken (two
/// records of one second under one pattern, two hosts on one folder) it writes to the first free
/// `<stem>-<n>` with the same extension, n counting from 1, claiming the name atomically.
/// Arguments passed by non-const reference are only read.
class INFORMATION_API_EXPORT VeltraInfoMgr {
public:
    /// Deletes the manager; windows_information_imp's destructor closes the usage record.
    virtual ~VeltraInfoMgr();

    /// Sets softwareName, which every later record carries as "softwareName".
    virtual void setSoftwareName(const QString& name) = 0;
    /// Records one scan, described by `info`.
    ///
    /// Stores `info`'s ple, modelName, modular, modularPles, startOn and endOn, and
    /// `enableGuide`, in the manager, and writes
    /// `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ss.sssZ>.info2` ("type" and "tracingType" "scan"):
    /// the envelope, then "content" with "mode" (one object per entry of `info.modes`; left out
    /// when there is none), "texture", "totalPoint", "pointDis", "handHeldPointGenWay",
    /// "meshType", "fileName" and "box" ("length", "width", "height"). In the file name "sss" is
    /// not milliseconds but the seconds twice (13:04:07 gives "07.077Z"); receivers know the names
    /// so.
    ///
    /// `enableGuide` is the host's guide option, recorded as "enableGuide" "yes" when 1 and "no"
    /// otherwise, here and in every later record.
    virtual void add_scan_info(const _tag_scan_info& info, int enableGuide) = 0;
    /// Records one device calibration with the outcome of each of its steps.
    ///
    /// Stores `enableGuide`, `softwareVer`, `ple`, `modelName`, `modular`, `modularPles`,
    /// `startOn` and `endOn` in the manager and writes
    /// `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ssZ>.info2` ("type" and "tracingType"
    /// "calibration"): the envelope, whose period is `startOn` to `endOn`, then "content", one
    /// object per entry of `stepClasses` with "classsify", "startOn", "endOn", "result" and
    /// "modular" from the entries of the same index in `stepClasses`, `stepStarts`, `stepEnds`,
    /// `stepResults` and `stepModulars`. A shorter list gives empty texts; entries past the
    /// length of `stepClasses` are ignored. Everything is recorded as given, unchecked.
    /// @param stepModulars per step, the module it concerned
    /// @param softwareVer the host software's version
    /// @param ple the device profile file name
    /// @param modelName the device model name
    /// @param modular the module description
    /// @param modularPles the module profile names, one module of "modularExt" each
    /// @param startOn, endOn the calibration's period
    /// @param stepClasses per step, its category; its length is the number of steps
    /// @param stepStarts, stepEnds, stepResults per step, its start, end and result
    /// @param enableGuide the host's guide option: "enableGuide" is "yes" when 1, else "no"
    virtual void create_calibrate_inifo(QStringList& stepModulars, QString& softwareVer, QString& ple,
        QString& modelName, QString& modular, QStringList& modularPles, QString& startOn, QString& endOn,
        QStringList& stepClasses, QStringList& stepStarts, QStringList& stepEnds, QStringList& stepResults,
        int enableGuide) = 0;
    /// Records that a result was shared.
    ///
    /// Stores `enableGuide`, `ple`, `modelName`, `modular`, `startOn` and `endOn` in the manager
    /// and writes `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ssZ>.info2` ("type" and "tracingType"
    /// "share"): the envelope, whose period is `startOn` to `endOn`, then "content" with
    /// "target", "name" and "account". The software version and module profile names in the
    /// envelope are whatever earlier calls stored.
    /// @param ple, modelName, modular the device profile file name, model name and module
    /// @param startOn, endOn the share's period, recorded as given
    /// @param target where the result was shared to
    /// @param name what was shared
    /// @param account the account it was shared with
    /// @param enableGuide the host's guide option: "enableGuide" is "yes" when 1, else "no"
    virtual void create_share_inifo(QString& ple, QString& modelName, QString& modular, QString& startOn,
        QString& endOn, QString& target, QString& name, QString& account, int enableGuide) = 0;
    /// Writes, or rewrites, the usage record of this run.
    ///
    /// Stores `ple`, `softwareVer`, `modelName`, `modular` and `enableGuide` in the manager and
    /// empties modularPles (the envelope then lists `modular` as one module). Builds the
    /// envelope into windows_information_imp::usageRecord and writes it, "type" "usage", to
    /// `./veltrainfo/<local yyyy-MM-ddThh-mm-ss>.info2`, named after the start of the run
    /// (usageStart), or the first free `<stem>-<n>.info2` when another record holds that name.
    /// Every later call in the run rewrites the file the first one wrote (usageFilePath), and
    /// deleting the manager rewrites it a last time with "endOn" the time of deletion. Prints one
    /// trace line to standard output.
    /// @param start empty: the record's period is the manager's own startOn and endOn (the start
    ///        of the run, or the period of the last calibration, share, structured scan, feedback
    ///        or score). Otherwise this text, unchecked, becomes "startOn" and now (UTC)
    ///        becomes "endOn".
    /// @param ple, softwareVer, modelName, modular the device profile file name, the host
    ///        software's version, the device model name and the module description
    /// @param enableGuide the host's guide option: "enableGuide" is "yes" when 1, else "no"
    virtual void create_usage_inifo(const QString& start, QString& ple, QString& softwareVer, QString& modelName,
        QString& modular, int enableGuide) = 0;
    /// Records a user's satisfaction score; the library never lists, uploads or deletes it.
    ///
    /// Stores `enableGuide`, `modelName`, `modular`, `softwareVer` and `ple` in the manager,
    /// empties modularPles and sets startOn and endOn to now, then writes
    /// `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ss>.score2` ("type" and "tracingType" "score"): the
    /// envelope, then "content" with "score" and "industry". The profile is normalised first: a
    /// variant between its last "-" and "K300.ple" is dropped (pro-2xK300.ple is recorded as
    /// pro-K300.ple).
    /// @param score a whole number as text, recorded as a number; anything else is recorded as 0
    /// @param ple, softwareVer, modelName, modular as for create_usage_inifo()
    /// @param industry the user's industry, as the host names it
    /// @param enableGuide the host's guide option: "enableGuide" is "yes" when 1, else "no"
    /// @return the path written: `<stem>-<n>.score2` when the name was taken (it names no file
    ///         when the write failed)
    virtual QString add_user_score(const QString& score, const QString& ple, const QString& softwareVer,
        QString& modelName, QString& modular, const QString& industry, int enableGuide) = 0;
    /// Records a user's written feedback.
    ///
    /// Stores in the manager what add_user_score() stores (the profile normalised alike, the
    /// period now), but keeps the given `modularPles` where a score empties them; then writes
    /// `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ss>.info2` ("type" and "tracingType" "feedback"): the
    /// envelope, then "content" with "email", "industry", "content" and "attachs".
    /// @param ple, softwareVer, modelName, modular as for create_usage_inifo()
    /// @param modularPles the module profile names, one module of "modularExt" each
    /// @param enableGuide the host's guide option: "enableGuide" is "yes" when 1, else "no"
    /// @param email, industry, content the user's address, industry and text
    /// @param attachs the attachments, recorded as given; the files themselves go up with
    ///        upload_file()
    /// @return the path written: `<stem>-<n>.info2` when the name was taken (it names no file
    ///         when the write failed)
    virtual QString create_userfeedback_info(QString& ple, QString& softwareVer, QString& modelName, QString& modular,
        QStringList& modularPles, int enableGuide, QString& email, QString& industry, QString& content,
        QStringList& attachs) = 0;
    /// Deletes the records that are too old to be worth sending.
    ///
    /// Those are the `*.info2` files of "./veltrainfo/" modified more than "remain" calendar days
    /// (in "./res/system.ini", default 30) before today, local time. A "remain" that is not a
    /// number reads as 0, so every record older than today goes. Score records are never
    /// deleted.
    virtual void clear_timeout_file() = 0;
    /// Lists the records due for upload.
    ///
    /// Appends to `files` the absolute paths of the `*.info2` files of "./veltrainfo/", oldest
    /// first, modified at least "uploadintval" calendar days (in "./res/system.ini", default 1)
    /// before the day of the application property "start_time", a QDateTime the host sets on its
    /// QCoreApplication. Without that property nothing is due (unless "uploadintval" is 0 or
    /// less). Score records are never listed.
    /// @return the size of `files` afterwards, counting the entries it held before
    virtual int get_upload_files(QStringList& files) = 0;
    /// How long the host waits before it tries again: "connect_time" in "./res/system.ini"
    /// (default 20). The library itself does not use it; the unit is the host's.
    virtual int get_reconnect_intval() = 0;
    /// Sets the device profile file name, ple, which every later record carries.
    ///
    /// A K300 profile with a variant between its last "-" and "K300.ple" is stored with that tail
    /// repeated: abc-xK300.ple is stored as abc-xK300.pleK300.ple. This is deliberate, and unlike
    /// feedback and score records, which drop the variant instead (see add_user_score()).
    virtual void set_ple(const QString& ple) = 0;
    /// Does nothing: the serial given here is deliberately discarded; use setDeviceSerial().
    virtual void set_sn(const QString& sn) = 0;
    /// Where and how often to upload records, from "./res/system.ini".
    ///
    /// With "test" non-zero, `url` is the test service: the second URL given to
    /// set_upload_url(), else the built-in test URL; `app_id` the test application id. Otherwise
    /// `url` is the release service: the first URL given to set_upload_url(), else "upload_url"
    /// of "./url_config.ini" (read once, then kept in windows_information_imp::releaseUploadUrl),
    /// else the built-in release URL; `app_id` the release application id. Settings that are not
    /// numbers read as 0.
    /// @param enable "enable" (default 0): non-zero when the host should upload
    /// @param time_intval "time_intval" (default 60): the upload interval; the unit is the host's
    /// @param url the record-upload URL for upload_information()
    /// @param app_id the application id for upload_information() and upload_file()
    /// @param extra never touched
    virtual void get_upload_config(int& enable, int& time_intval, QString& url, QString& app_id, QString& extra) = 0;
    /// Reads a record file back, whatever its kind: its JSON text into `data` (null when the file
    /// has no "data") and its kind into `type`.
    /// The file is opened once, without blocking, and QSettings decodes a private copy of the
    /// bytes that were checked.
    /// @return 0; -1 when `path` does not exist, or is no file the library can have written:
    ///         not a regular file (a symbolic link included), over 16 MiB, or holding a value
    ///         QSettings would decode as a serialised QVariant. Both outputs are then left as they
    ///         were, and an info log line says why.
    virtual int get_scan_info(const QString& path, QString& data, QString& type) = 0;
    /// Does nothing: `files` is left as it was. A score record is read by the path
    /// add_user_score() returned.
    virtual void get_score_files(QStringList& files) = 0;
    /// The content host's base URL, for get_url_json_file().
    ///
    /// That is `https://<host>` with the build's INFORMATION_API_CDN_HOST, in test and release
    /// mode alike.
    virtual void get_domain_manger_url(QString& url) = 0;
    /// Sets the record-upload URLs get_upload_config() hands out, for release and test mode.
    ///
    /// An empty one means the default: for release "upload_url" of "./url_config.ini", else the
    /// built-in URL; for test the built-in URL.
    virtual void set_upload_url(QString& release_url, QString& test_url) = 0;
    /// Does nothing: the installer download is downLoadApp() or download_verified().
    virtual void downloadApp(const QString& url, const QString& path) = 0;
    /// The file-upload URL, for upload_file().
    ///
    /// In test mode ("test" non-zero) the second URL given to setUploadFileUrl(), otherwise the
    /// first; when that is empty, the built-in `https://<host>/up` with the build's
    /// INFORMATION_API_TEST_API_HOST, in both modes.
    virtual void getUploadFileUrl(QString& url) = 0;
    /// Sets the file-upload URLs getUploadFileUrl() hands out, for release and test mode.
    ///
    /// An empty one means the built-in URL.
    virtual void setUploadFileUrl(QString& release_url, QString& test_url) = 0;
    /// Does nothing; kept for hosts that call it.
    virtual void end_usage_info(const QString&) {}
    /// Returns an empty string; kept for hosts that call it.
    virtual QString begin_calib_info() { return QString(""); }
    /// Does nothing; kept for hosts that call it.
    virtual void end_calib_info(const QString&) {}
    /// Returns an empty string; kept for hosts that call it.
    virtual QString begin_scan_info() { return QString(""); }
    /// Does nothing; kept for hosts that call it.
    virtual void end_scan_info(const QString&) {}
    /// Sets the device serial, seriaNum, which every later record carries as "seriaNum".
    virtual void setDeviceSerial(const QString& serial) { seriaNum = serial; }
    /// Sets softwareVer, which later records carry as "softwareVer" until a builder that takes a
    /// version stores another.
    virtual void setSoftwareVer(const QString& ver) = 0;

    QDateTime usageStart;  ///< Local time the run's usage period began; names the usage record.
    QString modelName;     ///< Device model name ("modelName").
    QString seriaNum;      ///< Device serial ("seriaNum"), set by setDeviceSerial().
    QString softwareName;  ///< Host software's name ("softwareName"); empty, not null, at first.
    QString softwareVer;   ///< Host software's version ("softwareVer").
    QString spareText1;    ///< Unused; keeps the layout.
    /// Start of the period records carry ("startOn"): the run's start (UTC
    /// "yyyy-MM-ddThh:mm:ssZ"), or the last period a builder stored.
    QString startOn;
    QString endOn;            ///< End of that period ("endOn"); the run's start until a builder stores one.
    QString osName;           ///< Operating system's name ("osSoftExt"); see get_os_info().
    QString lang;             ///< System language, as en_US ("osSoftExt"); see get_os_info().
    QString resolution;       ///< Primary screen, "<w> x <h>" pixels ("osSoftExt"); see get_os_info().
    QString spareText2;       ///< Unused; keeps the layout.
    QString installPath;      ///< The application's folder ("osSoftExt"); see get_install_info().
    QString browserName;      ///< Default browser ("osSoftExt" "browser"); always empty.
    QString browserVersion;   ///< Its version ("browser" "ver"); always empty.
    QString cpuCores;         ///< Physical CPU cores, decimal ("osHdExt" "cpu", a number).
    QString cpuModel;         ///< CPU model ("osHdExt" "cpu"); see get_cpu_info().
    QString memSize;          ///< Memory in MiB, decimal ("osHdExt", a number); see get_memory_info().
    QStringList gpuModels;    ///< One per graphics adapter ("osHdExt" "gpu"); see get_gpu_info().
    QStringList gpuMemSizes;  ///< Adapter memory in MiB, decimal, parallel to gpuModels.
    QString hddSize;          ///< Size of the application's volume in MiB, decimal ("osHdExt", a number).
    QString hddRemainSize;    ///< Space available on it in MiB, decimal ("osHdExt", a number).
    QString ple;              ///< Current device profile file name ("modularExt" "ple").
    QString modular;          ///< Module description: the "name" of every module in "modularExt".
    /// Module profile names: one module of "modularExt" each ("mple"); the first always, later
    /// empty ones skipped.
    QStringList modularPles;
};

/// The manager the library creates for the host; on Linux it also describes the machine.
///
/// The same class serves every platform. On Linux the machine probes fill the envelope's machine
/// description ("osSoftExt", "osHdExt") once, as the manager is created (get_usage_info()), on
/// the host's thread; they add well under a millisecond to information_init(). A source that
/// cannot be read leaves its fields empty (0 in a record) and never stops one. On macOS the probes
/// are stubs: the description holds empty texts and zeros (KrMacosInfo describes the Mac instead).
/// No platform has a default browser: browserName and browserVersion stay empty.
///
/// | field | source on Linux | form |
/// |---|---|---|
/// | osName | QSysInfo::prettyProductName() (os-release's PRETTY_NAME) | as given |
/// | lang | QLocale::system().name() | as en_US |
/// | resolution | the primary screen's size in device pixels, only in a QGuiApplication with a screen | "<w> x <h>", as KrMacosInfo writes it; otherwise empty |
/// | installPath | QCoreApplication::applicationDirPath() | the user's home directory written as "~" (a path under /home names the user) |
/// | hddSize, hddRemainSize | total and available bytes of the volume holding that folder, as QStorageInfo counts them | MiB (2^20 bytes), rounded down |
/// | cpuCores | physical cores: distinct ("physical id", "core id") pairs in /proc/cpuinfo | the number of processors where those keys are absent |
/// | cpuModel | the first "model name" in /proc/cpuinfo, trimmed | QSysInfo::currentCpuArchitecture() where absent (most arm64 kernels) |
/// | memSize | "MemTotal" in /proc/meminfo | MiB, rounded down |
/// | gpuModels | one per PCI display controller (class 0x03xxxx) in /sys/bus/pci/devices, in address order | "<vendor> <device>" as the PCI ID database names them (pci.ids of the hwdata or pciutils package), else "vendor:device" in hex, as 10de:1c82 |
/// | gpuMemSizes | amdgpu's "mem_info_vram_total"; other drivers report none | MiB; the list ends with the last adapter that has a size, an adapter without one before it has an empty entry (0 in a record) |
///
/// Its settings come from "./res/system.ini" (relative to the working directory), read as they
/// are needed from a private copy of its checked bytes (a file holding a serialised QVariant is
/// ignored); a value that is not a number reads as 0:
///
/// | key | default | read by |
/// |---|---|---|
/// | "enable" | 0 | get_upload_config() |
/// | "time_intval" | 60 | get_upload_config() |
/// | "test" | 0 | get_upload_config(), getUploadFileUrl(): non-zero selects the test service |
/// | "connect_time" | 20 | get_reconnect_intval() |
/// | "uploadintval" | 1 | get_upload_files() |
/// | "remain" | 30 | clear_timeout_file() |
class INFORMATION_API_EXPORT windows_information_imp : public VeltraInfoMgr {
public:
    /// Opens "./res/system.ini" and, unless the application is named "information_uploader",
    /// starts the usage period of the run (get_usage_info()). Hosts get the manager from
    /// information_init().
    windows_information_imp();
    /// Closes the run's usage record: when create_usage_inifo() has written one, rewrites its
    /// file with "endOn" set to now.
    ~windows_information_imp() override;

    void setSoftwareName(const QString& name) override;
    void add_scan_info(const _tag_scan_info& info, int enableGuide) override;
    void create_calibrate_inifo(QStringList& stepModulars, QString& softwareVer, QString& ple, QString& modelName,
        QString& modular, QStringList& modularPles, QString& startOn, QString& endOn, QStringList& stepClasses,
        QStringList& stepStarts, QStringList& stepEnds, QStringList& stepResults, int enableGuide) override;
    void create_share_inifo(QString& ple, QString& modelName, QString& modular, QString& startOn, QString& endOn,
        QString& target, QString& name, QString& account, int enableGuide) override;
    void create_usage_inifo(const QString& start, QString& ple, QString& softwareVer, QString& modelName,
        QString& modular, int enableGuide) override;
    QString add_user_score(const QString& score, const QString& ple, const QString& softwareVer, QString& modelName,
        QString& modular, const QString& industry, int enableGuide) override;
    QString create_userfeedback_info(QString& ple, QString& softwareVer, QString& modelName, QString& modular,
        QStringList& modularPles, int enableGuide, QString& email, QString& industry, QString& content,
        QStringList& attachs) override;
    void clear_timeout_file() override;
    int get_upload_files(QStringList& files) override;
    int get_reconnect_intval() override;
    void set_ple(const QString& ple) override;
    void set_sn(const QString& sn) override;
    void get_upload_config(int& enable, int& time_intval, QString& url, QString& app_id, QString& extra) override;
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

    /// Records a scan in the older, flat form.
    ///
    /// Writes `./veltrainfo/<UTC yyyy-MM-ddThh-mm-ssZ>.info2` with "type" "scan" but
    /// "tracingType" "usage" (receivers tell the flat form by "type"): the envelope, then every
    /// argument but the last as a top-level text under its own name, "height" to "totalFaces";
    /// the top-level "startOn" and "endOn" replace the envelope's, and "modular" stands beside
    /// "modularExt". Stores nothing in the manager.
    /// @param height, length, width, fileName, handHeldPointGenWay, meshType, alignMode,
    ///        classsify, hdr, modular, startOn, endOn, pointDis, texture, totalPoint, totalFaces
    ///        the scan's values, recorded as given
    /// @param unused ignored
    virtual void create_scan_inifo(QString& height, QString& length, QString& width, QString& fileName,
        QString& handHeldPointGenWay, QString& meshType, QString& alignMode, QString& classsify, QString& hdr,
        QString& modular, QString& startOn, QString& endOn, QString& pointDis, QString& texture, QString& totalPoint,
        QString totalFaces, int unused);
    /// Machine probe for osName, lang and resolution (the class's table); returns true. On Linux
    /// it sets what it can read and leaves the rest; on macOS it leaves all three.
    virtual bool get_os_info(QString& osName, QString& lang, QString& resolution);
    /// Machine probe for installPath, hddSize and hddRemainSize, as get_os_info().
    virtual bool get_install_info(QString& installPath, QString& hddSize, QString& hddRemainSize);
    /// Machine probe for cpuCores and cpuModel, as get_os_info().
    virtual bool get_cpu_info(QString& cores, QString& model);
    /// Machine probe for gpuModels and gpuMemSizes, as get_os_info(). On Linux both lists are
    /// replaced once it finds a display controller.
    virtual bool get_gpu_info(QStringList& models, QStringList& memSizes);
    /// Machine probe for memSize, as get_os_info().
    virtual bool get_memory_info(QString& size);
    /// Machine probe for browserName and browserVersion; a stub on every platform: returns false.
    virtual bool get_default_browser(QString& name, QString& version);

    /// Starts the usage period of this run: stamps its start and asks the machine probes.
    ///
    /// usageStart becomes the local time, startOn and endOn the UTC time
    /// ("yyyy-MM-ddThh:mm:ssZ"); then the six probes above run. The constructor calls it.
    void get_usage_info();
    /// A stub here: returns false.
    bool get_os_name_is11();
    /// A stub here: leaves `name` and returns true.
    bool get_os_name(QString& name);
    /// A stub here: leaves `lang` and returns false.
    bool get_os_language(QString& lang);
    /// A stub here: leaves both lists and returns true.
    bool get_gpu_info_vista(QStringList& models, QStringList& memSizes);

    int enableGuide = 0;       ///< The last guide option a builder got; "enableGuide" is "yes" when 1.
    QSettings systemSettings;  ///< A private copy of "./res/system.ini" (keys above), kept up to date.
    QString spareText3;        ///< Unused; keeps the layout.
    bool spareFlag = true;     ///< Unused; keeps the layout.
    QString usageFilePath;     ///< The run's usage record file; empty until create_usage_inifo().
    QJsonObject usageRecord;   ///< The run's usage record as last built.
    /// Release record-upload URL: from set_upload_url(), or "./url_config.ini" once read.
    QString releaseUploadUrl;
    QString testUploadUrl;         ///< Test record-upload URL, from set_upload_url(); empty: built-in.
    QString releaseFileUploadUrl;  ///< Release file-upload URL, setUploadFileUrl(); empty: built-in.
    QString testFileUploadUrl;     ///< Test file-upload URL, setUploadFileUrl(); empty: built-in.

private:
    // Writes the common envelope of every record kind into `record`.
    void create_usage_inner(const QString& start, QJsonObject& record);
};

}  // namespace information_api
