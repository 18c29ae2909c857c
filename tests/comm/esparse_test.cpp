#include "comm/esparse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadSample(const char* name) {
    std::ifstream in(std::string(CMS_SOURCE_DIR) + "/tests/data/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct Unit {
    size_t offset;
    int length, type;
};

// Walks a packet as the media path does, reading each unit's type with its own start code.
std::vector<Unit> Split(const Bytes& packet, bool h265) {
    std::vector<Unit> units;
    const uint8_t* p = packet.data();
    int remaining = static_cast<int>(packet.size()), startCode = 0, length = 0;
    if (!FindVideoFirstFrame(p, remaining, startCode)) return units;
    while (p) {
        const uint8_t header = p[startCode];
        const uint8_t* next = h265 ? ParasH265FrameNext(p, remaining, startCode, length)
                                   : ParasH264FrameNext(p, remaining, startCode, length);
        units.push_back(
            {size_t(p - packet.data()), length, h265 ? (header >> 1) & 63 : header & 31});
        p = next;
    }
    return units;
}

// The SPS unit without its start code, in a buffer of its exact size.
Bytes SpsOf(const Bytes& stream, bool h265) {
    for (const Unit& unit : Split(stream, h265)) {
        if (unit.type != (h265 ? int{NAL_H265_SPS} : int{NAL_SPS})) continue;
        const uint8_t* start = stream.data() + unit.offset;
        return Bytes(start + (start[2] == 1 ? 3 : 4), start + unit.length);
    }
    return {};
}

TEST(SampleStreams, CodecSizeAndFrameRate) {
    const struct {
        const char* file;
        bool h265;
        int width, height, fps;  // H.265 leaves the caller's frame rate alone
    } cases[] = {
        {"h264_352x288_25fps_high.h264", false, 352, 288, 25},
        {"h264_1920x1080_30fps_baseline.h264", false, 1920, 1088, 30},  // whole macroblocks
        {"h265_352x288.h265", true, 352, 288, 77},
        {"h265_1280x720.h265", true, 1280, 720, 77},
    };
    for (const auto& c : cases) {
        const Bytes stream = ReadSample(c.file);
        ASSERT_FALSE(stream.empty()) << c.file;
        int code = 0;
        EXPECT_EQ(GetCodeFromStream(stream.data(), int(stream.size()), code), 1);
        EXPECT_EQ(code, c.h265 ? kCodeH265 : kCodeH264);
        Bytes sps = SpsOf(stream, c.h265);
        int width = 0, height = 0, fps = 77;
        const uint32_t size = uint32_t(sps.size());
        ASSERT_EQ(c.h265 ? h265_decode_sps(sps.data(), size, width, height, fps)
                         : h264_decode_sps(sps.data(), size, width, height, fps),
                  1)
            << c.file;
        EXPECT_EQ((std::vector<int>{width, height, fps}),
                  (std::vector<int>{c.width, c.height, c.fps}))
            << c.file;
    }
}

