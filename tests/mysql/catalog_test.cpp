#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

// Owns whatever a loader or a test appends, so no test leaks on a failed assertion.
template <class T>
struct Owned {
    std::vector<T*> v;
    ~Owned() { ReleaseArray(v); }
};

class CatalogDbTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(ConnectDB(&conn));
    }
    cmstest::TestDatabase db{true, true};
    CMysqlDB conn;
};

TEST_F(CatalogDbTest, LoadsTheDemoCatalogue) {
    Owned<_msg_region_base> regions;
    Owned<_hcrecord_Info> devices;
    Owned<_msg_video_record_base> chans;
    Owned<_sysserver_info> servers;
    Owned<_domain_info> domains;
    Owned<_dev_register> regs;
    GetRegion_FromDB(&conn, "select * from region", regions.v);
    GetVideoDev_FromDB(&conn, "select * from device", devices.v);
    GetVideoChan_FromDB(&conn, "select * from devicechan", chans.v);
    GetSystemServer_FromDB(&conn, "select * from serverinfo", servers.v);
    GetDomain_FromDB(&conn, "select * from domaininfo", domains.v);
    GetRegist_FromDB(&conn, "select * from mediaregistor", regs.v);
    ASSERT_EQ(5u, regions.v.size());
    ASSERT_EQ(3u, devices.v.size());
    ASSERT_EQ(4u, chans.v.size());
    ASSERT_EQ(3u, servers.v.size());
    ASSERT_EQ(3u, domains.v.size());
    ASSERT_EQ(2u, regs.v.size());

    EXPECT_EQ(1, GetRootRegion(regions.v)->nID);
    const _msg_region_base* r4 = regions.v[3];
    EXPECT_STREQ("34010000002160000001", r4->szSerial);
    EXPECT_FALSE(r4->bVirtual);
    EXPECT_TRUE(regions.v[4]->bVirtual);

    const _msg_recorddevice_base& d = devices.v[0]->dev;
    EXPECT_STREQ("Gate recorder", d.szName);
    EXPECT_STREQ("34010400001180000001", d.szSerial);
    EXPECT_EQ(2, d.nHardType);
    EXPECT_EQ(8000, d.nPort);
    EXPECT_STREQ("nvr12345", d.szPass);
    EXPECT_EQ(3, d.nRegionID);
    EXPECT_EQ(-1, devices.v[0]->lLoginID);
    EXPECT_EQ(NODE_OFFLINE_FLAG, devices.v[1]->dev.nStatus);

    const _msg_video_record_base& c = *chans.v[1];
    EXPECT_EQ(2, c.nID);
    EXPECT_EQ(1, c.nDeviceID);
    EXPECT_EQ(2, c.nChan);
    EXPECT_EQ(1, c.nType);
    EXPECT_STREQ("16:9", c.szScale);
    EXPECT_STREQ("admin", c.szUser);

    const _msg_systemsrv_base& s = servers.v[2]->svr;
    EXPECT_EQ(SERVER_INTV, s.nServerType);
    EXPECT_EQ(8090, s.nHPort);
    EXPECT_EQ(-1, servers.v[2]->lLoginID);

    const _msg_domain_base& dm = domains.v[1]->svr;
    EXPECT_EQ(DOWN_DOMAIN, dm.nType);
    EXPECT_EQ(7080, dm.nHttpPort);
    EXPECT_EQ(554, dm.nPort2);
    EXPECT_TRUE(dm.bAuth);
    EXPECT_EQ(1, dm.nParentID);
    EXPECT_EQ(65536, dm.nState);
    EXPECT_STREQ("34020000002000000001", dm.szParentCode);

    EXPECT_EQ(3, regs.v[1]->nodeid);
    EXPECT_EQ(SERVER_NODE, regs.v[1]->type);
    EXPECT_STREQ("34020000002030000001", regs.v[1]->serial);
}

