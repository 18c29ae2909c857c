#include "mysql/MysqlDB.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "comm/metrics.h"
#include "comm/sysutil.h"

namespace {

constexpr char kLastIdQuery[] = "select last_insert_id()";
// Clears what an earlier borrower left in last_insert_id(); a new connection reads 0.
constexpr char kClearLastId[] = "do last_insert_id(0)";

struct ResultFreer {
    void operator()(MYSQL_RES* r) const { mysql_free_result(r); }
};
using ResultPtr = std::unique_ptr<MYSQL_RES, ResultFreer>;

template <size_t N>
void CopyText(char (&dst)[N], const char* src) {
    std::snprintf(dst, N, "%s", src ? src : "");
}

// Reads and drops whatever rows a statement returned, so the connection stays in sync.
void DropResult(MYSQL* sock) {
    if (mysql_field_count(sock) == 0) return;
    ResultPtr rest(mysql_use_result(sock));
}

// The value of the "last_insert_id()" column of the one row, when there is one.
bool ReadLastId(MYSQL_RES* res, int64_t& id) {
    MYSQL_ROW row = mysql_fetch_row(res);
    if (!row) return false;
    unsigned int n = mysql_num_fields(res);
    for (unsigned int i = 0; i < n; ++i) {
        MYSQL_FIELD* f = mysql_fetch_field_direct(res, i);
        if (!f || !f->name || strcasecmp(f->name, "last_insert_id()") != 0) continue;
        // atoi, widened: ids above 2^31-1 do not survive, as callers expect.
        if (row[i]) id = static_cast<int64_t>(std::atoi(row[i]));
        return true;
    }
    return false;
}

}  // namespace

CMysqlDB::CMysqlDB()
    : m_unExcude(0),
      sock(nullptr),
      m_bOpen(false),
      m_szHost{},
      m_nPort(0),
      m_szUser{},
      m_szPass{},
      m_db{},
      m_pStreaming(nullptr),
      m_bPooled(false),
      m_bReusable(false),
      m_bSetsInsertId(false) {}

CMysqlDB::~CMysqlDB() { Close(); }

void CMysqlDB::Remember(const char* host, int port, const char* user, const char* password,
                        const char* database) {
    CopyText(m_szHost, host);
    CopyText(m_szUser, user);
    CopyText(m_szPass, password);
    CopyText(m_db, database);
    m_nPort = port;
    m_bReusable = true;
}

bool CMysqlDB::Connect(const char* host, int port, const char* user, const char* password,
                       const char* database) {
    std::lock_guard<std::mutex> lock(m_cs);
    Detach();  // a second Connect must not leak the first handle
    sock = dbpool::Open(host, port, user, password, database);
    m_bOpen = sock != nullptr;
    if (m_bOpen) {
        Remember(host, port, user, password, database);
    }
    m_unExcude = GetTickCount();
    return m_bOpen;
}

bool CMysqlDB::Borrow(const char* host, int port, const char* user, const char* password,
                      const char* database, int poolSize) {
    std::lock_guard<std::mutex> lock(m_cs);
    Detach();
    m_lease = dbpool::Borrow(host, port, user, password, database, poolSize);
    sock = m_lease.sock;
    m_bOpen = sock != nullptr;
    m_bPooled = m_bOpen;
    if (m_bOpen) {
        Remember(host, port, user, password, database);
        m_bSetsInsertId = false;
    }
    m_unExcude = GetTickCount();
    return m_bOpen;
}

bool CMysqlDB::Note(bool ok) {
    if (!ok || mysql_errno(sock) != 0 || (sock->server_status & SERVER_SESSION_STATE_CHANGED))
        m_bReusable = false;
    return ok;
}

bool CMysqlDB::PrepareGeneral() {
    m_bSetsInsertId = true;  // the statement may be any insert, so assume it sets one
    if (!m_lease.staleInsertId || !m_bPooled) return true;
    m_lease.staleInsertId = false;
    return Note(mysql_real_query(sock, kClearLastId, sizeof(kClearLastId) - 1) == 0);
}

