#include "comm/esparse.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

// Length of the start code at p (00 00 01, 00 00 00 01, and 00 00 00 00 01 when allowFive),
// 0 for none. Looks at no more than `avail` bytes.
int StartCodeAt(const uint8_t* p, int avail, bool allowFive) {
    if (avail >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1) return 3;
    if (avail >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1) return 4;
    if (allowFive && avail >= 5 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 0 && p[4] == 1)
        return 5;
    return 0;
}

// Parameter sets and SEI are short and followed by more units in the same packet; anything
// else is a picture, which the device always sends last in its packet.
bool IsSmallH264Unit(uint8_t header) {
    const int type = header & 31;
    return type >= NAL_SEI && type <= 12;  // SEI, SPS, PPS, AUD, end of sequence/stream, filler
}

bool IsSmallH265Unit(uint8_t header) {
    const int type = (header >> 1) & 63;
    return type == NAL_H265_VPS || type == NAL_H265_SPS || type == NAL_H265_PPS ||
           type == NAL_H265_SEI;
}

using SmallUnitTest = bool (*)(uint8_t header);

const uint8_t* WalkStream(const uint8_t* data, int& remaining, int& startCodeLen, int& unitLen,
                          SmallUnitTest isSmall) {
    unitLen = 0;
    if (!data || remaining < 6 || startCodeLen < 0 || startCodeLen >= remaining) return nullptr;
    if (isSmall(data[startCodeLen])) {
        for (int i = startCodeLen; i < remaining; ++i) {
            if (int n = StartCodeAt(data + i, remaining - i, false)) {
                unitLen = i;
                startCodeLen = n;
                remaining -= i;
                return data + i;
            }
        }
    }
    unitLen = remaining;
    remaining = 0;
    return nullptr;
}

int WalkUnits(const uint8_t*& data, int& remaining, const uint8_t*& unit, int& unitLen,
              int minBytes, SmallUnitTest isSmall) {
    if (!data || remaining < std::max(minBytes, 1)) return -1;
    unit = data;
    if (isSmall(data[0])) {
        for (int i = 1; i < remaining; ++i) {
            if (int n = StartCodeAt(data + i, remaining - i, true)) {
                unitLen = i;
                data += i + n;
                remaining -= i + n;
                return remaining;
            }
        }
    }
    unitLen = remaining;
    data += remaining;
    remaining = 0;
    return 0;
}

uint32_t ReadBit(const uint8_t* buf, uint32_t length, uint32_t& pos) {
    uint32_t bit = 0;
    if (buf && pos / 8 < length) bit = (buf[pos / 8] >> (7 - pos % 8)) & 1u;
    ++pos;
    return bit;
}

// 2^zeros - 1 + info, saturated: a code longer than 32 bits is not a valid field anyway.
uint32_t ExpGolombValue(uint32_t zeros, uint32_t info) {
    if (zeros >= 32) return UINT32_MAX;
    return static_cast<uint32_t>((uint64_t{1} << zeros) - 1 + info);
}

// The plain-buffer readers bundled with their buffer, to keep the SPS walk readable.
struct BitReader {
    const uint8_t* buf;
    uint32_t len;
    uint32_t pos = 0;

    uint32_t U(uint32_t n) { return u(n, buf, len, pos); }
    uint32_t UE() { return Ue(buf, len, pos); }
    int32_t SE() { return Se(buf, len, pos); }
    bool Exhausted() const { return uint64_t{pos} >= uint64_t{len} * 8; }
};

bool IsH264HighProfile(uint32_t profile) {
    return profile == 100 || profile == 110 || profile == 122 || profile == 144;
}

// Chroma format, bit depths and the scaling-matrix flags of the high profiles. The lists
// themselves are not read, so an SPS that carries them reads wrong sizes; a known limit.
void SkipH264HighProfileFields(BitReader& r) {
    if (r.UE() == 3) r.U(1);  // separate_colour_plane
    r.UE();                   // bit_depth_luma
    r.UE();                   // bit_depth_chroma
    r.U(1);                   // qpprime_y_zero_transform_bypass
    if (r.U(1)) {
        for (int i = 0; i < 8; ++i) r.U(1);
    }
}

void SkipH264FrameNumAndPoc(BitReader& r) {
    r.UE();  // log2_max_frame_num
    const uint32_t pocType = r.UE();
    if (pocType == 0) {
        r.UE();  // log2_max_poc_lsb
    } else if (pocType == 1) {
        r.U(1);
        r.SE();
        r.SE();
        const uint32_t cycle = r.UE();
        // The count comes from the stream; stop at the end of the buffer rather than spin.
        for (uint32_t i = 0; i < cycle && !r.Exhausted(); ++i) r.SE();
    }
}

