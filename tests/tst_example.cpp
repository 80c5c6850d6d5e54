// The example host's window, driven as its user drives it, against a local collection service.
#include "host_window.h"
#include "net_support.h"

#include <QtWidgets>

#include <atomic>

using namespace test_support;

namespace {

// What the service received, by method and target (a GET's cache-defeating query left out).
std::map<std::string, collection::received_request> requests(const collection::collection_service& service)
{
    std::map<std::string, collection::received_request> by_target;
    for (const auto& r : service.received())
        by_target[r.method + " " + (r.method == "GET" ? r.path : r.target)] = r;
    return by_target;
}

}  // namespace

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
    service->set_script([](const collection::received_request& r) -> std::optional<collection::reply> {
        if (r.target == "/dtta?type=share") return json_reply(R"({"status":"failed","result":"no"})");
        return std::nullopt;
    });
    const QString data = QString::fromStdString(service->data_dir());
    const QString base = QString::fromStdString(service->base_url());
    write_ini("res/system.ini", {{"uploadintval", 0}});  // every record is due; no consent yet
    write_ini("veltrainfo/earlier-share.info2", {{"data", QByteArray(R"({"run":1})")}, {"type", "share"}});
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
    auto got = requests(*service);
    QCOMPARE(service->received_count(), std::size_t(2));
    QVERIFY(got.count("GET /software/ExampleScan/interface.json"));
    QCOMPARE(got["POST /up?category=feedback&bucket=pub"].parts.at(0).filename, std::string("scan.log"));

    // With consent the due records go; only the confirmed ones are deleted.
    window.findChild<QCheckBox*>("consent")->click();
    QTRY_VERIFY(window.findChild<QLabel*>("upload_status")->text().endsWith(" sent, 1 not sent"));
    QTRY_COMPARE(record_files(), QStringList{"earlier-share.info2"});
    got = requests(*service);
    const auto& feedback = got["POST /dtta?type=feedback"];
    QCOMPARE(feedback.header("X-Auth-AppID"), std::string(collection::kReleaseAppId));
    QCOMPARE(QJsonDocument::fromJson(feedback.body.c_str())["content"]["attachs"].toArray().size(), 1);

    // The installer is kept only when it matches its SHA-256.
    auto* download = window.findChild<QPushButton*>("download_installer");
    auto* download_status = window.findChild<QLabel*>("download_status");
    download->click();
    QTRY_VERIFY(download_status->text().contains("does not match its SHA-256"));
    write_file(data + "/files/setup.bin", installer);
    download->click();
    QTRY_VERIFY(download_status->text().startsWith("Installer saved"));
    QFile saved("downloads/setup.bin");
    QVERIFY(saved.open(QIODevice::ReadOnly) && saved.readAll() == installer);
    QVERIFY(!off_thread);
}

QTEST_MAIN(tst_example)
#include "tst_example.moc"
