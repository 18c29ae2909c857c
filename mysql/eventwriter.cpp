// Event and status writers and the analytics alarm readers.
#include "mysql/eventwriter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "comm/metrics.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"

std::mutex csWriteDev;
std::mutex csWriteRun;
std::mutex csWriteDiagnose;
std::mutex csWriteIntv;
std::mutex csWritePerson;

namespace {

constexpr size_t kStatementSize = 1024;
constexpr int kEventTypeMask = 0xFFFFFF;
// Alarms younger than this are held back so that their pictures can arrive first.
constexpr uint32_t kAlarmSettleSeconds = 10;

// Closes the connection on every path out of a writer.
struct ConnectionGuard {
    CMysqlDB* db;
    ~ConnectionGuard() { CloseDB(db); }
};

struct LogTimes {
    char logtime[32];
    char loctime[32];
};

LogTimes MakeLogTimes(uint32_t eventTime) {
    LogTimes t{};
    FormatLogTime(GetCurrentTime(), t.logtime, sizeof t.logtime);
    FormatLogTime(eventTime, t.loctime, sizeof t.loctime);
    return t;
}

// The text escaped for a double-quoted literal; unchanged for ordinary text.
std::string Escaped(CMysqlDB& db, const char* text) {
    if (!text) return std::string();
    std::string out(2 * std::strlen(text) + 1, '\0');
    EscapeSql(&db, text, &out[0], out.size());
    out.resize(std::strlen(out.c_str()));
    return out;
}

// The common shape of every insert into `table`: connect, let `build` print the statement
// into a zeroed buffer (false: refuse), run it under `cs` and hand back the new id.
template <class Build>
int64_t InsertRow(std::mutex& cs, const char* table, bool echo, Build build) {
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    ConnectionGuard guard{&db};
    char sql[kStatementSize] = {0};
    if (!build(db, sql)) return 0;
    if (echo) std::printf("alarm:%s\n", sql);
    // The id column is the server's to fill, so the reply's id is the row's.
    int64_t id = 0;
    {
        // Only the insert itself is serialised: borrowing and composing need no turn.
        std::lock_guard<std::mutex> lock(cs);
        if (!db.ExecuteInsert(sql, id)) return 0;
    }
    metrics::CountRowWritten(table);
    return id;
}

// snprintf that refuses rather than truncates a statement.
template <class... Args>
bool PrintStatement(char* sql, const char* format, Args... args) {
    int n = std::snprintf(sql, kStatementSize, format, args...);
    return n >= 0 && static_cast<size_t>(n) < kStatementSize;
}

// devdiagnoselog, devrunlog, intveventlog and intveventlog2 share one column list.
int64_t InsertParamEvent(std::mutex& cs, const char* table, bool echo, uint32_t eventTime,
                         int nodeId, int nodeType, int eventType, int param, const char* descript) {
    eventType &= kEventTypeMask;
    const LogTimes t = MakeLogTimes(eventTime);
    return InsertRow(cs, table, echo, [&](CMysqlDB& db, char* sql) {
        const std::string text = Escaped(db, descript);
        return PrintStatement(sql,
                              "insert into %s(nodeid,nodetype,eventtype,param,descript,logtime,"
                              "loctime) values (%d,%d,%d,%d,\"%s\",\"%s\",\"%s\")",
                              table, nodeId, nodeType, eventType, param, text.c_str(), t.logtime,
                              t.loctime);
    });
}

int64_t InsertFaceEvent(const char* table, uint32_t eventTime, int nodeId, int nodeType,
                        int personId, int age, int gender, int similarity) {
    const LogTimes t = MakeLogTimes(eventTime);
    return InsertRow(csWritePerson, table, false, [&](CMysqlDB&, char* sql) {
        return PrintStatement(sql,
                              "insert into %s(nodeid,nodetype,personid,age,gender,alike,status,"
                              "logtime,loctime) values (%d,%d,%d,%d,%d,%d,%d,\"%s\",\"%s\")",
                              table, nodeId, nodeType, personId, age, gender, similarity, 0,
                              t.logtime, t.loctime);
    });
}

const char* StatusTable(int nodeType) {
    switch (nodeType) {
        case 2:
            return "device";
        case 3:
            return "devicechan";
        case 1:
            return "serverinfo";
        case 9:
            return "serverchan";
        default:
            return nullptr;
    }
}

// Parses a stored time text; 0 when the column does not hold one.
uint32_t ParseLogTime(const char* text) {
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    if (std::sscanf(text, "%d-%d-%d %d:%d:%d", &y, &mo, &d, &h, &mi, &s) != 6) return 0;
    return gettime(y, mo, d, h, mi, s);
}

int FieldInt(CMysqlRecordSet& rs, const char* name) {
    char value[32] = {0};
    rs.GetFieldValue(name, value);
    return std::atoi(value);
}

}  // namespace

