// The codec library on the sample streams: decoding, encoding and MP4 recording.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "VornCodec.h"
#include "support/daemon.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}
Bytes ReadSample(const std::string& name) {
    return ReadFile(std::string(CMS_SOURCE_DIR) + "/tests/data/" + name);
}

// One NAL unit per piece, start code included, as the server's stream walker hands them on.
std::vector<Bytes> SplitUnits(const Bytes& s) {
    std::vector<size_t> at;
    for (size_t i = 0; i + 3 <= s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            at.push_back(i > 0 && !s[i - 1] ? i - 1 : i);
            i += 2;
        }
    std::vector<Bytes> units;
    for (size_t k = 0; k < at.size(); ++k)
        units.emplace_back(s.begin() + at[k], k + 1 < at.size() ? s.begin() + at[k + 1] : s.end());
    return units;
}
bool IsParameterSet(const Bytes& unit, bool h265) {
    const uint8_t header = unit[unit[2] == 1 ? 3 : 4];
    return h265 ? ((header >> 1) & 63) >= 32 && ((header >> 1) & 63) <= 34
                : (header & 31) == 7 || (header & 31) == 8;
}

struct Picture {
    int width, height, pitch;
    Bytes yuv;
};
struct Pictures {
    std::vector<Picture> list;
    static void Take(unsigned char* yuv, int width, int height, int pitch, void* user) {
        static_cast<Pictures*>(user)->list.push_back(
            {width, height, pitch, Bytes(yuv, yuv + width * height * 3 / 2)});
    }
};

// A stream with B-frames is held back by its reordering depth; three copies of a sample
// flush every picture of the first.
std::vector<Picture> DecodeCopies(int codec, const Bytes& stream, bool byUnit) {
    Pictures out;
    void* decoder = CreateDecoder(codec, &Pictures::Take, &out);
    EXPECT_NE(decoder, nullptr);
    for (int copy = 0; copy < 3; ++copy)
        for (const Bytes& piece : byUnit ? SplitUnits(stream) : std::vector<Bytes>{stream})
            EXPECT_EQ(Decoder(decoder, piece.data(), int(piece.size())), 1);
    DestroyDecoder(decoder);
    return out.list;
}

struct Sample {
    const char* file;
    int codec, width, height, frames;
};
const Sample kSamples[] = {
    {"h264_1920x1080_30fps_baseline.h264", VORN_H264, 1920, 1080, 1},
    {"h264_352x288_25fps_high.h264", VORN_H264, 352, 288, 5},
    {"h265_1280x720.h265", VORN_H265, 1280, 720, 1},
    {"h265_352x288.h265", VORN_H265, 352, 288, 5},
};

TEST(Decoder, EverySampleGivesPicturesOfItsSizeWholeOrUnitByUnit) {
    InitCodec();
    for (const Sample& s : kSamples)
        for (bool byUnit : {false, true}) {
            SCOPED_TRACE(s.file);
            std::vector<Picture> pictures = DecodeCopies(s.codec, ReadSample(s.file), byUnit);
            ASSERT_GE(pictures.size(), size_t(s.frames));
            for (const Picture& p : pictures)
                EXPECT_TRUE(p.width == s.width && p.height == s.height && p.pitch == s.width);
        }
}

// A snapshot is fed parameter sets, then key frames only: without B-frames each picture must
// come out with the call that brought it, not with the next one a key interval later.
TEST(Decoder, APictureComesOutWithTheCallThatCompletesIt) {
    Pictures out;
    void* decoder = CreateDecoder(VORN_H264, &Pictures::Take, &out);
    for (const Bytes& unit : SplitUnits(ReadSample("h264_1920x1080_30fps_baseline.h264")))
        Decoder(decoder, unit.data(), int(unit.size()));
    EXPECT_EQ(out.list.size(), 1u);
    DestroyDecoder(decoder);
}

