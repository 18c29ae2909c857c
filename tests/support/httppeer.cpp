#include "support/httppeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cmstest {

HttpPeer::HttpPeer() {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 && listen(m_fd, 16) == 0 &&
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        m_port = ntohs(a.sin_port);
    m_thread = std::thread([this] { Serve(); });
}

HttpPeer::~HttpPeer() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
}

void HttpPeer::Answer(const std::string& targetPart, const std::string& body) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answers[targetPart] = body;
}

std::vector<std::string> HttpPeer::Requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void HttpPeer::Serve() {
    while (!m_stop) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        int fd = accept(m_fd, nullptr, nullptr);
        if (fd < 0) continue;
        Handle(fd);
        close(fd);
    }
}

void HttpPeer::Handle(int fd) {
    std::string in;
    char buf[4096];
    while (in.find("\r\n\r\n") == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 2000) <= 0) return;
        ssize_t r = recv(fd, buf, sizeof(buf), 0);
        if (r <= 0) return;
        in.append(buf, static_cast<size_t>(r));
    }
    std::string line = in.substr(0, in.find("\r\n"));
    std::string status = "404 Not Found", body;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(line);
        for (const auto& [part, answer] : m_answers)
            if (line.find(part) != std::string::npos) status = "200 OK", body = answer;
    }
    std::string out = "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
                      "\r\nConnection: close\r\n\r\n" + body;
    send(fd, out.data(), out.size(), MSG_NOSIGNAL);
}

}  // namespace cmstest
