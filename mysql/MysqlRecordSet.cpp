#include "mysql/MysqlRecordSet.h"

#include <strings.h>

#include <cstring>

namespace {

// Compares `part` (not terminated, `len` bytes) with the whole of `text`, ignoring case.
bool EqualsPart(const char* part, size_t len, const char* text) {
    return text && std::strlen(text) == len && strncasecmp(part, text, len) == 0;
}

bool ColumnMatches(const MYSQL_FIELD* f, const char* name) {
    if (!f || !f->name) return false;
    const char* dot = std::strchr(name, '.');
    if (!dot) return strcasecmp(name, f->name) == 0;
    // "table.col": the table part is the result's table or alias name, not the base table.
    return EqualsPart(name, static_cast<size_t>(dot - name), f->table) &&
           strcasecmp(dot + 1, f->name) == 0;
}

}  // namespace

CMysqlRecordSet::CMysqlRecordSet()
    : result(nullptr), row(nullptr), m_sqlDB(nullptr), row_num(0), col_num(0) {}

CMysqlRecordSet::~CMysqlRecordSet() { Close(); }

bool CMysqlRecordSet::Open(CMysqlDB* db, const char* sql) {
    if (!db) return false;
    Close();  // a reused cursor must not strand its previous result
    if (!db->OpenRecordSet(sql, result, row_num, col_num)) return false;
    m_sqlDB = db;
    return true;
}

bool CMysqlRecordSet::MoveNext() {
    // The connection may have been closed under us, taking the result with it.
    if (!result || !m_sqlDB || !m_sqlDB->IsStreaming(result)) {
        row = nullptr;
        return false;
    }
    row = mysql_fetch_row(result);
    return row != nullptr;
}

int CMysqlRecordSet::FindColumn(const char* name) const {
    if (!name || !result || !m_sqlDB || !m_sqlDB->IsStreaming(result)) return -1;
    for (int i = 0; i < col_num; ++i) {
        if (ColumnMatches(mysql_fetch_field_direct(result, static_cast<unsigned>(i)), name))
            return i;
    }
    return -1;
}

const char* CMysqlRecordSet::CurrentValue(int column) const {
    return row ? row[column] : nullptr;
}

bool CMysqlRecordSet::GetFieldValue(const char* name, char* out, size_t outSize) {
    int column = FindColumn(name);
    if (column < 0) return false;
    const char* value = CurrentValue(column);
    if (!value || !out || outSize == 0) return true;  // SQL NULL leaves `out` as it was
    size_t n = std::strlen(value);
    if (n >= outSize) n = outSize - 1;
    std::memcpy(out, value, n);
    out[n] = '\0';
    return true;
}

bool CMysqlRecordSet::GetFieldValue(const char* name, std::string& out) {
    int column = FindColumn(name);
    if (column < 0) return false;
    if (const char* value = CurrentValue(column)) out.assign(value);
    return true;
}

bool CMysqlRecordSet::Close() {
    row = nullptr;
    if (!m_sqlDB || !result) return false;
    m_sqlDB->FreeResult(result);
    result = nullptr;
    m_sqlDB = nullptr;
    return true;
}
