// The message listener over real loopback sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "VornFrame.h"
#include "VornNetSDK.h"
#include "cmsclient/cmsclient.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmsclient::CmsClient;
using cmsclient::Reply;
using std::chrono::milliseconds;

cmsclient::MsgHead Head(uint8_t type) {
    cmsclient::MsgHead head;
    head.nType = type;
    return head;
}

// Records every callback and checks the per-connection guarantees as they happen.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, std::vector<std::string>> messages;  // payloads after the header
    std::map<int, int> disconnects;
    std::set<int> busy;  // clients whose callback is running
    int overlaps = 0, afterDisconnect = 0, disconnected = 0;
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
            ++disconnected;
        }
        changed.notify_all();
    }
    template <typename Pred>
    bool WaitFor(Pred pred, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, milliseconds(timeoutMs), [&] { return pred(); });
    }
    bool WaitClients(size_t n) {
        return WaitFor([&] { return messages.size() == n; });
    }
    bool WaitDisconnects(int n) {
        return WaitFor([&] { return disconnected == n; });
    }
    int NewestClient() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.empty() ? 0 : messages.rbegin()->first;
    }
};

class VornNetTest : public ::testing::Test {
protected:
    void SetUp() override {
        VornNetSDK_Init(nullptr);
        Start(0);
        m_port = VornServerGetListenPort(m_server);
        ASSERT_GT(m_port, 0);
    }
    void TearDown() override {
        VornStopServer(m_server);
        VornNetSDK_SetFrameTimeout(0);
    }
    void Start(int port) {
        m_server = VornStartServer(port, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec);
        ASSERT_GT(m_server, 0);
    }
    bool Connect(CmsClient& client) { return client.Connect("127.0.0.1", m_port); }
    // Connects and sends one message whose callback is awaited.
    void SendOne(CmsClient& client, int port, const char* text, size_t clientsAfter) {
        ASSERT_TRUE(client.Connect("127.0.0.1", port));
        ASSERT_TRUE(client.Send(Head(1), text));
        ASSERT_TRUE(m_rec.WaitClients(clientsAfter));
    }
    Recorder m_rec;
    int m_server = -1;
    int m_port = 0;
};

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
    CmsClient client;
    ASSERT_TRUE(Connect(client));
    ASSERT_TRUE(client.SendFrame(nullptr, 0));  // keep-alive: no callback
    Reply reply;
    ASSERT_TRUE(client.Request(Head(1), "SN-0001", reply));
    EXPECT_TRUE(reply.IsState());
    EXPECT_EQ(reply.state, 7);
    ASSERT_EQ(client.ReadReply(reply), CmsClient::ReadResult::kReply);
    EXPECT_FALSE(reply.IsState());
    EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), "SN-0001");
    ASSERT_TRUE(m_rec.WaitClients(1));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    EXPECT_EQ(m_rec.messages.begin()->second.size(), 1u);
}