// Reads the VUI up to its timing info; 0 when it carries none.
int ReadH264VuiFps(BitReader& r) {
    if (r.U(1) && r.U(8) == 255) {  // aspect ratio, extended SAR
        r.U(16);
        r.U(16);
    }
    if (r.U(1)) r.U(1);  // overscan
    if (r.U(1)) {        // video signal type
        r.U(3);
        r.U(1);
        if (r.U(1)) {
            r.U(8);
            r.U(8);
            r.U(8);
        }
    }
    if (r.U(1)) {  // chroma location
        r.UE();
        r.UE();
    }
    if (!r.U(1)) return 0;
    const uint32_t unitsInTick = r.U(32);
    const uint32_t timeScale = r.U(32);
    if (unitsInTick == 0) return 0;
    return static_cast<int>(timeScale / (uint64_t{2} * unitsInTick));
}

void SkipH265SubLayerProfile(NALBitstream& bs) {
    bs.GetWord(2);
    bs.GetWord(1);
    bs.GetWord(5);
    bs.GetWord(32);
    for (int i = 0; i < 4; ++i) bs.GetWord(1);
    bs.GetWord(44);
}

void ReadH265ProfileTierLevel(NALBitstream& bs, uint32_t maxSubLayersMinus1, vc_params_t& params) {
    bs.GetWord(2);
    bs.GetWord(1);
    params.profile = bs.GetWord(5);
    bs.GetWord(32);
    for (int i = 0; i < 4; ++i) bs.GetWord(1);
    bs.GetWord(44);
    params.level = bs.GetWord(8);

    bool profilePresent[8] = {};
    bool levelPresent[8] = {};
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent[i] = bs.GetWord(1) != 0;
        levelPresent[i] = bs.GetWord(1) != 0;
    }
    if (maxSubLayersMinus1 >= 1) {
        for (uint32_t i = maxSubLayersMinus1; i < 8; ++i) bs.GetWord(2);
    }
    for (uint32_t i = 0; i < maxSubLayersMinus1; ++i) {
        if (profilePresent[i]) SkipH265SubLayerProfile(bs);
        if (levelPresent[i]) bs.GetWord(8);
    }
}

}  // namespace

// ---- Walkers ----

int FindVideoFirstFrame(const uint8_t*& data, int& remaining, int& startCodeLen) {
    if (!data) return 0;
    for (; remaining >= 6; ++data, --remaining) {
        if (int n = StartCodeAt(data, remaining, true)) {
            startCodeLen = n;
            return 1;
        }
    }
    return 0;
}

const uint8_t* ParasH264FrameNext(const uint8_t* data, int& remaining, int& startCodeLen,
                                  int& unitLen) {
    return WalkStream(data, remaining, startCodeLen, unitLen, IsSmallH264Unit);
}

const uint8_t* ParasH265FrameNext(const uint8_t* data, int& remaining, int& startCodeLen,
                                  int& unitLen) {
    return WalkStream(data, remaining, startCodeLen, unitLen, IsSmallH265Unit);
}

int ParasH264FindFrame(const uint8_t*& data, int& remaining) {
    int startCodeLen = 0;
    if (!FindVideoFirstFrame(data, remaining, startCodeLen)) return 0;
    data += startCodeLen;
    remaining -= startCodeLen;
    return 1;
}

int ParasH264FrameNext(const uint8_t*& data, int& remaining, const uint8_t*& unit, int& unitLen) {
    return WalkUnits(data, remaining, unit, unitLen, 1, IsSmallH264Unit);
}

int ParasH265FrameNext(const uint8_t*& data, int& remaining, const uint8_t*& unit, int& unitLen) {
    return WalkUnits(data, remaining, unit, unitLen, 6, IsSmallH265Unit);
}

int GetCodeFromStream(const uint8_t* data, int length, int& code) {
    if (!data || length < 6) return 0;
    const int startCodeLen = StartCodeAt(data, length, true);
    if (startCodeLen == 0) return 0;
    const uint8_t header = data[startCodeLen];
    if ((header & 31) == NAL_SPS || (header & 31) == NAL_PPS) {
        code = kCodeH264;
        return 1;
    }
    const int h265Type = (header >> 1) & 63;
    if (h265Type >= NAL_H265_VPS && h265Type <= NAL_H265_PPS) {
        code = kCodeH265;
        return 1;
    }
    return 0;
}

// ---- Bit readers ----

uint32_t u(uint32_t bitCount, const uint8_t* buf, uint32_t length, uint32_t& startBit) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < bitCount; ++i) value = (value << 1) | ReadBit(buf, length, startBit);
    return value;
}

uint32_t Ue(const uint8_t* buf, uint32_t length, uint32_t& startBit) {
    uint32_t zeros = 0;
    while (buf && startBit / 8 < length && ((buf[startBit / 8] >> (7 - startBit % 8)) & 1u) == 0) {
        ++zeros;
        ++startBit;
    }
    ++startBit;  // the terminating 1
    return ExpGolombValue(zeros, u(zeros, buf, length, startBit));
}

int32_t Se(const uint8_t* buf, uint32_t length, uint32_t& startBit) {
    const uint64_t k = Ue(buf, length, startBit);
    const int64_t v = static_cast<int64_t>((k + 1) / 2);
    return static_cast<int32_t>(k % 2 ? v : -v);
}

