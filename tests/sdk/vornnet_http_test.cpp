// The HTTP listener: its request reader without sockets, then over real loopback sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "VornNetSDK.h"
#include "comm/httpparse.h"
#include "sdk/vornnet/src/httpcodec.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

template <typename T>
std::vector<size_t> Layout() {
    return {sizeof(T),
            offsetof(T, nBadyLen),
            offsetof(T, szHost),
            offsetof(T, szURL),
            offsetof(T, szConnection),
            offsetof(T, szUpgrade),
            offsetof(T, szWSKey),
            offsetof(T, szWSProtocol),
            offsetof(T, nWSVersion)};
}

TEST(VornHttpHead, HasTheLayoutOfTheServersRecord) {
    EXPECT_EQ(Layout<VORN_HTTP_HEAD>(), Layout<_stru_http>());
}

TEST(VornHttpCodec, EverySplitGivesOneRecordAndTheBody) {
    const std::string request =
        "POST /cmd?x=1 HTTP/1.1\r\nhOsT:   a-very-long-host-name-that-will-not-fit.example:8080 "
        "\r\n"
        "Connection: Upgrade\nUPGRADE: websocket\r\nSec-WebSocket-Key: k==\r\n"
        "Sec-WebSocket-Protocol: chat\r\nSec-WebSocket-Version: 13\r\nX-Other: y\r\n"
        "Content-Length: 5\r\n\r\nhelloGET / HTTP/1.1\r\n\r\n";
    auto data = reinterpret_cast<const uint8_t*>(request.data());
    for (size_t split = 0; split <= request.size(); ++split) {
        vorn::HttpCodec codec;
        std::vector<std::vector<uint8_t>> out;
        auto sink = [&](std::vector<uint8_t>&& m) { out.push_back(std::move(m)); };
        ASSERT_TRUE(codec.Consume(data, split, sink));
        ASSERT_TRUE(codec.Consume(data + split, request.size() - split, sink));
        ASSERT_EQ(out.size(), 1u) << split;
        ASSERT_EQ(out[0].size(), sizeof(VORN_HTTP_HEAD) + 5);
        VORN_HTTP_HEAD h;
        memcpy(&h, out[0].data(), sizeof h);
        EXPECT_EQ(std::to_string(h.nHttpType) + " " + std::to_string(h.nBadyLen) + " " +
                      std::to_string(h.nWSVersion) + " " + h.szHost + " " + h.szURL + " " +
                      h.szConnection + " " + h.szUpgrade + " " + h.szWSKey + " " + h.szWSProtocol,
                  "2 5 13 a-very-long-host-name-that-will-not-fit /cmd?x=1 Upgrade websocket k== "
                  "chat");  // the host cut to 39 bytes
        EXPECT_EQ(std::string(out[0].end() - 5, out[0].end()), "hello");
    }
}

// A blocking loopback client.
struct Client {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ~Client() { close(fd); }
    bool Connect(int port) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    bool Send(const std::string& bytes) {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Everything until the server closes, or "timeout" / "reset".
    std::string ReadToEnd(int timeoutMs = 3000) {
        std::string out;
        char buf[65536];
        for (auto end = Clock::now() + milliseconds(timeoutMs);;) {
            pollfd p{fd, POLLIN, 0};
            int left = static_cast<int>((end - Clock::now()) / milliseconds(1));
            if (left <= 0 || poll(&p, 1, left) <= 0) return "timeout";
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0) return n == 0 ? out : "reset";
            out.append(buf, static_cast<size_t>(n));
        }
    }
};

