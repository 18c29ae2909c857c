// Annex-B helpers of the RTSP client: NAL units found by start codes, length-prefixed
// (AVCC/HVCC) samples and decoder configuration records turned into start-code form, and
// what a packet carries (parameter sets, a key picture). Pure functions over byte ranges:
// every read stays inside the range given, whatever its content.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace rtspc {

enum class Codec { kH264, kH265 };

using Bytes = std::vector<uint8_t>;

// True when `data` begins with a 3- or 4-byte start code.
bool IsAnnexB(const uint8_t* data, size_t size);

// Appends the NAL units of a length-prefixed sample (`lengthSize` 1, 2 or 4 bytes,
// big-endian) to `out`, each behind a 4-byte start code. False (with `out` as far as it
// got) when a length runs past the end or `lengthSize` is not one of those.
bool LengthPrefixedToAnnexB(const uint8_t* data, size_t size, int lengthSize, Bytes& out);

// The parameter sets of a stream's extradata as Annex-B text. Extradata is either already
// Annex-B (what the RTSP demuxer builds from the SDP's sprop fields) or a configuration
// record (avcC / hvcC); `lengthSize` is set to the sample length size of a record, 0 for
// Annex-B. Returns an empty buffer for empty or malformed extradata.
Bytes ParameterSets(Codec codec, const uint8_t* extra, size_t size, int* lengthSize);

// What an Annex-B packet holds, by its NAL unit types.
struct NalSummary {
    bool parameterSets = false;  // an SPS (H.264) or VPS/SPS (H.265)
    bool keyPicture = false;     // an IDR (H.264) or IRAP picture (H.265)
};
NalSummary Summarise(Codec codec, const uint8_t* data, size_t size);

}  // namespace rtspc
