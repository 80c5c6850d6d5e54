// The example host's window, driven as its user drives it, against a local collection service.
#include "host_window.h"
#include "test_support.h"

#include <QtWidgets>

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

using namespace test_support;

// Root writes into read-only folders; while this lives, the calling thread does not.
class without_dac_override {
public:
    without_dac_override()
    {
        syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        reduced[0].effective &= ~(1u << CAP_DAC_OVERRIDE);
        syscall(SYS_capset, &header_, reduced);
    }
    ~without_dac_override() { syscall(SYS_capset, &header_, saved_); }

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved_[2]{};
};

class tst_example : public QObject {
    Q_OBJECT
private slots:
    void a_session_with_the_example_host();
    void a_backlog_of_due_records();
};

void tst_example::a_session_with_the_example_host()
{
    scoped_working_dir dir;
    auto service = start_service();
    const QString data = QString::fromStdString(service->data_dir());
    const QString base = QString::fromStdString(service->base_url());
    write_ini("res/system.ini", {{"uploadintval", 0}});  // every record is due; no consent yet
    // Earlier records: one the service stores, one it refuses (not a JSON object).
    write_ini("veltrainfo/earlier-scan.info2", {{"data", QByteArray("{}")}, {"type", "scan"}});
    write_ini("veltrainfo/earlier-share.info2", {{"data", QByteArray("[1]")}, {"type", "share"}});
    write_file(data + "/files/setup.bin", "tampered");
    const QByteArray installer = "the installer";
    const QString sha256 = QCryptographicHash::hash(installer, QCryptographicHash::Sha256).toHex();

    auto* manager = static_cast<windows_information_imp*>(information_init());
    host_window window(manager, {base, base + "/files/setup.bin", sha256});
    const auto clean = qScopeGuard([] { information_api::information_clean(); });
    std::atomic<bool> off_thread{false};  // widgets may change on the window's thread only
    const auto watch = [&] { off_thread = off_thread || QThread::currentThread() != window.thread(); };
    connect(window.findChild<QListWidget*>("activity")->model(), &QAbstractItemModel::rowsInserted, watch);
    connect(window.findChild<QProgressBar*>("download_progress"), &QProgressBar::valueChanged, watch);

    // A tampered installer is refused; by the time it is, no record has left without consent.
    auto* download = window.findChild<QPushButton*>("download_installer");
    auto* download_status = window.findChild<QLabel*>("download_status");
    download->click();
    QTRY_VERIFY(download_status->text().contains("does not match its SHA-256"));
    QCOMPARE(service->received_count(), std::size_t(1));

    // With consent the due records go, but not this run's usage record, which is still open; only
    // the confirmed ones are deleted.
    auto* consent = window.findChild<QCheckBox*>("consent");
    consent->click();
    QTRY_COMPARE(window.findChild<QLabel*>("upload_status")->text(), "1 sent, 1 not sent");
    QTRY_COMPARE(record_files(), (QStringList{QFileInfo(manager->usageFilePath).fileName(), "earlier-share.info2"}));

    // The installer is kept only when it matches its SHA-256.
    write_file(data + "/files/setup.bin", installer);
    download->click();
    QTRY_VERIFY(download_status->text().startsWith("Installer saved"));
    QCOMPARE(read_file("downloads/setup.bin"), installer);
    QVERIFY(!off_thread);

    // A choice that cannot be saved (a read-only res/) is not shown as made.
    QVERIFY(chmod("res", 0555) == 0);
    {
        const without_dac_override as_a_user;
        consent->click();
    }
    chmod("res", 0755);
    QVERIFY(consent->isChecked());
    auto* activity = window.findChild<QListWidget*>("activity");
    QVERIFY2(activity->item(activity->count() - 1)->text().contains("could not be saved"), "");
}

// Thousands of due records (a host that never had consent before) go a few at a time.
void tst_example::a_backlog_of_due_records()
{
    scoped_working_dir dir;
    collection::service_options plain;
    plain.tls = false, plain.prompt_ack = true;
    auto service = start_service(plain);
    write_ini("res/system.ini", {{"enable", 1}, {"uploadintval", 0}});
    const int backlog = 10000;
    for (int n = 0; n < backlog; ++n)
        write_file(QString("veltrainfo/%1.info2").arg(n), QString("data=\"{\\\"n\\\":%1}\"\ntype=usage\n").arg(n).toUtf8());
    auto* manager = static_cast<windows_information_imp*>(information_init());
    host_window window(manager, {QString::fromStdString(service->base_url()), {}, {}});
    const auto clean = qScopeGuard([] { information_api::information_clean(); });
    // Driven by the window's own log, not QTRY_'s 10 ms naps: those would set the pace.
    const QString all_sent = QString("%1 sent, 0 not sent").arg(backlog);
    auto* status = window.findChild<QLabel*>("upload_status");
    std::size_t most_open = 0;
    QEventLoop until_all_sent;
    connect(window.findChild<QListWidget*>("activity")->model(), &QAbstractItemModel::rowsInserted, [&] {
        most_open = std::max(most_open, g_conn_manager.size());
        if (status->text() == all_sent)
            until_all_sent.quit();
    });
    QTimer::singleShot(120000, &until_all_sent, &QEventLoop::quit);
    until_all_sent.exec();
    QCOMPARE(status->text(), all_sent);
    QCOMPARE(service->received_count(), std::size_t(backlog));
    QCOMPARE(record_files(), QStringList{QFileInfo(manager->usageFilePath).fileName()});
    QCOMPARE(most_open, std::size_t(4));
}

QTEST_MAIN(tst_example)
#include "tst_example.moc"
