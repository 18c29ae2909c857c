// A database of its own for each test, inside the throwaway MariaDB that the CTest
// fixture starts (scripts/testdb). Points m_cfgCms at it while alive.
#pragma once

#include <mysql.h>

#include <string>
#include <vector>

namespace cmstest {

class TestDatabase {
public:
    // Creates a fresh database; loads db/schema.sql (and db/demo.sql) when asked.
    explicit TestDatabase(bool loadSchema = true, bool loadDemo = false);
    ~TestDatabase();
    TestDatabase(const TestDatabase&) = delete;
    TestDatabase& operator=(const TestDatabase&) = delete;

    bool ok() const { return m_conn != nullptr; }
    const std::string& name() const { return m_name; }
    static int Port();
    // Runs statements (several separated by ';' allowed); false with the error printed.
    bool Exec(const std::string& sql);
    bool ExecFile(const std::string& path);
    // Rows of a query as text; NULL reads as "NULL".
    std::vector<std::vector<std::string>> Query(const std::string& sql);
    std::string Scalar(const std::string& sql);
    long long Count(const std::string& table, const std::string& where = "");
    // Points m_cfgCms at this database (done by the constructor).
    void UseForServer() const;

private:
    MYSQL* m_conn = nullptr;
    std::string m_name;
};

// Reads a whole file; empty when missing.
std::string ReadFile(const std::string& path);

}  // namespace cmstest
