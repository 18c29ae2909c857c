#include "comm/nodeurl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mysql/sqldbop.h"
#include "support/catalogbuilder.h"
#include "support/testdb.h"

namespace {

using cmstest::CatalogBuilder;

// Region 1 (root, media server TOP) > region 2 (media server MID) > region 3 (no server);
// region 4 sits directly under the root without a server.
class NodeUrlTest : public ::testing::Test {
protected:
    void SetUp() override {
        cat.Region(1, 0, "R0");
        cat.Region(2, 1, "R1");
        cat.Region(3, 2, "R2");
        cat.Region(4, 1, "R4");
        cat.Server(10, 1, SERVER_MEDIA, "MS-TOP", "10.1.1.1", 554);
        cat.Server(11, 2, SERVER_MEDIA, "MS-MID", "10.2.2.2", 5540);
    }
    static std::string Url(int id, int type, int expect = 1) {
        char url[kNodeUrlSize] = {0};
        EXPECT_EQ(expect, GetUrlFromNode(id, type, url)) << id << "/" << type;
        return url;
    }
    static std::string ConfigUrl(int id, int type, int expect = 1) {
        char url[kNodeUrlSize] = {0};
        EXPECT_EQ(expect, GetConfigUrlFromNode(id, type, url)) << id << "/" << type;
        return url;
    }
    static std::string Path(int region) {
        char out[200] = {0};
        CatalogReadLock lock(csCatalog);
        GetDevPath(m_arrRegionInfos, m_arrServerFromDB, m_arrMediaRegInfos, region, out,
                   sizeof(out));
        return out;
    }
    CatalogBuilder cat;
};

const std::string kRoute = "rtsp://10.1.1.1:554/10.2.2.2:5540";

TEST_F(NodeUrlTest, RoutePathRunsFromTheTopServerDown) {
    EXPECT_EQ("/10.1.1.1:554/10.2.2.2:5540", Path(3));
    EXPECT_EQ("/10.1.1.1:554", Path(4));
    EXPECT_EQ("", Path(77));
    // A registered media server is named by its serial.
    cat.Registration(10, 0, "MS-MID");
    EXPECT_EQ("/10.1.1.1:554/MS-MID", Path(3));
}

TEST_F(NodeUrlTest, RoutePathWalkEndsOnUnknownServerAndOnCycles) {
    cat.Registration(0, 999, "R1");  // region 2 registered with a server that is not known
    EXPECT_EQ("/10.2.2.2:5540", Path(3));
    cat.Region(5, 6, "C5");
    cat.Region(6, 5, "C6");
    cat.Server(12, 6, SERVER_MEDIA, "MS-C", "10.6.6.6", 1);
    EXPECT_FALSE(Path(5).empty());  // ends despite the parent cycle
}

TEST_F(NodeUrlTest, DirectDeviceAndChannelForms) {
    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000);
    cat.Device(101, 3, "DEV101", "10.0.0.6", 8000, 2);
    cat.Channel(200, 100, 3);
    cat.Channel(201, 100, 4, "CH201");
    EXPECT_EQ(kRoute + "/10.0.0.5:8000:u:p:0:1", Url(100, DEVICE_NODE));
    EXPECT_EQ(kRoute + "/10.0.0.6:8000:u:p:2:0", Url(101, DEVICE_NODE));
    EXPECT_EQ(kRoute + "/10.0.0.5:8000:u:p:0:3", Url(200, DEVCHAN_NODE));
    EXPECT_EQ(kRoute + "/10.0.0.5:8000:u:p:0:@CH201", Url(201, DEVCHAN_NODE));
}

TEST_F(NodeUrlTest, RegisteredDeviceTakesItsServersRegionAndLosesItsSerial) {
    _hcrecord_Info* d = cat.Device(300, 4, "DEV300", "192.168.100.7", 8000);
    cat.Channel(301, 300, 2, "CH301");
    cat.Registration(11, 300, "DEV300");
    // The channel keeps the device record intact and names the device serial.
    EXPECT_EQ(kRoute + "/DEV300/192.168.100.7:8000:u:p:0:@CH301", Url(301, DEVCHAN_NODE));
    // The device clears 40 bytes from its serial on: serial, type bytes, 7 address bytes.
    EXPECT_EQ(kRoute + "//:8000:u:p:0:1", Url(300, DEVICE_NODE));
    EXPECT_EQ('\0', d->dev.szSerial[0]);
    EXPECT_STREQ(".100.7", d->dev.szIP + 7);
    EXPECT_EQ(0, d->dev.nHardType);
}

