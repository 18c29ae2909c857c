#include "support/tcpcut.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cmstest {

namespace {

int ConnectTo(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

}  // namespace

TcpCut::TcpCut(int targetPort) : m_target(targetPort) {
    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(m_listen, 128);
    getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    m_acceptor = std::thread(&TcpCut::AcceptLoop, this);
}

TcpCut::~TcpCut() {
    m_stop = true;
    m_epoch++;
    m_acceptor.join();
    close(m_listen);
    std::lock_guard<std::mutex> lock(m_cs);
    for (std::thread& t : m_relays) t.join();
}

void TcpCut::Cut() {
    m_cut = true;
    m_epoch++;
    std::vector<std::thread> old;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        old.swap(m_relays);
    }
    for (std::thread& t : old) t.join();  // every open relay is closed on return
}

void TcpCut::Restore() { m_cut = false; }

void TcpCut::AcceptLoop() {
    while (!m_stop) {
        pollfd p{m_listen, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        const int client = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        if (m_cut) {
            close(client);  // refused as a stopped server would be
            continue;
        }
        std::lock_guard<std::mutex> lock(m_cs);
        m_relays.emplace_back(&TcpCut::Relay, this, client);
    }
}

void TcpCut::Relay(int client) {
    const unsigned epoch = m_epoch;
    const int server = ConnectTo(m_target);
    char buf[16384];
    pollfd p[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    while (server >= 0 && !m_stop && m_epoch == epoch) {
        if (poll(p, 2, 50) <= 0) continue;
        bool open = true;
        for (int i = 0; i < 2 && open; ++i) {
            if (!p[i].revents) continue;
            const ssize_t n = read(p[i].fd, buf, sizeof buf);
            open = n > 0 && write(p[1 - i].fd, buf, static_cast<size_t>(n)) == n;
        }
        if (!open) break;
    }
    close(client);
    if (server >= 0) close(server);
}

}  // namespace cmstest
