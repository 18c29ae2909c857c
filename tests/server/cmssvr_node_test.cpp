// Node registration in-process over a test database: the branches of a pushed node that the
// end-to-end push test does not reach, and nodes fetched by serial or id.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "comm/globle.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "support/daemon.h"
#include "support/testdb.h"

namespace {

const char* const kDomain = "34020000002000000001";

class NodeRegistration : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(db.Exec(
            "insert into domaininfo(id,sn,s_code) values (1,'DOMSN','" + std::string(kDomain) +
            "');"
            "insert into device(id,name,sn) values (11,'nvr','34020000001320000009');"
            "insert into devicechan(id,devid,name,sn) values (30,11,'cam','34020000001310000003');"
            "insert into serverinfo(id,name,sn) values (20,'media','SVR20')"));
        dlg = std::make_unique<CCMSSvrDlg>();
        ASSERT_TRUE(dlg->LoadData());
    }
    void TearDown() override {
        dlg->ReleaseData();
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrMediaRegInfos);
    }
    long Push(const char* code, const char* parent, const char* domain, const char* name,
              int status = 0) {
        _msg_domain_info n{};
        n.nType = 5;
        n.nStatus = status;
        std::strncpy(n.szCode, code, sizeof(n.szCode) - 1);
        std::strncpy(n.szParentCode, parent, sizeof(n.szParentCode) - 1);
        std::strncpy(n.szDomainCode, domain, sizeof(n.szDomainCode) - 1);
        std::strncpy(n.szName, name, sizeof(n.szName) - 1);
        return dlg->ProcessNode(&n);
    }

    cmstest::TestDatabase db{true, false};
    std::unique_ptr<CCMSSvrDlg> dlg;
};

// Without any region the first push creates the root and "非标区域"; a channel below a known
// device then takes the id of the last region created in the same call as its devid.
TEST_F(NodeRegistration, FirstPushCreatesTheRootAndTheNonstandardRegion) {
    long id = Push("34020000001310000002", "34020000001320000009", kDomain, "ch");
    ASSERT_GT(id, 0);
    std::string root =
        db.Scalar("select id from region where name='智能化监控平台' and parentid=0");
    std::string other = db.Scalar("select id from region where regtype=255 and parentid=" + root);
    ASSERT_FALSE(other.empty());
    EXPECT_EQ(
        db.Scalar("select concat(id,',',devid) from devicechan where sn='34020000001310000002'"),
        std::to_string(id) + "," + other);

    CatalogReadLock lock(csCatalog);
    ASSERT_EQ(m_arrRegionInfos.size(), 3u);
    const _msg_region_base* mirror = m_arrRegionInfos[2];
    EXPECT_EQ(mirror->nID, id);
    EXPECT_STREQ(mirror->szSerial, "34020000001310000002");
    EXPECT_EQ(mirror->nParentID, std::stoi(other));
    EXPECT_EQ(mirror->nType, 0);
}

// A known channel composes nothing: the region insert the same call made runs once more and
// gives the result; without one the push inserts nothing.
TEST_F(NodeRegistration, KnownChannelRerunsTheRegionInsertOfTheCall) {
    long id = Push("34020000001310000003", "34020000001320000009", kDomain, "cam");
    ASSERT_GT(id, 0);
    EXPECT_EQ(db.Scalar("select count(*) from region where regtype=255"), "2");
    EXPECT_EQ(db.Scalar("select max(id) from region where regtype=255"), std::to_string(id));
    long regions = db.Count("region");
    EXPECT_EQ(Push("34020000001310000003", "34020000001320000009", kDomain, "cam"), 0);
    EXPECT_EQ(db.Count("region"), regions);
    EXPECT_EQ(db.Count("devicechan"), 1);
}