void de_emulation_prevention(uint8_t* buf, uint32_t& length) {
    if (!buf || length < 3) return;
    const uint32_t end = length;  // shifts always run to the end given on entry
    for (uint32_t i = 0; i + 2 < end; ++i) {
        const int sum = static_cast<int8_t>(buf[i]) + static_cast<int8_t>(buf[i + 1]) +
                        static_cast<int8_t>(buf[i + 2] ^ 3);
        if (sum == 0) {
            memmove(buf + i + 2, buf + i + 3, end - i - 3);
            --length;
        }
    }
}

// ---- NALBitstream ----

void NALBitstream::Init(const uint8_t* data, int len) {
    m_data = data;
    m_len = data ? std::max(len, 0) : 0;
    m_idx = 0;
    m_bits = 0;
    m_byte = 0;
    m_zeros = 0;
}

uint8_t NALBitstream::GetBYTE() {
    if (m_idx >= m_len) return 0;
    const uint8_t b = m_data[m_idx++];
    if (b != 0) {
        m_zeros = 0;
        return b;
    }
    // 00 00 03: the 03 only guards against a false start code and carries no data.
    if (++m_zeros == 2 && m_idx < m_len && m_data[m_idx] == 0x03) {
        ++m_idx;
        m_zeros = 0;
    }
    return b;
}

uint32_t NALBitstream::GetBit() {
    if (m_bits == 0) {
        m_byte = GetBYTE();
        m_bits = 8;
    }
    --m_bits;
    return (m_byte >> m_bits) & 1u;
}

uint32_t NALBitstream::GetWord(int bits) {
    uint32_t value = 0;
    for (int i = 0; i < bits; ++i) value = (value << 1) | GetBit();
    return value;
}

uint32_t NALBitstream::GetUE() {
    uint32_t zeros = 0;
    while (m_idx < m_len && GetBit() == 0) ++zeros;
    return ExpGolombValue(zeros, GetWord(static_cast<int>(zeros)));
}

// ---- Sequence parameter sets ----

int h264_decode_sps(uint8_t* buf, uint32_t length, int& width, int& height, int& fps) {
    fps = 0;
    if (!buf) return 0;
    de_emulation_prevention(buf, length);
    BitReader r{buf, length};
    r.U(1);  // forbidden_zero_bit
    r.U(2);  // nal_ref_idc
    if (r.U(5) != NAL_SPS) return 0;

    const uint32_t profile = r.U(8);
    r.U(8);  // constraint flags and reserved bits
    r.U(8);  // level_idc
    r.UE();  // seq_parameter_set_id
    if (IsH264HighProfile(profile)) SkipH264HighProfileFields(r);
    SkipH264FrameNumAndPoc(r);
    r.UE();  // max_num_ref_frames
    r.U(1);  // gaps_in_frame_num_allowed
    // Whole macroblocks, deliberately without the field doubling and the cropping.
    width = static_cast<int>((r.UE() + 1u) * 16u);
    height = static_cast<int>((r.UE() + 1u) * 16u);
    if (!r.U(1)) r.U(1);  // frame_mbs_only, else mb_adaptive_frame_field
    r.U(1);               // direct_8x8_inference
    if (r.U(1)) {         // frame cropping offsets, ignored
        for (int i = 0; i < 4; ++i) r.UE();
    }
    if (r.U(1)) fps = ReadH264VuiFps(r);
    if (fps == 0) fps = 30;
    return 1;
}

int ParseSequenceParameterSet(const uint8_t* data, int size, vc_params_t& params) {
    if (!data || size < 20) return 0;
    NALBitstream bs(data, size);
    bs.GetWord(4);  // video_parameter_set_id
    const uint32_t maxSubLayersMinus1 = bs.GetWord(3);
    if (maxSubLayersMinus1 > 6) return 0;
    bs.GetWord(1);  // temporal_id_nesting
    ReadH265ProfileTierLevel(bs, maxSubLayersMinus1, params);

    const uint32_t spsId = bs.GetUE();
    if (spsId > 15) return 0;
    const uint32_t chromaFormat = bs.GetUE();
    if (spsId > 3) return 0;  // the id again, not the chroma format: deliberate
    if (chromaFormat == 3) bs.GetWord(1);
    params.width = bs.GetUE();
    params.height = bs.GetUE();
    if (bs.GetWord(1)) {  // conformance window, ignored
        for (int i = 0; i < 4; ++i) bs.GetUE();
    }
    const uint32_t lumaDepth = bs.GetUE();
    const uint32_t chromaDepth = bs.GetUE();
    return lumaDepth == chromaDepth ? 1 : 0;
}

int h265_decode_sps(const uint8_t* buf, uint32_t length, int& width, int& height, int& fps) {
    vc_params_t params;
    params.clear();
    const int size = static_cast<int>(std::min<uint32_t>(length, INT_MAX));
    if (!ParseSequenceParameterSet(buf, size, params)) return 0;
    width = static_cast<int>(params.width);
    height = static_cast<int>(params.height);
    return 1;
}
