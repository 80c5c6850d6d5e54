// The usage record of a run: its envelope, its file, and the manager's lifecycle around it.
#include "test_support.h"

#include <information_api/windows_information_imp.h>

#include <QtTest>

#include <cstdio>
#include <memory>
#include <unistd.h>

using namespace information_api;
using test_support::read_record;
using test_support::utc_now;

namespace {

// Runs create_usage_inifo with the given arguments on `m` and returns the record read back.
QJsonObject write_usage(windows_information_imp& m, const QString& start = QString(),
                        QString modular = QString(), int guide = 0)
{
    QString ple = "p.ple", ver = "2.0", model = "K300";
    m.create_usage_inifo(start, ple, ver, model, modular, guide);
    return read_record(m.usageFilePath).json();
}

// Captures what the process writes to its standard output while it lives.
class stdout_capture {
public:
    stdout_capture()
    {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        file_ = std::tmpfile();
        dup2(fileno(file_), STDOUT_FILENO);
    }
    QByteArray take()
    {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        std::rewind(file_);
        QByteArray out;
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, file_)) > 0;)
            out.append(buf, int(n));
        std::fclose(file_);
        return out;
    }

private:
    int saved_ = -1;
    std::FILE* file_ = nullptr;
};

}  // namespace

class tst_usage_record : public QObject {
    Q_OBJECT
private slots:
    void init() { cwd_ = std::make_unique<test_support::scoped_working_dir>(); }
    void cleanup() { cwd_.reset(); }

    void envelope_with_empty_machine_fields();
    void envelope_number_conversions_data();
    void envelope_number_conversions();
    void enable_guide_data();
    void enable_guide();
    void module_list_data();
    void module_list();
    void period_with_and_without_start();
    void file_name_and_raw_bytes();
    void second_call_rewrites_the_same_file();
    void log_lines_and_trace_line();
    void destructor_rewrites_with_end_time();
    void destructor_without_usage_record_writes_nothing();
    void uploader_process_starts_no_period();
    void set_ple_data();
    void set_ple();
    void identity_setters_and_stubs();

private:
    std::unique_ptr<test_support::scoped_working_dir> cwd_;
};

void tst_usage_record::envelope_with_empty_machine_fields()
{
    windows_information_imp m;
    m.setSoftwareName("Studio");
    m.setDeviceSerial("SN1");
    const QJsonObject record = write_usage(m);
    const QJsonObject expected = QJsonDocument::fromJson(QString(R"({
        "modelName": "K300", "seriaNum": "SN1", "softwareName": "Studio", "softwareVer": "2.0",
        "tracingType": "usage", "startOn": "%1", "endOn": "%1", "enableGuide": "no",
        "osSoftExt": {"osName": "", "lang": "", "resolution": "", "installPath": "",
                      "browser": {"name": "", "ver": ""}},
        "osHdExt": {"cpu": [{"cpuCores": 0, "cpuModel": ""}], "memSize": 0, "gpu": [],
                    "hddSize": 0, "hddRemainSize": 0},
        "modularExt": {"ple": "p.ple"}
    })").arg(m.startOn).toUtf8()).object();
    QCOMPARE(record, expected);
    QCOMPARE(m.usageRecord, expected);
}