TEST_F(CatalogDbTest, ConvertsAndTruncatesColumnValues) {
    ASSERT_TRUE(db.Exec(
        "insert into region (id, name, parentid, usecode) values (10, 'on', 1, 1),"
        " (11, 'off', 1, 0), (12, 'null', 1, NULL),"
        " (13, '" + std::string(80, 'n') + "', 1, 7);"
        "insert into device (id, hardwaretype, ftype, setalarm, matrixindex, status, sn)"
        " values (9, 258, 515, 256, 70000, -1, NULL)"));
    Owned<_msg_region_base> regions;
    GetRegion_FromDB(&conn, "select * from region where id >= 10 order by id", regions.v);
    ASSERT_EQ(4u, regions.v.size());
    EXPECT_FALSE(regions.v[0]->bVirtual);
    EXPECT_TRUE(regions.v[1]->bVirtual);
    EXPECT_TRUE(regions.v[2]->bVirtual);
    EXPECT_FALSE(regions.v[3]->bVirtual);
    EXPECT_EQ(std::string(49, 'n'), regions.v[3]->szName);

    Owned<_hcrecord_Info> devices;
    GetVideoDev_FromDB(&conn, "select * from device where id=9", devices.v);
    ASSERT_EQ(1u, devices.v.size());
    const _msg_recorddevice_base& d = devices.v[0]->dev;
    EXPECT_EQ(2, d.nHardType);  // 8-bit fields keep the low byte
    EXPECT_EQ(3, d.nServerType);
    EXPECT_EQ(0, d.nSetAlarm);
    EXPECT_EQ(int16_t(70000), d.nMatixPos);
    EXPECT_EQ(0xFFFFFFFFu, d.nStatus);
    EXPECT_STREQ("", d.szSerial);

    // Columns the statement does not return leave their fields zero.
    Owned<_hcrecord_Info> partial;
    GetVideoDev_FromDB(&conn, "select id, name from device where id = 1", partial.v);
    ASSERT_EQ(1u, partial.v.size());
    EXPECT_STREQ("Gate recorder", partial.v[0]->dev.szName);
    EXPECT_STREQ("", partial.v[0]->dev.szIP);
    EXPECT_EQ(0, partial.v[0]->dev.nPort);

    // A failing statement or a null connection leaves the vector alone.
    GetVideoDev_FromDB(&conn, "select * from nowhere", partial.v);
    GetVideoDev_FromDB(nullptr, "select * from device", partial.v);
    GetVideoDev_FromDB(&conn, nullptr, partial.v);
    EXPECT_EQ(1u, partial.v.size());
}

TEST_F(CatalogDbTest, LoadsServerChannelsAndGroups) {
    Owned<_msg_serverchan_base> chans;
    GetSystemServerChan_FromDB(&conn, "select * from serverchan where id = 2", chans.v);
    ASSERT_EQ(1u, chans.v.size());
    EXPECT_EQ(3, chans.v[0]->nDevID);
    EXPECT_EQ(2, chans.v[0]->nChan);
    EXPECT_EQ(1, chans.v[0]->nChanType);  // from port2
    EXPECT_STREQ("34010000001310000004", chans.v[0]->szCode);

    Owned<_msg_serverchan_v2> byIndex;
    GetServerChan_FromDB(&conn, "select * from serverchan where serverid = 3", byIndex.v);
    ASSERT_EQ(2u, byIndex.v.size());
    EXPECT_EQ(byIndex.v[1], GetChanInfoByServer(byIndex.v, 3, 2, 12345));
    EXPECT_EQ(nullptr, GetChanInfoByServer(byIndex.v, 1, 2, 0));

    _msg_serverchan_base one{};
    EXPECT_TRUE(GetServerChan_FromDB(1, &one));
    EXPECT_STREQ("34010400001310000001", one.szCode);
    EXPECT_FALSE(GetServerChan_FromDB(99, &one));
    EXPECT_FALSE(GetServerChan_FromDB(1, nullptr));

    Owned<_msg_devgroup_base> groups;
    Owned<_msg_changroup_base> members;
    GetDevGroup_FromDB(&conn, "select * from devicegroup where grouptype = 1", groups.v);
    GetDevGroupChan_FromDB(&conn,
                           "select * from devicegroupchan c inner join devicegroup g on "
                           "g.id = c.groupid where g.grouptype = 1",
                           members.v);
    ASSERT_EQ(2u, groups.v.size());
    EXPECT_EQ(1, groups.v[1]->nParentID);
    EXPECT_EQ(groups.v[1], GetGroupFromCode("34020000002160000010", groups.v));
    EXPECT_EQ(nullptr, GetGroupFromCode("", groups.v));
    EXPECT_EQ(groups.v[0], GetGroup(1, groups.v));
    ASSERT_EQ(3u, members.v.size());
    const _msg_changroup_base* m = members.v[2];
    EXPECT_EQ(1, m->nGroupID);
    EXPECT_EQ(2, m->nDevID);
    EXPECT_EQ(0, m->nChanID);
}

