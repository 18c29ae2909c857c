/* Picture helpers on planar YUV 4:2:0 (Y plane width x height, then U and V planes of
 * (width/2) x (height/2), contiguous, no padding). */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Compresses the picture to JPEG straight from its planes. `*length` in: capacity of `out`;
 * out: bytes written. `quality` 1 means the library's default quality (a number above 1 is
 * taken as a JPEG quality 2..100). Returns 1, or 0 when the arguments are bad or the result
 * does not fit. */
int YUV2JpgEx(const unsigned char* yuv, int width, int height, unsigned char* out, int* length,
              int quality);

/* Draws the polyline through `count` points (`points` holds x0, y0, x1, y1, ... as 32-bit
 * integers) in the 24-bit colour 0xRRGGBB into the luma and chroma planes; clipped to the
 * picture. Returns 1, or 0 for bad arguments. */
int AddObjectToYUV(unsigned char* yuv, int width, int height, const int* points, int count,
                   int colour);

#ifdef __cplusplus
}
#endif