TEST_F(VornNetTest, ManyClientsKeepOrderAndDisconnectOnceLast) {
    constexpr int kClients = 16, kMessages = 40;
    m_rec.onMessage = [](int client, const std::string&) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));  // invite overlaps
        VornServerSendState(client, 0);
    };
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([this] {
            CmsClient client;
            ASSERT_TRUE(Connect(client));
            for (int i = 0; i < kMessages; ++i) client.Send(Head(9), std::to_string(i));
            Reply reply;
            for (int i = 0; i < kMessages; ++i) {
                ASSERT_EQ(client.ReadReply(reply, 3000), CmsClient::ReadResult::kReply);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(m_rec.WaitDisconnects(kClients));

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
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    m_rec.onMessage = [&](int, const std::string&) { opened.wait(); };
    CmsClient client;
    ASSERT_TRUE(Connect(client));
    for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(client.Send(Head(9), std::to_string(i)));
    std::this_thread::sleep_for(milliseconds(200));
    gate.set_value();
    std::vector<std::string>* got = nullptr;
    ASSERT_TRUE(m_rec.WaitFor([&] {
        if (m_rec.messages.size() != 1) return false;
        got = &m_rec.messages.begin()->second;
        return got->size() == static_cast<size_t>(kMessages);
    }));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    for (int i = 0; i < kMessages; ++i) ASSERT_EQ((*got)[i], std::to_string(i));
}

TEST_F(VornNetTest, BrokenClientsAreDroppedAndReportedOnce) {
    VornNetSDK_SetFrameTimeout(300);
    CmsClient midFrame, oversize, stalled, quiet;
    for (CmsClient* client : {&midFrame, &oversize, &stalled, &quiet}) {
        ASSERT_TRUE(Connect(*client));
    }
    const uint8_t half[] = {100, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    midFrame.SendRaw(half, sizeof half);
    midFrame.Close();  // hangs up inside a frame

    uint8_t tooLong[4];
    vorn::PutLe32(tooLong, vorn::kMaxFrameLength + 1);
    oversize.SendRaw(tooLong, sizeof tooLong);
    EXPECT_TRUE(oversize.WaitClosed(2000));

    auto start = Clock::now();
    stalled.SendRaw(half, sizeof half);  // and then says nothing more
    EXPECT_TRUE(stalled.WaitClosed(3000));
    EXPECT_GE(Clock::now() - start, milliseconds(250));

    ASSERT_TRUE(m_rec.WaitDisconnects(3));
    // Silence between whole messages is not a fault.
    EXPECT_FALSE(quiet.WaitClosed(500));
    std::lock_guard<std::mutex> lock(m_rec.mutex);
    EXPECT_TRUE(m_rec.messages.empty());
    for (auto& entry : m_rec.disconnects) EXPECT_EQ(entry.second, 1);
}

TEST_F(VornNetTest, KillsFlushFirstAndDelayedOnesBlockNobody) {
    // Larger than an incoming frame may be and than the queued-output cap: a single reply
    // is still taken whole, and a reply queued behind it too.
    const std::string big(65 * 1024 * 1024, 'q');
    std::atomic<long long> callbackMicros{0};
    m_rec.onMessage = [&](int client, const std::string& payload) {
        auto start = Clock::now();
        if (payload == "big") {
            VornServerSendData(client, reinterpret_cast<const unsigned char*>(big.data()),
                               static_cast<int>(big.size()));
            VornServerSendState(client, 7);
            VornServerKillClient(client);
            VornServerSendState(client, 1);  // after the kill: must not reach the client
            return;
        }
        VornServerSendState(client, 0);
        if (payload == "oneshot") VornServerKillClientDelayed(client, 400);
        callbackMicros +=
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    };
    CmsClient bigOne, oneShot, other;
    for (CmsClient* client : {&bigOne, &oneShot, &other}) ASSERT_TRUE(Connect(*client));
    Reply reply;
    ASSERT_TRUE(bigOne.Request(Head(20), "big", reply));
    EXPECT_TRUE(std::string(reply.data.begin(), reply.data.end()) == big);
    ASSERT_EQ(bigOne.ReadReply(reply), CmsClient::ReadResult::kReply);
    EXPECT_EQ(reply.state, 7);
    EXPECT_TRUE(bigOne.WaitClosed(2000));

    auto start = Clock::now();
    ASSERT_TRUE(oneShot.Request(Head(18), "oneshot", reply, 1000));
    // The pool keeps serving others during the delay.
    ASSERT_TRUE(other.Request(Head(9), "meanwhile", reply, 300));
    EXPECT_TRUE(oneShot.WaitClosed(2000));
    EXPECT_GE(Clock::now() - start, milliseconds(380));
    EXPECT_LT(callbackMicros.load(), 100000);
    ASSERT_TRUE(m_rec.WaitDisconnects(2));
    EXPECT_FALSE(other.WaitClosed(200));
}

TEST_F(VornNetTest, AQueueOfClientsIsTakenInOrderAndALaterOneIsNotHeldBehindIt) {
    constexpr int kFlood = 400;
    std::mutex heldMutex;
    std::vector<int> held;  // flood clients whose reply is withheld until the end
    m_rec.onMessage = [&](int client, const std::string& payload) {
        if (payload == "late") {
            VornServerSendState(client, 2);
            return;
        }
        std::lock_guard<std::mutex> lock(heldMutex);
        held.push_back(client);
    };
    std::vector<CmsClient> flood(kFlood);
    for (CmsClient& client : flood) ASSERT_TRUE(Connect(client));
    for (CmsClient& client : flood) ASSERT_TRUE(client.Send(Head(1), "flood"));
    CmsClient late;
    ASSERT_TRUE(Connect(late));
    Reply reply;
    ASSERT_TRUE(late.Request(Head(1), "late", reply));
    EXPECT_EQ(reply.state, 2);

    ASSERT_TRUE(m_rec.WaitClients(kFlood + 1));
    std::lock_guard<std::mutex> lock(heldMutex);
    ASSERT_EQ(held.size(), static_cast<size_t>(kFlood));
    // Ids follow the order in which the clients connected.
    EXPECT_EQ(m_rec.NewestClient(), *std::max_element(held.begin(), held.end()) + 1);
    for (int client : held) VornServerSendState(client, 1);
    for (CmsClient& client : flood) {
        ASSERT_EQ(client.ReadReply(reply, 5000), CmsClient::ReadResult::kReply);
        EXPECT_EQ(reply.state, 1);
    }
}

TEST_F(VornNetTest, OutOfDescriptorsTheListenerPausesThenTakesTheWaitingClient) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);  // made while descriptors are still free
    ASSERT_GE(fd, 0);
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    testing::internal::CaptureStdout();
    const int lowestFree = dup(0);
    close(lowestFree);
    rlimit none = saved;
    none.rlim_cur = static_cast<rlim_t>(lowestFree);  // no new descriptor anywhere
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(m_port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    std::this_thread::sleep_for(milliseconds(300));
    setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(connected);
    close(fd);  // once taken, the client is seen hanging up
    EXPECT_TRUE(m_rec.WaitDisconnects(1));

    const std::string out = testing::internal::GetCapturedStdout();
    size_t failures = 0;
    for (size_t at = 0; (at = out.find("failed: Too many open files", at)) != std::string::npos;
         ++at) {
        ++failures;
    }
    EXPECT_GE(failures, 1u);
    EXPECT_LE(failures, 30u) << "accepting must pause between failures, not spin";
}

TEST_F(VornNetTest, StaleIdsAreHarmlessStopClosesAllAndThePortIsReusedAtOnce) {
    CmsClient a, b, c, again;
    size_t clients = 0;
    for (CmsClient* client : {&a, &b, &c}) SendOne(*client, m_port, "x", ++clients);
    const int closedId = m_rec.NewestClient();  // c's
    c.Close();
    ASSERT_TRUE(m_rec.WaitDisconnects(1));
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

    EXPECT_EQ(VornStopServer(m_server), 1);
    // Stop returns after the last disconnect callback.
    EXPECT_TRUE(m_rec.WaitFor([&] { return m_rec.disconnected == 3; }, 0));
    for (int server : {m_server, 424242}) {
        EXPECT_EQ(VornStopServer(server), 0);
        EXPECT_EQ(VornServerGetListenPort(server), 0);
    }
    for (CmsClient* client : {&a, &b}) EXPECT_TRUE(client->WaitClosed(1000));

    Start(m_port);
    SendOne(again, m_port, "y", 4);
    EXPECT_GT(m_rec.NewestClient(), closedId);  // ids are not reused
    for (int port : {m_port, 70000}) {
        EXPECT_EQ(VornStartServer(port, VORN_MODE_MESSAGE, &Recorder::Callback, &m_rec), -1);
    }
    EXPECT_EQ(VornStartServer(0, 7, &Recorder::Callback, &m_rec), -1);  // no such mode
    EXPECT_EQ(VornStartServer(0, VORN_MODE_MESSAGE, nullptr, nullptr), -1);
}

TEST_F(VornNetTest, StopInsideACallbackThenDestroyAndStartAgain) {
    m_rec.onMessage = [&](int, const std::string&) { VornStopServer(m_server); };
    CmsClient client, other, again;
    ASSERT_TRUE(Connect(client));
    ASSERT_TRUE(client.Send(Head(1), "stop"));
    EXPECT_TRUE(client.WaitClosed(2000));
    EXPECT_TRUE(m_rec.WaitDisconnects(1));
    // Destroy waits for the callbacks of every listener still running.
    m_rec.onMessage = nullptr;
    Start(0);
    SendOne(other, VornServerGetListenPort(m_server), "x", 2);
    VornNetSDK_destroy();
    EXPECT_EQ(m_rec.disconnected, 2);
    EXPECT_TRUE(other.WaitClosed(1000));

    VornNetSDK_Init(nullptr);
    Start(m_port);
    SendOne(again, m_port, "y", 3);
}

}  // namespace
