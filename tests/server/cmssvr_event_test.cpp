// Event ingestion: records built here, a catalogue in the global vectors, rows in a
// throwaway database and pictures in a file store under a temporary directory.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "comm/globle.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "support/catalogbuilder.h"
#include "support/daemon.h"
#include "support/testdb.h"

namespace {

constexpr int kDevLogin = 7;  // device 100, linked over the message protocol (mode 0)
constexpr int kSvrLogin = 9;  // server 200, linked over an analytics event link (mode 1)
using Bytes = std::vector<unsigned char>;

_msg_alarm_comm Record(uint32_t eventType, const char* serial = "3") {
    _msg_alarm_comm r{};
    r.unTime = gettime(2024, 3, 5, 7, 4, 9);
    std::snprintf(r.szSerial, sizeof r.szSerial, "%s", serial);
    r.nEventType = static_cast<int>(eventType);
    return r;
}

// Exactly sized, so any read past the end is a real overrun: an optional _msg_device
// naming the sender, the record, then `pictureBytes` bytes.
Bytes Buffer(const _msg_alarm_comm& r, size_t pictureBytes = 0, const char* sender = nullptr) {
    Bytes b(sender ? sizeof(_msg_device) : 0);
    if (sender) std::snprintf(reinterpret_cast<char*>(b.data()), b.size(), "%s", sender);
    const auto* p = reinterpret_cast<const unsigned char*>(&r);
    b.insert(b.end(), p, p + sizeof r);
    b.resize(b.size() + pictureBytes, 0x5A);
    return b;
}

class EventIngestion : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(db.Exec(
            "insert into devicechan(id) values (300); insert into device(id) values (100);"
            "insert into serverchan(id, serverid, sindex) values (500, 200, 2), (501, 201, 2)"));
        dlg = std::make_unique<CCMSSvrDlg>();
        ReleaseArray(m_arrFilePath);
        for (const char* area : {"intv", "face", "diagnoss"}) {
            auto* a = new _file_path{};
            std::snprintf(a->name, sizeof a->name, "%s", area);
            std::snprintf(a->path, sizeof a->path, "%s", store.File(area).c_str());
            a->mode = std::string(area) == "face" ? 1 : 0;
            m_arrFilePath.push_back(a);
        }
        _hcrecord_Info* dev = catalog.Device(100, 0, "DEV-100", "", 0);
        _sysserver_info* svr = catalog.Server(200, 0, 0, "", "", 0);
        // Channel 3 of device 100 with hardware type 2 comes first; it must not be chosen.
        _msg_video_record_base* other = catalog.Channel(299, 100, 3);
        catalog.Channel(300, 100, 3);
        CatalogWriteLock lock(csCatalog);
        dev->dev.nStatus = 0x5;
        CatalogSetLogin(*dev, kDevLogin);
        svr->nMode = 1;
        CatalogSetLogin(*svr, kSvrLogin);
        other->nType = 2;
        CatalogIndexRefile(*other);
    }

    void Send(int login, int mode, const Bytes& b, int length = -1) {
        dlg->ProcessEventBuf(login, mode, b.data(),
                             length < 0 ? static_cast<int>(b.size()) : length);
    }
    void FromDevice(const Bytes& b) { Send(kDevLogin, 0, b); }
    void FromStruct(const Bytes& b) {
        dlg->ProcessEventFromStruct(b.data(), static_cast<int>(b.size()));
    }
    // Columns of the newest row joined with '|'.
    std::string Last(const std::string& table, const std::string& cols) {
        return db.Scalar("select concat_ws('|'," + cols + ") from " + table +
                         " order by id desc limit 1");
    }
    long long Picture(const std::string& area, const std::string& table, const char* suffix = "") {
        const std::string id = db.Scalar("select max(id) from " + table);
        return get_file_size(store.File(area + "/" + id + suffix).c_str());
    }
    uint32_t ChannelStatus() {
        CatalogReadLock lock(csCatalog);
        return m_arrVideoChanInfos[1]->nStatus;
    }

    cmstest::TestDatabase db;
    cmstest::TempDir store;
    cmstest::CatalogBuilder catalog;  // outlives dlg
    std::unique_ptr<CCMSSvrDlg> dlg;
};

