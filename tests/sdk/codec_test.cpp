// The codec library on the sample streams: decoding, encoding and MP4 recording.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "VornCodec.h"
#include "support/daemon.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadSample(const std::string& name) {
    std::ifstream in(std::string(CMS_SOURCE_DIR) + "/tests/data/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Cuts an Annex-B stream before every start code, so each piece is one NAL unit with its
// start code, as the server's stream walker hands them on.
std::vector<Bytes> SplitUnits(const Bytes& s) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    std::vector<Bytes> units;
    for (size_t k = 0; k < starts.size(); ++k)
        units.emplace_back(s.begin() + starts[k],
                           k + 1 < starts.size() ? s.begin() + starts[k + 1] : s.end());
    return units;
}

// The NAL type of a unit that starts with its start code.
int NalType(const Bytes& unit, bool h265) {
    const uint8_t header = unit[unit[2] == 1 ? 3 : 4];
    return h265 ? (header >> 1) & 63 : header & 31;
}

struct Picture {
    int width, height, pitch;
    Bytes yuv;
};

// Collects the decoder's pictures.
struct Pictures {
    std::vector<Picture> list;
    static void Take(unsigned char* yuv, int width, int height, int pitch, void* user) {
        auto* self = static_cast<Pictures*>(user);
        self->list.push_back({width, height, pitch, Bytes(yuv, yuv + width * height * 3 / 2)});
    }
};

// A stream that reorders pictures (B-frames) is held back by its reordering depth; three
// copies of a sample flush every picture of its first copy.
std::vector<Picture> DecodeCopies(int codec, const Bytes& stream, bool byUnit) {
    Pictures out;
    void* decoder = CreateDecoder(codec, &Pictures::Take, &out);
    EXPECT_NE(decoder, nullptr);
    for (int copy = 0; copy < 3; ++copy) {
        if (byUnit) {
            for (const Bytes& unit : SplitUnits(stream))
                EXPECT_EQ(Decoder(decoder, unit.data(), int(unit.size())), 1);
        } else {
            EXPECT_EQ(Decoder(decoder, stream.data(), int(stream.size())), 1);
        }
    }
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
    for (const Sample& s : kSamples) {
        SCOPED_TRACE(s.file);
        const Bytes stream = ReadSample(s.file);
        for (bool byUnit : {false, true}) {
            std::vector<Picture> pictures = DecodeCopies(s.codec, stream, byUnit);
            ASSERT_GE(pictures.size(), size_t(s.frames));
            for (const Picture& p : pictures) {
                EXPECT_EQ(p.width, s.width);
                EXPECT_EQ(p.height, s.height);
                EXPECT_EQ(p.pitch, s.width);
            }
        }
    }
}

// A snapshot feeds the parameter sets and then key frames only: a stream without reordering
// must give each picture within the call that brought it, not when the next one comes.
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
    EXPECT_EQ(CreateDecoder(VORN_H264, nullptr, &out), nullptr);
    EXPECT_EQ(Decoder(nullptr, reinterpret_cast<const unsigned char*>("x"), 1), 0);
    DestroyDecoder(nullptr);

    // Random bytes, a truncated key frame and a stream cut at every unit must neither crash
    // nor produce a picture of a wrong size.
    void* decoder = CreateDecoder(VORN_H264, &Pictures::Take, &out);
    ASSERT_NE(decoder, nullptr);
    srand(7);
    Bytes noise(4096);
    for (auto& b : noise) b = uint8_t(rand());
    Decoder(decoder, noise.data(), int(noise.size()));
    Bytes stream = ReadSample("h264_352x288_25fps_high.h264");
    for (size_t cut = 1; cut < stream.size(); cut += 97) Decoder(decoder, stream.data(), int(cut));
    EXPECT_EQ(Decoder(decoder, stream.data(), 0), 0);
    DestroyDecoder(decoder);
    for (const Picture& p : out.list) EXPECT_EQ(p.width * p.height, 352 * 288);
}

// A test picture: a horizontal luma ramp and flat chroma of distinct U and V values.
Bytes TestPicture(int width, int height, int frame) {
    Bytes yuv(width * height * 3 / 2);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) yuv[y * width + x] = uint8_t((x + frame) * 200 / width);
    std::fill(yuv.begin() + width * height, yuv.begin() + width * height * 5 / 4, 90);
    std::fill(yuv.begin() + width * height * 5 / 4, yuv.end(), 200);
    return yuv;
}

