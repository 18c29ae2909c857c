// Event and status writers against a throwaway database.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

class EventWriter : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(db.ok()); }

    // One row of `table` by id, as text.
    std::vector<std::string> Row(const char* table, const char* cols, int64_t id) {
        auto rows = db.Query(std::string("select ") + cols + " from " + table +
                             " where id = " + std::to_string(id));
        return rows.empty() ? std::vector<std::string>{} : rows[0];
    }
    // Seconds between a stored datetime column and now.
    long long AgeOf(const char* table, const char* col, int64_t id) {
        return std::atoll(db.Scalar(std::string("select abs(timestampdiff(second, ") + col +
                                    ", now())) from " + table + " where id = " +
                                    std::to_string(id))
                              .c_str());
    }

    cmstest::TestDatabase db;
    const uint32_t kEventTime = gettime(2024, 3, 5, 7, 4, 9);
};

using ParamWriter = int64_t (*)(uint32_t, int, int, int, int, const char*);
using FaceWriter = int64_t (*)(uint32_t, int, int, int, int, int, int);

TEST(LogTime, IsLocalTimeWithoutZeroPadding) {
    char text[32];
    FormatLogTime(gettime(2024, 3, 5, 7, 4, 9), text, sizeof text);
    EXPECT_STREQ(text, "2024-3-5 7:4:9");
    FormatLogTime(gettime(2023, 12, 31, 23, 59, 58), text, sizeof text);
    EXPECT_STREQ(text, "2023-12-31 23:59:58");
}

TEST_F(EventWriter, DeviceEventMasksTypeAndStampsNow) {
    const int64_t id = WrightMySqlDevEventInfo(11, 3, 0x01000005, "link lost");
    ASSERT_GT(id, 0);
    EXPECT_EQ(Row("deveventlog", "nodeid,nodetype,eventtype,descript", id),
              (std::vector<std::string>{"11", "3", "5", "link lost"}));
    EXPECT_LE(AgeOf("deveventlog", "logtime", id), 2);
    EXPECT_GT(WrightMySqlDevEventInfo(11, 3, 1, ""), id);
}

TEST_F(EventWriter, ParamWritersFillTheirOwnTable) {
    const struct {
        ParamWriter write;
        const char* table;
    } writers[] = {{WrightMySqlDiagnoseInfo, "devdiagnoselog"},
                   {WrightMySqlRunInfo, "devrunlog"},
                   {WrightMySqlAlarmInfo, "intveventlog"},
                   {WrightMySqlAlarmInfoStruct, "intveventlog2"}};
    for (const auto& w : writers) {
        SCOPED_TRACE(w.table);
        const int64_t id = w.write(kEventTime, 21, 9, 0x04000007, -3, "镜头遮挡");
        ASSERT_GT(id, 0);
        EXPECT_EQ(Row(w.table, "nodeid,nodetype,eventtype,param,descript,loctime", id),
                  (std::vector<std::string>{"21", "9", "7", "-3", "镜头遮挡",
                                            "2024-03-05 07:04:09"}));
        EXPECT_LE(AgeOf(w.table, "logtime", id), 2);
        EXPECT_EQ(db.Count(w.table), 1);
    }
}

TEST_F(EventWriter, RunInfoTakesNowForTimeZero) {
    const int64_t id = WrightMySqlRunInfo(0, 4, 2, 2, 0, "设备上线");
    ASSERT_GT(id, 0);
    EXPECT_EQ(db.Scalar("select abs(timestampdiff(second, logtime, loctime)) <= 1 "
                        "from devrunlog where id = " + std::to_string(id)),
              "1");
    // The other writers keep 0 as the epoch.
    const int64_t alarm = WrightMySqlAlarmInfo(0, 4, 2, 2, 0, "");
    EXPECT_LT(db.Scalar("select year(loctime) from intveventlog where id = " +
                        std::to_string(alarm)),
              "1971");
}

TEST_F(EventWriter, QuotesAndBackslashesAreStoredAsGiven) {
    const char* text = "a\"b'c\\d";
    const int64_t id = WrightMySqlDevEventInfo(1, 2, 3, text);
    ASSERT_GT(id, 0);
    EXPECT_EQ(Row("deveventlog", "descript", id)[0], text);
    EXPECT_EQ(Row("devdiagnoselog", "descript", WrightMySqlDiagnoseInfo(0, 1, 2, 3, 0, text))[0],
              text);
}

TEST_F(EventWriter, OverlongDescriptionIsRefusedNotTruncated) {
    const std::string text(1100, 'x');
    EXPECT_EQ(WrightMySqlAlarmInfo(kEventTime, 1, 2, 3, 0, text.c_str()), 0);
    EXPECT_EQ(db.Count("intveventlog"), 0);
}

