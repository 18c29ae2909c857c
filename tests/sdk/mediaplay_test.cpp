// Media-server play: where a play address is opened, and a stream kept alive across a peer
// that goes away and comes back (105, then 111, then data again).
#include "sdk/rusk/src/mediaplay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "RUSKNetSDK.h"
#include "support/daemon.h"
#include "support/rtsppeer.h"

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

TEST(MediaPlayAddress, FirstSegmentIsTheServerTheRestItsPath) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"rtsp://10.1.1.1:554/10.2.2.2:5540/10.0.0.5:8000:u:p:0:1?live=0",
         "rtsp://10.1.1.1:554/10.2.2.2:5540/10.0.0.5:8000:u:p:0:1?live=0"},
        {"rtsp://10.1.1.1/DEV300/192.168.100.7:8000:u:p:0:@CH301?live=1&ss=7",
         "rtsp://10.1.1.1/DEV300/192.168.100.7:8000:u:p:0:@CH301?live=1&ss=7"},
        // A lower domain addressed directly keeps its fields as the first path segment.
        {"rtsp://172.16.0.1:5060:du:dp:3:@DEV400?live=0",
         "rtsp://172.16.0.1:5060/172.16.0.1:5060:du:dp:3:@DEV400?live=0"},
        {"RTSP://h:x:y/z", "rtsp://h/h:x:y/z"},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_TRUE(rusk::MediaPlayAddress(c.in, out)) << c.in;
        EXPECT_EQ(c.out, out);
    }
    std::string out;
    for (const char* bad : {"http://10.1.1.1/x", "rtsp://", "rtsp://:554/x",
                            "rtsp://10.0.0.1:9000/10.9.9.9:8000:admin:1:0:1?event=1"})
        EXPECT_FALSE(rusk::MediaPlayAddress(bad, out)) << bad;
    EXPECT_FALSE(rusk::MediaPlayAddress(nullptr, out));
}

// What a play's callback saw: data packets as 0, status reports by their type.
struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<int> seen;
    std::vector<int> handles;

    static void OnData(int handle, int type, unsigned char* buffer, int length, int extra,
                       void* self) {
        auto* e = static_cast<Events*>(self);
        std::lock_guard<std::mutex> lock(e->mutex);
        bool data = buffer && type == MD_VIDEO && length > VORN_MEDIA_HEAD_SIZE && extra == 0;
        e->seen.push_back(buffer ? (data ? 0 : -1) : type);
        e->handles.push_back(handle);
        e->changed.notify_all();
    }
    // Waits for `what` after the first `from` events; its index, or -1.
    int WaitFor(int what, size_t from, int ms) {
        std::unique_lock<std::mutex> lock(mutex);
        int at = -1;
        changed.wait_for(lock, std::chrono::milliseconds(ms), [&] {
            for (size_t i = from; i < seen.size(); ++i)
                if (seen[i] == what) return (at = static_cast<int>(i)) >= 0;
            return false;
        });
        return at;
    }
};

TEST(MediaPlay, DropsAreReportedReopenedWithBackOffAndReportedBack) {
    cmstest::RtspPeer peer;
    ASSERT_TRUE(peer.Start());
    std::string url = peer.Url("/10.2.2.2:5540/10.0.0.5:8000:u:p:0:1?live=0");
    Events ev;
    int h = RUSK_MEDIA_PLAY(url.c_str(), 1, &Events::OnData, &ev);
    ASSERT_GE(h, 0);
    ASSERT_GE(ev.WaitFor(0, 0, 5000), 0);

    peer.Kill();
    int lost = ev.WaitFor(VORN_STATUS_LOGOUT, 0, 7000);
    ASSERT_GE(lost, 0);
    // Down for longer than the first retry: the back-off doubles and still finds it.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ASSERT_TRUE(peer.Start());
    int back = ev.WaitFor(VORN_STATUS_RELINK, lost, 8000);
    ASSERT_GT(back, lost);
    ASSERT_GT(ev.WaitFor(0, back, 5000), back);

    // Dropped again: stopped while it waits to retry.
    peer.Kill();
    ASSERT_GT(ev.WaitFor(VORN_STATUS_LOGOUT, back, 7000), back);
    auto start = Clock::now();
    EXPECT_EQ(1, RUSK_STOP_MEDIA_PLAY(h));
    EXPECT_LT(MsSince(start), 1000);
    EXPECT_EQ(0, RUSK_STOP_MEDIA_PLAY(h));
    std::lock_guard<std::mutex> lock(ev.mutex);
    EXPECT_EQ(std::vector<int>(ev.seen.size(), h), ev.handles);
    EXPECT_EQ(0, std::count(ev.seen.begin(), ev.seen.end(), -1)) << "malformed packets";
    EXPECT_EQ(2, std::count(ev.seen.begin(), ev.seen.end(), VORN_STATUS_LOGOUT));
    EXPECT_EQ(1, std::count(ev.seen.begin(), ev.seen.end(), VORN_STATUS_RELINK));
    EXPECT_EQ(lost + 1, back) << "data between the drop and its report-back";
    EXPECT_EQ(VORN_STATUS_LOGOUT, ev.seen.back());
}

TEST(MediaPlay, RefusesWhatItCannotOpen) {
    Events ev;
    std::string dead = "rtsp://127.0.0.1:" + std::to_string(cmstest::FreePort()) + "/a/b?live=0";
    EXPECT_LT(RUSK_MEDIA_PLAY(dead.c_str(), 1, &Events::OnData, &ev), 0);
    EXPECT_LT(RUSK_MEDIA_PLAY("rtsp://127.0.0.1:1/x?event=1", 1, &Events::OnData, &ev), 0);
    EXPECT_LT(RUSK_MEDIA_PLAY(dead.c_str(), 1, nullptr, &ev), 0);
    EXPECT_TRUE(ev.seen.empty());
}

}  // namespace
