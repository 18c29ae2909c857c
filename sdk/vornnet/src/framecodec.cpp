#include "framecodec.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "VornNetSDK.h"
#include "httpcodec.h"

namespace vorn {

bool AppendFrame(std::vector<uint8_t>& out, const uint8_t* body, size_t n) {
    if (n > kMaxFrameLength) return false;
    size_t at = out.size();
    out.resize(at + kFrameLengthBytes + n);
    PutLe32(&out[at], static_cast<uint32_t>(n));
    if (n > 0) std::copy(body, body + n, out.begin() + at + kFrameLengthBytes);
    return true;
}

bool PutResultHead(uint8_t (&head)[kResultHeadSize], uint8_t subCode, size_t n) {
    if (n > kMaxReplyFrameLength - kMsgHeadSize) return false;
    // Type, sub-code, second sub-code, padding and both ids: only the first two mean
    // anything in a reply, the rest stay zero.
    std::fill(std::begin(head), std::end(head), 0);
    PutLe32(head, static_cast<uint32_t>(kMsgHeadSize + n));
    head[kFrameLengthBytes] = kMsgTypeResult;
    head[kFrameLengthBytes + 1] = subCode;
    return true;
}

void FrameDecoder::Append(const uint8_t* data, size_t n) {
    if (m_broken || n == 0) return;
    m_buffer.insert(m_buffer.end(), data, data + n);
}

FrameDecoder::Status FrameDecoder::Next(std::vector<uint8_t>& body) {
    if (m_broken) return Status::kTooLarge;
    for (;;) {
        size_t available = m_buffer.size() - m_start;
        if (available < kFrameLengthBytes) break;
        uint32_t length = GetLe32(&m_buffer[m_start]);
        if (length > m_maxLength) {
            m_broken = true;
            m_refused = length;
            m_buffer.clear();
            m_buffer.shrink_to_fit();
            m_start = 0;
            return Status::kTooLarge;
        }
        if (length == 0) {  // keep-alive: nothing to hand on
            m_start += kFrameLengthBytes;
            continue;
        }
        if (available - kFrameLengthBytes < length) break;
        auto first = m_buffer.begin() + static_cast<std::ptrdiff_t>(m_start + kFrameLengthBytes);
        body.assign(first, first + length);
        m_start += kFrameLengthBytes + length;
        return Status::kFrame;
    }
    Compact();
    return Status::kNeedMore;
}

// Drops consumed bytes. Called only when the buffer holds no whole frame any more, so
// what is moved is at most the tail of the latest read.
void FrameDecoder::Compact() {
    if (m_start == 0) return;
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<std::ptrdiff_t>(m_start));
    m_start = 0;
}

bool MessageCodec::Consume(const uint8_t* data, size_t n, const Sink& sink) {
    m_decoder.Append(data, n);
    std::vector<uint8_t> body;
    for (;;) {
        switch (m_decoder.Next(body)) {
            case FrameDecoder::Status::kFrame:
                sink(std::move(body));
                body.clear();
                break;
            case FrameDecoder::Status::kNeedMore:
                return true;
            case FrameDecoder::Status::kTooLarge:
                char text[96];
                snprintf(text, sizeof text, "frame of %u bytes exceeds the limit of %u",
                         m_decoder.RefusedLength(), kMaxFrameLength);
                m_error = text;
                return false;
        }
    }
}

bool MessageCodec::EncodeState(int state, OutFrame& out) const {
    uint8_t payload[4];
    PutLe32(payload, static_cast<uint32_t>(state));
    return EncodeData(payload, sizeof payload, out, kResultState);
}

namespace {

// A reply of hundreds of megabytes (a whole catalogue) would otherwise fault its copy in a
// page at a time, which costs more than the copy. Asked for before the buffer is touched.
void AdviseHugePages(void* data, size_t n) {
    constexpr uintptr_t kHuge = 2u << 20;
    if (n < 2 * kHuge) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + n) & ~(kHuge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace

bool MessageCodec::EncodeData(const uint8_t* data, size_t n, OutFrame& out) const {
    return EncodeData(data, n, out, kResultData);
}

bool MessageCodec::EncodeData(const uint8_t* data, size_t n, OutFrame& out, uint8_t subCode) const {
    uint8_t head[kResultHeadSize];
    if (!PutResultHead(head, subCode, n)) return false;
    out.head.assign(std::begin(head), std::end(head));
    out.body.reserve(n);
    AdviseHugePages(out.body.data(), n);
    out.body.assign(data, data + n);
    return true;
}

namespace {

std::unique_ptr<Codec> MakeMessageCodec() { return std::make_unique<MessageCodec>(); }
std::unique_ptr<Codec> MakeHttpCodec() { return std::make_unique<HttpCodec>(); }

// Listener modes: the codec each one speaks and how its callbacks are run.
struct ModeRow {
    int mode;
    Mode form;
};
const ModeRow kModes[] = {
    {VORN_MODE_MESSAGE, {MakeMessageCodec, Dispatch::kStream}},
    {VORN_MODE_HTTP, {MakeHttpCodec, Dispatch::kOneShot}},
};

}  // namespace

const Mode* FindMode(int mode) {
    for (const ModeRow& row : kModes) {
        if (row.mode == mode) return &row.form;
    }
    return nullptr;
}

}  // namespace vorn
