// The stream handler with the real codec and picture libraries: packets cut from the
// sample streams go through NormalPlay into JPEG snapshots and MP4 recordings.
#include "media/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "VornCodec.h"
#include "VornMediaDef.h"
#include "comm/sysutil.h"
#include "comm/vcaobject.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "support/daemon.h"
#include "support/mediacheck.h"
#include "support/testdb.h"

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

namespace {

const std::string kData = std::string(CMS_SOURCE_DIR) + "/tests/data/";

// The NAL units of an Annex-B file, each with a 4-byte start code as the stream client
// delivers them (mixed lengths are read one byte off by the handler, as they always were).
std::vector<Bytes> Units(const std::string& file) {
    const std::string d = cmstest::ReadFile(kData + file);
    std::vector<size_t> starts;  // just past each start code
    for (size_t i = 0; i + 3 <= d.size(); ++i)
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) starts.push_back(i + 3);
    std::vector<Bytes> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : d.size();
        while (k + 1 < starts.size() && end > starts[k] && d[end - 1] == 0) --end;
        Bytes u = {0, 0, 0, 1};
        u.insert(u.end(), d.begin() + starts[k], d.begin() + end);
        units.push_back(u);
    }
    return units;
}

int NalType(const Bytes& unit, bool h265) { return h265 ? (unit[4] >> 1) & 63 : unit[4] & 31; }

class Capture : public ::testing::Test {
protected:
    void SetUp() override {
        InitCodec();
        init_assign_dev(4);
        init_assign_player(4);
        play = GetPlayLink("rtsp://cam/1?live=0", false);
        ASSERT_NE(play, nullptr);
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(csRecorder);
            for (_USER_CMD_INFO* info : m_arrUserInfos) MP4RecordClose(info->precorder);
            ReleaseArray(m_arrUserInfos);
        }
        // Frees the codec state the handler built; no stream is really open.
        for (CHANPLAY_INFO* p : m_arrPlayInfos) {
            p->chan.nLinkUser = 1;
            p->chan.playhandle = 1 << 30;
            p->chan.nMode = R_PLAY_RTSP;
            StopPlay(p);
        }
        destroy_assign_player();
        destroy_assign_dev();
    }
    _USER_CMD_INFO* Add(int type, int id, CHANPLAY_INFO* on = nullptr) {
        auto* info = new _USER_CMD_INFO{};
        info->player = on ? on : play;
        info->type = type;
        info->id = id;
        std::snprintf(info->path, sizeof info->path, "%s", dir.path().c_str());
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(info);
        return info;
    }
    void Feed(const Bytes& payload, int code, CHANPLAY_INFO* to = nullptr, int dataType = MD_VIDEO,
              int headType = MD_VIDEO) {
        Bytes packet(VORN_MEDIA_HEAD_SIZE);
        _media_head head{};
        head.type = static_cast<uint8_t>(headType);
        head.code = code;
        head.len = static_cast<uint32_t>(payload.size());
        std::memcpy(packet.data(), &head, sizeof head);
        packet.insert(packet.end(), payload.begin(), payload.end());
        NormalPlay(0, dataType, packet.data(), static_cast<int>(packet.size()), 0, to ? to : play);
    }
    // Parameter sets and SEI of the file go with the picture after them, as cameras send them.
    void FeedStream(const std::vector<Bytes>& units, int code, CHANPLAY_INFO* to = nullptr) {
        const bool h265 = code == VORN_H265;
        Bytes packet;
        for (const Bytes& u : units) {
            packet.insert(packet.end(), u.begin(), u.end());
            const int t = NalType(u, h265);
            if (h265 ? t < 32 : (t >= 1 && t <= 5)) {
                Feed(packet, code, to);
                packet.clear();
            }
        }
    }
    std::string Read(const std::string& name) { return cmstest::ReadFile(dir.File(name)); }
    bool IsPicture(const std::string& name, int width, int height) {
        int w = 0, h = 0;
        return cmstest::JpegSize(Read(name), w, h) && w == width && h == height;
    }

    cmstest::TempDir dir;
    CHANPLAY_INFO* play = nullptr;
};

