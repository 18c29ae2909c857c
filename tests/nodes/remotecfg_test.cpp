// Remote configuration against a loopback peer playing the media server in front of
// analytics and recording servers: reply rules, node commands, pushes, read-back.
#include "nodes/remotecfg.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "nodepeer.h"
#include "nodes/nodecmd.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;
using Strings = std::vector<std::string>;

class RemoteCfg : public cmstest::NodePeerTest {
protected:
    std::string Base() const { return "rtsp://127.0.0.1:" + std::to_string(peer.port()); }
    // The "type=" value of every setconfig request from index `from` on.
    Strings SetTypes(size_t from = 0) const {
        Strings types;
        auto all = peer.Received();
        for (size_t i = from; i < all.size(); ++i) {
            size_t at = all[i].query.find("cmd=setconfig&type=");
            if (at != std::string::npos) types.push_back(all[i].query.substr(at + 19));
        }
        return types;
    }
};

const std::string kParamBody =
    "<enable>0</enable><sens>33</sens><fps>0</fps><minsize>0</minsize><maxsize>0</maxsize>"
    "<interval>0</interval><snap>0</snap><rectime>0</rectime>";

}  // namespace

TEST_F(RemoteCfg, RepliesDecideTheResult) {
    peer.Answer("/one", "<ret>1</ret>");
    peer.Answer("/zero", "<ret>0</ret>");
    peer.Answer("/word", "<ret>abc</ret>");
    peer.Answer("/long", "<ret>" + std::string(300, '7') + "</ret>");
    peer.Answer("/ok4", std::string(4, '\0'));
    peer.Answer("/bad4", std::string("\x01\0\0\0", 4));
    peer.Answer("/plain", "done.");
    peer.Answer("/refused", "<ret>1</ret>", 500);
    const struct {
        const char* path;
        bool ok;
        std::string text;
    } cases[] = {
        {"/one", true, "1"},     {"/zero", false, "0"},
        {"/word", false, "abc"}, {"/long", true, std::string(99, '7')},
        {"/ok4", true, ""},      {"/bad4", false, ""},
        {"/plain", true, ""},    {"/refused", false, ""},
    };
    for (const auto& c : cases) {
        char ret[100] = "x";
        int length = -1;
        EXPECT_EQ(RemoteDevConfig((Base() + c.path).c_str(), nullptr, 0, ret, sizeof ret, length),
                  c.ok)
            << c.path;
        EXPECT_EQ(ret, c.text) << c.path;
        EXPECT_EQ(length, static_cast<int>(c.text.size())) << c.path;
    }
    char ret[8];
    int length = 0;
    EXPECT_TRUE(RemoteDevConfig((Base() + "/one").c_str(), "<a/>", 4, ret, sizeof ret, length));
    EXPECT_EQ(peer.Received().back().method, "POST");
    EXPECT_EQ(peer.Received().back().body, "<a/>");
    EXPECT_FALSE(RemoteDevConfig(nullptr, nullptr, 0, ret, sizeof ret, length));
    EXPECT_EQ(ConfigFromCommand((Base() + "/zero").c_str()), 1);
}

TEST_F(RemoteCfg, NodeCommandsAndClears) {
    peer.Answer("/xconfig", "<ret>1</ret>");
    EXPECT_TRUE(ConfigDevServer(30, 1, NODE_CMD_REBOOT));
    EXPECT_TRUE(ConfigDevServer(30, 1, NODE_CMD_POWEROFF));
    EXPECT_TRUE(ConfigDevServer(30, 1, NODE_CMD_RESET));
    EXPECT_TRUE(ConfigDevServer(70, 9, NODE_CMD_RESET));
    EXPECT_TRUE(ConfigDevServer(30, 1, 5));  // the bare address; refused, still true
    EXPECT_FALSE(ConfigDevServer(99, 1, NODE_CMD_REBOOT));
    EXPECT_TRUE(ClearConfigServerEx(30, 1, L_CFG_DELETE_CAMERA));
    EXPECT_TRUE(ClearConfigServerEx(30, 1, L_CFG_INTV_OBJECT_PARAM));
    EXPECT_TRUE(ClearConfigServerEx(30, 1, 99));
    const std::string s = kIntvSvr;
    EXPECT_EQ(
        peer.Targets(),
        (Strings{s + "/xconfig?cmd=reboot", s + "/xconfig?cmd=poweroff", s + "/xconfig?cmd=reset",
                 s + "/xconfig?cmd=reset&sn=1", s, s + "/xconfig?cmd=setconfig&type=18",
                 s + "/xconfig?cmd=setconfig&type=48", s + "/xconfig?cmd=setconfig&type=99"}));
    auto got = peer.Received();
    EXPECT_EQ(got[5].method, "GET");
    EXPECT_EQ(got[6].body, "<scene><sn></sn><mode>0</mode></scene>");
    EXPECT_EQ(got[7].body.rfind("<plan><sn></sn><enable>0</enable><d0></d0>", 0), 0u);

    std::vector<_cammera_info*> none;
    EXPECT_EQ(ConfigServer2(30, 1, L_CFG_UPDATE_CAMERA, none), 1);
    OwnedList<_paraminfo> params;
    OwnedList<_config_chan_info> chans;
    chans.v.push_back(new _config_chan_info{70, 9});
    EXPECT_EQ(ConfigServerEx2(L_CFG_INTV_RULE, chans.v, params.v), 0);  // not a rule list
    EXPECT_EQ(peer.Targets().size(), 8u);
}

