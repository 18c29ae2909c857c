// Event and status writers against a throwaway database.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/spool.h"
#include "mysql/sqldbop.h"
#include "support/daemon.h"
#include "support/tcpcut.h"
#include "support/testdb.h"

namespace {

const uint32_t kEventTime = gettime(2024, 3, 5, 7, 4, 9);
const char* kStored = "2024-03-05 07:04:09";  // how the database shows kEventTime

class EventWriter : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(db.ok()); }
    // Columns of one row joined with '|', plus whether its logtime is now.
    std::string Row(const std::string& table, const std::string& cols, int64_t id) {
        return db.Scalar("select concat_ws('|'," + cols +
                         ", abs(timestampdiff(second, logtime, now())) < 3) from " + table +
                         " where id = " + std::to_string(id));
    }
    cmstest::TestDatabase db;
};

TEST_F(EventWriter, EachWriterFillsItsTable) {
    char text[32];
    FormatLogTime(kEventTime, text, sizeof text);
    EXPECT_STREQ(text, "2024-3-5 7:4:9");

    // Quotes and backslashes are escaped, so the text is stored as given.
    const char* descript = "a\"b'c\\d 镜头遮挡";
    EXPECT_EQ(Row("deveventlog", "nodeid,nodetype,eventtype,descript",
                  WrightMySqlDevEventInfo(11, 3, 0x01000005, descript)),
              std::string("11|3|5|") + descript + "|1");
    using Writer = int64_t (*)(uint32_t, int, int, int, int, const char*);
    const std::pair<Writer, const char*> writers[] = {
        {WrightMySqlDiagnoseInfo, "devdiagnoselog"},
        {WrightMySqlRunInfo, "devrunlog"},
        {WrightMySqlAlarmInfo, "intveventlog"},
        {WrightMySqlAlarmInfoStruct, "intveventlog2"}};
    for (const auto& w : writers)
        EXPECT_EQ(Row(w.second, "nodeid,nodetype,eventtype,param,descript,loctime",
                      w.first(kEventTime, 21, 9, 0x04000007, -3, descript)),
                  std::string("21|9|7|-3|") + descript + "|" + kStored + "|1")
            << w.second;
    EXPECT_EQ(Row("faceeventlog", "personid,age,gender,alike,status,loctime",
                  WrightMySqlPerson(kEventTime, 8, 3, 1234, 35, 1, 87)),
              std::string("1234|35|1|87|0|") + kStored + "|1");
    EXPECT_EQ(Row("faceeventlog2", "nodeid,nodetype,personid",
                  WrightMySqlPersonStruct(0, 8, 3, 5, 0, 0, 0)),
              "8|3|5|1");

    // Time 0 is "now" for the run log alone.
    EXPECT_EQ(Row("devrunlog", "abs(timestampdiff(second, loctime, now())) < 3",
                  WrightMySqlRunInfo(0, 4, 2, 2, 0, "")),
              "1|1");
    EXPECT_EQ(Row("intveventlog", "year(loctime) < 1971", WrightMySqlAlarmInfo(0, 4, 2, 2, 0, "")),
              "1|1");
    // A statement that would not fit is refused, never truncated.
    EXPECT_EQ(WrightMySqlAlarmInfo(kEventTime, 1, 2, 3, 0, std::string(1100, 'x').c_str()), 0);
    EXPECT_EQ(db.Count("intveventlog"), 2);
}

TEST_F(EventWriter, UpdateNodeStatusPicksTableByNodeType) {
    ASSERT_TRUE(db.Exec("insert into serverinfo(id) values (5)"));
    EXPECT_TRUE(UpdateNodeStatus(5, 1, 0x10003));
    EXPECT_EQ(db.Scalar("select status from serverinfo"), "65539");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(UpdateNodeStatus(5, 0, 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UpdateNodeStatus  faild\n");
}

TEST_F(EventWriter, AlarmReadersHoldBackYoungAlarmsAndFindConfirmedOnes) {
    CMysqlDB conn;
    ASSERT_TRUE(ConnectDB(&conn));
    _alarm_Info alarm{};
    EXPECT_FALSE(GetRecordLog(&conn, 0, nullptr));
    ASSERT_TRUE(
        db.Exec("insert into intveventlog(id,nodeid,nodetype,eventtype,logtime,loctime) "
                "values (40, 6, 3, 12, now(), now() - interval 5 second)"));
    EXPECT_FALSE(GetRecordLog(&conn, 0, &alarm));

    // Ten seconds on, the same alarm is due.
    ASSERT_TRUE(
        db.Exec("update intveventlog set loctime = '2024-3-5 7:4:9', logtime = '2024-3-5 7:4:19'"));
    ASSERT_TRUE(GetRecordLog(&conn, 39, &alarm));
    EXPECT_EQ(std::make_tuple(alarm.nAlarmID, alarm.nNodeID, alarm.nNodeType, alarm.nAlarmType,
                              alarm.unTime, alarm.unLocalTime),
              std::make_tuple(int64_t{40}, 6, 3, 12, kEventTime, kEventTime + 10));
    EXPECT_FALSE(GetRecordLog(&conn, 40, &alarm));
    conn.Close();

    EXPECT_EQ(GetLastEvent(), 0);
    ASSERT_TRUE(db.Exec("insert into intveventlog(id,cstatus) values (3,1),(9,1),(12,0)"));
    EXPECT_EQ(GetLastEvent(), 9);
}

TEST_F(EventWriter, DatabaseDownSpoolsAndReleasesLocks) {
    cmstest::TempDir dir;
    spool::Configure(dir.path() + "/spool", 0);
    cmstest::TcpCut cut(cmstest::TestDatabase::Port());
    m_cfgCms.szDbPort = cut.Port();
    cut.Cut();
    // Twice each: a writer that kept its mutex would hang on the second round.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(
            WrightMySqlDevEventInfo(1, 2, 3, "x") + WrightMySqlDiagnoseInfo(0, 1, 2, 3, 0, "x") +
                WrightMySqlRunInfo(0, 1, 2, 3, 0, "x") + WrightMySqlAlarmInfo(0, 1, 2, 3, 0, "x") +
                WrightMySqlAlarmInfoStruct(0, 1, 2, 3, 0, "x") +
                WrightMySqlPerson(0, 1, 2, 3, 4, 5, 6) +
                WrightMySqlPersonStruct(0, 1, 2, 3, 4, 5, 6),
            0);
    }
    EXPECT_FALSE(UpdateNodeStatus(5, 2, 0));
    EXPECT_EQ(GetLastEvent(), 0);
    EXPECT_EQ(spool::PendingCount(), 15u);
    cut.Restore();
    ASSERT_TRUE(spool::WaitDrained(10000));
    EXPECT_EQ(db.Count("deveventlog") + db.Count("faceeventlog2"), 4);
    m_cfgCms.szDbPort = cmstest::TestDatabase::Port();
}

}  // namespace