TEST_F(EventWriter, FaceWritersStoreSimilarityAndZeroStatus) {
    const struct {
        FaceWriter write;
        const char* table;
    } writers[] = {{WrightMySqlPerson, "faceeventlog"}, {WrightMySqlPersonStruct, "faceeventlog2"}};
    for (const auto& w : writers) {
        SCOPED_TRACE(w.table);
        const int64_t id = w.write(kEventTime, 8, 3, 1234, 35, 1, 87);
        ASSERT_GT(id, 0);
        EXPECT_EQ(Row(w.table, "nodeid,nodetype,personid,age,gender,alike,status,loctime", id),
                  (std::vector<std::string>{"8", "3", "1234", "35", "1", "87", "0",
                                            "2024-03-05 07:04:09"}));
    }
}

TEST_F(EventWriter, UpdateNodeStatusPicksTableByNodeType) {
    ASSERT_TRUE(db.Exec("insert into device(id) values (5); insert into devicechan(id) values (6);"
                        "insert into serverinfo(id) values (7); insert into serverchan(id) values (8)"));
    EXPECT_TRUE(UpdateNodeStatus(5, 2, 0x10000));
    EXPECT_TRUE(UpdateNodeStatus(6, 3, 0x10001));
    EXPECT_TRUE(UpdateNodeStatus(7, 1, 3));
    EXPECT_TRUE(UpdateNodeStatus(8, 9, 4));
    EXPECT_EQ(db.Scalar("select status from device where id = 5"), "65536");
    EXPECT_EQ(db.Scalar("select status from devicechan where id = 6"), "65537");
    EXPECT_EQ(db.Scalar("select status from serverinfo where id = 7"), "3");
    EXPECT_EQ(db.Scalar("select status from serverchan where id = 8"), "4");

    testing::internal::CaptureStdout();
    EXPECT_FALSE(UpdateNodeStatus(5, 0, 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "UpdateNodeStatus  faild\n");
}

TEST_F(EventWriter, RecordLogHoldsBackAlarmsYoungerThanTenSeconds) {
    _alarm_Info alarm{};
    EXPECT_FALSE(GetRecordLog(nullptr, 0, &alarm));
    CMysqlDB conn;
    ASSERT_TRUE(ConnectDB(&conn));
    EXPECT_FALSE(GetRecordLog(&conn, 0, nullptr));

    ASSERT_TRUE(db.Exec("insert into intveventlog(id,nodeid,nodetype,eventtype,logtime,loctime) "
                        "values (40, 6, 3, 12, now(), now() - interval 5 second)"));
    EXPECT_FALSE(GetRecordLog(&conn, 0, &alarm));

    // Ten seconds later the same alarm is due.
    ASSERT_TRUE(db.Exec("update intveventlog set loctime = '2024-3-5 7:4:9', "
                        "logtime = '2024-3-5 7:4:19' where id = 40"));
    ASSERT_TRUE(GetRecordLog(&conn, 39, &alarm));
    EXPECT_EQ(alarm.nAlarmID, 40);
    EXPECT_EQ(alarm.nNodeID, 6);
    EXPECT_EQ(alarm.nNodeType, 3);
    EXPECT_EQ(alarm.nAlarmType, 12);
    EXPECT_EQ(alarm.unTime, kEventTime);
    EXPECT_EQ(alarm.unLocalTime, kEventTime + 10);
    // Only ids above the last one seen.
    EXPECT_FALSE(GetRecordLog(&conn, 40, &alarm));
    conn.Close();
}

TEST_F(EventWriter, LastEventIsTheNewestConfirmedAlarm) {
    EXPECT_EQ(GetLastEvent(), 0);
    ASSERT_TRUE(db.Exec("insert into intveventlog(id,cstatus) values (3,1),(9,1),(12,0)"));
    EXPECT_EQ(GetLastEvent(), 9);
}

TEST_F(EventWriter, DatabaseDownFailsQuietlyAndReleasesLocks) {
    const _cmsParam saved = m_cfgCms;
    m_cfgCms.szDbPort = 1;  // nothing listens there
    const auto start = std::chrono::steady_clock::now();
    // Twice each: a writer that kept its mutex would hang on the second call.
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(WrightMySqlDevEventInfo(1, 2, 3, "x"), 0);
        EXPECT_EQ(WrightMySqlDiagnoseInfo(0, 1, 2, 3, 0, "x"), 0);
        EXPECT_EQ(WrightMySqlRunInfo(0, 1, 2, 3, 0, "x"), 0);
        EXPECT_EQ(WrightMySqlAlarmInfo(0, 1, 2, 3, 0, "x"), 0);
        EXPECT_EQ(WrightMySqlAlarmInfoStruct(0, 1, 2, 3, 0, "x"), 0);
        EXPECT_EQ(WrightMySqlPerson(0, 1, 2, 3, 4, 5, 6), 0);
        EXPECT_EQ(WrightMySqlPersonStruct(0, 1, 2, 3, 4, 5, 6), 0);
    }
    EXPECT_FALSE(UpdateNodeStatus(5, 2, 0));
    EXPECT_EQ(GetLastEvent(), 0);
    m_cfgCms = saved;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

}  // namespace
