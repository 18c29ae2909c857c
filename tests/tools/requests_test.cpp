// Request builders and reply decoders, byte by byte; no sockets.
#include "cmsclient/requests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

int32_t I32At(const std::string& s, size_t at) {
    uint32_t u = 0;
    for (int i = 3; i >= 0; --i) u = (u << 8) | static_cast<uint8_t>(s[at + i]);
    return static_cast<int32_t>(u);
}

// The zero-terminated text at `at`.
std::string TextAt(const std::string& s, size_t at) { return std::string(s.c_str() + at); }

TEST(Requests, PushNodeWritesEveryFieldAtItsOffset) {
    _msg_domain_info n{};
    n.nType = 3;
    std::memset(n.szCode, 'C', sizeof n.szCode);  // unterminated: cut to 29 bytes
    std::strcpy(n.szParentCode, "P1");
    std::strcpy(n.szCityCode, "3401");
    std::strcpy(n.szDomainCode, "DOM");
    n.nNodeType = 2;
    n.nStatus = 0x10001;
    std::strcpy(n.szName, "gate");
    n.dbLongitude = 117.25;
    n.dbLatitude = -31.5;
    auto r = cmsclient::PushNode(n);

    EXPECT_EQ(r.head.nType, CMS_MSG_PUSH_DATA);
    const std::string& p = r.payload;
    ASSERT_EQ(p.size(), 200u);
    EXPECT_EQ(I32At(p, 0), 3);
    EXPECT_EQ(TextAt(p, 4), std::string(29, 'C'));
    EXPECT_EQ(TextAt(p, 34), "P1");
    EXPECT_EQ(TextAt(p, 64), "3401");
    EXPECT_EQ(TextAt(p, 94), "DOM");
    EXPECT_EQ(I32At(p, 124), 2);
    EXPECT_EQ(I32At(p, 128), 0x10001);
    EXPECT_EQ(TextAt(p, 132), "gate");
    EXPECT_EQ(p.substr(182, 2), std::string(2, '\0'));
    double lon = 0, lat = 0;
    std::memcpy(&lon, p.data() + 184, 8);
    std::memcpy(&lat, p.data() + 192, 8);
    EXPECT_EQ(lon, 117.25);
    EXPECT_EQ(lat, -31.5);
}

TEST(Requests, UrlListAndFileRequestsCarryTheirParametersWhereTheServerReadsThem) {
    auto byNode = cmsclient::GetUrlByNode(0x100000007LL, 3);
    ASSERT_EQ(byNode.payload.size(), 48u);
    EXPECT_EQ(byNode.head.nType, CMS_MSG_GET_URL);
    EXPECT_EQ(byNode.head.nFrom, 0);
    EXPECT_EQ(I32At(byNode.payload, 0), 7);
    EXPECT_EQ(I32At(byNode.payload, 4), 1);
    EXPECT_EQ(I32At(byNode.payload, 8), 3);

    auto byCode = cmsclient::GetUrlByCode(std::string(40, '9').c_str());
    ASSERT_EQ(byCode.payload.size(), 48u);
    EXPECT_EQ(byCode.head.nFrom, 1);
    EXPECT_EQ(TextAt(byCode.payload, 12), std::string(31, '9'));
    EXPECT_EQ(byCode.payload.substr(43), std::string(5, '\0'));

    auto list = cmsclient::GetNodeList(DATA_GB_SHARE_NODE, "3400");
    EXPECT_EQ(list.payload, std::string("\x04\0\0\0\0\0\0\0"
                                        "3400\0",
                                        13));

    auto put = cmsclient::PutFile(7, -5, 255, "abc");
    EXPECT_EQ(put.head.nType, CMS_MSG_WRITEFILE);
    EXPECT_EQ(put.head.nFrom, 7);
    EXPECT_EQ(put.head.nTo, 255);
    EXPECT_EQ(put.head.nFromClientID, -5);
    EXPECT_EQ(put.payload, "abc");
    auto del = cmsclient::DeleteFile(1, 42);
    EXPECT_EQ(del.head.nType, CMS_MSG_DELETEFILE);
    EXPECT_EQ(del.head.nFromClientID, 42);
    EXPECT_TRUE(del.payload.empty());
}

TEST(Requests, QueryAppendsTheColumnListOnlyToQueries) {
    EXPECT_EQ(cmsclient::Sql(DATAQUERYMYSELF, "select 1", "a,b").payload, "select 1&a,b,");
    EXPECT_EQ(cmsclient::Sql(DATAQUERYMYSELF, "select 1", "a,").payload, "select 1&a,");
    EXPECT_EQ(cmsclient::Sql(DATAADD, "insert", "a").payload, "insert");
    EXPECT_EQ(cmsclient::Sql(DATAADD, "insert").head.nFrom, DATAADD);
}

