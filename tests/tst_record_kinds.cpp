// Every record kind besides the usage record: the files the builders write, what they leave in
// the manager for later envelopes, and reading any record back with get_scan_info.
#include "test_support.h"

#include <information_api/windows_information_imp.h>

#include <QtTest>

#include <memory>

#include <sys/stat.h>

using namespace information_api;
using test_support::kind;
using test_support::read_record;
using test_support::utc_now;
using test_support::write_kind;

namespace {

QJsonValue parse(const QByteArray& json) { return QJsonDocument::fromJson("[" + json + "]").array().at(0); }

// Follows a "/"-separated path of keys and array indexes.
QJsonValue at(QJsonValue value, const QString& path)
{
    for (const QString& step : path.split('/'))
        value = value.isArray() ? value.toArray().at(step.toInt()) : value.toObject().value(step);
    return value;
}


}  // namespace

Q_DECLARE_METATYPE(kind)

class tst_record_kinds : public QObject {
    Q_OBJECT
private slots:
    void init() { cwd_ = std::make_unique<test_support::scoped_working_dir>(); }
    void cleanup() { cwd_.reset(); }

    void round_trip_data();
    void round_trip();
    void calibration_steps_data();
    void calibration_steps();
    void structured_scan_content();
    void structured_scan_conversions_data();
    void structured_scan_conversions();
    void structured_scan_stem_doubles_the_seconds();
    void flat_scan_record();
    void module_list_through_builders_data();
    void module_list_through_builders();
    void shared_state_across_records();
    void feedback_and_score_data();
    void feedback_and_score();
    void get_scan_info_edges_data();
    void get_scan_info_edges();
    void builder_log_lines();

private:
    std::unique_ptr<test_support::scoped_working_dir> cwd_;
};

void tst_record_kinds::round_trip_data()
{
    QTest::addColumn<kind>("k");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("tracingType");
    QTest::addColumn<QString>("fileName");  // pattern
    QTest::addColumn<QString>("textAt");    // where the stress text lands in the record

    const QString utcStem = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\dZ\.info2)";
    const QString plainStem = R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d)";
    QTest::newRow("usage") << kind::usage << "usage" << "usage" << plainStem + R"(\.info2)"
                           << "modularExt/modular/0/name";
    QTest::newRow("calibration") << kind::calibration << "calibration" << "calibration" << utcStem
                                 << "content/0/result";
    QTest::newRow("share") << kind::share << "share" << "share" << utcStem << "content/account";
    QTest::newRow("structured scan") << kind::structured_scan << "scan" << "scan"
                                     << R"(\d{4}-\d\d-\d\dT\d\d-\d\d-\d\d\.\d{3,4}Z\.info2)" << "content/fileName";
    QTest::newRow("flat scan") << kind::flat_scan << "scan" << "usage" << utcStem << "fileName";
    QTest::newRow("feedback") << kind::feedback << "feedback" << "feedback" << plainStem + R"(\.info2)"
                              << "content/content";
    QTest::newRow("score") << kind::score << "score" << "score" << plainStem + R"(\.score2)" << "content/industry";
}

