// Sub-server registration: the list readers, the fetch over the command channel (against a
// small HTTP peer) and the merge into the table and the catalogue.
#include "nodes/subreg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "support/daemon.h"
#include "support/httppeer.h"
#include "support/testdb.h"

namespace {

struct List {
    std::vector<_dev_register*> v;
    ~List() { ReleaseArray(v); }
    // Every record as "serial@ip#state ".
    std::string Text() const {
        std::string s;
        for (const _dev_register* r : v)
            s += std::string(r->serial) + "@" + r->ip + "#" + std::to_string(r->state) + " ";
        return s;
    }
};

TEST(SubRegReaders, MediaElementsAndTheirFixedAdvance) {
    List l;
    EXPECT_EQ(ParasMediaRegistor("<dev>A1:10.0.0.1</dev><dev>B2:10.0.0.2</dev><dev>C3</dev>", l.v),
              3);
    EXPECT_EQ(l.Text(), "A1@10.0.0.1#0 B2@10.0.0.2#0 C3@#0 ");

    // Elements further apart than the advance are read again on every pass that lands
    // before them.
    List spaced;
    ParasMediaRegistor("<dev>A1</dev>                  <dev>B2</dev>", spaced.v);
    ASSERT_GT(spaced.v.size(), 2u);
    EXPECT_STREQ(spaced.v[0]->serial, "A1");
    for (size_t i = 1; i < spaced.v.size(); ++i) EXPECT_STREQ(spaced.v[i]->serial, "B2");

    List hostile;
    EXPECT_EQ(ParasMediaRegistor("</dev>xx<dev>X", hostile.v), 0);
    EXPECT_EQ(
        ParasMediaRegistor(
            ("<dev>" + std::string(300, 'S') + ":" + std::string(300, 'I') + "</dev>").c_str(),
            hostile.v),
        1);
    EXPECT_EQ(std::string(hostile.v[0]->serial), std::string(31, 'S'));
    EXPECT_EQ(ParasMediaRegistor(nullptr, hostile.v), 0);

    _dev_register reg{};
    std::string notice = "<dev>" + std::string(60, 'S') + "</dev><st>3</st><ip>1.2.3.4</ip>";
    ASSERT_EQ(ParasRegistFromXML(notice.c_str(), &reg), 1);
    EXPECT_EQ(strlen(reg.serial), 31u);
    EXPECT_EQ(reg.state, 3);
    EXPECT_STREQ(reg.ip, "");
    EXPECT_EQ(ParasRegistFromXML(nullptr, &reg), 0);
}

TEST(SubRegFetch, AsksTheServerOverItsConfigurationPath) {
    cmstest::HttpPeer peer;
    peer.Answer("cmd=getregister", "<dev>A1:1.2.3.4</dev>");
    peer.Answer("cmd=getdomain", "<domain><code>D9</code><status>1</status></domain>");
    std::string base = "rtsp://127.0.0.1:" + std::to_string(peer.port());
    List media, domains, none;
    EXPECT_EQ(GetMediaRegistor(base.c_str(), media.v), 1);
    EXPECT_EQ(media.Text(), "A1@1.2.3.4#0 ");
    EXPECT_EQ(GetDomainRegistor(base.c_str(), domains.v), 1);
    EXPECT_EQ(domains.Text(), "D9@#1 ");
    EXPECT_EQ(peer.Requests(), (std::vector<std::string>{"GET /xconfig?cmd=getregister HTTP/1.1",
                                                         "GET /xconfig?cmd=getdomain HTTP/1.1"}));

    EXPECT_EQ(GetMediaRegistor(nullptr, none.v), 0);
    std::string closed = "rtsp://127.0.0.1:" + std::to_string(cmstest::FreePort());
    EXPECT_EQ(GetMediaRegistor(closed.c_str(), none.v), 0);
    EXPECT_TRUE(none.v.empty());
}

class SubRegMerge : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(
            db.Exec("insert into device(id,sn,status) values (10,'DEV10',1),(11,'DEV11',0);"
                    "insert into serverinfo(id,sn,svrtype) values (20,'SVR20',1),(21,'SVR21',1);"
                    "insert into mediaregistor(id,nodeid,nodetype,sn,parentid) values "
                    "(5,11,2,'DEV11',20)"));
        dlg = std::make_unique<CCMSSvrDlg>();
        ASSERT_TRUE(dlg->LoadData());
        CatalogReadLock lock(csCatalog);
        media20 = *GetSystemSvrByID(20, m_arrServerFromDB);
        media21 = *GetSystemSvrByID(21, m_arrServerFromDB);
    }
    void TearDown() override {
        dlg->ReleaseData();
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrMediaRegInfos);
    }
    int Merge(_sysserver_info& server, const char* serial, int state) {
        _dev_register reg{};
        std::snprintf(reg.serial, sizeof(reg.serial), "%s", serial);
        reg.state = state;
        return ProcessSubDev(&server, &reg);
    }
    const _dev_register* Known(const char* serial) {
        CatalogReadLock lock(csCatalog);
        return GetMediaRegistInfoBySerial(m_arrMediaRegInfos, serial);
    }

    cmstest::TestDatabase db{true, false};
    std::unique_ptr<CCMSSvrDlg> dlg;
    _sysserver_info media20{}, media21{};
};

TEST_F(SubRegMerge, RegistrationsAreAddedOnceMovedAndDropped) {
    EXPECT_EQ(Merge(media20, "DEV10", 0), 1);
    EXPECT_EQ(Merge(media20, "DEV10", 0), 1);
    EXPECT_EQ(db.Count("mediaregistor", "nodeid=10 and nodetype=2 and sn='DEV10' and parentid=20"),
              1);
    // DEV10 has bit 0 of its status set, so each report is a status change with a run-log line.
    EXPECT_EQ(db.Count("devrunlog", "nodeid=10 and nodetype=2 and descript='设备上线'"), 2);

    EXPECT_EQ(Merge(media21, "DEV11", 0), 1);
    EXPECT_EQ(Known("DEV11")->parentid, 21);
    EXPECT_EQ(db.Scalar("select parnetid from mediaregistor where id=5"), "21");
    EXPECT_EQ(Merge(media21, "DEV11", 1), 1);
    EXPECT_EQ(Known("DEV11"), nullptr);
    EXPECT_EQ(db.Count("mediaregistor", "id=5"), 0);

    EXPECT_EQ(Merge(media20, "NOPE", 1), 1);
    EXPECT_EQ(Merge(media20, "NOPE", 0), 0);
    EXPECT_EQ(db.Count("mediaregistor"), 1);
    EXPECT_EQ(ProcessSubDev(nullptr, nullptr), 0);
}

// A registered server's state goes to the reporting server's record.
TEST_F(SubRegMerge, ServerRegistrationsChangeTheReportingServer) {
    media20.svr.nState = 1;
    EXPECT_EQ(Merge(media20, "SVR21", 3), 1);
    EXPECT_EQ(media20.svr.nState, 1 | (3 << 16));
    {
        CatalogReadLock lock(csCatalog);
        EXPECT_EQ(GetSystemSvrByID(20, m_arrServerFromDB)->svr.nState, 3 << 16);
    }
    EXPECT_EQ(db.Count("devrunlog", "nodeid=21 and nodetype=1 and eventtype=2"), 1);
    EXPECT_EQ(db.Count("mediaregistor"), 1);  // state 3 is neither registered nor gone
}

}  // namespace