void FormatLogTime(uint32_t t, char* out, size_t outSize) {
    if (!out || outSize == 0) return;
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, wd = 0;
    gettimeex(t, y, mo, d, h, mi, s, wd);
    std::snprintf(out, outSize, "%d-%d-%d %d:%d:%d", y, mo, d, h, mi, s);
}

int64_t WrightMySqlDevEventInfo(int nodeId, int nodeType, int eventType, const char* descript) {
    eventType &= kEventTypeMask;
    char logtime[32];
    FormatLogTime(GetCurrentTime(), logtime, sizeof logtime);
    return InsertRow(csWriteDev, "deveventlog", false, [&](CMysqlDB& db, char* sql) {
        const std::string text = Escaped(db, descript);
        return PrintStatement(sql,
                              "insert into deveventlog(nodeid,nodetype,eventtype,descript,"
                              "logtime) values (%d,%d,%d,\"%s\",\"%s\")",
                              nodeId, nodeType, eventType, text.c_str(), logtime);
    });
}

int64_t WrightMySqlDiagnoseInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                int param, const char* descript) {
    return InsertParamEvent(csWriteDiagnose, "devdiagnoselog", false, eventTime, nodeId, nodeType,
                            eventType, param, descript);
}

int64_t WrightMySqlRunInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                           const char* descript) {
    if (eventTime == 0) eventTime = GetCurrentTime();
    return InsertParamEvent(csWriteRun, "devrunlog", false, eventTime, nodeId, nodeType, eventType,
                            param, descript);
}

int64_t WrightMySqlAlarmInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                             const char* descript) {
    return InsertParamEvent(csWriteIntv, "intveventlog", true, eventTime, nodeId, nodeType,
                            eventType, param, descript);
}

int64_t WrightMySqlAlarmInfoStruct(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                   int param, const char* descript) {
    return InsertParamEvent(csWriteIntv, "intveventlog2", true, eventTime, nodeId, nodeType,
                            eventType, param, descript);
}

int64_t WrightMySqlPerson(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                          int gender, int similarity) {
    return InsertFaceEvent("faceeventlog", eventTime, nodeId, nodeType, personId, age, gender,
                           similarity);
}

int64_t WrightMySqlPersonStruct(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                                int gender, int similarity) {
    return InsertFaceEvent("faceeventlog2", eventTime, nodeId, nodeType, personId, age, gender,
                           similarity);
}

bool UpdateNodeStatus(int id, int nodeType, unsigned int status) {
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    ConnectionGuard guard{&db};
    char sql[256] = {0};
    if (const char* table = StatusTable(nodeType))
        std::snprintf(sql, sizeof sql, "update %s set status = %d where id = %d", table,
                      static_cast<int>(status), id);
    // An unknown node type runs the empty statement, which the database rejects.
    const bool ok = db.ExecuteUpdate(sql);
    std::printf("UpdateNodeStatus %s %s\n", sql, ok ? "succ" : "faild");
    return ok;
}

bool GetRecordLog(CMysqlDB* db, int64_t lastId, _alarm_Info* out) {
    char before[32];
    FormatLogTime(GetCurrentTime() - kAlarmSettleSeconds, before, sizeof before);
    if (!db || !out) return false;
    char sql[256];
    std::snprintf(sql, sizeof sql, "select * from intveventlog  where id > %d and loctime <= '%s' ",
                  static_cast<int>(lastId), before);
    CMysqlRecordSet rs;
    if (!rs.Open(db, sql)) return false;
    bool found = rs.MoveNext();
    if (found) {
        char id[32] = {0}, loctime[64] = {0}, logtime[64] = {0};
        rs.GetFieldValue("id", id);
        rs.GetFieldValue("loctime", loctime);
        rs.GetFieldValue("logtime", logtime);
        out->nAlarmID = std::strtoll(id, nullptr, 10);
        out->nNodeID = FieldInt(rs, "nodeid");
        out->nNodeType = FieldInt(rs, "nodetype");
        out->nAlarmType = FieldInt(rs, "eventtype");
        out->unTime = ParseLogTime(loctime);
        out->unLocalTime = ParseLogTime(logtime);
    }
    rs.Close();
    return found;
}

int64_t GetLastEvent() {
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    ConnectionGuard guard{&db};
    const std::string sql = std::string("select *") + " from intveventlog where" +
                            " cstatus = 1 ORDER BY id desc LIMIT 1";
    CMysqlRecordSet rs;
    if (!rs.Open(&db, sql.c_str())) return 0;
    int64_t id = 0;
    if (rs.MoveNext()) {
        char value[32] = {0};
        rs.GetFieldValue("id", value);
        id = std::strtoll(value, nullptr, 10);
    }
    rs.Close();
    return id;
}