void tst_usage_record::envelope_number_conversions_data()
{
    QTest::addColumn<QString>("cores");
    QTest::addColumn<QString>("mem");
    QTest::addColumn<QStringList>("gpus");
    QTest::addColumn<QStringList>("gpuMems");
    QTest::addColumn<QString>("expectedHd");

    QTest::newRow("decimal") << "8" << "17179869184" << QStringList{"A", "B"} << QStringList{"4096", "2048"}
        << R"({"cpu":[{"cpuCores":8,"cpuModel":"cpu"}],"memSize":17179869184,"gpu":[{"gpuModel":"A","gpuMemSize":4096},{"gpuModel":"B","gpuMemSize":2048}],"hddSize":0,"hddRemainSize":0})";
    QTest::newRow("not numbers") << "12a" << "lots" << QStringList{"A"} << QStringList{"x"}
        << R"({"cpu":[{"cpuCores":0,"cpuModel":"cpu"}],"memSize":0,"gpu":[{"gpuModel":"A","gpuMemSize":0}],"hddSize":0,"hddRemainSize":0})";
    QTest::newRow("blanks around") << " 7 " << " 64 " << QStringList{} << QStringList{}
        << R"({"cpu":[{"cpuCores":7,"cpuModel":"cpu"}],"memSize":64,"gpu":[],"hddSize":0,"hddRemainSize":0})";
    QTest::newRow("fewer sizes than models") << "4" << "1" << QStringList{"A", "B"} << QStringList{"1"}
        << R"({"cpu":[{"cpuCores":4,"cpuModel":"cpu"}],"memSize":1,"gpu":[{"gpuModel":"A","gpuMemSize":1},{"gpuModel":"B"}],"hddSize":0,"hddRemainSize":0})";
    QTest::newRow("32-bit overflow in cores") << "4294967297" << "-5" << QStringList{} << QStringList{}
        << R"({"cpu":[{"cpuCores":0,"cpuModel":"cpu"}],"memSize":-5,"gpu":[],"hddSize":0,"hddRemainSize":0})";
}

void tst_usage_record::envelope_number_conversions()
{
    QFETCH(QString, cores);
    QFETCH(QString, mem);
    QFETCH(QStringList, gpus);
    QFETCH(QStringList, gpuMems);
    QFETCH(QString, expectedHd);
    windows_information_imp m;
    m.cpuCores = cores;
    m.cpuModel = "cpu";
    m.memSize = mem;
    m.gpuModels = gpus;
    m.gpuMemSizes = gpuMems;
    m.hddSize = "disk";
    const QJsonObject record = write_usage(m);
    QCOMPARE(record["osHdExt"].toObject(), QJsonDocument::fromJson(expectedHd.toUtf8()).object());
}

void tst_usage_record::enable_guide_data()
{
    QTest::addColumn<int>("guide");
    QTest::addColumn<QString>("expected");
    QTest::newRow("1") << 1 << "yes";
    QTest::newRow("0") << 0 << "no";
    QTest::newRow("2") << 2 << "no";
    QTest::newRow("-1") << -1 << "no";
}

void tst_usage_record::enable_guide()
{
    QFETCH(int, guide);
    QFETCH(QString, expected);
    windows_information_imp m;
    QCOMPARE(write_usage(m, QString(), QString(), guide)["enableGuide"].toString(), expected);
    QCOMPARE(m.enableGuide, guide);
}

void tst_usage_record::module_list_data()
{
    QTest::addColumn<QString>("modular");
    QTest::addColumn<QString>("expectedExt");
    QTest::newRow("module without profiles")
        << "M" << R"({"ple":"p.ple","modular":[{"name":"M","sn":"","mple":""}]})";
    QTest::newRow("no module") << "" << R"({"ple":"p.ple"})";
}

void tst_usage_record::module_list()
{
    QFETCH(QString, modular);
    QFETCH(QString, expectedExt);
    windows_information_imp m;
    m.modularPles = QStringList{"stale"};  // emptied by create_usage_inifo
    const QJsonObject record = write_usage(m, QString(), modular);
    QCOMPARE(record["modularExt"].toObject(), QJsonDocument::fromJson(expectedExt.toUtf8()).object());
    QVERIFY(m.modularPles.isEmpty());
}