TEST_F(Capture, H264SnapshotWaitsForParameterSetsAndAKeyFrame) {
    // The file's own packet: a PPS behind a 4-byte start code and before a 3-byte one is read
    // one byte off and not kept.
    const std::string raw = cmstest::ReadFile(kData + "h264_352x288_25fps_high.h264");
    size_t firstP = 0;
    for (int k = 0; k < 5; ++k) firstP = raw.find(std::string("\0\0\1", 3), firstP + 1);
    Feed(Bytes(raw.begin(), raw.begin() + firstP), VORN_H264);
    EXPECT_NE(play->chan.videoParam.szSPS, nullptr);
    EXPECT_EQ(play->chan.videoParam.szPPS, nullptr);
    ReleaseVideoParam(&play->chan.videoParam);

    const std::vector<Bytes> u = Units("h264_1920x1080_30fps_baseline.h264");  // SPS PPS SEI IDR
    const Bytes p = Units("h264_352x288_25fps_high.h264")[4];  // a picture, not a key frame
    _USER_CMD_INFO* cap1 = Add(MANUAL_CAP, 7);
    Add(MANUAL_CAP, 8);
    Add(TIGER_CAP, 12);
    Feed(u[3], VORN_H264);
    Feed(p, VORN_H264);
    Feed(u[0], VORN_H264);  // SPS alone
    Feed(u[3], VORN_H264);
    Feed(u[1], VORN_H264);  // PPS: decodable from the next key frame on
    Feed(p, VORN_H264);
    EXPECT_EQ(play->chan.pdecode, nullptr);
    Feed(u[3], VORN_H264);
    EXPECT_NE(play->chan.pdecode, nullptr);
    // The decoder may hold a picture back until more data comes: a capture decodes key
    // frames only, so the next one pushes it out.
    Feed(u[3], VORN_H264);
    EXPECT_TRUE(IsPicture("7", 1920, 1080));
    EXPECT_TRUE(IsPicture("8", 1920, 1080));
    EXPECT_TRUE(IsPicture("12/0.jpg", 1920, 1080));
    EXPECT_EQ(cap1->count, 1);
    EXPECT_EQ(play->chan.width, 1920);

    // One picture per consumer; a later capture of the same trigger takes the next number.
    FeedStream(u, VORN_H264);
    EXPECT_EQ(cap1->count, 1);
    Add(TIGER_CAP, 12);
    FeedStream(u, VORN_H264);
    EXPECT_TRUE(IsPicture("12/1.jpg", 1920, 1080));
    EXPECT_FALSE(fs::exists(dir.File("12/2.jpg")));

    // Parameter sets are kept once: another stream's SPS changes nothing.
    const MSG_VIDEO_PARAM_INFO& v = play->chan.videoParam;
    EXPECT_EQ(Bytes(v.szSPS, v.szSPS + v.nSpsLen), u[0]);
    Feed(Units("h264_352x288_25fps_high.h264")[0], VORN_H264);
    EXPECT_EQ(Bytes(v.szSPS, v.szSPS + v.nSpsLen), u[0]);
    EXPECT_EQ(play->chan.width, 1920);
}

TEST_F(Capture, H265KeyFramesAreType19Only) {
    std::vector<Bytes> u = Units("h265_1280x720.h265");  // VPS SPS PPS SEI IDR_N_LP
    ASSERT_EQ(NalType(u[4], true), 20);
    Add(MANUAL_CAP, 3);
    FeedStream(u, VORN_H265);
    EXPECT_NE(play->chan.videoParam.szVPS, nullptr);
    EXPECT_EQ(play->chan.pdecode, nullptr);  // an IDR without leading pictures is not one
    u[4][4] = 19 << 1;                       // the same picture as IDR_W_RADL
    // This stream allows reordering: the decoder holds pictures back for a few more.
    for (int i = 0; i < 6 && !fs::exists(dir.File("3")); ++i) FeedStream(u, VORN_H265);
    EXPECT_TRUE(IsPicture("3", 1280, 720));
}

