// A host built only against the installed package.
#include <information_api/information_api.h>
#include <information_api/information_api_version.h>
#include <information_api/transport_security.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2 || !QDir::setCurrent(argv[1]))
        return 2;
    information_api::VeltraInfoMgr* manager = information_api::information_init();
    manager->setSoftwareName("consumer");
    QString ple = "p.ple", version = "1", model = "m", modular = "";
    manager->create_usage_inifo("", ple, version, model, modular, 0);
    const QString path = static_cast<information_api::windows_information_imp*>(manager)->usageFilePath;
    if (information_api::release_connect(1) != -1 || information_api::clear_transport_security() != 0 ||
        information_api::information_clean() != 0)
        return 3;
    if (!QFile::exists(path))
        return 1;
    std::printf("\n" "information_api " INFORMATION_API_VERSION_STRING ", usage record: %s\n", qPrintable(path));
    return 0;
}
