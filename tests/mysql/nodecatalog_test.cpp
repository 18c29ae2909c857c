#include "mysql/nodecatalog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "support/catalogbuilder.h"
#include "support/testdb.h"

namespace {

using cmstest::CatalogBuilder;

// One packed node list, owned.
struct Packed {
    int result = -1;
    char* buf = nullptr;
    int len = -7;
    ~Packed() { delete[] buf; }
    int Count() const { return len / NODE_INFO_SIZE; }
    const char* Slot(int i) const { return buf + i * NODE_INFO_SIZE; }
    std::string Code(int i) const { return Slot(i) + 250; }
    std::string Parent(int i) const { return Slot(i) + 460; }
    std::string Domain(int i) const { return Slot(i) + 560; }
    int32_t I32(int i, size_t off) const {
        int32_t v;
        std::memcpy(&v, Slot(i) + off, 4);
        return v;
    }
    bool SlotIsZero(int i) const {
        for (int b = 0; b < NODE_INFO_SIZE; ++b)
            if (Slot(i)[b]) return false;
        return true;
    }
};

// The text fields of a slot: bytes after each text are zero, as are padding and the unset
// doubles and city code.
void ExpectZeroFill(const Packed& p, int i) {
    const struct { size_t off, size; } texts[] = {{0, 200},   {200, 50}, {250, 50}, {300, 50},
                                                  {360, 50},  {410, 50}, {460, 50}, {510, 50},
                                                  {560, 50}};
    const char* s = p.Slot(i);
    for (const auto& t : texts)
        for (size_t b = strnlen(s + t.off, t.size); b < t.size; ++b)
            ASSERT_EQ(0, s[t.off + b]) << "slot " << i << " byte " << t.off + b;
    for (size_t b : {350, 351, 610, 611, 612, 613, 614, 615}) EXPECT_EQ(0, s[b]) << b;
    for (size_t b = 616; b < 632; ++b) EXPECT_EQ(0, s[b]) << b;
}

// Root R0 > east R1 > city R2; west R4 under the root. Device 100 (code C100) in the
// city with channels 200 (code) and 201 (no code); device 101 (no code) and 102 (not a
// camera) in the west, channel 202 of device 101 with a code.
class NodeCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        cat.Region(1, 0, "R0", "root");
        cat.Region(2, 1, "R1", "east");
        cat.Region(3, 2, "R2", "city");
        cat.Region(4, 1, "R4", "west");
        _hcrecord_Info* d = cat.Device(100, 3, "DEV100", "10.0.0.5", 8000, 200, "C100");
        std::snprintf(d->dev.szName, sizeof(d->dev.szName), "gate");
        cat.Device(101, 4, "DEV101", "10.0.0.6", 8000);
        cat.Device(102, 4, "DEV102", "10.0.0.7", 8000, 0, "C102")->dev.nHardType = 2;
        cat.Channel(200, 100, 1, "CH200", "C200");
        cat.Channel(201, 100, 2, "CH201");
        cat.Channel(202, 101, 1, "CH202", "C202");
    }
    CatalogBuilder cat;
};