TEST_F(Capture, RecordingsAreNamedAndWrittenWithoutDecoding) {
    fs::create_directories(dir.File("13"));
    std::FILE* f = std::fopen(dir.File("13/3.jpg").c_str(), "wb");
    std::fclose(f);
    Add(MANUAL_REC, 5);
    Add(TIGER_REC, 12);  // no directory 12: number 0, written right after the id
    Add(TIGER_REC, 13);  // 13/ holds 3.jpg: number 4
    Add(MANUAL_DOWN, 6);
    _USER_CMD_INFO* clip = Add(INTV_DOWN, 9, GetPlayLink("rtsp://cam/2?live=0", false));
    const uint32_t before = GetTickCount();
    const std::vector<Bytes> u = Units("h264_352x288_25fps_high.h264");
    FeedStream(u, VORN_H264);
    FeedStream(u, VORN_H264, static_cast<CHANPLAY_INFO*>(clip->player));
    EXPECT_EQ(play->chan.pdecode, nullptr);
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) {
            // The clip decodes; without re-encoding (device type 1) it gets no data.
            EXPECT_EQ(info->precorder != nullptr, info->type != INTV_DOWN) << info->type;
            EXPECT_EQ(info->unlastdata >= before, info->type != INTV_DOWN) << info->type;
            MP4RecordClose(info->precorder);
            info->precorder = nullptr;
        }
    }
    // A MANUAL_DOWN consumer alone asks for nothing, but rides along with a recording.
    for (const char* name : {"5.mp4", "120.mp4", "134.mp4", "6.mp4"})
        EXPECT_EQ(cmstest::ProbeVideo(dir.File(name)), "h264,352,288") << name;
    EXPECT_NE(static_cast<CHANPLAY_INFO*>(clip->player)->chan.pdecode, nullptr);
}

// One object box, its bottom past the picture: drawn with the height H - x.
Bytes MetaPacket() {
    // Box left 400, top 300, 600 x 1000 pixels of 1920 x 1080.
    const uint16_t bw = 20480, bh = 60681, cx = 13653 + bw / 2, cy = 18204 + bh / 2;
    return {uint8_t(cx), uint8_t(cx >> 8),
            uint8_t(cy), uint8_t(cy >> 8),
            uint8_t(bw), uint8_t(bw >> 8),
            uint8_t(bh), uint8_t(bh >> 8),
            0,           0,
            0,           0};
}

// The luma plane of the first picture of an MP4.
Bytes FirstLuma(const std::string& file) {
    const std::string raw =
        cmstest::Shell("ffmpeg -v error -i " + file + " -frames:v 1 -f rawvideo -pix_fmt gray -");
    return Bytes(raw.begin(), raw.end());
}

TEST_F(Capture, BoxesAreDrawnIntoReencodedPicturesOfAnalyticsDevices) {
    CHANPLAY_INFO* stale = GetPlayLink("rtsp://cam/3?live=0", false);
    for (CHANPLAY_INFO* p : {play, stale}) {
        p->chan.type = 1;
        Add(MANUAL_CAP, p == play ? 1 : 2, p);
        Add(MANUAL_REC, p == play ? 1 : 2, p);
        // A meta packet counts by the callback's type, whatever its head says.
        Feed(MetaPacket(), 1, p, MD_META, MD_DUX);
    }
    ASSERT_NE(play->chan.pmeta, nullptr);
    stale->chan.unmeta = GetTickCount() - 600;
    const std::vector<Bytes> u = Units("h264_1920x1080_30fps_baseline.h264");
    for (CHANPLAY_INFO* p : {play, stale}) {
        if (p == play) play->chan.unmeta = GetTickCount();
        FeedStream(u, VORN_H264, p);
        FeedStream(u, VORN_H264, p);
    }
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) {
            MP4RecordClose(info->precorder);
            info->precorder = nullptr;
        }
    }
    const Bytes boxed = FirstLuma(dir.File("1.mp4")), plain = FirstLuma(dir.File("2.mp4"));
    constexpr int W = 1920;
    ASSERT_EQ(boxed.size(), W * 1080u);
    ASSERT_EQ(plain.size(), boxed.size());
    // Mean difference along a row segment, the best of three neighbouring rows.
    auto diff = [&](int row, int x0, int x1) {
        double best = 0;
        for (int r = row - 1; r <= row + 1; ++r) {
            double sum = 0;
            for (int x = x0; x < x1; ++x)
                sum += std::abs(int(boxed[r * W + x]) - int(plain[r * W + x]));
            best = std::max(best, sum / (x1 - x0));
        }
        return best;
    };
    EXPECT_GT(diff(300, 420, 980), 40);   // top edge
    EXPECT_GT(diff(980, 420, 980), 40);   // bottom edge at 300 + (1080 - 400)
    EXPECT_LT(diff(600, 450, 950), 10);   // inside the box: the picture is unchanged
    EXPECT_LT(diff(100, 100, 1800), 10);  // away from it
}

}  // namespace
