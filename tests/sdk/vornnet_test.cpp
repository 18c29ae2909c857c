// The message listener over real loopback sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "VornFrame.h"
#include "VornNetSDK.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A blocking loopback client that speaks raw bytes, so tests can also send broken ones.
class RawClient {
public:
    explicit RawClient(int port) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) Close();
    }
    ~RawClient() { Close(); }
    bool ok() const { return m_fd >= 0; }
    void Close() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

    bool SendRaw(const Bytes& bytes) {
        return send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // A message with a 12-byte header of type `type` and `payload`.
    bool SendMessage(uint8_t type, const std::string& payload) {
        Bytes body(vorn::kMsgHeadSize, 0);
        body[0] = type;
        body.insert(body.end(), payload.begin(), payload.end());
        Bytes frame;
        vorn::AppendFrame(frame, body.data(), body.size());
        return SendRaw(frame);
    }

    // The next frame body, or false on time-out or close.
    bool ReadFrame(Bytes& body, int timeoutMs = 3000) {
        uint8_t length[4];
        if (!ReadExactly(length, 4, timeoutMs)) return false;
        body.resize(vorn::GetLe32(length));
        return ReadExactly(body.data(), body.size(), timeoutMs);
    }
    // True when the server closed the connection within the time-out.
    bool WaitClosed(int timeoutMs) {
        pollfd pfd{m_fd, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) <= 0) return false;
        char byte;
        return recv(m_fd, &byte, 1, 0) <= 0;
    }

private:
    bool ReadExactly(uint8_t* out, size_t n, int timeoutMs) {
        size_t got = 0;
        while (got < n) {
            pollfd pfd{m_fd, POLLIN, 0};
            if (poll(&pfd, 1, timeoutMs) <= 0) return false;
            ssize_t r = recv(m_fd, out + got, n - got, 0);
            if (r <= 0) return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }
    int m_fd = -1;
};

// Records every callback and checks the per-connection guarantees as they happen.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, std::vector<std::string>> messages;  // payloads after the header
    std::map<int, int> disconnects;
    std::set<int> busy;  // clients whose callback is running
    int overlaps = 0;
    int afterDisconnect = 0;
    // Optional reply made inside the callback, with the lock not held.
    std::function<void(int, const std::string&)> onMessage;

    static void Callback(int clientId, unsigned char* data, int length, void* user) {
        static_cast<Recorder*>(user)->Handle(clientId, data, length);
    }

    void Handle(int clientId, unsigned char* data, int length) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (!busy.insert(clientId).second) ++overlaps;
            if (disconnects[clientId] > 0) ++afterDisconnect;
        }
        std::string payload;
        if (data && length >= 12) payload.assign(reinterpret_cast<char*>(data) + 12, length - 12);
        if (data && onMessage) onMessage(clientId, payload);
        std::lock_guard<std::mutex> lock(mutex);
        busy.erase(clientId);
        if (data) {
            messages[clientId].push_back(payload);
        } else {
            ++disconnects[clientId];
        }
        changed.notify_all();
    }

    template <typename Pred>
    bool WaitFor(Pred pred, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, milliseconds(timeoutMs), [&] { return pred(); });
    }
    int TotalDisconnects() {
        int total = 0;
        for (auto& entry : disconnects) total += entry.second;
        return total;
    }
    // The one client seen so far (tests with a single connection).
    int OnlyClient() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.size() == 1 ? messages.begin()->first : 0;
    }
};

class VornNetTest : public ::testing::Test {
protected:
    void SetUp() override {
        VornNetSDK_Init(nullptr);
        m_server = VornStartServer(0, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec);
        ASSERT_GT(m_server, 0);
        m_port = VornServerGetListenPort(m_server);
        ASSERT_GT(m_port, 0);
    }
    void TearDown() override {
        VornStopServer(m_server);
        VornNetSDK_SetFrameTimeout(0);
    }
    Recorder m_rec;
    int m_server = -1;
    int m_port = 0;
};