TEST_F(NodeUrlTest, CascadedDomainDevices) {
    cat.Domain(50, "D-CODE", "172.16.0.1", 5060);
    cat.Device(400, 3, "DEV400", "10.0.0.9", 8000)->dev.nDomainID = 50;
    cat.Channel(401, 400, 1, "CH401");
    cat.Device(402, 3, "DEV402", "10.0.0.9", 8000)->dev.nDomainID = 51;
    EXPECT_EQ("rtsp://10.1.1.1:554/172.16.0.1:5060:du:dp:3:@DEV400", Url(400, DEVICE_NODE));
    EXPECT_EQ("rtsp://10.1.1.1:554/172.16.0.1:5060:du:dp:3:@CH401", Url(401, DEVCHAN_NODE));
    Url(402, DEVICE_NODE, 0);  // unknown domain
}

TEST(NodeUrlNoRootServer, CascadedDomainStartsWithTheDomain) {
    CatalogBuilder cat;
    cat.Region(1, 0, "R0");
    cat.Domain(50, "D-CODE", "172.16.0.1", 5060);
    cat.Device(400, 1, "DEV400", "10.0.0.9", 8000)->dev.nDomainID = 50;
    char url[kNodeUrlSize] = {0};
    EXPECT_EQ(1, GetUrlFromNode(400, DEVICE_NODE, url));
    EXPECT_STREQ("rtsp://172.16.0.1:5060:du:dp:3:@DEV400", url);
}

TEST_F(NodeUrlTest, MissingRecordsOtherTypesAndSmallBuffers) {
    cat.Device(300, 4, "DEV300", "10.0.0.5", 8000);
    cat.Channel(500, 999, 1);
    cat.Registration(77, 300, "DEV300");  // its server does not exist
    Url(9999, DEVICE_NODE, 0);
    Url(9999, DEVCHAN_NODE, 0);
    Url(500, DEVCHAN_NODE, 0);
    Url(300, DEVICE_NODE, 0);
    EXPECT_EQ(0, GetUrlFromNode(300, DEVICE_NODE, nullptr));

    char url[kNodeUrlSize] = "untouched";
    EXPECT_EQ(1, GetUrlFromNode(50, DOMAIN_NODE, url));
    EXPECT_STREQ("untouched", url);

    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000);
    char small[12];
    EXPECT_EQ(1, GetUrlFromNode(100, DEVICE_NODE, small, sizeof(small)));
    EXPECT_STREQ("rtsp://10.1", small);
}

TEST_F(NodeUrlTest, ServerChannelsAndServersFromTheDatabase) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(
        db.Exec("insert into serverchan(id, serverid, chan, sn) values "
                "(7, 12, 5, 'SC-CODE'), (8, 12, 6, ''), (9, 99, 1, '')"));
    cat.Server(12, 4, SERVER_INTV, "AS-12", "10.3.3.3", 9000);
    EXPECT_EQ("rtsp://10.1.1.1:554/10.3.3.3:9000:su:sp:3:@SC-CODE", Url(7, SERVERCHAN_NODE));
    EXPECT_EQ("rtsp://10.1.1.1:554/10.3.3.3:9000:su:sp:3:6", Url(8, SERVERCHAN_NODE));
    Url(9, SERVERCHAN_NODE, 0);   // server 99 unknown
    Url(70, SERVERCHAN_NODE, 0);  // no such row
    EXPECT_EQ("rtsp://10.1.1.1:554/10.3.3.3:9000", ConfigUrl(12, SERVER_NODE));

    // The registration's parentid names the region whose media server carries the node.
    cat.Registration(2, 12, "AS-12");
    EXPECT_EQ(kRoute + "/AS-12/10.3.3.3:9000:su:sp:3:@SC-CODE", Url(7, SERVERCHAN_NODE));
    EXPECT_EQ(kRoute + "/AS-12", ConfigUrl(12, SERVER_NODE));
    EXPECT_EQ(kRoute + "/AS-12", ConfigUrl(7, SERVERCHAN_NODE));

    EXPECT_EQ(DEVTYPE_INTV, GetDevTypeFromNode(7, SERVERCHAN_NODE));
    char text[12] = {0};
    EXPECT_EQ(1, GetSerialFromNode(8, SERVERCHAN_NODE, text));
    EXPECT_STREQ("6", text);
    EXPECT_EQ(0, GetSerialFromNode(70, SERVERCHAN_NODE, text));
}