TEST_F(RemoteCfg, CamerasAreAddedOneByOneAndNamedByTheServer) {
    peer.Answer("type=16", "<ret>55</ret>");
    OwnedList<_cammera_info> cams;
    for (const char* name : {"gate", "yard"}) {
        auto* c = new _cammera_info{};
        snprintf(c->szSerial, sizeof c->szSerial, "old");
        snprintf(c->szName, sizeof c->szName, "%s", name);
        cams.v.push_back(c);
    }
    EXPECT_EQ(ConfigServer2(30, 1, L_CFG_ADD_CAMERA, cams.v), 1);
    EXPECT_STREQ(cams.v[0]->szSerial, "55");
    EXPECT_STREQ(cams.v[1]->szSerial, "55");
    ASSERT_EQ(peer.Received().size(), 2u);
    EXPECT_EQ(peer.Received()[1].body.rfind("<camera><name>yard</name><sn></sn>", 0), 0u);

    peer.Answer("type=16", "", 404);  // the first refusal ends the walk
    EXPECT_EQ(ConfigServer2(30, 1, L_CFG_ADD_CAMERA, cams.v), 1);
    EXPECT_EQ(peer.Received().size(), 3u);
    EXPECT_STREQ(cams.v[0]->szSerial, "");
    EXPECT_STREQ(cams.v[1]->szSerial, "55");
}

TEST_F(RemoteCfg, RemoteSetPushesTheCacheToEveryChannelThenResets) {
    peer.Answer("/xconfig?cmd=setconfig", "<ret>1</ret>");
    ASSERT_TRUE(
        db.Exec("insert into devicecfg(nodeid,nodetype,configtype,configure) values "
                "(70,9,7,'<param><sens>33</sens></param>'),(71,3,7,'<param>x</param>')"));
    ASSERT_TRUE(RemoteSetNode(30, 1, L_CFG_INTV_PARAM, 0));
    const std::string set7 = std::string(kIntvSvr) + "/xconfig?cmd=setconfig&type=7";
    EXPECT_EQ(peer.Targets(), (Strings{set7, set7, std::string(kIntvSvr) + "/xconfig?cmd=reset"}));
    // Channel 71 has no cached record (the row of node type 3 is another node's): it is
    // sent an empty one.
    EXPECT_EQ(peer.Received()[0].body, "<param><sn>1</sn>" + kParamBody + "</param>");
    std::string empty = kParamBody;
    empty.replace(empty.find("33"), 2, "0");
    EXPECT_EQ(peer.Received()[1].body, "<param><sn>2</sn>" + empty + "</param>");

    // Every type of the device type, in its fixed order, two channels each.
    size_t from = peer.Received().size();
    ASSERT_TRUE(RemoteSetNode(30, 1, L_CFG_ALL, 0));
    EXPECT_EQ(SetTypes(from),
              (Strings{"8", "8", "7", "7", "10", "10", "11", "11", "9", "9", "47", "47"}));

    // A rule push to a recording server pushes nothing and still resets it.
    from = peer.Received().size();
    ASSERT_TRUE(RemoteSetNode(31, 1, L_CFG_INTV_RULE, 0));
    EXPECT_EQ(peer.Targets().back(), std::string(kRecordSvr) + "/xconfig?cmd=reset");
    EXPECT_EQ(peer.Received().size(), from + 1);

    // A type no channel accepts ends the push: no later type, no reset.
    peer.Answer("type=7", "<ret>0</ret>");
    from = peer.Received().size();
    EXPECT_FALSE(RemoteSetNode(30, 1, L_CFG_ALL, 0));
    EXPECT_EQ(SetTypes(from), (Strings{"8", "8", "7", "7"}));
    EXPECT_EQ(peer.Received().size(), from + 4);
}

