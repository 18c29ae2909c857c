// The picture library: JPEG from YUV planes, and polylines drawn into them.
#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <climits>
#include <cstdint>
#include <vector>

#include "VornImage.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A w x h picture of flat grey luma and chroma U=90, V=200, followed by `guard` bytes of 0xEE
// that nothing may touch.
Bytes Picture(int w, int h, size_t guard = 0) {
    Bytes yuv(w * h * 3 / 2 + guard, 0xEE);
    std::fill(yuv.begin(), yuv.begin() + w * h, 100);
    std::fill(yuv.begin() + w * h, yuv.begin() + w * h * 5 / 4, 90);
    std::fill(yuv.begin() + w * h * 5 / 4, yuv.begin() + w * h * 3 / 2, 200);
    return yuv;
}

TEST(Jpeg, CompressesFromThePlanesAndDecodesBackToThePicture) {
    const int w = 352, h = 288;
    Bytes yuv = Picture(w, h);
    Bytes jpeg(w * h);
    int length = int(jpeg.size());
    ASSERT_EQ(YUV2JpgEx(yuv.data(), w, h, jpeg.data(), &length, 1), 1);
    ASSERT_GT(length, 100);

    tjhandle tj = tjInitDecompress();
    int width = 0, height = 0, subsamp = -1, colorspace = -1;
    ASSERT_EQ(tjDecompressHeader3(tj, jpeg.data(), length, &width, &height, &subsamp, &colorspace),
              0);
    EXPECT_EQ(width, w);
    EXPECT_EQ(height, h);
    EXPECT_EQ(subsamp, TJSAMP_420);
    Bytes back(w * h * 3 / 2);
    ASSERT_EQ(tjDecompressToYUV2(tj, jpeg.data(), length, back.data(), w, 1, h, 0), 0);
    tjDestroy(tj);
    // Planes in the right order: Y, then U, then V.
    EXPECT_NEAR(back[w * 10 + 10], 100, 2);
    EXPECT_NEAR(back[w * h + 50], 90, 2);
    EXPECT_NEAR(back[w * h * 5 / 4 + 50], 200, 2);

    // A higher quality than the default takes more bytes.
    Bytes other(w * h * 4);
    int best = int(other.size());
    Bytes noisy = yuv;
    for (size_t i = 0; i < size_t(w * h); ++i) noisy[i] = uint8_t(i * 7919 % 251);
    length = int(jpeg.size());
    ASSERT_EQ(YUV2JpgEx(noisy.data(), w, h, jpeg.data(), &length, 1), 1);
    ASSERT_EQ(YUV2JpgEx(noisy.data(), w, h, other.data(), &best, 100), 1);
    EXPECT_GT(best, length);
}

TEST(Jpeg, RefusesWhatDoesNotFitOrHasNoExactChroma) {
    const int w = 64, h = 48;
    Bytes yuv = Picture(w, h);
    Bytes out(w * h);
    int length = 10;  // far too small for any JPEG
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w, h, out.data(), &length, 1), 0);
    EXPECT_EQ(length, 10);
    length = int(out.size());
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w - 1, h, out.data(), &length, 1), 0);
    EXPECT_EQ(YUV2JpgEx(nullptr, w, h, out.data(), &length, 1), 0);
    EXPECT_EQ(YUV2JpgEx(yuv.data(), 0, h, out.data(), &length, 1), 0);
    EXPECT_EQ(YUV2JpgEx(yuv.data(), w, h, out.data(), nullptr, 1), 0);
}

struct Yuv {
    int y, u, v;
};
Yuv At(const Bytes& p, int w, int h, int x, int y) {
    return {p[y * w + x], p[w * h + (y / 2) * (w / 2) + x / 2],
            p[w * h * 5 / 4 + (y / 2) * (w / 2) + x / 2]};
}

TEST(Draw, ABoxIsDrawnInItsColourOnItsOutlineOnly) {
    const int w = 64, h = 48;
    Bytes yuv = Picture(w, h);
    const int box[] = {10, 8, 30, 8, 30, 20, 10, 20, 10, 8};
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, box, 5, 0x00FF00), 1);
    // Green in video-range BT.601.
    for (auto [x, y] : {std::pair{10, 8}, {20, 8}, {30, 14}, {30, 20}, {10, 15}}) {
        Yuv c = At(yuv, w, h, x, y);
        EXPECT_EQ(c.y, 145) << x << "," << y;
        EXPECT_EQ(c.u, 54) << x << "," << y;
        EXPECT_EQ(c.v, 34) << x << "," << y;
    }
    int drawn = 0;
    for (int i = 0; i < w * h; ++i) drawn += yuv[i] != 100;
    EXPECT_EQ(drawn, 2 * 21 + 2 * 11);  // the outline, corners once
    EXPECT_EQ(At(yuv, w, h, 20, 14).y, 100);
    EXPECT_EQ(At(yuv, w, h, 20, 14).u, 90);

    Bytes white = Picture(w, h);
    const int dot[] = {5, 5};
    ASSERT_EQ(AddObjectToYUV(white.data(), w, h, dot, 1, 0xFFFFFF), 1);
    EXPECT_EQ(At(white, w, h, 5, 5).y, 235);
    EXPECT_EQ(At(white, w, h, 5, 5).u, 128);
    EXPECT_EQ(At(white, w, h, 5, 5).v, 128);
}

TEST(Draw, LinesReachingOutsideAreClippedAndNothingOutsideIsWritten) {
    const int w = 64, h = 48;
    const size_t guard = 4096;
    Bytes yuv = Picture(w, h, guard);
    // A diagonal through the picture from far outside, lines wholly outside, the extremes of
    // int, and an odd-sized picture whose last row and column have no chroma of their own.
    const int diagonal[] = {-1000, -1000, 2000, 2000};
    const int outside[] = {-50, -5, -10, -40, 100, -3, 200, 300};
    const int extremes[] = {INT_MIN, INT_MIN, INT_MAX, INT_MAX, INT_MIN, INT_MAX, INT_MAX, INT_MIN};
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, diagonal, 2, 0xFFFFFF), 1);
    for (int i = 0; i < h; ++i) EXPECT_EQ(At(yuv, w, h, i, i).y, 235) << i;
    int drawn = 0;
    for (int i = 0; i < w * h; ++i) drawn += yuv[i] != 100;
    EXPECT_EQ(drawn, h);

    Bytes before = yuv;
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, outside, 4, 0xFFFFFF), 1);
    EXPECT_EQ(yuv, before);
    ASSERT_EQ(AddObjectToYUV(yuv.data(), w, h, extremes, 4, 0xFF0000), 1);
    for (size_t i = yuv.size() - guard; i < yuv.size(); ++i) ASSERT_EQ(yuv[i], 0xEE) << i;

    Bytes odd(63 * 47 + 31 * 23 * 2 + guard, 0xEE);
    const int corner[] = {62, 0, 62, 46, 0, 46};
    ASSERT_EQ(AddObjectToYUV(odd.data(), 63, 47, corner, 3, 0xFFFFFF), 1);
    EXPECT_EQ(odd[46 * 63 + 62], 235);
    for (size_t i = odd.size() - guard; i < odd.size(); ++i) ASSERT_EQ(odd[i], 0xEE) << i;

    EXPECT_EQ(AddObjectToYUV(nullptr, w, h, diagonal, 2, 0), 0);
    EXPECT_EQ(AddObjectToYUV(yuv.data(), w, h, nullptr, 2, 0), 0);
    EXPECT_EQ(AddObjectToYUV(yuv.data(), w, h, diagonal, 0, 0), 0);
}

}  // namespace
