// The message protocol end to end: the real daemon, a real database, a framed client.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"
#include "comm/msgdefine.h"
#include "support/daemon.h"
#include "support/httppeer.h"
#include "support/testdb.h"

using namespace std::chrono_literals;
using cmsclient::CmsClient;
using cmsclient::Reply;

namespace {

const std::string kDomain = "34020000002000000001";

cmsclient::MsgHead Head(uint8_t type, uint8_t from = 0, uint8_t to = 0, int32_t fromId = 0) {
    cmsclient::MsgHead h;
    h.nType = type;
    h.nFrom = from;
    h.nTo = to;
    h.nFromClientID = fromId;
    return h;
}

template <class T>
std::string Bytes(const T& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof(record));
}

std::string PushRecord(int subType, const char* code, const char* parent, const std::string& owner,
                       const char* name, int status = 0) {
    _msg_domain_info n{};
    n.nType = subType;
    std::strncpy(n.szCode, code, sizeof(n.szCode) - 1);
    std::strncpy(n.szParentCode, parent, sizeof(n.szParentCode) - 1);
    std::strncpy(n.szDomainCode, owner.c_str(), sizeof(n.szDomainCode) - 1);
    std::strncpy(n.szName, name, sizeof(n.szName) - 1);
    n.nStatus = status;
    return Bytes(n);
}

// Accepts connections and never answers, like a sub-server that hangs; the connections are
// dropped when it goes away.
class SilentPeer {
public:
    SilentPeer() {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof(a);
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), n);
        listen(m_fd, 16);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &n);
        m_port = ntohs(a.sin_port);
        m_thread = std::thread([this] {
            for (int c; (c = accept(m_fd, nullptr, nullptr)) >= 0; ++m_accepted)
                m_held.push_back(c);
        });
    }
    ~SilentPeer() {
        shutdown(m_fd, SHUT_RDWR);  // ends the accept
        m_thread.join();
        for (int c : m_held) close(c);
        close(m_fd);
    }
    int port() const { return m_port; }
    int accepted() const { return m_accepted; }

private:
    int m_fd = -1;
    int m_port = 0;
    std::atomic<int> m_accepted{0};
    std::vector<int> m_held;  // accept thread only
    std::thread m_thread;
};

class MessageServer : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(db.Exec(
            "insert into region(id,name,parentid) values (1,'root',0);"
            "insert into domaininfo(id,name,sn,s_code,pushmode,status) values "
            "(1,'lower','DOMSN','" +
            kDomain +
            "',3,65536);"
            "insert into device(id,name,sn,scode,regionid,status) values (10,'gate','DEV10','',1,"
            "65537),(11,'nvr','34020000001320000009','34020000001320000009',1,0),"
            "(13,'spare','DEV13','',1,0);"
            "insert into devicechan(id,devid,chan,sn,scode) values (30,10,1,'CH30','CH30CODE');"
            "insert into serverinfo(id,name,svrtype,ip,port,sn) values (20,'media',1,'127.0.0.1'," +
            std::to_string(peer.port()) + ",'SVR20')"));
        cmstest::DaemonSettings s;
        s.port = port = cmstest::FreePort();
        s.dbName = db.name();
        s.dbPort = cmstest::TestDatabase::Port();
        s.extraParam =
            "<paths><path><name>mcap</name><type>1</type><mode>0</mode>"
            "<p>store/mcap/</p></path></paths>\n";
        daemon = std::make_unique<cmstest::Daemon>(s);
        daemon->dir().Write("store/mcap/.keep", "");
        ASSERT_TRUE(daemon->Start());
        ASSERT_TRUE(daemon->WaitFor("load data succ", 15s)) << daemon->Output();
    }

    std::unique_ptr<CmsClient> Open() {
        auto c = std::make_unique<CmsClient>();
        EXPECT_TRUE(c->Connect("127.0.0.1", port));
        return c;
    }
    // Requests of one connection are handled in order, so the answer to a later login
    // proves that everything sent before it was handled (and answered nothing).
    void ExpectLogin(CmsClient& c, const std::string& serial, int state) {
        Reply r;
        ASSERT_TRUE(c.Request(Head(CMS_MSG_LOGIN), serial, r));
        EXPECT_TRUE(r.IsState() && r.state == state) << serial << " " << r.state;
    }
    // A one-shot request on a connection of its own, which the server must then close.
    Reply OneShot(const cmsclient::MsgHead& head, const std::string& payload) {
        Reply r;
        auto c = Open();
        EXPECT_TRUE(c->Request(head, payload, r));
        EXPECT_TRUE(c->WaitClosed(5000));
        return r;
    }
    bool Printed(const std::string& text) { return daemon->CountOf(text) > 0; }

    cmstest::HttpPeer peer;
    cmstest::TestDatabase db{true, false};
    std::unique_ptr<cmstest::Daemon> daemon;
    int port = 0;
};