void tst_record_kinds::round_trip()
{
    QFETCH(kind, k);
    QFETCH(QString, type);
    QFETCH(QString, tracingType);
    QFETCH(QString, fileName);
    QFETCH(QString, textAt);
    // Non-ASCII, quotes, the INI separators and a newline, all in one value.
    const QString text = QString::fromUtf8("扫a\"=;,\n");
    windows_information_imp m;
    const QString path = write_kind(m, k, text);

    const QStringList files = test_support::record_files();
    QCOMPARE(files.size(), 1);
    QVERIFY2(QRegularExpression("^" + fileName + "$").match(files.first()).hasMatch(), qPrintable(files.first()));
    QCOMPARE(path, "./veltrainfo/" + files.first());

    // Through QSettings, as an uploader reads it.
    const test_support::record_file rec = read_record(path);
    QCOMPARE(rec.type, type);
    QCOMPARE(at(rec.json(), textAt).toString(), text);
    QCOMPARE(rec.json()["tracingType"].toString(), tracingType);

    // Through the manager.
    QString data, readType;
    QCOMPARE(m.get_scan_info(path, data, readType), 0);
    QCOMPARE(readType, type);
    QCOMPARE(data.toUtf8(), rec.data);

    // Raw bytes: one quoted line, the UTF-8 bytes escaped (and the hex digit after them), JSON's
    // own backslashes doubled.
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QList<QByteArray> lines = file.readAll().split('\n');
    QCOMPARE(lines.size(), 4);
    QCOMPARE(lines[0], QByteArray("[General]"));
    const QByteArray head = R"(data="@ByteArray({\n    \")";
    const QByteArray tail = R"x(\n}\n)")x";
    const QByteArray text_escaped = R"(\"\xe6\x89\xab\x61\\\"=;,\\n\")";
    QVERIFY2(lines[1].startsWith(head) && lines[1].endsWith(tail), lines[1]);
    QVERIFY2(lines[1].contains(text_escaped), lines[1]);
    QCOMPARE(lines[2], "type=" + type.toUtf8());
}

void tst_record_kinds::calibration_steps_data()
{
    QTest::addColumn<QStringList>("classes");
    QTest::addColumn<QStringList>("results");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("shorter lists give empty fields")
        << QStringList{"c1", "c2", "c3"} << QStringList{"ok"}
        << QByteArray(R"([{"classsify":"c1","startOn":"s1","endOn":"e1","result":"ok","modular":"m1"},
                          {"classsify":"c2","startOn":"s2","endOn":"","result":"","modular":"m2"},
                          {"classsify":"c3","startOn":"","endOn":"","result":"","modular":""}])");
    QTest::newRow("no categories, no steps") << QStringList{} << QStringList{"ok", "ok"} << QByteArray("[]");
}

void tst_record_kinds::calibration_steps()
{
    QFETCH(QStringList, classes);
    QFETCH(QStringList, results);
    QFETCH(QByteArray, expected);
    windows_information_imp m;
    QStringList mods{"m1", "m2"}, starts{"s1", "s2"}, ends{"e1"}, pls{"P"};
    QString ver = "3.1", ple = "dev.ple", model = "K300", modular = "M", start = "S", end = "E";
    m.create_calibrate_inifo(mods, ver, ple, model, modular, pls, start, end, classes, starts, ends, results, 1);

    const QJsonObject record = read_record("./veltrainfo/" + test_support::record_files().value(0)).json();
    QCOMPARE(record["content"], parse(expected));
    QCOMPARE(record["startOn"].toString() + record["endOn"].toString(), QString("SE"));
    QCOMPARE(record["softwareVer"].toString(), ver);
    QCOMPARE(record["enableGuide"].toString(), QString("yes"));
    QCOMPARE(record["modularExt"], parse(R"({"ple":"dev.ple","modular":[{"name":"M","sn":"","mple":"P"}]})"));
    QCOMPARE(m.startOn + m.endOn + m.ple + m.modelName + m.softwareVer, QString("SEdev.pleK3003.1"));
    QCOMPARE(m.modularPles, pls);
}

void tst_record_kinds::structured_scan_content()
{
    windows_information_imp m;
    m.softwareVer = "4.0";
    _tag_scan_info info;
    info.startOn = "S";
    info.endOn = "E";
    info.modes.push_back({"ms", "me", "hd", "8", "on", {"marker", "feature"}, "turntable"});
    info.modes.push_back({"", "", "", "", "", {}, ""});
    info.texture = "tx";
    info.totalPoint = "1200";
    info.pointDis = "0.2";
    info.length = "0.1";
    info.width = "2";
    info.height = "0.3";
    info.handHeldPointGenWay = "hw";
    info.meshType = "watertight";
    info.fileName = "a.stl";
    m.add_scan_info(info, 1);

    const QJsonObject record = read_record("./veltrainfo/" + test_support::record_files().value(0)).json();
    QCOMPARE(record["content"], parse(R"({
        "mode": [{"startOn":"ms","endOn":"me","classsify":"hd","turntableSteps":"8","hdr":"on",
                  "alignMode":["marker","feature"],"modular":"turntable"},
                 {"startOn":"","endOn":"","classsify":"","turntableSteps":"","hdr":"","alignMode":[],"modular":""}],
        "texture":"tx","totalPoint":1200,"pointDis":"0.2","handHeldPointGenWay":"hw","meshType":"watertight",
        "fileName":"a.stl","box":{"length":0.10000000149011612,"width":2,"height":0.30000001192092896}})"));
    QCOMPARE(record["softwareVer"].toString(), QString("4.0"));
    QCOMPARE(record["startOn"].toString() + record["endOn"].toString(), QString("SE"));
    QCOMPARE(record["enableGuide"].toString(), QString("yes"));
}

