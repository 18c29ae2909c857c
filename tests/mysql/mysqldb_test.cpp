#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "comm/globle.h"
#include "mysql/sqldbop.h"
#include "support/daemon.h"
#include "support/testdb.h"

namespace {

class MysqlDbTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(
            db.Exec("create table a (id int auto_increment primary key, name varchar(20), v int);"
                    "create table b (id int primary key, name varchar(20));"
                    "create table plain (k int, txt text);"
                    "insert into a (name, v) values ('alpha', NULL), (NULL, 7);"
                    "insert into b values (1, 'beta'), (2, 'gamma')"));
        ASSERT_TRUE(ConnectDB(&conn));
    }
    cmstest::TestDatabase db{false};
    CMysqlDB conn;
};

TEST_F(MysqlDbTest, FieldLookupByBareQualifiedAndAliasName) {
    CMysqlRecordSet rs;
    ASSERT_TRUE(rs.Open(&conn, "select * from a x inner join b on b.id = x.id order by x.id"));
    EXPECT_EQ(0, rs.GetRows());  // streamed: the count is unknown at open time
    EXPECT_EQ(5, rs.GetFeilds());
    ASSERT_TRUE(rs.MoveNext());
    // {name, found, buffer afterwards}: a miss or a NULL leaves the buffer as it was.
    const std::tuple<const char*, bool, const char*> lookups[] = {
        {"name", true, "alpha"},  // the first column of that name
        {"B.NAME", true, "beta"},   {"x.name", true, "alpha"},
        {"a.name", false, "keep"},  // the qualifier is the alias, not the base table
        {"missing", false, "keep"}, {"x.", false, "keep"},
        {"v", true, "keep"},
    };
    for (const auto& [field, found, value] : lookups) {
        char out[32] = "keep";
        EXPECT_EQ(found, rs.GetFieldValue(field, out)) << field;
        EXPECT_STREQ(value, out) << field;
    }
    ASSERT_TRUE(rs.MoveNext());
    char out[32] = "keep";
    EXPECT_TRUE(rs.GetFieldValue("x.name", out));  // NULL in the second row
    EXPECT_STREQ("keep", out);
    char small[4];
    EXPECT_TRUE(rs.GetFieldValue("b.name", small));
    EXPECT_STREQ("gam", small);
    EXPECT_FALSE(rs.MoveNext());
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
    EXPECT_EQ("<data><tb>id,name,v,nosuch,</tb><vs><v>1,alpha,,,</v><v>2,,7,,</v></vs></data>",
              xml);
    // An answer longer than the caller can send is refused, one byte over or more.
    for (size_t limit : {xml.size(), xml.size() - 1, size_t(30)}) {
        char again[] = "select id, name, v from a order by id&id,name,v,nosuch,";
        out = nullptr;
        EXPECT_EQ(limit == xml.size() ? 1 : -2, GetMyselfData(again, &out, &len, limit));
        delete[] out;
    }

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
    m_cfgCms.szDbPort = cmstest::FreePort();
    auto start = std::chrono::steady_clock::now();
    CMysqlDB down;
    EXPECT_FALSE(ConnectDB(&down));
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
    // {input, output size, expected}: cut so the escaped text fits, never inside an
    // escape or a character.
    const std::tuple<const char*, size_t, const char*> rows[] = {
        {"it's \"x\"\\", 64, "it\\'s \\\"x\\\"\\\\"},
        {"ab''cd", 6, "ab\\'"},
        {"ab中文", 6, "ab中"},
        {nullptr, 6, ""},
    };
    for (const auto& [in, size, expected] : rows) {
        std::vector<char> exact(size);  // heap-sized to the limit, so an overrun shows
        EscapeSql(&conn, in, exact.data(), size);
        EXPECT_STREQ(expected, exact.data()) << size;
    }
    char out[64];
    EscapeSql(nullptr, "o'k", out, sizeof(out));  // no connection: plain escaping
    EXPECT_STREQ("o\\'k", out);

    // The escaped value round-trips through a statement.
    const char* hostile = "x'); drop table b; --";
    EscapeSql(&conn, hostile, out, sizeof(out));
    ASSERT_TRUE(conn.Execute(("insert into plain values (2, '" + std::string(out) + "')").c_str()));
    EXPECT_EQ(hostile, db.Scalar("select txt from plain where k = 2"));
    EXPECT_EQ(2, db.Count("b"));
}

}  // namespace
