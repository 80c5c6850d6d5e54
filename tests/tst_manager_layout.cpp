// Guards the manager's binary layout: hosts built against it call virtual operations by slot and
// read data members by offset, so neither may move.
#include <information_api/http.h>
#include <information_api/information_api.h>
#include <information_api/json_handler.h>
#include <information_api/windows_information_imp.h>

#include <QtTest>

#include <cstring>

using namespace information_api;

namespace {

// Under the Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte offset of
// its entry in the vtable.
template <typename Fn>
long vtable_slot(Fn fn)
{
    static_assert(sizeof(Fn) == 2 * sizeof(void*), "Itanium member function pointer expected");
    long raw[2];
    std::memcpy(raw, &fn, sizeof raw);
    return (raw[0] & 1) ? long((raw[0] - 1) / sizeof(void*)) : -1;
}

template <typename Object, typename Member>
long offset_in(const Object& object, const Member& member)
{
    return long(reinterpret_cast<const char*>(&member) - reinterpret_cast<const char*>(&object));
}

}  // namespace

class tst_manager_layout : public QObject {
    Q_OBJECT
private slots:
    void virtual_slots_data();
    void virtual_slots();
    void data_members_data();
    void data_members();
    void scan_info_members();
    void transport_types();
};

void tst_manager_layout::virtual_slots_data()
{
    QTest::addColumn<long>("actual");
    QTest::addColumn<long>("expected");
    // Entries 0 and 1 hold the two destructors of the virtual destructor.
    using I = VeltraInfoMgr;
    using W = windows_information_imp;
#define SLOT_ROW(cls, fn, n) QTest::newRow(#cls "::" #fn) << vtable_slot(&cls::fn) << long(n)
    SLOT_ROW(I, setSoftwareName, 2);
    SLOT_ROW(I, add_scan_info, 3);
    SLOT_ROW(I, create_calibrate_inifo, 4);
    SLOT_ROW(I, create_share_inifo, 5);
    SLOT_ROW(I, create_usage_inifo, 6);
    SLOT_ROW(I, add_user_score, 7);
    SLOT_ROW(I, create_userfeedback_info, 8);
    SLOT_ROW(I, clear_timeout_file, 9);
    SLOT_ROW(I, get_upload_files, 10);
    SLOT_ROW(I, get_reconnect_intval, 11);
    SLOT_ROW(I, set_ple, 12);
    SLOT_ROW(I, set_sn, 13);
    SLOT_ROW(I, get_upload_config, 14);
    SLOT_ROW(I, get_scan_info, 15);
    SLOT_ROW(I, get_score_files, 16);
    SLOT_ROW(I, get_domain_manger_url, 17);
    SLOT_ROW(I, set_upload_url, 18);
    SLOT_ROW(I, downloadApp, 19);
    SLOT_ROW(I, getUploadFileUrl, 20);
    SLOT_ROW(I, setUploadFileUrl, 21);
    SLOT_ROW(I, end_usage_info, 22);
    SLOT_ROW(I, begin_calib_info, 23);
    SLOT_ROW(I, end_calib_info, 24);
    SLOT_ROW(I, begin_scan_info, 25);
    SLOT_ROW(I, end_scan_info, 26);
    SLOT_ROW(I, setDeviceSerial, 27);
    SLOT_ROW(I, setSoftwareVer, 28);
    SLOT_ROW(W, setSoftwareName, 2);
    SLOT_ROW(W, end_scan_info, 26);
    SLOT_ROW(W, setSoftwareVer, 28);
    SLOT_ROW(W, create_scan_inifo, 29);
    SLOT_ROW(W, get_os_info, 30);
    SLOT_ROW(W, get_install_info, 31);
    SLOT_ROW(W, get_cpu_info, 32);
    SLOT_ROW(W, get_gpu_info, 33);
    SLOT_ROW(W, get_memory_info, 34);
    SLOT_ROW(W, get_default_browser, 35);
#undef SLOT_ROW
}

void tst_manager_layout::virtual_slots()
{
    QFETCH(long, actual);
    QFETCH(long, expected);
    QCOMPARE(actual, expected);
}

void tst_manager_layout::data_members_data()
{
    QTest::addColumn<long>("actual");
    QTest::addColumn<long>("expected");
    windows_information_imp m;
    const VeltraInfoMgr& base = m;
    // LP64 offsets: a vtable pointer, then 8-byte Qt handles (QJsonObject and QObject are 16).
    const struct {
        const char* name;
        long actual;
        long expected;
    } rows[] = {
        {"usageStart", offset_in(base, base.usageStart), 8},
        {"modelName", offset_in(base, base.modelName), 16},
        {"seriaNum", offset_in(base, base.seriaNum), 24},
        {"softwareName", offset_in(base, base.softwareName), 32},
        {"softwareVer", offset_in(base, base.softwareVer), 40},
        {"spareText1", offset_in(base, base.spareText1), 48},
        {"startOn", offset_in(base, base.startOn), 56},
        {"endOn", offset_in(base, base.endOn), 64},
        {"osName", offset_in(base, base.osName), 72},
        {"lang", offset_in(base, base.lang), 80},
        {"resolution", offset_in(base, base.resolution), 88},
        {"spareText2", offset_in(base, base.spareText2), 96},
        {"installPath", offset_in(base, base.installPath), 104},
        {"browserName", offset_in(base, base.browserName), 112},
        {"browserVersion", offset_in(base, base.browserVersion), 120},
        {"cpuCores", offset_in(base, base.cpuCores), 128},
        {"cpuModel", offset_in(base, base.cpuModel), 136},
        {"memSize", offset_in(base, base.memSize), 144},
        {"gpuModels", offset_in(base, base.gpuModels), 152},
        {"gpuMemSizes", offset_in(base, base.gpuMemSizes), 160},
        {"hddSize", offset_in(base, base.hddSize), 168},
        {"hddRemainSize", offset_in(base, base.hddRemainSize), 176},
        {"ple", offset_in(base, base.ple), 184},
        {"modular", offset_in(base, base.modular), 192},
        {"modularPles", offset_in(base, base.modularPles), 200},
        {"sizeof(VeltraInfoMgr)", long(sizeof(VeltraInfoMgr)), 208},
        {"enableGuide", offset_in(m, m.enableGuide), 208},
        {"systemSettings", offset_in(m, m.systemSettings), 216},
        {"spareText3", offset_in(m, m.spareText3), 232},
        {"spareFlag", offset_in(m, m.spareFlag), 240},
        {"usageFilePath", offset_in(m, m.usageFilePath), 248},
        {"usageRecord", offset_in(m, m.usageRecord), 256},
        {"releaseUploadUrl", offset_in(m, m.releaseUploadUrl), 272},
        {"testUploadUrl", offset_in(m, m.testUploadUrl), 280},
        {"releaseFileUploadUrl", offset_in(m, m.releaseFileUploadUrl), 288},
        {"testFileUploadUrl", offset_in(m, m.testFileUploadUrl), 296},
        {"sizeof(windows_information_imp)", long(sizeof(windows_information_imp)), 304},
    };
    for (const auto& row : rows)
        QTest::newRow(row.name) << row.actual << row.expected;
}

