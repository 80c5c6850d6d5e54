// The machine description on Linux: the parsers on excerpts of files captured on other machines
// (the GPUs as far as the record), and the probes against this machine's own files.
#include "test_support.h"

#include <information_api/linux_machine_info.h>

using namespace test_support;
using namespace information_api::linux_machine;

namespace {

QString cpu(const char* cpuinfo, const QString& architecture = "x86_64")
{
    const cpu_description d = parse_cpuinfo(cpuinfo, architecture);
    return QString::number(d.cores) + '|' + d.model;
}

QJsonObject usage_record(windows_information_imp& m)
{
    QString ple, ver, model, modular;
    m.create_usage_inifo("", ple, ver, model, modular, 0);
    return read_record(m.usageFilePath).json();
}

// The "gpu" array of a record written with the adapters that `functions` and `ids` describe.
QString gpu_record(const std::vector<pci_function>& functions, const QByteArray& ids)
{
    const scoped_working_dir dir;
    windows_information_imp m;
    describe_gpus(functions, ids, m.gpuModels, m.gpuMemSizes);
    return QJsonDocument(usage_record(m)["osHdExt"].toObject()["gpu"].toArray()).toJson(QJsonDocument::Compact);
}

}  // namespace

class tst_machine_info : public QObject {
    Q_OBJECT
private slots:
    void parsers_data();
    // clang-format off
    void parsers() { QFETCH(QString, actual); QTEST(actual, "expected"); }
    // clang-format on
    void this_machine();
};

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_machine_info::parsers_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    QTest::newRow("x86_64, two sockets, two threads per core")
        << cpu("processor\t: 0\nmodel name\t:        Intel(R) Xeon(R) CPU E5-2680 v2 @ 2.80GHz \nphysical id\t: 0\n"
               "core id\t\t: 0\n\nprocessor\t: 1\nphysical id\t: 1\ncore id\t\t: 0\n\n"
               "processor\t: 2\nphysical id\t: 0\n"
               "core id\t\t: 0\n\nprocessor\t: 3\nphysical id\t: 1\ncore id\t\t: 0\n")
        << "2|Intel(R) Xeon(R) CPU E5-2680 v2 @ 2.80GHz";
    QTest::newRow("x86_64 without physical ids")
        << cpu("processor\t: 0\nmodel name\t: QEMU Virtual CPU version 2.5+\n\nprocessor\t: 1\nmodel name\t: other\n")
        << "2|QEMU Virtual CPU version 2.5+";
    QTest::newRow("arm64 without a model name")
        << cpu("processor\t: 0\nBogoMIPS\t: 48.00\nCPU part\t: 0xd08\n\nprocessor\t: 1\nBogoMIPS\t: 48.00\n", "arm64")
        << "2|arm64";
    QTest::newRow("MemTotal in MiB, rounded down")
        << QString::number(parse_meminfo_mib("MemFree:        23384128 kB\nMemTotal:       24684092 kB\n")) << "24105";
    QTest::newRow("home as ~, on a path boundary")
        << with_home_as_tilde("/home/ann/Apps", "/home/ann") + with_home_as_tilde("/home/ann", "/home/ann") + ' ' +
               with_home_as_tilde("/home/anna/bin", "/home/ann") << "~/Apps~ /home/anna/bin";
    // The second GPU's id belongs to the next vendor's block; a host bridge is no display.
    const QByteArray ids = "#\tList of PCI ID's\n1002  Advanced Micro Devices, Inc. [AMD/ATI]\n"
                           "\t73bf  Navi 21 [Radeon RX 6800/6800 XT / 6900 XT]\n\t\t1002 0e3a  Radeon RX 6900 XT\n"
                           "10dd  Evans & Sutherland\n\t0100  Lightning 1200\n10de  NVIDIA Corporation\n"
                           "\t1c82  GP107 [GeForce GTX 1050 Ti]\n\t\t1043 8613  PH-GTX1050TI-4G\n";
    QTest::newRow("two GPUs with memory, one named and one not, a 3D controller; in the record")
        << gpu_record({{"0x060000\n", "0x8086\n", "0x0d57\n", ""},
                       {"0x030000\n", "0x1002\n", "0x73bf\n", "17163091968\n"},
                       {"0x030000\n", "0x1002\n", "0x0100\n", "8573157376\n"},
                       {"0x030200\n", "0x10de\n", "0x1c82\n", ""}}, ids)
        << R"([{"gpuMemSize":16368,"gpuModel":"Advanced Micro Devices, Inc. [AMD/ATI] Navi 21 )"
           R"([Radeon RX 6800/6800 XT / 6900 XT]"},{"gpuMemSize":8176,"gpuModel":"1002:0100"},)"
           R"({"gpuModel":"NVIDIA Corporation GP107 [GeForce GTX 1050 Ti]"}])";
}
// clang-format on

void tst_machine_info::this_machine()
{
    const scoped_working_dir dir;
    windows_information_imp m;
    const QJsonObject record = usage_record(m), os = record["osSoftExt"].toObject(), hd = record["osHdExt"].toObject();
    const QString folder = QCoreApplication::applicationDirPath();
    const QStorageInfo volume(folder);
    const cpu_description cpu = parse_cpuinfo(read_file("/proc/cpuinfo"), QSysInfo::currentCpuArchitecture());
    int displays = 0;
    for (const QFileInfo& function : QDir("/sys/bus/pci/devices").entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot))
        displays += read_file(function.filePath() + "/class").startsWith("0x03");
    const QJsonArray actual{os["osName"], os["lang"], os["resolution"], os["installPath"], hd["cpu"][0]["cpuCores"],
        hd["cpu"][0]["cpuModel"], hd["memSize"], hd["hddSize"], hd["gpu"].toArray().size()};
    const QJsonArray expected{QSysInfo::prettyProductName(), QLocale::system().name(), "800 x 600",
        with_home_as_tilde(with_home_as_tilde(folder, QDir::homePath()), QDir::home().canonicalPath()), cpu.cores,
        cpu.model, parse_meminfo_mib(read_file("/proc/meminfo")), volume.bytesTotal() >> 20, displays};
    QCOMPARE(
        QJsonDocument(actual).toJson(QJsonDocument::Compact), QJsonDocument(expected).toJson(QJsonDocument::Compact));
    QVERIFY(qAbs(hd["hddRemainSize"].toDouble() - double(volume.bytesAvailable() >> 20)) < 1024);  // others write
}

int main(int argc, char** argv)
{
    QTemporaryDir runtime;  // a screen without a runtime folder is a Qt warning
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime.path()));
    QGuiApplication app(argc, argv);
    tst_machine_info test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_machine_info.moc"
