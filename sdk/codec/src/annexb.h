// Annex-B byte streams: NAL units behind 00 00 01 / 00 00 00 01 start codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vcodec {

bool StartsWithStartCode(const uint8_t* data, size_t size);

// Calls fn(nal, length) for every NAL unit: `nal` on its header byte, `length` up to the next
// start code. Stays inside `size`.
template <typename F>
void ForEachNal(const uint8_t* data, size_t size, F&& fn) {
    size_t i = 0, begin = 0;
    bool inUnit = false;
    while (i + 3 <= size) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            if (inUnit) {
                size_t end = i;
                while (end > begin && data[end - 1] == 0) --end;  // zeros of the next code
                if (end > begin) fn(data + begin, end - begin);
            }
            i += 3;
            begin = i;
            inUnit = true;
        } else {
            ++i;
        }
    }
    if (inUnit && size > begin) fn(data + begin, size - begin);
}

// The parameter sets of an H.264 (`hevc` false: SPS, PPS) or H.265 (VPS, SPS, PPS) stream
// found in `data`, the last of each kind (the one in force after `data`), as Annex-B. Empty
// when one is missing.
std::vector<uint8_t> ParameterSets(bool hevc, const uint8_t* data, size_t size);

}  // namespace vcodec
