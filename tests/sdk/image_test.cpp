// The picture library: JPEG from YUV planes, and polylines drawn into them.
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <climits>
#include <cstdint>
#include <vector>

#include "VornImage.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Grey luma, U = 90, V = 200, then `guard` bytes of 0xEE that nothing may touch.
Bytes Picture(int w, int h, size_t guard = 0) {
    Bytes yuv(w * h * 3 / 2 + guard, 0xEE);
    std::fill(yuv.begin(), yuv.begin() + w * h, 100);
    std::fill(yuv.begin() + w * h, yuv.begin() + w * h * 5 / 4, 90);
    std::fill(yuv.begin() + w * h * 5 / 4, yuv.begin() + w * h * 3 / 2, 200);
    return yuv;
}

TEST(Jpeg, CompressesFromThePlanesOrRefuses) {
    const int w = 352, h = 288;
    Bytes yuv = Picture(w, h), jpeg(w * h);
    int length = int(jpeg.size());
    ASSERT_EQ(YUV2JpgEx(yuv.data(), w, h, jpeg.data(), &length, 1), 1);
    tjhandle tj = tjInitDecompress();
    int width = 0, height = 0, subsamp = -1, colorspace = -1;
    ASSERT_EQ(tjDecompressHeader3(tj, jpeg.data(), length, &width, &height, &subsamp, &colorspace),
              0);
    EXPECT_EQ(width * 10000 + height, w * 10000 + h);
    EXPECT_EQ(subsamp, TJSAMP_420);
    Bytes back(w * h * 3 / 2);
    ASSERT_EQ(tjDecompressToYUV2(tj, jpeg.data(), length, back.data(), w, 1, h, 0), 0);
    tjDestroy(tj);
    // Planes in the right order: Y, U, V.
    EXPECT_NEAR(back[w * 10 + 10], 100, 2);
    EXPECT_NEAR(back[w * h + 50], 90, 2);
    EXPECT_NEAR(back[w * h * 5 / 4 + 50], 200, 2);

    // A result larger than the buffer, an odd size (no exact half-size chroma), no buffer.
    int small = 10;
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w, h, jpeg.data(), &small, 1), 0);
    EXPECT_EQ(small, 10);
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w - 1, h, jpeg.data(), &length, 1), 0);
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w, h, nullptr, &length, 1), 0);
}

struct Yuv {
    int y, u, v;
    bool operator==(const Yuv& o) const { return y == o.y && u == o.u && v == o.v; }
};
Yuv At(const Bytes& p, int w, int h, int x, int y) {
    const int c = (y / 2) * (w / 2) + x / 2;
    return {p[y * w + x], p[w * h + c], p[w * h * 5 / 4 + c]};
}
int Drawn(const Bytes& p, int w, int h) {
    return int(std::count_if(p.begin(), p.begin() + w * h, [](uint8_t v) { return v != 100; }));
}

TEST(Draw, ABoxIsDrawnInItsColourOnItsOutlineOnly) {
    const int w = 64, h = 48;
    Bytes yuv = Picture(w, h);
    const int box[] = {10, 8, 30, 8, 30, 20, 10, 20, 10, 8};
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, box, 5, 0x00FF00), 1);
    const Yuv green{145, 54, 34};  // video-range BT.601
    for (auto [x, y] : {std::pair{10, 8}, {20, 8}, {30, 14}, {30, 20}, {10, 15}})
        EXPECT_TRUE(At(yuv, w, h, x, y) == green) << x << "," << y;
    EXPECT_EQ(Drawn(yuv, w, h), 2 * 21 + 2 * 11);  // the outline, each corner once
    EXPECT_TRUE((At(yuv, w, h, 20, 14) == Yuv{100, 90, 200}));

    EXPECT_EQ(AddObjectToYUV(nullptr, w, h, box, 5, 0), 0);
    EXPECT_EQ(AddObjectToYUV(yuv.data(), w, h, box, 0, 0), 0);
}

TEST(Draw, LinesReachingOutsideAreClippedAndNothingOutsideIsWritten) {
    const int w = 64, h = 48;
    const size_t guard = 4096;
    Bytes yuv = Picture(w, h, guard);
    const int diagonal[] = {-1000, -1000, 2000, 2000};  // in white
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, diagonal, 2, 0xFFFFFF), 1);
    for (int i = 0; i < h; ++i) EXPECT_TRUE((At(yuv, w, h, i, i) == Yuv{235, 128, 128})) << i;
    EXPECT_EQ(Drawn(yuv, w, h), h);

    // Lines wholly outside change nothing; the extremes of int finish at once.
    const Bytes before = yuv;
    const int outside[] = {-50, -5, -10, -40, 100, -3, 200, 300};
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, outside, 4, 0xFFFFFF), 1);
    EXPECT_EQ(yuv, before);
    const int extremes[] = {INT_MIN, INT_MIN, INT_MAX, INT_MAX, INT_MIN, INT_MAX, INT_MAX, INT_MIN};
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, extremes, 4, 0xFF0000), 1);
    EXPECT_EQ(Bytes(yuv.end() - guard, yuv.end()), Bytes(guard, 0xEE));

    // An odd size: the last row and column share the chroma of the ones before.
    Bytes odd(63 * 47 + 31 * 23 * 2 + guard, 0xEE);
    const int corner[] = {62, 0, 62, 46, 0, 46};
    ASSERT_EQ(AddObjectToYUV(odd.data(), 63, 47, corner, 3, 0xFFFFFF), 1);
    EXPECT_EQ(odd[46 * 63 + 62], 235);
    EXPECT_EQ(Bytes(odd.end() - guard, odd.end()), Bytes(guard, 0xEE));
}

}  // namespace
