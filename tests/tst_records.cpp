// The record manager: each builder's file, its record and what it keeps for later records; reading
// records back; the upload configuration; which records are due and which expire; the binary layout
// of the manager and the types around it.
#include "test_support.h"

#include <information_api/http.h>
#include <information_api/json_handler.h>
#include <information_api/queued_sink.h>
#include <information_api/record_file.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

using namespace test_support;
using W = windows_information_imp;
using manager_ptr = std::unique_ptr<W>;
// Writes records with a row's manager (which it may replace or end); returns the path to check.
using step = std::function<QString(manager_ptr&)>;
Q_DECLARE_METATYPE(step)

namespace {

QJsonValue parse(const QString& json) { return QJsonDocument::fromJson(("[" + json + "]").toUtf8()).array().at(0); }
QString compact(const QJsonValue& v)
{
    return QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact).mid(1).chopped(1);
}

// A record's keys unless a row names them: the identity and period the steps below give.
const char* const kEnvelope = R"({"modelName":"K300","seriaNum":"","softwareName":"","softwareVer":"3.1",
    "startOn":"S","endOn":"E","enableGuide":"no","modularExt":{"ple":"dev.ple"},
    "osSoftExt":{"osName":"","lang":"","resolution":"","installPath":"","browser":{"name":"","ver":""}},
    "osHdExt":{"cpu":[{"cpuCores":0,"cpuModel":""}],"memSize":0,"gpu":[],"hddSize":0,"hddRemainSize":0}})";

// A manager with a blank machine description, so that records compare whole on any machine.
manager_ptr new_manager()
{
    auto m = std::make_unique<W>();
    for (QString* f : {&m->osName, &m->lang, &m->resolution, &m->installPath, &m->cpuCores, &m->cpuModel, &m->memSize,
             &m->hddSize, &m->hddRemainSize})
        f->clear();
    m->gpuModels.clear();
    m->gpuMemSizes.clear();
    return m;
}

// The manager's fields that later records carry.
QString stored_fields(const windows_information_imp* m)
{
    return m ? QStringList{m->startOn, m->endOn, m->ple, m->modelName, m->softwareVer, m->modular,
                   m->modularPles.join(','), QString::number(m->enableGuide), m->seriaNum}
                   .join('|')
             : "ended";
}

// `text` with every UTC stamp made since `since` shown as <now>.
QString stamped(QString text, const QString& since)
{
    static const QRegularExpression stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
    const QString until = utc_now();
    for (auto it = stamp.globalMatch(QString(text)); it.hasNext();)
        if (const QString s = it.next().captured(); s >= since && s <= until)
            text.replace(s, "<now>");
    return text;
}

QString only_record() { return "./veltrainfo/" + record_files().value(0); }

// Calls a builder, which takes most of its texts by reference, with copies of `args`.
template <typename C, typename R, typename... P, typename... A> R call(manager_ptr& m, R (C::*builder)(P...), A... args)
{
    std::tuple<std::decay_t<P>...> copies{args...};
    return std::apply([&](auto&... a) { return (m.get()->*builder)(a...); }, copies);
}

// Steps that write one record each; their identity is dev.ple / K300 / 3.1 / M, their period S / E.
step usage(QString start = "", int guide = 0, QString modular = "")
{
    return [=](manager_ptr& m) {
        call(m, &W::create_usage_inifo, start, "dev.ple", "3.1", "K300", modular, guide);
        return m->usageFilePath;
    };
}

step calibration(QStringList classes, QStringList pls)
{
    return [=](manager_ptr& m) {
        call(m, &W::create_calibrate_inifo, QStringList{"m1", "m2"}, "3.1", "dev.ple", "K300", "M", pls, "S", "E",
            classes, QStringList{"s1", "s2"}, QStringList{"e1"}, QStringList{"ok"}, 1);
        return only_record();
    };
}

// ... but a share's identity is share.ple / K400 / S, its period S2 / E2: it takes no version.
step share(QString a = "a")
{
    return [=](manager_ptr& m) {
        call(m, &W::create_share_inifo, "share.ple", "K400", "S", "S2", "E2", "t", "n", a, 0);
        return only_record();
    };
}

step scan(std::function<void(_tag_scan_info&)> fill)
{
    return [=](manager_ptr& m) {
        _tag_scan_info info;
        info.ple = "dev.ple";
        info.modelName = "K300";
        info.modular = "M";
        info.startOn = "S";
        info.endOn = "E";
        fill(info);
        m->add_scan_info(info, 0);
        return only_record();
    };
}

step feedback(QString ple, QStringList pls = {"P"}, QString modular = "M")
{
    return [=](manager_ptr& m) {
        return call(m, &W::create_userfeedback_info, ple, "3.1", "K300", modular, pls, 1, "u@x.y", "dental", "fine",
            QStringList{"a.png", QString::fromUtf8("图.jpg")});
    };
}

step score(QString value, QString ple)
{
    return [=](manager_ptr& m) { return call(m, &W::add_user_score, value, ple, "3.1", "K300", "M", "dental", 0); };
}

step then(step first, step second)
{
    return [=](manager_ptr& m) {
        QFile::remove(first(m));  // records of one second share a name
        return second(m);
    };
}

// Each operation's vtable slot. Under the Itanium C++ ABI a pointer to a virtual member function
// holds 1 + its entry's byte offset.
template <typename... Fn> QString slots_of(Fn... fns)
{
    const auto slot = [](auto fn) {
        static_assert(sizeof fn == 2 * sizeof(void*), "Itanium member function pointer expected");
        long raw[2];
        std::memcpy(raw, &fn, sizeof raw);
        return QString::number((raw[0] & 1) ? long((raw[0] - 1) / sizeof(void*)) : -1);
    };
    return QStringList{slot(fns)...}.join(' ');
}

// Each member's offset in `object`, then the object's size.
template <typename Object, typename... Member> QString offsets(const Object& object, const Member&... members)
{
    const auto at = [&](const void* member) {
        return QString::number(static_cast<const char*>(member) - reinterpret_cast<const char*>(&object));
    };
    return QStringList{at(&members)..., QString::number(sizeof object)}.join(' ');
}

}  // namespace