void tst_usage_record::period_with_and_without_start()
{
    windows_information_imp m;
    QJsonObject record = write_usage(m);
    QCOMPARE(record["startOn"].toString(), m.startOn);
    QCOMPARE(record["endOn"].toString(), m.startOn);
    QVERIFY(QDateTime::fromString(m.startOn, "yyyy-MM-ddThh:mm:ssZ").isValid());

    // A period taken over from another record kind is carried by the next envelope.
    m.startOn = "S";
    m.endOn = "E";
    record = write_usage(m);
    QCOMPARE(record["startOn"].toString(), QString("S"));
    QCOMPARE(record["endOn"].toString(), QString("E"));

    const QString before = utc_now();
    record = write_usage(m, "not a time");
    const QString after = utc_now();
    QCOMPARE(record["startOn"].toString(), QString("not a time"));
    QVERIFY2(record["endOn"].toString() >= before && record["endOn"].toString() <= after,
             qPrintable(record["endOn"].toString()));
    QCOMPARE(m.startOn, QString("S"));  // the argument is not stored
}

void tst_usage_record::file_name_and_raw_bytes()
{
    windows_information_imp m;
    write_usage(m, QString(), "M", 1);
    const QString stem = m.usageStart.toString("yyyy-MM-ddThh-mm-ss");
    QCOMPARE(m.usageFilePath, "./veltrainfo/" + stem + ".info2");
    QVERIFY(m.usageStart.timeSpec() == Qt::LocalTime);
    QCOMPARE(test_support::record_files(), QStringList{stem + ".info2"});

    QFile file(m.usageFilePath);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines[0], QByteArray("[General]"));
    // Indented JSON as one escaped byte-array value, quoted because it holds commas.
    const QByteArray head = R"(data="@ByteArray({\n    \"enableGuide\": \"yes\",\n)";
    const QByteArray tail = R"x(\n}\n)")x";
    QVERIFY2(lines[1].startsWith(head), lines[1]);
    QVERIFY2(lines[1].endsWith(tail), lines[1]);
    QCOMPARE(lines[2], QByteArray("type=usage"));
    QCOMPARE(lines[3], QByteArray());

    const test_support::record_file rec = read_record(m.usageFilePath);
    QCOMPARE(rec.type, QString("usage"));
    QCOMPARE(rec.data, QJsonDocument(m.usageRecord).toJson(QJsonDocument::Indented));
}

void tst_usage_record::second_call_rewrites_the_same_file()
{
    windows_information_imp m;
    write_usage(m, QString(), "first");
    const QString path = m.usageFilePath;
    QString ple = "second.ple", ver = "3.0", model = "K400", modular = "second";
    m.create_usage_inifo(QString(), ple, ver, model, modular, 1);
    QCOMPARE(m.usageFilePath, path);
    QCOMPARE(test_support::record_files().size(), 1);
    const QJsonObject record = read_record(path).json();
    QCOMPARE(record["softwareVer"].toString(), QString("3.0"));
    QCOMPARE(record["modelName"].toString(), QString("K400"));
    QCOMPARE(record["modularExt"].toObject()["ple"].toString(), QString("second.ple"));
    QCOMPARE(record["enableGuide"].toString(), QString("yes"));
}

void tst_usage_record::log_lines_and_trace_line()
{
    windows_information_imp m;
    test_support::glog_capture log;
    stdout_capture out;
    write_usage(m, QString(), QString::fromUtf8("转台"));
    const QByteArray printed = out.take();
    QCOMPARE(log.lines(), (QStringList{"create_usage_inifo 0", QString::fromUtf8("modular=转台modular_ple.size=0"),
                                       "create_usage_inifo 1"}));
    QCOMPARE(log.files().first(), QString("windows_information_imp.cpp"));
    QCOMPARE(printed, "\r\n create_usage_inifo=" + m.usageFilePath.toUtf8() + " ");
}

