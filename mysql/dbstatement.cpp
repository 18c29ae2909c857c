// Statement helpers: one pooled connection per call, made from the database settings.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "comm/globle.h"
#include "mysql/sqldbop.h"

namespace {

// Closes the connection when the statement helper returns, on every path.
struct ConnectionGuard {
    CMysqlDB* db;
    ~ConnectionGuard() { CloseDB(db); }
};

unsigned long EscapeInto(CMysqlDB* db, char* out, const char* in, size_t length) {
    if (db && db->IsOpen() && db->Handle())
        return mysql_real_escape_string(db->Handle(), out, in, length);
    return mysql_escape_string(out, in, length);
}

// The columns of a request's column list: each name counts only when a ',' follows it.
std::vector<std::string> SplitColumns(const char* list) {
    std::vector<std::string> cols;
    for (const char* p = list; const char* comma = std::strchr(p, ','); p = comma + 1)
        cols.emplace_back(p, static_cast<size_t>(comma - p));
    return cols;
}

// Cuts "statement&columns[&...]" in place; false when the column part is missing.
bool SplitRequest(char* request, char*& statement, char*& columns) {
    if (!request || !*request) return false;
    char* amp = std::strchr(request, '&');
    if (!amp || !amp[1]) return false;
    *amp = '\0';
    statement = request;
    columns = amp + 1;
    if (char* second = std::strchr(columns, '&')) *second = '\0';
    return true;
}

void AppendRow(CMysqlRecordSet& rs, const std::vector<std::string>& cols, std::string& xml) {
    xml += "<v>";
    std::string value;
    for (const std::string& c : cols) {
        value.clear();  // a NULL or unknown column reads as empty
        rs.GetFieldValue(c.c_str(), value);
        xml += value;
        xml += ',';
    }
    xml += "</v>";
}

}  // namespace

bool ConnectDB(CMysqlDB* db) {
    if (!db) return false;
    return db->Borrow(m_cfgCms.szDbAddr, m_cfgCms.szDbPort, m_cfgCms.szDbUser, m_cfgCms.szDbPass,
                      m_cfgCms.szDbName, m_cfgCms.nDbPool);
}

void CloseDB(CMysqlDB* db) {
    if (db) db->Close();
}

int64_t AddRecordBySQL(char* sql) {
    if (!sql) return 0;
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    ConnectionGuard guard{&db};
    int64_t id = 0;
    db.Execute(sql, id);
    return id;
}

bool OperateDBBySQL(const char* sql) {
    if (!sql) return false;
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    ConnectionGuard guard{&db};
    return db.Execute(sql);
}

int GetMyselfData(char* request, char** out, int* length, size_t maxLength) {
    char* statement = nullptr;
    char* columns = nullptr;
    if (!out || !length || !SplitRequest(request, statement, columns)) return -1;
    std::vector<std::string> cols = SplitColumns(columns);

    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    ConnectionGuard guard{&db};
    CMysqlRecordSet rs;
    if (!rs.Open(&db, statement)) return 0;

    std::string xml = "<data><tb>";
    for (const std::string& c : cols) xml += c + ",";
    xml += "</tb><vs>";
    constexpr size_t kTail = sizeof("</vs></data>") - 1;
    while (rs.MoveNext()) {
        AppendRow(rs, cols, xml);
        if (xml.size() + kTail > maxLength) return -2;
    }
    xml += "</vs></data>";
    if (xml.size() > maxLength) return -2;
    rs.Close();

    // Handed to the caller, who frees it with delete[].
    char* answer = new char[xml.size() + 1]();
    std::memcpy(answer, xml.data(), xml.size());
    *out = answer;
    *length = static_cast<int>(xml.size());
    return 1;
}

void EscapeSql(CMysqlDB* db, const char* in, char* out, size_t outSize) {
    if (!out || outSize == 0) return;
    out[0] = '\0';
    if (!in) return;
    const size_t n = std::strlen(in);
    std::vector<char> tmp(2 * n + 1);
    auto escapedLength = [&](size_t k) { return EscapeInto(db, tmp.data(), in, k); };
    size_t keep = n;
    if (escapedLength(n) >= outSize) {
        // Keep the longest prefix whose escaped form fits (escaping only ever grows it).
        size_t lo = 0, hi = n;
        while (lo < hi) {
            size_t mid = (lo + hi + 1) / 2;
            if (escapedLength(mid) < outSize)
                lo = mid;
            else
                hi = mid - 1;
        }
        keep = lo;
        // Never split a UTF-8 sequence.
        while (keep > 0 && (static_cast<unsigned char>(in[keep]) & 0xC0) == 0x80) --keep;
    }
    unsigned long len = escapedLength(keep);
    if (len >= outSize) return;  // the library refused the text
    std::memcpy(out, tmp.data(), len);
    out[len] = '\0';
}
