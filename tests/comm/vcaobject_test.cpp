// The analytics object reader: records with trails follow one another, and a packet that
// lies about its counts or runs short is refused without touching the list.
#include "comm/vcaobject.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// One object record: box (x, x+1, x+2, x+3), class, state, detail 7, and `trails` points (i, i).
void AddObject(Bytes& b, int x, int cls, int state, int trails) {
    for (int v : {x, x + 1, x + 2, x + 3}) b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)});
    b.insert(b.end(), {uint8_t(cls), uint8_t(state), 7, uint8_t(trails)});
    for (int i = 0; i < trails; ++i) b.insert(b.end(), {uint8_t(i), 0, uint8_t(i), 0});
}

int Read(const Bytes& b, int count, _VORN_VCA_OBJECT_LIST& list, int cut = 0) {
    return AnylseIntvObject(b.data(), static_cast<int>(b.size()) - cut, count, &list);
}

TEST(VcaObjects, RecordsFollowTheirTrailsAndBadPacketsChangeNothing) {
    Bytes b;
    AddObject(b, 300, 2, 1, 3);  // 12 + 3 x 4 bytes
    AddObject(b, 200, 0, 0, 0);
    _VORN_VCA_OBJECT_LIST list{};
    list.object_arr[1].uId = 77;  // not carried by the packet: kept
    ASSERT_EQ(Read(b, 2, list), 1);
    EXPECT_EQ(list.object_num, 2);
    EXPECT_EQ(list.object_arr[0].trail.trailPoints[2].y, 2);
    EXPECT_EQ(list.object_arr[1].bBox.x, 200);  // right after the third trail point
    EXPECT_EQ(list.object_arr[1].uId, 77u);

    const _VORN_VCA_OBJECT_LIST before = list;
    EXPECT_EQ(Read(b, 0, list), 0);
    EXPECT_EQ(Read(b, 3, list), 0);     // a third record missing
    EXPECT_EQ(Read(b, 2, list, 1), 0);  // the last byte cut
    Bytes many, longTrail;
    for (int i = 0; i < 21; ++i) AddObject(many, i, 0, 0, 0);
    AddObject(longTrail, 1, 0, 0, 21);
    EXPECT_EQ(Read(many, 21, list), 0);
    EXPECT_EQ(Read(longTrail, 1, list), 0);
    EXPECT_EQ(std::memcmp(&before, &list, sizeof list), 0);
    EXPECT_EQ(Read(many, 20, list), 1);
}

}  // namespace
