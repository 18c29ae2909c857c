#include "comm/vcaobject.h"

namespace {

constexpr int kObjectHeadSize = 12;
constexpr int kTrailPointSize = 4;

uint16_t U16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

}  // namespace

int AnylseIntvObject(const unsigned char* payload, int length, int count,
                     _VORN_VCA_OBJECT_LIST* list) {
    if (!payload || !list || length <= 0 || count <= 0 || count > kVcaMaxObjects) return 0;
    // Filled on a copy, so a packet refused halfway leaves the session's list as it was.
    _VORN_VCA_OBJECT_LIST next = *list;
    const unsigned char* p = payload;
    const unsigned char* const end = payload + length;
    for (int i = 0; i < count; ++i) {
        if (end - p < kObjectHeadSize) return 0;
        const int trails = p[11];
        if (trails > kVcaMaxTrailPoints || end - p < kObjectHeadSize + trails * kTrailPointSize)
            return 0;
        _VORN_VCA_OBJECT& o = next.object_arr[i];
        o.bBox = {U16(p), U16(p + 2), U16(p + 4), U16(p + 6)};
        o.uClassificationId = p[8];
        o.uFlags = p[9];
        o.uDetail = p[10];
        o.trail.usNumTrailPoints = static_cast<uint16_t>(trails);
        p += kObjectHeadSize;
        for (int t = 0; t < trails; ++t, p += kTrailPointSize)
            o.trail.trailPoints[t] = {U16(p), U16(p + 2)};
    }
    next.object_num = static_cast<uint16_t>(count);
    *list = next;
    return 1;
}