TEST_F(NodeUrlTest, ConfigurationAddresses) {
    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000);
    cat.Device(300, 4, "DEV300", "10.0.0.7", 8000);
    cat.Channel(301, 300, 2);
    cat.Domain(50, "D-CODE", "172.16.0.1", 5060);
    EXPECT_EQ(kRoute + "/10.0.0.5:8000", ConfigUrl(100, DEVICE_NODE));
    EXPECT_EQ("rtsp://10.1.1.1:554/10.0.0.7:8000", ConfigUrl(301, DEVCHAN_NODE));
    EXPECT_EQ("rtsp://172.16.0.1:5060", ConfigUrl(50, DOMAIN_NODE));
    ConfigUrl(51, DOMAIN_NODE, 0);
    EXPECT_EQ("", ConfigUrl(1, REGION_NODE));

    // A registered channel: the colon-less form, with the (cleared) device serial.
    cat.Registration(2, 300, "DEV300");
    EXPECT_EQ("rtsp/10.1.1.1:554/10.2.2.2:5540/", ConfigUrl(301, DEVCHAN_NODE));
    // A registration whose parent region has no media server cannot be resolved.
    cat.Device(102, 3, "DEV102", "10.0.0.8", 8000);
    cat.Registration(3, 102, "DEV102");
    ConfigUrl(102, DEVICE_NODE, 0);
}

TEST_F(NodeUrlTest, LinkInfoByCode) {
    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000, 0, "DC100");
    cat.Device(101, 3, "", "10.0.0.6", 8000, 2, "DC101");
    cat.Channel(201, 100, 4, "CH201", "C201");
    cat.Domain(50, "D-CODE", "172.16.0.1", 5060)->svr.nLinkMode = 2;
    cat.Domain(51, "REG-CODE", "172.16.0.2", 5060, REG_DOMIAN);
    cat.Device(400, 3, "DEV400", "10.0.0.9", 8000, 0, "DC400")->dev.nDomainID = 50;
    cat.Device(401, 3, "DEV401", "10.0.0.9", 8000, 0, "DC401")->dev.nDomainID = 51;

    _msg_link_info link{};
    ASSERT_EQ(1, GetLinkInfoFromCode("C201", &link));
    EXPECT_STREQ("C201", link.szCode);
    EXPECT_EQ(kRoute + "/10.0.0.5:8000:u:p:0:@CH201", link.szDirect);
    EXPECT_EQ(0, link.nLinkMode);

    link = {};
    ASSERT_EQ(1, GetLinkInfoFromCode("DC100", &link));
    EXPECT_EQ(kRoute + "/10.0.0.5:8000:u:p:0:@DEV100", link.szDirect);
    link = {};
    ASSERT_EQ(1, GetLinkInfoFromCode("DC101", &link));
    EXPECT_EQ(kRoute + "/10.0.0.6:8000:u:p:2:0", link.szDirect);

    link = {};
    ASSERT_EQ(1, GetLinkInfoFromCode("DC400", &link));
    EXPECT_STREQ("D-CODE", link.szDomainCode);
    EXPECT_EQ(2, link.nLinkMode);
    EXPECT_STREQ("", link.szDirect);
    link = {};
    ASSERT_EQ(1, GetLinkInfoFromCode("DC401", &link));
    EXPECT_STREQ("DEV401", link.szDomainCode);  // a registered platform: the device serial

    EXPECT_EQ(0, GetLinkInfoFromCode("nothing", &link));
    EXPECT_EQ(0, GetLinkInfoFromCode(nullptr, &link));
}

TEST_F(NodeUrlTest, DeviceTypesAndChannelNumbers) {
    cat.Server(12, 1, SERVER_STORE, "ST", "10.9.9.9", 1);
    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000)->dev.byResType = 4;
    cat.Device(101, 3, "DEV101", "10.0.0.6", 8000);
    cat.Channel(200, 100, 3);
    EXPECT_EQ(DEVTYPE_RECORD, GetDevTypeFromNode(12, SERVER_NODE));
    EXPECT_EQ(DEVTYPE_UNKNOWN, GetDevTypeFromNode(10, SERVER_NODE));  // media server
    EXPECT_EQ(DEVTYPE_INTV, GetDevTypeFromNode(100, DEVICE_NODE));
    EXPECT_EQ(DEVTYPE_UNKNOWN, GetDevTypeFromNode(101, DEVICE_NODE));
    EXPECT_EQ(DEVTYPE_INTV, GetDevTypeFromNode(200, DEVCHAN_NODE));
    EXPECT_EQ(DEVTYPE_UNKNOWN, GetDevTypeFromNode(999, DEVCHAN_NODE));

    char text[12] = "keep";
    EXPECT_EQ(1, GetSerialFromNode(100, DEVICE_NODE, text));
    EXPECT_STREQ("keep", text);
    EXPECT_EQ(1, GetSerialFromNode(200, DEVCHAN_NODE, text));
    EXPECT_STREQ("3", text);
    EXPECT_EQ(0, GetSerialFromNode(999, DEVCHAN_NODE, text));
    EXPECT_EQ(0, GetSerialFromNode(200, DEVCHAN_NODE, nullptr));
}