TEST_F(EventIngestion, DeviceStateIsWrittenOnlyWhenTheOfflineBitChanges) {
    FromDevice(Buffer(Record(0x01000000 | DEVSTATE_DISLINK_RESUME)));
    EXPECT_EQ(db.Count("deveventlog"), 0);

    auto lost = Record(0x01000000 | DEVSTATE_DISLINK);
    std::snprintf(lost.szInfo, sizeof lost.szInfo, "link lost");
    testing::internal::CaptureStdout();
    FromDevice(Buffer(lost));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("device (300 3)status :1\n"),
              std::string::npos);
    EXPECT_EQ(ChannelStatus(), 0x10000u);
    EXPECT_EQ(db.Scalar("select status from devicechan"), "65536");
    EXPECT_EQ(Last("deveventlog", "nodeid,nodetype,eventtype,descript"), "300|3|1|link lost");

    FromDevice(Buffer(lost));  // already off-line
    EXPECT_EQ(db.Count("deveventlog"), 1);
    FromDevice(Buffer(Record(0x01000000 | DEVSTATE_DISLINK_RESUME)));
    EXPECT_EQ(ChannelStatus(), 0u);
    EXPECT_EQ(db.Scalar("select concat(status, count(*)) from devicechan, deveventlog"), "02");
}

TEST_F(EventIngestion, SendersAreFoundByLinkOrSerialElseDropped) {
    const Bytes named = Buffer(Record(0x03000005), 0, "DEV-100");
    Send(55, 0, named);  // unlinked, but names itself
    EXPECT_EQ(Last("intveventlog", "nodeid,nodetype,eventtype"), "300|3|5");

    testing::internal::CaptureStdout();
    Send(55, 1, named);  // event links never carry a serial head
    Send(55, 0, Buffer(Record(0x03000005)));
    Send(55, 0, named, 30);
    FromDevice(Buffer(Record(0x03000005, "4")));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("alarm not find device\n"), std::string::npos);
    EXPECT_NE(out.find("alarm not find chan\n"), std::string::npos);

    // Records cut short are dropped without reading past the buffer.
    const Bytes whole = Buffer(Record(0x03000005));
    FromDevice(Bytes(whole.begin(), whole.end() - 1));
    FromStruct(Bytes(whole.begin(), whole.begin() + 100));
    Send(55, 0, named, 64 + 20);
    dlg->ProcessEventBuf(kDevLogin, 0, nullptr, 500);
    EXPECT_EQ(db.Count("intveventlog") + db.Count("intveventlog2"), 1);
}

TEST_F(EventIngestion, AnalyticsAlarmStoresRowAndPicture) {
    auto r = Record(0x03000005);
    r.nReserve[1] = 17;
    std::snprintf(r.szInfo, sizeof r.szInfo, "intrusion");
    r.nPicLen[0] = 100;
    FromDevice(Buffer(r, 100));
    EXPECT_EQ(Last("intveventlog", "nodeid,nodetype,eventtype,param,descript,loctime"),
              "300|3|5|17|intrusion|2024-03-05 07:04:09");
    EXPECT_EQ(Picture("intv", "intveventlog"), 100);

    r.nPicLen[0] = 5000;  // more than arrived: the row without the picture
    FromDevice(Buffer(r, 10));
    EXPECT_EQ(Picture("intv", "intveventlog"), -1);

    FromDevice(Buffer(Record(0x03000000)));  // analytics code 0
    FromDevice(Buffer(Record(0x05000005)));  // unknown class
    EXPECT_EQ(db.Count("intveventlog") + db.Count("deveventlog") + db.Count("devdiagnoselog"), 2);
}

TEST_F(EventIngestion, FaceStoresOnlyTheFirstPicture) {
    auto r = Record(0x03000000 | INTV_EVENT_FACE);
    std::snprintf(r.szComm, sizeof r.szComm, "4711");
    r.nObjType = 35;
    r.nReserve[0] = 1;
    r.nReserve[3] = 92;
    r.nPicLen[0] = 1000;
    r.nPicLen[1] = 500;
    FromDevice(Buffer(r, 1500));
    EXPECT_EQ(Last("faceeventlog", "nodeid,nodetype,personid,age,gender,alike,status"),
              "300|3|4711|35|1|92|0");
    EXPECT_EQ(Picture("face", "faceeventlog", "/0.jpg"), 1000);
    EXPECT_EQ(Picture("face", "faceeventlog", "/1.jpg"), -1);

    FromDevice(Buffer(r, 500));  // the first picture did not fully arrive
    EXPECT_EQ(db.Count("faceeventlog"), 2);
    EXPECT_EQ(Picture("face", "faceeventlog"), -1);
}

