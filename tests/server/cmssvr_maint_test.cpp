// The maintenance thread: which media consumers a round retires and in what order, the
// region poll, and a prompt stop.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "mysql/catalog.h"
#include "server/CmsSvrDlg.h"
#include "support/daemon.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

class Maintenance : public ::testing::Test {
protected:
    void TearDown() override {
        dlg.reset();  // stops the thread and every consumer left
    }
    // A consumer whose start and last data lie the given milliseconds in the past.
    _USER_CMD_INFO* Add(int type, uint32_t startAge, uint32_t dataAge, int count = 0) {
        const uint32_t now = GetTickCount();
        auto* info = new _USER_CMD_INFO{};
        info->type = type;
        info->count = count;
        info->unStart = now - startAge;
        info->unlastdata = now - dataAge;
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(info);
        return info;
    }
    std::vector<int> Types() {
        std::vector<int> types;
        std::lock_guard<std::mutex> lock(csRecorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) types.push_back(info->type);
        return types;
    }

    std::unique_ptr<CCMSSvrDlg> dlg = std::make_unique<CCMSSvrDlg>();
};

TEST_F(Maintenance, RetiresOneFinishedConsumerPerRoundFromTheLast) {
    // Margins of a second keep the outcome apart from the scheduler.
    Add(MANUAL_CAP, 0, 0, 1);        // captured: finished
    Add(TIGER_CAP, 4000, 0);         // kept
    Add(0, 9000000, 9000000);        // other kinds are never retired here
    Add(MANUAL_REC, 1700000, 4000);  // kept
    Add(INTV_DOWN, 0, 6000);         // no data for 6 s
    Add(TIGER_REC, 1801000, 0);      // past 30 minutes
    Add(7, 9000000, 9000000);        // kept
    Add(TIGER_CAP, 6000, 0);         // no picture within 5 s
    Add(MANUAL_DOWN, 0, 6000);       // no data for 6 s
    const std::vector<std::vector<int>> after = {
        {2, 5, 0, 3, 1, 6, 7, 5}, {2, 5, 0, 3, 1, 6, 7}, {2, 5, 0, 3, 1, 7},
        {2, 5, 0, 3, 7},          {5, 0, 3, 7},          {5, 0, 3, 7},
    };
    for (const std::vector<int>& expected : after) {
        dlg->Checklinks();
        EXPECT_EQ(Types(), expected);
    }
}

TEST_F(Maintenance, RetiringStopsThePlayer) {
    CHANPLAY_INFO* play = GetPlayLink("rtsp://h/x?live=0", false);
    ASSERT_NE(play, nullptr);
    _USER_CMD_INFO* info = Add(MANUAL_REC, 0, 6000);
    info->player = play;
    play->chan.nLinkUser = 1;
    dlg->Checklinks();
    EXPECT_TRUE(Types().empty());
    EXPECT_EQ(play->chan.nLinkUser, 0);
    EXPECT_TRUE(play->chan.bExit);
}

TEST_F(Maintenance, RegionPollAdoptsTheNextRegionAndSurvivesAMissingDatabase) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec("insert into region(id,name,parentid) values (5,'a',0),(9,'b',5)"));
    dlg->m_nLastRegion = 5;
    auto count = [] {
        CatalogReadLock lock(csCatalog);
        return m_arrRegionInfos.size();
    };
    const size_t before = count();
    dlg->PollNewRegion();
    EXPECT_EQ(dlg->m_nLastRegion.load(), 9);
    ASSERT_EQ(count(), before + 1);
    {
        CatalogReadLock lock(csCatalog);
        EXPECT_EQ(m_arrRegionInfos.back()->nID, 9);
    }
    dlg->PollNewRegion();  // nothing after 9
    EXPECT_EQ(count(), before + 1);

    m_cfgCms.szDbPort = cmstest::FreePort();
    dlg->PollNewRegion();
    EXPECT_EQ(dlg->m_nLastRegion.load(), 9);
    dlg->ReleaseData();
}

TEST_F(Maintenance, ThreadRunsRoundsAndStopsAtOnce) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec("insert into region(id,name,parentid) values (3,'a',0)"));
    Add(MANUAL_CAP, 0, 0, 1);
    dlg->MessageProcessRun(true);
    const auto deadline = std::chrono::steady_clock::now() + 8s;
    while (!Types().empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(Types().empty());
    while (dlg->m_nLastRegion.load() != 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(dlg->m_nLastRegion.load(), 3);

    const auto start = std::chrono::steady_clock::now();
    dlg->MessageProcessRun(false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 200ms);
    dlg->ReleaseData();
}

}  // namespace