TEST(RtspTemplate, ExpandsKnownNamesOnly) {
    char url[256];
    ASSERT_EQ(1, GetRtspUrl(url, "{ip}:{port}/Streaming/Channels/{chan}0{stream}", "10.0.0.5", 554,
                            "u", "p", 1, 2));
    EXPECT_STREQ("rtsp://10.0.0.5:554/Streaming/Channels/102", url);
    ASSERT_EQ(1, GetRtspUrl(url, "{user}:{pass}@{ip}:{port}/{other}live", "h", 0, "u", "p", 1, 0));
    EXPECT_STREQ("rtsp://u:p@h:/live", url);
    ASSERT_EQ(1, GetRtspUrl(url, "cam/live", "h", 1, "u", "p", 0, 0));
    EXPECT_STREQ("rtsp://cam/live", url);
    ASSERT_EQ(1, GetRtspUrl(url, "{ip}/a{b", "h", 1, "u", "p", 0, 0));
    EXPECT_STREQ("rtsp://h/a{b", url);
    EXPECT_EQ(0, GetRtspUrl(url, "{ip}", "h", 1, nullptr, "p", 0, 0));
    char small[12];
    ASSERT_EQ(1, GetRtspUrl(small, "{ip}", "10.0.0.5", 1, "u", "p", 0, 0, sizeof(small)));
    EXPECT_STREQ("rtsp://10.0", small);

    CatalogBuilder cat;
    cat.Template(5, 0, "a");
    cat.Template(5, 1, "b");
    ASSERT_NE(nullptr, GetRtspHelp(5));
    EXPECT_STREQ("b", GetRtspHelp(5)->main);
    EXPECT_EQ(nullptr, GetRtspHelp(6));
}

// Readers resolve addresses (one of them clearing a registered device's record) while
// the catalogue grows; run under ThreadSanitizer this checks the locking.
TEST_F(NodeUrlTest, ResolvesWhileTheCatalogueGrows) {
    cat.Device(100, 3, "DEV100", "10.0.0.5", 8000, 0, "DC100");
    cat.Device(300, 4, "DEV300", "10.0.0.7", 8000, 0, "DC300");
    cat.Registration(11, 300, "DEV300");
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                char url[kNodeUrlSize];
                GetUrlFromNode(t == 0 ? 300 : 100, DEVICE_NODE, url);
                GetConfigUrlFromNode(100, DEVICE_NODE, url);
                GetDevTypeFromNode(100, DEVICE_NODE);
                char* buf = nullptr;
                int len = 0;
                GetServerNodeFromRegion("UP", 0, buf, len);
                delete[] buf;
            }
        });
    }
    for (int i = 0; i < 200; ++i) cat.Device(1000 + i, 3, "X", "10.9.9.9", 1);
    for (std::thread& r : readers) r.join();
}

int32_t I32(const char* p) {
    int32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

TEST(DomainServer, PacksTheDomainAndItsChildren) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec(
        "insert into domaininfo(id, sn, ip, port, port2, type, s_code, p_code, user, pass, "
        "isauth, linkmode, pushmode) values (3, 'DOM-SN', '172.16.0.1', 5060, 8080, 1, 'S3', "
        "'P3', 'du', 'dp', 1, 2, 3);"
        "insert into domaininfo(id, sn, ip, httpport, s_code, parentid) values "
        "(4, 'CH', '172.16.0.2', 81, 'S4', 3)"));
    char* buf = nullptr;
    int len = 0;
    ASSERT_EQ(1, GetDomainServer("DOM-SN", buf, len));
    std::unique_ptr<char[]> owned(buf);
    ASSERT_EQ(2 * DOMAIN_BASE_SIZE, len);
    EXPECT_STREQ("3", buf);  // the id as text
    EXPECT_STREQ("172.16.0.1", buf + 50);
    EXPECT_STREQ("S3", buf + 100);
    EXPECT_EQ(5060, I32(buf + 252));
    EXPECT_EQ(8080, I32(buf + 256));
    EXPECT_STREQ("du", buf + 260);
    EXPECT_EQ(2, I32(buf + 304));
    EXPECT_EQ(3, I32(buf + 308));
    EXPECT_EQ(1, buf[312]);
    for (int i : {2, 49, 250, 251, 313, 314, 315}) EXPECT_EQ(0, buf[i]) << i;

    const char* child = buf + DOMAIN_BASE_SIZE;
    EXPECT_STREQ("4", child);
    EXPECT_STREQ("P3", child + 150);  // inherits the parent's p_code
    EXPECT_EQ(81, I32(child + 256));

    char* none = nullptr;
    EXPECT_EQ(0, GetDomainServer("nope' or '1'='1", none, len));
    EXPECT_EQ(nullptr, none);
}

}  // namespace
