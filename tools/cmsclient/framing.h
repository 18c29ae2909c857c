// Blocking frame I/O on a connected socket (the frame layout is in VornFrame.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "VornFrame.h"

namespace cmsclient {

// Reads and writes whole frames on a socket the caller owns; the socket may be blocking
// or not, time-outs are kept with poll(). Not thread-safe.
class FrameChannel {
public:
    enum class Result { kFrame, kTimeout, kClosed, kBroken };

    explicit FrameChannel(int fd = -1) : m_fd(fd) {}

    // Writes one frame carrying `n` bytes. False on a socket error, when the peer does not
    // take the bytes within `timeoutMs`, or when the body is over the frame limit.
    bool WriteFrame(const void* body, size_t n, int timeoutMs);
    // Writes bytes as they are (for tests that need broken frames).
    bool WriteRaw(const void* data, size_t n, int timeoutMs);
    // Waits up to `timeoutMs` for the next frame body (a server reply may use the whole
    // 32-bit length). kBroken: no memory for the announced body; the stream is lost.
    Result ReadFrame(std::vector<uint8_t>& body, int timeoutMs);

private:
    // Sizes the body buffer once the length field is complete.
    void StartBody();

    int m_fd;
    uint8_t m_length[vorn::kFrameLengthBytes] = {};  // length field of the pending frame
    size_t m_lengthHave = 0;
    std::vector<uint8_t> m_body;  // body of the pending frame, read straight into place
    size_t m_bodyHave = 0;
    bool m_broken = false;
};

}  // namespace cmsclient
