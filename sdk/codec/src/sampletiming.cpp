#include "sampletiming.h"

#include <algorithm>
#include <utility>

namespace vcodec {

namespace {
// Pictures held in decode order before the oldest is forced out; only a stream whose
// order counts keep falling without a key picture gets this far.
constexpr size_t kMaxPending = 4 * SampleTimer::kReorderWindow;
// Arrival slots kept behind the oldest held picture.
constexpr int64_t kSlotHistory = 2 * SampleTimer::kReorderWindow;
}  // namespace

SampleTimer::SampleTimer(int64_t frameTicks, int64_t hintTicks, Emit emit)
    : m_frameTicks(frameTicks),
      m_hintTicks(hintTicks > 0 ? hintTicks : 3600),
      m_emit(std::move(emit)) {}

void SampleTimer::Push(std::vector<uint8_t> unit, bool key, int poc, int64_t arrival) {
    if (key && !m_buffer.empty()) {
        int highest = m_buffer.front().poc;
        for (const Waiting& w : m_buffer) highest = std::max(highest, w.poc);
        if (poc <= highest) ReleaseAll();
    }
    const int64_t n = m_decoded++;
    if (m_frameTicks <= 0) AddSlot(arrival);
    m_pending.push_back({std::move(unit), key, poc, n});
    m_buffer.push_back({poc, n});
    while (m_buffer.size() > kReorderWindow) ReleaseLowest();
    if (m_pending.size() > kMaxPending) ReleaseAll();
    EmitReady();
}

void SampleTimer::Finish() {
    ReleaseAll();
    EmitReady();
}

void SampleTimer::AddSlot(int64_t arrival) {
    if (m_slots.empty()) {
        // The first picture starts the recording at zero.
        m_origin = std::max<int64_t>(arrival, 0);
        m_slots.push_back(0);
        return;
    }
    int64_t t = arrival - m_origin;
    // Unknown or out-of-order arrivals keep the times strictly increasing.
    if (arrival < 0)
        t = m_slots.back() + Step();
    else if (t <= m_slots.back())
        t = m_slots.back() + 1;
    m_slots.push_back(t);
}

// Average spacing of the arrival slots held, or the hint before there are two.
int64_t SampleTimer::Step() const {
    if (m_slots.size() < 2) return m_hintTicks;
    return std::max<int64_t>(1, (m_slots.back() - m_slots.front()) / int64_t(m_slots.size() - 1));
}

int64_t SampleTimer::Slot(int64_t index) const {
    if (m_frameTicks > 0) return index * m_frameTicks;
    if (m_slots.empty()) return index * m_hintTicks;
    const int64_t last = m_slotBase + int64_t(m_slots.size()) - 1;
    if (index < m_slotBase) return m_slots.front() - (m_slotBase - index) * Step();
    if (index > last) return m_slots.back() + (index - last) * Step();
    return m_slots[size_t(index - m_slotBase)];
}

void SampleTimer::ReleaseLowest() {
    auto lowest =
        std::min_element(m_buffer.begin(), m_buffer.end(), [](const Waiting& a, const Waiting& b) {
            return a.poc != b.poc ? a.poc < b.poc : a.n < b.n;
        });
    m_pending[size_t(lowest->n - m_pending.front().n)].p = m_nextP++;
    m_buffer.erase(lowest);
}

void SampleTimer::ReleaseAll() {
    while (!m_buffer.empty()) ReleaseLowest();
}

// The delay is the deepest reordering among the pictures held when the first one leaves;
// pictures not yet released count with the lowest index they could still get.
void SampleTimer::FixDelay() {
    m_delay = 0;
    std::vector<Waiting> waiting = m_buffer;
    std::sort(waiting.begin(), waiting.end(), [](const Waiting& a, const Waiting& b) {
        return a.poc != b.poc ? a.poc < b.poc : a.n < b.n;
    });
    for (size_t rank = 0; rank < waiting.size(); ++rank)
        m_delay = std::max(m_delay, waiting[rank].n - (m_nextP + int64_t(rank)));
    for (const Entry& e : m_pending)
        if (e.p >= 0) m_delay = std::max(m_delay, e.n - e.p);
}

void SampleTimer::EmitReady() {
    while (!m_pending.empty() && m_pending.front().p >= 0) {
        if (m_delay < 0) FixDelay();
        Entry& e = m_pending.front();
        Sample s;
        s.data = std::move(e.data);
        s.key = e.key;
        s.dts = Slot(e.n);
        // A stream that reorders deeper later than at its start would present a picture
        // before decoding it; it is shown at its decode time instead.
        s.pts = std::max(Slot(e.p + m_delay), s.dts);
        s.duration = Slot(e.n + 1) - s.dts;
        m_pending.pop_front();
        m_emit(s);
        if (m_frameTicks <= 0 && !m_pending.empty()) {
            const int64_t keepFrom = m_pending.front().n - m_delay - kSlotHistory;
            while (m_slots.size() > 2 && m_slotBase < keepFrom) {
                m_slots.pop_front();
                ++m_slotBase;
            }
        }
    }
}

}  // namespace vcodec
