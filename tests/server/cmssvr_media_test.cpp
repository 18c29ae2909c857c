// Media jobs end to end: the real daemon, its database and RTSP test peers. Snapshots,
// recordings and trigger jobs over HTTP land as files in the store areas; the maintenance
// thread retires them. And an alarm's replay job, in-process.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <set>
#include <thread>

#include "RUSKNetSDK.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "server/CmsSvrDlg.h"
#include "support/daemon.h"
#include "support/httpclient.h"
#include "support/mediacheck.h"
#include "support/rtsppeer.h"
#include "support/testdb.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kOk0 =
    "HTTP/1.1 200 OK\r\nAccess-Control-Allow-Origin: *\r\nContent-Length: 0\r\n\r\n";
constexpr int kPeerType = 41;  // dev.xml type of the peers: played over RTSP directly

// Polls `ready` until it holds or `limit` passes.
template <class F>
bool Within(std::chrono::milliseconds limit, F ready) {
    for (auto end = Clock::now() + limit; Clock::now() < end; std::this_thread::sleep_for(50ms))
        if (ready()) return true;
    return ready();
}

std::set<std::string> Names(const std::string& dir) {
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) names.insert(e.path().filename());
    return names;
}

bool IsJpeg(const std::string& file) { return cmstest::IsJpeg(cmstest::ReadFile(file), 320, 240); }

class MediaJobs : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        cmstest::RtspPeerOptions o;
        o.codec = "h265";
        hevc = std::make_unique<cmstest::RtspPeer>(o);
        ASSERT_TRUE(avc.Start() && hevc->Start());
        // Devices 100 (H.264) and 101 (H.265) in a region without media servers: their play
        // addresses lead to the peers.
        auto device = [](int id, int port) {
            return "(" + std::to_string(id) + ",'cam','SN" + std::to_string(id) + "'," +
                   std::to_string(kPeerType) + ",'127.0.0.1'," + std::to_string(port) +
                   ",'u','p',1)";
        };
        ASSERT_TRUE(db.Exec(
            "insert into region(id,name,parentid) values (1,'root',0);"
            "insert into device(id,name,sn,ftype,ip,port,username,userpwd,regionid) values " +
            device(100, avc.port()) + "," + device(101, hevc->port())));
        std::string paths = "<paths>";
        for (const char* area : {"mcap", "mrec", "tcap", "trec"}) {
            fs::create_directories(store.File(area));
            paths += std::string("<path><name>") + area + "</name><type>1</type><mode>0</mode><p>" +
                     store.File(area) + "/</p></path>";
        }
        cmstest::DaemonSettings s;
        s.httpPort = port = cmstest::FreePort();
        s.dbName = db.name();
        s.dbPort = cmstest::TestDatabase::Port();
        s.extraParam = paths + "</paths>\n";
        s.devXml = "<devs><dev><name>peer</name><verify>0</verify><link>1</link><type>" +
                   std::to_string(kPeerType) +
                   "</type><mode>0</mode><main>{ip}:{port}/live/main</main>"
                   "<sub>{ip}:{port}/live/sub</sub></dev></devs>";
        daemon = std::make_unique<cmstest::Daemon>(s);
        ASSERT_TRUE(daemon->Start());
        ASSERT_TRUE(daemon->WaitFor("Start http port:", 15s)) << daemon->Output();
    }
    std::string Get(const std::string& query) { return cmstest::HttpGet(port, "/?" + query); }
    std::string Area(const std::string& area, const std::string& name = "") {
        return store.File(area) + (name.empty() ? "" : "/" + name);
    }

    cmstest::TestDatabase db{true, false};
    cmstest::RtspPeer avc;
    std::unique_ptr<cmstest::RtspPeer> hevc;
    cmstest::TempDir store;
    std::unique_ptr<cmstest::Daemon> daemon;
    int port = 0;
};

TEST_F(MediaJobs, CapturesShareOneStreamAndWriteOnePictureEach) {
    EXPECT_EQ(Get("cmd=mcap&nodeid=100&nodetype=2&id=1"), kOk0);
    EXPECT_EQ(Get("cmd=mcap&nodeid=100&nodetype=2&id=2"), kOk0);
    EXPECT_EQ(cmstest::ConnectionsTo(avc.port()), 1);
    EXPECT_TRUE(Within(10s, [&] { return IsJpeg(Area("mcap", "1")) && IsJpeg(Area("mcap", "2")); }))
        << daemon->Output();
    // Retired once they have their picture, and the stream closes with the last of them.
    EXPECT_TRUE(Within(12s, [&] { return cmstest::ConnectionsTo(avc.port()) == 0; }));
    EXPECT_EQ(Names(Area("mcap")), (std::set<std::string>{"1", "2"}));
}

