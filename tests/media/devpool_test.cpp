// The device login and play session pools: slot sharing and claiming under concurrency,
// login reference counts, the idle logout pass, and what the consumers of a session need.
#include "media/devpool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <thread>

#include "RUSKNetSDK.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "support/httppeer.h"

namespace {

constexpr int kSlots = 64;

class Pools : public ::testing::Test {
protected:
    void SetUp() override {
        RUSK_DVR_InitAll();
        init_assign_dev(kSlots);
        init_assign_player(kSlots);
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(csRecorder);
            ReleaseArray(m_arrUserInfos);
        }
        destroy_assign_player();
        destroy_assign_dev();
    }
    static int UsedDevices() {
        return static_cast<int>(std::count_if(m_arrDevList.begin(), m_arrDevList.end(),
                                              [](DVR_INFO* d) { return d->dev.used; }));
    }
    // A direct live address of a device at 127.0.0.1:port of a type without RTSP template,
    // so that it plays over the device login.
    static std::string DeviceUrl(int port, int chan, const char* query = "live=0") {
        return "rtsp://127.0.0.1:" + std::to_string(port) + ":u:p:77:" + std::to_string(chan) +
               "?" + query;
    }
    static int Logins(const cmstest::HttpPeer& peer) {
        int n = 0;
        for (const std::string& t : peer.Targets()) n += t.find("cmd=login") != std::string::npos;
        return n;
    }
};

TEST_F(Pools, LiveSlotsAreSharedByUrlAndEveryReplayGetsItsOwn) {
    CHANPLAY_INFO* live = GetPlayLink("rtsp://Host/a?live=0", false);
    ASSERT_NE(live, nullptr);
    EXPECT_EQ(live->chan.playhandle, -1);
    EXPECT_EQ(GetPlayLink("RTSP://host/A?LIVE=0", false), live);
    CHANPLAY_INFO* r1 = GetPlayLink("rtsp://Host/a?live=0", true);
    CHANPLAY_INFO* r2 = GetPlayLink("rtsp://Host/a?live=0", true);
    EXPECT_TRUE(r1 && r2 && r1 != r2 && r1 != live && r2 != live);
    EXPECT_TRUE(r1->chan.bReplay);
    EXPECT_EQ(GetPlayLink("rtsp://Host/a?live=0", false), live);  // replays never match
    EXPECT_EQ(GetPlayLink(nullptr, false), nullptr);

    int claimed = 3;
    while (GetPlayLink(("rtsp://h/" + std::to_string(claimed)).c_str(), false)) ++claimed;
    EXPECT_EQ(claimed, kSlots);
    EXPECT_EQ(GetPlayLink("rtsp://host/A?live=0", false), live);  // a full pool still shares
}

TEST_F(Pools, DevicesShareByAddressPortAndTypeUpToThePoolSize) {
    DVR_INFO* a = GetDevFromInfo("Cam.Local", 8000, 2, "u", "p");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->dev.serverid, -1);
    EXPECT_EQ(GetDevFromInfo("cam.local", 8000, 2, "other", "creds"), a);
    EXPECT_EQ(a->dev.nMallocCount, 2);
    EXPECT_STREQ(a->dev.user, "u");
    EXPECT_NE(GetDevFromInfo("cam.local", 8001, 2, "u", "p"), a);
    EXPECT_NE(GetDevFromInfo("cam.local", 8000, 3, "u", "p"), a);
    for (int i = 3; i < kSlots; ++i)
        ASSERT_NE(GetDevFromInfo(("10.0.0." + std::to_string(i)).c_str(), 1, 1, "", ""), nullptr);
    EXPECT_EQ(GetDevFromInfo("10.9.9.9", 1, 1, "", ""), nullptr);  // the 65th device
    // And its play fails without touching the network.
    CHANPLAY_INFO* play = GetPlayLink("rtsp://10.9.9.9:1:u:p:77:1?live=0", false);
    ASSERT_NE(play, nullptr);
    EXPECT_FALSE(LivePlayFromURL(play));
    EXPECT_EQ(play->chan.playhandle, -1);
}

TEST_F(Pools, ConcurrentLookupsClaimEachKeyOnce) {
    constexpr int kThreads = 8, kRounds = 300, kKeys = 16;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRounds; ++i) {
                std::string key = "rtsp://cam" + std::to_string((i + t) % kKeys) + "/live";
                if ((i + t) % 2) std::transform(key.begin(), key.end(), key.begin(), ::toupper);
                GetPlayLink(key.c_str(), false);
                GetDevFromInfo(key.c_str() + 7, 554, 1, "u", "p");
            }
        });
    }
    for (std::thread& t : threads) t.join();
    std::set<std::string> urls;
    int used = 0;
    for (CHANPLAY_INFO* p : m_arrPlayInfos) {
        if (!p->chan.bUse) continue;
        ++used;
        std::string u = p->chan.szURL;
        std::transform(u.begin(), u.end(), u.begin(), ::tolower);
        urls.insert(u);
    }
    EXPECT_EQ(used, kKeys);
    EXPECT_EQ(urls.size(), static_cast<size_t>(kKeys));
    EXPECT_EQ(UsedDevices(), kKeys);
    int lookups = 0;
    for (DVR_INFO* d : m_arrDevList) lookups += d->dev.used ? d->dev.nMallocCount : 0;
    EXPECT_EQ(lookups, kThreads * kRounds);
}

