#include "support/eventpeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace cmstest {

namespace {

bool ReadAll(int fd, void* out, size_t n) {
    auto* p = static_cast<char*>(out);
    while (n > 0) {
        pollfd pf{fd, POLLIN, 0};
        if (poll(&pf, 1, 3000) != 1) return false;
        ssize_t r = recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

// Reads the link request; "!bad" when the first frame is not one.
std::string ReadRequest(int fd) {
    uint8_t len[4];
    if (!ReadAll(fd, len, 4)) return "!bad";
    uint32_t n = len[0] | len[1] << 8 | len[2] << 16 | uint32_t(len[3]) << 24;
    if (n <= 12 || n > 4096) return "!bad";
    std::string body(n, '\0');
    if (!ReadAll(fd, &body[0], n) || body[0] != 21 || body.back() != '\0') return "!bad";
    return body.substr(12, n - 13);
}

}  // namespace

EventPeer::EventPeer(const char* host, int port) {
    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host, &a.sin_addr);
    bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    listen(m_listen, 8);
    socklen_t len = sizeof(a);
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Serve(); });
}

EventPeer::~EventPeer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_thread.join();
    Drop();
    close(m_listen);
}

void EventPeer::Serve() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stop) return;
        }
        pollfd pf{m_listen, POLLIN, 0};
        if (poll(&pf, 1, 50) != 1) continue;
        int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::string path = ReadRequest(fd);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_conn >= 0) close(m_conn);
        m_conn = fd;
        m_paths.push_back(path);
        m_changed.notify_all();
    }
}

bool EventPeer::WaitLinks(size_t n, int ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(ms),
                              [&] { return m_paths.size() >= n; });
}

std::vector<std::string> EventPeer::Paths() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_paths;
}

bool EventPeer::Send(uint8_t type, const std::string& payload) {
    std::string frame(16, '\0');
    uint32_t n = uint32_t(12 + payload.size());
    for (int i = 0; i < 4; ++i) frame[i] = char(n >> (8 * i));
    frame[4] = char(type);
    return SendRaw(frame + payload);
}

bool EventPeer::SendRaw(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_conn < 0) return false;
    return send(m_conn, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

void EventPeer::Drop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_conn >= 0) close(m_conn);
    m_conn = -1;
}

std::string EventPacket(const std::string& serial, int nodeId, size_t size) {
    std::string p(size, '\0');
    memcpy(&p[0], serial.data(), std::min(serial.size(), size_t(39)));
    memcpy(&p[40], &nodeId, 4);
    return p;
}

}  // namespace cmstest
