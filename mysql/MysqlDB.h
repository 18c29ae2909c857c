// One MySQL/MariaDB connection. Each database user makes its own object on the stack,
// connects, works and closes: a connection is used by one thread at a time. Borrow takes
// the connection from the pool (mysql/dbpool.h) and Close hands it back, so that reuse
// cannot be told apart from a new connection: a connection that saw an error, an open
// transaction or changed session state is closed instead of kept, and an earlier
// borrower's last_insert_id() is cleared before the first statement that could read it.
#pragma once

#include <mysql.h>

#include <cstdint>
#include <mutex>

#include "mysql/dbpool.h"

class CMysqlDB {
public:
    CMysqlDB();
    ~CMysqlDB();
    CMysqlDB(const CMysqlDB&) = delete;
    CMysqlDB& operator=(const CMysqlDB&) = delete;

    bool IsOpen() const { return m_bOpen; }
    // Note the argument order: host, port, user, password, database. An unreachable server
    // fails within a few seconds (connect timeout). Calling it on an open object closes
    // the old connection first.
    bool Connect(const char* host, int port, const char* user, const char* password,
                 const char* database);
    // As Connect, through the pool; Close gives the connection back.
    bool Borrow(const char* host, int port, const char* user, const char* password,
                const char* database, int poolSize);
    // Runs an INSERT and reads back the new id. On success `sql` is overwritten with
    // "select last_insert_id()" (as much of it as fits in strlen(sql)+1 bytes).
    // insertId is left alone when the id cannot be read.
    bool Execute(char* sql, int64_t& insertId);
    // Runs a statement; any rows it returns are read and dropped.
    bool Execute(const char* sql);
    // Fast forms for the event writers, one round trip each. ExecuteInsert is for an INSERT
    // that leaves the auto-increment column to the server: the new id comes with the reply
    // (0 for a table without one). ExecuteUpdate is for a statement that neither reads nor
    // sets insert ids (an UPDATE without last_insert_id()).
    bool ExecuteInsert(const char* sql, int64_t& insertId);
    bool ExecuteUpdate(const char* sql);
    // Opens a streamed result; rowCount is the count known at open time (0 while streaming).
    // Only one streamed result can be open on a connection at a time.
    bool OpenRecordSet(const char* sql, MYSQL_RES*& result, int& rowCount, int& colCount);
    // Frees a result of OpenRecordSet (reading its remaining rows). A result that Close
    // already released is not touched again.
    bool FreeResult(MYSQL_RES* result);
    // True while `result` is the open streamed result of this connection.
    bool IsStreaming(const MYSQL_RES* result) const { return result && result == m_pStreaming; }
    // Releases an open streamed result, then the connection.
    void Close();

    // Escapes `in` for use inside a quoted literal; `out` holds at least 2*strlen(in)+1.
    unsigned long Escape(char* out, const char* in) const;
    MYSQL* Handle() const { return sock; }

private:
    // Keeps the settings of a newly opened connection; it starts out reusable.
    void Remember(const char* host, int port, const char* user, const char* password,
                  const char* database);
    void ReleaseStreaming();
    // Before a statement that might read or set last_insert_id(): clears a value left by an
    // earlier borrower. False when that fails (the connection is then not reused).
    bool PrepareGeneral();
    // After every statement: errors and session-state changes make the connection one-off.
    bool Note(bool ok);
    void Detach();

    unsigned int m_unExcude;  // tick of the last connect or statement; 0 after Close
    std::mutex m_cs;          // guards Connect and Close only
    MYSQL* sock;
    bool m_bOpen;
    char m_szHost[60];
    int m_nPort;
    char m_szUser[20];
    char m_szPass[20];
    char m_db[30];
    MYSQL_RES* m_pStreaming;  // the streamed result handed out and not yet freed
    bool m_bPooled;           // sock belongs to m_lease
    bool m_bReusable;         // no error and no session state left by this borrower
    bool m_bSetsInsertId;     // a statement of this borrow may have set last_insert_id()
    dbpool::Lease m_lease;
};
