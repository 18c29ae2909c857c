// Analytics event links end to end: the real server in local mode links every analytics
// device and server of its catalogue and nothing else, feeds their packets to ingestion, and
// reports drops and re-links, writing the node back online only when it was marked off-line.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "mysql/dbrecords.h"
#include "support/daemon.h"
#include "support/eventpeer.h"
#include "support/httpclient.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

std::string Packet(int nodeId, int nodeType, uint32_t eventType, const char* serial = "") {
    _msg_alarm_comm r{};
    r.unTime = gettime(2024, 3, 5, 7, 4, 9);
    std::snprintf(r.szSerial, sizeof r.szSerial, "%s", serial);
    r.nEventType = static_cast<int>(eventType);
    r.nNodeID = nodeId;
    r.nNodeType = nodeType;
    return std::string(reinterpret_cast<const char*>(&r), sizeof r);
}

TEST(EventLinks, LocalModeLinksAnalyticsNodesFeedsIngestionAndRelinks) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    // Each node on its own loopback address, so a link reaching the wrong one shows.
    cmstest::EventPeer devOffline("127.0.0.2"), devOnline("127.0.0.3"), svr("127.0.0.4");
    cmstest::EventPeer camera("127.0.0.5"), media("127.0.0.6");
    auto port = [](const cmstest::EventPeer& p) { return std::to_string(p.port()); };
    ASSERT_TRUE(
        db.Exec("insert into device(id,name,ftype,ip,port,status) values"
                " (100,'IntvA',3,'127.0.0.2'," +
                port(devOffline) +
                ",65536),"
                " (101,'IntvB',3,'127.0.0.3'," +
                port(devOnline) +
                ",0),"
                " (102,'Cam',1,'127.0.0.5'," +
                port(camera) +
                ",65536);"
                "insert into serverinfo(id,name,svrtype,ip,port,sn,status) values"
                " (200,'Svr',3,'127.0.0.4'," +
                port(svr) +
                ",'SVR-SN',65536),"
                " (201,'Media',1,'127.0.0.6'," +
                port(media) +
                ",'M',0);"
                "insert into devicechan(id) values (300);"
                "insert into serverchan(id, serverid, sindex) values (500, 200, 2)"));
    cmstest::DaemonSettings s;
    s.dbName = db.name();
    s.dbPort = cmstest::TestDatabase::Port();
    s.localMode = 1;
    s.httpPort = cmstest::FreePort();
    cmstest::Daemon d(s);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitFor("dev IntvA linked", 10s)) << d.Output();
    ASSERT_TRUE(d.WaitFor("dev IntvB linked", 10s)) << d.Output();
    ASSERT_TRUE(d.WaitFor("svr Svr linked", 10s)) << d.Output();
    ASSERT_TRUE(devOffline.WaitLinks(1) && devOnline.WaitLinks(1) && svr.WaitLinks(1));
    EXPECT_EQ("/192.168.1.64:8000:admin:58203:0:1?event=1", svr.Paths()[0]);
    EXPECT_EQ("0", db.Scalar("select status from device where id = 100"));
    // Server status bits are not loaded from the database, so its link writes nothing.
    EXPECT_EQ("nodeid=100 nodetype=2 eventtype=2",
              db.Scalar("select group_concat(concat('nodeid=',nodeid,' nodetype=',nodetype,"
                        "' eventtype=',eventtype)) from devrunlog where descript='设备上线'"));

    // Both event layouts of a server: naming its channel by index, and a node by id.
    ASSERT_TRUE(svr.Send(22, Packet(0, 0, 0x01000000 | DEVSTATE_DISLINK, "2")));
    ASSERT_TRUE(svr.Send(2, Packet(300, DEVCHAN_NODE, 0x03000005)));
    auto waitRows = [&](const char* table) {
        for (int i = 0; i < 100 && db.Count(table) == 0; ++i) std::this_thread::sleep_for(50ms);
        return db.Count(table);
    };
    EXPECT_EQ(1, waitRows("deveventlog"));
    EXPECT_EQ("500|9", db.Scalar("select concat(nodeid,'|',nodetype) from deveventlog"));
    EXPECT_EQ(1, waitRows("intveventlog2"));
    EXPECT_EQ("300|3|5", db.Scalar("select concat(nodeid,'|',nodetype,'|',eventtype)"
                                   " from intveventlog2"));

    devOffline.Drop();
    svr.Drop();
    EXPECT_TRUE(d.WaitFor("dev :IntvA logout", 5s)) << d.Output();
    EXPECT_TRUE(d.WaitFor("dev :SVR-SN logout", 5s)) << d.Output();
    EXPECT_TRUE(d.WaitFor("dev IntvA relinked", 5s)) << d.Output();
    EXPECT_TRUE(d.WaitFor("dev Svr relinked", 5s)) << d.Output();
    EXPECT_EQ(1, db.Count("devrunlog"));  // both were online already

    // A reset releases the records the links point at: they are stopped and made afresh.
    cmstest::HttpGet(s.httpPort, "/?cmd=reset");
    ASSERT_TRUE(d.WaitFor("cserver reset succ", 10s)) << d.Output();
    EXPECT_TRUE(d.WaitFor("svr Svr linked", 10s, 2)) << d.Output();
    EXPECT_TRUE(svr.WaitLinks(3) && devOnline.WaitLinks(2));
    ASSERT_TRUE(svr.Send(2, Packet(300, DEVCHAN_NODE, 0x03000005)));
    for (int i = 0; i < 100 && db.Count("intveventlog2") < 2; ++i)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(2, db.Count("intveventlog2"));
    EXPECT_EQ(1, db.Count("devrunlog"));

    EXPECT_TRUE(camera.Paths().empty());
    EXPECT_TRUE(media.Paths().empty());
    EXPECT_EQ(0, d.Stop(SIGTERM, 5s));
}