TEST_F(CatalogDbTest, DomainWithChildrenForUrlResolution) {
    Owned<domain_base> list;
    EXPECT_EQ(0, GetDomainSeverFromDB("no-such-domain", list.v));
    EXPECT_TRUE(list.v.empty());
    // A quote in the serial is data, not SQL.
    EXPECT_EQ(0, GetDomainSeverFromDB("x' or '1'='1", list.v));
    EXPECT_TRUE(list.v.empty());

    ASSERT_EQ(1, GetDomainSeverFromDB("34010400002000000001", list.v));
    ASSERT_EQ(1u, list.v.size());
    EXPECT_STREQ("2", list.v[0]->szSerial);  // the row id, not the serial
    EXPECT_EQ(7080, list.v[0]->nHttpPort);
    EXPECT_EQ(DOWN_DOMAIN, list.v[0]->nType);

    ReleaseArray(list.v);
    ASSERT_TRUE(db.Exec("update domaininfo set httpport = 9090, p_code = 'child-own'"
                        " where id = 2; update domaininfo set p_code = 'top' where id = 1"));
    ASSERT_EQ(1, GetDomainSeverFromDB("34020000002000000001", list.v));
    ASSERT_EQ(2u, list.v.size());
    EXPECT_STREQ("1", list.v[0]->szSerial);
    EXPECT_EQ(7080, list.v[0]->nHttpPort);
    EXPECT_STREQ("2", list.v[1]->szSerial);
    EXPECT_EQ(9090, list.v[1]->nHttpPort);             // children read httpport
    EXPECT_STREQ("top", list.v[1]->szParentCode);      // inherited from the found domain
    EXPECT_STREQ("192.168.10.50", list.v[1]->szIP);
}

// ---- Lookups and walks over records built in memory ----

_msg_region_base Region(int id, int parent, const char* code = "") {
    _msg_region_base r{};
    r.nID = id;
    r.nParentID = parent;
    std::strcpy(r.szSerial, code);
    return r;
}

std::vector<int> Ids(const std::vector<_msg_region_base*>& v) {
    std::vector<int> ids;
    for (auto* r : v) ids.push_back(r->nID);
    return ids;
}

