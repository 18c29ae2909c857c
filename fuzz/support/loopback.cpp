#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace fuzz {

LoopbackPeer::LoopbackPeer(Serve serve) : m_serve(std::move(serve)) {
    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (m_listen < 0 || bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        listen(m_listen, 16) != 0 ||
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        std::abort();
    m_port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Run(); });
    m_thread.detach();
}

void LoopbackPeer::Run() {
    for (;;) {
        const int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        m_serve(fd);
        close(fd);
    }
}

bool ReadExactly(int fd, void* out, size_t n) {
    char* p = static_cast<char*>(out);
    pollfd w{fd, POLLIN, 0};
    while (n > 0) {
        if (poll(&w, 1, 1000) != 1) return false;
        const ssize_t r = recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= size_t(r);
    }
    return true;
}

bool WriteAll(int fd, const void* data, size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        p += w;
        n -= size_t(w);
    }
    return true;
}

void QuietStdout() {
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
}

}  // namespace fuzz
