#include "comm/playcmd.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "comm/localdata.h"
#include "comm/mediaurl.h"

namespace {

std::string Time(const _PlayTime& t) {
    char s[80];
    std::snprintf(s, sizeof(s), "%d-%d-%d %d:%d:%d", t.nYear, t.nMonth, t.nDay, t.nHour, t.nMinute,
                  t.nSecond);
    return s;
}

// Every field of a parse as one line: ip|port|user|pass|type|chan|code, then the request.
std::string Command(const char* text, bool deviceOnly = false) {
    COMMAND_INFO c;
    std::memset(&c, 0x5a, sizeof(c));  // the parsers zero the record themselves
    int r = deviceOnly ? GetDevFromString(text, &c) : GetCommandFromString(text, &c);
    char s[400];
    std::snprintf(s, sizeof(s), "%d %s|%d|%s|%s|%d|%d|%s s%d f%d t%d r%d ", r, c.ip, c.port,
                  c.szUser, c.szPsw, c.nDvrType, c.nChan, c.szChan, c.nStreamType, c.nFileType,
                  c.nPlayType, c.bReplay);
    return s + Time(c.startTime) + "&" + Time(c.stopTime);
}

TEST(CommandString, DeviceFieldsAndQueries) {
    const std::string zero = "0-0-0 0:0:0&0-0-0 0:0:0";
    EXPECT_EQ("1 10.0.0.5|8000|u|p|2|3| s1 f0 t1 r0 " + zero,
              Command("rtsp://10.0.0.5:8000:u:p:2:3?live=1"));
    EXPECT_EQ("1 10.0.0.5|8000|u|p|2|0|CODE9 s0 f0 t0 r0 " + zero,
              Command("rtsp://a:1/b:2/10.0.0.5:8000:u:p:2:@CODE9?LIVE=0"));
    EXPECT_EQ("1 h|1|u|p|2|3| s0 f7 t2 r1 2024-1-2 3:4:5&2024-1-2 4:0:0",
              Command("rtsp://h:1:u:p:2:3?replay=7:2024-1-2-3-4-5&2024-1-2-4-0-0"));
    // A local play keeps 255 and fills only what matched.
    EXPECT_EQ("1 h|1|u|p|2|3| s0 f1 t255 r1 2024-6-0 0:0:0&0-0-0 0:0:0",
              Command("rtsp://h:1:u:p:2:3?localplay=1:2024-6"));
    // Without ":" the value is all file type: still a replay, with no times.
    EXPECT_EQ("1 h|1|u|p|2|1| s0 f2024 t2 r1 " + zero,
              Command("rtsp://h:1:u:p:2:1?replay=2024-1-2"));
    EXPECT_EQ("1 h|1|u|p|2|1| s0 f3 t255 r1 " + zero, Command("rtsp://h:1:u:p:2:1?localplay=3"));
    EXPECT_EQ("1 h|1|u|p|2|3| s0 f0 t255 r0 " + zero, Command("rtsp://h:1:u:p:2:3?other=1"));
    // No ":" after the route: success with nothing but the play type.
    EXPECT_EQ("1 |0|||0|0| s0 f0 t0 r0 " + zero, Command("rtsp://a:1/device?live=1"));
}

TEST(CommandString, MalformedTruncatedAndOverlong) {
    for (const char* bad : {"rtsp://10.0.0.5:8000:u:p:2:3", "http://10.0.0.5:8000:u:p:2:3?live=1"})
        EXPECT_EQ('0', Command(bad)[0]) << bad;
    EXPECT_EQ('1', Command("rtsp://10.0.0.5:8000:u:p:2:3", true)[0]);  // needs no query
    EXPECT_EQ(0, GetCommandFromString(nullptr, nullptr));
    // Cut short: failure, with the fields read so far.
    EXPECT_EQ(0u, Command("rtsp://10.0.0.5:8000:u:p?live=1").find("0 10.0.0.5|8000|u||0|"));
    EXPECT_EQ('0', Command("rtsp://10.0.0.5:80", true)[0]);

    // Over-long fields are cut to their arrays; the 512-byte device part is cut too.
    const std::string url = "rtsp://" + std::string(100, 'i') + ":1:" + std::string(30, 'u') +
                            ":p:2:@" + std::string(60, 'c') + "?replay=1:" + std::string(600, '9') +
                            "&" + std::string(600, '8');
    EXPECT_EQ(0u, Command(url.c_str())
                      .find("1 " + std::string(49, 'i') + "|1|" + std::string(15, 'u') + "|p|2|0|" +
                            std::string(39, 'c') + " s0 f1 t2 r1"));
    EXPECT_EQ(0u, Command(("rtsp://" + std::string(600, 'x') + ":1:u:p:2:3?live=1").c_str())
                      .find("1 |0|||0|0|"));

    _msg_video_param_info p{new unsigned char[4], 4, new unsigned char[8], 8, nullptr, 0};
    ReleaseVideoParam(&p);
    EXPECT_TRUE(p.szVPS == nullptr && p.szSPS == nullptr && p.nSpsLen == 0);
    ReleaseVideoParam(nullptr);
}

// ip|port|user|pass|type|chan|code, then command, param, session, the span and the mode.
std::string Media(const char* url) {
    _cammera_info cam{};
    _MSG_PLAY_INFO play{};
    int mode = -1;
    int r = paras_rtsp_url(url, &cam, &play, mode);
    char s[400];
    std::snprintf(s, sizeof(s), "%d %s|%d|%s|%s|%d|%d|%s c%d p%d s%u m%d ", r, cam.szIP, cam.nPort,
                  cam.szUser, cam.szPass, cam.nType, cam.nChan, cam.szChan, play.command,
                  play.param, play.session, mode);
    return s + Time(play.startTime) + "&" + Time(play.stopTime);
}

TEST(MediaUrl, RequestsOfEveryKind) {
    const std::string zero = "0-0-0 0:0:0&0-0-0 0:0:0";
    EXPECT_EQ("1 10.0.0.5|8000|u|p|2|3| c0 p1 s77 m1 " + zero,
              Media("rtsp://10.0.0.5:8000:u:p:2:3?live=1&ss=77"));
    // Routed: the media server reads the device fields itself.
    EXPECT_EQ("1 |0|||0|0| c3 p0 s0 m0 " + zero,
              Media("rtsp://10.1.1.1:554/10.0.0.5:8000:u:p:2:3?replay=0:2024-1-1-0-0-0"));
    EXPECT_EQ("1 h|1|u|p|2|0|C1 c22 p3 s0 m3 2024-1-2 3:4:5&2024-1-2 3:4:9",
              Media("rtsp://h:1:u:p:2:@C1?revplay=3:2024-1-2-3-4-5&2024-1-2-3-4-9"));
    EXPECT_EQ("1 h|1|u|p|2|1| c5 p1 s0 m4 2024-1-2 3:4:5&0-0-0 0:0:0",
              Media("rtsp://h:1:u:p:2:1?getfile=1:2024-1-2-3-4-5&x"));
    EXPECT_EQ("1 h|1|u|p|2|1| c23 p5 s0 m-1 " + zero,
              Media("rtsp://h:1:u:p:2:1?cmd=ptzctrl&type=24&param1=5"));
    // An empty password is skipped and shifts the type into szPass; keys are case-sensitive.
    EXPECT_EQ("1 h|1|u|2|3|0| c0 p0 s0 m-1 " + zero, Media("rtsp://h:1:u::2:3?Live=0"));
    for (const char* bad : {"rtsp://h:1:u:p:2:1?replay=2024-1-2", "rtsp://h:1:u:p:2:3",
                            "http://h:1:u:p:2:3?live=1", "rtsp:/"})
        EXPECT_EQ('0', Media(bad)[0]) << bad;
    EXPECT_EQ('0', Media(nullptr)[0]);
    // The 128-byte device buffer ends inside the over-long address.
    const std::string huge = "rtsp://" + std::string(300, 'a') + ":" + std::string(300, 'b') +
                             "?replay=1:" + std::string(300, '9') + "&" + std::string(300, '8');
    EXPECT_EQ(0u, Media(huge.c_str()).find("1 " + std::string(49, 'a') + "|0||"));
}

// Random texts from the grammar's own characters, with and without the scheme; under
// AddressSanitizer this checks that no parser leaves its input or its arrays.
TEST(Parsers, SurviveRandomInput) {
    const char alphabet[] = "rtsp:/?&=@-:0123456789abcLIVEreplaycmd=ptzctrlparam1=ss=";
    std::mt19937 rng(7);
    for (int i = 0; i < 20000; ++i) {
        std::string text = (i % 3) ? "rtsp://" : "";
        const size_t len = rng() % 700;
        for (size_t k = 0; k < len; ++k) text += alphabet[rng() % (sizeof(alphabet) - 1)];
        Command(text.c_str());
        Command(text.c_str(), true);
        Media(text.c_str());
    }
}

}  // namespace