TEST(Requests, EventsLeadWithTheSenderAndCarryPicturesBehindTheRecord) {
    cmsclient::EventFields f;
    f.unTime = 1700000000;
    f.channel = "3";
    f.info = "door";
    f.senderSerial = "DEV10";
    f.pictures = {"AAAA", "BB"};
    auto alarm = cmsclient::AlarmEvent(f, 5, 77);
    EXPECT_EQ(alarm.head.nType, CMS_MSG_ALARM);
    const std::string& p = alarm.payload;
    ASSERT_EQ(p.size(), 64u + 164u + 6u);
    EXPECT_EQ(TextAt(p, 0), "DEV10");
    const size_t r = 64;  // the record follows the sender head
    EXPECT_EQ(static_cast<uint32_t>(I32At(p, r + 4)), 1700000000u);
    EXPECT_EQ(TextAt(p, r + 8), "3");
    EXPECT_EQ(static_cast<uint32_t>(I32At(p, r + 48)), 0x03000005u);
    EXPECT_EQ(TextAt(p, r + 94), "door");
    EXPECT_EQ(I32At(p, r + 136), 77);  // nReserve[1], the alarm's param
    EXPECT_EQ(I32At(p, r + 148), 4);
    EXPECT_EQ(I32At(p, r + 152), 2);
    EXPECT_EQ(I32At(p, r + 156), 0);
    EXPECT_EQ(p.substr(r + 164), "AAAABB");

    f.senderSerial.clear();
    f.pictures = {"1", "2", "3", "4", "5"};
    auto face = cmsclient::FaceEvent(f, 123, 40, 2, 93);
    const std::string& q = face.payload;
    ASSERT_EQ(q.size(), 164u + 4u);  // no head; the fifth picture is left out
    EXPECT_EQ(static_cast<uint32_t>(I32At(q, 48)), 0x03000040u);
    EXPECT_EQ(I32At(q, 56), 40);
    EXPECT_EQ(TextAt(q, 64), "123");
    EXPECT_EQ(I32At(q, 132), 2);
    EXPECT_EQ(I32At(q, 144), 93);

    EXPECT_EQ(static_cast<uint32_t>(I32At(cmsclient::DeviceStateEvent(f, 2).payload, 48)),
              0x01000002u);
    EXPECT_EQ(static_cast<uint32_t>(I32At(cmsclient::DiagnosisEvent(f, 7).payload, 48)),
              0x04000007u);
}

TEST(Replies, NodeAndLinkAnswersDecodeAsTheServerPacksThem) {
    node_info a{}, b{};
    std::strcpy(a.szName, "Gate east");
    std::strcpy(a.szCode, "34010400001310000001");
    std::strcpy(a.szIP, "192.168.10.101");
    a.nPort = 8000;
    a.nType = 3;
    std::strcpy(b.szName, "no code");  // counted by the server, never sent
    Bytes data(2 * NODE_INFO_SIZE);
    PackNodeInfo(a, data.data());
    PackNodeInfo(b, data.data() + NODE_INFO_SIZE);
    std::vector<node_info> nodes;
    int empty = 0;
    ASSERT_TRUE(cmsclient::DecodeNodeList(data, nodes, &empty));
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(empty, 1);
    EXPECT_STREQ(nodes[0].szCode, "34010400001310000001");
    EXPECT_EQ(nodes[0].nPort, 8000);
    EXPECT_NE(cmsclient::FormatNodeTable(nodes).find("192.168.10.101:8000"), std::string::npos);
    data.pop_back();
    EXPECT_FALSE(cmsclient::DecodeNodeList(data, nodes));

    _msg_link_info link{};
    link.nLinkMode = 2;
    std::memset(link.szDirect, 'x', sizeof link.szDirect);  // read within its 300 bytes
    Bytes wire(sizeof link);
    std::memcpy(wire.data(), &link, sizeof link);
    _msg_link_info back;
    ASSERT_TRUE(cmsclient::DecodeLinkInfo(wire, back));
    EXPECT_EQ(back.nLinkMode, 2);
    EXPECT_EQ(std::strlen(back.szDirect), 299u);
    wire.push_back(0);
    EXPECT_FALSE(cmsclient::DecodeLinkInfo(wire, back));
}

TEST(Replies, FilePacksAreReadOnlyWithinTheirBytes) {
    Bytes pack(64 + 3, 0);
    auto put = [&](size_t at, int32_t v) { std::memcpy(pack.data() + at, &v, 4); };
    put(0, 3);
    put(4, 7);
    put(32, 2);
    put(36, 1);
    std::memcpy(pack.data() + 64, "abc", 3);
    std::vector<cmsclient::FilePart> parts;
    ASSERT_TRUE(cmsclient::DecodeFilePack(pack, parts));
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0].number, 3);
    EXPECT_EQ(parts[0].bytes, "ab");
    EXPECT_EQ(parts[1].number, 7);
    EXPECT_EQ(parts[1].bytes, "c");

    put(36, 2);  // one byte more than arrived
    EXPECT_FALSE(cmsclient::DecodeFilePack(pack, parts));
    put(36, -1);
    EXPECT_FALSE(cmsclient::DecodeFilePack(pack, parts));
    const Bytes missing = {1, 0, 0, 0};
    EXPECT_TRUE(cmsclient::IsFileMissingReply(missing));
    EXPECT_FALSE(cmsclient::DecodeFilePack(missing, parts));
}

}  // namespace
