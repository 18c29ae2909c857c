#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
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

// Spot checks favour columns whose names differ from the fields they fill.
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
    ASSERT_EQ((std::vector<size_t>{5, 3, 4, 3, 3, 2}),
              (std::vector<size_t>{regions.v.size(), devices.v.size(), chans.v.size(),
                                   servers.v.size(), domains.v.size(), regs.v.size()}));

    EXPECT_STREQ("34010000002160000001", regions.v[3]->szSerial);
    EXPECT_STREQ("nvr12345", devices.v[0]->dev.szPass);
    const _msg_video_record_base& c = *chans.v[1];
    EXPECT_EQ(std::make_tuple(1, 2, 1), std::make_tuple(c.nDeviceID, c.nChan, c.nType));
    EXPECT_STREQ("16:9", c.szScale);
    EXPECT_STREQ("admin", c.szUser);
    EXPECT_EQ(SERVER_INTV, servers.v[2]->svr.nServerType);
    EXPECT_EQ(8090, servers.v[2]->svr.nHPort);
    const _msg_domain_base& dm = domains.v[1]->svr;
    EXPECT_EQ(std::make_tuple(int(DOWN_DOMAIN), 7080, 554, 1, 65536),
              std::make_tuple(int(dm.nType), int(dm.nHttpPort), int(dm.nPort2), int(dm.nParentID),
                              int(dm.nState)));
    EXPECT_TRUE(dm.bAuth);
    EXPECT_STREQ("34020000002000000001", dm.szParentCode);
    EXPECT_EQ(SERVER_NODE, regs.v[1]->type);
    EXPECT_STREQ("34020000002030000001", regs.v[1]->serial);
}

TEST_F(CatalogDbTest, ConvertsAndTruncatesColumnValues) {
    ASSERT_TRUE(
        db.Exec("insert into region (id, name, parentid, usecode) values (10, 'on', 1, 1),"
                " (11, 'off', 1, 0), (12, 'null', 1, NULL), (13, repeat('n', 80), 1, 7);"
                "insert into device (id, hardwaretype, ftype, setalarm, matrixindex, status, sn)"
                " values (9, 258, 515, 256, 70000, -1, NULL)"));
    Owned<_msg_region_base> regions;
    GetRegion_FromDB(&conn, "select * from region where id >= 10 order by id", regions.v);
    ASSERT_EQ(4u, regions.v.size());
    const bool isVirtual[] = {false, true, true, false};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(isVirtual[i], regions.v[i]->bVirtual) << i;
    EXPECT_EQ(std::string(49, 'n'), regions.v[3]->szName);

    Owned<_hcrecord_Info> devices;
    GetVideoDev_FromDB(&conn, "select * from device where id=9", devices.v);
    ASSERT_EQ(1u, devices.v.size());
    const _msg_recorddevice_base& d = devices.v[0]->dev;
    // Narrow fields keep the low bits; the status is the column's bit pattern.
    EXPECT_EQ(std::make_tuple(2, 3, 0, int(int16_t(70000)), 0xFFFFFFFFu),
              std::make_tuple(int(d.nHardType), int(d.nServerType), int(d.nSetAlarm),
                              int(d.nMatixPos), d.nStatus));
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
    EXPECT_EQ(1, chans.v[0]->nChanType);  // from port2
    EXPECT_STREQ("34010000001310000004", chans.v[0]->szCode);

    Owned<_msg_serverchan_v2> byIndex;
    GetServerChan_FromDB(&conn, "select * from serverchan where serverid = 3", byIndex.v);
    ASSERT_EQ(2u, byIndex.v.size());
    EXPECT_EQ(byIndex.v[1], GetChanInfoByServer(byIndex.v, 3, 2, 12345));

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
    EXPECT_EQ(groups.v[0], GetGroup(1, groups.v));
    ASSERT_EQ(3u, members.v.size());
    const _msg_changroup_base* m = members.v[2];
    EXPECT_EQ(std::make_tuple(1, 2, 0), std::make_tuple(m->nGroupID, m->nDevID, m->nChanID));
}