TEST_F(RemoteCfg, CameraPushStoresTheIndexTheServerGave) {
    ASSERT_TRUE(db.Exec("update serverchan set sindex = 4 where id = 72"));
    peer.Answer("type=18", "<ret>1</ret>");
    peer.Answer("type=16", "<ret>9</ret>");
    ASSERT_TRUE(RemoteSetNode(30, 1, L_CFG_UPDATE_CAMERA, 0));
    EXPECT_EQ(SetTypes(), (Strings{"18", "16", "16", "16"}));
    EXPECT_EQ(peer.Received()[0].body, "");
    EXPECT_EQ(db.Query("select id,sindex from serverchan where serverid = 30 order by id"),
              (Rows{{"70", "9"}, {"71", "9"}, {"72", "9"}}));

    // Only a number is written back into the statement.
    peer.Answer("type=16", "<ret>5 or 1=1</ret>");
    ASSERT_TRUE(RemoteSetNode(30, 1, L_CFG_UPDATE_CAMERA, 0));
    EXPECT_EQ(db.Count("serverchan", "sindex = 9"), 3);
}

TEST_F(RemoteCfg, ReadBackReplacesTheCachedCopy) {
    const std::string chan80 = "/10.3.3.4:3001:su:sp:2:1/xconfig?cmd=getconfig&sn=1&type=";
    peer.Answer("type=12", "<records><record><sn>1</sn><pre>5</pre></record></records>");
    peer.Answer("type=13", "<plans><plan><sn>1</sn><d1>1-2;</d1></plan></plans>");
    peer.Answer("type=14", "<temples><temple><sn>1</sn><name>t</name></temple></temples>");
    ASSERT_TRUE(
        db.Exec("insert into devicecfg(nodeid,nodetype,configtype,configure) values "
                "(80,9,12,'stale'),(80,9,13,'stale')"));
    ASSERT_TRUE(GetConfigNode(80, 9, L_CFG_ALL));
    EXPECT_EQ(peer.Targets(), (Strings{chan80 + "12", chan80 + "13", chan80 + "14"}));
    Rows rows = db.Query(
        "select configtype,configure from devicecfg where nodeid = 80 order by "
        "configtype");
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(
        rows[0][1].rfind("<record><sn>1</sn><enable>0</enable><stream>0</stream><pre>5</pre>", 0),
        0u);
    EXPECT_NE(rows[1][1].find("<d1>1-2;</d1>"), std::string::npos);
    EXPECT_NE(rows[2][1].find("<name>t</name>"), std::string::npos);

    // Parameters and rules are cached without a serial.
    peer.Answer("type=7", "<params><param><sn>1</sn><sens>33</sens></param></params>");
    peer.Answer("type=8", "<rules><rule><sn>1</sn><mode>2</mode></rule></rules>");
    ASSERT_TRUE(GetConfigNode(70, 9, L_CFG_INTV_PARAM));
    ASSERT_TRUE(GetConfigNode(70, 9, L_CFG_INTV_RULE));
    EXPECT_EQ(db.Query("select configure from devicecfg where nodeid = 70 order by configtype"),
              (Rows{{"<param>" + kParamBody + "</param>"}, {"<rule><mode>2</mode></rule>"}}));

    // The old copy goes before the read, so a refused read leaves none.
    peer.Answer("type=13", "", 404);
    size_t from = peer.Received().size();
    EXPECT_FALSE(GetConfigNode(80, 9, L_CFG_ALL));
    EXPECT_EQ(peer.Received().size(), from + 2);
    EXPECT_EQ(db.Count("devicecfg", "nodeid = 80 and configtype = 13"), 0);
    EXPECT_FALSE(GetConfigNode(80, 9, L_CFG_INTV_OBJECT_PARAM));  // no reader for this type
}

TEST(RemoteCfgSql, CachedConfigurationStatements) {
    const struct {
        int node, type;
        const char* sql;
    } cases[] = {
        {1, 7,
         "select * from  devicecfg where nodeid in (select id from serverchan where serverid = "
         "5) and configtype = 7 and nodetype = 9"},
        {2, 12,
         "select * from  devicecfg where nodeid in (select id from devicechan where devid = 5) "
         "and configtype = 12 and nodetype = 3"},
        {9, 8, "select * from  devicecfg where nodeid = 5 and nodetype = 9 and configtype = 8"},
        {4, 9, "select * from  devicecfg where configtype = 9"},
    };
    for (const auto& c : cases) {
        char sql[200] = {};
        ASSERT_EQ(GetSqlFromNodeConfig(5, c.node, c.type, sql), 1);
        EXPECT_STREQ(sql, c.sql);
    }
    char small[20];
    EXPECT_EQ(GetSqlFromNodeConfig(5, 1, 7, small, sizeof small), 0);
    EXPECT_EQ(GetSqlFromNodeConfig(5, 1, 7, nullptr), 0);
}
