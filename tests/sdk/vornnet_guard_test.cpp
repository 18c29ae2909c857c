// Who may connect to the listeners, and how long a frame may take to arrive.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "VornNetSDK.h"
#include "sdk/vornnet/src/guard.h"

namespace {

using std::chrono::milliseconds;

// A loopback client bound to `source` (127.0.0.x), so that tests can come from several
// addresses.
class Peer {
public:
    Peer(const char* source, int port) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, source, &a.sin_addr);
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        a.sin_port = htons(static_cast<uint16_t>(port));
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~Peer() { close(m_fd); }
    bool Send(const std::string& bytes) {
        return m_connected && send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
                                  static_cast<ssize_t>(bytes.size());
    }
    // True when the server hangs up within `ms` (what it sent before is skipped).
    bool Closed(int ms) {
        const auto end = std::chrono::steady_clock::now() + milliseconds(ms);
        char buf[4096];
        for (;;) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
            if (recv(m_fd, buf, sizeof buf, 0) <= 0) return true;
        }
    }

private:
    int m_fd = -1;
    bool m_connected = false;
};

std::atomic<int> g_calls{0};
void Count(int, unsigned char* data, int, void*) {
    if (data) ++g_calls;
}

class GuardTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        VornNetSDK_Init(nullptr);
        m_server = VornStartServer(0, GetParam(), &Count, nullptr);
        ASSERT_GT(m_server, 0);
        m_port = VornServerGetListenPort(m_server);
    }
    void TearDown() override {
        VornStopServer(m_server);
        VornNetSDK_SetAllowList(m_port, nullptr);
        VornNetSDK_SetMaxClients(0);
        VornNetSDK_SetFrameTimeout(0);
    }
    int m_server = -1;
    int m_port = 0;
};

TEST(NetworkListTest, ReadsIpv4Ipv6AndHostsAndRefusesTheRest) {
    vorn::NetworkList list;
    std::string bad;
    ASSERT_TRUE(list.Parse(" 10.1.0.0/16, 192.168.7.9;fd00:1::/32\t::1", bad));
    auto allows = [&](const char* a) { return list.Allows(asio::ip::make_address(a)); };
    EXPECT_TRUE(allows("10.1.255.3"));
    EXPECT_FALSE(allows("10.2.0.1"));
    EXPECT_TRUE(allows("192.168.7.9"));
    EXPECT_FALSE(allows("192.168.7.10"));
    EXPECT_TRUE(allows("fd00:1:ffff::5"));
    EXPECT_FALSE(allows("fd00:2::5"));
    EXPECT_TRUE(allows("::1"));
    for (const char* wrong : {"10.0.0.0/33", "10.0.0/8", "::/129", "host.example", "1.2.3.4/"}) {
        EXPECT_FALSE(list.Parse(wrong, bad)) << wrong;
        EXPECT_EQ(bad, wrong);
    }
    EXPECT_TRUE(allows("10.1.0.1"));  // a failed parse keeps the old list
    ASSERT_TRUE(list.Parse("0.0.0.0/0", bad));
    EXPECT_TRUE(allows("203.0.113.1"));
    EXPECT_FALSE(allows("2001:db8::1"));  // IPv4 networks do not cover IPv6 peers
}

TEST_P(GuardTest, OnlyAllowedNetworksAreServed) {
    ASSERT_EQ(VornNetSDK_SetAllowList(m_port, "127.0.0.2/32 127.0.1.0/24"), 1);
    EXPECT_EQ(VornNetSDK_SetAllowList(m_port, "127.0.0.300"), 0);
    Peer refused("127.0.0.3", m_port), allowed("127.0.0.2", m_port), net("127.0.1.77", m_port);
    EXPECT_TRUE(refused.Closed(2000));
    EXPECT_FALSE(allowed.Closed(200));
    EXPECT_FALSE(net.Closed(50));

    ASSERT_EQ(VornNetSDK_SetAllowList(m_port, ""), 1);  // everyone again
    Peer later("127.0.0.3", m_port);
    EXPECT_FALSE(later.Closed(200));
}

