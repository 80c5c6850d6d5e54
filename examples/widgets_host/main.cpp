// example_widgets_host: a small scanning application's window over information_api.
#include "host_window.h"

#include <information_api/transport_security.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QScopeGuard>

#include <cstdio>

int main(int argc, char** argv)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Example Scan: records usage on your actions, uploads the due records once you agree, "
        "fetches the interface file and downloads a verified installer.");
    parser.addHelpOption();
    const QCommandLineOption dir_option({"d", "dir"},
        "Working directory: records in DIR/veltrainfo/, settings in DIR/res/system.ini "
        "and DIR/url_config.ini.",
        "dir");
    const QCommandLineOption service_option("service",
        "Base URL of the collection service, instead of the hosts built into the library "
        "(e.g. information_devserver's).",
        "url");
    const QCommandLineOption installer_option("installer-url", "Installer offered by \"Download installer\".", "url");
    const QCommandLineOption sha256_option(
        "installer-sha256", "The installer's SHA-256 (64 hexadecimal digits).", "hex");
    const QCommandLineOption ca_option("ca-file",
        "Verify every server: its certificate chain must lead to one in FILE (PEM). "
        "Without it, no certificate is checked.",
        "file");
    parser.addOptions({dir_option, service_option, installer_option, sha256_option, ca_option});
    {
        // --help, or a bad option, prints and exits before the application needs a display.
        QCoreApplication console(argc, argv);
        console.setApplicationName("example_widgets_host");
        parser.process(console);
    }
    QApplication app(argc, argv);
    app.setApplicationName("example_widgets_host");
    // Records are due by their age counted from this moment: without it nothing is ever sent.
    app.setProperty("start_time", QDateTime::currentDateTime());

    service_locations services;
    services.service_url = parser.value(service_option);
    while (services.service_url.endsWith('/'))  // the library appends "/software/..." itself
        services.service_url.chop(1);
    services.installer_url = parser.value(installer_option);
    services.installer_sha256 = parser.value(sha256_option);
    const QRegularExpression sha256("^[0-9A-Fa-f]{64}$");
    if (!services.installer_url.isEmpty() && !sha256.match(services.installer_sha256).hasMatch()) {
        std::fprintf(stderr, "--installer-url needs --installer-sha256 with 64 hexadecimal digits\n");
        return 2;
    }
    const QString ca_file = parser.value(ca_option);
    if (!ca_file.isEmpty() && information_api::set_trusted_certificates(ca_file) != 0) {
        std::fprintf(stderr, "--ca-file %s: no certificate could be read\n", qPrintable(ca_file));
        return 2;
    }
    // Before information_init(): the records and both settings files follow the working directory.
    const QString dir = parser.value(dir_option);
    if (!dir.isEmpty() && !(QDir().mkpath(dir) && QDir::setCurrent(dir))) {
        std::fprintf(stderr, "cannot enter %s\n", qPrintable(dir));
        return 2;
    }

    host_window window(information_api::information_init(), services);
    // Runs before the window (and the sink it holds) is destroyed: no report comes after it.
    const auto clean = qScopeGuard([] { information_api::information_clean(); });
    window.show();
    return app.exec();
}