TEST_F(MediaJobs, RecordingRunsUntilItsSourceStops) {
    const auto start = Clock::now();
    const std::string reply = Get("cmd=mrec&nodeid=100&nodetype=2&id=5");
    EXPECT_TRUE(
        std::regex_search(reply, std::regex("^HTTP/1.1 200 OK[\\s\\S]*\r\n\r\n<ss>[0-9]+</ss>$")))
        << reply;
    std::this_thread::sleep_for(3s);
    avc.Kill();
    const double recorded = std::chrono::duration<double>(Clock::now() - start).count();
    // Without data for 5 s the maintenance thread closes the file, which then ends with
    // the fragment index.
    const std::string file = Area("mrec", "5.mp4");
    EXPECT_TRUE(Within(15s, [&] {
        const std::string mp4 = cmstest::ReadFile(file);
        return mp4.size() > 16 && mp4.find("mfro", mp4.size() - 16) != std::string::npos;
    })) << daemon->Output();
    double duration = 0;
    EXPECT_EQ(cmstest::ProbeVideo(file, &duration), "h264,320,240");
    EXPECT_NEAR(duration, recorded, 1.2);
}

TEST_F(MediaJobs, TriggerJobsNameTheirFilesByNumber) {
    EXPECT_EQ(Get("cmd=tcap&nodeid=100&nodetype=2&id=12"), kOk0);
    EXPECT_EQ(Get("cmd=trec&nodeid=101&nodetype=2&id=12"), kOk0);  // the H.265 device
    EXPECT_TRUE(Within(10s, [&] { return IsJpeg(Area("tcap", "12/0.jpg")); })) << daemon->Output();
    EXPECT_EQ(Get("cmd=tcap&nodeid=100&nodetype=2&id=12"), kOk0);
    EXPECT_TRUE(Within(10s, [&] { return IsJpeg(Area("tcap", "12/1.jpg")); }));
    // The number follows the id directly; the file plays while it is being written.
    EXPECT_TRUE(Within(
        10s, [&] { return cmstest::ProbeVideo(Area("trec", "120.mp4")) == "hevc,320,240"; }));
    EXPECT_EQ(Names(Area("trec")), (std::set<std::string>{"120.mp4"}));
}

// IntvDownProcess in-process, for a device behind a media server (the peer): the alarm's
// 30-second window is opened there as a replay job of its own, which stays attached (a
// media-server start reports itself pending) until the maintenance thread retires it.
TEST(AlarmReplay, StoredAlarmOpensItsThirtySecondsOnTheMediaServer) {
    cmstest::TestDatabase db;
    cmstest::RtspPeer peer;
    ASSERT_TRUE(db.ok() && peer.Start());
    RUSK_DVR_InitAll();
    ASSERT_TRUE(db.Exec(
        "insert into region(id,name,parentid) values (1,'root',0);"
        "insert into serverinfo(id,name,svrtype,ip,port,regionid) values (10,'m',1,'127.0.0.1'," +
        std::to_string(peer.port()) +
        ",1); insert into device(id,name,sn,ip,port,username,userpwd,regionid) values "
        "(100,'nvr','SN100','10.1.2.3',8000,'u','p',1);"
        "insert into intveventlog(id,nodeid,nodetype,loctime) values (1,100,2,'2024-3-5 7:4:9')"));
    CCMSSvrDlg dlg;
    ASSERT_TRUE(dlg.LoadData());
    EXPECT_FALSE(dlg.IntvDownProcess());
    std::vector<_USER_CMD_INFO*> jobs;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        jobs.swap(m_arrUserInfos);
    }
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0]->type, 1);
    const CHANPLAY_BASE& replay = m_arrPlayInfos[0]->chan;
    EXPECT_TRUE(replay.bReplay && !replay.bExit && replay.nMode == R_PLAY_MEDIA);
    EXPECT_EQ(jobs[0]->player, m_arrPlayInfos[0]);
    EXPECT_NE(std::string(replay.szURL).find("?replay=0&2024-3-5-7-4-9&2024-3-5-7-4-39"),
              std::string::npos)
        << replay.szURL;
    for (_USER_CMD_INFO* job : jobs) VornMediaStop(job);
    EXPECT_TRUE(replay.bExit);
    ReleaseArray(jobs);
    dlg.ReleaseData();
}

}  // namespace
