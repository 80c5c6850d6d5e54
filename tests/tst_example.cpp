// The example host's window, driven as its user drives it, against a local collection service.
#include "host_window.h"
#include "test_support.h"

#include <QtWidgets>

#include <atomic>

using namespace test_support;

class tst_example : public QObject {
    Q_OBJECT
private slots:
    void a_session_with_the_example_host();
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

    host_window window(information_api::information_init(), {base, base + "/files/setup.bin", sha256});
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

    // With consent the due records go (this run's usage record too, when it reached the disk in
    // time); only the confirmed ones are deleted.
    window.findChild<QCheckBox*>("consent")->click();
    QTRY_VERIFY(window.findChild<QLabel*>("upload_status")->text().endsWith(" sent, 1 not sent"));
    QTRY_COMPARE(record_files(), QStringList{"earlier-share.info2"});

    // The installer is kept only when it matches its SHA-256.
    write_file(data + "/files/setup.bin", installer);
    download->click();
    QTRY_VERIFY(download_status->text().startsWith("Installer saved"));
    QCOMPARE(read_file("downloads/setup.bin"), installer);
    QVERIFY(!off_thread);
}

QTEST_MAIN(tst_example)
#include "tst_example.moc"