// Echoes "<target>:<body>" in small pieces, except for /quiet, after an optional hook.
class VornHttpTest : public ::testing::Test {
protected:
    using Hook = std::function<void(const std::string& target)>;
    void SetUp() override { Start(0); }
    void TearDown() override {
        VornStopServer(m_server);
        VornNetSDK_SetFrameTimeout(0);
    }
    void Start(int port) {
        m_server = VornStartServer(port, VORN_MODE_HTTP, &Callback, this);
        ASSERT_GT(m_server, 0);
        m_port = VornServerGetListenPort(m_server);
    }
    static void Callback(int client, unsigned char* data, int length, void* user) {
        auto self = static_cast<VornHttpTest*>(user);
        ASSERT_TRUE(data != nullptr && length >= static_cast<int>(sizeof(VORN_HTTP_HEAD)));
        VORN_HTTP_HEAD head;
        memcpy(&head, data, sizeof head);
        Hook hook;
        {
            std::lock_guard<std::mutex> lock(self->m_mutex);
            self->m_heads.push_back(head);
            hook = self->m_hook;
        }
        ++self->m_calls;
        if (hook) hook(head.szURL);
        if (std::string(head.szURL) == "/quiet") return;
        std::string reply = "HTTP/1.1 200 OK\r\n\r\n" + std::string(head.szURL) + ":" +
                            std::string(reinterpret_cast<char*>(data) + sizeof head,
                                        static_cast<size_t>(length) - sizeof head);
        for (size_t at = 0; at < reply.size(); at += 7000) {
            std::string piece = reply.substr(at, 7000);
            VornServerSendData2(client, reinterpret_cast<const unsigned char*>(piece.data()),
                                static_cast<int>(piece.size()));
        }
    }
    void SetHook(Hook hook) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hook = std::move(hook);
    }
    std::string Get(const std::string& target, int timeoutMs = 3000) {
        Client client;
        if (!client.Connect(m_port) || !client.Send("GET " + target + " HTTP/1.1\r\n\r\n")) {
            return "connect";
        }
        return client.ReadToEnd(timeoutMs);
    }

    int m_server = -1, m_port = 0;
    std::atomic<int> m_calls{0};
    std::mutex m_mutex;  // guards m_heads and m_hook
    std::vector<VORN_HTTP_HEAD> m_heads;
    Hook m_hook;
};