class tst_records : public QObject {
    Q_OBJECT
private slots:
    void init() { dir_ = std::make_unique<scoped_working_dir>(); }
    void cleanup()
    {
        dir_.reset();
        QCoreApplication::setApplicationName("tst_records");
        QCoreApplication::instance()->setProperty("start_time", QVariant());
    }

    void builders_data();
    void builders();
    void file_bytes_and_trace_line();
    void name_taken_data();
    void name_taken();
    void not_written_data();
    void not_written();
    void swapped_while_read();
    void get_scan_info_data();
    void get_scan_info();
    void upload_config_data();
    void upload_config();
    void due_and_expired_data();
    void due_and_expired();
    void queued_sink_reports();
    // Hosts built against the library call virtual operations by slot, read data members by offset
    // and address the connector's signals and slots by index (queued connections too): none may move.
    void layout_data();
    void layout()
    {
        QFETCH(QString, actual);
        QFETCH(QString, expected);
        QCOMPARE(actual, expected);
    }

private:
    std::unique_ptr<scoped_working_dir> dir_;
};

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::builders_data()
{
    QTest::addColumn<step>("write");
    QTest::addColumn<QString>("files");   // the record folder's names, a pattern
    QTest::addColumn<QString>("type");    // of the record written, "" for none
    QTest::addColumn<QString>("record");  // its keys that differ from kEnvelope
    QTest::addColumn<QString>("stored");  // the manager's fields afterwards
    const auto row = [](const char* name, step write, QString files, QString type, QString record, QString stored) {
        QTest::newRow(name) << write << files << type << record << stored;
    };
    const QString usage_file = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d\.info2)";
    const QString utc_file = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ\.info2)";
    const QString now = "<now>|<now>|", now_usage = R"({"tracingType":"usage","startOn":"<now>","endOn":"<now>")";

    row("usage: identity, machine numbers converted, fewer GPU sizes than models", [](manager_ptr& m) {
            m->setSoftwareName("Studio"); m->setDeviceSerial("SN1"); m->set_sn("ignored");
            m->cpuCores = "4294967297"; m->cpuModel = "cpu"; m->memSize = "17179869184"; m->hddSize = "disk";
            m->hddRemainSize = " -5 "; m->gpuModels = QStringList{"A", "B"}; m->gpuMemSizes = QStringList{"4096"};
            return usage()(m);
        }, usage_file, "usage", now_usage + R"(,"softwareName":"Studio","seriaNum":"SN1",
            "osHdExt":{"cpu":[{"cpuCores":0,
            "cpuModel":"cpu"}],"memSize":17179869184,"gpu":[{"gpuModel":"A","gpuMemSize":4096},{"gpuModel":"B"}],
            "hddSize":0,
            "hddRemainSize":-5}})", now + "dev.ple|K300|3.1|||0|SN1");
    row("usage: guide 1, a module without profiles", [](manager_ptr& m) {
            m->modularPles = QStringList{"stale"};
            return usage("", 1, "M")(m);
        }, usage_file, "usage", now_usage + R"(,"enableGuide":"yes","modularExt":{"ple":"dev.ple",
            "modular":[{"name":"M",
            "sn":"","mple":""}]}})", now + "dev.ple|K300|3.1|M||1|");
    row("usage: guide 2 is no; a later call rewrites the file, with a start of its own, not stored",
        [](manager_ptr& m) {
            QString ple = "first.ple", ver = "1", model = "K1", modular = "first";
            m->create_usage_inifo("", ple, ver, model, modular, 1);
            return usage("not a time", 2)(m);
        }, usage_file, "usage", R"({"tracingType":"usage","startOn":"not a time","endOn":"<now>"})",
        now + "dev.ple|K300|3.1|||2|");
    row("usage: the end time written as the manager ends", [](manager_ptr& m) {
            const QString path = usage()(m);
            m->usageRecord["endOn"] = "stale";  // rewritten from the record in memory
            m->usageRecord["marker"] = 42;
            m.reset();
            return path;
        }, usage_file, "usage", now_usage + R"(,"marker":42})", "ended");
    row("usage: the uploader's manager starts no period", [](manager_ptr& m) {
            QCoreApplication::setApplicationName("information_uploader");
            m = std::make_unique<windows_information_imp>();
            return usage()(m);
        }, R"(\.info2)", "usage", R"({"tracingType":"usage","startOn":"","endOn":""})", "||dev.ple|K300|3.1|||0|");

    row("calibration: shorter lists leave fields empty; the first empty profile listed, later ones skipped",
        calibration({"c1", "c2", "c3"}, {"", "A", "", "B"}), utc_file, "calibration", R"({"tracingType":"calibration",
            "enableGuide":"yes","content":[{"classsify":"c1","startOn":"s1","endOn":"e1","result":"ok","modular":"m1"},
            {"classsify":"c2","startOn":"s2","endOn":"","result":"","modular":"m2"},
            {"classsify":"c3","startOn":"","endOn":"","result":"","modular":""}],"modularExt":{"ple":"dev.ple",
            "modular":[
            {"name":"M","sn":"","mple":""},{"name":"M","sn":"","mple":"A"},{"name":"M","sn":"","mple":"B"}]}})",
        "S|E|dev.ple|K300|3.1|M|,A,,B|1|");
    row("share: its own identity, the version and profiles stored before", then(calibration({}, {"P1", "P2"}), share()),
        utc_file, "share", R"({"tracingType":"share","modelName":"K400","startOn":"S2","endOn":"E2",
            "content":{"target":"t",
            "name":"n","account":"a"},"modularExt":{"ple":"share.ple","modular":[{"name":"S","sn":"","mple":"P1"},
            {"name":"S","sn":"","mple":"P2"}]}})", "S2|E2|share.ple|K400|3.1|S|P1,P2|0|");
    row("usage after a share: its period carried, profiles emptied",
        then(then(calibration({}, {"P"}), share()), usage()), usage_file, "usage",
        R"({"tracingType":"usage","startOn":"S2","endOn":"E2"})", "S2|E2|dev.ple|K300|3.1|||0|");

    const QString scan_file = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-(0?(\d\d?))\.\1\2Z\.info2)";  // "ss.sss": the seconds twice
    row("scan: modes, alignment lists, box in single precision", scan([](_tag_scan_info& i) {
            i.modes = {{"ms", "me", "hd", "8", "on", {"marker", "feature"}, "turntable"}, {}};
            i.texture = "tx"; i.totalPoint = "1200"; i.pointDis = "0.2";
            i.length = "0.1"; i.width = "2"; i.height = "0.3";
            i.handHeldPointGenWay = "hw"; i.meshType = "watertight"; i.fileName = "a.stl";
        }), scan_file, "scan", R"({"tracingType":"scan","softwareVer":"","modularExt":{"ple":"dev.ple",
            "modular":[{"name":"M",
            "sn":"","mple":""}]},"content":{"mode":[{"startOn":"ms","endOn":"me","classsify":"hd","turntableSteps":"8",
            "hdr":"on","alignMode":["marker","feature"],"modular":"turntable"},{"startOn":"","endOn":"","classsify":"",
            "turntableSteps":"","hdr":"","alignMode":[],"modular":""}],"texture":"tx","totalPoint":1200,
            "pointDis":"0.2",
            "handHeldPointGenWay":"hw","meshType":"watertight","fileName":"a.stl",
            "box":{"length":0.10000000149011612,"width":2,"height":0.30000001192092896}}})", "S|E|dev.ple|K300||M||0|");
    row("scan: no 32-bit count, no finite float, a fraction widened, blanks; a profile without a module name",
        scan([](_tag_scan_info& i) {
            i.totalPoint = "4294967296"; i.length = "nan"; i.width = "-0.1"; i.height = " 7 "; i.modular = "";
            i.modularPles = QStringList{"A"};
        }), scan_file, "scan", R"({"tracingType":"scan","softwareVer":"","modularExt":{"ple":"dev.ple",
            "modular":[{"name":"",
            "sn":"","mple":"A"}]},"content":{"texture":"","pointDis":"","handHeldPointGenWay":"","meshType":"",
            "fileName":"",
            "totalPoint":0,"box":{"length":0,"width":-0.10000000149011612,"height":7}}})", "S|E|dev.ple|K300|||A|0|");
    row("flat scan: the envelope's tracing type, nothing stored", [](manager_ptr& m) {
            m->startOn = "S"; m->endOn = "E";
            call(m, &W::create_scan_inifo, "1.5", "2", "3", "f.stl", "way", "mesh", "marker", "cls", "hdr", "top",
                 "s", "e", "0.1", "tex", "12a", "77", 1);
            return only_record();
        }, utc_file, "scan", R"({"tracingType":"usage","modelName":"","softwareVer":"","modularExt":{"ple":""},
            "height":"1.5",
            "length":"2","width":"3","fileName":"f.stl","handHeldPointGenWay":"way","meshType":"mesh",
            "alignMode":"marker",
            "classsify":"cls","hdr":"hdr","modular":"top","startOn":"s","endOn":"e","pointDis":"0.1","texture":"tex",
            "totalPoint":"12a","totalFaces":"77"})", "S|E||||||0|");

    const QString feedback_record = R"({"tracingType":"feedback","enableGuide":"yes","startOn":"<now>","endOn":"<now>",
        "content":{"email":"u@x.y","industry":"dental","content":"fine","attachs":["a.png","图.jpg"]},
        "modularExt":{"ple":"%1","modular":[{"name":"M","sn":"","mple":"P"}]}})";
    const QString score_record = R"({"tracingType":"score","startOn":"<now>","endOn":"<now>","content":{"score":%1,
        "industry":"dental"},"modularExt":{"ple":"%2","modular":[{"name":"M","sn":"","mple":""}]}})";
    const QString user_file = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d\.)";
    row("feedback: a period of its own, a profile's variant removed", then(share(), feedback("pro-2xK300.ple")),
        user_file + "info2", "feedback", feedback_record.arg("pro-K300.ple"), now + "pro-K300.ple|K300|3.1|M|P|1|");
    row("feedback: case-insensitive, neither module nor profiles", feedback("a-1K300.PLE", {}, ""), user_file + "info2",
        "feedback",
        QString(feedback_record).remove(R"(,"modular":[{"name":"M","sn":"","mple":"P"}])").arg("a-K300.PLE"),
        now + "a-K300.PLE|K300|3.1|||1|");
    row("score: profiles emptied, a decimal score", then(feedback("dev.ple"), score(" 9 ", "pro-K300.ple")),
        user_file + "score2", "score", score_record.arg(9).arg("pro-K300.ple"), now + "pro-K300.ple|K300|3.1|M||0|");
    for (const auto& [value, ple] : std::vector<std::pair<QString, QString>>{
             {"abc", "K300.ple"}, {"7.5", "-xK300.ple"}, {"", "abc-K300.ple"}, {"12a", "abc-x.ple"}})
        row(qPrintable("score: \"" + value + "\" is 0, " + ple + " kept"), score(value, ple), user_file + "score2",
            "score", score_record.arg(0).arg(ple), now + ple + "|K300|3.1|M||0|");

    // set_ple repeats a K300 profile's tail after a variant, where feedback and scores drop the variant.
    const QStringList ples{"abc-xK300.ple", "abc-xK300.pleK300.ple", "ab-1K300.PLE", "ab-1K300.PLEK300.PLE",
                           "abc-K300.ple", "abc-K300.ple", "-xK300.ple", "-xK300.ple"};
    for (int i = 0; i < ples.size(); i += 2)
        row(qPrintable("set_ple " + ples[i]), [ple = ples[i]](manager_ptr& m) {
                m->set_ple(ple);
                return QString();
            }, "", "", "", now + ples[i + 1] + "|||||0|");
}
// clang-format on

