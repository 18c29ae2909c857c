// The device login and play session pools: sharing and claiming under concurrency, login
// counts, the logout pass, a failed first login, consumer needs, and preset calls.
#include "media/devpool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "RUSKNetSDK.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "support/httppeer.h"

namespace {

class Pools : public ::testing::Test {
protected:
    void SetUp() override {
        RUSK_DVR_InitAll();
        init_assign_dev(64);
        init_assign_player(64);
        device.Answer("cmd=", "");
    }
    void TearDown() override {
        std::lock_guard<std::mutex> lock(csRecorder);
        ReleaseArray(m_arrUserInfos);
        destroy_assign_player();
        destroy_assign_dev();
    }
    // An address of the peer as a device of a type without RTSP template (plays over a login).
    std::string At(const std::string& rest) {
        return "rtsp://127.0.0.1:" + std::to_string(device.port()) + rest;
    }
    int Logins() {
        auto t = device.Targets();
        return static_cast<int>(std::count_if(t.begin(), t.end(), [](const std::string& s) {
            return s.find("cmd=login") != std::string::npos;
        }));
    }
    cmstest::HttpPeer device;
};

TEST_F(Pools, LiveSlotsAreSharedAndEveryReplayGetsItsOwn) {
    CHANPLAY_INFO* live = GetPlayLink("rtsp://Host/a?live=0", false);
    EXPECT_EQ(GetPlayLink("RTSP://host/A?LIVE=0", false), live);
    CHANPLAY_INFO* r1 = GetPlayLink("rtsp://Host/a?live=0", true);
    CHANPLAY_INFO* r2 = GetPlayLink("rtsp://Host/a?live=0", true);
    EXPECT_TRUE(live && r1 && r2 && r1 != r2 && r1 != live && r2 != live);
    int n = 3;
    while (GetPlayLink(("rtsp://h/" + std::to_string(n)).c_str(), false)) ++n;
    EXPECT_EQ(n, 64);
    EXPECT_EQ(GetPlayLink("rtsp://host/A?live=0", false), live);  // a full pool still shares

    DVR_INFO* a = GetDevFromInfo("Cam.Local", 8000, 2, "u", "p");
    EXPECT_EQ(GetDevFromInfo("cam.local", 8000, 2, "other", "creds"), a);
    EXPECT_EQ(a->dev.nMallocCount, 2);
    EXPECT_NE(GetDevFromInfo("cam.local", 8001, 2, "u", "p"), a);
    EXPECT_NE(GetDevFromInfo("cam.local", 8000, 3, "u", "p"), a);
    for (int i = 3; i < 64; ++i) GetDevFromInfo(std::to_string(i).c_str(), 1, 1, "", "");
    EXPECT_EQ(GetDevFromInfo("10.9.9.9", 1, 1, "", ""), nullptr);  // the 65th device
}

TEST_F(Pools, ConcurrentLookupsClaimEachKeyOnce) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                std::string key = "rtsp://cam" + std::to_string((i + t) % 16) + "/live";
                if ((i + t) % 2) std::transform(key.begin(), key.end(), key.begin(), ::toupper);
                GetPlayLink(key.c_str(), false);
                GetDevFromInfo(key.c_str() + 7, 554, 1, "u", "p");
            }
        });
    }
    for (std::thread& t : threads) t.join();
    int plays = 0, devices = 0, lookups = 0;
    for (CHANPLAY_INFO* p : m_arrPlayInfos) plays += p->chan.bUse;
    for (DVR_INFO* d : m_arrDevList) devices += d->dev.used;
    for (DVR_INFO* d : m_arrDevList) lookups += d->dev.used ? d->dev.nMallocCount : 0;
    EXPECT_EQ(plays, 16);
    EXPECT_EQ(devices, 16);
    EXPECT_EQ(lookups, 8 * 300);
}