TEST_F(VornHttpTest, OnlyRequestsWithinTheLimitsReachTheCallback) {
    VornNetSDK_SetFrameTimeout(300);
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n/a:", line = "GET /a HTTP/1.1\r\n";
    auto head = [&](const std::string& lines) { return line + lines + "\r\n"; };
    const std::string filler = "X: " + std::string(8192 - line.size() - 7, 'f') + "\r\n";
    const std::string mib(1 << 20, 'b'), target511 = "/" + std::string(510, 'u');
    const struct {
        std::string request, answer;  // "": closed without an answer after the time-out
    } cases[] = {
        {head(filler), ok},  // a head of exactly 8 KiB
        {head("Content-Length: 1048576\r\n") + mib, ok + mib},
        {"GET " + target511 + " HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n" + target511 + ":"},
        {"DELETE /a HTTP/1.1\r\n\r\n", ok},
        {head("X: " + filler), "HTTP/1.1 431 "},
        {"GET /" + target511 + " HTTP/1.1\r\n\r\n", "HTTP/1.1 414 "},
        {"GET /" + std::string(9000, 'u'), "HTTP/1.1 414 "},
        // Still sending when the answer comes: the close must not reset it away.
        {head("Content-Length: 2000000\r\n") + std::string(2000000, 'b'), "HTTP/1.1 413 "},
        {head("Content-Length: 99999999999999999999999\r\n"), "HTTP/1.1 413 "},
        {"GET /a HTTP/1.1 x\r\n\r\n", "HTTP/1.1 400 "},
        {"GET  /a HTTP/1.1\r\n\r\n", "HTTP/1.1 400 "},
        {"GET /a HTTP/1.x\r\n\r\n", "HTTP/1.1 400 "},
        {head("No colon\r\n"), "HTTP/1.1 400 "},
        {head("Bad name: v\r\n"), "HTTP/1.1 400 "},
        {head("X: a\r\n folded\r\n"), "HTTP/1.1 400 "},
        {head(std::string("X: a\0b\r\n", 8)), "HTTP/1.1 400 "},
        {head("Content-Length: -1\r\n"), "HTTP/1.1 400 "},
        {head("Content-Length: 5\r\nContent-Length: 6\r\n"), "HTTP/1.1 400 "},
        {head("Transfer-Encoding: chunked\r\n"), "HTTP/1.1 400 "},
        {head("Content-Length: 10\r\n") + "short", ""},
        {"GET /a HTT", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        Client client;
        ASSERT_TRUE(client.Connect(m_port));
        auto start = Clock::now();
        ASSERT_TRUE(client.Send(c.request)) << c.answer;
        std::string reply = client.ReadToEnd();
        bool statusOnly = c.answer.size() == 13;  // "HTTP/1.1 4xx ": the rest may vary
        EXPECT_EQ(statusOnly ? reply.substr(0, 13) : reply, c.answer) << c.request.substr(0, 40);
        if (c.answer.empty()) {
            EXPECT_GE(Clock::now() - start, milliseconds(250));
        }
    }
    EXPECT_EQ(m_calls.load(), 4);
}

TEST_F(VornHttpTest, ABodyInManyWritesArrivesWholeAndTheReplyEndsTheConnection) {
    std::string body(200 * 1000, 0);
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 26);
    Client client;
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_TRUE(client.Send("PUT /up HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                            "\r\nHost: cms\r\n\r\n"));
    for (size_t at = 0; at < body.size(); at += 999) {
        ASSERT_TRUE(client.Send(body.substr(at, 999)));
        if (at % 50 == 0) std::this_thread::sleep_for(milliseconds(1));
    }
    shutdown(client.fd, SHUT_WR);  // a half-closed client still gets its answer
    EXPECT_EQ(client.ReadToEnd(), "HTTP/1.1 200 OK\r\n\r\n/up:" + body);
    EXPECT_EQ(Get("/quiet"), "");  // a callback that sends nothing: just closed
    std::lock_guard<std::mutex> lock(m_mutex);
    ASSERT_EQ(m_heads.size(), 2u);
    EXPECT_EQ(m_heads[0].nHttpType, 4);
    EXPECT_STREQ(m_heads[0].szHost, "cms");
}

TEST_F(VornHttpTest, ABlockedCallbackHoldsUpNobody) {
    constexpr int kOthers = 16;
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::atomic<int> othersIn{0};
    SetHook([&](const std::string& target) {
        if (target == "/block") return opened.wait();
        // Each waits for all the others: they have to run side by side.
        ++othersIn;
        for (int i = 0; i < 1500 && othersIn.load() < kOthers; ++i) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    auto blocked = std::async(std::launch::async, [&] { return Get("/block", 10000); });
    while (m_calls.load() == 0) std::this_thread::sleep_for(milliseconds(5));
    std::vector<std::future<std::string>> others;
    for (int i = 0; i < kOthers; ++i) {
        others.push_back(
            std::async(std::launch::async, [this, i] { return Get("/" + std::to_string(i)); }));
    }
    for (int i = 0; i < kOthers; ++i) {
        EXPECT_EQ(others[i].get(), "HTTP/1.1 200 OK\r\n\r\n/" + std::to_string(i) + ":");
    }
    EXPECT_EQ(othersIn.load(), kOthers);
    EXPECT_EQ(blocked.wait_for(milliseconds(0)), std::future_status::timeout);
    gate.set_value();
    EXPECT_EQ(blocked.get(), "HTTP/1.1 200 OK\r\n\r\n/block:");
}

// Requests run on threads started by the raised network threads, and must not keep
// their priority (a slow request would then hold back everything else).
TEST_F(VornHttpTest, RequestsRunAtTheProcessPriority) {
    std::atomic<int> nice{100};
    SetHook([&](const std::string&) { nice = getpriority(PRIO_PROCESS, gettid()); });
    EXPECT_EQ(Get("/a"), "HTTP/1.1 200 OK\r\n\r\n/a:");
    EXPECT_EQ(nice.load(), getpriority(PRIO_PROCESS, getpid()));
}

TEST_F(VornHttpTest, GarbageAndHalfRequestsLeaveTheListenerServing) {
    VornNetSDK_SetFrameTimeout(200);
    std::mt19937 random(7);
    const std::string valid = "POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    for (int i = 0; i < 200; ++i) {
        Client client;
        ASSERT_TRUE(client.Connect(m_port));
        std::string bytes = valid.substr(0, random() % valid.size());
        for (size_t n = i % 2 ? random() % 20000 : 0; n > 0; --n)
            bytes += static_cast<char>(random());
        client.Send(bytes);
    }                                                // each hangs up at once
    std::this_thread::sleep_for(milliseconds(300));  // past the stall time-out
    EXPECT_EQ(Get("/after"), "HTTP/1.1 200 OK\r\n\r\n/after:");
}

TEST_F(VornHttpTest, StopAndDestroyWaitForRunningCallbacksThenStartAgain) {
    std::atomic<int> finished{0};
    SetHook([&](const std::string&) {
        std::this_thread::sleep_for(milliseconds(400));
        ++finished;
    });
    for (int round = 0; round < 2; ++round) {
        auto pending = std::async(std::launch::async, [this] { return Get("/slow"); });
        while (m_calls.load() == round) std::this_thread::sleep_for(milliseconds(5));
        if (round == 0) {
            EXPECT_EQ(VornStopServer(m_server), 1);
        } else {
            VornNetSDK_destroy();
            VornNetSDK_Init(nullptr);
        }
        EXPECT_EQ(finished.load(), round + 1);
        pending.get();
        Start(m_port);  // the same port is free at once
    }
    SetHook(nullptr);
    EXPECT_EQ(Get("/again"), "HTTP/1.1 200 OK\r\n\r\n/again:");
}

}  // namespace