void tst_record_kinds::structured_scan_conversions_data()
{
    QTest::addColumn<QString>("totalPoint");
    QTest::addColumn<QString>("length");
    QTest::addColumn<QByteArray>("expected");  // content without "mode"
    QTest::newRow("decimal") << "1200" << "12.5" << QByteArray(R"({"totalPoint":1200,"length":12.5})");
    QTest::newRow("trailing letters") << "12a" << "0.1x" << QByteArray(R"({"totalPoint":0,"length":0})");
    QTest::newRow("blanks around") << " 7 " << " 7 " << QByteArray(R"({"totalPoint":7,"length":7})");
    QTest::newRow("empty") << "" << "" << QByteArray(R"({"totalPoint":0,"length":0})");
    QTest::newRow("fraction as count") << "7.5" << "-0.1"
                                       << QByteArray(R"({"totalPoint":0,"length":-0.10000000149011612})");
    QTest::newRow("beyond 32 bits") << "4294967296" << "1e39" << QByteArray(R"({"totalPoint":0,"length":0})");
    QTest::newRow("no finite float") << "-2147483648" << "nan" << QByteArray(R"({"totalPoint":-2147483648,"length":0})");
    QTest::newRow("infinity") << "+5" << "-inf" << QByteArray(R"({"totalPoint":5,"length":0})");
}

void tst_record_kinds::structured_scan_conversions()
{
    QFETCH(QString, totalPoint);
    QFETCH(QString, length);
    QFETCH(QByteArray, expected);
    windows_information_imp m;
    _tag_scan_info info;
    info.totalPoint = totalPoint;
    info.length = length;
    m.add_scan_info(info, 0);
    const QJsonObject content =
        read_record("./veltrainfo/" + test_support::record_files().value(0)).json()["content"].toObject();
    QVERIFY(!content.contains("mode"));
    QCOMPARE(content.size(), 7);
    const QJsonObject want = parse(expected).toObject();
    QCOMPARE(content["totalPoint"], want["totalPoint"]);
    QCOMPARE(content["box"].toObject()["length"], want["length"]);
}

void tst_record_kinds::structured_scan_stem_doubles_the_seconds()
{
    windows_information_imp m;
    const QDateTime before = QDateTime::currentDateTimeUtc();
    m.add_scan_info(_tag_scan_info{}, 0);
    const QDateTime after = QDateTime::currentDateTimeUtc();

    const QString name = test_support::record_files().value(0);
    // "ss.sss": the seconds with two digits, then again as "ss" and "s" (no leading zero).
    const QRegularExpressionMatch match =
        QRegularExpression(R"(^(\d{4}-\d\d-\d\dT\d\d-\d\d-(\d\d))\.(\d\d)(\d{1,2})Z\.info2$)").match(name);
    QVERIFY2(match.hasMatch(), qPrintable(name));
    QCOMPARE(match.captured(3), match.captured(2));
    QCOMPARE(match.captured(4), QString::number(match.captured(2).toInt()));
    QDateTime stamp = QDateTime::fromString(match.captured(1), "yyyy-MM-ddThh-mm-ss");
    stamp.setTimeSpec(Qt::UTC);
    QVERIFY(stamp >= before.addMSecs(-before.time().msec()) && stamp <= after);
}