namespace {

// Writers of one family that meet share a database round trip; each must still get the id
// of its own row, and a text the database refuses in the middle of a batch must neither
// take the statements behind it down nor mix up their ids.
TEST_F(EventWriter, ConcurrentWritersEachGetTheirOwnRow) {
    constexpr int kThreads = 12, kPerThread = 40;
    std::vector<std::vector<std::pair<int64_t, std::string>>> written(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &written] {
            for (int i = 0; i < kPerThread; ++i) {
                std::string text = "w" + std::to_string(t) + "-" + std::to_string(i);
                // Every seventh text carries a four-byte character the connection refuses.
                const std::string sent = i % 7 == 3 ? text + "\xF0\x9F\x98\x80" : text;
                const int64_t id = WrightMySqlAlarmInfo(kEventTime, t, 3, 5, i, sent.c_str());
                written[t].emplace_back(id, i % 7 == 3 ? text + "\xEF\xBF\xBD" : text);
            }
        });
    for (std::thread& th : threads) th.join();
    std::set<int64_t> ids;
    for (int t = 0; t < kThreads; ++t)
        for (const auto& [id, text] : written[t]) {
            ASSERT_GT(id, 0) << text;
            EXPECT_TRUE(ids.insert(id).second) << "id " << id << " given twice";
            EXPECT_EQ(
                db.Scalar("select descript from intveventlog where id = " + std::to_string(id)),
                text);
        }
    EXPECT_EQ(db.Scalar("select count(*) from intveventlog"),
              std::to_string(kThreads * kPerThread));
}

// Rows written behind share multi-row inserts with whatever else waits; a refused text
// among them must still be repaired and written once, a status update still land, and
// writers who need their id, mixed in, still get the id of their own row.
TEST_F(EventWriter, RowsWrittenBehindEachLandOnceBesideDirectWriters) {
    constexpr int kThreads = 8, kPerThread = 60;
    constexpr int kRefusedPerThread = 8;  // i % 7 == 3 written behind: 3, 10, ... 52
    ASSERT_TRUE(db.Exec("insert into devicechan(id, devid, status) values (7, 1, 0)"));
    std::vector<std::vector<std::pair<int64_t, std::string>>> direct(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &direct] {
            for (int i = 0; i < kPerThread; ++i) {
                const std::string text = "b" + std::to_string(t) + "-" + std::to_string(i);
                if (i % 10 == 9) {  // a writer that needs its id
                    direct[t].emplace_back(
                        WrightMySqlAlarmInfo(kEventTime, t, 3, 5, i, text.c_str()), text);
                    continue;
                }
                WriteBehind behind(100 + t);
                const std::string sent = i % 7 == 3 ? text + "\xF0\x9F\x98\x80" : text;
                EXPECT_EQ(WrightMySqlAlarmInfo(kEventTime, t, 3, 5, i, sent.c_str()), 0);
                if (i == kPerThread - 2) EXPECT_TRUE(UpdateNodeStatus(7, 3, 0x10000 + t));
            }
            WaitForWritesBehind(100 + t);
            EXPECT_FALSE(WritesBehindPending(100 + t));
        });
    for (std::thread& th : threads) th.join();
    WaitForAllWritesBehind();
    EXPECT_EQ(db.Scalar("select count(*) from intveventlog"),
              std::to_string(kThreads * kPerThread));
    EXPECT_EQ(db.Scalar("select count(distinct descript) from intveventlog"),
              std::to_string(kThreads * kPerThread));
    EXPECT_EQ(db.Scalar("select count(*) from intveventlog where descript like '%\xEF\xBF\xBD'"),
              std::to_string(kThreads * kRefusedPerThread));
    for (int t = 0; t < kThreads; ++t)
        for (const auto& [id, text] : direct[t]) {
            ASSERT_GT(id, 0) << text;
            EXPECT_EQ(
                db.Scalar("select descript from intveventlog where id = " + std::to_string(id)),
                text);
        }
    EXPECT_GE(std::stoi(db.Scalar("select status from devicechan where id = 7")), 0x10000);
}

}  // namespace