TEST(Decoder, RefusesOtherCodecsAndSurvivesGarbage) {
    Pictures out;
    EXPECT_EQ(CreateDecoder(VORN_JPEG, &Pictures::Take, &out), nullptr);
    EXPECT_EQ(Decoder(nullptr, reinterpret_cast<const unsigned char*>("x"), 1), 0);
    void* decoder = CreateDecoder(VORN_H264, &Pictures::Take, &out);
    Bytes noise(4096);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 2654435761u >> 13);
    Decoder(decoder, noise.data(), int(noise.size()));
    const Bytes stream = ReadSample("h264_352x288_25fps_high.h264");
    for (size_t cut = 1; cut < stream.size(); cut += 97) Decoder(decoder, stream.data(), int(cut));
    DestroyDecoder(decoder);
    for (const Picture& p : out.list) EXPECT_EQ(p.width * p.height, 352 * 288);
}

// A luma ramp moving with `frame`, flat chroma of distinct U and V.
Bytes TestPicture(int w, int h, int frame) {
    Bytes yuv(w * h * 3 / 2, 200);
    std::fill(yuv.begin() + w * h, yuv.begin() + w * h * 5 / 4, 90);
    for (int i = 0; i < w * h; ++i) yuv[i] = uint8_t((i % w + frame) * 200 / w);
    return yuv;
}

TEST(Encoder, EveryPictureYieldsAUnitThatDecodesBackToIt) {
    const int w = 320, h = 240;
    EXPECT_EQ(VideoEncodeCreate(VORN_H265, w, h, 25), nullptr);
    EXPECT_EQ(VideoEncodeCreate(VORN_H264, w + 1, h, 25), nullptr);
    void* encoder = VideoEncodeCreate(VORN_H264, w, h, 25);
    Pictures decoded;  // decoded as it comes, as a session's re-encoded stream is
    void* decoder = CreateDecoder(VORN_H264, &Pictures::Take, &decoded);
    unsigned char* out = nullptr;
    int length = 0;
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(VideoEncodeData(encoder, TestPicture(w, h, i).data(), w, h, &out, &length), 1);
        EXPECT_TRUE(i > 0 || (out[4] & 31) == 7) << "the first unit opens with its SPS";
        EXPECT_EQ(Decoder(decoder, out, length), 1);
        EXPECT_EQ(decoded.list.size(), size_t(i + 1));
    }
    EXPECT_EQ(VideoEncodeData(encoder, TestPicture(w, h, 0).data(), w / 2, h, &out, &length), 0);
    VideoEncodeDestroy(encoder);
    DestroyDecoder(decoder);
    ASSERT_EQ(decoded.list.size(), 12u);
    const Bytes expected = TestPicture(w, h, 5);
    // Lossy, but a swapped plane or a wrong pitch would be far off.
    for (int at : {w * 10 + 40, w * 200 + 300, w * h + 100, w * h * 5 / 4 + 100})
        EXPECT_NEAR(decoded.list[5].yuv[at], expected[at], 6) << at;
}

// What ffprobe, run as a program of its own, reads from a file's video stream:
// "codec,width,height,duration,packets".
std::string Probe(const std::string& file) {
    const std::string command =
        "ffprobe -v error -count_packets -select_streams v:0 -show_entries "
        "stream=codec_name,width,height,duration,nb_read_packets -of csv=p=0 '" +
        file + "'";
    std::string text;
    char line[256];
    FILE* pipe = popen(command.c_str(), "r");
    while (pipe && fgets(line, sizeof line, pipe)) text += line;
    if (pipe) pclose(pipe);
    return text.substr(0, text.find('\n'));
}
int Packets(const std::string& probe) { return atoi(probe.substr(probe.rfind(',') + 1).c_str()); }

