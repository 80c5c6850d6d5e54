// A minimal host: identifies the software and the device, records one run's usage and one record
// of every other kind, and prints what the library wrote into ./veltrainfo/.
#include <information_api/information_api.h>
#include <information_api/information_api_version.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

#include <cstdio>

using information_api::VeltraInfoMgr;

namespace {

// Calibration, share and flat scan records are named by the second: one second apart each.
void next_second() { QThread::msleep(1100); }

void record_every_kind(VeltraInfoMgr* manager)
{
    QString ple = "abc-xK300.ple", version = "1.2.3", model = "K300", modular = "turntable";
    manager->create_usage_inifo("", ple, version, model, modular, 1);

    QStringList modulars{"turntable"}, modular_ples{"tt-01.ple"}, classes{"plate"}, starts{"2026-11-23T08:00:00Z"},
        ends{"2026-11-23T08:02:00Z"}, results{"ok"};
    QString start = "2026-11-23T08:00:00Z", end = "2026-11-23T08:02:00Z";
    manager->create_calibrate_inifo(
        modulars, version, ple, model, modular, modular_ples, start, end, classes, starts, ends, results, 1);
    next_second();
    QString target = "cloud", name = "bust.stl", account = "demo@example.com";
    manager->create_share_inifo(ple, model, modular, start, end, target, name, account, 1);
    next_second();

    information_api::_tag_scan_info scan;
    scan.ple = ple;
    scan.modelName = model;
    scan.modular = modular;
    scan.startOn = start;
    scan.endOn = end;
    information_api::_tag_scan_mode mode;
    mode.startOn = start;
    mode.endOn = end;
    mode.classsify = "fine";
    mode.alignMode = QStringList{"feature"};
    scan.modes.push_back(mode);
    scan.totalPoint = "1200000";
    scan.length = "120.5";
    scan.width = "80";
    scan.height = "64.25";
    scan.fileName = "bust";
    manager->add_scan_info(scan, 1);

    QString email = "demo@example.com", industry = "design", content = "Works well.";
    QStringList attachments;
    manager->create_userfeedback_info(
        ple, version, model, modular, modular_ples, 1, email, industry, content, attachments);
    manager->add_user_score("9", ple, version, model, modular, industry, 1);
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("example_host");
    app.setApplicationVersion(INFORMATION_API_VERSION_STRING);  // the library it was built against
    QCommandLineParser parser;
    parser.setApplicationDescription("Records one run's usage and one record of every other kind in "
                                     "./veltrainfo/, then lists the records and prints the usage record.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("dir", "Working directory to record in (default: the current one).", "[dir]");
    parser.process(app);  // --help, or an unknown option: prints and exits
    const QStringList positional = parser.positionalArguments();
    if (positional.size() > 1)
        parser.showHelp(2);
    // Before information_init(): the records and ./res/system.ini follow the working directory.
    if (!positional.isEmpty() && !QDir::setCurrent(positional.first())) {
        std::fprintf(stderr, "example_host: cannot enter %s\n", qPrintable(positional.first()));
        return 2;
    }

    VeltraInfoMgr* manager = information_api::information_init();
    manager->setSoftwareName("ExampleScan");
    manager->setDeviceSerial("SN-0001");
    record_every_kind(manager);
    const QString usage_path = static_cast<information_api::windows_information_imp*>(manager)->usageFilePath;
    information_api::information_clean();  // ends the run: the usage record gets its end time

    std::printf("records in %s:\n", qPrintable(QDir("veltrainfo").absolutePath()));
    for (const QString& name : QDir("veltrainfo").entryList(QDir::Files | QDir::Hidden, QDir::Name))
        std::printf("  %s\n", qPrintable(name));
    QFile usage(usage_path);
    if (!usage.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "example_host: no usage record at %s\n", qPrintable(usage_path));
        return 1;
    }
    std::printf("\nthe usage record, %s:\n%s\n", qPrintable(usage_path), usage.readAll().constData());
    return 0;
}
