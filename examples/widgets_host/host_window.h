// The main window of a small scanning application that uses information_api as a real host does:
// it writes records on the user's actions, uploads the due ones (a few at a time, never this
// run's own usage record) at start once the user agreed,
// fetches the interface file and downloads a verified installer. The library reports on its worker
// thread; every report is handed to the window's thread before a widget is touched.
#pragma once

#include <information_api/information_api.h>
#include <information_api/queued_sink.h>

#include <QMainWindow>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <map>

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QSpinBox;

// Where the services are. A deployed build has them compiled into the library; an empty
// service_url keeps those.
struct service_locations {
    QString service_url;       // records to <url>/dtta, files to <url>/up, <url>/software/...
    QString installer_url;     // empty: no installer to offer
    QString installer_sha256;  // hexadecimal
};

class host_window : public QMainWindow {
    Q_OBJECT
public:
    // `manager` is the one information_init() returned: the library owns it. Call
    // information_clean() before the window goes, since the window holds the sink.
    host_window(information_api::VeltraInfoMgr* manager, service_locations services, QWidget* parent = nullptr);

private:
    using final_report_handler = std::function<void(const information_api::response_info_t&)>;

    QWidget* create_consent_box();
    QWidget* create_work_box();
    QWidget* create_updates_box();

    void set_consent(bool on);
    void upload_due_records();
    void send_waiting_records();
    void show_upload_status();

    void record_scan();
    void record_calibration();
    void record_share();
    void record_score();
    void send_feedback();
    void write_feedback(QStringList attachment_ids);

    void fetch_interface();
    void download_installer();

    int open_connection(final_report_handler on_final);
    void on_response(int id, const information_api::response_info_t& info);
    void on_download_progress(qint64 received, qint64 total);
    void on_download_finished(bool success, int code, int net_error);
    void log(const QString& line);

    information_api::VeltraInfoMgr* const manager_;
    const service_locations services_;
    QString interface_base_url_;
    // Reports arrive on the library's worker thread; the sink queues each one to this window.
    information_api::queued_sink sink_{this,
        [this](int id, const information_api::response_info_t& info) { on_response(id, info); },
        [this](qint64 received, qint64 total) { on_download_progress(received, total); },
        [this](bool success, int code, int net_error) { on_download_finished(success, code, net_error); }};
    std::map<int, final_report_handler> open_connections_;
    QStringList records_waiting_;  // due, not yet sent: a few go at a time
    QSet<QString> records_in_flight_;
    int next_connection_id_ = 1;
    int download_id_ = 0;
    QString installer_path_;
    int sent_ = 0;
    int not_sent_ = 0;

    QCheckBox* consent_ = nullptr;
    QLabel* upload_status_ = nullptr;
    QSpinBox* score_ = nullptr;
    QLineEdit* feedback_email_ = nullptr;
    QLineEdit* feedback_text_ = nullptr;
    QLineEdit* attachment_ = nullptr;
    QPlainTextEdit* interface_view_ = nullptr;
    QPushButton* download_button_ = nullptr;
    QProgressBar* download_progress_ = nullptr;
    QLabel* download_status_ = nullptr;
    QListWidget* activity_ = nullptr;
};
