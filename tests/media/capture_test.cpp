// The stream handler with the real codec and picture libraries: packets cut from the
// sample streams go through NormalPlay into JPEG snapshots and MP4 recordings.
#include "media/capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "VornCodec.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "support/daemon.h"
#include "support/mediacheck.h"
#include "support/testdb.h"

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

namespace {

// The NAL units of a sample file, each behind a 4-byte start code as the stream client
// delivers them (mixed lengths are read one byte off by the handler, as they always were).
std::vector<Bytes> Units(const std::string& file) {
    const std::string d = cmstest::ReadFile(std::string(CMS_SOURCE_DIR) + "/tests/data/" + file);
    std::vector<Bytes> units;
    for (size_t at = d.find(std::string("\0\0\1", 3)); at != std::string::npos;) {
        const size_t next = d.find(std::string("\0\0\1", 3), at + 3);
        size_t end = next == std::string::npos ? d.size() : next;
        while (next != std::string::npos && d[end - 1] == 0) --end;
        units.push_back({0, 0, 0, 1});
        units.back().insert(units.back().end(), d.begin() + at + 3, d.begin() + end);
        at = next;
    }
    return units;
}

class Capture : public ::testing::Test {
protected:
    void SetUp() override {
        InitCodec();
        init_assign_dev(4);
        init_assign_player(4);
        play = GetPlayLink("rtsp://cam/1?live=0", false);
    }
    void TearDown() override {
        CloseRecorders();
        ReleaseArray(m_arrUserInfos);
        for (CHANPLAY_INFO* p : m_arrPlayInfos) {  // frees the codec state; no stream is open
            p->chan.nLinkUser = 1;
            p->chan.playhandle = 1 << 30;
            p->chan.nMode = R_PLAY_RTSP;
            StopPlay(p);
        }
        destroy_assign_player();
        destroy_assign_dev();
    }
    _USER_CMD_INFO* Add(int type, int id, CHANPLAY_INFO* on = nullptr) {
        auto* info = new _USER_CMD_INFO{on ? on : play, id, type};
        std::snprintf(info->path, sizeof info->path, "%s", dir.path().c_str());
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(info);
        return info;
    }
    void CloseRecorders() {
        std::lock_guard<std::mutex> lock(csRecorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) MP4RecordClose(info->precorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) info->precorder = nullptr;
    }
    void Feed(const Bytes& payload, int code, CHANPLAY_INFO* to = nullptr, int type = MD_VIDEO) {
        _media_head head{};
        head.type = type == MD_META ? MD_DUX : MD_VIDEO;  // meta goes by the callback's type
        head.code = code;
        Bytes packet(sizeof head);
        std::memcpy(packet.data(), &head, sizeof head);
        packet.insert(packet.end(), payload.begin(), payload.end());
        NormalPlay(0, type, packet.data(), static_cast<int>(packet.size()), 0, to ? to : play);
    }
    // Each picture with the parameter sets and SEI before it, as cameras send them.
    void FeedStream(const std::vector<Bytes>& units, int code, CHANPLAY_INFO* to = nullptr) {
        Bytes packet;
        for (const Bytes& u : units) {
            packet.insert(packet.end(), u.begin(), u.end());
            const bool picture = code == VORN_H265 ? (u[4] >> 1) < 32 : (u[4] & 31) <= 5;
            if (picture) Feed(packet, code, to);
            if (picture) packet.clear();
        }
    }
    bool IsPicture(const std::string& name, int width, int height) {
        return cmstest::IsJpeg(cmstest::ReadFile(dir.File(name)), width, height);
    }