int32_t StateOf(const Bytes& body) { return static_cast<int32_t>(vorn::GetLe32(&body[12])); }

TEST_F(VornNetTest, RepliesAreFramedResultsAndAddressesAreKnown) {
    m_rec.onMessage = [](int client, const std::string& payload) {
        char peer[64] = {0}, local[8] = {0};
        EXPECT_EQ(VornServerGetClientAddr(client, peer, sizeof peer), 1);
        EXPECT_EQ(std::string(peer).rfind("127.0.0.1:", 0), 0u);
        EXPECT_EQ(VornServerGetLocalAddr(client, local, sizeof local), 1);
        EXPECT_EQ(std::string(local), "127.0.0");  // cut to the buffer, still terminated
        VornServerSendState(client, static_cast<int>(payload.size()));
        VornServerSendData(client, reinterpret_cast<const unsigned char*>(payload.data()),
                           static_cast<int>(payload.size()));
    };
    RawClient client(m_port);
    ASSERT_TRUE(client.ok());
    ASSERT_TRUE(client.SendRaw({0, 0, 0, 0}));  // keep-alive: no callback
    ASSERT_TRUE(client.SendMessage(1, "SN-0001"));
    Bytes state, data;
    ASSERT_TRUE(client.ReadFrame(state));
    ASSERT_EQ(state.size(), 16u);
    EXPECT_EQ(state[0], 17);
    EXPECT_EQ(state[1], 0);
    EXPECT_EQ(StateOf(state), 7);
    ASSERT_TRUE(client.ReadFrame(data));
    EXPECT_EQ(data[0], 17);
    EXPECT_EQ(data[1], 1);
    EXPECT_EQ(std::string(data.begin() + 12, data.end()), "SN-0001");
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 1; }));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    EXPECT_EQ(m_rec.messages.begin()->second.size(), 1u);
}

TEST_F(VornNetTest, ManyClientsKeepOrderAndDisconnectOnceLast) {
    constexpr int kClients = 16;
    constexpr int kMessages = 40;
    m_rec.onMessage = [](int client, const std::string&) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));  // invite overlaps
        VornServerSendState(client, 0);
    };
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([this] {
            RawClient client(m_port);
            ASSERT_TRUE(client.ok());
            for (int i = 0; i < kMessages; ++i) client.SendMessage(9, std::to_string(i));
            Bytes reply;
            for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(client.ReadFrame(reply));
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.TotalDisconnects() == kClients; }));

    std::lock_guard<std::mutex> lock(m_rec.mutex);
    EXPECT_EQ(m_rec.overlaps, 0);
    EXPECT_EQ(m_rec.afterDisconnect, 0);
    ASSERT_EQ(m_rec.messages.size(), static_cast<size_t>(kClients));
    for (auto& entry : m_rec.messages) {
        EXPECT_GT(entry.first, 0);
        EXPECT_EQ(m_rec.disconnects[entry.first], 1);
        ASSERT_EQ(entry.second.size(), static_cast<size_t>(kMessages));
        for (int i = 0; i < kMessages; ++i) EXPECT_EQ(entry.second[i], std::to_string(i));
    }
}

TEST_F(VornNetTest, AFloodBehindABlockedCallbackArrivesWhole) {
    // Far more messages than the backlog holds, so reading pauses and must resume.
    constexpr int kMessages = 3000;
    std::mutex gateMutex;
    std::condition_variable gateOpened;
    bool open = false;
    m_rec.onMessage = [&](int, const std::string&) {
        std::unique_lock<std::mutex> lock(gateMutex);
        gateOpened.wait(lock, [&] { return open; });
    };
    RawClient client(m_port);
    for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(client.SendMessage(9, std::to_string(i)));
    std::this_thread::sleep_for(milliseconds(200));
    {
        std::lock_guard<std::mutex> lock(gateMutex);
        open = true;
    }
    gateOpened.notify_all();
    int id = 0;
    ASSERT_TRUE(m_rec.WaitFor([&] {
        if (m_rec.messages.size() != 1) return false;
        id = m_rec.messages.begin()->first;
        return m_rec.messages[id].size() == static_cast<size_t>(kMessages);
    }));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    for (int i = 0; i < kMessages; ++i) ASSERT_EQ(m_rec.messages[id][i], std::to_string(i));
}

