// Preset calls: over a device login of the pool, or handed on to the media server.
#include <gtest/gtest.h>

#include <string>

#include "RUSKNetSDK.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "support/httppeer.h"

namespace {

TEST(Preset, DirectDevicesAreMovedOverTheirLoginAndRoutedOnesThroughTheServer) {
    RUSK_DVR_InitAll();
    init_assign_dev(2);
    init_assign_player(2);
    cmstest::HttpPeer peer;
    peer.Answer("cmd=login", "");
    peer.Answer("cmd=ptzctrl", "");
    const std::string at = "rtsp://127.0.0.1:" + std::to_string(peer.port());
    const std::string preset = "?cmd=ptzctrl&type=24&param1=5";

    EXPECT_EQ(CallPreset((at + ":u:p:77:3" + preset).c_str()), 1);
    EXPECT_EQ(CallPreset((at + ":u:p:77:@cam-9" + preset).c_str()), 1);
    EXPECT_EQ(CallPreset((at + "/10.0.0.5:8000:u:p:77:3" + preset).c_str()), 1);
    EXPECT_EQ(CallPreset("no address"), 0);
    const auto targets = peer.Targets();
    ASSERT_EQ(targets.size(), 5u);
    EXPECT_NE(targets[1].find("chan=3&type=24&param1=5"), std::string::npos) << targets[1];
    EXPECT_NE(targets[3].find("chanid=cam-9&type=24&param1=5"), std::string::npos) << targets[3];
    EXPECT_EQ(targets[4].rfind("/10.0.0.5:8000:u:p:77:3" + preset, 0), 0u) << targets[4];
    // Each call logged in and out again: the login is free for the next.
    EXPECT_EQ(m_arrDevList[0]->dev.nLinkChan, 0);
    EXPECT_EQ(m_arrDevList[0]->dev.serverid, -1);

    peer.Answer("cmd=ptzctrl", "", 500);
    EXPECT_EQ(CallPreset((at + ":u:p:77:3" + preset).c_str()), 0);
    destroy_assign_player();
    destroy_assign_dev();
}

}  // namespace
