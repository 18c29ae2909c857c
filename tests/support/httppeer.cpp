#include "support/httppeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace cmstest {

namespace {

// Reads more bytes into `in`; false on close, error or a quiet peer.
bool ReadMore(int fd, std::string& in) {
    char buf[65536];
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 2000) <= 0) return false;
    ssize_t r = recv(fd, buf, sizeof(buf), 0);
    if (r <= 0) return false;
    in.append(buf, static_cast<size_t>(r));
    return true;
}

// The value of header `name` ("content-length:"), without leading blanks; empty when absent.
std::string HeaderValue(const std::string& head, const char* name) {
    size_t at = 0;
    const size_t nameLength = std::strlen(name);
    while ((at = head.find("\r\n", at)) != std::string::npos) {
        at += 2;
        if (strncasecmp(head.c_str() + at, name, nameLength) != 0) continue;
        size_t from = head.find_first_not_of(' ', at + nameLength);
        size_t end = head.find("\r\n", at);
        return from == std::string::npos || from >= end ? "" : head.substr(from, end - from);
    }
    return "";
}

size_t ContentLength(const std::string& head) {
    return std::strtoul(HeaderValue(head, "content-length:").c_str(), nullptr, 10);
}

const char* StatusText(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 401:
            return "Unauthorized";
        case 404:
            return "Not Found";
        default:
            return "Status";
    }
}

}  // namespace

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

void HttpPeer::Answer(const std::string& targetPart, const std::string& body, int status) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_answers.begin(); it != m_answers.end(); ++it) {
        if (it->first != targetPart) continue;
        m_answers.erase(it);
        break;
    }
    m_answers.emplace_back(targetPart, Reply{status, body});
}

void HttpPeer::RequireAuthorization(const std::string& value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_authorization = value;
}

std::vector<std::string> HttpPeer::Requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> lines;
    for (const Request& r : m_requests) lines.push_back(r.line);
    return lines;
}

std::vector<HttpPeer::Request> HttpPeer::Received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

std::vector<std::string> HttpPeer::Targets() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> targets;
    for (const Request& r : m_requests) targets.push_back(r.target);
    return targets;
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
    size_t headEnd;
    while ((headEnd = in.find("\r\n\r\n")) == std::string::npos)
        if (!ReadMore(fd, in)) return;
    const std::string head = in.substr(0, headEnd + 2);
    const size_t bodyLength = ContentLength(head);
    while (in.size() < headEnd + 4 + bodyLength)
        if (!ReadMore(fd, in)) return;

    Request req;
    req.line = in.substr(0, in.find("\r\n"));
    req.method = req.line.substr(0, req.line.find(' '));
    size_t targetAt = req.line.find(' ') + 1;
    req.target = req.line.substr(targetAt, req.line.rfind(' ') - targetAt);
    size_t q = req.target.find('?');
    req.path = req.target.substr(0, q);
    req.query = q == std::string::npos ? "" : req.target.substr(q + 1);
    req.body = in.substr(headEnd + 4, bodyLength);
    req.authorization = HeaderValue(head, "authorization:");

    Reply reply{404, ""};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& [part, answer] : m_answers)
            if (req.target.find(part) != std::string::npos) reply = answer;
        if (!m_authorization.empty() && req.authorization != m_authorization) reply = {401, ""};
        m_requests.push_back(std::move(req));
    }
    std::string out = "HTTP/1.1 " + std::to_string(reply.status) + " " + StatusText(reply.status) +
                      "\r\nContent-Length: " + std::to_string(reply.body.size()) +
                      "\r\nConnection: close\r\n\r\n" + reply.body;
    for (size_t sent = 0; sent < out.size();) {
        ssize_t n = send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
}

}  // namespace cmstest
