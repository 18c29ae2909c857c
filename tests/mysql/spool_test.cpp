// Event writers over a database that goes away: the spool, its replay and refused texts.
#include "mysql/spool.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "comm/filestore.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "support/daemon.h"
#include "support/tcpcut.h"
#include "support/testdb.h"

namespace {

class SpoolTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        m_cfgCms.szDbPort = cut.Port();
        spool::Configure(dir.path() + "/spool/", 0);
        dbpool::Clear();
        savedAreas.swap(m_arrFilePath);
        m_arrFilePath.push_back(new _file_path{"intv", 1, 7, {}});
        std::snprintf(m_arrFilePath[0]->path, sizeof m_arrFilePath[0]->path, "%s",
                      dir.File("intv").c_str());
    }
    void TearDown() override {
        EXPECT_TRUE(spool::WaitDrained(10000));
        ReleaseArray(m_arrFilePath);
        m_arrFilePath.swap(savedAreas);
    }
    int64_t Alarm(int param, const char* text = "x") {
        return WrightMySqlAlarmInfo(1700000000, 1, 3, 5, param, text);
    }
    // An alarm with one picture whose bytes name the param (with a NUL inside).
    int64_t AlarmWithPicture(int param) {
        const std::string bytes = Picture(param);
        const spool::Picture p{"intv", 0, bytes.data(), static_cast<int>(bytes.size())};
        return WrightMySqlAlarmInfo(1700000000, 1, 3, 5, param, "x", &p, 1);
    }
    static std::string Picture(int param) {
        return std::string("jpeg\0", 5) + std::to_string(param);
    }
    std::string StoredPicture(const std::string& rowId) {
        return cmstest::ReadFile(dir.File("intv/" + rowId + "/0.jpg"));
    }
    std::string RowOf(int param) {
        return db.Scalar("select id from intveventlog where param = " + std::to_string(param));
    }
    int PictureDirs() {
        int n = 0;
        if (DIR* d = opendir(dir.File("intv").c_str())) {
            while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
            closedir(d);
        }
        return n;
    }
    std::string Params() {
        return db.Scalar("select group_concat(param order by id) from intveventlog");
    }
    cmstest::TestDatabase db;
    cmstest::TcpCut cut{cmstest::TestDatabase::Port()};
    cmstest::TempDir dir;
    std::vector<_file_path*> savedAreas;
};

// Sequence number of the n-th record (from 0) of the only segment.
uint64_t SpooledSeq(const std::string& spoolDir, int n) {
    const std::string list = spoolDir + "/list";
    std::system(("ls " + spoolDir + "/*.seg > " + list).c_str());
    std::string path;
    std::getline(std::ifstream(list), path);
    std::ifstream in(path, std::ios::binary);
    uint32_t head[2] = {0, 0};
    uint64_t seq = 0;
    for (int i = 0; i <= n; ++i) {
        in.read(reinterpret_cast<char*>(head), sizeof head);
        in.read(reinterpret_cast<char*>(&seq), sizeof seq);
        in.ignore(head[1]);
    }
    return seq;
}

TEST_F(SpoolTest, OutageSpoolsInArrivalOrderAndReplaysOnce) {
    ASSERT_TRUE(db.Exec("insert into devicechan(id, status) values (7, 0)"));
    ASSERT_GT(Alarm(0), 0);
    cut.Cut();
    testing::internal::CaptureStdout();
    for (int i = 1; i <= 40; ++i) EXPECT_EQ(Alarm(i), 0);
    // A state change and its reversal during the outage: the last one wins.
    EXPECT_FALSE(UpdateNodeStatus(7, 3, 1));
    EXPECT_FALSE(UpdateNodeStatus(7, 3, 2));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(spool::PendingCount(), 42u);
    EXPECT_EQ(db.Count("intveventlog"), 1);
    // One line for the failure with the database's error and one for the spooling.
    EXPECT_EQ(out.find("failed: 2013"), out.rfind("failed:")) << out;
    EXPECT_NE(out.find("spooling events"), std::string::npos);

    cut.Restore();
    Alarm(41);  // newer than everything spooled: written after it
    ASSERT_TRUE(spool::WaitDrained(10000));
    std::string want = "0";
    for (int i = 1; i <= 41; ++i) want += "," + std::to_string(i);
    EXPECT_EQ(Params(), want);
    EXPECT_EQ(db.Scalar("select status from devicechan where id = 7"), "2");
    EXPECT_GT(Alarm(42), 0);  // direct again
}

