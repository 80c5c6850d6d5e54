#include "host_window.h"

#include <information_api/transport_security.h>
#include <information_api/windows_information_imp.h>

#include <QCheckBox>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QUrl>
#include <QVBoxLayout>

using information_api::response_info_t;

namespace {

const QString kSoftwareName = "ExampleScan";  // also names the interface file on the service
const int kRequestTimeoutMs = 15000;
const int kDownloadStallMs = 30000;
const int kProgressSteps = 1000;  // per mille: installers may be larger than an int counts
// Each open connection holds a network access manager and its thread until it is released: a
// backlog of thousands of records sent at once runs out of threads and file descriptors.
const int kRecordsInFlight = 4;

// What the application knows about the connected device. The record builders take references.
struct device {
    QString profile = "abc-xK300.ple";
    QString software_version = "1.2.3";
    QString model = "K300";
    QString module = "turntable";
};

QString utc_stamp(const QDateTime& at) { return at.toUTC().toString("yyyy-MM-ddThh:mm:ssZ"); }
QString utc_now() { return utc_stamp(QDateTime::currentDateTimeUtc()); }
QString minutes_ago(int minutes) { return utc_stamp(QDateTime::currentDateTimeUtc().addSecs(-60 * minutes)); }

QString describe(const response_info_t& info)
{
    if (info.ret == 6)
        return QObject::tr("no answer in time");
    return info.msg.isEmpty() ? QObject::tr("network error %1").arg(info.net_error) : info.msg;
}

// "enable" as ./res/system.ini holds it now. QSettings objects of one file share the changes that
// one of them failed to write, so the file is read through a copy.
int enable_on_disk()
{
    const QTemporaryDir dir;
    const QString copy = dir.filePath("system.ini");
    if (!QFile::copy("./res/system.ini", copy))
        return 0;
    return QSettings(copy, QSettings::IniFormat).value("enable").toInt();
}

QString describe_download_failure(int code, int net_error)
{
    switch (code) {
    case 9:
        return QObject::tr("the file does not match its SHA-256 and was discarded");
    case 8:
        return QObject::tr("the file could not be written");
    case 6:
        return QObject::tr("the server stopped sending");
    default:
        return QObject::tr("network or HTTP error %1").arg(net_error);
    }
}

}  // namespace

host_window::host_window(information_api::VeltraInfoMgr* manager, service_locations services, QWidget* parent)
    : QMainWindow(parent), manager_(manager), services_(std::move(services))
{
    setWindowTitle(tr("Example Scan"));
    manager_->setSoftwareName(kSoftwareName);
    manager_->setSoftwareVer(device().software_version);
    manager_->setDeviceSerial("SN-0001");
    if (services_.service_url.isEmpty()) {
        manager_->get_domain_manger_url(interface_base_url_);
    } else {
        QString records = services_.service_url + "/dtta", files = services_.service_url + "/up";
        manager_->set_upload_url(records, records);  // release and test mode alike
        manager_->setUploadFileUrl(files, files);
        interface_base_url_ = services_.service_url;
    }

    activity_ = new QListWidget;
    activity_->setObjectName("activity");
    activity_->setUniformItemSizes(true);  // one line each: adding one costs the same at any length
    auto* central = new QWidget;
    auto* layout = new QVBoxLayout(central);
    layout->addWidget(create_consent_box());
    layout->addWidget(create_work_box());
    layout->addWidget(create_updates_box());
    layout->addWidget(new QLabel(tr("Activity")));
    layout->addWidget(activity_);
    setCentralWidget(central);

    upload_due_records();
    // This run's usage record, started after the listing above so that it is not sent half done;
    // information_clean() closes it with the run's end time.
    device d;
    manager_->create_usage_inifo("", d.profile, d.software_version, d.model, d.module, 0);
}

QWidget* host_window::create_consent_box()
{
    auto* box = new QGroupBox(tr("Usage statistics"));
    consent_ = new QCheckBox(tr("Send anonymous usage statistics to help improve Example Scan"));
    consent_->setObjectName("consent");
    int enable = 0, interval = 0;
    QString url, app_id, extra;
    manager_->get_upload_config(enable, interval, url, app_id, extra);
    consent_->setChecked(enable != 0);
    connect(consent_, &QCheckBox::toggled, this, &host_window::set_consent);
    upload_status_ = new QLabel;
    upload_status_->setObjectName("upload_status");
    show_upload_status();
    auto* layout = new QVBoxLayout(box);
    layout->addWidget(consent_);
    layout->addWidget(upload_status_);
    return box;
}

