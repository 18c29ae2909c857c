// The command channel against a small HTTP peer on loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "RUSKNetSDK.h"
#include "sdk/rusk/src/ruskurl.h"

namespace {

// Answers each request with a fixed status and body (or not at all when silent) and
// keeps the last request it saw.
class Peer {
public:
    Peer(int status, std::string body, bool silent = false)
        : m_status(status), m_body(std::move(body)), m_silent(silent) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listen(m_fd, 8);
        socklen_t len = sizeof addr;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~Peer() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    int port() const { return m_port; }
    std::string Request() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_request;
    }

private:
    void Serve() {
        while (!m_stop) {
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) continue;
            int client = accept(m_fd, nullptr, nullptr);
            if (client < 0) continue;
            std::string request = ReadRequest(client);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_request = request;
            }
            if (m_silent) {
                while (!m_stop) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            } else {
                std::string reply = "HTTP/1.1 " + std::to_string(m_status) +
                                    " X\r\nContent-Length: " + std::to_string(m_body.size()) +
                                    "\r\nConnection: close\r\n\r\n" + m_body;
                send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
            }
            close(client);
        }
    }
    // Head and, when announced, the body.
    static std::string ReadRequest(int fd) {
        std::string data;
        char chunk[4096];
        for (;;) {
            size_t head = data.find("\r\n\r\n");
            if (head != std::string::npos) {
                size_t at = data.find("Content-Length: ");
                size_t body = at == std::string::npos ? 0 : std::stoul(data.substr(at + 16));
                if (data.size() >= head + 4 + body) return data;
            }
            pollfd pfd{fd, POLLIN, 0};
            if (poll(&pfd, 1, 2000) <= 0) return data;
            ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0) return data;
            data.append(chunk, static_cast<size_t>(n));
        }
    }

    const int m_status;
    const std::string m_body;
    const bool m_silent;
    int m_fd = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;  // guards m_request
    std::string m_request;
    std::thread m_thread;
};

std::string Url(int port, const char* path) {
    return "rtsp://127.0.0.1:" + std::to_string(port) + path;
}

TEST(RuskCommand, GetWithoutBodyPostWithOne) {
    Peer peer(200, "<ret>1</ret>");
    char reply[64];
    int length = sizeof reply;
    std::string url = Url(peer.port(), "/xconfig?cmd=reboot");
    ASSERT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, reply, &length), 1);
    EXPECT_EQ(length, 12);
    EXPECT_STREQ(reply, "<ret>1</ret>");
    EXPECT_EQ(peer.Request().rfind("GET /xconfig?cmd=reboot HTTP/1.1\r\n", 0), 0u);

    const char xml[] = "<config><a>1</a></config>";
    length = sizeof reply;
    url = Url(peer.port(), "/xconfig?cmd=setconfig&type=8");
    ASSERT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, xml, strlen(xml), reply, &length),
              1);
    std::string request = peer.Request();
    EXPECT_EQ(request.rfind("POST /xconfig?cmd=setconfig&type=8 HTTP/1.1\r\n", 0), 0u);
    EXPECT_NE(request.find("Content-Type: application/xml\r\n"), std::string::npos);
    EXPECT_EQ(request.substr(request.size() - strlen(xml)), xml);
    EXPECT_EQ(request.find("Expect:"), std::string::npos);
}

TEST(RuskCommand, OnlyA2xxAnswerSucceeds) {
    Peer peer(404, "missing");
    char reply[64];
    int length = sizeof reply;
    std::string url = Url(peer.port(), "/xconfig?cmd=getregister");
    EXPECT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, reply, &length), 0);
    EXPECT_STREQ(reply, "missing");  // still there for whoever wants to log it

    // A command code other than the HTTP one is not carried.
    length = sizeof reply;
    EXPECT_EQ(RUSK_TRANSCOMMAND(url.c_str(), 98, nullptr, 0, reply, &length), 0);
    EXPECT_EQ(length, 0);
}

TEST(RuskCommand, ReplyIsCutToTheCallersCapacity) {
    Peer peer(200, "0123456789");
    std::string url = Url(peer.port(), "/xconfig?cmd=getconfig&type=15");
    char buffer[16];
    for (int capacity : {4, 10, 11}) {
        memset(buffer, '#', sizeof buffer);
        int length = capacity;
        ASSERT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, buffer, &length),
                  1);
        int copied = capacity < 10 ? capacity : 10;
        EXPECT_EQ(length, copied);
        EXPECT_EQ(std::string(buffer, copied), std::string("0123456789", copied));
        // The terminator goes in only where there is room for it, and nothing beyond.
        EXPECT_EQ(buffer[copied], copied < capacity ? '\0' : '#') << capacity;
        EXPECT_EQ(buffer[copied + 1], '#');
    }
    // No buffer at all: the answer still counts.
    EXPECT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, nullptr, nullptr), 1);
}

TEST(RuskCommand, DeadPeersFailWithinTheTimeOut) {
    RUSK_SetTimeouts(300, 600);
    int closedPort;
    {
        Peer gone(200, "");
        closedPort = gone.port();
    }
    Peer silent(200, "", true);
    char reply[8];
    for (int port : {closedPort, silent.port()}) {
        int length = sizeof reply;
        auto start = std::chrono::steady_clock::now();
        std::string url = Url(port, "/xconfig?cmd=reboot");
        EXPECT_EQ(RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, reply, &length), 0);
        EXPECT_EQ(length, 0);
        EXPECT_STREQ(reply, "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
    }
    RUSK_SetTimeouts(0, 0);
}

TEST(RuskUrl, NodeAddressesBecomeHttpAddresses) {
    struct Case {
        const char* in;
        const char* out;  // null: refused
    } cases[] = {
        {"rtsp://10.0.0.5:8000/xconfig?cmd=reboot", "http://10.0.0.5:8000/xconfig?cmd=reboot"},
        {"rtsp://10.0.0.5/xconfig", "http://10.0.0.5:554/xconfig"},
        {"rtsp://10.0.0.5?cmd=getdevconfig&type=6", "http://10.0.0.5:554?cmd=getdevconfig&type=6"},
        {"rtsp://[::1]:9000/x", "http://[::1]:9000/x"},
        {"rtsp://[::1]/x", "http://[::1]:554/x"},
        {"http://host:81/a?b", "http://host:81/a?b"},
        {"rtsp:///xconfig", nullptr},
        {"ftp://host/x", nullptr},
        {"", nullptr},
        {nullptr, nullptr},
    };
    for (const Case& c : cases) {
        std::string out;
        bool ok = rusk::CommandUrlToHttp(c.in, out);
        EXPECT_EQ(ok, c.out != nullptr) << (c.in ? c.in : "(null)");
        if (ok && c.out) {
            EXPECT_EQ(out, c.out);
        }
    }
}

}  // namespace
