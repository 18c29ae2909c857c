#include "mysql/nodecatalog.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "support/catalogbuilder.h"
#include "support/testdb.h"

namespace {

using cmstest::CatalogBuilder;
using Rows = std::vector<std::string>;

int32_t I32(const char* p) {
    int32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// A packed list read back one slot per row, "code<parent type @domain", with every slot
// checked for zero fill: bytes after each text, the padding and the unset fields.
// A slot without a code (counted, not written) must be zero throughout and reads "-".
Rows Unpack(const char* buf, int len) {
    const size_t fields[][2] = {{0, 200},  {200, 50}, {250, 50}, {300, 50}, {360, 50},
                                {410, 50}, {460, 50}, {510, 50}, {560, 50}, {610, 22}};
    Rows rows;
    for (int at = 0; at + NODE_INFO_SIZE <= len; at += NODE_INFO_SIZE) {
        const char* s = buf + at;
        for (const auto& f : fields)  // 610..631: padding and the two doubles
            for (size_t b = strnlen(s + f[0], f[1]); b < f[1]; ++b)
                EXPECT_EQ(0, s[f[0] + b]) << "slot " << at / NODE_INFO_SIZE << " byte " << f[0] + b;
        EXPECT_EQ(0, s[350] | s[351] | I32(s + 636));
        if (!s[250]) {
            EXPECT_EQ(std::string(NODE_INFO_SIZE, '\0'), std::string(s, NODE_INFO_SIZE));
            rows.push_back("-");
            continue;
        }
        rows.push_back(std::string(s + 250) + "<" + (s + 460) + " " + std::to_string(I32(s + 632)) +
                       " @" + (s + 560));
    }
    return rows;
}

struct Packed {
    char* buf = nullptr;
    int len = -7;
    ~Packed() { delete[] buf; }
};

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
    ASSERT_EQ(1, GetServerNodeFromRegion("UP", 0, p.buf, p.len));
    EXPECT_EQ(
        Rows({"R1<R0 0 @", "R2<R1 0 @", "R4<R0 0 @", "C100<R2 1 @", "C200<R2 3 @", "C202<R4 3 @"}),
        Unpack(p.buf, p.len));
    const char* dev = p.buf + 3 * NODE_INFO_SIZE;
    EXPECT_STREQ("east", p.buf);
    EXPECT_STREQ("gate", dev);
    EXPECT_STREQ("DEV100", dev + 200);
    EXPECT_STREQ("10.0.0.5", dev + 300);
    EXPECT_EQ(8000, I32(dev + 352));
    EXPECT_EQ(-56, I32(dev + 356));  // factory type 200 as a signed byte
    EXPECT_STREQ("u", dev + 360);
    EXPECT_STREQ("p", dev + 410);
    EXPECT_STREQ("CH200", dev + NODE_INFO_SIZE + 200);  // channel serial, device address
    EXPECT_STREQ("10.0.0.5", dev + NODE_INFO_SIZE + 300);

    Packed flat;
    ASSERT_EQ(1, GetServerNodeFromRegion("UP", 1, flat.buf, flat.len));
    EXPECT_EQ(Rows({"C100<R2 1 @", "C200<R2 3 @", "C202<R4 3 @"}), Unpack(flat.buf, flat.len));

    CatalogBuilder empty;  // no root region
    Packed none;
    EXPECT_EQ(0, GetServerNodeFromRegion("UP", 0, none.buf, none.len));
    EXPECT_EQ(nullptr, none.buf);
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
    ReleaseArray(shares);

    // Mode 0: the chains of needed regions in front, nearest first; device 101 has no
    // code, so its slot is counted but left zero.
    Packed p;
    ASSERT_EQ(1, GetServerNodeFromShare("UP1", 0, p.buf, p.len));
    EXPECT_EQ(Rows({"R2<R1 0 @UP1", "R1<R0 0 @UP1", "R0< 0 @UP1", "R4<R0 0 @UP1", "C100<R2 2 @UP1",
                    "C200<R2 3 @UP1", "-"}),
              Unpack(p.buf, p.len));
    // Mode 1: members only, each naming the domain as its parent.
    Packed flat;
    ASSERT_EQ(1, GetServerNodeFromShare("UP1", 1, flat.buf, flat.len));
    EXPECT_EQ(Rows({"C100<UP1 2 @UP1", "C200<UP1 3 @UP1", "-"}), Unpack(flat.buf, flat.len));

    // No shared nodes (or a hostile code): success with nothing allocated.
    for (const char* code : {"EMPTY", "UNKNOWN", "x' or '1'='1"}) {
        Packed none;
        EXPECT_EQ(1, GetServerNodeFromShare(code, 0, none.buf, none.len)) << code;
        EXPECT_TRUE(none.buf == nullptr && none.len == -7) << code;
    }
}

TEST_F(NodeCatalogTest, GroupListPutsRegionFoldersThenGroupFolders) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(
        db.Exec("insert into devicegroup(id, name, parentId, regionid, scode, grouptype) values "
                "(1, 'top', 0, 3, 'G1', 1), (2, 'mid', 1, 3, 'G2', 1), (3, 'low', 2, 3, 'G3', 1), "
                "(9, 'other', 0, 3, 'G9', 2);"
                "insert into devicegroupchan(groupid, deviceid, DeviceChanId) values "
                "(3, 100, 0), (3, 100, 200), (2, 101, 0), (9, 100, 0), (3, 999, 0)"));
    Packed p;
    ASSERT_EQ(1, GetServerNodeFromGroup("UP2", p.buf, p.len));
    EXPECT_EQ(Rows({"R0< 0 @UP2", "R1<R0 0 @UP2", "R2<R1 0 @UP2", "G1<R2 0 @UP2", "G2<G1 0 @UP2",
                    "G3<G2 0 @UP2", "C100<G3 1 @UP2", "C200<G3 2 @UP2", "-"}),
              Unpack(p.buf, p.len));
    EXPECT_STREQ("city", p.buf + 2 * NODE_INFO_SIZE);
    EXPECT_STREQ("top", p.buf + 3 * NODE_INFO_SIZE);
}

TEST(NodeCatalogHelpers, BadInputGroupCyclesAndExactSerials) {
    std::vector<_msg_region_base*> regions;
    std::vector<_msg_devgroup_base*> groups;
    for (int id : {1, 2}) {
        groups.push_back(new _msg_devgroup_base());
        groups.back()->nID = id;
        groups.back()->nParentID = 3 - id;  // 1 <-> 2
        std::snprintf(groups.back()->szCode, sizeof(groups.back()->szCode), "G%d", id);
    }
    std::vector<node_info*> regionNodes, groupNodes;
    node_info node{};
    EXPECT_EQ(0, AppendParentNodes(&node, regions, groups, regionNodes, groupNodes));  // no code
    std::snprintf(node.szCode, sizeof(node.szCode), "N");
    std::snprintf(node.szParentCode, sizeof(node.szParentCode), "G1");
    EXPECT_EQ(1, AppendParentNodes(&node, regions, groups, regionNodes, groupNodes));
    EXPECT_EQ(2u, groupNodes.size());
    ReleaseArray(groupNodes);
    ReleaseArray(groups);

    std::vector<_dev_register*> regs{new _dev_register()};
    std::memset(regs[0]->serial, 'S', sizeof(regs[0]->serial));  // no terminator
    EXPECT_EQ(regs[0], GetRegMediaFromArray(regs, std::string(32, 'S').c_str()));
    EXPECT_EQ(nullptr, GetRegMediaFromArray(regs, std::string(33, 'S').c_str()));
    ReleaseArray(regs);
}

}  // namespace
