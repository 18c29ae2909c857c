// The elementary-stream readers: both kinds of start-code walkers over any packet, the
// codec test, the bit readers and both sequence-parameter-set readers.
#include <cstdlib>

#include "comm/esparse.h"
#include "fuzzinput.h"

namespace {

// The stream walkers give units inside the packet, and the walk ends.
void WalkStream(const std::vector<uint8_t>& packet, bool h265) {
    const uint8_t* data = packet.data();
    int remaining = int(packet.size());
    int startCodeLen = 0;
    if (!FindVideoFirstFrame(data, remaining, startCodeLen)) return;
    for (size_t steps = 0; data && steps <= packet.size(); ++steps) {
        int unitLen = 0;
        const uint8_t* next = h265 ? ParasH265FrameNext(data, remaining, startCodeLen, unitLen)
                                   : ParasH264FrameNext(data, remaining, startCodeLen, unitLen);
        if (unitLen < 0 || data + unitLen > packet.data() + packet.size()) std::abort();
        data = next;
    }
}

void WalkUnits(const std::vector<uint8_t>& packet, bool h265) {
    const uint8_t* data = packet.data();
    int remaining = int(packet.size());
    if (!h265 && !ParasH264FindFrame(data, remaining)) return;
    for (size_t steps = 0; steps <= packet.size(); ++steps) {
        const uint8_t* unit = nullptr;
        int unitLen = 0;
        const int left = h265 ? ParasH265FrameNext(data, remaining, unit, unitLen)
                              : ParasH264FrameNext(data, remaining, unit, unitLen);
        if (unit && (unit < packet.data() || unit + unitLen > packet.data() + packet.size()))
            std::abort();
        if (left <= 0) break;
    }
}

void ReadSps(std::vector<uint8_t> unit) {
    int width = 0, height = 0, fps = 0;
    h265_decode_sps(unit.data(), uint32_t(unit.size()), width, height, fps);
    vc_params_t params{};
    ParseSequenceParameterSet(unit.data(), int(unit.size()), params);
    h264_decode_sps(unit.data(), uint32_t(unit.size()), width, height, fps);  // rewrites `unit`
}

void ReadBits(const std::vector<uint8_t>& bits) {
    uint32_t pos = 0;
    for (int i = 0; i < 8; ++i) {
        Ue(bits.data(), uint32_t(bits.size()), pos);
        Se(bits.data(), uint32_t(bits.size()), pos);
        u(1 + i * 4, bits.data(), uint32_t(bits.size()), pos);
    }
    NALBitstream nal(bits.data(), int(bits.size()));
    for (int i = 0; i < 8; ++i) {
        nal.GetUE();
        nal.GetWord(1 + i * 4);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t pick = in.Byte();
    const std::vector<uint8_t> packet = in.Bytes();
    switch (pick % 4) {
        case 0:
            WalkStream(packet, pick & 4);
            break;
        case 1:
            WalkUnits(packet, pick & 4);
            break;
        case 2: {
            int code = 0;
            GetCodeFromStream(packet.data(), int(packet.size()), code);
            ReadSps(packet);
            break;
        }
        default:
            ReadBits(packet);
            break;
    }
    return 0;
}
