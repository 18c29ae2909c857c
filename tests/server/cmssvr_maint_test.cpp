// The maintenance thread: which media consumers a round retires and in what order, the
// region poll, and a prompt stop.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "mysql/catalog.h"
#include "server/CmsSvrDlg.h"
#include "support/daemon.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

class Maintenance : public ::testing::Test {
protected:
    // A consumer whose start and last data lie the given milliseconds in the past.
    void Add(int type, uint32_t startAge, uint32_t dataAge, int count = 0) {
        const uint32_t now = GetTickCount();
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(
            new _USER_CMD_INFO{nullptr, 0, type, count, nullptr, now - startAge, now - dataAge});
    }
    std::vector<int> Types() {
        std::vector<int> types;
        std::lock_guard<std::mutex> lock(csRecorder);
        for (_USER_CMD_INFO* info : m_arrUserInfos) types.push_back(info->type);
        return types;
    }
    CCMSSvrDlg dlg;  // its destructor stops the thread and every consumer left
};

TEST_F(Maintenance, RetiresOneFinishedConsumerPerRoundFromTheLast) {
    // Margins of a second keep the outcome apart from the scheduler.
    Add(MANUAL_CAP, 0, 0, 1);        // captured
    Add(TIGER_CAP, 4000, 0);         // kept
    Add(0, 9000000, 9000000);        // other kinds are never retired here
    Add(MANUAL_REC, 1700000, 4000);  // kept
    Add(INTV_DOWN, 0, 6000);         // no data for 6 s
    Add(TIGER_REC, 1801000, 0);      // past 30 minutes
    Add(TIGER_CAP, 6000, 0);         // no picture within 5 s
    Add(MANUAL_DOWN, 0, 6000);       // no data for 6 s
    const std::vector<std::vector<int>> after = {
        {2, 5, 0, 3, 1, 6, 5}, {2, 5, 0, 3, 1, 6}, {2, 5, 0, 3, 1},
        {2, 5, 0, 3},          {5, 0, 3},          {5, 0, 3},
    };
    for (const std::vector<int>& expected : after) {
        dlg.Checklinks();
        EXPECT_EQ(Types(), expected);
    }
}

TEST_F(Maintenance, ThreadRetiresAdoptsRegionsAndStopsAtOnce) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec("insert into region(id,name,parentid) values (3,'a',0),(9,'b',3)"));
    Add(MANUAL_CAP, 0, 0, 1);
    dlg.MessageProcessRun(true);
    const auto until = std::chrono::steady_clock::now() + 8s;
    while ((!Types().empty() || dlg.m_nLastRegion.load() != 3) &&
           std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(Types().empty());
    EXPECT_EQ(dlg.m_nLastRegion.load(), 3);  // one region per round, in id order
    const auto start = std::chrono::steady_clock::now();
    dlg.MessageProcessRun(false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 200ms);

    dlg.PollNewRegion();
    EXPECT_EQ(dlg.m_nLastRegion.load(), 9);
    m_cfgCms.szDbPort = cmstest::FreePort();  // the database gone: nothing changes
    dlg.PollNewRegion();
    EXPECT_EQ(dlg.m_nLastRegion.load(), 9);
    CatalogReadLock lock(csCatalog);
    ASSERT_EQ(m_arrRegionInfos.size(), 2u);
    EXPECT_EQ(m_arrRegionInfos.back()->nID, 9);
}

}  // namespace
