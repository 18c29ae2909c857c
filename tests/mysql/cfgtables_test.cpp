// Camera and configuration tables against a throwaway database.
#include "mysql/cfgtables.h"

#include <gtest/gtest.h>

#include <string>

#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

class CfgTables : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(ConnectDB(&conn));
    }
    void TearDown() override { CloseDB(&conn); }
    cmstest::TestDatabase db;
    CMysqlDB conn;
};

std::string Channels(const std::vector<_config_chan_info*>& v) {
    std::string s;
    for (const _config_chan_info* c : v)
        s += std::to_string(c->nNodeID) + "/" + std::to_string(c->nNodeType) + " ";
    return s;
}

std::string Describe(const _cammera_info& c) {
    return std::to_string(c.nStoreIndex) + "|" + c.szSerial + "|" + c.szName + "|" + c.szIP + ":" +
           std::to_string(c.nPort) + "|" + c.szUser + ":" + c.szPass + "|" +
           std::to_string(c.nType) + "|" + std::to_string(c.nChan) + "|" + c.szChan + "|" +
           c.szParent + "|" + std::to_string(c.nStream) + "|" + c.szPath;
}

_cammera_info* Camera(const char* name, int chan, int index) {
    auto* c = new _cammera_info{};
    snprintf(c->szName, sizeof c->szName, "%s", name);
    snprintf(c->szIP, sizeof c->szIP, "10.0.0.%d", chan);
    snprintf(c->szChan, sizeof c->szChan, "C%d", chan);
    c->nChan = chan;
    c->nStoreIndex = index;
    c->nPort = 554;
    return c;
}

}  // namespace

TEST_F(CfgTables, ChannelsAndCamerasOfNodes) {
    ASSERT_TRUE(
        db.Exec("insert into device(id,sn,ip,port,username,userpwd,ftype) values "
                "(5,'DEV5','10.9.9.9',8000,'du','dp',2);"
                "insert into devicechan(id,devid,chan,scode) values (50,5,3,'CODE50'),(51,5,4,'');"
                "insert into serverchan(id,serverid,chan,sindex,name,devid,ip,port,username,scode,"
                "parentsn,stream,path) values "
                "(71,30,1,0,'lobby',50,'1.1.1.1',1,'x','sc','psn',1,'/p'),"
                "(70,30,2,17,'gate',0,'10.1.1.1',554,'su','GATE','PARENT',0,'/live'),"
                "(72,31,1,0,'',0,'',0,'','','',0,'')"));

    OwnedList<_config_chan_info> chans;
    EXPECT_EQ(GetConfigChan_FromDB(&conn, 30, 1, chans.v), 1);
    EXPECT_EQ(GetConfigChan_FromDB(&conn, 5, 2, chans.v), 1);
    EXPECT_EQ(GetConfigChan_FromDB(&conn, 51, 3, chans.v), 1);
    EXPECT_EQ(GetConfigChan_FromDB(&conn, 72, 9, chans.v), 1);
    EXPECT_EQ(GetConfigChan_FromDB(&conn, 5, 4, chans.v), 0);
    EXPECT_EQ(Channels(chans.v), "70/9 71/9 50/3 51/3 51/3 72/9 ");

    // The source channel and its device give the address; the assignment its own fields.
    OwnedList<_cammera_info> cams;
    ASSERT_EQ(GetServerCamera_FromDB(&conn, 30, cams.v), 1);
    ASSERT_EQ(cams.v.size(), 2u);
    EXPECT_EQ(Describe(*cams.v[0]), "70|17|gate|10.1.1.1:554|su:|0|2|GATE|PARENT|0|/live");
    EXPECT_EQ(Describe(*cams.v[1]), "71||lobby|10.9.9.9:8000|du:dp|2|3|CODE50|DEV5|1|/p");
}

TEST_F(CfgTables, SearchedCamerasReplaceTheDeviceChannels) {
    ASSERT_TRUE(db.Exec("insert into devicechan(devid,chan) values (5,1),(5,2),(6,1)"));
    OwnedList<_cammera_info> found;
    found.v = {Camera("it's \"one\"\\", 7, 0), Camera("two", 8, 0)};
    ASSERT_EQ(DeleteCameras(&conn, 5), 1);
    ASSERT_EQ(InsertCameras(&conn, 5, found.v), 1);
    EXPECT_EQ(
        db.Query("select chan,name,scode,ip,port from devicechan where devid = 5 order by id"),
        (std::vector<std::vector<std::string>>{{"7", "it's \"one\"\\", "C7", "10.0.0.7", "554"},
                                               {"8", "two", "C8", "10.0.0.8", "554"}}));
    EXPECT_EQ(db.Count("devicechan", "devid = 6"), 1);

    // An analytics device's sources are numbered by the index it gave them, or by position.
    found.v[0]->nStoreIndex = 12;
    DeleteCameras(&conn, 5);
    ASSERT_EQ(InsertIntvCameras(&conn, 5, found.v), 1);
    EXPECT_EQ(db.Query("select chan from devicechan where devid = 5 order by id"),
              (std::vector<std::vector<std::string>>{{"12"}, {"2"}}));
    EXPECT_EQ(InsertCameras(nullptr, 5, found.v), 0);
}

TEST_F(CfgTables, CachedRowsAndStaffRows) {
    ASSERT_TRUE(
        db.Exec("insert into devicecfg(nodeid,nodetype,configtype,configure) values "
                "(71,9,9,'<plan><d1>60-120;</d1></plan>'),(73,3,9,NULL),"
                "(72,9,8,'<rule><mode>2</mode></rule>')"));
    OwnedList<_planinfo> plans;  // a NULL text still makes a (zeroed) record
    ASSERT_EQ(GetPlanConfigFromDB(&conn, "select * from devicecfg where configtype = 9 order by id",
                                  plans.v),
              1);
    ASSERT_EQ(plans.v.size(), 2u);
    EXPECT_EQ(plans.v[0]->time[1][0].nStop, 120);
    EXPECT_EQ(plans.v[1]->nNodeID, 73);
    EXPECT_EQ(plans.v[1]->nNodeType, 3);
    OwnedList<_ruleinfo> rules;
    ASSERT_EQ(GetRuleConfigFromDB(&conn, "select * from devicecfg where configtype = 8", rules.v),
              1);
    EXPECT_EQ(rules.v.at(0)->rule.dwReserved, 2u);
    EXPECT_EQ(GetRuleConfigFromDB(&conn, "select * from nosuchtable", rules.v), 0);

    ASSERT_TRUE(db.Exec("insert into stiffinfo(id,name,faceid) values (3,'Ann',8)"));
    OwnedList<_face_register> staff;
    ASSERT_EQ(GetStiff_FromDB(&conn, "select id from stiffinfo", staff.v), 1);
    ASSERT_EQ(GetStiff_FromDB(&conn, "select * from stiffinfo", staff.v), 1);
    ASSERT_EQ(staff.v.size(), 2u);
    EXPECT_EQ(staff.v[0]->id, 3);
    EXPECT_STREQ(staff.v[0]->name, "");  // only what the query returns
    EXPECT_EQ(staff.v[1]->faceid, 8);
    EXPECT_STREQ(staff.v[1]->name, "Ann");
}