TEST(CatalogLookup, FirstMatchInVectorOrder) {
    _hcrecord_Info a{}, b{};
    std::strcpy(a.dev.szCode, "X");
    std::strcpy(a.dev.szSerial, "SA");
    std::strcpy(b.dev.szSerial, "X");
    a.lLoginID = -1;
    b.lLoginID = 7;
    // Code and serial are tried on each record before moving on.
    EXPECT_EQ(&b, GetDeviceInfoByCode({&b, &a}, "X"));
    EXPECT_EQ(&a, GetDeviceInfoByCode({&a, &b}, "X"));
    EXPECT_EQ(&b, GetDeviceInfoBySerial({&a, &b}, "X"));
    EXPECT_EQ(nullptr, GetDeviceInfoByLogin({&a, &b}, -1));
    EXPECT_EQ(&b, GetDeviceInfoByLogin({&a, &b}, 7));

    _sysserver_info s1{}, s2{};
    s1.svr.nRegionID = 3;
    s1.svr.nServerType = SERVER_INTV;
    s2.svr.nRegionID = 3;
    s2.svr.nServerType = SERVER_MEDIA;
    s1.lLoginID = s2.lLoginID = -1;
    EXPECT_EQ(&s2, GetSystemSvrByRegion(3, SERVER_MEDIA, {&s1, &s2}));
    EXPECT_EQ(nullptr, GetSystemSvrByLogin(-1, {&s1, &s2}));

    _msg_video_record_base c{};
    c.nDeviceID = 4;
    c.nChan = 2;
    c.nType = 1;
    std::strcpy(c.szSerial, "CS");
    EXPECT_EQ(&c, GetVideoChanInfoByDev({&c}, 4, 2, 1));
    EXPECT_EQ(nullptr, GetVideoChanInfoByDev({&c}, 4, 2, 0));
    EXPECT_EQ(&c, GetVideoChanInfoByCode({&c}, "CS"));
    EXPECT_EQ(nullptr, GetVideoChanInfoByCode({&c}, nullptr));
}

TEST(CatalogWalk, TreeWalksOnAProperTree) {
    // 1 -> {2 -> {4, 5}, 3}; vector order decides sibling order.
    _msg_region_base r1 = Region(1, 0), r2 = Region(2, 1), r3 = Region(3, 1), r4 = Region(4, 2),
                     r5 = Region(5, 2);
    std::vector<_msg_region_base*> all{&r5, &r1, &r3, &r2, &r4};
    EXPECT_EQ(&r1, GetRootRegion(all));

    std::vector<_msg_region_base*> out;
    EXPECT_EQ(1, GetRegions(&r1, all, out));
    EXPECT_EQ((std::vector<int>{3, 2, 5, 4}), Ids(out));

    out.clear();
    EXPECT_EQ(1, GetParengRegionsEx(&r4, all, out));
    EXPECT_EQ((std::vector<int>{4, 2, 1}), Ids(out));
    EXPECT_EQ(1, GetParengRegionsEx(&r5, all, out));  // no duplicates
    EXPECT_EQ((std::vector<int>{4, 2, 1, 5}), Ids(out));

    out.clear();
    EXPECT_EQ(1, GetParengRegions(&r4, all, out));
    EXPECT_EQ((std::vector<int>{1, 2}), Ids(out));

    EXPECT_EQ(0, GetRegions(nullptr, all, out));
    EXPECT_EQ(0, GetRegions(&r1, {}, out));
    EXPECT_EQ(0, GetParengRegionsEx(nullptr, all, out));
    EXPECT_EQ(nullptr, GetRootRegion({}));
}

TEST(CatalogWalk, CyclesEndTheWalks) {
    // 1 <-> 2 form a cycle with 3 hanging below 2; 7 is its own parent.
    _msg_region_base r1 = Region(1, 2), r2 = Region(2, 1), r3 = Region(3, 2), r7 = Region(7, 7);
    std::vector<_msg_region_base*> all{&r1, &r2, &r3};
    EXPECT_EQ(nullptr, GetRootRegion(all));
    EXPECT_EQ(nullptr, GetRootRegion({&r7}));

    std::vector<_msg_region_base*> out;
    EXPECT_EQ(1, GetRegions(&r1, all, out));
    EXPECT_EQ((std::vector<int>{2, 3}), Ids(out));
    out.clear();
    EXPECT_EQ(1, GetRegions(&r7, {&r7}, out));
    EXPECT_TRUE(out.empty());

    EXPECT_EQ(1, GetParengRegionsEx(&r3, all, out));
    EXPECT_EQ((std::vector<int>{3, 2, 1}), Ids(out));
    out.clear();
    EXPECT_EQ(1, GetParengRegions(&r3, all, out));
    EXPECT_EQ(2u, out.size());
    out.clear();
    EXPECT_EQ(1, GetParengRegions(&r7, {&r7}, out));
    EXPECT_TRUE(out.empty());
}

}  // namespace
