// Which service, application id and intervals the manager hands the host, for every combination
// of ./res/system.ini, ./url_config.ini and the URLs the host set.
#include "test_support.h"

#include <information_api/windows_information_imp.h>

#include <QtTest>

#include <memory>

using namespace information_api;

namespace {

const QString release_default = "https://" RELEASE_SERVICE_HOST "/dtta";
const QString test_default = "https://" TEST_SERVICE_HOST "/dtta";
const QString file_default = "https://" TEST_API_HOST "/up";
const QString release_id = "a0f4c9e27d5b3816c4e9a7d2f05b68c1";
const QString test_id = "3c9d0a7e51b24f68e0a7c2d9b4f6e183";
const QVariantMap no_file{{"<none>", true}};

// Writes the settings file unless `values` is no_file.
void prepare(const QString& path, const QVariantMap& values)
{
    if (values != no_file)
        test_support::write_ini(path, values);
}

}  // namespace

class tst_upload_config : public QObject {
    Q_OBJECT
private slots:
    void init() { cwd_ = std::make_unique<test_support::scoped_working_dir>(); }
    void cleanup() { cwd_.reset(); }

    void upload_config_data();
    void upload_config();
    void url_config_read_once();
    void file_url_cdn_and_reconnect_data();
    void file_url_cdn_and_reconnect();

private:
    std::unique_ptr<test_support::scoped_working_dir> cwd_;
};

void tst_upload_config::upload_config_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QVariantMap>("urlConfig");
    QTest::addColumn<QStringList>("setUrls");  // release, test; empty list: set_upload_url not called
    QTest::addColumn<int>("enable");
    QTest::addColumn<int>("interval");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("appId");
    QTest::addColumn<QString>("releaseField");  // after the call
    QTest::addColumn<QString>("testLog");

    const QStringList none;
    QTest::newRow("no files") << no_file << no_file << none << 0 << 60 << release_default << release_id
                              << release_default << "test_type 0_test_url ";
    QTest::newRow("url_config names the release url")
        << no_file << QVariantMap{{"upload_url", "https://r.example/x"}} << none << 0 << 60 << "https://r.example/x"
        << release_id << "https://r.example/x" << "test_type 0_test_url ";
    QTest::newRow("url_config without the key") << no_file << QVariantMap{{"other", "x"}} << none << 0 << 60
                                                << release_default << release_id << release_default
                                                << "test_type 0_test_url ";
    QTest::newRow("enabled, own interval, release")
        << QVariantMap{{"enable", 1}, {"time_intval", 15}, {"test", 0}} << no_file << none << 1 << 15
        << release_default << release_id << release_default << "test_type 0_test_url ";
    QTest::newRow("set release url wins over url_config")
        << no_file << QVariantMap{{"upload_url", "https://file.example"}} << QStringList{"https://set.example", "t"}
        << 0 << 60 << "https://set.example" << release_id << "https://set.example" << "test_type 0_test_url t";
    QTest::newRow("test mode without test url")
        << QVariantMap{{"test", 1}} << QVariantMap{{"upload_url", "https://r.example"}} << none << 0 << 60
        << test_default << test_id << "" << "test_type 1_test_url ";
    QTest::newRow("test mode with test url")
        << QVariantMap{{"test", 2}, {"enable", 1}} << no_file << QStringList{"https://rel", "https://tst"} << 1 << 60
        << "https://tst" << test_id << "https://rel" << "test_type 2_test_url https://tst";
    QTest::newRow("non-numeric values read as 0")
        << QVariantMap{{"enable", "yes"}, {"time_intval", "abc"}, {"test", "on"}} << no_file << none << 0 << 0
        << release_default << release_id << release_default << "test_type 0_test_url ";
}

void tst_upload_config::upload_config()
{
    QFETCH(QVariantMap, system);
    QFETCH(QVariantMap, urlConfig);
    QFETCH(QStringList, setUrls);
    QFETCH(int, enable);
    QFETCH(int, interval);
    QFETCH(QString, url);
    QFETCH(QString, appId);
    QFETCH(QString, releaseField);
    QFETCH(QString, testLog);
    QDir().mkpath("res");
    prepare("res/system.ini", system);
    prepare("url_config.ini", urlConfig);

    windows_information_imp m;
    if (!setUrls.isEmpty())
        m.set_upload_url(setUrls[0], setUrls[1]);
    int gotEnable = -1, gotInterval = -1;
    QString gotUrl, gotId, extra = "untouched";
    test_support::glog_capture log;
    m.get_upload_config(gotEnable, gotInterval, gotUrl, gotId, extra);
    QCOMPARE(gotEnable, enable);
    QCOMPARE(gotInterval, interval);
    QCOMPARE(gotUrl, url);
    QCOMPARE(gotId, appId);
    QCOMPARE(extra, QString("untouched"));
    QCOMPARE(m.releaseUploadUrl, releaseField);
    QCOMPARE(m.testUploadUrl, setUrls.value(1));  // the test default is never stored
    QCOMPARE(log.lines(), QStringList{"get_upload_config show " + testLog});
}

void tst_upload_config::url_config_read_once()
{
    test_support::write_ini("url_config.ini", {{"upload_url", "https://first.example"}});
    windows_information_imp m;
    int enable, interval;
    QString url, id, extra;
    m.get_upload_config(enable, interval, url, id, extra);
    QCOMPARE(url, QString("https://first.example"));

    test_support::write_ini("url_config.ini", {{"upload_url", "https://second.example/longer"}});
    m.get_upload_config(enable, interval, url, id, extra);
    QCOMPARE(url, QString("https://first.example"));

    // Only an empty field makes the manager read the file again.
    QString none, test = "t";
    m.set_upload_url(none, test);
    m.get_upload_config(enable, interval, url, id, extra);
    QCOMPARE(url, QString("https://second.example/longer"));
}

void tst_upload_config::file_url_cdn_and_reconnect_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QStringList>("fileUrls");  // release, test
    QTest::addColumn<QString>("fileUrl");
    QTest::addColumn<int>("reconnect");
    QTest::newRow("no file, nothing set") << no_file << QStringList{"", ""} << file_default << 20;
    QTest::newRow("release mode") << QVariantMap{{"connect_time", 5}} << QStringList{"https://rel/up", "https://tst/up"}
                                  << "https://rel/up" << 5;
    QTest::newRow("test mode") << QVariantMap{{"test", 1}} << QStringList{"https://rel/up", "https://tst/up"}
                               << "https://tst/up" << 20;
    QTest::newRow("test mode, only release set") << QVariantMap{{"test", 1}, {"connect_time", "x"}}
                                                 << QStringList{"https://rel/up", ""} << file_default << 0;
    QTest::newRow("release mode, only test set") << QVariantMap{{"test", 0}} << QStringList{"", "https://tst/up"}
                                                 << file_default << 20;
}

void tst_upload_config::file_url_cdn_and_reconnect()
{
    QFETCH(QVariantMap, system);
    QFETCH(QStringList, fileUrls);
    QFETCH(QString, fileUrl);
    QFETCH(int, reconnect);
    QDir().mkpath("res");
    prepare("res/system.ini", system);

    windows_information_imp m;
    m.setUploadFileUrl(fileUrls[0], fileUrls[1]);
    QString url = "stale";
    m.getUploadFileUrl(url);
    QCOMPARE(url, fileUrl);
    m.get_domain_manger_url(url);
    QCOMPARE(url, QString("https://" CDN_HOST));
    QCOMPARE(m.get_reconnect_intval(), reconnect);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("tst_upload_config");
    tst_upload_config test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_upload_config.moc"
