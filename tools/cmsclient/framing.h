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
    // Waits up to `timeoutMs` for the next frame body. kBroken: the peer announced a
    // frame over the limit (a server reply may use the whole 32-bit length); the stream
    // is lost.
    Result ReadFrame(std::vector<uint8_t>& body, int timeoutMs);

private:
    int m_fd;
    vorn::FrameDecoder m_decoder{vorn::kMaxReplyFrameLength};
};

}  // namespace cmsclient
