// The command channel against a small HTTP peer on loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>

#include "RUSKNetSDK.h"
#include "sdk/rusk/src/ruskurl.h"

namespace {

// A loopback port whose connections wait in the backlog until Exchange takes one, reads its
// request and answers it. A peer that never serves is a node that never answers.
class Peer {
public:
    Peer() : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listen(m_fd, 8);
        socklen_t len = sizeof addr;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
    }
    ~Peer() { close(m_fd); }
    std::string Url(const char* path) const {
        return "rtsp://127.0.0.1:" + std::to_string(m_port) + path;
    }
    // Runs the command on its own thread while serving it one answer; what the peer read
    // (head and body) is left in `request`.
    int Exchange(const char* path, const char* body, char* reply, int* length, int status,
                 const std::string& answer) {
        const std::string url = Url(path);
        auto call = std::async(std::launch::async, [&] {
            return RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, body,
                                     body ? static_cast<int>(strlen(body)) : 0, reply, length);
        });
        request = Serve(status, answer);
        return call.get();
    }
    std::string request;

private:
    std::string Serve(int status, const std::string& body) {
        int fd = accept(m_fd, nullptr, nullptr);
        std::string seen;
        char chunk[4096];
        for (;;) {
            size_t head = seen.find("\r\n\r\n");
            size_t at = seen.find("Content-Length: ");
            size_t length = at == std::string::npos ? 0 : std::stoul(seen.substr(at + 16));
            if (head != std::string::npos && seen.size() >= head + 4 + length) break;
            pollfd pfd{fd, POLLIN, 0};
            ssize_t n = poll(&pfd, 1, 2000) > 0 ? recv(fd, chunk, sizeof chunk, 0) : 0;
            if (n <= 0) break;
            seen.append(chunk, static_cast<size_t>(n));
        }
        std::string reply = "HTTP/1.1 " + std::to_string(status) +
                            " X\r\nContent-Length: " + std::to_string(body.size()) +
                            "\r\nConnection: close\r\n\r\n" + body;
        send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        close(fd);
        return seen;
    }
    int m_fd = -1;
    int m_port = 0;
};

TEST(RuskCommand, GetWithoutBodyPostWithOneAndOnly2xxSucceeds) {
    Peer peer;
    char reply[64];
    int length = sizeof reply;
    ASSERT_EQ(peer.Exchange("/xconfig?cmd=reboot", nullptr, reply, &length, 200, "<ret>1</ret>"),
              1);
    EXPECT_EQ(length, 12);
    EXPECT_STREQ(reply, "<ret>1</ret>");
    EXPECT_EQ(peer.request.rfind("GET /xconfig?cmd=reboot HTTP/1.1\r\n", 0), 0u);

    const char xml[] = "<config><a>1</a></config>";
    length = sizeof reply;
    ASSERT_EQ(peer.Exchange("/xconfig?cmd=setconfig&type=8", xml, reply, &length, 200, ""), 1);
    const std::string& request = peer.request;
    EXPECT_EQ(request.rfind("POST /xconfig?cmd=setconfig&type=8 HTTP/1.1\r\n", 0), 0u);
    EXPECT_NE(request.find("Content-Type: application/xml\r\n"), std::string::npos);
    EXPECT_EQ(request.substr(request.size() - strlen(xml)), xml);
    EXPECT_EQ(request.find("Expect:"), std::string::npos);

    length = sizeof reply;
    EXPECT_EQ(peer.Exchange("/xconfig?cmd=getregister", nullptr, reply, &length, 404, "missing"),
              0);
    EXPECT_STREQ(reply, "missing");  // still there for whoever wants to log it
    // A command code other than the HTTP one is not carried.
    length = sizeof reply;
    EXPECT_EQ(RUSK_TRANSCOMMAND(peer.Url("/x").c_str(), 98, nullptr, 0, reply, &length), 0);
    EXPECT_EQ(length, 0);
}

TEST(RuskCommand, ReplyIsCutToTheCallersCapacity) {
    Peer peer;
    const char* path = "/xconfig?cmd=getconfig&type=15";
    char buffer[16];
    for (int capacity : {4, 10, 11}) {
        memset(buffer, '#', sizeof buffer);
        int length = capacity;
        ASSERT_EQ(peer.Exchange(path, nullptr, buffer, &length, 200, "0123456789"), 1);
        int copied = capacity < 10 ? capacity : 10;
        EXPECT_EQ(length, copied);
        EXPECT_EQ(std::string(buffer, copied), std::string("0123456789", copied));
        // The terminator goes in only where there is room for it, and nothing beyond.
        EXPECT_EQ(buffer[copied], copied < capacity ? '\0' : '#') << capacity;
        EXPECT_EQ(buffer[copied + 1], '#');
    }
    // No buffer at all: the answer still counts.
    EXPECT_EQ(peer.Exchange(path, nullptr, nullptr, nullptr, 200, "x"), 1);
}

TEST(RuskCommand, DeadPeersFailWithinTheTimeOut) {
    RUSK_SetTimeouts(300, 600);
    std::string refused = Peer().Url("/xconfig?cmd=reboot");  // closed again at once
    Peer silent;
    char reply[8];
    for (const std::string& url : {refused, silent.Url("/xconfig?cmd=reboot")}) {
        int length = sizeof reply;
        auto start = std::chrono::steady_clock::now();
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
        EXPECT_EQ(ok ? out : "", c.out ? c.out : "");
    }
}

}  // namespace