void tst_record_kinds::flat_scan_record()
{
    windows_information_imp m;
    m.startOn = "runStart";
    m.endOn = "runEnd";
    QString h = "1.5", l = "2", w = "3", file = "f.stl", way = "way", mesh = "mesh", align = "marker",
            cls = "cls", hdr = "hdr", mod = "topModular", s = "s", e = "e", dis = "0.1", tex = "tex", pts = "12a";
    m.create_scan_inifo(h, l, w, file, way, mesh, align, cls, hdr, mod, s, e, dis, tex, pts, "77", 1);

    const test_support::record_file rec = read_record("./veltrainfo/" + test_support::record_files().value(0));
    QCOMPARE(rec.type, QString("scan"));
    QJsonObject record = rec.json();
    QCOMPARE(record["tracingType"].toString(), QString("usage"));
    QCOMPARE(record["enableGuide"].toString(), QString("no"));  // the int argument is ignored
    QVERIFY(!record.contains("content"));
    QCOMPARE(record["modularExt"], parse(R"({"ple":""})"));
    for (const char* key : {"modelName", "seriaNum", "softwareName", "softwareVer", "tracingType", "enableGuide",
                            "osSoftExt", "osHdExt", "modularExt"})
        record.remove(key);
    QCOMPARE(QJsonValue(record), parse(R"({"height":"1.5","length":"2","width":"3","fileName":"f.stl",
        "handHeldPointGenWay":"way","meshType":"mesh","alignMode":"marker","classsify":"cls","hdr":"hdr",
        "modular":"topModular","startOn":"s","endOn":"e","pointDis":"0.1","texture":"tex","totalPoint":"12a",
        "totalFaces":"77"})"));
    // No manager field changes.
    QCOMPARE(m.startOn + m.endOn, QString("runStartrunEnd"));
    QVERIFY(m.modular.isNull() && m.enableGuide == 0);
}

void tst_record_kinds::module_list_through_builders_data()
{
    QTest::addColumn<kind>("k");
    QTest::addColumn<QStringList>("pls");
    QTest::addColumn<QString>("modular");
    QTest::addColumn<QByteArray>("expected");  // "modularExt"
    const QStringList gaps{"", "A", "", "B"};
    const QByteArray three = R"({"ple":"dev.ple","modular":[{"name":"M","sn":"","mple":""},
        {"name":"M","sn":"","mple":"A"},{"name":"M","sn":"","mple":"B"}]})";
    QTest::newRow("calibration, gaps") << kind::calibration << gaps << "M" << three;
    QTest::newRow("structured scan, gaps") << kind::structured_scan << gaps << "M" << three;
    QTest::newRow("feedback, gaps") << kind::feedback << gaps << "M" << three;
    QTest::newRow("only empty profiles") << kind::calibration << QStringList{"", ""} << "M"
                                         << QByteArray(R"({"ple":"dev.ple","modular":[{"name":"M","sn":"","mple":""}]})");
    QTest::newRow("profile without module name") << kind::structured_scan << QStringList{"A"} << ""
                                                 << QByteArray(R"({"ple":"dev.ple","modular":[{"name":"","sn":"","mple":"A"}]})");
    QTest::newRow("neither") << kind::feedback << QStringList{} << "" << QByteArray(R"({"ple":"dev.ple"})");
}

void tst_record_kinds::module_list_through_builders()
{
    QFETCH(kind, k);
    QFETCH(QStringList, pls);
    QFETCH(QString, modular);
    QFETCH(QByteArray, expected);
    windows_information_imp m;
    const QString path = write_kind(m, k, "text", pls, modular);
    QCOMPARE(read_record(path).json()["modularExt"], parse(expected));
    QCOMPARE(m.modularPles, pls);
}

void tst_record_kinds::shared_state_across_records()
{
    windows_information_imp m;
    write_kind(m, kind::calibration, "ok", {"P1", "P2"}, "M");
    QFile::remove("./veltrainfo/" + test_support::record_files().value(0));

    // The share sets its own period, profile, model and module, and keeps the calibration's
    // software version and module profiles.
    QString ple = "share.ple", model = "K400", modular = "S", start = "S2", end = "E2", t = "t", n = "n", a = "a";
    m.create_share_inifo(ple, model, modular, start, end, t, n, a, 1);
    const QJsonObject share = read_record("./veltrainfo/" + test_support::record_files().value(0)).json();
    QCOMPARE(share["softwareVer"].toString(), QString("3.1"));
    QCOMPARE(share["modularExt"], parse(R"({"ple":"share.ple","modular":[{"name":"S","sn":"","mple":"P1"},
                                            {"name":"S","sn":"","mple":"P2"}]})"));
    QCOMPARE(share["startOn"].toString() + share["endOn"].toString(), QString("S2E2"));
    QCOMPARE(share["content"], parse(R"({"target":"t","name":"n","account":"a"})"));

    // A usage record with an empty start carries the last record's period; it empties the profiles.
    QString ver = "5.0";
    m.create_usage_inifo(QString(), ple, ver, model, modular, 0);
    const QJsonObject usage = read_record(m.usageFilePath).json();
    QCOMPARE(usage["startOn"].toString() + usage["endOn"].toString(), QString("S2E2"));
    QVERIFY(m.modularPles.isEmpty());

    // Feedback keeps the profiles it was given, a score empties them; both stamp the period now.
    QString email, industry, content;
    QStringList pls{"F"}, attachs;
    const QString before = utc_now();
    m.create_userfeedback_info(ple, ver, model, modular, pls, 0, email, industry, content, attachs);
    QCOMPARE(m.modularPles, pls);
    QVERIFY(m.startOn >= before && m.startOn <= utc_now() && m.endOn == m.startOn);
    m.add_user_score("3", ple, ver, model, modular, industry, 0);
    QVERIFY(m.modularPles.isEmpty());
    QVERIFY(m.usageRecord == usage);  // neither touches the usage record
}

