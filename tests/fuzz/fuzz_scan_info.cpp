// Arbitrary bytes as a record file, read back through get_scan_info (with scan_info.dict, the
// fuzzer knows the INI value forms that QSettings decodes).
#include <information_api/windows_information_imp.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <glog/logging.h>

using namespace information_api;

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static QTemporaryDir dir;
    QDir::setCurrent(dir.path());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    FLAGS_minloglevel = 3;
    QCoreApplication::setApplicationName("information_uploader");  // no usage period
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static windows_information_imp manager;
    QFile file("record.info2");
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(reinterpret_cast<const char*>(data), qint64(size)) != qint64(size))
        __builtin_trap();
    file.close();
    QString text = "kept", type = "kept";
    const int result = manager.get_scan_info(file.fileName(), text, type);
    // The file exists: -1 means refused unread, and then both outputs are as they were.
    if (result != 0 && (result != -1 || text != "kept" || type != "kept"))
        __builtin_trap();
    return 0;
}