// A lower domain re-pushing its tree updates the rows its codes already have.
TEST_F(NodeRegistration, RepushedRegionsAndDevicesUpdateTheirRow) {
    long region = Push("3498", "", kDomain, "a");
    ASSERT_GT(region, 0);
    EXPECT_EQ(Push("3498", "", kDomain, "b"), region);
    EXPECT_EQ(Push("3498", "", kDomain, "c'd"), region);
    EXPECT_EQ(db.Scalar("select concat(count(*),name) from region where scode='3498'"), "1c'd");
    long org = Push("34020000002160000001", "", kDomain, "org");
    ASSERT_GT(org, 0);
    EXPECT_EQ(Push("34020000002160000001", "3498", kDomain, "org2"), org);
    EXPECT_EQ(db.Scalar("select concat(count(*),name,parentid) from region where "
                        "scode='34020000002160000001'"),
              "1org2" + std::to_string(region));

    const char* dev = "34020000001320000005";
    long device = Push(dev, "", kDomain, "d1");
    ASSERT_GT(device, 0);
    EXPECT_EQ(Push(dev, "", kDomain, "d2", 1), device);
    EXPECT_EQ(Push(dev, "34020000002160000001", kDomain, "d3", 1), device);
    EXPECT_EQ(db.Scalar("select concat(count(*),name,',',regionid,',',status) from device "
                        "where scode='" +
                        std::string(dev) + "'"),
              "1d3," + std::to_string(org) + ",65536");

    CatalogReadLock lock(csCatalog);
    int mirrors = 0;
    for (const _msg_region_base* r : m_arrRegionInfos) {
        if (std::strcmp(r->szSerial, "3498") == 0) {
            EXPECT_STREQ(r->szName, "c'd");
        }
        if (std::strcmp(r->szSerial, dev) != 0) continue;
        ++mirrors;
        EXPECT_EQ(r->nID, device);
        EXPECT_EQ(r->nParentID, org);
        EXPECT_STREQ(r->szName, "d3");
    }
    EXPECT_EQ(mirrors, 1);
}

TEST_F(NodeRegistration, TextIsStoredAsPushedAndOddNodesInsertNothing) {
    ASSERT_GT(Push("12", "", kDomain, "O'Neil \"x\" \\"), 0);
    EXPECT_EQ(db.Scalar("select name from region where scode='12'"), "O'Neil \"x\" \\");
    std::string gb, utf8;  // 24 characters: longer in UTF-8 than the pushed field
    for (int i = 0; i < 24; ++i) gb += "\xB2\xE2", utf8 += "测";
    ASSERT_GT(Push("15", "", kDomain, gb.c_str()), 0);
    EXPECT_EQ(db.Scalar("select name from region where scode='15'"), utf8);
    {
        CatalogReadLock lock(csCatalog);
        EXPECT_EQ(GetRegionInfobySerial(m_arrRegionInfos, "15")->szName, utf8.substr(0, 48));
    }
    // Without a parent code a GB code hangs below the code before its first "00".
    ASSERT_GT(Push("12000000001320000001", "", kDomain, "dvr"), 0);
    EXPECT_EQ(db.Scalar("select regionid from device where sn='12000000001320000001'"),
              db.Scalar("select id from region where scode='12'"));
    ASSERT_GT(Push("CH'9", "", "34020000001320000009", "own'"), 0);
    EXPECT_EQ(db.Scalar("select concat(name,devid) from devicechan where sn='CH''9'"), "own'11");

    long regions = db.Count("region");
    EXPECT_EQ(dlg->ProcessNode(nullptr), 0);
    EXPECT_EQ(Push("340200000013200000011", "", kDomain, "long"), 0);
    EXPECT_EQ(Push("13", "", "NOSUCHOWNER", "x"), 0);
    EXPECT_EQ(db.Count("region"), regions);
    EXPECT_EQ(db.Count("device"), 2);

    m_cfgCms.szDbPort = cmstest::FreePort();  // database down
    EXPECT_EQ(Push("14", "", kDomain, "x"), 0);
    EXPECT_EQ(dlg->AddNodeFromSerial("SVR20", SERVER_NODE), nullptr);
    db.UseForServer();
}

TEST_F(NodeRegistration, NodesFetchedBySerialOrIdAreAppendedOnce) {
    ASSERT_TRUE(
        db.Exec("insert into device(id,name,sn) values (12,'late','LATE12');"
                "insert into domaininfo(id,sn) values (2,'DOM2')"));
    size_t devices = m_arrRecordInfos.size();
    auto* dev = static_cast<_hcrecord_Info*>(dlg->AddNodeFromSerial("LATE12", DEVICE_NODE));
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->dev.nID, 12);
    EXPECT_EQ(m_arrRecordInfos.size(), devices + 1);
    EXPECT_EQ(dlg->AddNodeFromSerial("x' or '1'='1", DEVICE_NODE), nullptr);
    EXPECT_EQ(dlg->AddNodeFromSerial("LATE12", REGION_NODE), nullptr);
    EXPECT_EQ(m_arrRecordInfos.size(), devices + 1);
    auto* dom = static_cast<_domain_info*>(dlg->AddNode(2, DOMAIN_NODE));
    ASSERT_NE(dom, nullptr);
    EXPECT_STREQ(dom->svr.szSerial, "DOM2");
    EXPECT_EQ(dlg->AddNode(999, SERVER_NODE), nullptr);
}

}  // namespace