bool CMysqlDB::Execute(char* sql, int64_t& insertId) {
    if (!m_bOpen || !sock || !sql) return false;
    size_t room = std::strlen(sql) + 1;
    const bool ran = PrepareGeneral() && Note(mysql_real_query(sock, sql, room - 1) == 0);
    metrics::CountDbOperation("execute", ran);
    if (!ran) {
        m_unExcude = GetTickCount();
        return false;
    }
    DropResult(sock);
    // The statement buffer is reused for the id query on purpose; callers know it.
    std::snprintf(sql, room, "%s", kLastIdQuery);
    if (!Note(mysql_real_query(sock, kLastIdQuery, sizeof(kLastIdQuery) - 1) == 0)) return true;
    ResultPtr res(mysql_use_result(sock));
    if (!res) return true;
    ReadLastId(res.get(), insertId);
    res.reset();  // drains any further rows
    m_unExcude = GetTickCount();
    return true;
}

bool CMysqlDB::Execute(const char* sql) {
    if (!m_bOpen || !sock || !sql) return false;
    bool ok = PrepareGeneral() && Note(mysql_real_query(sock, sql, std::strlen(sql)) == 0);
    metrics::CountDbOperation("execute", ok);
    if (ok) DropResult(sock);
    m_unExcude = GetTickCount();
    return ok;
}

bool CMysqlDB::ExecuteInsert(const char* sql, int64_t& insertId) {
    if (!m_bOpen || !sock || !sql) return false;
    const bool ok = Note(mysql_real_query(sock, sql, std::strlen(sql)) == 0);
    metrics::CountDbOperation("execute", ok);
    m_unExcude = GetTickCount();
    if (!ok) return false;
    DropResult(sock);
    // The id a new connection's last_insert_id() would give, narrowed as atoi narrows it.
    insertId = static_cast<int32_t>(static_cast<uint32_t>(mysql_insert_id(sock)));
    m_bSetsInsertId = true;
    m_lease.staleInsertId = false;  // this borrow's own id is what the server holds now
    return true;
}

bool CMysqlDB::ExecuteUpdate(const char* sql) {
    if (!m_bOpen || !sock || !sql) return false;
    const bool ok = Note(mysql_real_query(sock, sql, std::strlen(sql)) == 0);
    metrics::CountDbOperation("execute", ok);
    if (ok) DropResult(sock);
    m_unExcude = GetTickCount();
    return ok;
}

bool CMysqlDB::OpenRecordSet(const char* sql, MYSQL_RES*& result, int& rowCount, int& colCount) {
    if (!sql || !m_bOpen || !sock) return false;
    bool ok = false;
    if (PrepareGeneral() && Note(mysql_real_query(sock, sql, std::strlen(sql)) == 0)) {
        if (MYSQL_RES* res = mysql_use_result(sock)) {
            result = res;
            m_pStreaming = res;
            rowCount = static_cast<int>(mysql_num_rows(res));
            colCount = static_cast<int>(mysql_num_fields(res));
            ok = true;
        }
    }
    m_unExcude = GetTickCount();
    metrics::CountDbOperation("query", ok);
    return ok;
}

bool CMysqlDB::FreeResult(MYSQL_RES* result) {
    if (!result) return false;
    // A result that Close already released must not be freed twice.
    if (result == m_pStreaming) ReleaseStreaming();
    return true;
}

void CMysqlDB::ReleaseStreaming() {
    if (!m_pStreaming) return;
    mysql_free_result(m_pStreaming);  // reads the rows still pending on the wire
    m_pStreaming = nullptr;
    Note(true);  // the end of the rows carries the final status
}

void CMysqlDB::Detach() {
    if (!sock) return;
    ReleaseStreaming();
    if (m_bPooled) {
        const bool inTransaction = (sock->server_status & SERVER_STATUS_IN_TRANS) != 0;
        m_lease.staleInsertId = m_lease.staleInsertId || m_bSetsInsertId;
        dbpool::Return(m_lease, m_bReusable && !inTransaction);
    } else {
        mysql_close(sock);
    }
    sock = nullptr;
    m_bPooled = false;
    m_lease = dbpool::Lease{};
}

void CMysqlDB::Close() {
    {
        std::lock_guard<std::mutex> lock(m_cs);
        Detach();
    }
    m_unExcude = 0;
    m_bOpen = false;
}

unsigned long CMysqlDB::Escape(char* out, const char* in) const {
    if (!out || !in) return 0;
    if (sock) return mysql_real_escape_string(sock, out, in, std::strlen(in));
    return mysql_escape_string(out, in, std::strlen(in));
}
