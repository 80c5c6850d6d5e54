// Writes, through the library, the records the browser test uploads: an ordinary round (its
// feedback naming the attachment whose dfs_id is the second argument) and a hostile round (markup,
// event handlers, a very long serial, right-to-left text in the fields the dashboard shows), each a
// usage, calibration, scan and feedback record.
#include <information_api/information_api.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QThread>

using information_api::VeltraInfoMgr;

static void record_round(
    VeltraInfoMgr* m, QString version, QString model, const QString& serial, QString text, QStringList attachments)
{
    m->setDeviceSerial(serial);
    QString ple = "tt-K300.ple", modular = "turntable", start = "2026-11-23T08:00:00Z", end = "2026-11-23T08:02:00Z";
    QStringList modulars{modular}, ples{ple}, classes{"plate"}, starts{start}, ends{end}, results{text};
    m->create_calibrate_inifo(
        modulars, version, ple, model, modular, ples, start, end, classes, starts, ends, results, 1);
    information_api::_tag_scan_info scan;
    scan.ple = ple;
    scan.modelName = model;
    scan.fileName = text;
    m->add_scan_info(scan, 1);
    QString email = "user@example.com", industry = "design";
    m->create_userfeedback_info(ple, version, model, modular, ples, 1, email, industry, text, attachments);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("record_writer");
    if (argc != 3 || !QDir::setCurrent(argv[1]))
        return 2;
    app.setProperty("start_time", QDateTime::currentDateTime());
    VeltraInfoMgr* m = information_api::information_init();
    m->setSoftwareName("ExampleScan");
    QString ple = "tt-K300.ple", version = "2.1.0", model = "K300", modular = "turntable";
    m->create_usage_inifo("", ple, version, model, modular, 1);
    QThread::msleep(1100);  // calibration, scan and feedback records are named by the second, so is usage
    record_round(m, "2.1.0", "K300", "SN-0001", "fine", {argv[2]});
    QThread::msleep(1100);
    record_round(m, "<script>document.title='pwned'</script>", "<img src=x onerror=\"document.title='pwned'\">",
        "\u202Egpj.exe" + QString(20000, 'W'),
        QString::fromUtf8("\u05E9\u05DC\u05D5\u05DD \u0645\u0631\u062D\u0628\u0627 </pre>"
                          "<b onmouseover=alert(1)>x"),
        {});
    information_api::information_clean();
    return 0;
}
