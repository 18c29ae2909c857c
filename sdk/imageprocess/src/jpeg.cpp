// YUV2JpgEx: JPEG straight from the planes of a 4:2:0 picture (no RGB round trip).
#include <turbojpeg.h>

#include <cstring>
#include <memory>

#include "VornImage.h"

namespace {

// Quality when the caller asks for the library's default (1).
constexpr int kDefaultQuality = 85;
// Far above any camera picture; keeps width * height well inside int.
constexpr int kMaxSide = 16384;

struct TjDestroy {
    void operator()(void* handle) const { tjDestroy(handle); }
};
struct TjFree {
    void operator()(unsigned char* buffer) const { tjFree(buffer); }
};

}  // namespace

int YUV2JpgEx(const unsigned char* yuv, int width, int height, unsigned char* out, int* length,
              int quality) {
    // Odd sizes have no exact half-size chroma planes in this layout.
    if (!yuv || !out || !length || *length <= 0 || width < 2 || height < 2 || width > kMaxSide ||
        height > kMaxSide || (width | height) & 1)
        return 0;
    if (quality <= 1) quality = kDefaultQuality;
    if (quality > 100) quality = 100;

    std::unique_ptr<void, TjDestroy> handle(tjInitCompress());
    if (!handle) return 0;
    const size_t lumaSize = static_cast<size_t>(width) * height;
    const unsigned char* planes[3] = {yuv, yuv + lumaSize, yuv + lumaSize + lumaSize / 4};
    const int strides[3] = {width, width / 2, width / 2};
    // The library sizes its own buffer: handing it ours would let it assume the worst-case
    // size, which the caller's buffer need not have.
    unsigned char* jpeg = nullptr;
    unsigned long jpegSize = 0;
    const int rc = tjCompressFromYUVPlanes(handle.get(), planes, width, strides, height, TJSAMP_420,
                                           &jpeg, &jpegSize, quality, 0);
    std::unique_ptr<unsigned char, TjFree> owned(jpeg);
    if (rc != 0 || !jpeg || jpegSize > static_cast<unsigned long>(*length)) return 0;
    memcpy(out, jpeg, jpegSize);
    *length = static_cast<int>(jpegSize);
    return 1;
}
