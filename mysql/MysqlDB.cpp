#include "mysql/MysqlDB.h"

#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "comm/metrics.h"
#include "comm/sysutil.h"

namespace {

// An unreachable server must not stall the callers: the main loop retries once a second.
constexpr unsigned int kConnectTimeoutSeconds = 3;
constexpr char kLastIdQuery[] = "select last_insert_id()";

struct MysqlCloser {
    void operator()(MYSQL* m) const { mysql_close(m); }
};
struct ResultFreer {
    void operator()(MYSQL_RES* r) const { mysql_free_result(r); }
};
using MysqlPtr = std::unique_ptr<MYSQL, MysqlCloser>;
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
      m_pStreaming(nullptr) {}

CMysqlDB::~CMysqlDB() { Close(); }

bool CMysqlDB::Connect(const char* host, int port, const char* user, const char* password,
                       const char* database) {
    std::lock_guard<std::mutex> lock(m_cs);
    if (sock) {  // a second Connect must not leak the first handle
        ReleaseStreaming();
        mysql_close(sock);
        sock = nullptr;
    }
    m_bOpen = false;
    MysqlPtr handle(mysql_init(nullptr));
    if (handle) {
        mysql_options(handle.get(), MYSQL_OPT_CONNECT_TIMEOUT, &kConnectTimeoutSeconds);
        if (mysql_real_connect(handle.get(), host, user, password, database,
                               static_cast<unsigned int>(port), nullptr, 0)) {
            mysql_set_character_set(handle.get(), "utf8");
            CopyText(m_szHost, host);
            CopyText(m_szUser, user);
            CopyText(m_szPass, password);
            CopyText(m_db, database);
            m_nPort = port;
            sock = handle.release();
            m_bOpen = true;
        }
    }
    m_unExcude = GetTickCount();
    metrics::CountDbOperation("connect", m_bOpen);
    return m_bOpen;
}

bool CMysqlDB::Execute(char* sql, int64_t& insertId) {
    if (!m_bOpen || !sock || !sql) return false;
    size_t room = std::strlen(sql) + 1;
    const bool ran = mysql_real_query(sock, sql, room - 1) == 0;
    metrics::CountDbOperation("execute", ran);
    if (!ran) {
        m_unExcude = GetTickCount();
        return false;
    }
    DropResult(sock);
    // The statement buffer is reused for the id query on purpose; callers know it.
    std::snprintf(sql, room, "%s", kLastIdQuery);
    if (mysql_real_query(sock, kLastIdQuery, sizeof(kLastIdQuery) - 1) != 0) return true;
    ResultPtr res(mysql_use_result(sock));
    if (!res) return true;
    ReadLastId(res.get(), insertId);
    res.reset();  // drains any further rows
    m_unExcude = GetTickCount();
    return true;
}

bool CMysqlDB::Execute(const char* sql) {
    if (!m_bOpen || !sock || !sql) return false;
    bool ok = mysql_real_query(sock, sql, std::strlen(sql)) == 0;
    metrics::CountDbOperation("execute", ok);
    if (ok) DropResult(sock);
    m_unExcude = GetTickCount();
    return ok;
}

bool CMysqlDB::OpenRecordSet(const char* sql, MYSQL_RES*& result, int& rowCount,
                             int& colCount) {
    if (!sql || !m_bOpen || !sock) return false;
    bool ok = false;
    if (mysql_real_query(sock, sql, std::strlen(sql)) == 0) {
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
}

void CMysqlDB::Close() {
    {
        std::lock_guard<std::mutex> lock(m_cs);
        if (sock) {
            ReleaseStreaming();
            mysql_close(sock);
            sock = nullptr;
        }
    }
    m_unExcude = 0;
    m_bOpen = false;
}

unsigned long CMysqlDB::Escape(char* out, const char* in) const {
    if (!out || !in) return 0;
    if (sock) return mysql_real_escape_string(sock, out, in, std::strlen(in));
    return mysql_escape_string(out, in, std::strlen(in));
}
