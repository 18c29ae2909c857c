// Annex-B video elementary streams (H.264, H.265): start-code walkers, Exp-Golomb bit
// readers, emulation-prevention removal and the sequence-parameter-set readers that give
// the picture size and frame rate.
// Every reader stays inside the length it is given: bits past the end read as zeros, and
// a walker never looks at a byte beyond its remaining count. Stateless; no locks.
#pragma once

#include <cstdint>

enum nal_unit_type_e {
    NAL_UNKNOWN = 0,
    NAL_SLICE = 1,
    NAL_SLICE_DPA = 2,
    NAL_SLICE_DPB = 3,
    NAL_SLICE_DPC = 4,
    NAL_SLICE_IDR = 5,
    NAL_SEI = 6,
    NAL_SPS = 7,
    NAL_PPS = 8,
};

// Only these H.265 types are told apart; 19 is the one key-frame type the server knows.
enum nal_unit_type_h265 {
    NAL_H265_P = 1,
    NAL_H265_IDR = 19,
    NAL_H265_VPS = 32,
    NAL_H265_SPS = 33,
    NAL_H265_PPS = 34,
    NAL_H265_SEI = 39,
};

// Codec codes reported by GetCodeFromStream (the media header's `code`).
constexpr int kCodeH264 = 28;
constexpr int kCodeH265 = 29;

// ---- Start-code walkers ----
// A walker's state lives with the caller: the pointer to the current unit's start code, the
// bytes remaining from it, and the length (3, 4 or 5) of that start code.

// Moves `data` forward to the first start code and sets its length. Returns 1 with `data`
// on the start code, 0 when fewer than 6 bytes remain.
int FindVideoFirstFrame(const uint8_t*& data, int& remaining, int& startCodeLen);

// Stream walkers: `data` is the current unit's start code. Sets `unitLen` to the current
// unit's length (its start code included) and returns the next unit's start code, or null
// when the packet ends. Parameter sets and SEI are delimited by the next start code; any
// other unit (a picture) is taken to run to the end of the packet.
// Callers note: `startCodeLen` is already the NEXT unit's start-code length on return.
const uint8_t* ParasH264FrameNext(const uint8_t* data, int& remaining, int& startCodeLen,
                                  int& unitLen);
const uint8_t* ParasH265FrameNext(const uint8_t* data, int& remaining, int& startCodeLen,
                                  int& unitLen);

// Like FindVideoFirstFrame, but leaves `data` just past the start code (on the NAL header)
// and counts the start code off `remaining`.
int ParasH264FindFrame(const uint8_t*& data, int& remaining);

// Unit walkers over a position just past a start code: `unit` = that position, `unitLen` =
// the distance to the next start code (3, 4 or 5 bytes long), and `data` is moved past it.
// Returns the bytes remaining after that start code; 0 for the last unit (a picture unit
// always is one); -1 on empty input (H.265: fewer than 6 bytes).
int ParasH264FrameNext(const uint8_t*& data, int& remaining, const uint8_t*& unit, int& unitLen);
int ParasH265FrameNext(const uint8_t*& data, int& remaining, const uint8_t*& unit, int& unitLen);

// Tells the codec from the parameter set that opens `data` (start code at offset 0): sets
// `code` to kCodeH264 or kCodeH265 and returns 1, else 0.
int GetCodeFromStream(const uint8_t* data, int length, int& code);

// ---- Bit readers (MSB first, bit position from the buffer start) ----
uint32_t u(uint32_t bitCount, const uint8_t* buf, uint32_t length, uint32_t& startBit);
uint32_t Ue(const uint8_t* buf, uint32_t length, uint32_t& startBit);
int32_t Se(const uint8_t* buf, uint32_t length, uint32_t& startBit);

// Removes emulation-prevention bytes (00 00 03 -> 00 00) in place and shortens `length`.
// The test adds the three bytes as signed values, so triples such as FF 01 03 are taken too;
// existing streams have been read this way, so it stays.
void de_emulation_prevention(uint8_t* buf, uint32_t& length);

// Reader over a NAL unit that drops emulation-prevention bytes as it goes.
class NALBitstream {
public:
    NALBitstream(const uint8_t* data, int len) { Init(data, len); }
    void Init(const uint8_t* data, int len);
    uint8_t GetBYTE();  // 0 past the end
    uint32_t GetBit();
    uint32_t GetWord(int bits);
    uint32_t GetUE();

private:
    const uint8_t* m_data = nullptr;
    int m_len = 0;
    int m_idx = 0;   // next byte
    int m_bits = 0;  // bits left in m_byte
    uint8_t m_byte = 0;
    int m_zeros = 0;  // consecutive zero bytes read
};

struct vc_params_t {
    long width;
    long height;
    uint32_t profile;
    uint32_t level;
    uint32_t nal_length_size;
    void clear() { *this = vc_params_t{}; }
};

// H.264 SPS from its NAL header on. Rewrites `buf` in place (emulation prevention removed).
// width and height are whole macroblocks (no cropping: 1080 lines read as 1088); fps comes
// from the VUI timing, 30 when absent. Returns 0 when the unit is not an SPS.
int h264_decode_sps(uint8_t* buf, uint32_t length, int& width, int& height, int& fps);

// H.265 SPS read from the first byte given, which is the two-byte NAL header: with one
// temporal sub-layer the header's misreading lines up again before sps_id, which is how the
// media path has always called it. Sizes are luma samples without the conformance window.
// Returns 1 when the SPS reads through and the luma and chroma bit depths match.
int ParseSequenceParameterSet(const uint8_t* data, int size, vc_params_t& params);

// ParseSequenceParameterSet into width and height; fps is left as the caller set it.
int h265_decode_sps(const uint8_t* buf, uint32_t length, int& width, int& height, int& fps);
