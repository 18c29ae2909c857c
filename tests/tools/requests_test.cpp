// Request builders and reply decoders, byte by byte; no sockets.
#include "cmsclient/requests.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
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

void ExpectInts(const std::string& p, std::initializer_list<std::pair<size_t, int32_t>> fields) {
    for (const auto& f : fields) EXPECT_EQ(I32At(p, f.first), f.second) << "at " << f.first;
}
void ExpectTexts(const std::string& p,
                 std::initializer_list<std::pair<size_t, std::string>> fields) {
    for (const auto& f : fields) EXPECT_EQ(TextAt(p, f.first), f.second) << "at " << f.first;
}
std::tuple<int, int, int, int, int> HeadOf(const cmsclient::Request& r) {
    return {r.head.nType, r.head.nFrom, r.head.nTo, r.head.nFromClientID, r.head.nToClientID};
}

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
    ExpectInts(p, {{0, 3}, {124, 2}, {128, 0x10001}});
    ExpectTexts(p,
                {{4, std::string(29, 'C')}, {34, "P1"}, {64, "3401"}, {94, "DOM"}, {132, "gate"}});
    EXPECT_EQ(p.substr(182, 2), std::string(2, '\0'));
    double lonLat[2] = {0, 0};
    std::memcpy(lonLat, p.data() + 184, 16);
    EXPECT_EQ(lonLat[0], 117.25);
    EXPECT_EQ(lonLat[1], -31.5);
}

TEST(Requests, UrlListAndFileRequestsCarryTheirParametersWhereTheServerReadsThem) {
    auto byNode = cmsclient::GetUrlByNode(0x100000007LL, 3);
    ASSERT_EQ(byNode.payload.size(), 48u);
    EXPECT_EQ(HeadOf(byNode), std::make_tuple(CMS_MSG_GET_URL, 0, 0, 0, 0));
    ExpectInts(byNode.payload, {{0, 7}, {4, 1}, {8, 3}});

    auto byCode = cmsclient::GetUrlByCode(std::string(40, '9').c_str());
    ASSERT_EQ(byCode.payload.size(), 48u);
    EXPECT_EQ(HeadOf(byCode), std::make_tuple(CMS_MSG_GET_URL, 1, 0, 0, 0));
    EXPECT_EQ(TextAt(byCode.payload, 12), std::string(31, '9'));
    EXPECT_EQ(byCode.payload.substr(43), std::string(5, '\0'));

    auto list = cmsclient::GetNodeList(DATA_GB_SHARE_NODE, "3400");
    EXPECT_EQ(list.payload, std::string("\x04\0\0\0\0\0\0\0"
                                        "3400\0",
                                        13));

    auto put = cmsclient::PutFile(7, -5, 255, "abc");
    EXPECT_EQ(HeadOf(put), std::make_tuple(CMS_MSG_WRITEFILE, 7, 255, -5, 0));
    EXPECT_EQ(put.payload, "abc");
    auto del = cmsclient::DeleteFile(1, 42);
    EXPECT_EQ(HeadOf(del), std::make_tuple(CMS_MSG_DELETEFILE, 1, 0, 42, 0));
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
    const std::string r = p.substr(64);  // the record follows the sender head
    // nReserve[1] at 136 is the alarm's param; picture lengths from 148.
    ExpectInts(r, {{4, 1700000000}, {48, 0x03000005}, {136, 77}, {148, 4}, {152, 2}, {156, 0}});
    ExpectTexts(r, {{8, "3"}, {94, "door"}});
    EXPECT_EQ(r.substr(164), "AAAABB");

    f.senderSerial.clear();
    f.pictures = {"1", "2", "3", "4", "5"};
    const std::string q = cmsclient::FaceEvent(f, 123, 40, 2, 93).payload;
    ASSERT_EQ(q.size(), 164u + 4u);  // no head; the fifth picture is left out
    ExpectInts(q, {{48, 0x03000040}, {56, 40}, {132, 2}, {144, 93}});
    EXPECT_EQ(TextAt(q, 64), "123");
    EXPECT_EQ(I32At(cmsclient::DeviceStateEvent(f, 2).payload, 48), 0x01000002);
    EXPECT_EQ(I32At(cmsclient::DiagnosisEvent(f, 7).payload, 48), 0x04000007);
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
    // Numbers from offset 0, lengths from 32, the bytes behind the 64-byte index.
    Bytes pack(64 + 3, 0);
    auto put = [&](size_t at, int32_t v) { std::memcpy(pack.data() + at, &v, 4); };
    const std::pair<size_t, int32_t> index[] = {{0, 3}, {4, 7}, {32, 2}, {36, 1}};
    for (const auto& field : index) put(field.first, field.second);
    std::memcpy(pack.data() + 64, "abc", 3);
    std::vector<cmsclient::FilePart> parts;
    ASSERT_TRUE(cmsclient::DecodeFilePack(pack, parts));
    std::string seen;
    for (const auto& part : parts) seen += std::to_string(part.number) + ":" + part.bytes + " ";
    EXPECT_EQ(seen, "3:ab 7:c ");

    put(36, 2);  // one byte more than arrived
    EXPECT_FALSE(cmsclient::DecodeFilePack(pack, parts));
    put(36, -1);
    EXPECT_FALSE(cmsclient::DecodeFilePack(pack, parts));
    const Bytes missing = {1, 0, 0, 0};
    EXPECT_TRUE(cmsclient::IsFileMissingReply(missing));
    EXPECT_FALSE(cmsclient::DecodeFilePack(missing, parts));
}

}  // namespace
