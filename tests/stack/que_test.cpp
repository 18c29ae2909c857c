#include "stack/Que.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

int Put(CQue& q, const std::string& s, bool ex = false) {
    _tagQUEBUF d{static_cast<int>(s.size()), const_cast<char*>(s.data())};
    return ex ? q.m_InQueEx(&d) : q.m_InQue(&d);
}

// Dequeues one entry as text; "<empty>" when the queue is empty.
std::string Take(CQue& q, int capacity = 256, int* remaining = nullptr) {
    std::vector<char> buf(capacity);
    _tagQUEBUF d{capacity, buf.data()};
    int rest = -1;
    if (q.m_OutQue(&d, rest) == -3) return "<empty>";
    if (remaining) *remaining = rest;
    return std::string(buf.data(), d.dwLength);
}

TEST(Que, FifoJoinsBothPartsAndCutsOversizeEntries) {
    CQue q;
    std::string head = "HEAD", body = "body";
    _tagQUEBUF a{4, head.data()}, b{4, body.data()};
    EXPECT_EQ(0, q.m_InQue(&a, &b));
    EXPECT_EQ(0, Put(q, std::string(25, 'z')));
    EXPECT_EQ("HEADbody", Take(q));
    int remaining = -1;
    EXPECT_EQ(std::string(10, 'z'), Take(q, 10, &remaining));
    EXPECT_EQ(15, remaining);  // the rest is lost with the entry
    EXPECT_EQ("<empty>", Take(q));

    _tagQUEBUF big{0x7fffffff, head.data()}, noBytes{4, nullptr};
    EXPECT_EQ(-1, q.m_InQue(&big, &a));  // summed length does not fit
    EXPECT_EQ(-1, q.m_InQueEx(&noBytes));
    EXPECT_EQ(-1, q.m_InQue(nullptr));
}

TEST(Que, FullQueueRefusesOrDropsOldest) {
    CQue q;
    for (int i = 0; i < 512; ++i) ASSERT_EQ(0, Put(q, std::to_string(i)));
    EXPECT_TRUE(q.m_IsQueFull());
    EXPECT_EQ(-3, Put(q, "refused"));
    // The Ex form reports -3 yet stores the new entry in place of the oldest.
    EXPECT_EQ(-3, Put(q, "512", true));
    EXPECT_EQ("1", Take(q));
    while (q.m_GetQueCount() > 64) Take(q);
    EXPECT_TRUE(q.m_IsQueExist());
    Take(q);
    EXPECT_FALSE(q.m_IsQueExist());  // backlog signal fixed at 64 entries
}

TEST(Que, LockedEntryIsReadInPlaceAndSurvivesDropOldest) {
    CQue q;
    q.m_InitQue(nullptr, 2);
    Put(q, "first");
    Put(q, "second");
    _tagSTATICQUEBUF* slot = q.m_LockQue();
    ASSERT_NE(nullptr, slot);
    EXPECT_EQ(-3, Put(q, "third", true));  // may not free what the consumer is reading
    EXPECT_EQ("first", std::string(slot->acbBuff.get(), slot->dwLength));
    q.m_UnlockQue(slot);
    EXPECT_EQ("second", Take(q));
    EXPECT_EQ(nullptr, q.m_LockQue());
}

TEST(Que, ProducersAndOneConsumerLoseNothing) {
    CQue q;
    constexpr int kProducers = 4, kEach = 2000;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&q, p] {
            for (int i = 0; i < kEach;) {
                if (Put(q, std::to_string(p * kEach + i)) == 0) ++i;
                else std::this_thread::yield();
            }
        });
    }
    std::vector<bool> seen(kProducers * kEach, false);
    for (int taken = 0; taken < kProducers * kEach;) {
        const std::string s = Take(q);
        if (s == "<empty>") {
            std::this_thread::yield();
            continue;
        }
        seen[std::stoi(s)] = true;
        ++taken;
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(std::vector<bool>(seen.size(), true), seen);
}

}  // namespace
