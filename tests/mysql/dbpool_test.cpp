#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "comm/globle.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

constexpr const char* kRunLog =
    "create table devrunlog (id int auto_increment primary key, nodeid int, nodetype int,"
    " eventtype int, param int, descript varchar(64), logtime varchar(32), loctime varchar(32))";

class DbPool : public ::testing::Test {
protected:
    void SetUp() override {
        dbpool::Clear();
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(
            db.Exec("create table a (id int auto_increment primary key, name varchar(20))"));
    }
    void TearDown() override { dbpool::Clear(); }

    // Column v of the first row through GetMyselfData, as a client's query reads it.
    static std::string Ask(const std::string& select) {
        std::string req = select + "&v,";
        char* out = nullptr;
        int len = 0;
        if (GetMyselfData(&req[0], &out, &len) != 1) return "error";
        std::string xml(out, len);
        delete[] out;
        const size_t at = xml.find("<v>");
        return at == std::string::npos ? "none" : xml.substr(at + 3, xml.find(',', at) - at - 3);
    }

    cmstest::TestDatabase db{false};
};

TEST_F(DbPool, ReusedConnectionsCarryNothingFromTheLastBorrower) {
    const std::string first = Ask("select connection_id() v");
    EXPECT_EQ(first, Ask("select connection_id() v"));  // reused
    EXPECT_EQ(1u, dbpool::IdleCount());

    char sql[64] = "insert into a (name) values ('x')";
    EXPECT_EQ(1, AddRecordBySQL(sql));
    // Neither an earlier insert id nor session state reaches the next borrower.
    EXPECT_EQ(0, AddRecordBySQL(&std::string("update a set name = 'y'")[0]));
    EXPECT_EQ("0", Ask("select last_insert_id() v"));
    EXPECT_EQ(first, Ask("select connection_id() v"));  // clearing the id keeps it reusable
    EXPECT_TRUE(OperateDBBySQL("set @mark = 5"));
    EXPECT_EQ("", Ask("select @mark v"));  // NULL reads as empty
    EXPECT_TRUE(OperateDBBySQL("start transaction"));
    EXPECT_TRUE(OperateDBBySQL("insert into a (name) values ('z')"));
    EXPECT_EQ(2, db.Count("a"));  // autocommit again: the row is visible elsewhere
    EXPECT_FALSE(OperateDBBySQL("no such statement"));
    EXPECT_NE(first, Ask("select connection_id() v"));  // after all that, a new connection

    // Within one borrow the connection's own id stands, as on a connection of its own.
    CMysqlDB conn;
    ASSERT_TRUE(ConnectDB(&conn));
    ASSERT_TRUE(conn.Execute("insert into a (name) values ('w')"));
    int64_t id = 0;
    char update[64] = "update a set name = 'v' where id = 1";
    EXPECT_TRUE(conn.Execute(update, id));
    EXPECT_EQ(3, id);
}

TEST_F(DbPool, ConcurrentInsertsGetTheirOwnIdsAndNestedBorrowsNeverBlock) {
    ASSERT_TRUE(db.Exec(kRunLog));
    m_cfgCms.nDbPool = 2;  // fewer than the threads: the rest use connections of their own
    constexpr int kThreads = 6, kEach = 100;
    std::vector<std::vector<std::pair<int64_t, int64_t>>> ids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &ids] {
            for (int i = 0; i < kEach; ++i) {
                CMysqlDB held;  // a second connection while holding one
                ConnectDB(&held);
                const std::string name = std::to_string(t * kEach + i);
                std::string sql = "insert into a (name) values ('" + name + "')";
                ids[t].emplace_back(AddRecordBySQL(&sql[0]),
                                    WrightMySqlRunInfo(0, 1, 2, 1, 0, name.c_str()));
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_LE(dbpool::IdleCount(), 2u);
    // Every id names the row that its own statement wrote.
    std::vector<std::string> byId(kThreads * kEach + 1), runById(kThreads * kEach + 1);
    for (const auto& row : db.Query("select id, name from a")) byId.at(std::stoi(row[0])) = row[1];
    for (const auto& row : db.Query("select id, descript from devrunlog"))
        runById.at(std::stoi(row[0])) = row[1];
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kEach; ++i) {
            const std::string name = std::to_string(t * kEach + i);
            EXPECT_EQ(name, byId.at(ids[t][i].first));
            EXPECT_EQ(name, runById.at(ids[t][i].second));
        }
}

TEST_F(DbPool, KilledConnectionsAreReplacedWithoutARestart) {
    ASSERT_TRUE(db.Exec(kRunLog));
    std::vector<CMysqlDB> held(3);  // three idle connections once closed
    for (CMysqlDB& c : held) ASSERT_TRUE(ConnectDB(&c));
    for (CMysqlDB& c : held) CloseDB(&c);
    ASSERT_EQ(3u, dbpool::IdleCount());

    // As a database restart does: every server-side session ends under the pool.
    const std::string mine = db.Scalar("select connection_id()");
    for (const auto& row : db.Query("select id from information_schema.processlist where db = '" +
                                    db.name() + "' and id <> " + mine))
        ASSERT_TRUE(db.Exec("kill " + row[0]));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (db.Count("information_schema.processlist", "db = '" + db.name() + "'") > 1 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    char sql[64] = "insert into a (name) values ('after')";
    EXPECT_EQ(1, AddRecordBySQL(sql));
    EXPECT_EQ(1, WrightMySqlRunInfo(0, 1, 2, 1, 0, "back"));
    EXPECT_EQ("after", Ask("select name v from a where id = 1"));
}

}  // namespace
