// Forward-only cursor over one streamed query result.
#pragma once

#include <string>

#include "mysql/MysqlDB.h"

class CMysqlRecordSet {
public:
    CMysqlRecordSet();
    ~CMysqlRecordSet();
    CMysqlRecordSet(const CMysqlRecordSet&) = delete;
    CMysqlRecordSet& operator=(const CMysqlRecordSet&) = delete;

    // `db` must outlive this record set (or Close it first).
    bool Open(CMysqlDB* db, const char* sql);
    bool MoveNext();  // call before the first read
    // Copies the value of column `name` ("col" or "table.col", case-insensitive; the table
    // part is the table or alias name of the result) into `out`. No match: false, `out`
    // untouched. SQL NULL: true, `out` untouched. At most outSize-1 bytes are copied, and
    // the copy is terminated.
    bool GetFieldValue(const char* name, char* out, size_t outSize);
    template <size_t N>
    bool GetFieldValue(const char* name, char (&out)[N]) { return GetFieldValue(name, out, N); }
    // Same lookup without a length limit; `out` is replaced by the value.
    bool GetFieldValue(const char* name, std::string& out);
    bool Close();
    int GetRows() const { return row_num; }
    int GetFeilds() const { return col_num; }

private:
    int FindColumn(const char* name) const;
    const char* CurrentValue(int column) const;

    MYSQL_RES* result;
    MYSQL_ROW row;
    CMysqlDB* m_sqlDB;
    int row_num;
    int col_num;
};