TEST_F(VornNetTest, BrokenClientsAreDroppedAndReportedOnce) {
    VornNetSDK_SetFrameTimeout(300);
    RawClient midFrame(m_port), oversize(m_port), stalled(m_port), quiet(m_port);
    ASSERT_TRUE(midFrame.ok() && oversize.ok() && stalled.ok() && quiet.ok());

    Bytes half = {100, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    midFrame.SendRaw(half);
    midFrame.Close();  // hangs up inside a frame

    Bytes tooLong(4);
    vorn::PutLe32(tooLong.data(), vorn::kMaxFrameLength + 1);
    oversize.SendRaw(tooLong);
    EXPECT_TRUE(oversize.WaitClosed(2000));

    auto start = Clock::now();
    stalled.SendRaw(half);  // and then says nothing more
    EXPECT_TRUE(stalled.WaitClosed(3000));
    EXPECT_GE(Clock::now() - start, milliseconds(250));

    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.TotalDisconnects() == 3; }));
    // Silence between whole messages is not a fault.
    EXPECT_FALSE(quiet.WaitClosed(500));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    EXPECT_TRUE(m_rec.messages.empty());
    for (auto& entry : m_rec.disconnects) EXPECT_EQ(entry.second, 1);
}

TEST_F(VornNetTest, DelayedKillFlushesThenClosesWithoutBlocking) {
    std::atomic<long long> callbackMicros{0};
    m_rec.onMessage = [&](int client, const std::string& payload) {
        auto start = Clock::now();
        VornServerSendState(client, 0);
        if (payload == "oneshot") VornServerKillClientDelayed(client, 400);
        callbackMicros +=
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    };
    RawClient oneShot(m_port), other(m_port);
    auto start = Clock::now();
    ASSERT_TRUE(oneShot.SendMessage(18, "oneshot"));
    Bytes reply;
    ASSERT_TRUE(oneShot.ReadFrame(reply, 1000));
    // The pool keeps serving others during the delay.
    ASSERT_TRUE(other.SendMessage(9, "meanwhile"));
    ASSERT_TRUE(other.ReadFrame(reply, 300));
    EXPECT_TRUE(oneShot.WaitClosed(2000));
    EXPECT_GE(Clock::now() - start, milliseconds(380));
    EXPECT_LT(callbackMicros.load(), 100000);

    // Only the killed client goes.
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.TotalDisconnects() == 1; }));
    EXPECT_FALSE(other.WaitClosed(200));
}

TEST_F(VornNetTest, KillWritesALargeReplyCompletelyFirst) {
    const std::string big(3 * 1024 * 1024, 'q');
    m_rec.onMessage = [&](int client, const std::string&) {
        VornServerSendData(client, reinterpret_cast<const unsigned char*>(big.data()),
                           static_cast<int>(big.size()));
        VornServerKillClient(client);
        VornServerSendState(client, 1);  // after the kill: must not reach the client
    };
    RawClient client(m_port);
    ASSERT_TRUE(client.SendMessage(20, ""));
    Bytes reply;
    ASSERT_TRUE(client.ReadFrame(reply, 5000));
    EXPECT_EQ(reply.size(), big.size() + 12);
    EXPECT_TRUE(client.WaitClosed(2000));  // end of stream, not another frame
}