QWidget* host_window::create_work_box()
{
    const auto button = [this](const QString& text, const char* name, void (host_window::*action)()) {
        auto* b = new QPushButton(text);
        b->setObjectName(name);
        connect(b, &QPushButton::clicked, this, action);
        return b;
    };
    auto* actions = new QHBoxLayout;
    actions->addWidget(button(tr("Scan"), "scan", &host_window::record_scan));
    actions->addWidget(button(tr("Calibrate"), "calibrate", &host_window::record_calibration));
    actions->addWidget(button(tr("Share"), "share", &host_window::record_share));

    score_ = new QSpinBox;
    score_->setRange(1, 10);
    score_->setValue(8);
    auto* rating = new QHBoxLayout;
    rating->addWidget(score_);
    rating->addWidget(button(tr("Rate"), "rate", &host_window::record_score));

    feedback_email_ = new QLineEdit;
    feedback_text_ = new QLineEdit;
    feedback_text_->setObjectName("feedback_text");
    attachment_ = new QLineEdit;
    attachment_->setObjectName("attachment");
    auto* browse = new QPushButton(tr("Browse…"));
    connect(browse, &QPushButton::clicked, this, [this] {
        const QString file = QFileDialog::getOpenFileName(this, tr("Attach a file"));
        if (!file.isEmpty())
            attachment_->setText(file);
    });
    auto* attaching = new QHBoxLayout;
    attaching->addWidget(attachment_);
    attaching->addWidget(browse);

    auto* box = new QGroupBox(tr("Work (every action leaves a record, sent at a later start)"));
    auto* form = new QFormLayout(box);
    form->addRow(actions);
    form->addRow(tr("Satisfaction"), rating);
    form->addRow(tr("E-mail"), feedback_email_);
    form->addRow(tr("Feedback"), feedback_text_);
    form->addRow(tr("Attachment"), attaching);
    form->addRow(button(tr("Send feedback"), "send_feedback", &host_window::send_feedback));
    return box;
}

QWidget* host_window::create_updates_box()
{
    auto* check = new QPushButton(tr("Check for updates"));
    check->setObjectName("check_updates");
    connect(check, &QPushButton::clicked, this, &host_window::fetch_interface);
    interface_view_ = new QPlainTextEdit;
    interface_view_->setObjectName("interface");
    interface_view_->setReadOnly(true);

    download_button_ = new QPushButton(tr("Download installer"));
    download_button_->setObjectName("download_installer");
    download_button_->setEnabled(!services_.installer_url.isEmpty());
    if (services_.installer_url.isEmpty())
        download_button_->setToolTip(tr("Start with --installer-url and --installer-sha256"));
    connect(download_button_, &QPushButton::clicked, this, &host_window::download_installer);
    download_progress_ = new QProgressBar;
    download_progress_->setObjectName("download_progress");
    download_progress_->setRange(0, kProgressSteps);
    download_progress_->setValue(0);
    download_status_ = new QLabel;
    download_status_->setObjectName("download_status");

    auto* box = new QGroupBox(tr("Updates"));
    auto* layout = new QVBoxLayout(box);
    layout->addWidget(check);
    layout->addWidget(interface_view_);
    layout->addWidget(download_button_);
    layout->addWidget(download_progress_);
    layout->addWidget(download_status_);
    return box;
}

void host_window::set_consent(bool on)
{
    // The user's choice lives where the library (and information_uploader) read it.
    QSettings::Status status;
    {
        QSettings system("./res/system.ini", QSettings::IniFormat);
        system.setValue("enable", on ? 1 : 0);
        system.sync();
        status = system.status();
    }
    // Qt can report a failed write as none (a full disk): what counts is what the file holds.
    const bool saved_on = enable_on_disk() != 0;
    if (status != QSettings::NoError || saved_on != on) {
        const QSignalBlocker quiet(consent_);
        consent_->setChecked(saved_on);  // what the next start will do
        records_waiting_.clear();
        log(tr("Your choice could not be saved in ./res/system.ini, which still has usage statistics "
               "%1; nothing is sent")
                .arg(saved_on ? tr("on") : tr("off")));
        return;
    }
    log(on ? tr("Usage statistics on") : tr("Usage statistics off: nothing more is sent"));
    if (on)
        upload_due_records();
    else
        records_waiting_.clear();
}