TEST_F(CatalogDbTest, DomainWithChildrenForUrlResolution) {
    Owned<domain_base> list;
    // A quote in the serial is data, not SQL.
    for (const char* serial : {"no-such-domain", "x' or '1'='1"}) {
        EXPECT_EQ(0, GetDomainSeverFromDB(serial, list.v)) << serial;
        EXPECT_TRUE(list.v.empty()) << serial;
    }
    ASSERT_EQ(1, GetDomainSeverFromDB("34010400002000000001", list.v));
    ASSERT_EQ(1u, list.v.size());
    EXPECT_STREQ("2", list.v[0]->szSerial);  // the row id, not the serial
    EXPECT_EQ(7080, list.v[0]->nHttpPort);
    EXPECT_EQ(DOWN_DOMAIN, list.v[0]->nType);

    ReleaseArray(list.v);
    ASSERT_TRUE(
        db.Exec("update domaininfo set httpport = 9090, p_code = 'child-own'"
                " where id = 2; update domaininfo set p_code = 'top' where id = 1"));
    ASSERT_EQ(1, GetDomainSeverFromDB("34020000002000000001", list.v));
    ASSERT_EQ(2u, list.v.size());
    EXPECT_STREQ("1", list.v[0]->szSerial);
    EXPECT_EQ(7080, list.v[0]->nHttpPort);
    EXPECT_STREQ("2", list.v[1]->szSerial);
    EXPECT_EQ(9090, list.v[1]->nHttpPort);         // children read httpport
    EXPECT_STREQ("top", list.v[1]->szParentCode);  // inherited from the found domain
    EXPECT_STREQ("192.168.10.50", list.v[1]->szIP);
}

// ---- Lookups and walks over records built in memory ----

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
    EXPECT_EQ(nullptr, GetDeviceInfoByLogin({&a, &b}, -1));  // -1 means "not logged in"
    EXPECT_EQ(&b, GetDeviceInfoByLogin({&a, &b}, 7));
    EXPECT_EQ(nullptr, GetDeviceInfoByCode({&a, &b}, nullptr));  // b's code is empty
}

using RegionList = std::vector<_msg_region_base*>;

_msg_region_base Region(int id, int parent) {
    _msg_region_base r{};
    r.nID = id;
    r.nParentID = parent;
    return r;
}

std::vector<int> Ids(const RegionList& v) {
    std::vector<int> ids;
    for (auto* r : v) ids.push_back(r->nID);
    return ids;
}

// One walk from `from` into a fresh list; the ids it produced.
template <class WalkFn>
std::vector<int> Walk(WalkFn walk, _msg_region_base* from, const RegionList& all) {
    RegionList out;
    EXPECT_EQ(1, walk(from, all, out));
    return Ids(out);
}

TEST(CatalogWalk, TreeWalksOnAProperTree) {
    // 1 -> {2 -> {4, 5}, 3}; vector order decides sibling order.
    _msg_region_base r1 = Region(1, 0), r2 = Region(2, 1), r3 = Region(3, 1), r4 = Region(4, 2),
                     r5 = Region(5, 2);
    RegionList all{&r5, &r1, &r3, &r2, &r4};
    EXPECT_EQ(&r1, GetRootRegion(all));
    EXPECT_EQ((std::vector<int>{3, 2, 5, 4}), Walk(GetRegions, &r1, all));
    EXPECT_EQ((std::vector<int>{1, 2}), Walk(GetParengRegions, &r4, all));

    RegionList out;
    EXPECT_EQ(1, GetParengRegionsEx(&r4, all, out));
    EXPECT_EQ((std::vector<int>{4, 2, 1}), Ids(out));
    EXPECT_EQ(1, GetParengRegionsEx(&r5, all, out));  // no duplicates
    EXPECT_EQ((std::vector<int>{4, 2, 1, 5}), Ids(out));

    EXPECT_EQ(0, GetRegions(nullptr, all, out));
    EXPECT_EQ(0, GetRegions(&r1, {}, out));
    EXPECT_EQ(0, GetParengRegionsEx(nullptr, all, out));
    EXPECT_EQ(nullptr, GetRootRegion({}));
}

TEST(CatalogWalk, CyclesEndTheWalks) {
    // 1 <-> 2 form a cycle with 3 hanging below 2; 7 is its own parent.
    _msg_region_base r1 = Region(1, 2), r2 = Region(2, 1), r3 = Region(3, 2), r7 = Region(7, 7);
    RegionList all{&r1, &r2, &r3}, self{&r7};
    EXPECT_EQ(nullptr, GetRootRegion(all));
    EXPECT_EQ(nullptr, GetRootRegion(self));
    EXPECT_EQ((std::vector<int>{2, 3}), Walk(GetRegions, &r1, all));
    EXPECT_EQ((std::vector<int>{3, 2, 1}), Walk(GetParengRegionsEx, &r3, all));
    EXPECT_EQ(2u, Walk(GetParengRegions, &r3, all).size());
    EXPECT_TRUE(Walk(GetRegions, &r7, self).empty());
    EXPECT_TRUE(Walk(GetParengRegions, &r7, self).empty());
}

}  // namespace
