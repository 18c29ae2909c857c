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
    const _cammera_info& own = *cams.v[0];
    EXPECT_EQ(own.nStoreIndex, 70);
    EXPECT_STREQ(own.szSerial, "17");
    EXPECT_STREQ(own.szIP, "10.1.1.1");
    EXPECT_STREQ(own.szChan, "GATE");
    EXPECT_STREQ(own.szParent, "PARENT");
    EXPECT_STREQ(own.szPath, "/live");
    const _cammera_info& src = *cams.v[1];
    EXPECT_EQ(src.nStoreIndex, 71);
    EXPECT_STREQ(src.szSerial, "");
    EXPECT_STREQ(src.szName, "lobby");
    EXPECT_EQ(std::string(src.szIP) + ":" + std::to_string(src.nPort) + ":" + src.szUser + ":" +
                  src.szPass + ":" + std::to_string(src.nType) + ":" + std::to_string(src.nChan) +
                  ":" + src.szChan + ":" + src.szParent + ":" + std::to_string(src.nStream),
              "10.9.9.9:8000:du:dp:2:3:CODE50:DEV5:1");
    EXPECT_EQ(GetServerCamera_FromDB(nullptr, 30, cams.v), 0);
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

TEST_F(CfgTables, CachedConfigurationAndStaffRows) {
    char param[512], plan[512], rule[512];
    _paraminfo p{};
    p.param.nSensitivity = 42;
    _planinfo pl{};
    pl.bEnable = 1;
    pl.nSize[1] = 1;
    pl.time[1][0] = {60, 120};
    auto r = std::make_unique<_ruleinfo>();
    r->rule.ZoneSize = 1;
    r->rule.Zones[0].usPointSize = 1;
    r->rule.Zones[0].usRule = 9;
    ASSERT_EQ(FormatIntvParamFroXML(&p.param, param, sizeof param), 1);
    ASSERT_EQ(FormatIntvPlan(&pl, plan, sizeof plan), 1);
    ASSERT_EQ(FormatRuleFroXML(&r->rule, rule, sizeof rule), 1);
    ASSERT_TRUE(db.Exec(std::string("insert into devicecfg(nodeid,nodetype,configtype,configure) "
                                    "values (70,9,7,'<param>") +
                        param + "</param>'),(71,9,9,'" + plan + "'),(72,9,8,'<rule>" + rule +
                        "</rule>'),(73,9,9,NULL)"));

    OwnedList<_paraminfo> params;
    ASSERT_EQ(GetParamConfigFromDB(&conn, "select * from devicecfg where configtype = 7", params.v),
              1);
    ASSERT_EQ(params.v.size(), 1u);
    EXPECT_EQ(params.v[0]->nNodeID, 70);
    EXPECT_EQ(params.v[0]->nNodeType, 9);
    EXPECT_EQ(params.v[0]->param.nSensitivity, 42);

    OwnedList<_planinfo> plans;  // a NULL text still makes a (zeroed) record
    ASSERT_EQ(GetPlanConfigFromDB(&conn, "select * from devicecfg where configtype = 9 order by id",
                                  plans.v),
              1);
    ASSERT_EQ(plans.v.size(), 2u);
    EXPECT_EQ(plans.v[0]->time[1][0].nStop, 120);
    EXPECT_EQ(plans.v[1]->nNodeID, 73);
    EXPECT_EQ(plans.v[1]->bEnable, 0);

    OwnedList<_ruleinfo> rules;
    ASSERT_EQ(GetRuleConfigFromDB(&conn, "select * from devicecfg where configtype = 8", rules.v),
              1);
    ASSERT_EQ(rules.v.size(), 1u);
    EXPECT_EQ(rules.v[0]->rule.ZoneSize, 1);
    EXPECT_EQ(rules.v[0]->rule.Zones[0].usRule, 9u);
    EXPECT_EQ(GetRuleConfigFromDB(&conn, "select * from nosuchtable", rules.v), 0);

    ASSERT_TRUE(db.Exec("insert into stiffinfo(id,name,faceid) values (3,'Ann',8),(4,'Bo',0)"));
    OwnedList<_face_register> staff;
    ASSERT_EQ(GetStiff_FromDB(&conn, "select id from stiffinfo order by id", staff.v), 1);
    ASSERT_EQ(GetStiff_FromDB(&conn, "select * from stiffinfo where id = 3", staff.v), 1);
    ASSERT_EQ(staff.v.size(), 3u);
    EXPECT_EQ(staff.v[1]->id, 4);
    EXPECT_STREQ(staff.v[1]->name, "");  // only what the query returns
    EXPECT_EQ(staff.v[2]->faceid, 8);
    EXPECT_STREQ(staff.v[2]->name, "Ann");
}
