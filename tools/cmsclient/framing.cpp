#include "cmsclient/framing.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

namespace cmsclient {

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds left until `end`, never negative.
int Remaining(Clock::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool WaitFor(int fd, short events, Clock::time_point end) {
    for (;;) {
        pollfd pfd{fd, events, 0};
        int ready = poll(&pfd, 1, Remaining(end));
        if (ready > 0) return true;
        if (ready == 0 || errno != EINTR) return false;
    }
}

}  // namespace

bool FrameChannel::WriteFrame(const void* body, size_t n, int timeoutMs) {
    std::vector<uint8_t> frame;
    if (!vorn::AppendFrame(frame, static_cast<const uint8_t*>(body), n)) return false;
    return WriteRaw(frame.data(), frame.size(), timeoutMs);
}

bool FrameChannel::WriteRaw(const void* data, size_t n, int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const auto* bytes = static_cast<const uint8_t*>(data);
    size_t sent = 0;
    while (sent < n) {
        ssize_t r = send(m_fd, bytes + sent, n - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (r > 0) {
            sent += static_cast<size_t>(r);
        } else if (r < 0 && errno == EINTR) {
            continue;
        } else if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!WaitFor(m_fd, POLLOUT, end)) return false;
        } else {
            return false;
        }
    }
    return true;
}

FrameChannel::Result FrameChannel::ReadFrame(std::vector<uint8_t>& body, int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint8_t chunk[64 * 1024];
    for (;;) {
        switch (m_decoder.Next(body)) {
            case vorn::FrameDecoder::Status::kFrame:
                return Result::kFrame;
            case vorn::FrameDecoder::Status::kTooLarge:
                return Result::kBroken;
            case vorn::FrameDecoder::Status::kNeedMore:
                break;
        }
        if (!WaitFor(m_fd, POLLIN, end)) return Result::kTimeout;
        ssize_t r = recv(m_fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (r == 0) return Result::kClosed;
        if (r < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
            return Result::kClosed;
        }
        m_decoder.Append(chunk, static_cast<size_t>(r));
    }
}

}  // namespace cmsclient