    cmstest::TempDir dir;
    CHANPLAY_INFO* play = nullptr;
};

TEST_F(Capture, H264SnapshotWaitsForParameterSetsAndAKeyFrame) {
    const auto u = Units("h264_1920x1080_30fps_baseline.h264");  // SPS PPS SEI IDR
    const Bytes p = Units("h264_352x288_25fps_high.h264")[4];    // not a key frame
    _USER_CMD_INFO* cap = Add(MANUAL_CAP, 7);
    Add(MANUAL_CAP, 8);
    Add(TIGER_CAP, 12);
    for (const Bytes& b : {u[3], p, u[0], u[3], u[1], p}) Feed(b, VORN_H264);
    EXPECT_EQ(play->chan.pdecode, nullptr);
    // The decoder may hold a picture until more data comes; the next key frame pushes it.
    Feed(u[3], VORN_H264);
    Feed(u[3], VORN_H264);
    EXPECT_TRUE(IsPicture("7", 1920, 1080) && IsPicture("8", 1920, 1080));
    EXPECT_TRUE(IsPicture("12/0.jpg", 1920, 1080));
    FeedStream(u, VORN_H264);
    EXPECT_EQ(cap->count, 1);
    Add(TIGER_CAP, 12);
    FeedStream(u, VORN_H264);
    EXPECT_TRUE(IsPicture("12/1.jpg", 1920, 1080));
    EXPECT_FALSE(fs::exists(dir.File("12/2.jpg")));
    // Parameter sets are kept once: another stream's SPS changes nothing.
    Feed(Units("h264_352x288_25fps_high.h264")[0], VORN_H264);
    const MSG_VIDEO_PARAM_INFO& v = play->chan.videoParam;
    EXPECT_EQ(Bytes(v.szSPS, v.szSPS + v.nSpsLen), u[0]);
    EXPECT_EQ(play->chan.width, 1920);
}

TEST_F(Capture, H265KeyFramesAreType19Only) {
    auto u = Units("h265_1280x720.h265");  // VPS SPS PPS SEI IDR_N_LP
    Add(MANUAL_CAP, 3);
    FeedStream(u, VORN_H265);
    EXPECT_NE(play->chan.videoParam.szVPS, nullptr);
    EXPECT_EQ(play->chan.pdecode, nullptr);
    u[4][4] = 19 << 1;  // the same picture as IDR_W_RADL
    for (int i = 0; i < 6 && !fs::exists(dir.File("3")); ++i) FeedStream(u, VORN_H265);
    EXPECT_TRUE(IsPicture("3", 1280, 720));
}

// Box left 400, top 300, 600 x 1000 of 1920 x 1080 (centre and size in 1/65536): its
// bottom is past the picture, so it is drawn with the height H - x = 680.
Bytes MetaRecord() {
    const uint16_t bw = 20480, bh = 60681, cx = 13653 + bw / 2, cy = 18204 + bh / 2;
    return {uint8_t(cx), uint8_t(cx >> 8),
            uint8_t(cy), uint8_t(cy >> 8),
            uint8_t(bw), uint8_t(bw >> 8),
            uint8_t(bh), uint8_t(bh >> 8),
            0,           0,
            0,           0};
}

TEST_F(Capture, BoxesAreDrawnIntoReencodedPicturesOfAnalyticsDevices) {
    CHANPLAY_INFO* stale = GetPlayLink("rtsp://cam/3?live=0", false);
    const auto u = Units("h264_1920x1080_30fps_baseline.h264");
    for (CHANPLAY_INFO* p : {play, stale}) {
        p->chan.type = 1;
        Add(MANUAL_CAP, p == play ? 1 : 2, p);
        Add(MANUAL_REC, p == play ? 1 : 2, p);
        Feed(MetaRecord(), 1, p, MD_META);
        if (p == stale) p->chan.unmeta = GetTickCount() - 600;  // too old to draw
        FeedStream(u, VORN_H264, p);
        FeedStream(u, VORN_H264, p);
    }
    CloseRecorders();
    const std::string gray = " -frames:v 1 -f rawvideo -pix_fmt gray -";
    const std::string boxed = cmstest::Shell("ffmpeg -v error -i " + dir.File("1.mp4") + gray);
    const std::string plain = cmstest::Shell("ffmpeg -v error -i " + dir.File("2.mp4") + gray);
    ASSERT_TRUE(boxed.size() == 1920u * 1080 && plain.size() == boxed.size());
    // Mean luma difference along a row segment, the largest of three neighbouring rows.
    auto diff = [&](int row, int x0, int x1) {
        double best = 0;
        for (int r = row - 1; r <= row + 1; ++r) {
            double sum = 0;
            for (int x = x0; x < x1; ++x)
                sum += std::abs(uint8_t(boxed[r * 1920 + x]) - uint8_t(plain[r * 1920 + x]));
            best = std::max(best, sum / (x1 - x0));
        }
        return best;
    };
    EXPECT_GT(diff(300, 420, 980), 40);   // top edge
    EXPECT_GT(diff(980, 420, 980), 40);   // bottom edge: 300 + 680
    EXPECT_LT(diff(600, 450, 950), 10);   // inside the box
    EXPECT_LT(diff(100, 100, 1800), 10);  // away from it
}

}  // namespace
