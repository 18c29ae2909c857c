#include "stack/Que.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

_tagQUEBUF Desc(const std::string& s) {
    return {static_cast<int>(s.size()), const_cast<char*>(s.data())};
}

int Put(CQue& q, const std::string& s, bool ex = false) {
    _tagQUEBUF d = Desc(s);
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

TEST(Que, FifoJoinsBothPartsOfAnEntry) {
    CQue q;
    const std::string head = "HEAD", body = "body";
    _tagQUEBUF a = Desc(head), b = Desc(body);
    EXPECT_EQ(0, q.m_InQue(&a, &b));
    EXPECT_EQ(0, Put(q, "second"));
    EXPECT_EQ(2, q.m_GetQueCount());
    EXPECT_EQ(8, q.m_PeekQueTailDataLength());
    EXPECT_EQ("HEADbody", Take(q));
    EXPECT_EQ("second", Take(q));
    EXPECT_EQ("<empty>", Take(q));
    EXPECT_TRUE(q.m_IsQueEmpty());
}

TEST(Que, FullQueueRefusesOrDropsOldest) {
    CQue q;
    for (int i = 0; i < 512; ++i) ASSERT_EQ(0, Put(q, std::to_string(i)));
    EXPECT_TRUE(q.m_IsQueFull());
    EXPECT_EQ(-3, Put(q, "refused"));
    EXPECT_EQ(512, q.m_GetQueCount());
    EXPECT_EQ("0", Take(q));
    ASSERT_EQ(0, Put(q, "512"));

    // The Ex form reports -3 yet stores the new entry in place of the oldest.
    EXPECT_EQ(-3, Put(q, "513", true));
    EXPECT_EQ(512, q.m_GetQueCount());
    EXPECT_EQ("2", Take(q));
    std::string last;
    for (std::string s; (s = Take(q)) != "<empty>";) last = s;
    EXPECT_EQ("513", last);
}

TEST(Que, OversizeEntryIsCutAndRemoved) {
    CQue q;
    ASSERT_EQ(0, Put(q, std::string(25, 'z')));
    int remaining = -1;
    EXPECT_EQ(std::string(10, 'z'), Take(q, 10, &remaining));
    EXPECT_EQ(15, remaining);
    EXPECT_TRUE(q.m_IsQueEmpty());
}

TEST(Que, BacklogSignalAtSixtyFourWhateverTheCapacity) {
    CQue q;
    q.m_InitQue(nullptr, 100);
    for (int i = 0; i < 63; ++i) Put(q, "x");
    EXPECT_FALSE(q.m_IsQueExist());
    Put(q, "x");
    EXPECT_TRUE(q.m_IsQueExist());
}

TEST(Que, SmallCapacityWrapsAround) {
    CQue q;
    q.m_InitQue(nullptr, 3);
    std::string got;
    for (int round = 0; round < 4; ++round) {
        for (int i = 0; i < 3; ++i) ASSERT_EQ(0, Put(q, std::to_string(round * 3 + i)));
        EXPECT_EQ(-3, Put(q, "over"));
        for (int i = 0; i < 3; ++i) got += Take(q) + ",";
    }
    EXPECT_EQ("0,1,2,3,4,5,6,7,8,9,10,11,", got);
}

TEST(Que, LockedEntryIsReadInPlaceAndSurvivesDropOldest) {
    CQue q;
    q.m_InitQue(nullptr, 2);
    Put(q, "first");
    Put(q, "second");
    _tagSTATICQUEBUF* slot = q.m_LockQue();
    ASSERT_NE(nullptr, slot);
    // A producer may not free what the consumer is reading: nothing is stored.
    EXPECT_EQ(-3, Put(q, "third", true));
    EXPECT_EQ("first", std::string(slot->acbBuff.get(), slot->dwLength));
    q.m_UnlockQue(slot);
    q.m_UnlockQue(nullptr);
    EXPECT_EQ(1, q.m_GetQueCount());
    EXPECT_EQ("second", Take(q));
    EXPECT_EQ(nullptr, q.m_LockQue());
}

TEST(Que, InvalidDescriptorsAreRefused) {
    CQue q;
    _tagQUEBUF negative{-1, nullptr};
    _tagQUEBUF noBytes{4, nullptr};
    EXPECT_EQ(-1, q.m_InQue(nullptr));
    EXPECT_EQ(-1, q.m_InQue(&negative));
    EXPECT_EQ(-1, q.m_InQueEx(&noBytes));
    std::string s(16, 'a');
    _tagQUEBUF big{0x7fffffff, s.data()};
    _tagQUEBUF one{1, s.data()};
    EXPECT_EQ(-1, q.m_InQue(&big, &one));  // summed length does not fit
    EXPECT_TRUE(q.m_IsQueEmpty());
    int rest = 0;
    EXPECT_EQ(-1, q.m_OutQue(nullptr, rest));
}

TEST(Que, FlushEmptiesAndQueueIsReusable) {
    CQue q;
    for (int i = 0; i < 10; ++i) Put(q, "x");
    EXPECT_EQ(0, q.m_FlushAllQue());
    EXPECT_TRUE(q.m_IsQueEmpty());
    EXPECT_EQ(0, Put(q, "after"));
    EXPECT_EQ("after", Take(q));
}

TEST(Que, ProducersAndOneConsumerLoseNothing) {
    CQue q;
    constexpr int kProducers = 4, kPerProducer = 2000;
    std::atomic<int> stored{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&q, &stored, p] {
            for (int i = 0; i < kPerProducer;) {
                if (Put(q, std::to_string(p * kPerProducer + i)) == 0) {
                    ++i;
                    ++stored;
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    std::vector<bool> seen(kProducers * kPerProducer, false);
    int taken = 0;
    while (taken < kProducers * kPerProducer) {
        const std::string s = Take(q);
        if (s == "<empty>") {
            std::this_thread::yield();
            continue;
        }
        seen[std::stoi(s)] = true;
        ++taken;
    }
    for (auto& t : producers) t.join();
    EXPECT_EQ(kProducers * kPerProducer, stored.load());
    EXPECT_EQ(std::vector<bool>(seen.size(), true), seen);
}

}  // namespace
