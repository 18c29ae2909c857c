// One MySQL/MariaDB connection. Each database user makes its own object on the stack,
// connects, works and closes: connections are never shared between threads.
#pragma once

#include <mysql.h>

#include <cstdint>
#include <mutex>

class CMysqlDB {
public:
    CMysqlDB();
    ~CMysqlDB();
    CMysqlDB(const CMysqlDB&) = delete;
    CMysqlDB& operator=(const CMysqlDB&) = delete;

    bool IsOpen() const { return m_bOpen; }
    // Note the argument order: host, port, user, password, database.
    bool Connect(const char* host, int port, const char* user, const char* password,
                 const char* database);
    // Runs an INSERT and reads back the new id. On success `sql` is overwritten with
    // "select last_insert_id()": pass a writable buffer of at least 24 bytes.
    bool Execute(char* sql, int64_t& insertId);
    // Runs a statement that returns no rows.
    bool Execute(const char* sql);
    // Opens a streamed result; rowCount is the count known at open time (0 while streaming).
    bool OpenRecordSet(const char* sql, MYSQL_RES*& result, int& rowCount, int& colCount);
    bool FreeResult(MYSQL_RES* result);
    void Close();

    // Escapes `in` for use inside a quoted literal; `out` holds at least 2*strlen(in)+1.
    unsigned long Escape(char* out, const char* in) const;
    MYSQL* Handle() const { return sock; }

private:
    unsigned int m_unExcude;  // tick of the last connect or statement; 0 after Close
    std::mutex m_cs;          // guards Connect and Close only
    MYSQL* sock;
    bool m_bOpen;
    char m_szHost[60];
    int m_nPort;
    char m_szUser[20];
    char m_szPass[20];
    char m_db[30];
};
