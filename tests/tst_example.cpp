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
    qApp->setProperty("start_time", QDateTime::currentDateTime());
    auto service = start_service();
    // What the service received, sorted: method, target (a GET's cache-defeating query left out),
    // "release" for the release app id, the first part's file name.
    const auto received = [&] {
        QStringList all;
        for (const auto& r : service->received())
            all << QString::fromStdString(r.method + " " + (r.method == "GET" ? r.path : r.target) +
                                          (r.header("X-Auth-AppID") == collection::kReleaseAppId ? " release" : "") +
                                          (r.parts.empty() ? "" : " " + r.parts[0].filename));
        all.sort();
        return all;
    };
    const QString data = QString::fromStdString(service->data_dir());
    const QString base = QString::fromStdString(service->base_url());
    write_ini("res/system.ini", {{"uploadintval", 0}});  // every record is due; no consent yet
    // An earlier record that the service refuses: not a JSON object.
    write_ini("veltrainfo/earlier-share.info2", {{"data", QByteArray("[1]")}, {"type", "share"}});
    write_file(data + "/software/ExampleScan/interface.json", R"({"latest":"2.0.0"})");
    write_file(data + "/files/setup.bin", "tampered");
    write_file("scan.log", "log lines");
    const QByteArray installer = "the installer";
    const QString sha256 = QCryptographicHash::hash(installer, QCryptographicHash::Sha256).toHex();

    host_window window(information_api::information_init(), {base, base + "/files/setup.bin", sha256});
    const auto clean = qScopeGuard([] { information_api::information_clean(); });
    std::atomic<bool> off_thread{false};  // widgets may change on the window's thread only
    const auto watch = [&] { off_thread = off_thread || QThread::currentThread() != window.thread(); };
    auto* activity = window.findChild<QListWidget*>("activity");
    connect(activity->model(), &QAbstractItemModel::rowsInserted, watch);
    connect(window.findChild<QProgressBar*>("download_progress"), &QProgressBar::valueChanged, watch);

    // Before consent: the attachment the user sends on purpose goes, no record does.
    window.findChild<QLineEdit*>("attachment")->setText("scan.log");
    window.findChild<QPushButton*>("send_feedback")->click();
    window.findChild<QPushButton*>("check_updates")->click();
    QTRY_VERIFY(window.findChild<QPlainTextEdit*>("interface")->toPlainText().contains(R"("2.0.0")"));
    QTRY_COMPARE(activity->findItems("Feedback recorded", Qt::MatchContains).size(), 1);
    QCOMPARE(received(), QStringList({"GET /software/ExampleScan/interface.json",
                                      "POST /up?category=feedback&bucket=pub release scan.log"}));

    // With consent the due records go; only the confirmed ones are deleted.
    window.findChild<QCheckBox*>("consent")->click();
    QTRY_VERIFY(window.findChild<QLabel*>("upload_status")->text().endsWith(" sent, 1 not sent"));
    QTRY_COMPARE(record_files(), QStringList{"earlier-share.info2"});
    QStringList got = received();
    got.removeOne("POST /dtta?type=usage release");  // this run's usage record, when it reached the disk in time
    QCOMPARE(got, QStringList({"GET /software/ExampleScan/interface.json", "POST /dtta?type=feedback release",
                               "POST /dtta?type=share release",
                               "POST /up?category=feedback&bucket=pub release scan.log"}));
    for (const auto& r : service->received())
        if (r.target == "/dtta?type=feedback")  // it names the attachment sent before
            QCOMPARE(QJsonDocument::fromJson(r.body.c_str())["content"]["attachs"].toArray().size(), 1);

    // The installer is kept only when it matches its SHA-256.
    auto* download = window.findChild<QPushButton*>("download_installer");
    auto* download_status = window.findChild<QLabel*>("download_status");
    download->click();
    QTRY_VERIFY(download_status->text().contains("does not match its SHA-256"));
    write_file(data + "/files/setup.bin", installer);
    download->click();
    QTRY_VERIFY(download_status->text().startsWith("Installer saved"));
    QCOMPARE(read_file("downloads/setup.bin"), installer);
    QVERIFY(!off_thread);
}

QTEST_MAIN(tst_example)
#include "tst_example.moc"