TEST_P(GuardTest, ClientsBeyondTheLimitAreClosedAndTheirPlaceComesBack) {
    VornNetSDK_SetMaxClients(2);
    auto first = std::make_unique<Peer>("127.0.0.1", m_port);
    Peer second("127.0.0.1", m_port);
    EXPECT_FALSE(second.Closed(200));
    Peer third("127.0.0.1", m_port);
    EXPECT_TRUE(third.Closed(2000));
    first.reset();
    std::this_thread::sleep_for(milliseconds(200));  // the close is noticed asynchronously
    Peer fourth("127.0.0.1", m_port);
    EXPECT_FALSE(fourth.Closed(200));
}

TEST_P(GuardTest, AFrameTricklingInSlowerThanTheStallTimeIsClosed) {
    VornNetSDK_SetFrameTimeout(400);
    // Announces a 100-byte message, then sends a byte every 100 ms: never silent for the
    // stall time, yet the frame is not whole long after it.
    const std::string head = GetParam() == VORN_MODE_HTTP ? "GET /?cmd=x HTTP/1.1\r\n"
                                                          : std::string("\x64\x00\x00\x00", 4);
    Peer slow("127.0.0.1", m_port);
    ASSERT_TRUE(slow.Send(head));
    const auto start = std::chrono::steady_clock::now();
    bool closed = false;
    for (int i = 0; i < 30 && !closed; ++i) {
        closed = !slow.Send("a") || slow.Closed(100);
    }
    EXPECT_TRUE(closed);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1500));
    EXPECT_EQ(g_calls.load(), 0);
}

// Every message is answered with 4 MiB.
void AnswerBig(int clientId, unsigned char* data, int, void*) {
    static const std::string reply(4 << 20, 'r');
    if (data) {
        VornServerSendData(clientId, reinterpret_cast<const unsigned char*>(reply.data()),
                           static_cast<int>(reply.size()));
    }
}

TEST(ReplyBudgetTest, TheLongestQueueIsClosedWhenAllTogetherAreOverTheBudget) {
    VornNetSDK_Init(nullptr);
    VornNetSDK_SetReplyBudget(24 << 20);
    const int server = VornStartServer(0, VORN_MODE_MESSAGE, &AnswerBig, nullptr);
    const int port = VornServerGetListenPort(server);
    const std::string request("\x0c\0\0\0\x09\0\0\0\0\0\0\0\0\0\0\0", 16);
    Peer modest("127.0.0.1", port), greedy("127.0.0.1", port);
    ASSERT_TRUE(modest.Send(request + request));  // 8 MiB, more than the socket takes
    std::this_thread::sleep_for(milliseconds(300));
    std::string many;
    for (int i = 0; i < 12; ++i) many += request;  // 48 MiB, under the 64 MiB per client
    ASSERT_TRUE(greedy.Send(many));
    std::this_thread::sleep_for(milliseconds(1000));  // not reading, its queue grows
    EXPECT_TRUE(greedy.Closed(3000));
    EXPECT_FALSE(modest.Closed(300));  // reads its replies and is still served
    VornStopServer(server);
    VornNetSDK_SetReplyBudget(0);
}

TEST(ReplyBudgetTest, ALoneClientsReplyMayExceedTheBudget) {
    VornNetSDK_Init(nullptr);
    VornNetSDK_SetReplyBudget(2 << 20);
    const int server = VornStartServer(0, VORN_MODE_MESSAGE, &AnswerBig, nullptr);
    Peer alone("127.0.0.1", VornServerGetListenPort(server));
    ASSERT_TRUE(alone.Send(std::string("\x0c\0\0\0\x09\0\0\0\0\0\0\0\0\0\0\0", 16)));
    std::this_thread::sleep_for(milliseconds(500));  // not reading: 4 MiB stay queued
    EXPECT_FALSE(alone.Closed(300));
    VornStopServer(server);
    VornNetSDK_SetReplyBudget(0);
}

INSTANTIATE_TEST_SUITE_P(BothPorts, GuardTest, ::testing::Values(VORN_MODE_MESSAGE, VORN_MODE_HTTP),
                         [](const auto& info) {
                             return std::string(info.param == VORN_MODE_HTTP ? "Http" : "Message");
                         });

}  // namespace