void tst_usage_record::destructor_rewrites_with_end_time()
{
    auto m = std::make_unique<windows_information_imp>();
    write_usage(*m, QString(), "M");
    const QString path = m->usageFilePath;
    m->usageRecord["endOn"] = "stale";
    m->usageRecord["marker"] = 42;  // proves the file is rewritten from the record in memory

    test_support::qdebug_capture debug;
    const QString before = utc_now();
    m.reset();
    const QString after = utc_now();

    QCOMPARE(debug.located(),
             QStringList{"default|information_api/windows_information_imp.cpp|virtual "
                         "information_api::windows_information_imp::~windows_information_imp()|"
                         "~windows_information_imp"});
    const test_support::record_file rec = read_record(path);
    QCOMPARE(rec.type, QString("usage"));
    const QJsonObject record = rec.json();
    QCOMPARE(record["marker"].toInt(), 42);
    QVERIFY2(record["endOn"].toString() >= before && record["endOn"].toString() <= after,
             qPrintable(record["endOn"].toString()));
    QCOMPARE(test_support::record_files().size(), 1);
}

void tst_usage_record::destructor_without_usage_record_writes_nothing()
{
    { windows_information_imp m; }
    QVERIFY(QDir::current().entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
}

void tst_usage_record::uploader_process_starts_no_period()
{
    const QString name = QCoreApplication::applicationName();
    QCoreApplication::setApplicationName("information_uploader");
    {
        windows_information_imp m;
        QVERIFY(m.usageStart.isNull());
        QVERIFY(m.startOn.isNull());
        QVERIFY(m.endOn.isNull());
        QVERIFY(!m.softwareName.isNull() && m.softwareName.isEmpty());
        write_usage(m);
        QCOMPARE(m.usageFilePath, QString("./veltrainfo/.info2"));
    }
    QCoreApplication::setApplicationName("Information_Uploader");  // compared case-sensitively
    {
        windows_information_imp m;
        QVERIFY(!m.usageStart.isNull());
        QCOMPARE(m.endOn, m.startOn);
    }
    QCoreApplication::setApplicationName(name);
}

void tst_usage_record::set_ple_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("stored");
    QTest::newRow("variant") << "abc-xK300.ple" << "abc-xK300.pleK300.ple";
    QTest::newRow("case-insensitive") << "ab-1K300.PLE" << "ab-1K300.PLEK300.PLE";
    QTest::newRow("tail repeated") << "a-bcK300.ple.bak" << "a-bcK300.ple.bakK300.ple.bak";
    QTest::newRow("nothing between") << "abc-K300.ple" << "abc-K300.ple";
    QTest::newRow("dash first") << "-xK300.ple" << "-xK300.ple";
    QTest::newRow("match first") << "K300.ple" << "K300.ple";
    QTest::newRow("no match") << "abc-x.ple" << "abc-x.ple";
    QTest::newRow("empty") << "" << "";
}

void tst_usage_record::set_ple()
{
    QFETCH(QString, input);
    QFETCH(QString, stored);
    windows_information_imp m;
    m.set_ple(input);
    QCOMPARE(m.ple, stored);
}

void tst_usage_record::identity_setters_and_stubs()
{
    windows_information_imp m;
    VeltraInfoMgr& mgr = m;
    mgr.set_sn("ignored");
    QVERIFY(m.seriaNum.isNull());
    mgr.setDeviceSerial("SN9");
    QCOMPARE(m.seriaNum, QString("SN9"));
    mgr.setSoftwareVer("9.9");
    QCOMPARE(m.softwareVer, QString("9.9"));
    QVERIFY(mgr.begin_calib_info().isEmpty());
    QVERIFY(mgr.begin_scan_info().isEmpty());
    QStringList files{"kept"};
    mgr.get_score_files(files);
    QCOMPARE(files, QStringList{"kept"});
    QString a = "a", b = "b";
    mgr.set_upload_url(a, b);
    QCOMPARE(m.releaseUploadUrl + m.testUploadUrl, QString("ab"));
    mgr.setUploadFileUrl(b, a);
    QCOMPARE(m.releaseFileUploadUrl + m.testFileUploadUrl, QString("ba"));
    QVERIFY(m.get_os_info(a, a, a) && m.get_cpu_info(a, a) && m.get_memory_info(a));
    QVERIFY(!m.get_default_browser(a, b));
    QCOMPARE(a + b, QString("ab"));
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("tst_usage_record");
    tst_usage_record test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_usage_record.moc"
