// Wire framing of the message listener, shared by the library and its clients.
//
// Both directions carry frames:
//
//   offset 0  4 bytes  body length N, unsigned 32-bit little-endian
//   offset 4  N bytes  body
//
// A client's frame body is one message: the 12-byte header (type, sub-code, second
// sub-code, padding, two 32-bit ids) followed by its payload. A server frame body is a
// message of type 17 whose sub-code tells a state reply (0, payload: the 32-bit state)
// from a data reply (1, payload: the bytes sent). Client bodies above kMaxFrameLength break
// the stream; server bodies may be as long as the 32-bit length allows (a whole catalogue
// list runs to hundreds of megabytes). Zero-length frames are skipped (a peer may use
// them as keep-alives).
// docs/protocol.md has worked examples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vorn {

constexpr size_t kFrameLengthBytes = 4;
constexpr uint32_t kMaxFrameLength = 16u * 1024 * 1024;
constexpr uint32_t kMaxReplyFrameLength = 0xFFFFFFFFu;
constexpr size_t kMsgHeadSize = 12;
constexpr size_t kResultHeadSize = kFrameLengthBytes + kMsgHeadSize;
constexpr uint8_t kMsgTypeResult = 17;  // CMS_MSG_RESULT
constexpr uint8_t kResultState = 0;
constexpr uint8_t kResultData = 1;

inline void PutLe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t GetLe32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// Appends one frame carrying `n` bytes to `out`; false (out unchanged) above the limit.
bool AppendFrame(std::vector<uint8_t>& out, const uint8_t* body, size_t n);

// Writes what precedes the payload of a server reply: the frame length and a type-17
// header with `subCode`. False when a payload of `n` bytes cannot be carried.
bool PutResultHead(uint8_t (&head)[kResultHeadSize], uint8_t subCode, size_t n);

// Cuts a byte stream into frame bodies. Feed it whatever arrived with Append, then call
// Next until it stops returning kFrame. Nothing is allocated for a frame before its
// length has been checked against the limit; once a length is refused the stream cannot
// be resynchronised, so the decoder stays broken and drops further input.
class FrameDecoder {
public:
    enum class Status { kFrame, kNeedMore, kTooLarge };

    explicit FrameDecoder(uint32_t maxLength = kMaxFrameLength) : m_maxLength(maxLength) {}

    void Append(const uint8_t* data, size_t n);
    // On kFrame, `body` holds the next frame body (never empty).
    Status Next(std::vector<uint8_t>& body);

    // True while bytes of an unfinished frame (or of its length) are waiting.
    bool HasPartial() const { return m_buffer.size() > m_start; }
    bool Broken() const { return m_broken; }
    // The length that broke the stream (valid after kTooLarge).
    uint32_t RefusedLength() const { return m_refused; }

private:
    void Compact();

    uint32_t m_maxLength;           // fixed after construction
    std::vector<uint8_t> m_buffer;  // received bytes; m_start marks the first unread one
    size_t m_start = 0;
    bool m_broken = false;
    uint32_t m_refused = 0;
};

}  // namespace vorn