TEST_F(Pools, LogoutPassAgesLookupsAndEndsIdleLogins) {
    cmstest::HttpPeer device;
    device.Answer("cmd=login", "");
    DVR_INFO* once = GetDevFromInfo("10.1.1.1", 1, 1, "", "");
    DVR_INFO* twice = GetDevFromInfo("10.1.1.2", 1, 1, "", "");
    GetDevFromInfo("10.1.1.2", 1, 1, "", "");
    DVR_INFO* held = GetDevFromInfo("127.0.0.1", device.port(), 77, "u", "p");
    ASSERT_TRUE(ConnectDev(held));
    EXPECT_EQ(Logins(device), 1);
    EXPECT_TRUE(ConnectDev(held));  // a second channel shares the login
    EXPECT_EQ(Logins(device), 1);

    DevLogoutManage();
    EXPECT_FALSE(once->dev.used);  // never connected: free after one pass
    EXPECT_TRUE(twice->dev.used);
    DevLogoutManage();
    EXPECT_FALSE(twice->dev.used);
    EXPECT_TRUE(held->dev.used);
    EXPECT_NE(held->dev.serverid, -1);

    // As if the last channel had left and its logout had failed: the pass logs out only
    // once the login has been idle for more than 60 s.
    held->dev.nLinkChan = 0;
    held->dev.unLastVisit = GetTickCount() - 50000;
    DevLogoutManage();
    EXPECT_NE(held->dev.serverid, -1);
    held->dev.unLastVisit = GetTickCount() - 61000;
    DevLogoutManage();
    EXPECT_EQ(held->dev.serverid, -1);
    EXPECT_FALSE(held->dev.used);
}

TEST_F(Pools, LastChannelLogsOutAndCountsReturnToZero) {
    cmstest::HttpPeer device;
    device.Answer("cmd=login", "");
    DVR_INFO* dev = GetDevFromInfo("127.0.0.1", device.port(), 77, "u", "p");
    ASSERT_TRUE(ConnectDev(dev));
    ASSERT_TRUE(ConnectDev(dev));
    EXPECT_FALSE(CloseDev(dev));
    EXPECT_TRUE(CloseDev(dev));
    EXPECT_EQ(dev->dev.nLinkChan, 0);
    EXPECT_EQ(dev->dev.serverid, -1);
    EXPECT_TRUE(ConnectDev(dev));  // logs in again
    EXPECT_EQ(Logins(device), 2);
    EXPECT_TRUE(CloseDev(dev));
}

TEST_F(Pools, FailedFirstLoginLeavesTheDeviceUnusable) {
    cmstest::HttpPeer device;
    device.Answer("cmd=login", "", 401);
    CHANPLAY_INFO* ch1 = GetPlayLink(DeviceUrl(device.port(), 1).c_str(), false);
    ASSERT_NE(ch1, nullptr);
    EXPECT_FALSE(LivePlayFromURL(ch1));
    EXPECT_EQ(Logins(device), 1);
    EXPECT_FALSE(LivePlayFromURL(ch1));  // a second user does not retry the open
    EXPECT_FALSE(StopPlay(ch1));
    EXPECT_TRUE(StopPlay(ch1));
    EXPECT_EQ(ch1->chan.nLinkUser, 0);
    DVR_INFO* dev = ch1->chan.lpDevice;
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->dev.nLinkChan, 1);  // kept: the stream never opened

    device.Answer("cmd=login", "");  // the device would accept now
    for (const char* query : {"live=0", "replay=0:2024-1-2-3-4-5&2024-1-2-3-5-5"}) {
        CHANPLAY_INFO* other = GetPlayLink(DeviceUrl(device.port(), 2, query).c_str(),
                                           std::string(query).find("live") == std::string::npos);
        ASSERT_NE(other, nullptr);
        EXPECT_FALSE(LivePlayFromURL(other)) << query;
        EXPECT_TRUE(StopPlay(other));
    }
    EXPECT_FALSE(LivePlayFromURL(ch1));
    EXPECT_TRUE(StopPlay(ch1));
    EXPECT_EQ(Logins(device), 1);
    DevLogoutManage();
    EXPECT_TRUE(dev->dev.used);  // channels still counted: never freed
}

TEST_F(Pools, ConsumersAskForWhatTheyNeed) {
    CHANPLAY_INFO* play = GetPlayLink("rtsp://h/1?live=0", false);
    CHANPLAY_INFO* other = GetPlayLink("rtsp://h/2?live=0", false);
    auto add = [](CHANPLAY_INFO* p, int type) {
        auto* info = new _USER_CMD_INFO{};
        info->player = p;
        info->type = type;
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(info);
    };
    EXPECT_EQ(CheckDecodeType(nullptr), 0);
    add(play, MANUAL_DOWN);
    add(other, INTV_DOWN);
    EXPECT_EQ(CheckDecodeType(play), 0);
    add(play, TIGER_REC);
    EXPECT_EQ(CheckDecodeType(play), DECODE_RECORD);
    add(play, MANUAL_CAP);
    add(play, TIGER_CAP);
    EXPECT_EQ(CheckDecodeType(play), DECODE_RECORD | DECODE_CAPTURE);
    add(play, INTV_DOWN);
    add(play, 9);
    EXPECT_EQ(CheckDecodeType(play), DECODE_RECORD | DECODE_CAPTURE | DECODE_ALL);
    EXPECT_EQ(CheckDecodeType(other), DECODE_ALL);
}

}  // namespace