TEST_F(EventIngestion, DiagnosisNamesBlockingAndSceneChange) {
    for (int code : {DEVSTATE_VIDEOBLOCKED, DEVSTATE_VIDEOSCENECHG, DEVSTATE_VIDEONOISE}) {
        auto r = Record(0x04000000 | code);
        r.nPicLen[0] = 20;
        FromDevice(Buffer(r, 20));
        EXPECT_EQ(Picture("diagnoss", "devdiagnoselog"), 20);
    }
    EXPECT_EQ(db.Query("select concat_ws('|',eventtype,descript) from devdiagnoselog order by id"),
              (std::vector<std::vector<std::string>>{{"7|镜头遮挡"}, {"10|场景变换"}, {"3|"}}));
    FromDevice(Buffer(Record(0x04000000)));  // back to normal: nothing to record
    EXPECT_EQ(db.Count("devdiagnoselog"), 3);
}

TEST_F(EventIngestion, NodesNamedByServersAndStructuredRecords) {
    // Without a node id a server names the index of one of its channels.
    Send(kSvrLogin, 1, Buffer(Record(0x01000000 | DEVSTATE_DISLINK, "2")));
    EXPECT_EQ(db.Scalar("select status from serverchan where id = 500"), "65536");
    EXPECT_EQ(Last("deveventlog", "nodeid,nodetype"), "500|9");
    Send(kSvrLogin, 1, Buffer(Record(0x03000005, "7")));  // no such index

    auto r = Record(0x01000000 | DEVSTATE_DISLINK);
    r.nNodeID = 100;
    r.nNodeType = DEVICE_NODE;
    Send(kSvrLogin, 1, Buffer(r));
    EXPECT_EQ(db.Scalar("select status from device"), "65541");  // its other bits kept
    FromStruct(Buffer(r));
    EXPECT_EQ(db.Scalar("select status from device"), "65536");  // its own bits not read

    r.nEventType = 0x03000005;
    r.nNodeID = 300;
    r.nNodeType = DEVCHAN_NODE;
    r.nPicLen[0] = 8;
    FromStruct(Buffer(r, 8));
    EXPECT_EQ(Last("intveventlog2", "nodeid,nodetype,eventtype"), "300|3|5");
    EXPECT_EQ(Picture("intv", "intveventlog2"), 8);
    r.nNodeID = 999;  // not in the catalogue
    FromStruct(Buffer(r, 8));
    EXPECT_EQ(db.Count("intveventlog2") + db.Count("intveventlog"), 1);
}

TEST_F(EventIngestion, ReplayFetchAdvancesOnlyPastResolvedAlarms) {
    EXPECT_FALSE(dlg->IntvDownProcess());
    ASSERT_TRUE(
        db.Exec("insert into intveventlog(id,nodeid,nodetype,loctime) values "
                "(1, 999, 3, '2024-3-5 7:4:9'), (2, 1, 10, '2024-3-5 7:4:9')"));
    EXPECT_FALSE(dlg->IntvDownProcess());  // channel 999 has no address: tried again later
    EXPECT_EQ(dlg->m_nLastRecord, 0);

    // The alarm is passed whatever the start reports; its consumer stays attached for the
    // maintenance thread to retire.
    dlg->m_nLastRecord = 1;
    dlg->IntvDownProcess();
    EXPECT_EQ(dlg->m_nLastRecord, 2);
    std::vector<_USER_CMD_INFO*> jobs;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        jobs.swap(m_arrUserInfos);
    }
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0]->type, 1);
    EXPECT_STREQ(jobs[0]->table, "intveventlog");
    for (_USER_CMD_INFO* job : jobs) VornMediaStop(job);
    ReleaseArray(jobs);
}

}  // namespace
