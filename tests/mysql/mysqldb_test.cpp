#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "comm/globle.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

class MysqlDbTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(db.Exec(
            "create table a (id int auto_increment primary key, name varchar(20), v int);"
            "create table b (id int primary key, name varchar(20));"
            "create table plain (k int, txt text);"
            "insert into a (name, v) values ('alpha', NULL), (NULL, 7);"
            "insert into b values (1, 'beta'), (2, 'gamma')"));
        ASSERT_TRUE(ConnectDB(&conn));
    }
    cmstest::TestDatabase db{false};
    CMysqlDB conn;
};

// A port nothing listens on: bind an ephemeral port, then release it.
int UnusedPort() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
    close(s);
    return ntohs(addr.sin_port);
}

TEST_F(MysqlDbTest, FieldLookupByBareQualifiedAndAliasName) {
    CMysqlRecordSet rs;
    ASSERT_TRUE(rs.Open(&conn, "select * from a x inner join b on b.id = x.id order by x.id"));
    EXPECT_EQ(0, rs.GetRows());  // streamed: the count is unknown at open time
    EXPECT_EQ(5, rs.GetFeilds());
    ASSERT_TRUE(rs.MoveNext());
    char out[32] = "";
    EXPECT_TRUE(rs.GetFieldValue("name", out));  // the first column of that name
    EXPECT_STREQ("alpha", out);
    EXPECT_TRUE(rs.GetFieldValue("B.NAME", out));
    EXPECT_STREQ("beta", out);
    EXPECT_TRUE(rs.GetFieldValue("x.name", out));
    EXPECT_STREQ("alpha", out);
    // The qualifier is the alias: the base table name no longer matches.
    std::strcpy(out, "keep");
    EXPECT_FALSE(rs.GetFieldValue("a.name", out));
    EXPECT_FALSE(rs.GetFieldValue("missing", out));
    EXPECT_FALSE(rs.GetFieldValue("x.", out));
    EXPECT_STREQ("keep", out);
    EXPECT_TRUE(rs.GetFieldValue("v", out));  // NULL: found, buffer untouched
    EXPECT_STREQ("keep", out);

    ASSERT_TRUE(rs.MoveNext());
    EXPECT_TRUE(rs.GetFieldValue("x.name", out));  // NULL in the second row
    EXPECT_STREQ("keep", out);
    char small[4];
    EXPECT_TRUE(rs.GetFieldValue("b.name", small));
    EXPECT_STREQ("gam", small);
    EXPECT_FALSE(rs.MoveNext());
    EXPECT_TRUE(rs.Close());
    EXPECT_FALSE(rs.Close());
}

TEST_F(MysqlDbTest, InsertIdsAndStatementBufferReuse) {
    char sql[64] = "insert into a (name) values ('delta')";
    EXPECT_EQ(3, AddRecordBySQL(sql));
    EXPECT_STREQ("select last_insert_id()", sql);

    // No auto-increment column: the statement succeeds and the id stays 0.
    int64_t id = 0;
    char plain[64] = "insert into plain values (1, 'x')";
    EXPECT_TRUE(conn.Execute(plain, id));
    EXPECT_EQ(0, id);
    EXPECT_STREQ("select last_insert_id()", plain);

    // A statement shorter than the id query: only its own bytes are rewritten.
    struct {
        char sql[23];
        char guard[8];
    } shortBuf;
    std::memset(shortBuf.guard, 'G', sizeof(shortBuf.guard));
    std::strcpy(shortBuf.sql, "insert into b set id=9");
    EXPECT_TRUE(conn.Execute(shortBuf.sql, id));
    EXPECT_STREQ("select last_insert_id(", shortBuf.sql);
    EXPECT_EQ('G', shortBuf.guard[0]);

    char bad[64] = "insert into nowhere values (1)";
    EXPECT_EQ(0, AddRecordBySQL(bad));
    EXPECT_STREQ("insert into nowhere values (1)", bad);
    EXPECT_EQ(0, AddRecordBySQL(nullptr));
}

