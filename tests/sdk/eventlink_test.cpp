// Event links: the link request, event packets handed over whole, and a link that the node
// drops or poisons with bad framing coming back (105, then 111) without a crash.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "RUSKNetSDK.h"
#include "support/eventpeer.h"

namespace {

struct Seen {
    int type;
    std::string data;  // empty for a status report
};

struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Seen> seen;

    static void Callback(int, int type, unsigned char* buffer, int length, int, void* user) {
        auto* r = static_cast<Recorder*>(user);
        std::lock_guard<std::mutex> lock(r->mutex);
        r->seen.push_back(
            {type, buffer ? std::string(reinterpret_cast<char*>(buffer), length) : std::string()});
        r->changed.notify_all();
    }
    // Waits for the n-th (1-based) callback and returns it; type -1 when it never came.
    Seen Wait(size_t n, int ms = 5000) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::milliseconds(ms),
                              [&] { return seen.size() >= n; }))
            return {-1, ""};
        return seen[n - 1];
    }
};

const char kPath[] = "/192.168.1.64:8000:admin:58203:0:1?event=1";

class EventLink : public ::testing::Test {
protected:
    void SetUp() override {
        std::string url = "rtsp://127.0.0.1:" + std::to_string(peer.port()) + kPath;
        handle = RUSK_MEDIA_PLAY(url.c_str(), 1, &Recorder::Callback, &rec);
        ASSERT_GE(handle, 0);
        ASSERT_TRUE(peer.WaitLinks(1));
    }
    void TearDown() override {
        if (handle >= 0) {
            EXPECT_EQ(1, RUSK_STOP_MEDIA_PLAY(handle));
        }
    }
    cmstest::EventPeer peer;
    Recorder rec;
    int handle = -1;
};

TEST_F(EventLink, PacketsArriveWholeAndADropIsReportedAndRelinked) {
    EXPECT_EQ(kPath, peer.Paths()[0]);
    std::string big = cmstest::EventPacket("CH-7", 0, 70000);  // spans many reads
    ASSERT_TRUE(peer.SendRaw(std::string(4, '\0')));           // keep-alive, not delivered
    ASSERT_TRUE(peer.Send(22, big));
    ASSERT_TRUE(peer.Send(2, cmstest::EventPacket("", 42)));
    Seen first = rec.Wait(1), second = rec.Wait(2);
    EXPECT_EQ(22, first.type);
    EXPECT_TRUE(first.data == big);
    EXPECT_EQ(2, second.type);
    EXPECT_EQ(200u, second.data.size());

    peer.Drop();
    EXPECT_EQ(VORN_STATUS_LOGOUT, rec.Wait(3).type);
    ASSERT_TRUE(peer.WaitLinks(2));
    EXPECT_EQ(VORN_STATUS_RELINK, rec.Wait(4).type);
    EXPECT_EQ(kPath, peer.Paths()[1]);
    ASSERT_TRUE(peer.Send(22, "after"));
    EXPECT_EQ("after", rec.Wait(5).data);

    EXPECT_EQ(1, RUSK_STOP_MEDIA_PLAY(handle));
    EXPECT_EQ(0, RUSK_STOP_MEDIA_PLAY(handle));
    handle = -1;
}

TEST_F(EventLink, BrokenFramingDropsTheLinkAndNothingOfItIsDelivered) {
    auto frame = [](uint32_t n, uint8_t type, size_t bodyBytes) {
        std::string f(4 + bodyBytes, '\0');
        for (int i = 0; i < 4; ++i) f[i] = char(n >> (8 * i));
        if (bodyBytes) f[4] = char(type);
        return f;
    };
    const std::string bad[] = {
        frame(16u * 1024 * 1024 + 1, 22, 0),  // above the limit: refused before reading on
        frame(5, 22, 5),                      // shorter than a header
        frame(12, 22, 12),                    // a header without a packet
        frame(20, 9, 20),                     // not an event type
    };
    size_t links = 1, calls = 0;
    for (const auto& b : bad) {
        ASSERT_TRUE(peer.SendRaw(b));
        EXPECT_EQ(VORN_STATUS_LOGOUT, rec.Wait(++calls).type);
        ASSERT_TRUE(peer.WaitLinks(++links));
        EXPECT_EQ(VORN_STATUS_RELINK, rec.Wait(++calls).type);
    }
    ASSERT_TRUE(peer.Send(2, "ok"));
    EXPECT_EQ("ok", rec.Wait(++calls).data);
}

TEST(EventLinkOpen, FailsWhenNothingListensOrTheAddressHasNoPort) {
    int port;
    {
        cmstest::EventPeer gone;
        port = gone.port();
    }
    Recorder rec;
    std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + kPath;
    EXPECT_LT(RUSK_MEDIA_PLAY(url.c_str(), 1, &Recorder::Callback, &rec), 0);
    EXPECT_LT(RUSK_MEDIA_PLAY("rtsp://127.0.0.1/x?event=1", 1, &Recorder::Callback, &rec), 0);
    EXPECT_TRUE(rec.seen.empty());
}

}  // namespace
