#include <gtest/gtest.h>

#include <string>

#include "support/testdb.h"

namespace {

TEST(Schema, SchemaAndDemoLoadIntoAnEmptyDatabase) {
    cmstest::TestDatabase db(true, true);
    ASSERT_TRUE(db.ok());
    EXPECT_EQ(1, db.Count("region", "parentid = 0"));
    EXPECT_GT(db.Count("region", "parentid <> 0 and scode <> ''"), 2);
    EXPECT_GT(db.Count("device"), 0);
    EXPECT_GT(db.Count("devicechan", "status & 65536"), 0);
    EXPECT_GT(db.Count("devicechan", "status & 65536 = 0"), 0);
    EXPECT_EQ(1, db.Count("serverinfo", "svrtype = 1 and regionid = 1"));
    EXPECT_EQ(1, db.Count("serverinfo", "svrtype = 3"));
    EXPECT_EQ(1, db.Count("domaininfo", "type = 0"));
    EXPECT_EQ(1, db.Count("domaininfo", "type = 1"));
    EXPECT_GT(db.Count("mediaregistor"), 0);
    EXPECT_GT(db.Count("devicegroupchan c inner join devicegroup g on g.id = c.groupid"), 0);
    EXPECT_GT(db.Count("domainsharenode"), 0);
    // Every channel belongs to a device, every device to a region.
    EXPECT_EQ(0, db.Count("devicechan c left join device d on d.id = c.devid", "d.id is null"));
    EXPECT_EQ(0, db.Count("device d left join region r on r.id = d.regionid", "r.id is null"));
}

// The statements the server composes, with sample values: each must run on the schema.
TEST(Schema, AcceptsEveryStatementTheServerRuns) {
    cmstest::TestDatabase db(true, true);
    ASSERT_TRUE(db.ok());
    const char* statements[] = {
        "insert into region(name) values (\"root\")",
        "insert into region(name,parentid,regtype) values(\"reg\",1,254)",
        "insert into region(name,sn,scode,parentid,domainid) values (\"n\",\"c\",\"c\",1,1)",
        "insert into region(name,sn,scode,parentid,domainid,usecode) values "
        "(\"n\",\"34\",\"34\",1,1,1)",
        "insert into device (name,sn,ftype,regionid,domainid) values (\"s\",\"s\",3,1,1)",
        "insert into device(name,hardwaretype,ftype,sn,scode,regionid,domainid,status) "
        "values('n',1,3,'c','c',1,1,-65536)",
        "insert into devicechan(name,type,sn,scode,devid,domainid,status) "
        "values('n',1,'c','c',0,1,65536)",
        "insert into devicechan(name,sn,devid) values (\"n\",\"c\",1)",
        "insert into deveventlog(nodeid,nodetype,eventtype,descript,logtime) "
        "values (1,2,5,\"d\",\"2024-3-5 7:4:9\")",
        "insert into devdiagnoselog(nodeid,nodetype,eventtype,param,descript,logtime,loctime) "
        "values (1,3,5,0,\"d\",\"2024-3-5 7:4:9\",\"1970-1-1 0:0:0\")",
        "insert into devrunlog(nodeid,nodetype,eventtype,param,descript,logtime,loctime) "
        "values (1,3,5,0,\"d\",\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "insert into intveventlog(nodeid,nodetype,eventtype,param,descript,logtime,loctime) "
        "values (1,3,5,0,\"d\",\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "insert into intveventlog2(nodeid,nodetype,eventtype,param,descript,logtime,loctime) "
        "values (1,3,5,0,\"d\",\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "insert into faceeventlog(nodeid,nodetype,personid,age,gender,alike,status,logtime,"
        "loctime) values (1,3,9,30,1,87,0,\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "insert into faceeventlog2(nodeid,nodetype,personid,age,gender,alike,status,logtime,"
        "loctime) values (1,3,9,30,1,87,0,\"2024-3-5 7:4:9\",\"2024-3-5 7:4:9\")",
        "update device set status = 65536 where id = 1",
        "update devicechan set status = 0 where id = 1",
        "update serverinfo set status = 0 where id = 1",
        "update serverchan set status = 0 where id = 1",
        "update serverchan set sindex = 5 where id = 1",
        "select * from intveventlog  where id > 0 and loctime <= '2030-1-1 0:0:0' ",
        "select * from intveventlog where cstatus = 1 ORDER BY id desc LIMIT 1",
        "select * from domainsharenode c inner join domaininfo s on c.domainid = s.id "
        "where s.s_code = '34000000002000000001'",
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
        "insert into  mediaregistor(nodeid,nodetype,sn,parentid) values (2,2,'s',1)",
        "update mediaregistor set parnetid = 1 where id = 1",
        "delete mediaregistor from mediaregistor where id = 2",
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