TEST_F(MessageServer, LoginsOfEveryKindAndTheirLogouts) {
    auto dev = Open();
    ExpectLogin(*dev, "DEV10", 0);
    ExpectLogin(*dev, "DEV10", 0);  // already on line: nothing more is written
    EXPECT_EQ(db.Scalar("select status from device where id=10"), "1");
    EXPECT_EQ(
        db.Count("devrunlog", "nodeid=10 and nodetype=2 and eventtype=2 and descript='设备上线'"),
        1);
    EXPECT_EQ(daemon->CountOf("dev gate regist\n"), 2);
    dev->Close();
    EXPECT_TRUE(daemon->WaitFor("dev :DEV10 logout\n", 5s)) << daemon->Output();

    auto c = Open();
    for (const char* serial : {"SVR20", "DOMSN"}) ExpectLogin(*c, serial, 0);
    for (const char* serial : {"", "NOPE"}) ExpectLogin(*c, serial, 1);
    ASSERT_TRUE(db.Exec("insert into device(id,name,sn) values (12,'late','LATE12')"));
    ExpectLogin(*c, "LATE12", 0);
    // A 100-byte serial and a type without a handler get no answer; the connection stays.
    ASSERT_TRUE(c->Send(Head(CMS_MSG_LOGIN), std::string(100, 'A')));
    ASSERT_TRUE(c->Send(Head(CMS_MSG_MESSAGE), std::string("hello")));
    ExpectLogin(*c, "DEV13", 0);
    const std::string lines[] = {"server 127.0.0.1 regist\n", "domain " + kDomain + " regist\n",
                                 "\n notfind \n", "NOPE notfind \n", "dev late regist\n"};
    for (const std::string& line : lines) EXPECT_TRUE(Printed(line)) << line;
    // The first of domain, server, device logged in on the connection is logged out.
    c->Close();
    EXPECT_TRUE(daemon->WaitFor("domain :" + kDomain + " logout\n", 5s));
    EXPECT_FALSE(Printed("server :SVR20 logout"));
}