TEST_F(SpoolTest, ReplayAfterACrashSkipsWhatWasCommitted) {
    cut.Cut();
    for (int i = 1; i <= 3; ++i) Alarm(i);
    // As if an earlier replay had committed the first two rows and then died.
    ASSERT_TRUE(db.Exec("insert into intveventlog(param) values (1), (2)"));
    ASSERT_TRUE(db.Exec("replace into spoolcursor values (1, " +
                        std::to_string(SpooledSeq(dir.path() + "/spool", 1)) + ")"));
    cut.Restore();
    ASSERT_TRUE(spool::WaitDrained(10000));
    EXPECT_EQ(Params(), "1,2,3");
}

// Pictures travel with their spooled row and are stored under the id it gets on replay, as
// a direct write stores them.
TEST_F(SpoolTest, PicturesOfSpooledRowsAreStoredUnderTheReplayedIds) {
    const int64_t direct = AlarmWithPicture(1);
    ASSERT_GT(direct, 0);
    EXPECT_EQ(StoredPicture(std::to_string(direct)), Picture(1));
    cut.Cut();
    EXPECT_EQ(AlarmWithPicture(2), 0);
    EXPECT_EQ(PictureDirs(), 1);
    cut.Restore();
    ASSERT_TRUE(spool::WaitDrained(10000));
    EXPECT_EQ(Params(), "1,2");
    EXPECT_EQ(StoredPicture(RowOf(2)), Picture(2));
    EXPECT_EQ(PictureDirs(), 2);
}

// An earlier replay committed row 1 and the cursor, then died before the picture files: the
// row is not written again and its picture lands under its id, once.
TEST_F(SpoolTest, ReplayResumedAfterACommitStoresEachPictureOnce) {
    cut.Cut();
    for (int i = 1; i <= 2; ++i) AlarmWithPicture(i);
    ASSERT_TRUE(db.Exec("insert into intveventlog(param) values (1)"));
    ASSERT_TRUE(db.Exec("replace into spoolcursor values (1, " +
                        std::to_string(SpooledSeq(dir.path() + "/spool", 0)) + "), (2, " +
                        RowOf(1) + ")"));
    cut.Restore();
    ASSERT_TRUE(spool::WaitDrained(10000));
    EXPECT_EQ(Params(), "1,2");
    EXPECT_EQ(StoredPicture(RowOf(1)), Picture(1));
    EXPECT_EQ(StoredPicture(RowOf(2)), Picture(2));
    EXPECT_EQ(PictureDirs(), 2);
}

TEST_F(SpoolTest, FullSpoolDropsTheOldest) {
    spool::Configure(dir.path() + "/spool/", 200 * 1024);  // segments of 64 KiB
    cut.Cut();
    testing::internal::CaptureStdout();
    const std::string text(600, 'y');
    for (int i = 0; i < 1000; ++i) Alarm(i, text.c_str());
    const std::string out = testing::internal::GetCapturedStdout();
    const uint64_t dropped = spool::DroppedCount();
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(dropped + spool::PendingCount(), 1000u);
    EXPECT_NE(out.find("dropped"), std::string::npos);
    EXPECT_EQ(out.find("dropped"), out.rfind("dropped"));  // once a minute
    cut.Restore();
    ASSERT_TRUE(spool::WaitDrained(20000));
    // The newest survive, in order.
    EXPECT_EQ(db.Count("intveventlog"), static_cast<long long>(1000 - dropped));
    EXPECT_EQ(db.Scalar("select min(param) from intveventlog"), std::to_string(dropped));
    EXPECT_EQ(db.Scalar("select max(param) from intveventlog"), "999");
}

TEST_F(SpoolTest, RefusedTextsAreRepairedAndWritten) {
    const std::string gb = "\xBE\xB5\xCD\xB7\xD5\xDA\xB5\xB2";  // 镜头遮挡 in GB2312
    const std::string cutUtf8 = std::string("镜头遮挡镜头遮挡镜头").substr(0, 29);
    const std::pair<std::string, std::string> cases[] = {
        {gb, "镜头遮挡"},
        {cutUtf8, "镜头遮挡镜头遮挡镜\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"a\xF0\x9F\x98\x80z", "a\xEF\xBF\xBDz"},  // four bytes: beyond the connection
        {"\xFF\xFE ok", "\xEF\xBF\xBD\xEF\xBF\xBD ok"},
    };
    for (const auto& c : cases) {
        const int64_t id = WrightMySqlDevEventInfo(1, 3, 5, c.first.c_str());
        ASSERT_GT(id, 0) << c.second;
        EXPECT_EQ(db.Scalar("select descript from deveventlog where id = " + std::to_string(id)),
                  c.second);
    }
    // Text that is already fine is left alone.
    EXPECT_EQ(RepairText("plain 镜头"), "plain 镜头");
}

}  // namespace