void host_window::upload_due_records()
{
    int enable = 0, interval = 0;
    QString url, app_id, extra;
    manager_->get_upload_config(enable, interval, url, app_id, extra);
    if (enable == 0)
        return;                      // without the user's consent no record leaves the machine
    manager_->clear_timeout_file();  // records older than "remain" days are dropped unsent
    // This run's usage record is still open: information_clean() rewrites it with the run's end,
    // so sent now it would reach the service twice. It goes at a later start.
    const auto* records = dynamic_cast<information_api::windows_information_imp*>(manager_);
    const QFileInfo own_usage(records ? records->usageFilePath : QString());
    QStringList due;
    manager_->get_upload_files(due);
    QSet<QString> queued(records_waiting_.cbegin(), records_waiting_.cend());
    queued.unite(records_in_flight_);
    for (const QString& path : due)
        if (!queued.contains(path) && QFileInfo(path) != own_usage)
            records_waiting_ << path;
    log(tr("%n record(s) due for upload", nullptr, int(records_waiting_.size() + records_in_flight_.size())));
    send_waiting_records();
}

void host_window::send_waiting_records()
{
    int enable = 0, interval = 0;
    QString url, app_id, extra;
    manager_->get_upload_config(enable, interval, url, app_id, extra);
    while (records_in_flight_.size() < kRecordsInFlight && !records_waiting_.isEmpty()) {
        const QString path = records_waiting_.takeFirst();
        QString data, type;
        if (manager_->get_scan_info(path, data, type) != 0)
            continue;
        records_in_flight_.insert(path);
        const int id = open_connection([this, path, type](const response_info_t& info) {
            records_in_flight_.remove(path);
            send_waiting_records();  // the next one starts before this one is accounted for
            // Deleted only once the service confirmed it; any other outcome keeps it for the
            // next start.
            QString outcome = tr("Sent the %1 record").arg(type);
            if (!info.ok)
                outcome = tr("The %1 record was not sent (%2); it is kept").arg(type, describe(info));
            else if (!QFile::remove(path) && QFile::exists(path))
                outcome += tr(", but it could not be removed: it is sent again");
            ++(info.ok ? sent_ : not_sent_);
            show_upload_status();
            log(outcome);
        });
        information_api::upload_information(url, data, app_id, type, &sink_, id, kRequestTimeoutMs);
    }
}

void host_window::show_upload_status()
{
    upload_status_->setText(tr("%1 sent, %2 not sent").arg(sent_).arg(not_sent_));
}

void host_window::record_scan()
{
    const device d;
    information_api::_tag_scan_info scan;
    scan.ple = d.profile;
    scan.modelName = d.model;
    scan.modular = d.module;
    scan.startOn = minutes_ago(2);
    scan.endOn = utc_now();
    information_api::_tag_scan_mode mode;
    mode.startOn = scan.startOn;
    mode.endOn = scan.endOn;
    mode.classsify = "fine";
    mode.alignMode = QStringList{"feature"};
    mode.modular = d.module;
    scan.modes.push_back(mode);
    scan.totalPoint = "1200000";
    scan.fileName = "bust";
    manager_->add_scan_info(scan, 0);
    log(tr("Scan recorded"));
}

void host_window::record_calibration()
{
    device d;
    QString start = minutes_ago(5), end = utc_now();
    QStringList step_modules{d.module}, module_profiles{"tt-01.ple"}, step_classes{"plate"}, step_starts{start},
        step_ends{end}, step_results{"ok"};
    manager_->create_calibrate_inifo(step_modules, d.software_version, d.profile, d.model, d.module, module_profiles,
        start, end, step_classes, step_starts, step_ends, step_results, 0);
    log(tr("Calibration recorded"));
}

void host_window::record_share()
{
    device d;
    QString start = utc_now(), end = start, target = "cloud", file = "bust.stl", account = "user@example.com";
    manager_->create_share_inifo(d.profile, d.model, d.module, start, end, target, file, account, 0);
    log(tr("Share recorded"));
}

void host_window::record_score()
{
    device d;
    const QString path = manager_->add_user_score(
        QString::number(score_->value()), d.profile, d.software_version, d.model, d.module, "design", 0);
    log(tr("Rated %1 of 10 (%2; scores stay on this machine)").arg(score_->value()).arg(QFileInfo(path).fileName()));
}

