// Per-client work queues: one client's tasks in order, other clients not held back.
#include "server/CmsSvrDlg_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <vector>

namespace {

TEST(ClientQueues, OneClientInOrderWhileABlockedClientHoldsNoOneElse) {
    ClientQueues q(4);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    q.Post(1, [released] { released.wait(); });  // client 1 hangs, like a silent sub-server
    EXPECT_TRUE(q.Busy(1));

    std::mutex m;
    std::vector<int> order;
    std::atomic<int> running{0}, overlap{0};
    for (int i = 0; i < 200; ++i)
        q.Post(2, [&, i] {
            overlap += running++ != 0;
            std::lock_guard<std::mutex> lock(m);
            order.push_back(i);
            --running;
        });
    std::promise<void> thirdRan;
    q.Post(3, [&] { thirdRan.set_value(); });
    thirdRan.get_future().wait();  // not stuck behind client 1

    // A task posted behind the hanging one waits for it.
    std::atomic<bool> behind{false};
    q.Post(1, [&] { behind = true; });
    EXPECT_FALSE(behind);
    release.set_value();
    q.Drain();
    EXPECT_TRUE(behind);
    EXPECT_FALSE(q.Busy(1) || q.Busy(2));
    EXPECT_EQ(overlap, 0);
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
}

TEST(ClientQueues, AFullQueueMakesItsPosterWait) {
    ClientQueues q(2);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    q.Post(7, [released] { released.wait(); });
    for (size_t i = 0; i < ClientQueues::kMaxWaiting; ++i) q.Post(7, [] {});
    auto poster = std::async(std::launch::async, [&] { q.Post(7, [] {}); });
    EXPECT_EQ(poster.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    q.Post(
        7, [] {}, false);  // a disconnect never waits
    release.set_value();
    poster.get();
    q.Drain();
    EXPECT_FALSE(q.Busy(7));
}

}  // namespace
