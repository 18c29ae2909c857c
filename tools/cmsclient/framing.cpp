#include "cmsclient/framing.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>

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

// A body of hundreds of megabytes faults in a page at a time otherwise, which costs more
// than receiving it. Asked for before the buffer is first touched.
void AdviseHugePages(void* data, size_t n) {
    constexpr uintptr_t kHuge = 2u << 20;
    if (n < 2 * kHuge) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + n) & ~(kHuge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
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

// The length field is read first, then the body straight into a buffer of its final size,
// so a reply of hundreds of megabytes is neither grown step by step nor copied out of a
// staging buffer. A frame cut short by a time-out is finished by the next call.
FrameChannel::Result FrameChannel::ReadFrame(std::vector<uint8_t>& body, int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (m_broken) return Result::kBroken;
        const bool inLength = m_lengthHave < vorn::kFrameLengthBytes;
        uint8_t* into = inLength ? m_length + m_lengthHave : m_body.data() + m_bodyHave;
        const size_t want =
            inLength ? vorn::kFrameLengthBytes - m_lengthHave : m_body.size() - m_bodyHave;
        ssize_t r = recv(m_fd, into, want, MSG_DONTWAIT);
        if (r == 0) return Result::kClosed;
        if (r < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return Result::kClosed;
            if (!WaitFor(m_fd, POLLIN, end)) return Result::kTimeout;
            continue;
        }
        if (inLength) {
            m_lengthHave += static_cast<size_t>(r);
            if (m_lengthHave == vorn::kFrameLengthBytes) StartBody();
            continue;
        }
        m_bodyHave += static_cast<size_t>(r);
        if (m_bodyHave < m_body.size()) continue;
        body = std::move(m_body);
        m_body = {};
        m_lengthHave = m_bodyHave = 0;
        return Result::kFrame;
    }
}

void FrameChannel::StartBody() {
    const uint32_t length = vorn::GetLe32(m_length);
    m_bodyHave = 0;
    if (length == 0) {  // keep-alive: nothing to hand on
        m_lengthHave = 0;
        return;
    }
    try {
        m_body.reserve(length);
        AdviseHugePages(m_body.data(), length);
        m_body.resize(length);
    } catch (const std::bad_alloc&) {
        m_broken = true;
    }
}

}  // namespace cmsclient
