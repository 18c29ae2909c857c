#include "nodes/nodeurl.h"

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

const std::string kRoute = "rtsp://10.1.1.1:554/10.2.2.2:5540";

// Region 1 (root, media server TOP) > 2 (media server MID) > 3; region 4 under the root
// without a server. Local devices 100, 101 in region 3; device 300 in region 4 registered
// with MID; devices 400 and 401 of a lower domain and of a registered platform.
class NodeUrlTest : public ::testing::Test {
protected:
    void SetUp() override {
        cat.Region(1, 0, "R0");
        cat.Region(2, 1, "R1");
        cat.Region(3, 2, "R2");
        cat.Region(4, 1, "R4");
        cat.Server(10, 1, SERVER_MEDIA, "MS-TOP", "10.1.1.1", 554);
        cat.Server(11, 2, SERVER_MEDIA, "MS-MID", "10.2.2.2", 5540);
        cat.Device(100, 3, "DEV100", "10.0.0.5", 8000, 0, "DC100")->dev.byResType = 4;
        cat.Device(101, 3, "", "10.0.0.6", 8000, 2, "DC101");
        cat.Device(300, 4, "DEV300", "192.168.100.7", 8000);
        cat.Registration(11, 300, "DEV300");
        cat.Domain(50, "D-CODE", "172.16.0.1", 5060)->svr.nLinkMode = 2;
        cat.Domain(51, "REG-CODE", "172.16.0.2", 5060, REG_DOMIAN);
        cat.Device(400, 3, "DEV400", "10.0.0.9", 8000, 0, "DC400")->dev.nDomainID = 50;
        cat.Device(401, 3, "DEV401", "10.0.0.9", 8000, 0, "DC401")->dev.nDomainID = 51;
        cat.Channel(200, 100, 3);
        cat.Channel(201, 100, 4, "CH201", "C201");
        cat.Channel(301, 300, 2, "CH301");
        cat.Channel(402, 400, 1, "CH402");
    }
    static std::string Url(int id, int type, int expect = 1, bool config = false) {
        char url[kNodeUrlSize] = {0};
        EXPECT_EQ(expect,
                  config ? GetConfigUrlFromNode(id, type, url) : GetUrlFromNode(id, type, url))
            << id << "/" << type;
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

TEST_F(NodeUrlTest, RoutePaths) {
    EXPECT_EQ("/10.1.1.1:554/10.2.2.2:5540", Path(3));
    EXPECT_EQ("/10.1.1.1:554", Path(4));
    EXPECT_EQ("", Path(77));
    cat.Registration(10, 0, "MS-MID");  // a registered media server is named by serial
    EXPECT_EQ("/10.1.1.1:554/MS-MID", Path(3));
    cat.Registration(0, 999, "R1");  // region 2 registered with an unknown server: stop
    EXPECT_EQ("/MS-MID", Path(3));
    cat.Region(5, 6, "C5");
    cat.Region(6, 5, "C6");
    cat.Server(12, 6, SERVER_MEDIA, "MS-C", "10.6.6.6", 1);
    EXPECT_FALSE(Path(5).empty());  // ends despite the parent cycle
}

TEST_F(NodeUrlTest, PlayAddressesAndMissingRecords) {
    const struct {
        int id, type;
        std::string url;
    } cases[] = {
        {100, DEVICE_NODE, kRoute + "/10.0.0.5:8000:u:p:0:1"},
        {101, DEVICE_NODE, kRoute + "/10.0.0.6:8000:u:p:2:0"},
        {200, DEVCHAN_NODE, kRoute + "/10.0.0.5:8000:u:p:0:3"},
        {201, DEVCHAN_NODE, kRoute + "/10.0.0.5:8000:u:p:0:@CH201"},
        // Registered: the route of the registration's server, then the device serial.
        {301, DEVCHAN_NODE, kRoute + "/DEV300/192.168.100.7:8000:u:p:0:@CH301"},
        {400, DEVICE_NODE, "rtsp://10.1.1.1:554/172.16.0.1:5060:du:dp:3:@DEV400"},
        {402, DEVCHAN_NODE, "rtsp://10.1.1.1:554/172.16.0.1:5060:du:dp:3:@CH402"},
        // The registered device clears serial, type bytes and 7 address bytes first.
        {300, DEVICE_NODE, kRoute + "//:8000:u:p:0:1"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.url, Url(c.id, c.type));
    EXPECT_STREQ(".100.7", GetDeviceInfoByID(m_arrRecordInfos, 300)->dev.szIP + 7);

    char url[kNodeUrlSize] = "untouched";
    EXPECT_EQ(1, GetUrlFromNode(50, DOMAIN_NODE, url));
    EXPECT_STREQ("untouched", url);
    char small[12];
    EXPECT_EQ(1, GetUrlFromNode(100, DEVICE_NODE, small, sizeof(small)));
    EXPECT_STREQ("rtsp://10.1", small);

    cat.Channel(500, 999, 1);
    cat.Device(302, 4, "DEV302", "10.0.0.5", 8000);
    cat.Registration(77, 302, "DEV302");  // its server does not exist
    cat.Device(403, 3, "DEV403", "10.0.0.9", 8000)->dev.nDomainID = 52;
    for (int id : {9999, 302, 403}) Url(id, DEVICE_NODE, 0);
    for (int id : {9999, 500}) Url(id, DEVCHAN_NODE, 0);
    EXPECT_EQ(0, GetUrlFromNode(100, DEVICE_NODE, nullptr));
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

TEST_F(NodeUrlTest, ServerChannelsAndConfigurationAddresses) {
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
    EXPECT_EQ("rtsp://10.1.1.1:554/10.3.3.3:9000", Url(12, SERVER_NODE, 1, true));
    EXPECT_EQ(kRoute + "/10.0.0.5:8000", Url(100, DEVICE_NODE, 1, true));
    EXPECT_EQ("rtsp://172.16.0.1:5060", Url(50, DOMAIN_NODE, 1, true));
    Url(59, DOMAIN_NODE, 0, true);

    // The registration's parentid names the region whose media server carries the node.
    cat.Registration(2, 12, "AS-12");
    EXPECT_EQ(kRoute + "/AS-12/10.3.3.3:9000:su:sp:3:@SC-CODE", Url(7, SERVERCHAN_NODE));
    EXPECT_EQ(kRoute + "/AS-12", Url(12, SERVER_NODE, 1, true));
    EXPECT_EQ(kRoute + "/AS-12", Url(7, SERVERCHAN_NODE, 1, true));
    // Device 300's registration names 11, a region without a media server.
    Url(301, DEVCHAN_NODE, 0, true);
    cat.Device(303, 4, "DEV303", "10.0.0.7", 8000);
    cat.Channel(304, 303, 1);
    cat.Registration(2, 303, "DEV303");  // a registered channel: colon-less, cleared serial
    EXPECT_EQ("rtsp//10.1.1.1:554/10.2.2.2:5540/", Url(304, DEVCHAN_NODE, 1, true));

    EXPECT_EQ(DEVTYPE_INTV, GetDevTypeFromNode(7, SERVERCHAN_NODE));
    char text[12] = {0};
    EXPECT_EQ(1, GetSerialFromNode(8, SERVERCHAN_NODE, text));
    EXPECT_STREQ("6", text);
    EXPECT_EQ(0, GetSerialFromNode(70, SERVERCHAN_NODE, text));
}

TEST_F(NodeUrlTest, LinkInfoByCode) {
    const struct {
        const char* code;
        std::string direct, domain;
        int linkMode;
    } cases[] = {
        {"C201", kRoute + "/10.0.0.5:8000:u:p:0:@CH201", "", 0},
        {"DC100", kRoute + "/10.0.0.5:8000:u:p:0:@DEV100", "", 0},
        {"DC101", kRoute + "/10.0.0.6:8000:u:p:2:0", "", 0},
        {"DC400", "", "D-CODE", 2},
        {"DC401", "", "DEV401", 0},  // a registered platform knows the device serial
        {"DC403", "", "", 0},        // cascaded, its domain gone: resolved, nothing to say
    };
    cat.Device(403, 3, "DEV403", "10.0.0.9", 8000, 0, "DC403")->dev.nDomainID = 99;
    for (const auto& c : cases) {
        _msg_link_info link{};
        ASSERT_EQ(1, GetLinkInfoFromCode(c.code, &link)) << c.code;
        EXPECT_STREQ(c.code, link.szCode);
        EXPECT_EQ(c.direct, link.szDirect);
        EXPECT_EQ(c.domain, link.szDomainCode);
        EXPECT_EQ(c.linkMode, link.nLinkMode);
    }
    _msg_link_info link{};
    EXPECT_EQ(0, GetLinkInfoFromCode("nothing", &link));
    EXPECT_EQ(0, GetLinkInfoFromCode(nullptr, &link));
}

TEST_F(NodeUrlTest, DeviceTypesAndChannelNumbers) {
    cat.Server(12, 1, SERVER_STORE, "ST", "10.9.9.9", 1);
    const int types[][3] = {{12, SERVER_NODE, DEVTYPE_RECORD}, {10, SERVER_NODE, 0},
                            {100, DEVICE_NODE, DEVTYPE_INTV},  {101, DEVICE_NODE, 0},
                            {200, DEVCHAN_NODE, DEVTYPE_INTV}, {999, DEVCHAN_NODE, 0}};
    for (const auto& t : types) EXPECT_EQ(t[2], GetDevTypeFromNode(t[0], t[1])) << t[0];

    char text[12] = "keep";
    EXPECT_EQ(1, GetSerialFromNode(100, DEVICE_NODE, text));
    EXPECT_STREQ("keep", text);
    EXPECT_EQ(1, GetSerialFromNode(200, DEVCHAN_NODE, text));
    EXPECT_STREQ("3", text);
    EXPECT_EQ(0, GetSerialFromNode(999, DEVCHAN_NODE, text));
}

// Readers resolve addresses (one of them clearing a registered device's record) while
// the catalogue grows; run under ThreadSanitizer this checks the locking.
TEST_F(NodeUrlTest, ResolvesWhileTheCatalogueGrows) {
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([t] {
            for (int i = 0; i < 200; ++i) {
                char url[kNodeUrlSize];
                GetUrlFromNode(t == 0 ? 300 : 100, DEVICE_NODE, url);
                GetConfigUrlFromNode(100, DEVICE_NODE, url);
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

std::string Rtsp(const char* tmpl, int port, size_t size = 256) {
    char url[256] = "untouched";
    int r = GetRtspUrl(url, tmpl, "10.0.0.5", port, "u", "p", 1, 2, size);
    return std::to_string(r) + " " + url;
}

TEST(RtspTemplate, ExpandsKnownNamesOnly) {
    EXPECT_EQ("1 rtsp://10.0.0.5:554/ch/102", Rtsp("{ip}:{port}/ch/{chan}0{stream}", 554));
    EXPECT_EQ("1 rtsp://u:p@10.0.0.5:/live", Rtsp("{user}:{pass}@{ip}:{port}/{other}live", 0));
    EXPECT_EQ("1 rtsp://10.0.0.5/a{b", Rtsp("{ip}/a{b", 1));
    EXPECT_EQ("1 rtsp://10.0", Rtsp("{ip}", 1, 12));
    EXPECT_EQ("0 untouched", Rtsp(nullptr, 1));

    CatalogBuilder cat;  // releases the templates again
    for (int link : {0, 1})
        m_arrRtspString.push_back(new _RtspHelpString{{}, false, link, 5, 0, {}, {}});
    EXPECT_EQ(m_arrRtspString[1], GetRtspHelp(5));
    EXPECT_EQ(nullptr, GetRtspHelp(6));
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
    // The id goes as text; the child inherits the parent's p_code.
    const int child = DOMAIN_BASE_SIZE;
    const std::pair<int, const char*> texts[] = {
        {0, "3"}, {50, "172.16.0.1"}, {100, "S3"}, {260, "du"}, {child, "4"}, {child + 150, "P3"}};
    for (const auto& [at, text] : texts) EXPECT_STREQ(text, buf + at) << at;
    const std::pair<int, int> numbers[] = {
        {252, 5060}, {256, 8080}, {304, 2}, {308, 3}, {child + 256, 81}};
    for (const auto& [at, value] : numbers) EXPECT_EQ(value, I32(buf + at)) << at;
    EXPECT_EQ(1, buf[312]);
    for (int i : {2, 49, 250, 251, 313, 314, 315}) EXPECT_EQ(0, buf[i]) << i;

    char* none = nullptr;
    EXPECT_EQ(0, GetDomainServer("nope' or '1'='1", none, len));
    EXPECT_EQ(nullptr, none);
}

}  // namespace