void tst_record_kinds::feedback_and_score_data()
{
    QTest::addColumn<QString>("ple");
    QTest::addColumn<QString>("recordedPle");
    QTest::addColumn<QString>("score");
    QTest::addColumn<int>("recordedScore");
    QTest::newRow("variant removed, decimal") << "pro-2xK300.ple" << "pro-K300.ple" << "9" << 9;
    QTest::newRow("case-insensitive, blanks") << "ab-1K300.PLE" << "ab-K300.PLE" << " 7 " << 7;
    QTest::newRow("nothing between, letters") << "pro-K300.ple" << "pro-K300.ple" << "abc" << 0;
    QTest::newRow("match first, fraction") << "K300.ple" << "K300.ple" << "7.5" << 0;
    QTest::newRow("dash first, empty") << "-xK300.ple" << "-xK300.ple" << "" << 0;
    QTest::newRow("other profile, trailing letter") << "abc-x.ple" << "abc-x.ple" << "12a" << 0;
}

void tst_record_kinds::feedback_and_score()
{
    QFETCH(QString, ple);
    QFETCH(QString, recordedPle);
    QFETCH(QString, score);
    QFETCH(int, recordedScore);
    windows_information_imp m;
    QString ver = "6.0", model = "K300", modular = "M", email = "u@x.y", industry = "dental", text = "fine";
    QStringList pls{"P"}, attachs{"a.png", QString::fromUtf8("图.jpg")};

    const QString feedbackPath =
        m.create_userfeedback_info(ple, ver, model, modular, pls, 1, email, industry, text, attachs);
    QCOMPARE(m.ple, recordedPle);
    const test_support::record_file feedback = read_record(feedbackPath);
    QCOMPARE(feedback.type, QString("feedback"));
    QCOMPARE(feedback.json()["content"], parse(QString(R"({"email":"u@x.y","industry":"dental","content":"fine",
                                                          "attachs":["a.png","图.jpg"]})").toUtf8()));
    QCOMPARE(at(feedback.json(), "modularExt/ple").toString(), recordedPle);
    QCOMPARE(feedback.json()["enableGuide"].toString(), QString("yes"));

    const QString scorePath = m.add_user_score(score, ple, ver, model, modular, industry, 0);
    QVERIFY(scorePath.endsWith(".score2"));
    const test_support::record_file rec = read_record(scorePath);
    QCOMPARE(rec.type, QString("score"));
    QCOMPARE(rec.json()["content"], parse(QString(R"({"score":%1,"industry":"dental"})").arg(recordedScore).toUtf8()));
    QCOMPARE(at(rec.json(), "modularExt"), parse(QString(R"({"ple":"%1","modular":[{"name":"M","sn":"","mple":""}]})")
                                                     .arg(recordedPle).toUtf8()));
    QCOMPARE(rec.json()["startOn"].toString(), rec.json()["endOn"].toString());
}

void tst_record_kinds::get_scan_info_edges_data()
{
    QTest::addColumn<QByteArray>("file");  // null: no file at all
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("data");
    QTest::addColumn<bool>("dataNull");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("refusal");  // the reason logged for a file QSettings must not read
    QTest::newRow("missing file") << QByteArray() << -1 << "kept" << false << "kept" << "";
    QTest::newRow("no data key") << QByteArray("[General]\ntype=share\n") << 0 << "" << true << "share" << "";
    QTest::newRow("no type key") << QByteArray("[General]\ndata=@ByteArray(x)\n") << 0 << "x" << false << "" << "";
    QTest::newRow("data cut at NUL") << QByteArray("[General]\ndata=@ByteArray(ab\\0cd)\ntype=t\n") << 0 << "ab"
                                     << false << "t" << "";
    QTest::newRow("plain text data") << QByteArray("[General]\ndata=plain\ntype=t\n") << 0 << "plain" << false << "t" << "";
    QTest::newRow("variant text inside a record") << QByteArray("[General]\ndata=\"@ByteArray(a,@Variant(\\0))\"\ntype=t\n")
                                                  << 0 << "a,@Variant(" << false << "t" << "";
    // QSettings would decode these with QDataStream: a list of 2^31 entries, a list nested 200,000 deep.
    const QString variant = "holds a serialised QVariant";
    QTest::newRow("serialised variant") << QByteArray("[General]\ndata=@Variant(\\0\\0\\0\\v\\x7f\\xff\\xff\\xff)\ntype=usage\n")
                                        << -1 << "kept" << false << "kept" << variant;
    QTest::newRow("nested 200,000 deep") << "[General]\ntype=usage\ndata=@Variant(" + QByteArray(R"(\0\0\0\t\0\0\0\x1)").repeated(200000) + ")\n"
                                         << -1 << "kept" << false << "kept" << variant;
    QTest::newRow("escaped, quoted, in a list, beside data")
        << QByteArray("[General]\ndata=@ByteArray(x)\nk=a, \"\\100DateTime(\\0\\0\\0\\v\\0\\x7f\\xff\\xff\\xff)\"\n")
        << -1 << "kept" << false << "kept" << variant;
    QTest::newRow("larger than 16 MiB") << "[General]\ntype=t\ndata=" + QByteArray(16 << 20, 'x') << -1 << "kept" << false
                                        << "kept" << "larger than 16 MiB";
    QTest::newRow("a pipe nobody writes to") << QByteArray("<fifo>") << -1 << "kept" << false << "kept" << "not a regular file";
}

void tst_record_kinds::get_scan_info_edges()
{
    QFETCH(QByteArray, file);
    QFETCH(int, result);
    QFETCH(QString, data);
    QFETCH(bool, dataNull);
    QFETCH(QString, type);
    QFETCH(QString, refusal);
    const QString path = "record.info2";
    if (file == "<fifo>") {
        QCOMPARE(mkfifo(qPrintable(path), 0600), 0);
    } else if (!file.isNull()) {
        QFile out(path);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(file);
    }
    windows_information_imp m;
    QString gotData = "kept", gotType = "kept";
    test_support::glog_capture log;
    QStringList debug_messages;
    {
        test_support::qdebug_capture debug;
        QCOMPARE(m.get_scan_info(path, gotData, gotType), result);
        debug_messages = debug.located();
    }
    QCOMPARE(gotData, data);
    QCOMPARE(gotData.isNull(), dataNull);
    QCOMPARE(gotType, type);
    if (result < 0) {
        QCOMPARE(log.lines(), QStringList{file.isNull() ? "file not exist" + path
                                                        : "get_scan_info refused " + path + ": " + refusal});
        QVERIFY(debug_messages.isEmpty());
    } else {
        QCOMPARE(debug_messages, QStringList{QString("default|information_api/windows_information_imp.cpp|virtual int "
                                                     "information_api::windows_information_imp::get_scan_info(const "
                                                     "QString &, QString &, QString &)|type= \"%1\"").arg(type)});
    }
}

void tst_record_kinds::builder_log_lines()
{
    windows_information_imp m;
    test_support::glog_capture log;
    write_kind(m, kind::calibration, "ok", {"", "A", "", "B"}, QString::fromUtf8("转台"));
    write_kind(m, kind::structured_scan, "f", {}, "M");
    QCOMPARE(log.lines(), (QStringList{QString::fromUtf8("modular=转台device_ex_ple.size=4"),
                                       QString::fromUtf8("modular=转台modular_ple.size=4"),
                                       "add_scan_info this->softwareVer = 3.1", "modular=Mmodular_ple.size=0"}));
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    app.setApplicationName("tst_record_kinds");
    tst_record_kinds test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_record_kinds.moc"
