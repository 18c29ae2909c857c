#include "comm/playcmd.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "comm/localdata.h"
#include "comm/mediaurl.h"

namespace {

TEST(CommandString, LiveOnDirectAndRoutedAddresses) {
    COMMAND_INFO c;
    ASSERT_EQ(1, GetCommandFromString("rtsp://10.0.0.5:8000:u:p:2:3?live=1", &c));
    EXPECT_STREQ("10.0.0.5", c.ip);
    EXPECT_EQ(8000, c.port);
    EXPECT_STREQ("u", c.szUser);
    EXPECT_STREQ("p", c.szPsw);
    EXPECT_EQ(2, c.nDvrType);
    EXPECT_EQ(3, c.nChan);
    EXPECT_EQ(1, c.nStreamType);
    EXPECT_EQ(PLAYTYPE_LIVE, c.nPlayType);
    EXPECT_FALSE(c.bReplay);

    ASSERT_EQ(1, GetCommandFromString("rtsp://a:1/b:2/10.0.0.5:8000:u:p:2:@CODE9?LIVE=0", &c));
    EXPECT_EQ(PLAYTYPE_ROUTED, c.nPlayType);
    EXPECT_STREQ("10.0.0.5", c.ip);
    EXPECT_STREQ("CODE9", c.szChan);
    EXPECT_EQ(0, c.nChan);
}

TEST(CommandString, ReplayAndLocalPlayTimes) {
    COMMAND_INFO c;
    ASSERT_EQ(1, GetCommandFromString(
                     "rtsp://10.0.0.5:8000:u:p:2:3?replay=7:2024-1-2-3-4-5&2024-1-2-4-0-0", &c));
    EXPECT_EQ(PLAYTYPE_REPLAY, c.nPlayType);
    EXPECT_TRUE(c.bReplay);
    EXPECT_EQ(7, c.nFileType);
    EXPECT_EQ(2024, c.startTime.nYear);
    EXPECT_EQ(5, c.startTime.nSecond);
    EXPECT_EQ(4, c.stopTime.nHour);
    EXPECT_EQ(0, c.stopTime.nMinute);

    // A local play keeps 255 and fills only what matched.
    ASSERT_EQ(1, GetCommandFromString("rtsp://h:1:u:p:2:3?localplay=1:2024-6", &c));
    EXPECT_EQ(PLAYTYPE_NOROUTE, c.nPlayType);
    EXPECT_TRUE(c.bReplay);
    EXPECT_EQ(6, c.startTime.nMonth);
    EXPECT_EQ(0, c.startTime.nDay);
    EXPECT_EQ(0, c.stopTime.nYear);

    EXPECT_EQ(0, GetCommandFromString("rtsp://h:1:u:p:2:3?replay=2024-1-2", &c));
}

TEST(CommandString, PartialMalformedAndOverlongInput) {
    COMMAND_INFO c;
    EXPECT_EQ(0, GetCommandFromString("rtsp://10.0.0.5:8000:u:p:2:3", &c));  // no query
    EXPECT_EQ(1, GetDevFromString("rtsp://10.0.0.5:8000:u:p:2:3", &c));
    EXPECT_EQ(3, c.nChan);
    EXPECT_EQ(0, GetCommandFromString("http://10.0.0.5:8000:u:p:2:3?live=1", &c));
    EXPECT_EQ(0, GetCommandFromString(nullptr, &c));
    EXPECT_EQ(0, GetCommandFromString("rtsp://x?live=1", nullptr));

    // No ":" after the route: success with nothing but the play type.
    ASSERT_EQ(1, GetCommandFromString("rtsp://a:1/device?live=1", &c));
    EXPECT_STREQ("", c.ip);
    EXPECT_EQ(PLAYTYPE_ROUTED, c.nPlayType);
    EXPECT_EQ(0, c.nStreamType);

    // Cut short after the password: failure, with the fields read so far.
    ASSERT_EQ(0, GetCommandFromString("rtsp://10.0.0.5:8000:u:p?live=1", &c));
    EXPECT_STREQ("u", c.szUser);
    EXPECT_EQ(0, GetDevFromString("rtsp://10.0.0.5:80", &c));

    EXPECT_EQ(1, GetCommandFromString("rtsp://h:1:u:p:2:3?other=1", &c));
    EXPECT_EQ(0, c.nStreamType);

    // Over-long fields are cut to their arrays and stay terminated.
    const std::string url = "rtsp://" + std::string(100, 'i') + ":1:" + std::string(30, 'u') + ":" +
                            std::string(30, 'p') + ":2:@" + std::string(60, 'c') +
                            "?replay=1:" + std::string(600, '9') + "&" + std::string(600, '8');
    ASSERT_EQ(1, GetCommandFromString(url.c_str(), &c));
    EXPECT_EQ(sizeof(c.ip) - 1, strlen(c.ip));
    EXPECT_EQ(sizeof(c.szUser) - 1, strlen(c.szUser));
    EXPECT_EQ(sizeof(c.szPsw) - 1, strlen(c.szPsw));
    EXPECT_EQ(sizeof(c.szChan) - 1, strlen(c.szChan));
    EXPECT_TRUE(c.bReplay);
    // A device part longer than its 512-byte buffer is cut, here before its first ":".
    const std::string cut = "rtsp://" + std::string(600, 'x') + ":1:u:p:2:3?live=1";
    ASSERT_EQ(1, GetCommandFromString(cut.c_str(), &c));
    EXPECT_STREQ("", c.ip);
}

TEST(VideoParam, ReleaseFreesAndZeroes) {
    _msg_video_param_info p{new unsigned char[4], 4, new unsigned char[8], 8, nullptr, 0};
    ReleaseVideoParam(&p);
    EXPECT_EQ(nullptr, p.szVPS);
    EXPECT_EQ(0, p.nSpsLen);
    ReleaseVideoParam(&p);  // twice is harmless
    ReleaseVideoParam(nullptr);
}

struct Parsed {
    int result;
    _cammera_info cam;
    _MSG_PLAY_INFO play;
    int mode;
};

Parsed Parse(const char* url) {
    Parsed p{};
    p.mode = -1;
    p.result = paras_rtsp_url(url, &p.cam, &p.play, p.mode);
    return p;
}

TEST(MediaUrl, LiveWithSessionAndRoutedAddresses) {
    Parsed p = Parse("rtsp://10.0.0.5:8000:u:p:2:3?live=1&ss=77");
    ASSERT_EQ(1, p.result);
    EXPECT_STREQ("10.0.0.5", p.cam.szIP);
    EXPECT_EQ(8000, p.cam.nPort);
    EXPECT_STREQ("u", p.cam.szUser);
    EXPECT_STREQ("p", p.cam.szPass);
    EXPECT_EQ(2, p.cam.nType);
    EXPECT_EQ(3, p.cam.nChan);
    EXPECT_EQ(1, p.play.param);
    EXPECT_EQ(77u, p.play.session);
    EXPECT_EQ(PLAY_CMD_LIVE, p.play.command);
    EXPECT_EQ(ACCESS_LIVE, p.mode);

    p = Parse("rtsp://10.1.1.1:554/10.0.0.5:8000:u:p:2:3?replay=0:2024-1-1-0-0-0&2024-1-1-1-0-0");
    ASSERT_EQ(1, p.result);
    EXPECT_EQ(ACCESS_ROUTED, p.mode);
    EXPECT_EQ(PLAY_CMD_REPLAY, p.play.command);
    EXPECT_STREQ("", p.cam.szIP);  // a media server reads the device fields itself
}

TEST(MediaUrl, SpansPtzAndShiftedFields) {
    Parsed p = Parse("rtsp://h:1:u:p:2:@C1?revplay=3:2024-1-2-3-4-5&2024-1-2-3-4-9");
    ASSERT_EQ(1, p.result);
    EXPECT_EQ(PLAY_CMD_REVREPLAY, p.play.command);
    EXPECT_EQ(ACCESS_REVREPLAY, p.mode);
    EXPECT_EQ(3, p.play.param);
    EXPECT_EQ(9, p.play.stopTime.nSecond);
    EXPECT_STREQ("C1", p.cam.szChan);
    EXPECT_EQ(ACCESS_DOWNLOAD, Parse("rtsp://h:1:u:p:2:1?getfile=1:2024-1-2-3-4-5&x").mode);
    EXPECT_EQ(0, Parse("rtsp://h:1:u:p:2:1?replay=2024-1-2").result);
    EXPECT_EQ(-1, Parse("rtsp://h:1:u:p:2:1?Live=1").mode);  // keys are case-sensitive

    p = Parse("rtsp://h:1:u:p:2:1?cmd=ptzctrl&type=24&param1=5");
    ASSERT_EQ(1, p.result);
    EXPECT_EQ(PLAY_CMD_PTZ, p.play.command);
    EXPECT_EQ(5, p.play.param);
    EXPECT_EQ(-1, p.mode);  // left as the caller set it

    p = Parse("rtsp://h:1:u::2:3?live=0");  // the empty password shifts the type into szPass
    EXPECT_STREQ("2", p.cam.szPass);
    EXPECT_EQ(3, p.cam.nType);
}

TEST(MediaUrl, MalformedTruncatedAndOverlong) {
    EXPECT_EQ(0, Parse("rtsp://h:1:u:p:2:3").result);
    EXPECT_EQ(0, Parse("http://h:1:u:p:2:3?live=1").result);
    EXPECT_EQ(0, Parse("rtsp:/").result);
    EXPECT_EQ(0, Parse(nullptr).result);
    EXPECT_EQ(1, Parse("rtsp://?live=").result);
    EXPECT_EQ(1, Parse("rtsp://h:1?cmd").result);

    const std::string huge = "rtsp://" + std::string(300, 'a') + ":" + std::string(300, 'b') +
                             "?replay=1:" + std::string(300, '9') + "&" + std::string(300, '8');
    Parsed p = Parse(huge.c_str());
    ASSERT_EQ(1, p.result);
    EXPECT_EQ(sizeof(p.cam.szIP) - 1, strlen(p.cam.szIP));
    EXPECT_EQ(0, p.cam.nPort);  // the 128-byte device buffer ended inside the address
}

// Random texts built from the grammar's own characters, with and without the scheme; run
// under AddressSanitizer this checks that no parser leaves its input or its arrays.
TEST(Parsers, SurviveRandomInput) {
    const char alphabet[] = "rtsp:/?&=@-:0123456789abcLIVEreplaycmd=ptzctrlparam1=ss=";
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        std::string text = (i % 3) ? "rtsp://" : "";
        const size_t len = rng() % 700;
        for (size_t k = 0; k < len; ++k) text += alphabet[rng() % (sizeof(alphabet) - 1)];
        COMMAND_INFO c;
        GetCommandFromString(text.c_str(), &c);
        GetDevFromString(text.c_str(), &c);
        _cammera_info cam{};
        _MSG_PLAY_INFO play{};
        int mode = 0;
        paras_rtsp_url(text.c_str(), &cam, &play, mode);
        ASSERT_LT(strnlen(cam.szIP, sizeof(cam.szIP)), sizeof(cam.szIP));
    }
}

}  // namespace