TEST(Encoder, EveryPictureYieldsAUnitThatDecodesBackToIt) {
    const int w = 320, h = 240;
    void* encoder = VideoEncodeCreate(VORN_H264, w, h, 25);
    ASSERT_NE(encoder, nullptr);
    // Decoded as it comes, as the re-encoded stream of a session is: one picture per unit.
    Pictures decoded;
    void* decoder = CreateDecoder(VORN_H264, &Pictures::Take, &decoded);
    for (int i = 0; i < 12; ++i) {
        Bytes yuv = TestPicture(w, h, i);
        unsigned char* out = nullptr;
        int length = 0;
        ASSERT_EQ(VideoEncodeData(encoder, yuv.data(), w, h, &out, &length), 1) << i;
        ASSERT_GT(length, 4);
        if (i == 0) {
            EXPECT_EQ((out[4] & 31), 7) << "the first unit opens with its SPS";
        }
        EXPECT_EQ(Decoder(decoder, out, length), 1);
        EXPECT_EQ(decoded.list.size(), size_t(i + 1));
    }
    DestroyDecoder(decoder);
    unsigned char* out = nullptr;
    int length = 0;
    Bytes wrongSize = TestPicture(w / 2, h, 0);
    EXPECT_EQ(VideoEncodeData(encoder, wrongSize.data(), w / 2, h, &out, &length), 0);
    VideoEncodeDestroy(encoder);

    const std::vector<Picture>& pictures = decoded.list;
    ASSERT_EQ(pictures.size(), 12u);
    const Picture& p = pictures[5];
    ASSERT_EQ(p.width, w);
    ASSERT_EQ(p.height, h);
    Bytes expected = TestPicture(w, h, 5);
    // Lossy, but a swapped plane or a wrong pitch would be far off.
    for (size_t at : {size_t(w * 10 + 40), size_t(w * 200 + 300), size_t(w * h + 100),
                      size_t(w * h * 5 / 4 + 100)})
        EXPECT_NEAR(p.yuv[at], expected[at], 6) << at;
}

TEST(Encoder, RefusesWhatItCannotEncode) {
    EXPECT_EQ(VideoEncodeCreate(VORN_H265, 320, 240, 25), nullptr);
    EXPECT_EQ(VideoEncodeCreate(VORN_H264, 321, 240, 25), nullptr);
    EXPECT_EQ(VideoEncodeCreate(VORN_H264, 0, 0, 25), nullptr);
    unsigned char* out = nullptr;
    int length = 0;
    EXPECT_EQ(VideoEncodeData(nullptr, nullptr, 0, 0, &out, &length), 0);
    VideoEncodeDestroy(nullptr);
}

// What ffprobe, run as a separate program, makes of a file: its stream's codec, size, frame
// count (every packet read) and duration.
std::map<std::string, std::string> Probe(const std::string& file) {
    const std::string command =
        "ffprobe -v error -count_packets -select_streams v:0 -show_entries "
        "stream=codec_name,width,height,nb_read_packets,duration -of default=nw=1 '" +
        file + "' 2>/dev/null";
    std::map<std::string, std::string> fields;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return fields;
    char line[256];
    while (fgets(line, sizeof line, pipe)) {
        std::string text(line);
        size_t eq = text.find('=');
        if (eq != std::string::npos)
            fields[text.substr(0, eq)] = text.substr(eq + 1, text.find_last_not_of("\r\n") - eq);
    }
    pclose(pipe);
    return fields;
}

bool Exists(const std::string& file) {
    struct stat st;
    return stat(file.c_str(), &st) == 0;
}

struct RecordCase {
    Sample sample;
    const char* codecName;
    const char* duration;  // five pictures at 25 a second, or one at 30
};

// The server hands over the parameter sets as the head and then each picture unit alone;
// another writer may pass the whole stream at once. Both give one sample per picture, timed
// by the rate the stream states.
TEST(Mp4Record, SamplesRecordedWholeOrUnitByUnitProbeAsTheStream) {
    const RecordCase cases[] = {{kSamples[0], "h264", "0.033333"},
                                {kSamples[1], "h264", "0.200000"},
                                {kSamples[2], "hevc", "0.033333"},
                                {kSamples[3], "hevc", "0.200000"}};
    cmstest::TempDir dir;
    for (const RecordCase& c : cases) {
        const Bytes stream = ReadSample(c.sample.file);
        for (bool byUnit : {false, true}) {
            SCOPED_TRACE(std::string(c.sample.file) + (byUnit ? " by unit" : " whole"));
            const std::string file = dir.File(std::string(c.sample.file) + ".mp4");
            void* recorder = MP4RecordOpen(file.c_str(), c.sample.codec, c.sample.width,
                                           c.sample.height, 25, 0, 0, 0, 0);
            ASSERT_NE(recorder, nullptr);
            if (byUnit) {
                Bytes head;
                std::vector<Bytes> pictures;
                const bool h265 = c.sample.codec == VORN_H265;
                for (const Bytes& unit : SplitUnits(stream)) {
                    const int type = NalType(unit, h265);
                    if (h265 ? type >= 32 && type <= 34 : type == 7 || type == 8)
                        head.insert(head.end(), unit.begin(), unit.end());
                    else
                        pictures.push_back(unit);
                }
                MP4RecordSetHead(recorder, head.data(), int(head.size()));
                for (const Bytes& unit : pictures)
                    MP4RecordWrite(recorder, unit.data(), int(unit.size()));
            } else {
                MP4RecordWrite(recorder, stream.data(), int(stream.size()));
            }
            MP4RecordClose(recorder);
            auto probe = Probe(file);
            EXPECT_EQ(probe["codec_name"], c.codecName);
            EXPECT_EQ(probe["width"], std::to_string(c.sample.width));
            EXPECT_EQ(probe["height"], std::to_string(c.sample.height));
            EXPECT_EQ(probe["nb_read_packets"], std::to_string(c.sample.frames));
            EXPECT_EQ(probe["duration"], c.duration);
        }
    }
}