// As the server records: the parameter sets as the head, then every other unit alone. One
// sample per picture (SEI and slice together), timed by the rate the stream states.
TEST(Mp4Record, SamplesFedUnitByUnitProbeAsTheStream) {
    const char* expected[] = {"h264,1920,1080,0.033333,1", "h264,352,288,0.200000,5",
                              "hevc,1280,720,0.033333,1", "hevc,352,288,0.200000,5"};
    cmstest::TempDir dir;
    for (int k = 0; k < 4; ++k) {
        const Sample& s = kSamples[k];
        const std::string file = dir.File(s.file + std::string(".mp4"));
        void* recorder = MP4RecordOpen(file.c_str(), s.codec, s.width, s.height, 25, 0, 0, 0, 0);
        ASSERT_NE(recorder, nullptr);
        Bytes head;
        std::vector<Bytes> rest;
        for (Bytes& u : SplitUnits(ReadSample(s.file))) {
            if (IsParameterSet(u, s.codec == VORN_H265))
                head.insert(head.end(), u.begin(), u.end());
            else
                rest.push_back(u);
        }
        MP4RecordSetHead(recorder, head.data(), int(head.size()));
        for (const Bytes& u : rest) MP4RecordWrite(recorder, u.data(), int(u.size()));
        MP4RecordClose(recorder);
        EXPECT_EQ(Probe(file), expected[k]);
    }
}

// Four seconds of our own encoder's output, written a coded unit at a time; a copy cut at
// 60 % still holds the pictures of its whole fragments.
TEST(Mp4Record, ARecordingCutShortStillPlaysItsFirstFragments) {
    const int w = 320, h = 240;
    cmstest::TempDir dir;
    const std::string file = dir.File("long.mp4"), cut = dir.File("cut.mp4");
    void* encoder = VideoEncodeCreate(VORN_H264, w, h, 25);
    void* recorder = MP4RecordOpen(file.c_str(), VORN_H264, w, h, 25, 0, 0, 0, 0);
    unsigned char* out = nullptr;
    int length = 0;
    for (int i = 0; i < 100; ++i)
        if (VideoEncodeData(encoder, TestPicture(w, h, i).data(), w, h, &out, &length))
            MP4RecordWrite(recorder, out, length);
    VideoEncodeDestroy(encoder);
    MP4RecordClose(recorder);
    EXPECT_EQ(Probe(file), "h264,320,240,4.000000,100");

    const Bytes bytes = ReadFile(file);
    std::ofstream(cut, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), bytes.size() * 6 / 10);
    EXPECT_GE(Packets(Probe(cut)), 25);
    EXPECT_LT(Packets(Probe(cut)), 100);
}

TEST(Mp4Record, RefusesBadNamesAndLeavesNoFileWithoutAKeyPicture) {
    cmstest::TempDir dir;
    for (const char* name : {"", "no/such/dir.mp4"})
        EXPECT_EQ(MP4RecordOpen(name, VORN_H264, 352, 288, 25, 0, 0, 0, 0), nullptr) << name;
    EXPECT_EQ(MP4RecordOpen(nullptr, VORN_H264, 352, 288, 25, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(MP4RecordOpen(dir.File("a.mp4").c_str(), VORN_JPEG, 352, 288, 25, 0, 0, 0, 0),
              nullptr);

    // Only the pictures after the key frame, then noise as the head: no file.
    const std::string file = dir.File("empty.mp4");
    void* recorder = MP4RecordOpen(file.c_str(), VORN_H264, 352, 288, 25, 0, 0, 0, 0);
    std::vector<Bytes> units = SplitUnits(ReadSample("h264_352x288_25fps_high.h264"));
    for (size_t i = units.size() - 4; i < units.size(); ++i)
        MP4RecordWrite(recorder, units[i].data(), int(units[i].size()));
    Bytes noise(10000);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 2654435761u >> 13);
    MP4RecordSetHead(recorder, noise.data(), int(noise.size()));
    MP4RecordClose(recorder);
    struct stat st;
    EXPECT_NE(stat(file.c_str(), &st), 0);
}

}  // namespace
