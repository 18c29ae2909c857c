#include "annexb.h"

namespace vcodec {

bool StartsWithStartCode(const uint8_t* data, size_t size) {
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

std::vector<uint8_t> ParameterSets(bool hevc, const uint8_t* data, size_t size) {
    // NAL types of VPS, SPS, PPS; H.264 has no VPS.
    const int types[3] = {hevc ? 32 : -1, hevc ? 33 : 7, hevc ? 34 : 8};
    const uint8_t* found[3] = {nullptr, nullptr, nullptr};
    size_t lengths[3] = {0, 0, 0};
    ForEachNal(data, size, [&](const uint8_t* nal, size_t length) {
        const int type = hevc ? (nal[0] >> 1) & 63 : nal[0] & 31;
        for (int k = 0; k < 3; ++k)
            if (type == types[k]) {
                found[k] = nal;
                lengths[k] = length;
            }
    });
    std::vector<uint8_t> sets;
    for (int k = 0; k < 3; ++k) {
        if (types[k] < 0) continue;
        // A unit too short to hold its header and any payload is as good as missing.
        if (!found[k] || lengths[k] < 2u + hevc) return {};
        static const uint8_t kStartCode[4] = {0, 0, 0, 1};
        sets.insert(sets.end(), kStartCode, kStartCode + 4);
        sets.insert(sets.end(), found[k], found[k] + lengths[k]);
    }
    return sets;
}

}  // namespace vcodec
