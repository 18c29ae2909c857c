// A tiny HTTP peer on loopback for tests of outgoing requests: answers every request whose
// target contains a registered text with that answer (the text registered last wins, so a
// test can change one answer midway), anything else with 404. Every request is recorded with its
// target, query and body.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace cmstest {

class HttpPeer {
public:
    struct Request {
        std::string line;  // "GET /path?query HTTP/1.1"
        std::string method;
        std::string target;  // "/path?query"
        std::string path;    // target before '?'
        std::string query;   // target after '?', empty when none
        std::string body;
        std::string authorization;  // value of the Authorization header, empty when none
    };

    HttpPeer();
    ~HttpPeer();
    HttpPeer(const HttpPeer&) = delete;
    HttpPeer& operator=(const HttpPeer&) = delete;

    int port() const { return m_port; }
    // Answers targets containing `targetPart` with `body` (any bytes) and `status`.
    void Answer(const std::string& targetPart, const std::string& body, int status = 200);
    // From now on, requests whose Authorization header is not exactly `value` get 401
    // (empty: no check), as a device that checks credentials answers.
    void RequireAuthorization(const std::string& value);
    std::vector<std::string> Requests() const;  // request lines, in arrival order
    std::vector<Request> Received() const;      // whole requests, in arrival order
    std::vector<std::string> Targets() const;   // their targets, in arrival order

private:
    struct Reply {
        int status;
        std::string body;
    };
    void Serve();
    void Handle(int fd);

    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;                            // guards the three below
    std::vector<std::pair<std::string, Reply>> m_answers;  // in registration order
    std::string m_authorization;                           // required value, empty: none
    std::vector<Request> m_requests;
    std::thread m_thread;
};

}  // namespace cmstest