void host_window::send_feedback()
{
    const QString attachment = attachment_->text().trimmed();
    if (attachment.isEmpty()) {
        write_feedback({});
        return;
    }
    // The library neither sends nor reports a file it cannot open.
    if (!QFileInfo(attachment).isReadable()) {
        log(tr("Cannot read the attachment %1").arg(attachment));
        return;
    }
    // The user sends this file on purpose; the record that refers to it waits for consent.
    QString files_url, records_url, app_id, extra;
    int enable = 0, interval = 0;
    manager_->getUploadFileUrl(files_url);
    manager_->get_upload_config(enable, interval, records_url, app_id, extra);
    const int id = open_connection([this](const response_info_t& info) {
        if (!info.ok) {
            log(tr("The attachment was not sent (%1); the feedback stays in the form").arg(describe(info)));
            return;
        }
        write_feedback({info.result});  // the record names the stored file by its id
    });
    information_api::upload_file(files_url, attachment, app_id, QString(), &sink_, id, kRequestTimeoutMs);
    log(tr("Sending the attachment %1").arg(QFileInfo(attachment).fileName()));
}

void host_window::write_feedback(QStringList attachment_ids)
{
    device d;
    QStringList module_profiles;
    QString email = feedback_email_->text(), industry = "design", content = feedback_text_->text();
    const QString path = manager_->create_userfeedback_info(
        d.profile, d.software_version, d.model, d.module, module_profiles, 0, email, industry, content, attachment_ids);
    feedback_text_->clear();
    attachment_->clear();
    log(tr("Feedback recorded (%1)").arg(QFileInfo(path).fileName()));
}

void host_window::fetch_interface()
{
    interface_view_->setPlainText(tr("Fetching…"));
    const int id = open_connection([this](const response_info_t& info) {
        if (!info.ok) {
            interface_view_->setPlainText(tr("No interface file: %1").arg(describe(info)));
            return;
        }
        interface_view_->setPlainText(QString::fromUtf8(info.content.toJsonDocument().toJson()));
        log(tr("Interface file fetched"));
    });
    information_api::get_url_json_file(interface_base_url_, kSoftwareName, &sink_, id, kRequestTimeoutMs);
}

void host_window::download_installer()
{
    const QString name = QUrl(services_.installer_url).fileName();
    QDir().mkpath("downloads");
    installer_path_ = QDir("downloads").absoluteFilePath(name.isEmpty() ? QString("installer") : name);
    const int id = next_connection_id_++;
    if (information_api::download_verified(
            id, &sink_, services_.installer_url, installer_path_, services_.installer_sha256, kDownloadStallMs) != 0) {
        download_status_->setText(tr("The installer's SHA-256 must be 64 hexadecimal digits"));
        return;
    }
    download_id_ = id;
    download_button_->setEnabled(false);  // one download at a time: its reports carry no id
    download_progress_->setValue(0);
    download_status_->setText(tr("Downloading %1…").arg(services_.installer_url));
}

int host_window::open_connection(final_report_handler on_final)
{
    const int id = next_connection_id_++;
    open_connections_[id] = std::move(on_final);
    return id;
}

void host_window::on_response(int id, const response_info_t& info)
{
    const auto it = open_connections_.find(id);
    if (it == open_connections_.end())
        return;  // a repeated report of a connection this window has ended
    if (!info.ok && info.ret == 7 && info.msg.isEmpty())
        return;  // the reply's error signal: the reply's end follows with the error's text
    // A time-out (ret 6) repeats every kRequestTimeoutMs for as long as the request runs; this
    // window gives up at the first one.
    const final_report_handler handle = std::move(it->second);
    open_connections_.erase(it);
    information_api::release_connect(id);
    handle(info);
}

void host_window::on_download_progress(qint64 received, qint64 total)
{
    if (total <= 0) {
        download_progress_->setRange(0, 0);  // size unknown: a busy indicator
        return;
    }
    download_progress_->setRange(0, kProgressSteps);
    download_progress_->setValue(int(received * kProgressSteps / total));
}

void host_window::on_download_finished(bool success, int code, int net_error)
{
    information_api::release_connect(download_id_);
    download_button_->setEnabled(true);
    download_progress_->setRange(0, kProgressSteps);
    download_progress_->setValue(success ? kProgressSteps : 0);
    if (!success) {
        download_status_->setText(tr("Download failed: %1").arg(describe_download_failure(code, net_error)));
        return;
    }
    download_status_->setText(tr("Installer saved to %1").arg(installer_path_));
    log(tr("Installer downloaded and verified"));
}

void host_window::log(const QString& line)
{
    activity_->addItem(QTime::currentTime().toString("hh:mm:ss  ") + line);
    activity_->scrollToBottom();
}