TEST_F(NodeCatalogTest, WholeCatalogueWithAndWithoutFolders) {
    Packed p;
    p.result = GetServerNodeFromRegion("UP", 0, p.buf, p.len);
    ASSERT_EQ(1, p.result);
    ASSERT_EQ(6, p.Count());
    const char* codes[] = {"R1", "R2", "R4", "C100", "C200", "C202"};
    const char* parents[] = {"R0", "R1", "R0", "R2", "R2", "R4"};
    const int types[] = {0, 0, 0, 1, 3, 3};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(codes[i], p.Code(i));
        EXPECT_EQ(parents[i], p.Parent(i));
        EXPECT_EQ(types[i], p.I32(i, 632));
        EXPECT_EQ("", p.Domain(i));
        ExpectZeroFill(p, i);
    }
    EXPECT_STREQ("east", p.Slot(0));
    EXPECT_STREQ("gate", p.Slot(3));
    EXPECT_STREQ("DEV100", p.Slot(3) + 200);
    EXPECT_STREQ("10.0.0.5", p.Slot(3) + 300);
    EXPECT_EQ(8000, p.I32(3, 352));
    EXPECT_EQ(-56, p.I32(3, 356));  // factory type 200 as a signed byte
    EXPECT_STREQ("u", p.Slot(3) + 360);
    EXPECT_STREQ("p", p.Slot(3) + 410);
    EXPECT_STREQ("CH200", p.Slot(4) + 200);  // channel serial, device address
    EXPECT_STREQ("10.0.0.5", p.Slot(4) + 300);

    Packed devicesOnly;
    ASSERT_EQ(1, GetServerNodeFromRegion("UP", 1, devicesOnly.buf, devicesOnly.len));
    ASSERT_EQ(3, devicesOnly.Count());
    EXPECT_EQ("C100", devicesOnly.Code(0));
}

TEST(NodeCatalogEmpty, NoRootRegionFails) {
    CatalogBuilder cat;
    Packed p;
    EXPECT_EQ(0, GetServerNodeFromRegion("UP", 0, p.buf, p.len));
    EXPECT_EQ(nullptr, p.buf);
}

TEST_F(NodeCatalogTest, ShareListsInBothModes) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec(
        "insert into domaininfo(id, s_code) values (5, 'UP1'), (6, 'EMPTY');"
        "insert into domainsharenode(id, nodeid, nodetype, domainid) values "
        "(21, 100, 2, 5), (22, 101, 2, 5), (23, 200, 3, 5), (24, 999, 2, 5), (25, 100, 7, 5)"));

    std::vector<_msg_domain_chan_v2*> shares;
    ASSERT_EQ(1, GetDomainChanFromDB("UP1", shares));
    ASSERT_EQ(5u, shares.size());
    EXPECT_EQ(21, shares[0]->nID);  // the share row's id, not the domain's
    EXPECT_EQ(5, shares[0]->nDomainID);
    ReleaseArray(shares);

    // Mode 0: the chains of needed regions in front, nearest first.
    Packed p;
    ASSERT_EQ(1, GetServerNodeFromShare("UP1", 0, p.buf, p.len));
    ASSERT_EQ(7, p.Count());
    const char* codes[] = {"R2", "R1", "R0", "R4", "C100", "C200"};
    const char* parents[] = {"R1", "R0", "", "R0", "R2", "R2"};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(codes[i], p.Code(i));
        EXPECT_EQ(parents[i], p.Parent(i));
        EXPECT_EQ("UP1", p.Domain(i));
        ExpectZeroFill(p, i);
    }
    EXPECT_EQ(2, p.I32(4, 632));
    EXPECT_EQ(3, p.I32(5, 632));
    EXPECT_TRUE(p.SlotIsZero(6));  // device 101 has no code: counted, left zero

    // Mode 1: members only, each naming the domain as its parent.
    Packed flat;
    ASSERT_EQ(1, GetServerNodeFromShare("UP1", 1, flat.buf, flat.len));
    ASSERT_EQ(3, flat.Count());
    EXPECT_EQ("C100", flat.Code(0));
    EXPECT_EQ("UP1", flat.Parent(0));
    EXPECT_EQ("UP1", flat.Parent(1));
    EXPECT_TRUE(flat.SlotIsZero(2));

    // No shared nodes (or a hostile code): success with nothing allocated.
    for (const char* code : {"EMPTY", "UNKNOWN", "x' or '1'='1"}) {
        Packed none;
        EXPECT_EQ(1, GetServerNodeFromShare(code, 0, none.buf, none.len)) << code;
        EXPECT_EQ(nullptr, none.buf);
        EXPECT_EQ(-7, none.len);
    }
}