TEST_F(Pools, LogoutPassAgesLookupsAndEndsIdleLogins) {
    DVR_INFO* once = GetDevFromInfo("10.1.1.1", 1, 1, "", "");
    DVR_INFO* twice = GetDevFromInfo("10.1.1.2", 1, 1, "", "");
    GetDevFromInfo("10.1.1.2", 1, 1, "", "");
    DVR_INFO* held = GetDevFromInfo("127.0.0.1", device.port(), 77, "u", "p");
    ASSERT_TRUE(ConnectDev(held) && ConnectDev(held));
    EXPECT_EQ(Logins(), 1);  // the second channel shares the login
    DevLogoutManage();
    EXPECT_FALSE(once->dev.used);
    EXPECT_TRUE(twice->dev.used);
    DevLogoutManage();
    EXPECT_FALSE(twice->dev.used);
    // As if the last channel had left and its logout had failed: logged out once idle 60 s.
    held->dev.nLinkChan = 0;
    held->dev.unLastVisit = GetTickCount() - 50000;
    DevLogoutManage();
    EXPECT_NE(held->dev.serverid, -1);
    held->dev.unLastVisit = GetTickCount() - 61000;
    DevLogoutManage();
    EXPECT_FALSE(held->dev.used);
}

TEST_F(Pools, FailedFirstLoginLeavesTheDeviceUnusable) {
    device.Answer("cmd=login", "", 401);
    CHANPLAY_INFO* ch1 = GetPlayLink(At(":u:p:77:1?live=0").c_str(), false);
    EXPECT_FALSE(LivePlayFromURL(ch1));
    EXPECT_FALSE(LivePlayFromURL(ch1));  // a second user does not retry the open
    EXPECT_FALSE(StopPlay(ch1));
    EXPECT_TRUE(StopPlay(ch1));
    device.Answer("cmd=login", "");  // the device would accept now
    CHANPLAY_INFO* ch2 = GetPlayLink(At(":u:p:77:2?live=0").c_str(), false);
    CHANPLAY_INFO* replay = GetPlayLink(At(":u:p:77:2?replay=0:2024-1-2-3-4-5").c_str(), true);
    EXPECT_FALSE(LivePlayFromURL(ch2));
    EXPECT_FALSE(LivePlayFromURL(replay));
    EXPECT_FALSE(LivePlayFromURL(ch1));
    EXPECT_EQ(Logins(), 1);
    DevLogoutManage();
    EXPECT_TRUE(ch1->chan.lpDevice->dev.used);  // channels still counted: never freed
}

TEST_F(Pools, ConsumersAskForWhatTheyNeed) {
    CHANPLAY_INFO* play = GetPlayLink("rtsp://h/1?live=0", false);
    auto add = [&](int type, CHANPLAY_INFO* p) {
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(new _USER_CMD_INFO{p, 0, type});
    };
    EXPECT_EQ(CheckDecodeType(nullptr), 0);
    add(MANUAL_DOWN, play);
    add(INTV_DOWN, GetPlayLink("rtsp://h/2?live=0", false));
    EXPECT_EQ(CheckDecodeType(play), 0);
    add(TIGER_REC, play);
    add(TIGER_CAP, play);
    EXPECT_EQ(CheckDecodeType(play), DECODE_RECORD | DECODE_CAPTURE);
    add(INTV_DOWN, play);
    EXPECT_EQ(CheckDecodeType(play), DECODE_RECORD | DECODE_CAPTURE | DECODE_ALL);
}

TEST_F(Pools, PresetsGoOverALoginOrThroughTheMediaServer) {
    const std::string preset = "?cmd=ptzctrl&type=24&param1=5";
    EXPECT_EQ(CallPreset(At(":u:p:77:3" + preset).c_str()), 1);
    EXPECT_EQ(CallPreset(At(":u:p:77:@cam-9" + preset).c_str()), 1);
    EXPECT_EQ(CallPreset(At("/10.0.0.5:8000:u:p:77:3" + preset).c_str()), 1);
    const auto t = device.Targets();
    ASSERT_EQ(t.size(), 5u);
    EXPECT_NE(t[1].find("chan=3&type=24&param1=5"), std::string::npos) << t[1];
    EXPECT_NE(t[3].find("chanid=cam-9&type=24&param1=5"), std::string::npos) << t[3];
    EXPECT_EQ(t[4], "/10.0.0.5:8000:u:p:77:3" + preset);
    EXPECT_EQ(m_arrDevList[0]->dev.nLinkChan, 0);  // logged out after each call
    device.Answer("cmd=ptzctrl", "", 500);
    EXPECT_EQ(CallPreset(At(":u:p:77:3" + preset).c_str()), 0);
}

}  // namespace
