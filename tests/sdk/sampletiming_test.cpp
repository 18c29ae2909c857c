// Time stamps of recorded samples: presentation order from order counts, decode times from
// the stated rate or from arrival.
#include "sdk/codec/src/sampletiming.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using vcodec::SampleTimer;

struct Unit {
    int poc;
    bool key;
    int64_t arrival = 0;
};
struct Out {
    int poc;
    int64_t dts, pts;
};

// Runs the units through a timer and checks what every recording needs: all units out in
// decode order, decode times strictly rising, nothing presented before it is decoded.
std::vector<Out> Time(int64_t frameTicks, const std::vector<Unit>& units) {
    std::vector<Out> out;
    SampleTimer timer(frameTicks, 3600, [&](const SampleTimer::Sample& s) {
        const size_t index = s.data[0] | s.data[1] << 8;
        EXPECT_EQ(index, out.size()) << "out of decode order";
        EXPECT_GE(s.pts, s.dts) << index;
        EXPECT_TRUE(out.empty() || s.dts > out.back().dts) << index;
        out.push_back({units.at(index).poc, s.dts, s.pts});
    });
    for (size_t i = 0; i < units.size(); ++i)
        timer.Push({uint8_t(i), uint8_t(i >> 8)}, units[i].key, units[i].poc, units[i].arrival);
    timer.Finish();
    EXPECT_EQ(out.size(), units.size());
    return out;
}

TEST(SampleTimer, ReorderedPicturesAtAStatedRateArePresentedInOrderWithoutGaps) {
    // Two IDR groups of an IBBP pyramid as x264 writes it (order counts step by two).
    std::vector<Unit> units;
    for (int group = 0; group < 2; ++group) {
        units.push_back({0, true});
        for (int base = 0; base < 40; base += 8)
            for (int poc : {base + 8, base + 4, base + 2, base + 6}) units.push_back({poc, false});
    }
    std::vector<Out> out = Time(3600, units);
    std::vector<Out> shown = out;
    std::stable_sort(shown.begin(), shown.end(),
                     [](const Out& a, const Out& b) { return a.pts < b.pts; });
    for (size_t i = 1; i < shown.size(); ++i) {
        EXPECT_EQ(shown[i].pts - shown[i - 1].pts, 3600) << "one slot per picture, no gaps";
        EXPECT_TRUE(i == 21 || shown[i].poc > shown[i - 1].poc) << "order-count order in a group";
    }
    // The pyramid reorders two deep, so presentation starts two pictures after decoding.
    EXPECT_EQ(out.front().dts, 0);
    EXPECT_EQ(shown.front().pts, 2 * 3600);
}

TEST(SampleTimer, WithoutAStatedRateArrivalTimesCount) {
    // Uneven arrivals, one out of order, and a last one of unknown time.
    std::vector<Out> out = Time(0, {{0, true, 1000},
                                    {2, false, 4000},
                                    {4, false, 8000},
                                    {6, false, 7000},
                                    {8, false, 12000},
                                    {10, false, -1}});
    const int64_t expected[] = {0, 3000, 7000, 7001, 11000, 11000 + 11000 / 4};
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(out[i].dts, expected[i]) << i;
        EXPECT_EQ(out[i].pts, out[i].dts) << i;
    }
}

TEST(SampleTimer, OddStreamsStayWellFormed) {
    // Order counts falling forever without a key picture; reordering that grows deeper after
    // the start; key pictures that all have the same count.
    std::vector<Unit> falling, deeper{{0, true}, {2, false}, {4, false}}, keys(30, Unit{0, true});
    for (int i = 0; i < 200; ++i) falling.push_back({1000 - i, i == 0});
    for (int base = 4; base < 200; base += 16)
        for (int d : {16, 8, 4, 2, 6, 12, 10, 14}) deeper.push_back({base + d, false});
    Time(3600, falling);
    Time(3600, deeper);
    EXPECT_EQ(Time(3600, keys).back().pts, 29 * 3600);
}

}  // namespace