TEST_F(NodeCatalogTest, GroupListPutsRegionFoldersThenGroupFolders) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec(
        "insert into devicegroup(id, name, parentId, regionid, scode, grouptype) values "
        "(1, 'top', 0, 3, 'G1', 1), (2, 'mid', 1, 3, 'G2', 1), (3, 'low', 2, 3, 'G3', 1), "
        "(9, 'other', 0, 3, 'G9', 2);"
        "insert into devicegroupchan(groupid, deviceid, DeviceChanId) values "
        "(3, 100, 0), (3, 100, 200), (2, 101, 0), (9, 100, 0), (3, 999, 0)"));
    Packed p;
    ASSERT_EQ(1, GetServerNodeFromGroup("UP2", p.buf, p.len));
    ASSERT_EQ(9, p.Count());
    const char* codes[] = {"R0", "R1", "R2", "G1", "G2", "G3", "C100", "C200"};
    const char* parents[] = {"", "R0", "R1", "R2", "G1", "G2", "G3", "G3"};
    const int types[] = {0, 0, 0, 0, 0, 0, 1, 2};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(codes[i], p.Code(i));
        EXPECT_EQ(parents[i], p.Parent(i));
        EXPECT_EQ(types[i], p.I32(i, 632));
        EXPECT_EQ("UP2", p.Domain(i));
        ExpectZeroFill(p, i);
    }
    EXPECT_STREQ("top", p.Slot(3));
    EXPECT_STREQ("city", p.Slot(2));
    EXPECT_TRUE(p.SlotIsZero(8));  // device 101: no code
}

TEST(AppendParentNodes, RefusesBadInputAndSurvivesCycles) {
    std::vector<_msg_region_base*> regions;
    std::vector<_msg_devgroup_base*> groups;
    for (int id : {1, 2}) {
        auto* g = new _msg_devgroup_base();
        g->nID = id;
        g->nParentID = 3 - id;  // 1 <-> 2
        std::snprintf(g->szCode, sizeof(g->szCode), "G%d", id);
        groups.push_back(g);
    }
    std::vector<node_info*> regionNodes, groupNodes;
    node_info node{};
    EXPECT_EQ(0, AppendParentNodes(&node, regions, groups, regionNodes, groupNodes));
    std::snprintf(node.szCode, sizeof(node.szCode), "N");
    std::snprintf(node.szParentCode, sizeof(node.szParentCode), "G9");
    EXPECT_EQ(0, AppendParentNodes(&node, regions, groups, regionNodes, groupNodes));
    std::snprintf(node.szParentCode, sizeof(node.szParentCode), "G1");
    EXPECT_EQ(1, AppendParentNodes(&node, regions, groups, regionNodes, groupNodes));
    ASSERT_EQ(2u, groupNodes.size());
    EXPECT_STREQ("G2", groupNodes[0]->szCode);
    EXPECT_EQ(nullptr, GetNodeFromCode(groupNodes, ""));
    EXPECT_EQ(groupNodes[1], GetNodeFromCode(groupNodes, "G1"));
    ReleaseArray(groupNodes);
    ReleaseArray(groups);
}

TEST(RegMediaLookup, ExactCaseSensitiveMatch) {
    std::vector<_dev_register*> regs;
    auto* r = new _dev_register();
    std::memset(r->serial, 'S', sizeof(r->serial));  // fills the array, no terminator
    regs.push_back(r);
    auto* r2 = new _dev_register();
    std::snprintf(r2->serial, sizeof(r2->serial), "abc");
    regs.push_back(r2);
    EXPECT_EQ(r, GetRegMediaFromArray(regs, std::string(32, 'S').c_str()));
    EXPECT_EQ(nullptr, GetRegMediaFromArray(regs, std::string(33, 'S').c_str()));
    EXPECT_EQ(r2, GetRegMediaFromArray(regs, "abc"));
    EXPECT_EQ(nullptr, GetRegMediaFromArray(regs, "ABC"));
    EXPECT_EQ(nullptr, GetRegMediaFromArray(regs, nullptr));
    ReleaseArray(regs);
}

}  // namespace