TEST_F(MysqlDbTest, ConnectionStaysUsableAfterUnreadRows) {
    // Rows returned to the plain Execute are dropped, so the next statement runs.
    EXPECT_TRUE(conn.Execute("select * from b"));
    EXPECT_TRUE(conn.Execute("update b set name = 'z' where id = 1"));

    CMysqlRecordSet rs;
    ASSERT_TRUE(rs.Open(&conn, "select * from b"));
    ASSERT_TRUE(rs.MoveNext());
    conn.Close();  // with rows still pending: drained, and the cursor is dead
    EXPECT_FALSE(rs.MoveNext());
    char out[8] = "";
    EXPECT_FALSE(rs.GetFieldValue("name", out));
    rs.Close();

    ASSERT_TRUE(ConnectDB(&conn));
    ASSERT_TRUE(rs.Open(&conn, "select count(*) n from b"));
    ASSERT_TRUE(rs.MoveNext());
    EXPECT_TRUE(rs.GetFieldValue("n", out));
    EXPECT_STREQ("2", out);

    EXPECT_FALSE(rs.Open(nullptr, "select 1"));
    CMysqlDB closed;
    int64_t id = 5;
    char sql[32] = "insert into b set id=3";
    EXPECT_FALSE(closed.Execute(sql, id));
    EXPECT_FALSE(closed.Execute("select 1"));
    EXPECT_EQ(5, id);
}

TEST_F(MysqlDbTest, GetMyselfDataAnswersRowsAsXml) {
    char req[] = "select id, name, v from a order by id&id,name,v,nosuch,&ignored";
    char* out = nullptr;
    int len = 0;
    ASSERT_EQ(1, GetMyselfData(req, &out, &len));
    std::string xml(out, len);
    delete[] out;
    EXPECT_EQ(
        "<data><tb>id,name,v,nosuch,</tb><vs><v>1,alpha,,,</v><v>2,,7,,</v></vs></data>", xml);

    // A trailing name without ',' is not a column; zero rows keep the frame.
    char none[] = "select id from a where id < 0&id,name";
    ASSERT_EQ(1, GetMyselfData(none, &out, &len));
    EXPECT_EQ("<data><tb>id,</tb><vs></vs></data>", std::string(out, len));
    EXPECT_EQ('\0', out[len]);
    delete[] out;

    // Values and column lists longer than any fixed row buffer come back whole.
    std::string big(3000, 'q');
    ASSERT_TRUE(db.Exec("insert into plain values (1, '" + big + "')"));
    std::string cols;
    for (int i = 0; i < 150; ++i) cols += "txt,";
    std::string longReq = "select txt from plain&" + cols;
    ASSERT_EQ(1, GetMyselfData(&longReq[0], &out, &len));
    EXPECT_EQ(size_t(len), 10 + cols.size() + 9 + (3 + 150 * 3001 + 4) + 12);
    delete[] out;

    char bad[] = "select * from nowhere&id,";
    EXPECT_EQ(0, GetMyselfData(bad, &out, &len));
    for (const char* text : {"", "select 1", "select 1&"}) {
        std::string copy = text;
        EXPECT_EQ(-1, GetMyselfData(&copy[0], &out, &len)) << text;
    }
    EXPECT_EQ(-1, GetMyselfData(nullptr, &out, &len));
}

TEST_F(MysqlDbTest, DatabaseDownFailsFast) {
    m_cfgCms.szDbPort = UnusedPort();
    auto start = std::chrono::steady_clock::now();
    CMysqlDB down;
    EXPECT_FALSE(ConnectDB(&down));
    EXPECT_FALSE(down.IsOpen());
    char sql[64] = "insert into a (name) values ('x')";
    EXPECT_EQ(0, AddRecordBySQL(sql));
    EXPECT_FALSE(OperateDBBySQL("update a set v = 1"));
    char req[] = "select 1 n&n,";
    char* out = nullptr;
    int len = 0;
    EXPECT_EQ(0, GetMyselfData(req, &out, &len));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_FALSE(ConnectDB(nullptr));
}

TEST_F(MysqlDbTest, EscapeSqlQuotesAndBoundsTheResult) {
    char out[64];
    EscapeSql(&conn, "it's \"x\"\\", out, sizeof(out));
    EXPECT_STREQ("it\\'s \\\"x\\\"\\\\", out);
    EscapeSql(nullptr, "o'k", out, sizeof(out));
    EXPECT_STREQ("o\\'k", out);

    // Truncated so that the escaped text fits, never inside an escape or a character.
    char small[6];
    EscapeSql(&conn, "ab''cd", small, sizeof(small));
    EXPECT_STREQ("ab\\'", small);
    EscapeSql(&conn, "ab中文", small, sizeof(small));
    EXPECT_STREQ("ab中", small);
    EscapeSql(&conn, nullptr, small, sizeof(small));
    EXPECT_STREQ("", small);

    // The escaped value round-trips through a statement.
    const char* hostile = "x'); drop table b; --";
    char esc[128];
    EscapeSql(&conn, hostile, esc, sizeof(esc));
    ASSERT_TRUE(conn.Execute(("insert into plain values (2, '" + std::string(esc) + "')").c_str()));
    EXPECT_EQ(hostile, db.Scalar("select txt from plain where k = 2"));
    EXPECT_EQ(2, db.Count("b"));
}

}  // namespace
