#include "support/testdb.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "comm/globle.h"

namespace cmstest {

namespace {
std::atomic<int> g_counter{0};

void Drain(MYSQL* conn) {
    do {
        if (MYSQL_RES* r = mysql_store_result(conn)) mysql_free_result(r);
    } while (mysql_next_result(conn) == 0);
}
}  // namespace

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int TestDatabase::Port() {
    const char* p = std::getenv("CMS_TEST_DB_PORT");
    return p ? std::atoi(p) : 3317;
}

TestDatabase::TestDatabase(bool loadSchema, bool loadDemo) {
    m_conn = mysql_init(nullptr);
    if (!mysql_real_connect(m_conn, "127.0.0.1", "cms", "cms", nullptr, Port(), nullptr,
                            CLIENT_MULTI_STATEMENTS)) {
        std::fprintf(stderr, "test database unreachable on port %d: %s\n", Port(),
                     mysql_error(m_conn));
        mysql_close(m_conn);
        m_conn = nullptr;
        return;
    }
    mysql_set_character_set(m_conn, "utf8");
    m_name = "t" + std::to_string(getpid()) + "_" + std::to_string(g_counter++);
    Exec("DROP DATABASE IF EXISTS " + m_name + "; CREATE DATABASE " + m_name +
         " CHARACTER SET utf8mb4");
    mysql_select_db(m_conn, m_name.c_str());
    if (loadSchema) ExecFile(std::string(CMS_SOURCE_DIR) + "/db/schema.sql");
    if (loadDemo) ExecFile(std::string(CMS_SOURCE_DIR) + "/db/demo.sql");
    UseForServer();
}

TestDatabase::~TestDatabase() {
    if (!m_conn) return;
    Exec("DROP DATABASE IF EXISTS " + m_name);
    mysql_close(m_conn);
}

void TestDatabase::UseForServer() const {
    std::memset(&m_cfgCms, 0, sizeof(m_cfgCms));
    std::snprintf(m_cfgCms.szDbAddr, sizeof(m_cfgCms.szDbAddr), "127.0.0.1");
    std::snprintf(m_cfgCms.szDbName, sizeof(m_cfgCms.szDbName), "%s", m_name.c_str());
    std::snprintf(m_cfgCms.szDbUser, sizeof(m_cfgCms.szDbUser), "cms");
    std::snprintf(m_cfgCms.szDbPass, sizeof(m_cfgCms.szDbPass), "cms");
    m_cfgCms.szDbPort = Port();
}

bool TestDatabase::Exec(const std::string& sql) {
    if (!m_conn) return false;
    if (mysql_real_query(m_conn, sql.data(), sql.size()) != 0) {
        std::fprintf(stderr, "test sql failed: %s\n  in: %.300s\n", mysql_error(m_conn),
                     sql.c_str());
        Drain(m_conn);
        return false;
    }
    bool ok = true;
    do {
        if (MYSQL_RES* r = mysql_store_result(m_conn)) mysql_free_result(r);
        else if (mysql_errno(m_conn)) ok = false;
    } while (mysql_next_result(m_conn) == 0);
    if (mysql_errno(m_conn)) {
        std::fprintf(stderr, "test sql failed: %s\n", mysql_error(m_conn));
        ok = false;
    }
    return ok;
}

bool TestDatabase::ExecFile(const std::string& path) {
    std::string text = ReadFile(path);
    if (text.empty()) {
        std::fprintf(stderr, "missing sql file %s\n", path.c_str());
        return false;
    }
    return Exec(text);
}

std::vector<std::vector<std::string>> TestDatabase::Query(const std::string& sql) {
    std::vector<std::vector<std::string>> rows;
    if (!m_conn || mysql_real_query(m_conn, sql.data(), sql.size()) != 0) {
        if (m_conn) std::fprintf(stderr, "test query failed: %s\n", mysql_error(m_conn));
        return rows;
    }
    MYSQL_RES* r = mysql_store_result(m_conn);
    if (!r) return rows;
    unsigned n = mysql_num_fields(r);
    while (MYSQL_ROW row = mysql_fetch_row(r)) {
        unsigned long* len = mysql_fetch_lengths(r);
        std::vector<std::string> out;
        for (unsigned i = 0; i < n; ++i)
            out.push_back(row[i] ? std::string(row[i], len[i]) : std::string("NULL"));
        rows.push_back(std::move(out));
    }
    mysql_free_result(r);
    return rows;
}

std::string TestDatabase::Scalar(const std::string& sql) {
    auto rows = Query(sql);
    return rows.empty() || rows[0].empty() ? std::string() : rows[0][0];
}

long long TestDatabase::Count(const std::string& table, const std::string& where) {
    std::string sql = "select count(*) from " + table;
    if (!where.empty()) sql += " where " + where;
    return std::atoll(Scalar(sql).c_str());
}

}  // namespace cmstest