void tst_records::builders()
{
    QFETCH(step, write);
    QFETCH(QString, files);
    QFETCH(QString, type);
    QFETCH(QString, record);
    QFETCH(QString, stored);
    const QString since = utc_now();
    auto m = new_manager();
    const QString path = write(m);
    QVERIFY2(QRegularExpression("^" + files + "$").match(record_files().join(' ')).hasMatch(),
        qPrintable(record_files().join(' ')));
    if (!type.isEmpty()) {
        const record_file written = read_record(path);
        QCOMPARE(written.type, type);
        QJsonObject expected = parse(kEnvelope).toObject();
        const QJsonObject own = parse(record).toObject();
        for (auto it = own.begin(); it != own.end(); ++it)
            expected[it.key()] = it.value();
        QCOMPARE(stamped(compact(written.json()), since), compact(expected));
        if (type == "usage" && m)
            QCOMPARE(m->usageRecord, written.json());
    }
    QCOMPARE(stamped(stored_fields(m.get()), since), stored);
}

void tst_records::file_bytes_and_trace_line()
{
    // Indented JSON as one escaped byte-array value, quoted for its commas; the UTF-8 bytes escaped
    // (and a hex digit after them), JSON's own backslashes doubled.
    auto m = new_manager();
    const QByteArray expected =
        R"x([General]
data="@ByteArray({\n    \"content\": {\n        \"account\": \"\xe6\x89\xab\x61\\\"=;,\\n\",\n)x"
        R"x(        \"name\": \"n\",\n        \"target\": \"t\"\n    },\n    \"enableGuide\": \"no\",\n)x"
        R"x(    \"endOn\": \"E2\",\n    \"modelName\": \"K400\",\n    \"modularExt\": {\n        \"modular\": [\n)x"
        R"x(            {\n                \"mple\": \"\",\n                \"name\": \"S\",\n)x"
        R"x(                \"sn\": \"\"\n            }\n        ],\n        \"ple\": \"share.ple\"\n    },\n)x"
        R"x(    \"osHdExt\": {\n        \"cpu\": [\n            {\n                \"cpuCores\": 0,\n)x"
        R"x(                \"cpuModel\": \"\"\n            }\n        ],\n        \"gpu\": [\n        ],\n)x"
        R"x(        \"hddRemainSize\": 0,\n        \"hddSize\": 0,\n        \"memSize\": 0\n    },\n)x"
        R"x(    \"osSoftExt\": {\n        \"browser\": {\n            \"name\": \"\",\n            \"ver\": \"\"\n)x"
        R"x(        },\n        \"installPath\": \"\",\n        \"lang\": \"\",\n        \"osName\": \"\",\n)x"
        R"x(        \"resolution\": \"\"\n    },\n    \"seriaNum\": \"\",\n    \"softwareName\": \"\",\n)x"
        R"x(    \"softwareVer\": \"\",\n    \"startOn\": \"S2\",\n    \"tracingType\": \"share\"\n}\n)"
type=share
)x";
    QCOMPARE(read_file(share(QString::fromUtf8("扫a\"=;,\n"))(m)), expected);

    // The usage builder's one line on standard output.
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    QTemporaryFile out;
    QVERIFY(out.open() && dup2(out.handle(), STDOUT_FILENO) >= 0);
    const QString path = usage()(m);
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    QCOMPARE(read_file(out.fileName()), "\r\n create_usage_inifo=" + path.toUtf8() + " ");
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::name_taken_data()
{
    QTest::addColumn<QString>("kinds");  // written in turn: Usage (each by a manager of its own), Calibration, Share,
    QTest::addColumn<QByteArray>("zone");  // Flat scan, structured scan (X), feedback (B), scoRe
    QTest::addColumn<int>("shift");  // seconds the clock moves before the second record
    for (const QByteArray zone : {"UTC0", "<+08>-8"})  // a run of 8 hours at UTC+8 names its feedback like its usage
        for (const QString kinds : {"UU", "UB", "BU", "BB", "RR", "CC", "CS", "CF", "SS", "SF", "FF", "XX"}) {
            const int shift = zone == "UTC0" ? 0 : kinds == "UB" ? 28800 : kinds == "BU" ? -28800 : 0;
            QTest::newRow(qPrintable(kinds + " " + zone)) << kinds << zone << shift;
        }
    QTest::newRow("100 structured scans in one second") << QString(100, 'X') << QByteArray("UTC0") << 0;
}
// clang-format on