// A longer recording of our own encoder's output: fragments every second, and a copy cut
// in the middle still holds the pictures of its whole fragments.
TEST(Mp4Record, ARecordingCutShortStillPlaysItsFirstFragments) {
    const int w = 320, h = 240, count = 100;
    cmstest::TempDir dir;
    const std::string file = dir.File("long.mp4");
    void* encoder = VideoEncodeCreate(VORN_H264, w, h, 25);
    void* recorder = MP4RecordOpen(file.c_str(), VORN_H264, w, h, 25, 0, 0, 0, 0);
    ASSERT_NE(encoder, nullptr);
    ASSERT_NE(recorder, nullptr);
    for (int i = 0; i < count; ++i) {
        Bytes yuv = TestPicture(w, h, i);
        unsigned char* out = nullptr;
        int length = 0;
        ASSERT_EQ(VideoEncodeData(encoder, yuv.data(), w, h, &out, &length), 1);
        MP4RecordWrite(recorder, out, length);
    }
    VideoEncodeDestroy(encoder);
    MP4RecordClose(recorder);

    auto whole = Probe(file);
    EXPECT_EQ(whole["nb_read_packets"], std::to_string(count));
    EXPECT_EQ(whole["duration"], "4.000000");

    std::ifstream in(file, std::ios::binary);
    Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string cut = dir.File("cut.mp4");
    std::ofstream(cut, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), bytes.size() * 6 / 10);
    auto part = Probe(cut);
    const int frames = atoi(part["nb_read_packets"].c_str());
    EXPECT_GE(frames, 25);
    EXPECT_LT(frames, count);
}

TEST(Mp4Record, RefusesBadNamesAndLeavesNoFileWithoutAKeyPicture) {
    cmstest::TempDir dir;
    EXPECT_EQ(MP4RecordOpen("", VORN_H264, 352, 288, 25, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(MP4RecordOpen(nullptr, VORN_H264, 352, 288, 25, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(MP4RecordOpen(dir.File("x.mp4").c_str(), VORN_JPEG, 352, 288, 25, 0, 0, 0, 0),
              nullptr);
    EXPECT_EQ(
        MP4RecordOpen(dir.File("no/such/dir.mp4").c_str(), VORN_H264, 352, 288, 25, 0, 0, 0, 0),
        nullptr);
    MP4RecordSetHead(nullptr, nullptr, 0);
    MP4RecordWrite(nullptr, nullptr, 0);
    MP4RecordClose(nullptr);

    // Only the pictures after the key frame, and noise: nothing decodable, so no file.
    const std::string file = dir.File("empty.mp4");
    void* recorder = MP4RecordOpen(file.c_str(), VORN_H264, 352, 288, 25, 0, 0, 0, 0);
    ASSERT_NE(recorder, nullptr);
    std::vector<Bytes> units = SplitUnits(ReadSample("h264_352x288_25fps_high.h264"));
    for (const Bytes& unit : units)
        if (NalType(unit, false) == 1) MP4RecordWrite(recorder, unit.data(), int(unit.size()));
    srand(3);
    Bytes noise(10000);
    for (auto& b : noise) b = uint8_t(rand());
    MP4RecordSetHead(recorder, noise.data(), int(noise.size()));
    MP4RecordWrite(recorder, noise.data(), int(noise.size()));
    MP4RecordClose(recorder);
    EXPECT_FALSE(Exists(file));
}

// Every play session decodes and records on its own thread at the same time.
TEST(Codec, SessionsOnTheirOwnThreadsDoNotDisturbEachOther) {
    cmstest::TempDir dir;
    const Bytes stream = ReadSample("h265_352x288.h265");
    std::vector<std::thread> sessions;
    std::vector<size_t> pictures(4);
    for (int i = 0; i < 4; ++i)
        sessions.emplace_back([&, i] {
            const std::string file = dir.File(std::to_string(i) + ".mp4");
            void* recorder = MP4RecordOpen(file.c_str(), VORN_H265, 0, 0, 25, 0, 0, 0, 0);
            pictures[i] = DecodeCopies(VORN_H265, stream, true).size();
            MP4RecordWrite(recorder, stream.data(), int(stream.size()));
            MP4RecordClose(recorder);
        });
    for (std::thread& t : sessions) t.join();
    for (int i = 0; i < 4; ++i) {
        EXPECT_GE(pictures[i], 5u);
        EXPECT_EQ(Probe(dir.File(std::to_string(i) + ".mp4"))["nb_read_packets"], "5");
    }
}

}  // namespace
