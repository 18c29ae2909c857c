// The codec library on the sample streams: decoding, encoding and MP4 recording.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "VornCodec.h"

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

// A decoder gives a picture once the next one begins, and a stream that reorders pictures
// holds them back further: three copies of a stream flush every picture of its first copy.
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
    Bytes stream;
    for (int i = 0; i < 12; ++i) {
        Bytes yuv = TestPicture(w, h, i);
        unsigned char* out = nullptr;
        int length = 0;
        ASSERT_EQ(VideoEncodeData(encoder, yuv.data(), w, h, &out, &length), 1) << i;
        ASSERT_GT(length, 4);
        if (i == 0) {
            EXPECT_EQ((out[4] & 31), 7) << "the first unit opens with its SPS";
        }
        stream.insert(stream.end(), out, out + length);
    }
    unsigned char* out = nullptr;
    int length = 0;
    Bytes wrongSize = TestPicture(w / 2, h, 0);
    EXPECT_EQ(VideoEncodeData(encoder, wrongSize.data(), w / 2, h, &out, &length), 0);
    VideoEncodeDestroy(encoder);

    std::vector<Picture> pictures = DecodeCopies(VORN_H264, stream, true);
    ASSERT_GE(pictures.size(), 12u);
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

}  // namespace