// A node that is down when the server starts is linked once it comes up; a node that breaks
// the framing is dropped and re-linked, while the others keep their links and their events.
TEST(EventLinks, LateAndHostileNodes) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    cmstest::EventPeer hostile("127.0.0.7"), steady("127.0.0.8");
    int latePort = 0;
    {
        cmstest::EventPeer probe("127.0.0.9");
        latePort = probe.port();
    }
    auto port = [](const cmstest::EventPeer& p) { return std::to_string(p.port()); };
    ASSERT_TRUE(db.Exec(
        "insert into device(id,name,ftype,ip,port,status) values (110,'Late',3,'127.0.0.9'," +
        std::to_string(latePort) +
        ",0);"
        "insert into serverinfo(id,name,svrtype,ip,port,sn,status) values"
        " (210,'Hostile',3,'127.0.0.7'," +
        port(hostile) + ",'H-SN',0), (211,'Steady',3,'127.0.0.8'," + port(steady) +
        ",'S-SN',0);"
        "insert into devicechan(id) values (300)"));
    cmstest::DaemonSettings s;
    s.dbName = db.name();
    s.dbPort = cmstest::TestDatabase::Port();
    s.localMode = 1;
    cmstest::Daemon d(s);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitFor("svr Hostile linked", 10s) && d.WaitFor("svr Steady linked", 10s))
        << d.Output();

    cmstest::EventPeer late("127.0.0.9", latePort);
    EXPECT_TRUE(d.WaitFor("dev Late linked", 10s)) << d.Output();
    EXPECT_TRUE(late.WaitLinks(1));

    // A length far over the frame limit, then bytes that are no frame at all.
    ASSERT_TRUE(hostile.SendRaw(std::string("\xff\xff\xff\x7f", 4) + std::string(64, 'x')));
    EXPECT_TRUE(d.WaitFor("dev :H-SN logout", 5s)) << d.Output();
    EXPECT_TRUE(hostile.WaitLinks(2));
    ASSERT_TRUE(hostile.SendRaw(std::string(13, '\x01') + std::string(40, '\x7f')));
    EXPECT_TRUE(d.WaitFor("dev :H-SN logout", 5s, 2)) << d.Output();

    ASSERT_TRUE(steady.Send(2, Packet(300, DEVCHAN_NODE, 0x03000005)));
    for (int i = 0; i < 100 && db.Count("intveventlog2") == 0; ++i)
        std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1, db.Count("intveventlog2"));
    EXPECT_EQ(1u, steady.Paths().size());  // never dropped
    EXPECT_EQ(0, d.Stop(SIGTERM, 5s));
}

}  // namespace