void tst_records::name_taken()
{
    QFETCH(QString, kinds);
    QFETCH(QByteArray, zone);
    QFETCH(int, shift);
    const QByteArray zone_before = qgetenv("TZ");
    static QDateTime now;
    now = QDateTime(QDate(2026, 11, 25), QTime(10, 20, 30), Qt::UTC);
    record_clock = [] { return now; }, qputenv("TZ", zone);
    std::vector<manager_ptr> managers;
    QStringList paths;
    QByteArrayList written;
    for (int i = 0; i < kinds.size(); ++i) {
        now = now.addSecs(i == 1 ? shift : 0);
        const QString n = QString::number(i);
        const QStringList before = record_files();
        if (kinds[i] == 'U' || managers.empty())
            managers.push_back(std::make_unique<W>());
        const QString returned = QMap<QChar, step>{{'U', usage()}, {'C', calibration({n}, {})}, {'S', share(n)},
            {'X', scan([=](_tag_scan_info& s) { s.fileName = n; })}, {'B', feedback(n + ".ple")}, {'R', score(n, "p")},
            {'F', [=](manager_ptr& m) {
                 call(m, &W::create_scan_inifo, "", "", "", n, "", "", "", "", "", "", "", "", "", "", "", "", 0);
                 return QString();
             }}}[kinds[i]](managers.back());
        // Each record under the first free name: <stem>.<ext>, <stem>-1.<ext>, ...; a builder that returns a
        // path returns it.
        paths << (i == 0 ? "./veltrainfo/" + record_files().value(0)
                         : QString(paths[0]).insert(paths[0].lastIndexOf('.'), "-" + n));
        QVERIFY(record_files().size() == before.size() + 1 && record_files().contains(QFileInfo(paths[i]).fileName()));
        QVERIFY(!QString("UBR").contains(kinds[i]) || returned == paths[i]);
        written << read_file(paths[i]);
    }
    for (manager_ptr& m : managers) {  // the usage records written once more and closed: each at its own path
        if (!m->usageFilePath.isEmpty())
            usage()(m);
        m.reset();
    }
    qputenv("TZ", zone_before);
    record_clock = &QDateTime::currentDateTimeUtc;
    QCOMPARE(record_files().size(), kinds.size());
    for (int i = 0; i < kinds.size(); ++i) {
        QString data, type;
        QVERIFY(W().get_scan_info(paths[i], data, type) == 0 && (kinds[i] == 'U' || read_file(paths[i]) == written[i]));
        const QStringList types = QString("usage calibration share scan scan feedback score").split(' ');
        QCOMPARE(type, types[QString("UCSFXBR").indexOf(kinds[i])]);
    }
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::not_written_data()
{
    QTest::addColumn<QString>("disk");
    QTest::newRow("./veltrainfo a file") << "file";
    QTest::newRow("a folder nobody can write (not even root: /proc/self/fdinfo)") << "unwritable";
    QTest::newRow("one block free: QSettings' own save comes out empty") << "block";  // private copies on that disk
    QTest::newRow("exactly full") << "full";
}
// clang-format on

void tst_records::not_written()
{
    // The builders still report nothing, but every record not written leaves a warning: one of each kind, then the
    // usage record once more as the manager ends. Nothing written before is lost or emptied.
    QFETCH(QString, disk);
    const QByteArray folder = QDir::current().absoluteFilePath("veltrainfo").toUtf8(), tmp = qgetenv("TMPDIR");
    const std::shared_ptr<void> unmount(nullptr, [&](void*) {
        umount2(folder, MNT_DETACH);
        if (tmp.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", tmp);
    });
    auto m = std::make_unique<W>();
    QString path = "veltrainfo", before = disk == "file" ? "precious" : "<absent>";
    if (disk == "file" || disk == "unwritable")
        QVERIFY(disk == "file" ? (write_file(path, "precious"), true) : QFile::link("/proc/self/fdinfo", path));
    else {  // a disk of 256 KiB, mounted in a namespace of this thread's own: it goes with the process
        QVERIFY2(QDir().mkpath("veltrainfo/tmp") && unshare(CLONE_NEWNS) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("tmpfs", folder, "tmpfs", 0, "size=256k") == 0 && QDir().mkpath("veltrainfo/tmp"),
            strerror(errno));
        path = usage()(m);
        before = read_file(path);
        qputenv("TMPDIR", disk == "block" ? folder + "/tmp" : tmp);
        const int filler = open("veltrainfo/filler", O_WRONLY | O_CREAT, 0600);
        for (const QByteArray page(4096, 'x'); write(filler, page.constData(), page.size()) > 0;) {
        }
        struct statvfs fs;
        const off_t whole_pages = (lseek(filler, 0, SEEK_END) + 4095) / 4096 * 4096;
        QVERIFY(ftruncate(filler, whole_pages - (disk == "block" ? 4096 : 0)) == 0 && close(filler) == 0 &&
                statvfs(folder, &fs) == 0 && fs.f_bavail == (disk == "block" ? 1u : 0u));
    }
    glog_capture log;
    for (const step& write : {usage(), calibration({"c"}, {}), share(), scan([](_tag_scan_info&) {}),
             feedback("dev.ple"), score("5", "dev.ple")})
        write(m);
    m.reset();
    const QRegularExpression not_written(R"(^record not written: \./veltrainfo/[^ ]+\.(info2|score2) \(.+\)$)");
    QCOMPARE(log.lines().filter(not_written).size(), 7);
    QCOMPARE(read_file(path), before);
    if (path != "veltrainfo") {  // no record made empty, no temporary file left
        QCOMPARE(record_files(), QStringList({QFileInfo(path).fileName(), "filler"}));
        QVERIFY(!QDirIterator("veltrainfo/tmp", QDir::Files | QDir::Hidden, QDirIterator::Subdirectories).hasNext());
    }
}

void tst_records::swapped_while_read()
{
    // Files swapped in as get_scan_info reads: the one QSettings decodes is the one that was checked.
    const QString good = QDir::current().absoluteFilePath("good");
    const QString bad = QDir::current().absoluteFilePath("bad");
    const QString record = good + ".info2";
    for (const QString& file : {good, record})
        write_file(file, "[General]\ntype=t\n");
    write_file(bad, QByteArray(R"([General]|type=@Variant(\0\0\0\v\x7f\xff\xff\xff)|)").replace('|', '\n'));
    std::atomic<bool> stop{false};
    const std::shared_ptr<std::thread> swapper(new std::thread([&] {
        for (int i = 0; !stop; ++i)
            link(qPrintable(i % 2 ? good : bad), qPrintable(record + ".new"));
        rename(qPrintable(record + ".new"), qPrintable(record));
    }),
        [&](std::thread* t) { stop = true, t->join(), delete t; });
    W m;
    QString data, type;
    for (int i = 0; i < 10000; ++i)  // readers that opened the path twice failed within a few thousand reads
        QVERIFY(m.get_scan_info(record, data, type) == -1 || type == "t");
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::get_scan_info_data()
{
    QTest::addColumn<QByteArray>("file");  // null: no file at all
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("data");  // "<null>" for a null string
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("log");
    const QString variant = "get_scan_info refused record.info2: holds a serialised QVariant";
    QTest::newRow("missing file") << QByteArray() << -1 << "kept" << "kept" << "file not existrecord.info2";
    QTest::newRow("no data key") << QByteArray("[General]\ntype=share\n") << 0 << "<null>" << "share" << "";
    QTest::newRow("data cut at NUL") << QByteArray("[General]\ndata=@ByteArray(ab\\0cd)\ntype=t\n") << 0 << "ab"
        << "t" << "";
    QTest::newRow("variant text inside a record")
        << QByteArray("[General]\ndata=\"@ByteArray(a,@Variant(\\0))\"\ntype=t\n") << 0 << "a,@Variant(" << "t" << "";
    // QSettings would decode these with QDataStream (a list of 2^31 entries is among the fuzz inputs kept).
    QTest::newRow("nested 200,000 deep")
        << "[General]\ntype=usage\ndata=@Variant(" + QByteArray(R"(\0\0\0\t\0\0\0\x1)").repeated(200000) + ")\n" << -1
        << "kept" << "kept" << variant;
    QTest::newRow("escaped, quoted, in a list, beside data")
        << QByteArray("[General]\ndata=@ByteArray(x)\n"
                      "k=a, \"\\100DateTime(\\0\\0\\0\\v\\0\\x7f\\xff\\xff\\xff)\"\n") << -1
        << "kept" << "kept" << variant;
    QTest::newRow("larger than 16 MiB") << "[General]\ntype=t\ndata=" + QByteArray(16 << 20, 'x') << -1 << "kept"
        << "kept"
        << "get_scan_info refused record.info2: larger than 16 MiB";
    QTest::newRow("a link to /proc/kmsg, which blocks: not a record, like a pipe") << QByteArray("<kmsg>") << -1
        << "kept" << "kept"
        << "get_scan_info refused record.info2: not a regular file";
}
// clang-format on

void tst_records::get_scan_info()
{
    QFETCH(QByteArray, file);
    QFETCH(int, result);
    QFETCH(QString, data);
    QFETCH(QString, type);
    QFETCH(QString, log);
    if (file == "<kmsg>")
        QVERIFY(QFile::link("/proc/kmsg", "record.info2"));
    else if (!file.isNull())
        write_file("record.info2", file);
    windows_information_imp m;
    QString got_data = "kept", got_type = "kept";
    glog_capture glog;
    QCOMPARE(m.get_scan_info("record.info2", got_data, got_type), result);
    QCOMPARE(got_data.isNull() ? "<null>" : got_data, data);
    QCOMPARE(got_type, type);
    QCOMPARE(glog.lines().join('|'), log);
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::upload_config_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QVariantMap>("urlConfig");
    QTest::addColumn<step>("before");
    // enable interval url app_id | stored release and test URLs | file URL, CDN, reconnect, with
    // the defaults and the two application ids as <release> <test> <files> <cdn> <R> <T>.
    QTest::addColumn<QString>("expected");
    const auto row = [](const char* name, QVariantMap system, QVariantMap url_config, step before, QString expected) {
        QTest::newRow(name) << system << url_config << before << expected;
    };
    const auto set_urls = [](QString release, QString test, QString file_release = "", QString file_test = "") -> step {
        return [=](manager_ptr& m) {
            call(m, &W::set_upload_url, release, test);
            call(m, &W::setUploadFileUrl, file_release, file_test);
            return QString();
        };
    };
    const QVariantMap url_config{{"upload_url", "https://first.example"}};
    row("nothing configured", {}, {}, set_urls("", "", "", "https://tst/up"),
        "0 60 <release> <R> | <release> | <files> <cdn> 20");
    row("a release url set: url_config unread; release file url", {}, url_config,
        set_urls("https://set.example", "t", "https://rel/up", "https://tst/up"),
        "0 60 https://set.example <R> | https://set.example t | https://rel/up <cdn> 20");
    row("test mode without urls set", {{"test", 1}}, url_config, set_urls("", "", "https://rel/up"),
        "0 60 <test> <T> |  | <files> <cdn> 20");
    row("test mode with urls set", {{"test", 2}, {"enable", 1}}, {},
        set_urls("https://rel", "https://tst", "", "https://tst/up"),
        "1 60 https://tst <T> | https://rel https://tst | https://tst/up <cdn> 20");
    row("url_config read once, system.ini as it is when read", {}, url_config, [](manager_ptr& m) {
            call(m, &W::get_upload_config, 0, 0, "", "", "");
            write_ini("res/system.ini", {{"enable", 1}, {"time_intval", 15}, {"connect_time", 5}});
            return write_ini("url_config.ini", {{"upload_url", "https://second.example"}}), "";
        }, "1 15 https://first.example <R> | https://first.example | <files> <cdn> 5");
    row("serialised QVariants: neither file read", {{"enable", QVariantMap{{"k", 1}}}, {"time_intval", 15}},
        {{"upload_url", QVariantMap{{"k", 1}}}}, set_urls("", ""), "0 60 <release> <R> | <release> | <files> <cdn> 20");
}
// clang-format on

void tst_records::upload_config()
{
    QFETCH(QVariantMap, system);
    QFETCH(QVariantMap, urlConfig);
    QFETCH(step, before);
    QFETCH(QString, expected);
    write_ini("res/system.ini", system);
    write_ini("url_config.ini", urlConfig);
    auto m = std::make_unique<windows_information_imp>();
    before(m);
    int enable = -1, interval = -1;
    QString url, app_id, extra = "untouched", file_url = "stale", cdn;
    m->get_upload_config(enable, interval, url, app_id, extra);
    m->getUploadFileUrl(file_url);
    m->get_domain_manger_url(cdn);
    QCOMPARE(QString("%1 %2 %3 %4 | %5 | %6 %7 %8")
                 .arg(enable)
                 .arg(interval)
                 .arg(url, app_id, (m->releaseUploadUrl + " " + m->testUploadUrl).trimmed(), file_url, cdn)
                 .arg(m->get_reconnect_intval())
                 .replace("https://" RELEASE_SERVICE_HOST "/dtta", "<release>")
                 .replace("https://" TEST_SERVICE_HOST "/dtta", "<test>")
                 .replace("https://" TEST_API_HOST "/up", "<files>")
                 .replace("https://" CDN_HOST, "<cdn>")
                 .replace(collector::kReleaseAppId, "<R>")
                 .replace(collector::kTestAppId, "<T>"),
        expected);
    QCOMPARE(extra, QString("untouched"));
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::due_and_expired_data()
{
    QTest::addColumn<QVariantMap>("system");
    QTest::addColumn<QString>("start");      // start_time: "days before today hh:mm:ss", "" for none
    QTest::addColumn<QStringList>("files");  // "name|days before today|hh:mm:ss[.zzz]", *.info2 unless named
    QTest::addColumn<QString>("due");        // listed by get_upload_files, oldest first
    QTest::addColumn<QString>("expired");    // deleted by clear_timeout_file, oldest first
    const auto row = [](const char* name, QVariantMap system, QString start, QStringList files, QString due,
                        QString expired) {
        QTest::newRow(name) << system << start << files << due << expired;
    };
    row("due from one day; other files never", {}, "0 12:00:00",
        {"older|5|12:00:00", "today|0|08:00:00", "yesterday|1|12:00:00", "a.score2|90|08:00:00", "b.txt|90|08:00:00",
         "c.info2.bak|90|08:00:00"}, "older yesterday", "");
    row("start just after midnight", {}, "0 00:00:30", {"before|1|23:59:59", "after|0|00:00:01"}, "before", "");
    row("minimum 0: up to the start's day", {{"uploadintval", 0}}, "1 12:00:00",
        {"later-that-day|1|23:00:00", "today|0|00:00:01", "old|3|09:00:00"}, "old later-that-day", "");
    row("minimum 2", {{"uploadintval", 2}}, "0 12:00:00", {"one|1|12:00:00", "two|2|00:00:00", "three|3|23:59:59"},
        "three two", "");
    row("no start_time: every age is 0", {}, "", {"old|20|00:00:00"}, "", "");
    row("no start_time, minimum 0", {{"uploadintval", 0}}, "", {"old|20|00:00:00"}, "old", "");
    row("equal times by name, case-sensitively", {{"uploadintval", 0}}, "0 12:00:00", {"b|1|10:00:00", "B|1|10:00:00",
        "aa|1|10:00:00", "a|1|10:00:00", "c|1|10:00:00", "Z|1|10:00:00.001", "y|1|09:59:59.999"}, "y c b aa a B Z", "");
    row("expired after 30 days", {}, "", {"d30|30|12:00:00", "d31|31|12:00:00", "d45|45|08:00:00", "today|0|00:00:00",
        "late|31|23:59:59", "early|30|00:00:00", "old.score2|90|00:00:00", "old.txt|90|00:00:00"}, "", "d45 d31 late");
    row("remain 0: only today kept", {{"remain", 0}}, "", {"today|0|00:00:00", "d1|1|23:59:59"}, "", "d1");
}
// clang-format on

void tst_records::due_and_expired()
{
    QFETCH(QVariantMap, system);
    QFETCH(QString, start);
    QFETCH(QStringList, files);
    QFETCH(QString, due);
    QFETCH(QString, expired);
    write_ini("res/system.ini", system);
    const auto path = [](QString name) {
        return QDir::current().absoluteFilePath("veltrainfo/" + name + (name.contains('.') ? "" : ".info2"));
    };
    QStringList left;
    for (const QString& file : files) {
        const QStringList f = file.split('|');
        left << QFileInfo(path(f[0])).fileName();
        write_file(path(f[0]), "[General]\ntype=usage\n");
        QFile record(path(f[0]));
        const QDateTime modified(
            QDate::currentDate().addDays(-f[1].toInt()), QTime::fromString(f[2], Qt::ISODateWithMs));
        QVERIFY(record.open(QIODevice::Append) && record.setFileTime(modified, QFileDevice::FileModificationTime));
    }
    if (!files.isEmpty())
        QDir().mkpath("veltrainfo/folder.info2");  // folders are never listed
    const QDateTime start_time = start.isEmpty()
                                     ? QDateTime()
                                     : QDateTime(QDate::currentDate().addDays(-start.section(' ', 0, 0).toInt()),
                                           QTime::fromString(start.section(' ', 1), "hh:mm:ss"));
    QCoreApplication::instance()->setProperty("start_time", start_time);
    windows_information_imp m;

    QStringList listed{"given"}, expected{"given"};
    for (const QString& name : due.split(' ', Qt::SkipEmptyParts))
        expected << path(name);
    QCOMPARE(m.get_upload_files(listed), expected.size());
    QCOMPARE(listed, expected);

    glog_capture log;
    m.clear_timeout_file();
    QStringList deleted;
    for (const QString& name : expired.split(' ', Qt::SkipEmptyParts))
        deleted << "delete file " + path(name), left.removeOne(name + ".info2");
    QCOMPARE(log.lines(), deleted);
    left.sort();
    QCOMPARE(QDir("veltrainfo").entryList(QDir::Files, QDir::Name), left);
}

// Rows of a table, one row a line: clang-format leaves them as they are.
// clang-format off
void tst_records::layout_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    using I = VeltraInfoMgr;
    // Entries 0 and 1 hold the two destructors of the virtual destructor.
    QTest::newRow("manager's operations")
        << slots_of(&I::setSoftwareName, &I::add_scan_info, &I::create_calibrate_inifo,
        &I::create_share_inifo, &I::create_usage_inifo, &I::add_user_score, &I::create_userfeedback_info,
        &I::clear_timeout_file, &I::get_upload_files, &I::get_reconnect_intval, &I::set_ple, &I::set_sn,
        &I::get_upload_config, &I::get_scan_info, &I::get_score_files, &I::get_domain_manger_url, &I::set_upload_url,
        &I::downloadApp, &I::getUploadFileUrl, &I::setUploadFileUrl, &I::end_usage_info, &I::begin_calib_info,
        &I::end_calib_info, &I::begin_scan_info, &I::end_scan_info, &I::setDeviceSerial, &I::setSoftwareVer)
        << "2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28";
    QTest::newRow("implementation's own") << slots_of(&W::setSoftwareName, &W::setSoftwareVer, &W::create_scan_inifo,
        &W::get_os_info, &W::get_install_info, &W::get_cpu_info, &W::get_gpu_info, &W::get_memory_info,
        &W::get_default_browser) << "2 28 29 30 31 32 33 34 35";
    QTest::newRow("sink, handler") << slots_of(&information_sink::on_response, &information_sink::on_download_progress,
        &information_sink::on_download_finished, &json_handler::operator(), &json_handler::processing) << "2 3 4 2 3";
    // QObject's eleven virtual entries (two destructors among them) and QThread::run come first; no
    // methods of its own in its meta-object.
    QTest::newRow("worker thread") << slots_of(&api_thread::run, &api_thread::start, &api_thread::stop) + " " +
        QString::number(api_thread::staticMetaObject.methodCount() - QThread::staticMetaObject.methodCount())
        << "12 13 14 0";

    // LP64: a vtable pointer, then 8-byte Qt handles (QJsonObject and QObject are 16).
    W m;
    const I& base = m;
    QTest::newRow("manager's members")
        << offsets(base, base.usageStart, base.modelName, base.seriaNum, base.softwareName,
        base.softwareVer, base.spareText1, base.startOn, base.endOn, base.osName, base.lang, base.resolution,
        base.spareText2, base.installPath, base.browserName, base.browserVersion, base.cpuCores, base.cpuModel,
        base.memSize, base.gpuModels, base.gpuMemSizes, base.hddSize, base.hddRemainSize, base.ple, base.modular,
        base.modularPles)
        << "8 16 24 32 40 48 56 64 72 80 88 96 104 112 120 128 136 144 152 160 168 176 184 192 200 208";
    QTest::newRow("implementation's members") << offsets(m, m.enableGuide, m.systemSettings, m.spareText3, m.spareFlag,
        m.usageFilePath, m.usageRecord, m.releaseUploadUrl, m.testUploadUrl, m.releaseFileUploadUrl,
        m.testFileUploadUrl)
        << "208 216 232 240 248 256 272 280 288 296 304";
    _tag_scan_info s;  // every member one pointer wide but the modes (three)
    QTest::newRow("scan") << offsets(s, s.ple, s.modelName, s.modular, s.spare1, s.startOn, s.endOn, s.modes, s.texture,
        s.totalPoint, s.pointDis, s.length, s.width, s.height, s.handHeldPointGenWay, s.meshType, s.fileName, s.spare2,
        s.spare3, s.spare4, s.modularPles) << "0 8 16 24 32 40 48 72 80 88 96 104 112 120 128 136 144 152 160 168 176";
    _tag_scan_mode mode;
    QTest::newRow("scan mode") << offsets(mode, mode.startOn, mode.endOn, mode.classsify, mode.turntableSteps, mode.hdr,
        mode.alignMode, mode.modular) << "0 8 16 24 32 40 48 56";
    response_info_t r;
    QTest::newRow("response") << offsets(r, r.ok, r.msg, r.ret, r.net_error, r.result, r.content)
                              << "0 8 16 20 24 32 48";
    http_connector c(0, nullptr, nullptr);
    QTest::newRow("connector") << offsets(c, c.rt_, c.timer_, c.manager, c.request_, c.reply_, c.bytes_received_,
        c.last_activity_, c.sink_, c.id_, c.handler_, c.file_path_) << "16 24 32 40 48 56 64 72 80 88 96 104";
    const QMetaObject& meta = http_connector::staticMetaObject;
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        methods << meta.method(i).methodSignature()
                       + (meta.method(i).methodType() == QMetaMethod::Signal ? " signal" : "");
    QTest::newRow("connector's signals and slots") << methods.join(' ')
        << "finished() signal replyFinished(QNetworkReply*) "
        "replyDownload(QNetworkReply*) timeout_event() http_ready_read() "
        "update_data_read_progress(qlonglong,qlonglong) "
        "update_data_write_progress(qlonglong,qlonglong) error(QNetworkReply::NetworkError) "
        "sslErrors(QList<QSslError>) "
        "slot_onDownLoadFileReadyRead() slot_onDownLoadFileError(QNetworkReply::NetworkError) "
        "slot_onDownLoadFileSSLError(QList<QSslError>) slot_onDownLoadFileDownloadProgress(qlonglong,qlonglong) "
        "slot_onDownLoadFileFinished()";
    QTest::newRow("response type name") << QString(QMetaType::typeName(qMetaTypeId<response_info_t>()))
                                        << "information_api::response_info_t";
}
// clang-format on

// Reports made on another thread run in order on the receiver's thread; none once it is destroyed.
void tst_records::queued_sink_reports()
{
    QStringList seen;
    const auto note = [&](const QString& report) {
        seen << report + (QThread::currentThread() == thread() ? "" : "!");
    };
    auto receiver = std::make_unique<QObject>();
    queued_sink sink(
        receiver.get(), [&](int id, const response_info_t& info) { note(QString("%1 %2").arg(id).arg(info.ret)); },
        [&](qint64 received, qint64 total) { note(QString("%1/%2").arg(received).arg(total)); },
        [&](bool ok, int code, int net_error) { note(QString("%1 %2 %3").arg(ok).arg(code).arg(net_error)); });
    response_info_t info;
    info.ret = 10;
    const QVariant result = QVariant::fromValue(info);
    std::thread([&] {
        sink.on_response(3, result);
        sink.on_download_progress(5, 9);
        sink.on_download_finished(false, 9, 0);
    }).join();
    QCOMPARE(seen, QStringList());  // nothing ran on the worker
    QTRY_COMPARE(seen, QStringList({"3 10", "5/9", "0 9 0"}));
    sink.on_response(4, result);  // queued, then its receiver goes
    receiver.reset();
    sink.on_response(5, result);
    QCoreApplication::processEvents();
    QCOMPARE(seen.size(), 3);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("tst_records");
    tst_records test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_records.moc"
