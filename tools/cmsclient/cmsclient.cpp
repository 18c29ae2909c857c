#include "cmsclient/cmsclient.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

namespace cmsclient {

namespace {

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddrList = std::unique_ptr<addrinfo, AddrInfoDeleter>;

// A non-blocking connect that waits at most `timeoutMs`; the socket or -1.
int ConnectOne(const addrinfo& addr, int timeoutMs) {
    int fd =
        socket(addr.ai_family, addr.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, addr.ai_protocol);
    if (fd < 0) return -1;
    if (connect(fd, addr.ai_addr, addr.ai_addrlen) == 0) return fd;
    if (errno == EINPROGRESS) {
        pollfd pfd{fd, POLLOUT, 0};
        int error = 0;
        socklen_t length = sizeof error;
        if (poll(&pfd, 1, timeoutMs) == 1 &&
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0) {
            return fd;
        }
    }
    close(fd);
    return -1;
}

}  // namespace

bool CmsClient::Connect(const char* host, int port, int timeoutMs) {
    Close();
    if (host == nullptr || port <= 0 || port > 65535) return false;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, std::to_string(port).c_str(), &hints, &found) != 0) return false;
    AddrList list(found);
    for (const addrinfo* addr = list.get(); addr != nullptr && m_fd < 0; addr = addr->ai_next) {
        m_fd = ConnectOne(*addr, timeoutMs);
    }
    m_channel = FrameChannel(m_fd);
    return m_fd >= 0;
}

void CmsClient::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
    m_channel = FrameChannel();
}

bool CmsClient::Send(const MsgHead& head, const void* payload, size_t n) {
    std::vector<uint8_t> body = BuildMessage(head, payload, n);
    return SendFrame(body.data(), body.size());
}

bool CmsClient::SendFrame(const void* body, size_t n) {
    return IsOpen() && m_channel.WriteFrame(body, n, kWriteTimeoutMs);
}

bool CmsClient::SendRaw(const void* data, size_t n) {
    return IsOpen() && m_channel.WriteRaw(data, n, kWriteTimeoutMs);
}

namespace {

// A data reply takes over the frame's buffer instead of copying what may be hundreds of
// megabytes; anything else goes through ParseReply.
bool TakeReply(std::vector<uint8_t>&& body, Reply& reply) {
    MsgHead head;
    if (!MsgHead::Decode(body.data(), body.size(), head) || head.nType != vorn::kMsgTypeResult ||
        head.nFrom != vorn::kResultData)
        return ParseReply(body.data(), body.size(), reply);
    body.erase(body.begin(), body.begin() + MsgHead::kSize);
    reply.kind = Reply::Kind::kData;
    reply.state = 0;
    reply.data = std::move(body);
    return true;
}

}  // namespace

CmsClient::ReadResult CmsClient::ReadReply(Reply& reply, int timeoutMs) {
    if (!IsOpen()) return ReadResult::kClosed;
    std::vector<uint8_t> body;
    switch (m_channel.ReadFrame(body, timeoutMs)) {
        case FrameChannel::Result::kFrame:
            return TakeReply(std::move(body), reply) ? ReadResult::kReply : ReadResult::kBadFrame;
        case FrameChannel::Result::kTimeout:
            return ReadResult::kTimeout;
        case FrameChannel::Result::kClosed:
            return ReadResult::kClosed;
        case FrameChannel::Result::kBroken:
            break;
    }
    return ReadResult::kBadFrame;
}

bool CmsClient::Request(const MsgHead& head, const std::string& payload, Reply& reply,
                        int timeoutMs) {
    return Send(head, payload) && ReadReply(reply, timeoutMs) == ReadResult::kReply;
}

bool CmsClient::WaitClosed(int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    if (!IsOpen()) return true;
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<uint8_t> body;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        switch (m_channel.ReadFrame(body, left.count() > 0 ? static_cast<int>(left.count()) : 0)) {
            case FrameChannel::Result::kFrame:
                continue;
            case FrameChannel::Result::kClosed:
                return true;
            case FrameChannel::Result::kTimeout:
            case FrameChannel::Result::kBroken:
                return false;
        }
    }
}

}  // namespace cmsclient