// Media servers whose registration lists never come must not hold back a device's login.
TEST_F(MessageServer, AKnownDeviceIsAnsweredWhileSubServersHang) {
    SilentPeer silent;
    std::vector<std::unique_ptr<CmsClient>> servers;
    for (int i = 21; i <= 24; ++i) {
        ASSERT_TRUE(db.Exec("insert into serverinfo(id,name,svrtype,ip,port,sn) values (" +
                            std::to_string(i) + ",'m',1,'127.0.0.1'," +
                            std::to_string(silent.port()) + ",'SVR" + std::to_string(i) + "')"));
        servers.push_back(Open());
        ASSERT_TRUE(servers.back()->Send(Head(CMS_MSG_LOGIN), "SVR" + std::to_string(i)));
    }
    for (int i = 0; i < 500 && silent.accepted() < 4; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(silent.accepted(), 4);
    ExpectLogin(*Open(), "DEV13", 0);
    Reply r;
    for (auto& s : servers)
        EXPECT_EQ(s->ReadReply(r, 0), CmsClient::ReadResult::kTimeout);  // still fetching
}

TEST_F(MessageServer, PushedNodesBuildRegionsDevicesAndChannels) {
    auto c = Open();
    for (const std::string& rec :
         {PushRecord(5, "11", "", kDomain, "\xB2\xE2\xCA\xD4"),  // GB2312 of 测试
          PushRecord(5, "1101", "", kDomain, "b"), PushRecord(5, "1201", "", kDomain, "c"),
          PushRecord(5, "1301", "", kDomain, "d"),
          PushRecord(5, "34020000002160000001", "", kDomain, "org"),
          PushRecord(5, "34020000001320000001", "34020000002160000001", kDomain, "dvr", 1),
          PushRecord(5, "34020000001310000002", "34020000001320000009", kDomain, "ch", 1),
          PushRecord(5, kDomain.c_str(), "", kDomain, "self"),
          PushRecord(5, "CH31", "", "DEV10", "own"), PushRecord(3, "REGDEV1", "", kDomain, ""),
          PushRecord(3, "REGDEV1", "", kDomain, ""), PushRecord(1, kDomain.c_str(), "", "", ""),
          std::string(199, '\x05')})  // the last one is short: dropped
        ASSERT_TRUE(c->Send(Head(CMS_MSG_PUSH_DATA), rec));
    ExpectLogin(*c, "DEV13", 0);

    const std::string r11 = db.Scalar("select id from region where scode='11'");
    // Parents that are not known go under one "非标区域", created on first need.
    const std::string other =
        db.Scalar("select id from region where regtype=255 and name='非标区域'");
    const std::string org = db.Scalar("select id from region where scode='34020000002160000001'");
    const std::pair<std::string, std::string> expected[] = {
        {"select concat(parentid,usecode,domainid,name) from region where id=" + r11, "111测试"},
        {"select parentid from region where scode='1101'", r11},
        {"select count(*) from region where regtype=255", "1"},
        {"select count(*) from region where scode in ('1201','1301') and parentid=" + other, "2"},
        {"select parentid from region where id=" + org, other},
        {"select concat(regionid,',',status,',',ftype) from device where sn='34020000001320000001'",
         org + ",65536,3"},
        {"select concat(devid,',',status,',',domainid) from devicechan where "
         "sn='34020000001310000002'",
         "0,65536,1"},
        {"select count(*) from region where scode='" + kDomain + "'", "0"},
        {"select devid from devicechan where sn='CH31'", "10"},
        {"select concat(count(*),regionid,ftype,name) from device where sn='REGDEV1'",
         "113REGDEV1"},
        {"select count(*) from region where regtype=254 and name='注册区域'", "1"},
        {"select count(*) from devrunlog where nodeid=1 and nodetype=10 and descript='设备上线'",
         "1"},
    };
    for (const auto& row : expected) EXPECT_EQ(db.Scalar(row.first), row.second) << row.first;
}

TEST_F(MessageServer, NodeListQueriesKeepTheConnection) {
    auto c = Open();
    auto ask = [&](int32_t type, const std::string& code) {
        std::string p(8, '\0');
        std::memcpy(&p[0], &type, 4);
        Reply r;
        EXPECT_TRUE(c->Request(Head(CMS_MSG_GET_DATA), p + code, r));
        return r;
    };
    Reply share = ask(DATA_GB_SHARE_NODE, kDomain);
    EXPECT_FALSE(share.IsState());
    EXPECT_TRUE(!share.data.empty() && share.data.size() % 640 == 0) << share.data.size();
    EXPECT_EQ(ask(DATA_GB_DOMAIN_NODE, "DOMSN").data.size(), 316u);
    EXPECT_EQ(ask(DATA_GB_SHARE_NODE, "nosuchdomain").state, 1);
    EXPECT_EQ(ask(DATA_CAMERA, kDomain).state, 1);
}

// Statements and addresses that succeed are checked end to end by the cmsctl tests; here
// the refusals.
// A device's events are written behind its back, yet whatever it sends next is answered
// only once they are stored, whichever lane answers it. The log table is locked meanwhile,
// so the rows cannot be in before the lock goes.
TEST_F(MessageServer, ALinksEventsAreStoredBeforeItsNextAnswer) {
    auto dev = Open();
    ExpectLogin(*dev, "DEV10", 0);
    ASSERT_TRUE(db.Exec("lock tables intveventlog write"));
    cmsclient::EventFields f;
    f.channel = "1";
    constexpr int kPairs = 150;
    for (int i = 0; i < kPairs; ++i) {
        f.info = "e" + std::to_string(i);
        const cmsclient::Request alarm = cmsclient::AlarmEvent(f, 5, i);
        const cmsclient::Request state =
            cmsclient::DeviceStateEvent(f, i % 2 ? DEVSTATE_DISLINK_RESUME : DEVSTATE_DISLINK);
        ASSERT_TRUE(dev->Send(alarm.head, alarm.payload));
        ASSERT_TRUE(dev->Send(state.head, state.payload));
    }
    ASSERT_TRUE(dev->Send(Head(CMS_MSG_LOGIN), "DEV10"));
    // Another link is not held up by those rows.
    ExpectLogin(*Open(), "DEV13", 0);
    EXPECT_TRUE(daemon->WaitFor("dev spare regist", 5s));
    Reply r;
    EXPECT_EQ(dev->ReadReply(r, 300), CmsClient::ReadResult::kTimeout);
    ASSERT_TRUE(db.Exec("unlock tables"));
    ASSERT_EQ(dev->ReadReply(r, 10000), CmsClient::ReadResult::kReply);
    EXPECT_TRUE(r.IsState() && r.state == 0);
    EXPECT_EQ(db.Count("intveventlog", "nodeid=30 and nodetype=3"), kPairs);
    EXPECT_EQ(db.Count("deveventlog", "nodeid=30 and nodetype=3"), kPairs);
    EXPECT_EQ(db.Scalar("select status & 65536 from devicechan where id=30"), "0");
    EXPECT_EQ(db.Scalar("select count(distinct descript) from intveventlog"),
              std::to_string(kPairs));
}

TEST_F(MessageServer, RefusedStatementsAndAddressesAnswerStateOne) {
    for (const char* text : {"delete from nosuchtable", ""})
        EXPECT_EQ(OneShot(Head(CMS_MSG_SQLOPERATION_EX, DATADEL), text).state, 1) << text;

    _msg_url_req req{};
    req.nodeid = 9999;
    req.nodtype = 2;
    auto c = Open();
    ASSERT_TRUE(c->Send(Head(CMS_MSG_GET_URL), Bytes(req).substr(0, 47)));  // short: no reply
    Reply r;
    ASSERT_TRUE(c->Request(Head(CMS_MSG_GET_URL), Bytes(req), r));
    EXPECT_TRUE(r.IsState() && r.state == 1);
    EXPECT_TRUE(c->WaitClosed(5000));
    EXPECT_EQ(OneShot(Head(CMS_MSG_GET_URL, 2), Bytes(req)).state, 1);
}

TEST_F(MessageServer, RegistrationsFromLoggedInServersOnly) {
    peer.Answer("/xconfig?cmd=getregister", "<dev>DEV10:10.1.1.1</dev>");
    auto svr = Open();
    auto stranger = Open();
    ExpectLogin(*svr, "SVR20", 0);  // fetches and merges the media server's registrations
    ASSERT_EQ(peer.Requests().size(), 1u);
    EXPECT_EQ(peer.Requests()[0], "GET /xconfig?cmd=getregister HTTP/1.1");
    std::string spare = "<dev>DEV13</dev><st>0</st>";
    ASSERT_TRUE(svr->Send(Head(CMS_MSG_SUBSERVERSTATUS),
                          std::string("<dev>34020000001320000009</dev><st>0</st>")));
    ASSERT_TRUE(
        svr->Send(Head(CMS_MSG_SUBSERVERSTATUS), spare + std::string(200 - spare.size(), ' ')));
    ASSERT_TRUE(stranger->Send(Head(CMS_MSG_SUBSERVERSTATUS), spare));
    ExpectLogin(*svr, "NOPE", 1);
    ExpectLogin(*stranger, "NOPE", 1);
    EXPECT_EQ(db.Count("mediaregistor", "nodeid=10 and nodetype=2 and sn='DEV10' and parentid=20"),
              1);
    EXPECT_EQ(db.Count("mediaregistor", "nodeid=11 and parentid=20"), 1);
    EXPECT_EQ(db.Count("mediaregistor", "sn='DEV13'"), 0);  // oversize, or not a server
}

// Random and truncated messages of every type must leave the server up and answering.
TEST_F(MessageServer, HostileInputLeavesTheServerAnswering) {
    std::mt19937 rng(20240601);
    auto noise = [&](size_t n) {
        std::string s(n, '\0');
        for (char& ch : s) ch = static_cast<char>(rng());
        return s;
    };
    for (int type = 0; type < 256; ++type) {
        for (int round = 0; round < (type <= 32 ? 4 : 1); ++round) {
            auto c = Open();
            std::string cut = noise(rng() % 12);
            c->SendFrame(cut.data(), cut.size());
            std::string payload = noise(rng() % 600);
            if (type == CMS_MSG_PUSH_DATA && payload.size() >= 4)  // reach every push sub-type
                payload.replace(0, 4, std::string{static_cast<char>(1 + rng() % 5), 0, 0, 0});
            c->Send(Head(static_cast<uint8_t>(type), static_cast<uint8_t>(rng()),
                         static_cast<uint8_t>(rng()), static_cast<int32_t>(rng() % 100)),
                    payload);
        }
    }
    std::this_thread::sleep_for(1s);  // let the pool finish what the closed clients sent
    ASSERT_TRUE(daemon->Running()) << daemon->Output();
    ExpectLogin(*Open(), "DEV10", 0);
}

}  // namespace
