// Events streaming into the server while its database goes away and comes back: every
// event handled is stored once, in arrival order, with its picture under its row's id, and a
// state change made during the outage is right in the database afterwards. CMS_OUTAGE_SECONDS sets
// the outage (2 s).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "comm/filestore.h"
#include "comm/globle.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "mysql/spool.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "support/catalogbuilder.h"
#include "support/daemon.h"
#include "support/tcpcut.h"
#include "support/testdb.h"

namespace {

constexpr int kDevLogin = 7;

std::string Picture(int param) { return "picture " + std::to_string(param); }

// The event record followed by its picture, if any.
std::vector<unsigned char> Event(uint32_t type, int param, bool withPicture = true) {
    _msg_alarm_comm r{};
    r.unTime = GetCurrentTime();
    std::snprintf(r.szSerial, sizeof r.szSerial, "3");
    r.nEventType = static_cast<int>(type);
    r.nReserve[1] = param;
    const std::string picture = withPicture ? Picture(param) : std::string();
    r.nPicLen[0] = static_cast<int>(picture.size());
    std::vector<unsigned char> b(sizeof r + picture.size());
    std::memcpy(b.data(), &r, sizeof r);
    std::memcpy(b.data() + sizeof r, picture.data(), picture.size());
    return b;
}

// Events stream in while the database goes away and comes back. Written behind (`behind`),
// events carry no picture: those with one are written directly.
void StreamOverAnOutage(bool behind) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(
        db.Exec("insert into devicechan(id) values (300); insert into device(id) values (100)"));
    cmstest::TempDir dir;
    spool::Configure(dir.path() + "/spool", 0);
    cmstest::TcpCut cut(cmstest::TestDatabase::Port());
    m_cfgCms.szDbPort = cut.Port();
    cmstest::CatalogBuilder catalog;
    auto dlg = std::make_unique<CCMSSvrDlg>();
    m_arrFilePath.push_back(new _file_path{"intv", 1, 7, {}});  // released by the server object
    std::snprintf(m_arrFilePath.back()->path, sizeof m_arrFilePath.back()->path, "%s",
                  dir.File("intv").c_str());
    _hcrecord_Info* dev = catalog.Device(100, 0, "DEV-100", "", 0);
    catalog.Channel(300, 100, 3);
    {
        CatalogWriteLock lock(csCatalog);
        CatalogSetLogin(*dev, kDevLogin);
    }
    auto send = [&](const std::vector<unsigned char>& b) {
        std::optional<WriteBehind> scope;
        if (behind) scope.emplace(kDevLogin);
        dlg->ProcessEventBuf(kDevLogin, 0, b.data(), static_cast<int>(b.size()));
    };

    const char* env = std::getenv("CMS_OUTAGE_SECONDS");
    const int outageMs = 1000 * (env ? std::atoi(env) : 2);
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::thread stream([&] {
        while (!stop) {
            send(Event(0x03000005, sent, !behind));
            ++sent;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    cut.Cut();
    send(Event(0x01000000 | DEVSTATE_DISLINK, 0));  // the channel goes off-line meanwhile
    std::this_thread::sleep_for(std::chrono::milliseconds(outageMs));
    cut.Restore();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
    stream.join();
    WaitForAllWritesBehind();
    ASSERT_TRUE(spool::WaitDrained(60000));

    const long long stored = db.Count("intveventlog");
    std::printf("outage %d ms: %d events handled, %lld stored\n", outageMs, sent.load(), stored);
    EXPECT_EQ(stored, sent.load());
    EXPECT_EQ(db.Scalar("select count(distinct param) from intveventlog"), std::to_string(sent));
    // In arrival order: ids grow with the stream's numbering.
    EXPECT_EQ(
        db.Scalar("select count(*) from intveventlog a join intveventlog b on b.id = a.id + 1 "
                  "where b.param < a.param"),
        "0");
    EXPECT_EQ(db.Scalar("select status from devicechan where id = 300"), "65536");
    EXPECT_EQ(db.Count("deveventlog"), 1);
    int misplaced = 0;
    for (const auto& row : db.Query("select id, param from intveventlog"))
        misplaced += cmstest::ReadFile(dir.File("intv/" + row[0] + "/0.jpg")) !=
                     (behind ? std::string() : Picture(std::atoi(row[1].c_str())));
    EXPECT_EQ(misplaced, 0);
    dlg.reset();
    m_cfgCms.szDbPort = cmstest::TestDatabase::Port();
}

TEST(Outage, StreamOverADatabaseOutageLosesNothing) { StreamOverAnOutage(false); }

TEST(Outage, EventsWrittenBehindLoseNothingAndKeepTheirOrder) { StreamOverAnOutage(true); }

// A spool left full by an earlier run: the server writes what it holds, oldest kept first,
// before anything else.
TEST(Outage, RestartedServerReplaysALeftFullSpool) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    cmstest::DaemonSettings settings;
    settings.dbName = db.name();
    settings.dbPort = cmstest::TestDatabase::Port();
    cmstest::Daemon daemon(settings);
    // This process plays the earlier run: its database is cut while it spools.
    cmstest::TcpCut cut(cmstest::TestDatabase::Port());
    m_cfgCms.szDbPort = cut.Port();
    cut.Cut();
    spool::Configure(daemon.dir().File("var/spool/"), 200 * 1024);
    const std::string text(600, 'y');
    for (int i = 0; i < 1000; ++i) WrightMySqlAlarmInfo(1700000000, 1, 3, 5, i, text.c_str());
    const uint64_t kept = spool::PendingCount();
    ASSERT_GT(spool::DroppedCount(), 0u);

    ASSERT_TRUE(daemon.Start());
    EXPECT_TRUE(daemon.WaitFor("spool drained", std::chrono::seconds(30))) << daemon.Output();
    EXPECT_EQ(db.Count("intveventlog"), static_cast<long long>(kept));
    EXPECT_EQ(db.Scalar("select max(param) from intveventlog"), "999");
    EXPECT_EQ(
        db.Scalar("select count(*) from intveventlog a join intveventlog b on b.id = a.id + 1 "
                  "where b.param <> a.param + 1"),
        "0");
}

}  // namespace
