// The analytics object reader: records with trails follow one another, and a packet that
// lies about its counts or runs short is refused without touching the list.
#include "comm/vcaobject.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

void Put16(Bytes& b, int v) {
    b.push_back(static_cast<unsigned char>(v));
    b.push_back(static_cast<unsigned char>(v >> 8));
}

// One object record: box, class, state, detail and `trails` points (i, i + 1).
void AddObject(Bytes& b, int x, int cls, int state, int trails) {
    for (int v : {x, x + 1, x + 2, x + 3}) Put16(b, v);
    b.insert(b.end(), {static_cast<unsigned char>(cls), static_cast<unsigned char>(state), 7,
                       static_cast<unsigned char>(trails)});
    for (int i = 0; i < trails; ++i) {
        Put16(b, i);
        Put16(b, i + 1);
    }
}

TEST(VcaObjects, RecordsWithTrailsFollowEachOther) {
    Bytes b;
    AddObject(b, 100, 2, 1, 3);  // 12 + 3 x 4 = 24 bytes
    AddObject(b, 200, 0, 0, 0);
    ASSERT_EQ(b.size(), 36u);
    _VORN_VCA_OBJECT_LIST list{};
    list.object_arr[1].uId = 77;  // not carried by the packet: kept
    ASSERT_EQ(AnylseIntvObject(b.data(), static_cast<int>(b.size()), 2, &list), 1);
    EXPECT_EQ(list.object_num, 2);
    const _VORN_VCA_OBJECT& a = list.object_arr[0];
    EXPECT_EQ(a.bBox.x, 100);
    EXPECT_EQ(a.bBox.h, 103);
    EXPECT_EQ(a.uClassificationId, 2u);
    EXPECT_EQ(a.uFlags, 1u);
    EXPECT_EQ(a.uDetail, 7u);
    ASSERT_EQ(a.trail.usNumTrailPoints, 3);
    EXPECT_EQ(a.trail.trailPoints[2].x, 2);
    EXPECT_EQ(a.trail.trailPoints[2].y, 3);
    EXPECT_EQ(list.object_arr[1].bBox.x, 200);
    EXPECT_EQ(list.object_arr[1].uId, 77u);
}

TEST(VcaObjects, BadCountsAndShortPacketsLeaveTheListAlone) {
    Bytes b;
    AddObject(b, 100, 0, 0, 2);
    _VORN_VCA_OBJECT_LIST list{};
    list.object_num = 5;
    const int n = static_cast<int>(b.size());
    EXPECT_EQ(AnylseIntvObject(b.data(), n, 0, &list), 0);
    EXPECT_EQ(AnylseIntvObject(b.data(), n, -1, &list), 0);
    EXPECT_EQ(AnylseIntvObject(nullptr, n, 1, &list), 0);
    EXPECT_EQ(AnylseIntvObject(b.data(), n, 1, nullptr), 0);
    EXPECT_EQ(AnylseIntvObject(b.data(), n - 1, 1, &list), 0);  // last trail point cut
    EXPECT_EQ(AnylseIntvObject(b.data(), n, 2, &list), 0);      // a second record missing
    EXPECT_EQ(list.object_num, 5);
    EXPECT_EQ(list.object_arr[0].bBox.x, 0);

    Bytes many;
    for (int i = 0; i < 21; ++i) AddObject(many, i, 0, 0, 0);
    EXPECT_EQ(AnylseIntvObject(many.data(), static_cast<int>(many.size()), 21, &list), 0);
    EXPECT_EQ(AnylseIntvObject(many.data(), static_cast<int>(many.size()), 20, &list), 1);
    EXPECT_EQ(list.object_num, 20);

    Bytes longTrail;
    AddObject(longTrail, 1, 0, 0, 21);
    list.object_num = 5;
    EXPECT_EQ(AnylseIntvObject(longTrail.data(), static_cast<int>(longTrail.size()), 1, &list), 0);
    EXPECT_EQ(list.object_num, 5);
}

}  // namespace