TEST_F(VornNetTest, StopClosesClientsAndThePortCanBeReusedAtOnce) {
    RawClient a(m_port), b(m_port), c(m_port);
    for (RawClient* client : {&a, &b, &c}) ASSERT_TRUE(client->SendMessage(1, "x"));
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 3; }));
    std::set<int> firstIds;
    {
        std::lock_guard<std::mutex> lock(m_rec.mutex);
        for (auto& entry : m_rec.messages) firstIds.insert(entry.first);
    }

    EXPECT_EQ(VornStopServer(m_server), 1);
    {
        // Stop returns after the last disconnect callback.
        std::lock_guard<std::mutex> lock(m_rec.mutex);
        EXPECT_EQ(m_rec.TotalDisconnects(), 3);
    }
    EXPECT_EQ(VornStopServer(m_server), 0);
    for (RawClient* client : {&a, &b, &c}) EXPECT_TRUE(client->WaitClosed(1000));

    m_server = VornStartServer(m_port, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec);
    ASSERT_GT(m_server, 0);
    RawClient again(m_port);
    ASSERT_TRUE(again.SendMessage(1, "y"));
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 4; }));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    for (auto& entry : m_rec.messages) {
        if (!firstIds.count(entry.first)) {
            EXPECT_GT(entry.first, *firstIds.rbegin());
        }
    }
}

TEST_F(VornNetTest, StopFromInsideACallbackDoesNotDeadlock) {
    m_rec.onMessage = [&](int, const std::string&) { VornStopServer(m_server); };
    RawClient client(m_port);
    ASSERT_TRUE(client.SendMessage(1, "stop"));
    EXPECT_TRUE(client.WaitClosed(2000));
    EXPECT_TRUE(m_rec.WaitFor([&] { return m_rec.TotalDisconnects() == 1; }));
    // Nothing else waits for that listener's last callback; ending the threads does.
    VornNetSDK_destroy();
}

TEST_F(VornNetTest, UnknownIdsAndBadArgumentsAreHarmless) {
    RawClient client(m_port);
    ASSERT_TRUE(client.SendMessage(1, "x"));
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 1; }));
    int closedId = m_rec.OnlyClient();
    client.Close();
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.TotalDisconnects() == 1; }));

    char addr[32];
    const unsigned char byte = 0;
    for (int id : {0, -1, 999999, closedId}) {
        EXPECT_EQ(VornServerSendData(id, &byte, 1), 0);
        EXPECT_EQ(VornServerSendData2(id, &byte, 1), 0);
        EXPECT_EQ(VornServerSendState(id, 1), 0);
        EXPECT_EQ(VornServerKillClient(id), 0);
        EXPECT_EQ(VornServerKillClientDelayed(id, 10), 0);
        EXPECT_EQ(VornServerGetClientAddr(id, addr, sizeof addr), 0);
        EXPECT_EQ(VornServerGetLocalAddr(id, addr, sizeof addr), 0);
    }
    EXPECT_EQ(VornStopServer(424242), 0);
    EXPECT_EQ(VornServerGetListenPort(424242), 0);
    EXPECT_EQ(VornStartServer(m_port, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec), -1);
    EXPECT_EQ(VornStartServer(0, VORN_MODE_HTTP, &Recorder::Callback, &m_rec), -1);
    EXPECT_EQ(VornStartServer(0, VORN_MODE_MESSAGE, nullptr, nullptr), -1);
    EXPECT_EQ(VornStartServer(70000, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec), -1);
}

TEST_F(VornNetTest, DestroyReportsClientsAndInitStartsAgain) {
    RawClient client(m_port);
    ASSERT_TRUE(client.SendMessage(1, "x"));
    ASSERT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 1; }));
    VornNetSDK_destroy();
    EXPECT_EQ(m_rec.TotalDisconnects(), 1);
    EXPECT_TRUE(client.WaitClosed(1000));

    VornNetSDK_Init(nullptr);
    m_server = VornStartServer(m_port, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec);
    ASSERT_GT(m_server, 0);
    RawClient again(m_port);
    ASSERT_TRUE(again.SendMessage(1, "y"));
    EXPECT_TRUE(m_rec.WaitFor([&] { return m_rec.messages.size() == 2; }));
}

}  // namespace
