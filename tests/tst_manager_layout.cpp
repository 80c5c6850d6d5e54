// Hosts built against the library call virtual operations by slot, read data members by offset and
// address the connector's signals and slots by index: none of them may move.
#include "test_support.h"

#include <information_api/http.h>
#include <information_api/json_handler.h>

#include <cstring>

using namespace test_support;

namespace {

// Under the Itanium C++ ABI a pointer to a virtual member function holds 1 + its entry's byte offset.
template <typename Fn> long slot_of(Fn fn)
{
    static_assert(sizeof(Fn) == 2 * sizeof(void*), "Itanium member function pointer expected");
    long raw[2];
    std::memcpy(raw, &fn, sizeof raw);
    return (raw[0] & 1) ? long((raw[0] - 1) / sizeof(void*)) : -1;
}

template <typename... Fn> QString slots_of(Fn... fns)
{
    return QStringList{QString::number(slot_of(fns))...}.join(' ');
}

// Each member's offset in `object`, then the object's size.
template <typename Object, typename... Member> QString offsets(const Object& object, const Member&... members)
{
    const auto at = [&](const void* member) {
        return QString::number(static_cast<const char*>(member) - reinterpret_cast<const char*>(&object));
    };
    return QStringList{at(&members)..., QString::number(sizeof object)}.join(' ');
}

// `count` numbers from `first` on, `step` apart.
QString from(long first, int count, long step = 1)
{
    QStringList numbers;
    for (int i = 0; i < count; ++i)
        numbers << QString::number(first + i * step);
    return numbers.join(' ');
}

}  // namespace

class tst_manager_layout : public QObject {
    Q_OBJECT
private slots:
    void layout_data();
    void layout()
    {
        QFETCH(QString, actual);
        QFETCH(QString, expected);
        QCOMPARE(actual, expected);
    }
    void connector_meta_object();
};

void tst_manager_layout::layout_data()
{
    QTest::addColumn<QString>("actual");
    QTest::addColumn<QString>("expected");
    using I = VeltraInfoMgr;
    using W = windows_information_imp;
    // Entries 0 and 1 hold the two destructors of the virtual destructor.
    QTest::newRow("manager's operations") << slots_of(&I::setSoftwareName, &I::add_scan_info, &I::create_calibrate_inifo,
        &I::create_share_inifo, &I::create_usage_inifo, &I::add_user_score, &I::create_userfeedback_info,
        &I::clear_timeout_file, &I::get_upload_files, &I::get_reconnect_intval, &I::set_ple, &I::set_sn,
        &I::get_upload_config, &I::get_scan_info, &I::get_score_files, &I::get_domain_manger_url, &I::set_upload_url,
        &I::downloadApp, &I::getUploadFileUrl, &I::setUploadFileUrl, &I::end_usage_info, &I::begin_calib_info,
        &I::end_calib_info, &I::begin_scan_info, &I::end_scan_info, &I::setDeviceSerial, &I::setSoftwareVer) << from(2, 27);
    QTest::newRow("implementation's own") << slots_of(&W::setSoftwareName, &W::setSoftwareVer, &W::create_scan_inifo,
        &W::get_os_info, &W::get_install_info, &W::get_cpu_info, &W::get_gpu_info, &W::get_memory_info,
        &W::get_default_browser) << "2 28 " + from(29, 7);
    QTest::newRow("sink, handler") << slots_of(&information_sink::on_response, &information_sink::on_download_progress,
        &information_sink::on_download_finished, &json_handler::operator(), &json_handler::processing) << "2 3 4 2 3";
    // QObject's eleven virtual entries (two destructors among them) and QThread::run come first.
    QTest::newRow("worker thread") << slots_of(&api_thread::run, &api_thread::start, &api_thread::stop) << "12 13 14";

    // LP64: a vtable pointer, then 8-byte Qt handles (QJsonObject and QObject are 16).
    W m;
    const I& base = m;
    QTest::newRow("manager's members") << offsets(base, base.usageStart, base.modelName, base.seriaNum, base.softwareName,
        base.softwareVer, base.spareText1, base.startOn, base.endOn, base.osName, base.lang, base.resolution,
        base.spareText2, base.installPath, base.browserName, base.browserVersion, base.cpuCores, base.cpuModel,
        base.memSize, base.gpuModels, base.gpuMemSizes, base.hddSize, base.hddRemainSize, base.ple, base.modular,
        base.modularPles) << from(8, 26, 8);
    QTest::newRow("implementation's members") << offsets(m, m.enableGuide, m.systemSettings, m.spareText3, m.spareFlag,
        m.usageFilePath, m.usageRecord, m.releaseUploadUrl, m.testUploadUrl, m.releaseFileUploadUrl, m.testFileUploadUrl)
        << "208 216 232 240 248 256 272 280 288 296 304";
    _tag_scan_info s;  // every member one pointer wide but the modes (three)
    QTest::newRow("scan") << offsets(s, s.ple, s.modelName, s.modular, s.spare1, s.startOn, s.endOn, s.modes, s.texture,
        s.totalPoint, s.pointDis, s.length, s.width, s.height, s.handHeldPointGenWay, s.meshType, s.fileName, s.spare2,
        s.spare3, s.spare4, s.modularPles) << from(0, 7, 8) + " " + from(72, 14, 8);
    _tag_scan_mode mode;
    QTest::newRow("scan mode") << offsets(mode, mode.startOn, mode.endOn, mode.classsify, mode.turntableSteps, mode.hdr,
        mode.alignMode, mode.modular) << from(0, 8, 8);
    response_info_t r;
    QTest::newRow("response") << offsets(r, r.ok, r.msg, r.ret, r.net_error, r.result, r.content) << "0 8 16 20 24 32 48";
    http_connector c(0, nullptr, nullptr);
    QTest::newRow("connector") << offsets(c, c.rt_, c.timer_, c.manager, c.request_, c.reply_, c.bytes_received_,
        c.last_activity_, c.sink_, c.id_, c.handler_, c.file_path_) << from(16, 12, 8);
    QTest::newRow("response type name") << QString(QMetaType::typeName(qMetaTypeId<response_info_t>()))
                                        << "information_api::response_info_t";
}

void tst_manager_layout::connector_meta_object()
{
    // Hosts and queued connections address these by index.
    const QStringList expected{"finished() signal", "replyFinished(QNetworkReply*)", "replyDownload(QNetworkReply*)",
        "timeout_event()", "http_ready_read()", "update_data_read_progress(qlonglong,qlonglong)",
        "update_data_write_progress(qlonglong,qlonglong)", "error(QNetworkReply::NetworkError)",
        "sslErrors(QList<QSslError>)", "slot_onDownLoadFileReadyRead()",
        "slot_onDownLoadFileError(QNetworkReply::NetworkError)", "slot_onDownLoadFileSSLError(QList<QSslError>)",
        "slot_onDownLoadFileDownloadProgress(qlonglong,qlonglong)", "slot_onDownLoadFileFinished()"};
    const QMetaObject& meta = http_connector::staticMetaObject;
    QStringList actual;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        actual << meta.method(i).methodSignature() + (meta.method(i).methodType() == QMetaMethod::Signal ? " signal" : "");
    QCOMPARE(actual, expected);
    QCOMPARE(api_thread::staticMetaObject.methodCount(), QThread::staticMetaObject.methodCount());
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);  // the manager's constructor reads the application's name
    tst_manager_layout test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_manager_layout.moc"
