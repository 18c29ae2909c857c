// AddObjectToYUV: a one-pixel polyline drawn into a planar YUV 4:2:0 picture.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "VornImage.h"

namespace {

struct Pen {
    uint8_t y, u, v;
};

// 0xRRGGBB to video-range YUV (BT.601), the range decoders and JPEG writers here expect.
Pen PenOf(int colour) {
    const double r = (colour >> 16) & 255, g = (colour >> 8) & 255, b = colour & 255;
    auto clamp = [](double v) {
        return uint8_t(std::min(255.0, std::max(0.0, std::lround(v) * 1.0)));
    };
    return {clamp(16 + 0.257 * r + 0.504 * g + 0.098 * b),
            clamp(128 - 0.148 * r - 0.291 * g + 0.439 * b),
            clamp(128 + 0.439 * r - 0.368 * g - 0.071 * b)};
}

class Canvas {
public:
    Canvas(uint8_t* yuv, int width, int height, Pen pen)
        : m_luma(yuv), m_width(width), m_height(height), m_pen(pen) {
        const size_t lumaSize = size_t(width) * height;
        const size_t chromaSize = size_t(width / 2) * (height / 2);
        m_u = yuv + lumaSize;
        m_v = m_u + chromaSize;
    }

    // Luma at full resolution; the chroma sample shared by the 2x2 block around it.
    void Plot(int x, int y) {
        if (x < 0 || y < 0 || x >= m_width || y >= m_height) return;
        m_luma[size_t(y) * m_width + x] = m_pen.y;
        const int cx = x / 2, cy = y / 2;
        if (cx >= m_width / 2 || cy >= m_height / 2) return;  // last column or row of an odd size
        m_u[size_t(cy) * (m_width / 2) + cx] = m_pen.u;
        m_v[size_t(cy) * (m_width / 2) + cx] = m_pen.v;
    }

    // Bresenham from (x0, y0) to (x1, y1), both inside the picture.
    void Line(int x0, int y0, int x1, int y1) {
        const int dx = std::abs(x1 - x0), dy = -std::abs(y1 - y0);
        const int sx = x0 < x1 ? 1 : -1, sy = y0 < y1 ? 1 : -1;
        int err = dx + dy;
        for (;;) {
            Plot(x0, y0);
            if (x0 == x1 && y0 == y1) return;
            const int e2 = 2 * err;
            if (e2 >= dy) {
                err += dy;
                x0 += sx;
            }
            if (e2 <= dx) {
                err += dx;
                y0 += sy;
            }
        }
    }

    // Cuts the segment to the picture first (Liang-Barsky), so that points far outside
    // cost nothing and nothing is written outside.
    void ClippedLine(int64_t x0, int64_t y0, int64_t x1, int64_t y1) {
        const double dx = double(x1 - x0), dy = double(y1 - y0);
        double t0 = 0, t1 = 1;
        auto edge = [&](double p, double q) {
            if (p == 0) return q >= 0;
            const double t = q / p;
            if (p < 0) {
                if (t > t1) return false;
                t0 = std::max(t0, t);
            } else {
                if (t < t0) return false;
                t1 = std::min(t1, t);
            }
            return true;
        };
        if (!edge(-dx, double(x0)) || !edge(dx, double(m_width - 1 - x0)) ||
            !edge(-dy, double(y0)) || !edge(dy, double(m_height - 1 - y0)))
            return;
        auto at = [](int64_t from, double d, double t, int limit) {
            return int(std::min<double>(limit, std::max(0.0, std::round(double(from) + d * t))));
        };
        Line(at(x0, dx, t0, m_width - 1), at(y0, dy, t0, m_height - 1), at(x0, dx, t1, m_width - 1),
             at(y0, dy, t1, m_height - 1));
    }

private:
    uint8_t* m_luma;
    uint8_t* m_u;
    uint8_t* m_v;
    const int m_width, m_height;
    const Pen m_pen;
};

}  // namespace

int AddObjectToYUV(unsigned char* yuv, int width, int height, const int* points, int count,
                   int colour) {
    if (!yuv || !points || count <= 0 || width <= 0 || height <= 0) return 0;
    Canvas canvas(yuv, width, height, PenOf(colour));
    if (count == 1) canvas.ClippedLine(points[0], points[1], points[0], points[1]);
    for (int i = 1; i < count; ++i)
        canvas.ClippedLine(points[2 * i - 2], points[2 * i - 1], points[2 * i], points[2 * i + 1]);
    return 1;
}
