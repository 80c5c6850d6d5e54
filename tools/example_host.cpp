// A minimal host: identifies the software and the device, records one run's usage, and prints
// the record file that the library wrote.
#include <information_api/information_api.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <memory>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("example_host");
    if (argc > 1 && !QDir::setCurrent(argv[1])) {
        std::fprintf(stderr, "example_host: cannot enter %s\n", argv[1]);
        return 2;
    }

    auto manager = std::make_unique<information_api::windows_information_imp>();
    manager->setSoftwareName("ExampleScan");
    manager->setDeviceSerial("SN-0001");
    QString ple = "abc-xK300.ple", version = "1.2.3", model = "K300", modular = "turntable";
    manager->create_usage_inifo("", ple, version, model, modular, 1);
    const QString path = manager->usageFilePath;
    manager.reset();  // ends the run: the record is rewritten with its end time

    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "example_host: no record at %s\n", qPrintable(path));
        return 1;
    }
    std::printf("\n%s:\n%s\n", qPrintable(QDir(path).absolutePath()), file.readAll().constData());
    return 0;
}