TEST(Walkers, StreamAndUnitFormsWithEveryStartCodeLength) {
    const Bytes packet = {0, 0, 0, 1, 0x67, 1,    2, 3, 4, 5, 0, 0, 0, 1, 0x68,
                          9, 9, 0, 0, 1,    0x65, 0, 0, 1, 7, 7, 7, 7, 7};
    const uint8_t* p = packet.data();
    int remaining = int(packet.size()), startCode = 0, length = 0;
    ASSERT_EQ(FindVideoFirstFrame(p, remaining, startCode), 1);
    p = ParasH264FrameNext(p, remaining, startCode, length);
    EXPECT_EQ(length, 10);
    p = ParasH264FrameNext(p, remaining, startCode, length);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(startCode, 3);  // already the slice's, while the caller still holds the PPS
    p = ParasH264FrameNext(p, remaining, startCode, length);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(length, 12);  // the slice ignores the start code inside its data
    const Bytes tiny = {0, 0, 1, 0x67, 1};
    p = tiny.data();
    remaining = int(tiny.size());
    EXPECT_EQ(FindVideoFirstFrame(p, remaining, startCode), 0);

    const Bytes units = {7, 7, 0, 0,    0, 0, 1, 0x67, 1,    2, 0, 0,
                         0, 0, 1, 0x68, 5, 0, 0, 1,    0x65, 1, 2};
    p = units.data();
    remaining = int(units.size());
    ASSERT_EQ(ParasH264FindFrame(p, remaining), 1);
    EXPECT_EQ(p, units.data() + 7);
    const uint8_t* unit = nullptr;
    EXPECT_EQ(ParasH264FrameNext(p, remaining, unit, length), 8);
    EXPECT_EQ(unit, units.data() + 7);
    EXPECT_EQ(length, 3);
    EXPECT_EQ(ParasH264FrameNext(p, remaining, unit, length), 3);
    EXPECT_EQ(ParasH264FrameNext(p, remaining, unit, length), 0);
    EXPECT_EQ(ParasH264FrameNext(p, remaining, unit, length), -1);

    int code = 0;
    const Bytes five = {0, 0, 0, 0, 1, 0x67}, slice = {0, 0, 0, 1, 0x65, 1};
    EXPECT_EQ(GetCodeFromStream(five.data(), 6, code), 1);
    EXPECT_EQ(GetCodeFromStream(slice.data(), 6, code), 0);
    EXPECT_EQ(GetCodeFromStream(five.data(), 5, code), 0);
}

TEST(BitReaders, ExpGolombBoundsAndEmulationPrevention) {
    const uint8_t codes[] = {0b10100110, 0b01000000};  // ue 0, 1, 2, 3
    uint32_t pos = 0;
    for (uint32_t expected : {0u, 1u, 2u, 3u}) EXPECT_EQ(Ue(codes, 2, pos), expected);
    pos = 0;
    for (int32_t expected : {0, 1, -1, 2}) EXPECT_EQ(Se(codes, 2, pos), expected);
    // Past the end everything reads as zero bits.
    const uint8_t ones[] = {0xFF, 0xFF}, zeros[64] = {};
    pos = 4;
    EXPECT_EQ(u(12, ones, 1, pos), 0xF00u);
    pos = 0;
    EXPECT_EQ(Ue(zeros, sizeof zeros, pos), UINT32_MAX);

    Bytes b = {0x65, 0, 0, 3, 1, 0, 0, 3, 0, 9};
    uint32_t length = uint32_t(b.size());
    de_emulation_prevention(b.data(), length);
    EXPECT_EQ(Bytes(b.begin(), b.begin() + length), (Bytes{0x65, 0, 0, 1, 0, 0, 0, 9}));
    Bytes odd = {0xFF, 0x01, 0x03, 0x05};  // matches the signed sum too, deliberately
    length = 4;
    de_emulation_prevention(odd.data(), length);
    EXPECT_EQ(length, 3u);
}

TEST(SpsReaders, H264WithoutTimingAndWithPocCycle) {
    // Main profile, poc type 1 with a cycle of two, 120 x 68 macroblocks, cropping, no VUI.
    Bytes sps = {0x67, 0x4D, 0x00, 0x28, 0xD0, 0xE4, 0x62,
                 0x85, 0xA0, 0x1E, 0x00, 0x89, 0xF9, 0x50};
    int width = 0, height = 0, fps = 0;
    ASSERT_EQ(h264_decode_sps(sps.data(), uint32_t(sps.size()), width, height, fps), 1);
    EXPECT_EQ((std::vector<int>{width, height, fps}), (std::vector<int>{1920, 1088, 30}));
    Bytes pps = {0x68, 0xCE, 0x38, 0x80};
    EXPECT_EQ(h264_decode_sps(pps.data(), 4, width, height, fps), 0);
}