void tst_manager_layout::data_members()
{
    QFETCH(long, actual);
    QFETCH(long, expected);
    QCOMPARE(actual, expected);
}

void tst_manager_layout::scan_info_members()
{
    _tag_scan_info s;
    const long offsets[] = {
        offset_in(s, s.ple), offset_in(s, s.modelName), offset_in(s, s.modular), offset_in(s, s.spare1),
        offset_in(s, s.startOn), offset_in(s, s.endOn), offset_in(s, s.modes), offset_in(s, s.texture),
        offset_in(s, s.totalPoint), offset_in(s, s.pointDis), offset_in(s, s.length), offset_in(s, s.width),
        offset_in(s, s.height), offset_in(s, s.handHeldPointGenWay), offset_in(s, s.meshType),
        offset_in(s, s.fileName), offset_in(s, s.spare2), offset_in(s, s.spare3), offset_in(s, s.spare4),
        offset_in(s, s.modularPles), long(sizeof s)};
    // Every member is one pointer wide except the mode vector (three pointers).
    const long expected[] = {0, 8, 16, 24, 32, 40, 48, 72, 80, 88, 96, 104, 112, 120, 128, 136, 144, 152, 160, 168, 176};
    for (size_t i = 0; i < sizeof offsets / sizeof *offsets; ++i)
        QCOMPARE(offsets[i], expected[i]);

    _tag_scan_mode mode;
    const long mode_offsets[] = {offset_in(mode, mode.startOn), offset_in(mode, mode.endOn),
                                 offset_in(mode, mode.classsify), offset_in(mode, mode.turntableSteps),
                                 offset_in(mode, mode.hdr), offset_in(mode, mode.alignMode),
                                 offset_in(mode, mode.modular), long(sizeof mode)};
    for (int i = 0; i < 8; ++i)
        QCOMPARE(mode_offsets[i], long(8 * i));
}

void tst_manager_layout::transport_types()
{
    // The sink is implemented by hosts: its operations are called by slot.
    QCOMPARE(vtable_slot(&information_sink::on_response), 2L);
    QCOMPARE(vtable_slot(&information_sink::on_download_progress), 3L);
    QCOMPARE(vtable_slot(&information_sink::on_download_finished), 4L);
    QCOMPARE(vtable_slot(&json_handler::operator()), 2L);
    QCOMPARE(vtable_slot(&json_handler::processing), 3L);
    // QObject's eleven virtual entries (two destructors among them) and QThread::run come first.
    QCOMPARE(vtable_slot(&api_thread::run), 12L);
    QCOMPARE(vtable_slot(&api_thread::start), 13L);
    QCOMPARE(vtable_slot(&api_thread::stop), 14L);

    response_info_t r;
    const long record[] = {offset_in(r, r.ok), offset_in(r, r.msg), offset_in(r, r.ret),
                           offset_in(r, r.net_error), offset_in(r, r.result),
                           offset_in(r, r.content), long(sizeof r)};
    const long expected_record[] = {0, 8, 16, 20, 24, 32, 48};
    for (int i = 0; i < 7; ++i)
        QCOMPARE(record[i], expected_record[i]);
    QCOMPARE(QMetaType::typeName(qMetaTypeId<response_info_t>()), "information_api::response_info_t");

    http_connector c(0, nullptr, nullptr);
    const long fields[] = {offset_in(c, c.rt_), offset_in(c, c.timer_), offset_in(c, c.manager),
                           offset_in(c, c.request_), offset_in(c, c.reply_),
                           offset_in(c, c.bytes_received_), offset_in(c, c.last_activity_),
                           offset_in(c, c.sink_), offset_in(c, c.id_), offset_in(c, c.handler_),
                           offset_in(c, c.file_path_), long(sizeof c)};
    const long expected_fields[] = {16, 24, 32, 40, 48, 56, 64, 72, 80, 88, 96, 104};
    for (int i = 0; i < 12; ++i)
        QCOMPARE(fields[i], expected_fields[i]);
}

int main(int argc, char** argv)
{
    // The manager's constructor reads the application name, so an application object must exist.
    QCoreApplication app(argc, argv);
    tst_manager_layout test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_manager_layout.moc"
