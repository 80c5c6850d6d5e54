// The example host's window, driven as its user drives it, against a local collection service.
#include "host_window.h"
#include "test_support.h"

#include <QtWidgets>

#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

using namespace test_support;

// The sanitizer run unwinds the whole stack at every allocation, about 60 ms a record here.
#ifdef __SANITIZE_ADDRESS__
constexpr int kBacklog = 200;
#else
constexpr int kBacklog = 10000;
#endif

class tst_example : public QObject {
    Q_OBJECT
private slots:
    void a_session_with_the_example_host();
};

void tst_example::a_session_with_the_example_host()
{
    scoped_working_dir dir;
    collection::service_options plain;  // thousands of TLS handshakes would take minutes
    plain.tls = false;
    auto service = start_service(plain);
    const QString data = QString::fromStdString(service->data_dir());
    const QString base = QString::fromStdString(service->base_url());
    write_ini("res/system.ini", {{"uploadintval", 0}});  // every record is due; no consent yet
    // Earlier records: a backlog the service stores (a host that never had consent), and one it
    // refuses (not a JSON object).
    for (int n = 0; n < kBacklog; ++n)
        write_file(QString("veltrainfo/%1.info2").arg(n), "data={}\ntype=scan\n");
    write_ini("veltrainfo/earlier-share.info2", {{"data", QByteArray("[1]")}, {"type", "share"}});
    write_file(data + "/files/setup.bin", "tampered");
    const QByteArray installer = "the installer";
    const QString sha256 = QCryptographicHash::hash(installer, QCryptographicHash::Sha256).toHex();

    auto* manager = static_cast<windows_information_imp*>(information_init());
    host_window window(manager, {base, base + "/files/setup.bin", sha256});
    const auto clean = qScopeGuard([] { information_api::information_clean(); });
    std::atomic<bool> off_thread{false};  // widgets may change on the window's thread only
    std::size_t most_open = 0;
    QEventLoop until_none_open;  // the backlog's pace is the window's, not QTRY_'s 10 ms naps
    const auto watch = [&] {
        off_thread = off_thread || QThread::currentThread() != window.thread();
        most_open = std::max(most_open, g_conn_manager.size());
        if (g_conn_manager.empty())
            until_none_open.quit();
    };
    auto* activity = window.findChild<QListWidget*>("activity");
    connect(activity->model(), &QAbstractItemModel::rowsInserted, watch);
    connect(window.findChild<QProgressBar*>("download_progress"), &QProgressBar::valueChanged, watch);

    // A tampered installer is refused; by the time it is, no record has left without consent.
    auto* download = window.findChild<QPushButton*>("download_installer");
    auto* download_status = window.findChild<QLabel*>("download_status");
    download->click();
    QTRY_VERIFY(download_status->text().contains("does not match its SHA-256"));
    QCOMPARE(service->received_count(), std::size_t(1));

    // With consent the due records go, four at a time, but not this run's usage record, which is
    // still open; only the confirmed ones are deleted.
    auto* consent = window.findChild<QCheckBox*>("consent");
    consent->click();
    until_none_open.exec();
    QCOMPARE(window.findChild<QLabel*>("upload_status")->text(), QString("%1 sent, 1 not sent").arg(kBacklog));
    QCOMPARE(record_files(), (QStringList{QFileInfo(manager->usageFilePath).fileName(), "earlier-share.info2"}));
    QCOMPARE(most_open, std::size_t(4));

    // The installer is kept only when it matches its SHA-256.
    write_file(data + "/files/setup.bin", installer);
    download->click();
    QTRY_VERIFY(download_status->text().startsWith("Installer saved"));
    QCOMPARE(read_file("downloads/setup.bin"), installer);
    QVERIFY(!off_thread);

    // A choice that cannot be saved (a read-only res/) is not shown as made.
    QVERIFY(chmod(".", 0755) == 0 && chmod("res", 0555) == 0);
    setfsuid(65534);  // root writes into read-only folders; "nobody" does not
    consent->click();
    setfsuid(geteuid());
    chmod("res", 0755);
    QVERIFY(consent->isChecked());
    QVERIFY(activity->item(activity->count() - 1)->text().contains("could not be saved"));
}

QTEST_MAIN(tst_example)
#include "tst_example.moc"
