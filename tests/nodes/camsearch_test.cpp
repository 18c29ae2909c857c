// Camera searches and ability documents against a loopback peer playing the media server in
// front of an analytics device and a recorder.
#include "nodes/camsearch.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "nodepeer.h"
#include "nodes/nodecmd.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;
using Strings = std::vector<std::string>;

class CamSearch : public cmstest::NodePeerTest {};

}  // namespace

TEST_F(CamSearch, FoundCamerasReplaceTheDeviceChannels) {
    peer.Answer("type=15",
                "<cameras><camera><name>a</name><ip>1.1.1.1</ip><index>5</index></camera>"
                "<camera><name>b</name></camera></cameras>");
    ASSERT_TRUE(
        db.Exec("insert into devicechan(devid,chan,name) values (40,1,'old'),(41,1,'other')"));
    EXPECT_TRUE(SearchNodeCameras(40, 2, SERVER_INTV));
    EXPECT_EQ(peer.Targets(), Strings{std::string(kIntvDev) + "/xconfig?cmd=getconfig&type=15"});
    EXPECT_EQ(db.Query("select chan,name,ip from devicechan where devid = 40 order by id"),
              (Rows{{"5", "a", "1.1.1.1"}, {"2", "b", ""}}));
    EXPECT_EQ(db.Count("devicechan", "devid = 41"), 1);

    // A refused search keeps what is stored.
    peer.Answer("type=15", "", 404);
    EXPECT_FALSE(SearchNodeCameras(40, 2, SERVER_INTV));
    EXPECT_EQ(db.Count("devicechan", "devid = 40"), 2);
    OwnedList<_cammera_info> cams;
    EXPECT_EQ(SearchCamaerFromIntvDev(40, 3, cams.v), 0);  // devices only, no traffic
    EXPECT_EQ(peer.Received().size(), 2u);

    // A recorder is asked through the media server on its route...
    peer.Answer("getdevconfig", "<cameras><camera><name>c</name><chan>3</chan></camera></cameras>");
    EXPECT_TRUE(SearchNodeCameras(41, 2, SERVER_MEDIA));
    EXPECT_EQ(peer.Targets().back(), std::string(kRecorder) + "?cmd=getdevconfig&type=6");
    EXPECT_EQ(db.Query("select chan,name from devicechan where devid = 41"), (Rows{{"3", "c"}}));
    // ...and without one it needs the device library's login, which is not supported.
    cat.Region(2, 0, "R2");
    cat.Device(42, 2, "DEV42", "10.4.4.6", 4000);
    EXPECT_EQ(SearchCamaerFromDev(42, 2, cams.v), 0);
    EXPECT_EQ(peer.Received().size(), 3u);
    EXPECT_TRUE(cams.v.empty());
}

TEST_F(CamSearch, ReplyIsReadUpToItsBufferAndNoFurther) {
    // 256-byte elements: exactly SEARCH_REPLY_SIZE / 256 of them fit.
    const std::string element = "<camera><name>" + std::string(226, 'n') + "</name></camera>";
    ASSERT_EQ(element.size(), 256u);
    std::string reply;
    for (size_t i = 0; i < SEARCH_REPLY_SIZE / 256 + 1000; ++i) reply += element;
    peer.Answer("type=15", reply);
    OwnedList<_cammera_info> cams;
    ASSERT_EQ(SearchCamaerFromIntvDev(40, 2, cams.v), 1);
    EXPECT_EQ(cams.v.size(), SEARCH_REPLY_SIZE / 256);
}

TEST_F(CamSearch, AbilitiesFillTheAbilityTables) {
    peer.Answer("type=19",
                "<rulematch><type>1</type><match><name>o'clock</name><pos>2</pos><paramsize>3"
                "</paramsize><pnames>a,b,c</pnames><enable>1</enable></match><match><name>off"
                "</name><enable>0</enable></match></rulematch>");
    peer.Answer("type=22", "<advc><p>it's</p></advc>");
    peer.Answer("type=21",
                "<lib><desc>car</desc><type>4</type><mode>1</mode></lib>"
                "<lib><desc>big</desc><mode>2</mode></lib>");
    peer.Answer("type=20",
                "<object><type>7</type><mode>0</mode><name>person</name></object>"
                "<object><type>8</type><mode>1</mode><name>x</name></object>");
    ASSERT_TRUE(
        db.Exec("insert into devicecfgrule(nodeid,nodetype,name) values (40,2,'stale');"
                "insert into devicecfgbasedata(nodeid,nodetype,name) values (40,2,'old')"));
    ASSERT_TRUE(GetAbilityNode(40, 2));
    const std::string help = std::string(kIntvDev) + "/xconfig?cmd=getconfig&type=";
    EXPECT_EQ(peer.Targets(), (Strings{help + "19", help + "22", help + "21", help + "20"}));
    EXPECT_EQ(db.Query("select name,pos,paramsize,paramnames,enable from devicecfgrule"),
              (Rows{{"o'clock", "2", "3", "a,b,c", "1"}}));
    EXPECT_EQ(db.Query("select nodeid,nodetype,advc from devicecfgadvc"),
              (Rows{{"40", "2", "<advc><p>it's</p></advc>"}}));
    EXPECT_EQ(db.Query("select name,modetype,mode,objecttype from devicecfgbasedata order by id"),
              (Rows{{"car", "4", "1", "-1"}, {"person", "-1", "-1", "7"}}));

    // A missing document ends the command; what was stored before it stays.
    peer.Answer("type=21", "", 404);
    EXPECT_FALSE(GetAbilityNode(40, 2));
    EXPECT_EQ(db.Count("devicecfgrule"), 1);
    EXPECT_EQ(db.Count("devicecfgbasedata"), 2);
    EXPECT_FALSE(GetAbilityNode(30, 1));  // help documents come from devices only
}
