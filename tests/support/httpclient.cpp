#include "support/httpclient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cmstest {

std::string HttpExchange(int port, const std::string& request, std::chrono::milliseconds timeout) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    std::string in;
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        close(fd);
        return in;
    }
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    auto end = std::chrono::steady_clock::now() + timeout;
    char buf[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        ssize_t r = recv(fd, buf, sizeof(buf), 0);
        if (r <= 0) break;
        in.append(buf, static_cast<size_t>(r));
    }
    close(fd);
    return in;
}

std::string HttpGet(int port, const std::string& target) {
    return HttpExchange(port, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
}

std::string HttpBody(const std::string& reply) {
    size_t p = reply.find("\r\n\r\n");
    return p == std::string::npos ? std::string() : reply.substr(p + 4);
}

}  // namespace cmstest