TEST(SpsReaders, H265IdAndBitDepthChecks) {
    // NAL header and one sub-layer of main profile, then from sps_id on: chroma format,
    // 1920 x 1080, conformance window (4 each side when present), bit depths.
    const Bytes head = {0x42, 0x01, 0x01, 0x01, 0x60, 0, 0, 3, 0, 0x90, 0, 0, 3, 0, 0, 3, 0, 0x5D};
    const struct {
        const char* what;
        Bytes tail;
        int result;
    } cases[] = {
        {"id 0, 4:2:0", {0xA0, 0x03, 0xC0, 0x80, 0x10, 0xE5, 0xFF, 0xFF, 0xFF, 0xFF, 0xC0}, 1},
        {"id 3, 4:4:4, window, 10 bits",
         {0x21, 0x00, 0x07, 0x81, 0x00, 0x21, 0xCC, 0xA5, 0x29, 0x5B, 0xFF, 0xFF, 0xFF, 0xFF, 0x80},
         1},
        {"id 4", {0x2A, 0x00, 0x3C, 0x08, 0x01, 0x0E, 0x5F, 0xFF, 0xFF, 0xFF, 0xFC}, 0},
        {"id 16", {0x08, 0xA0, 0x03, 0xC0, 0x80, 0x10, 0xE5, 0xFF, 0xFF, 0xFF, 0xFF, 0xC0}, 0},
        {"luma 10, chroma 8 bits",
         {0xA0, 0x03, 0xC0, 0x80, 0x10, 0xE4, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0},
         0},
    };
    for (const auto& c : cases) {
        Bytes sps = head;
        sps.insert(sps.end(), c.tail.begin(), c.tail.end());
        int width = -1, height = -1, fps = 12;
        EXPECT_EQ(h265_decode_sps(sps.data(), uint32_t(sps.size()), width, height, fps), c.result)
            << c.what;
        EXPECT_EQ(width, c.result ? 1920 : -1);  // outputs untouched on failure
        EXPECT_EQ(height, c.result ? 1080 : -1);
        vc_params_t params{};
        EXPECT_EQ(ParseSequenceParameterSet(sps.data(), 19, params), 0);  // cut short
    }
}

// Every reader on one buffer, held in a heap block of its exact size so that the address
// sanitizer reports any read past the end.
void ThroughEveryParser(const Bytes& data) {
    const int size = int(data.size());
    Bytes copy = data;
    int width = 0, height = 0, fps = 0, code = 0, sc = 0, length = 0;
    h264_decode_sps(copy.data(), uint32_t(size), width, height, fps);
    h265_decode_sps(data.data(), uint32_t(size), width, height, fps);
    GetCodeFromStream(data.data(), size, code);
    for (bool h265 : {false, true}) {
        const uint8_t* p = data.data();
        int remaining = size;
        if (FindVideoFirstFrame(p, remaining, sc))
            while (p)
                p = h265 ? ParasH265FrameNext(p, remaining, sc, length)
                         : ParasH264FrameNext(p, remaining, sc, length);
        p = data.data();
        remaining = size;
        const uint8_t* unit = nullptr;
        if (ParasH264FindFrame(p, remaining))
            while ((h265 ? ParasH265FrameNext(p, remaining, unit, length)
                         : ParasH264FrameNext(p, remaining, unit, length)) > 0) {
            }
    }
    uint32_t pos = 0;
    while (pos < uint32_t(size) * 8 + 16) Se(data.data(), uint32_t(size), pos);
}

TEST(EsParsers, RandomAndTruncatedInput) {
    std::mt19937 rng(7);
    for (int round = 0; round < 4000; ++round) {
        Bytes data(rng() % 64);
        for (uint8_t& b : data) b = rng() % 3 ? rng() % 4 : rng();  // rich in start codes
        ThroughEveryParser(data);
    }
    for (const char* file : {"h264_352x288_25fps_high.h264", "h265_352x288.h265"}) {
        const Bytes stream = ReadSample(file);
        for (size_t n = 0; n < std::min<size_t>(stream.size(), 120); ++n)
            ThroughEveryParser(Bytes(stream.begin(), stream.begin() + n));
        for (bool h265 : {false, true}) {
            const Bytes sps = SpsOf(stream, h265);
            for (size_t n = 0; n < sps.size(); ++n)
                ThroughEveryParser(Bytes(sps.begin(), sps.begin() + n));
        }
    }
}

}  // namespace
