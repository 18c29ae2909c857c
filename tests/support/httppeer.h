// A tiny HTTP peer on loopback for tests of outgoing requests: answers every request whose
// target contains a registered text with that body (200), anything else with 404.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cmstest {

class HttpPeer {
public:
    HttpPeer();
    ~HttpPeer();
    HttpPeer(const HttpPeer&) = delete;
    HttpPeer& operator=(const HttpPeer&) = delete;

    int port() const { return m_port; }
    void Answer(const std::string& targetPart, const std::string& body);
    std::vector<std::string> Requests() const;  // request lines, in arrival order

private:
    void Serve();
    void Handle(int fd);

    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;  // guards m_answers and m_requests
    std::map<std::string, std::string> m_answers;
    std::vector<std::string> m_requests;
    std::thread m_thread;
};

}  // namespace cmstest
