// Time stamps of recorded samples: presentation order from order counts, decode times from
// the stated rate or the arrival times.
#include "sdk/codec/src/sampletiming.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using vcodec::SampleTimer;

struct Out {
    int poc;  // of the unit whose index the sample carries
    bool key;
    int64_t dts, pts, duration;
};

struct Unit {
    int poc;
    bool key;
    int64_t arrival = 0;
};

std::vector<Out> Time(int64_t frameTicks, const std::vector<Unit>& units) {
    std::vector<Out> out;
    SampleTimer timer(frameTicks, 3600, [&](const SampleTimer::Sample& s) {
        const size_t index = s.data[0] | s.data[1] << 8;
        out.push_back({units.at(index).poc, s.key, s.dts, s.pts, s.duration});
        EXPECT_EQ(index, out.size() - 1) << "out of decode order";
    });
    for (size_t i = 0; i < units.size(); ++i)
        timer.Push(std::vector<uint8_t>{uint8_t(i), uint8_t(i >> 8)}, units[i].key, units[i].poc,
                   units[i].arrival);
    timer.Finish();
    return out;
}

// What every recording needs: all units out, in decode order, decode times strictly rising,
// nothing presented before it is decoded.
void ExpectWellFormed(const std::vector<Out>& out, const std::vector<Unit>& in) {
    ASSERT_EQ(out.size(), in.size());
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_GE(out[i].pts, out[i].dts) << i;
        if (i > 0) {
            EXPECT_GT(out[i].dts, out[i - 1].dts) << i;
        }
    }
}

// The presentation times, earliest first.
std::vector<int64_t> PresentationTimes(std::vector<Out> out) {
    std::sort(out.begin(), out.end(), [](const Out& a, const Out& b) { return a.pts < b.pts; });
    std::vector<int64_t> pts;
    for (const Out& o : out) pts.push_back(o.pts);
    return pts;
}

TEST(SampleTimer, ReorderedPicturesAtAStatedRateArePresentedInOrderWithoutGaps) {
    // An IBBP pyramid as x264 writes it (order counts in steps of two), two IDR groups.
    std::vector<Unit> units;
    for (int group = 0; group < 2; ++group) {
        units.push_back({0, true});
        for (int base = 0; base < 40; base += 8)
            for (int poc : {base + 8, base + 4, base + 2, base + 6}) units.push_back({poc, false});
    }
    std::vector<Out> out = Time(3600, units);
    ExpectWellFormed(out, units);
    // Within a group, later order counts are presented later.
    for (size_t i = 0; i < out.size(); ++i)
        for (size_t j = 0; j < out.size(); ++j)
            if (i / 21 == j / 21 && out[i].poc < out[j].poc) {
                EXPECT_LT(out[i].pts, out[j].pts);
            }
    // And the second group follows the first.
    EXPECT_GT(out[21].pts, out[20].pts);
    // Every presentation slot is used once: one picture every 3600 ticks.
    std::vector<int64_t> pts = PresentationTimes(out);
    for (size_t i = 1; i < pts.size(); ++i) EXPECT_EQ(pts[i] - pts[i - 1], 3600) << i;
    // The pyramid reorders two deep, so presentation starts two pictures late.
    EXPECT_EQ(pts.front(), 2 * 3600);
    EXPECT_EQ(out.front().dts, 0);
}

TEST(SampleTimer, WithoutAStatedRateArrivalTimesCount) {
    // In order, arriving unevenly; one arrival out of order and a last one of unknown time.
    std::vector<Unit> units = {{0, true, 1000},  {2, false, 4000},  {4, false, 8000},
                               {6, false, 7000}, {8, false, 12000}, {10, false, -1}};
    std::vector<Out> out = Time(0, units);
    ExpectWellFormed(out, units);
    EXPECT_EQ(out[0].dts, 0);
    EXPECT_EQ(out[1].dts, 3000);
    EXPECT_EQ(out[2].dts, 7000);
    EXPECT_EQ(out[3].dts, 7001);  // kept rising
    EXPECT_EQ(out[4].dts, 11000);
    EXPECT_EQ(out[5].dts, 11000 + 11000 / 4);  // one average step after the last known
    for (const Out& o : out) EXPECT_EQ(o.pts, o.dts);
    EXPECT_EQ(out[0].duration, 3000);
    EXPECT_GT(out[5].duration, 0);
}

TEST(SampleTimer, OddStreamsStayWellFormed) {
    // Order counts that fall forever without a key picture, a stream reordering deeper later
    // than at its start, and repeated key pictures with the same count.
    std::vector<Unit> falling;
    for (int i = 0; i < 200; ++i) falling.push_back({1000 - i, i == 0});
    ExpectWellFormed(Time(3600, falling), falling);

    std::vector<Unit> deeper = {{0, true}, {2, false}, {4, false}};
    for (int base = 4; base < 200; base += 16)
        for (int poc :
             {base + 16, base + 8, base + 4, base + 2, base + 6, base + 12, base + 10, base + 14})
            deeper.push_back({poc, false});
    ExpectWellFormed(Time(3600, deeper), deeper);

    std::vector<Unit> keys(30, Unit{0, true});
    std::vector<Out> out = Time(3600, keys);
    ExpectWellFormed(out, keys);
    EXPECT_EQ(out.back().pts, 29 * 3600);
}

}  // namespace
