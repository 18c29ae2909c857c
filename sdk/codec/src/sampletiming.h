// Time stamps for the samples of a recording fed from a live stream that carries none.
//
// Decode times follow the stream: a fixed frame duration when the stream states its rate,
// else the arrival times of the pictures. Presentation order comes from each picture's
// order count (POC): pictures are released in presentation order the way a decoder's
// picture buffer would release them, which is exact for any stream that keeps to the
// largest buffer of 16 pictures. A key picture whose count does not follow on (an IDR)
// releases everything before it. Every sample leaves in decode order with
//   dts = slot(n), pts = slot(p + delay),
// n being its decode index, p its presentation index and delay the reordering depth seen
// at the start of the stream, so that pts >= dts holds and dts always grows.
//
// Pure bookkeeping: no FFmpeg, no clock, no locks (one recorder, one thread at a time).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

namespace vcodec {

class SampleTimer {
public:
    static constexpr int64_t kTicksPerSecond = 90000;
    static constexpr size_t kReorderWindow = 16;  // the largest picture buffer of H.264/H.265

    struct Sample {
        std::vector<uint8_t> data;
        bool key = false;
        int64_t dts = 0, pts = 0, duration = 0;  // in 1/kTicksPerSecond
    };
    using Emit = std::function<void(const Sample&)>;

    // `frameTicks` > 0: every picture lasts that long (the stream stated its rate). Else
    // arrival times count, and `hintTicks` stands in until two pictures have arrived.
    SampleTimer(int64_t frameTicks, int64_t hintTicks, Emit emit);

    // One access unit in decode order. `arrival` in ticks of a monotonic clock; negative
    // when unknown (the unit came out at the end), which places it one picture later.
    void Push(std::vector<uint8_t> unit, bool key, int poc, int64_t arrival);
    // End of the stream: everything held is released.
    void Finish();

private:
    struct Entry {
        std::vector<uint8_t> data;
        bool key;
        int poc;
        int64_t n;       // decode index
        int64_t p = -1;  // presentation index once released
    };
    struct Waiting {
        int poc;
        int64_t n;
    };

    void AddSlot(int64_t arrival);
    int64_t Slot(int64_t index) const;
    int64_t Step() const;
    void ReleaseLowest();
    void ReleaseAll();
    void EmitReady();
    void FixDelay();

    const int64_t m_frameTicks;
    const int64_t m_hintTicks;
    const Emit m_emit;

    std::deque<Entry> m_pending;    // decode order, not yet emitted
    std::vector<Waiting> m_buffer;  // not yet released in presentation order
    std::deque<int64_t> m_slots;    // arrival slot times from decode index m_slotBase on
    int64_t m_slotBase = 0;
    int64_t m_origin = 0;   // arrival time of the first picture
    int64_t m_decoded = 0;  // units pushed
    int64_t m_nextP = 0;    // presentation index of the next release
    int64_t m_delay = -1;   // fixed at the first emission
};

}  // namespace vcodec
