#include <gtest/gtest.h>

#include <string>

#include "support/testdb.h"

namespace {

// What the demo must offer beyond the rows the catalogue and node-list tests read.
TEST(Schema, SchemaAndDemoLoadIntoAnEmptyDatabase) {
    cmstest::TestDatabase db(true, true);
    ASSERT_TRUE(db.ok());
    EXPECT_EQ(1, db.Count("region", "parentid = 0"));
    EXPECT_GT(db.Count("devicechan", "status & 65536"), 0);
    EXPECT_GT(db.Count("devicechan", "status & 65536 = 0"), 0);
    EXPECT_EQ(1, db.Count("serverinfo", "svrtype = 1 and regionid = 1"));
    // Every channel belongs to a device, every device to a region.
    EXPECT_EQ(0, db.Count("devicechan c left join device d on d.id = c.devid", "d.id is null"));
    EXPECT_EQ(0, db.Count("device d left join region r on r.id = d.regionid", "r.id is null"));
}

// Statements the server composes that no test runs through the code composing them.
TEST(Schema, AcceptsEveryStatementTheServerRuns) {
    cmstest::TestDatabase db(true, true);
    ASSERT_TRUE(db.ok());
    const char* statements[] = {
        "insert into intveventlog(nodeid,nodetype,eventtype,param,descript,logtime,loctime) "
        "values (1,3,5,0,\"d\",\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "update device set status = 65536 where id = 1",
        "update serverchan set sindex = 5 where id = 1",
        "delete from devicecfg where nodeid = 1 and nodetype = 3 and configtype = 8",
        "insert into devicecfg(nodeid,nodetype,configtype,configure) "
        "values(1,3,8,\"<rule></rule>\")",
        "select * from  devicecfg where nodeid in (select id from serverchan where "
        "serverid = 3) and configtype = 8 and nodetype = 9",
        "select * from  devicecfg where nodeid in (select id from devicechan where "
        "devid = 1) and configtype = 8 and nodetype = 3",
        "delete devicecfgrule from devicecfgrule where nodeid = 1 and nodetype = 2",
        "insert into devicecfgrule(nodeid,nodetype,name,pos,paramsize,paramnames,enable) "
        "values(1,2,'r',1,2,'a,b',1)",
        "delete devicecfgadvc from devicecfgadvc where nodeid = 1 and nodetype = 2",
        "insert into devicecfgadvc(nodeid,nodetype,advc) values(1,2,'<x/>')",
        "delete devicecfgbasedata from devicecfgbasedata where nodeid = 1 and nodetype = 2",
        "insert into devicecfgbasedata(nodeid,nodetype,name,modetype,mode,objecttype) "
        "values(1,2,'m',1,0,-1)",
        "select id from stiffinfo where id = 1",
        "update staffinfo set faceid = 42 where id = 1",
    };
    for (const char* sql : statements) EXPECT_TRUE(db.Exec(sql)) << sql;
    // The face id written under one staff name reads back under the other.
    EXPECT_EQ("42", db.Scalar("select faceid from stiffinfo where id = 1"));
    // Unpadded times compare as times, not as text.
    EXPECT_EQ(0, db.Count("intveventlog", "loctime <= '2024-3-5 7:4:8'"));
    EXPECT_EQ(1, db.Count("intveventlog", "loctime <= '2024-10-1 0:0:0'"));
}

}  // namespace
