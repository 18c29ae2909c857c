// Event and status writers and the analytics alarm readers.
#include "mysql/eventwriter.h"

#include <iconv.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "comm/metrics.h"
#include "comm/sysutil.h"
#include "mysql/groupwrite.h"
#include "mysql/spool.h"
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

// The text escaped for a double-quoted literal; unchanged for ordinary text. Plain escaping
// equals the connection's for its utf8 character set, so a statement can be composed before
// (or without) a connection and look the same.
std::string Escaped(const char* text) {
    if (!text) return std::string();
    std::string out(2 * std::strlen(text) + 1, '\0');
    EscapeSql(nullptr, text, &out[0], out.size());
    out.resize(std::strlen(out.c_str()));
    return out;
}

constexpr unsigned int kIncorrectStringValue = 1366;

// Failures are printed once per run of the same error, so an outage gives one line, not
// one per event.
std::atomic<unsigned int> lastPrintedError{0};

void NoteSuccess() { lastPrintedError.store(0, std::memory_order_relaxed); }

void NoteFailure(unsigned int err, const std::string& text, const char* table) {
    if (lastPrintedError.exchange(err) == err) return;
    std::printf("database write to %s failed: %s\n", table, text.c_str());
}

// kUncertain: the connection broke after the statement went out, so it may have been
// written; its replay looks for the row first.
enum class WriteResult { kWritten, kRefusedText, kTransient, kUncertain, kFailed };

WriteResult Classify(const groupwrite::Outcome& out, const char* table, int64_t* id) {
    if (out.ok) {
        if (id) *id = out.id;
        NoteSuccess();
        return WriteResult::kWritten;
    }
    if (!out.sent && out.err == 0) return WriteResult::kTransient;  // turned to the spool
    NoteFailure(out.err, out.errText, table);
    if (!out.sent) return WriteResult::kTransient;
    if (out.err == kIncorrectStringValue) return WriteResult::kRefusedText;
    if (out.err >= 2000 && out.err < 3000) return WriteResult::kUncertain;
    return IsTransientDbError(out.err) ? WriteResult::kTransient : WriteResult::kFailed;
}

// Runs one statement: an insert (id back in `id`) or, with a null `id`, an update. It
// goes to the database in a batch with the family's other statements of the moment.
WriteResult RunStatement(std::mutex* cs, const char* table, const char* sql, int64_t* id) {
    return Classify(groupwrite::Run(cs, sql), table, id);
}

bool IsAway(WriteResult r) { return r == WriteResult::kTransient || r == WriteResult::kUncertain; }

spool::Kind SpoolKindOf(WriteResult r) {
    return r == WriteResult::kUncertain ? spool::Kind::kInsertUnsure : spool::Kind::kInsert;
}

// Writing behind is on for this thread while a WriteBehind lives on it.
struct BehindState {
    bool on = false;
    int tag = 0;
};
thread_local BehindState t_behind;

// The statement again with the description repaired, made before the row is written
// behind, since the description is gone by the time the database answers.
struct Repair {
    bool needed = false;  // the description is not text the connection takes as it is
    bool ok = false;      // the repaired statement fits
    std::string sql;
};

template <class Build>
Repair MakeRepair(const char* descript, Build& build) {
    Repair fix;
    if (!descript) return fix;
    const std::string fixed = RepairText(descript);
    if (fixed == descript) return fix;
    fix.needed = true;
    char sql[kStatementSize] = {0};
    fix.ok = build(Escaped(fixed.c_str()), sql);
    if (fix.ok) fix.sql = sql;
    return fix;
}

// What the direct writer below does after its round trip, done when the database answers
// a row written behind.
void PostRow(std::mutex* cs, const char* table, const char* sql, Repair fix) {
    const int tag = t_behind.tag;
    auto done = [cs, table, tag, sql = std::string(sql),
                 fix = std::move(fix)](const groupwrite::Outcome& out) {
        const WriteResult r = Classify(out, table, nullptr);
        if (r == WriteResult::kWritten) return metrics::CountRowWritten(table);
        if (fix.needed && !fix.ok) return;
        if (r == WriteResult::kRefusedText && fix.needed) {
            groupwrite::Post(cs, fix.sql, true, tag, [table](const groupwrite::Outcome& again) {
                if (Classify(again, table, nullptr) == WriteResult::kWritten)
                    metrics::CountRowWritten(table);
            });
        } else if (IsAway(r)) {
            spool::Append(SpoolKindOf(r), table, fix.needed ? fix.sql.c_str() : sql.c_str());
        }
    };
    groupwrite::Post(cs, sql, true, tag, std::move(done));
}

// The event's pictures, stored under the new row's id: at once after a direct insert, by
// the replay after a spooled one.
struct Pictures {
    const spool::Picture* items = nullptr;
    size_t count = 0;
};

// The common shape of every insert into `table`: let `build` print the statement for the
// escaped description into a zeroed buffer (false: refuse), run it under `cs` and hand back
// the new id. A refused text is repaired once; a row meeting an outage is spooled.
template <class Build>
int64_t InsertRow(std::mutex& cs, const char* table, bool echo, const char* descript,
                  Pictures pictures, Build build) {
    char sql[kStatementSize] = {0};
    if (!build(Escaped(descript), sql)) return 0;
    if (echo) std::printf("alarm:%s\n", sql);
    // Behind the database, rows keep their order also on their way to the spool.
    if (t_behind.on && pictures.count == 0) {
        PostRow(&cs, table, sql, MakeRepair(descript, build));
        return 0;
    }
    int64_t id = 0;
    WriteResult r = WriteResult::kTransient;
    if (!spool::Holding()) r = RunStatement(&cs, table, sql, &id);
    const bool away = IsAway(r);
    if (r == WriteResult::kRefusedText || (away && descript)) {
        // Text the connection would refuse is repaired before it waits in the spool too.
        const std::string fixed = RepairText(descript);
        if (fixed != descript) {
            std::memset(sql, 0, sizeof sql);
            if (!build(Escaped(fixed.c_str()), sql)) return 0;
            if (r == WriteResult::kRefusedText) r = RunStatement(&cs, table, sql, &id);
        }
    }
    if (away) spool::Append(SpoolKindOf(r), table, sql, pictures.items, pictures.count);
    if (r != WriteResult::kWritten) return 0;
    metrics::CountRowWritten(table);
    spool::SavePictures(id, pictures.items, pictures.count);
    return id;
}

// Length of the UTF-8 character at p that the connection accepts (one to three bytes), 0
// when the bytes do not form one; *four is set for a well-formed four-byte character.
size_t CharLength(const unsigned char* p, size_t left, bool* four) {
    *four = false;
    const unsigned char c = p[0];
    if (c < 0x80) return 1;
    size_t n = c >= 0xC2 && c <= 0xDF   ? 2
               : c >= 0xE0 && c <= 0xEF ? 3
               : c >= 0xF0 && c <= 0xF4 ? 4
                                        : 0;
    if (n == 0 || n > left) return 0;
    for (size_t i = 1; i < n; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    if (n == 3 && ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] >= 0xA0))) return 0;
    if (n == 4) {
        if ((c == 0xF0 && p[1] < 0x90) || (c == 0xF4 && p[1] >= 0x90)) return 0;
        *four = true;
        return 0;
    }
    return n;
}

// How the bytes read as UTF-8: all accepted, accepted but for a cut tail or four-byte
// characters, or not UTF-8 at all.
enum class Utf8Shape { kClean, kNearly, kForeign };

Utf8Shape ShapeOf(const std::string& s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    Utf8Shape shape = Utf8Shape::kClean;
    for (size_t i = 0; i < s.size();) {
        bool four = false;
        const size_t n = CharLength(p + i, s.size() - i, &four);
        if (n > 0) {
            i += n;
            continue;
        }
        if (four) {
            shape = Utf8Shape::kNearly;
            i += 4;
            continue;
        }
        // A lead byte whose character runs past the end: a cut tail.
        const unsigned char c = p[i];
        const size_t want = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
        bool tail = want > s.size() - i;
        for (size_t k = i + 1; tail && k < s.size(); ++k) tail = (p[k] & 0xC0) == 0x80;
        return tail ? Utf8Shape::kNearly : Utf8Shape::kForeign;
    }
    return shape;
}

// Keeps accepted characters and puts U+FFFD for each other byte or four-byte character.
std::string ReplaceInvalid(const std::string& s) {
    static const char kReplacement[] = "\xEF\xBF\xBD";
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    std::string out;
    for (size_t i = 0; i < s.size();) {
        bool four = false;
        const size_t n = CharLength(p + i, s.size() - i, &four);
        if (n > 0) {
            out.append(s, i, n);
            i += n;
        } else {
            out += kReplacement;
            i += four ? 4 : 1;
        }
    }
    return out;
}

// Empty when the bytes are not GB18030 text.
std::string FromGb18030(const std::string& s) {
    iconv_t cd = iconv_open("UTF-8", "GB18030");
    if (cd == reinterpret_cast<iconv_t>(-1)) return std::string();
    std::string out(4 * s.size() + 4, '\0');
    char* src = const_cast<char*>(s.data());  // iconv only reads it
    char* dst = &out[0];
    size_t srcLeft = s.size(), dstLeft = out.size();
    const bool ok = iconv(cd, &src, &srcLeft, &dst, &dstLeft) != static_cast<size_t>(-1);
    iconv_close(cd);
    if (!ok) return std::string();
    out.resize(out.size() - dstLeft);
    return out;
}

// snprintf that refuses rather than truncates a statement.
template <class... Args>
bool PrintStatement(char* sql, const char* format, Args... args) {
    int n = std::snprintf(sql, kStatementSize, format, args...);
    return n >= 0 && static_cast<size_t>(n) < kStatementSize;
}

// devdiagnoselog, devrunlog, intveventlog and intveventlog2 share one column list.
int64_t InsertParamEvent(std::mutex& cs, const char* table, bool echo, uint32_t eventTime,
                         int nodeId, int nodeType, int eventType, int param, const char* descript,
                         Pictures pictures = {}) {
    eventType &= kEventTypeMask;
    const LogTimes t = MakeLogTimes(eventTime);
    return InsertRow(cs, table, echo, descript, pictures, [&](const std::string& text, char* sql) {
        return PrintStatement(sql,
                              "insert into %s(nodeid,nodetype,eventtype,param,descript,logtime,"
                              "loctime) values (%d,%d,%d,%d,\"%s\",\"%s\",\"%s\")",
                              table, nodeId, nodeType, eventType, param, text.c_str(), t.logtime,
                              t.loctime);
    });
}

int64_t InsertFaceEvent(const char* table, uint32_t eventTime, int nodeId, int nodeType,
                        int personId, int age, int gender, int similarity, Pictures pictures) {
    const LogTimes t = MakeLogTimes(eventTime);
    return InsertRow(
        csWritePerson, table, false, nullptr, pictures, [&](const std::string&, char* sql) {
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

std::mutex* WriterFamilyLock(const char* table) {
    static const std::pair<const char*, std::mutex*> kFamilies[] = {
        {"deveventlog", &csWriteDev},         {"devrunlog", &csWriteRun},
        {"devdiagnoselog", &csWriteDiagnose}, {"intveventlog", &csWriteIntv},
        {"intveventlog2", &csWriteIntv},      {"faceeventlog", &csWritePerson},
        {"faceeventlog2", &csWritePerson}};
    if (!table) return nullptr;
    for (const auto& f : kFamilies)
        if (std::strcmp(f.first, table) == 0) return f.second;
    return nullptr;
}

bool IsTransientDbError(unsigned int err) {
    switch (err) {
        case 1040:  // too many connections
        case 1053:  // server shutdown in progress
        case 1205:  // lock wait timeout
        case 1213:  // deadlock
        case 1290:  // read only (a cluster node leaving)
        case 1927:  // connection killed
        case 1047:  // unknown command (a cluster node not ready)
            return true;
        default:
            return err >= 2000 && err < 3000;  // client side: connect, lost, gone away
    }
}

std::string RepairText(const char* text) {
    const std::string s = text ? text : "";
    switch (ShapeOf(s)) {
        case Utf8Shape::kClean:
            return s;
        case Utf8Shape::kNearly:
            return ReplaceInvalid(s);
        case Utf8Shape::kForeign:
            break;
    }
    const std::string converted = FromGb18030(s);
    if (!converted.empty() && ShapeOf(converted) == Utf8Shape::kClean) return converted;
    return ReplaceInvalid(s);
}

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
    return InsertRow(
        csWriteDev, "deveventlog", false, descript, {}, [&](const std::string& text, char* sql) {
            return PrintStatement(sql,
                                  "insert into deveventlog(nodeid,nodetype,eventtype,descript,"
                                  "logtime) values (%d,%d,%d,\"%s\",\"%s\")",
                                  nodeId, nodeType, eventType, text.c_str(), logtime);
        });
}

int64_t WrightMySqlDiagnoseInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                int param, const char* descript) {
    return WrightMySqlDiagnoseInfo(eventTime, nodeId, nodeType, eventType, param, descript, nullptr,
                                   0);
}

int64_t WrightMySqlDiagnoseInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                int param, const char* descript, const spool::Picture* pictures,
                                size_t pictureCount) {
    return InsertParamEvent(csWriteDiagnose, "devdiagnoselog", false, eventTime, nodeId, nodeType,
                            eventType, param, descript, {pictures, pictureCount});
}

int64_t WrightMySqlRunInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                           const char* descript) {
    if (eventTime == 0) eventTime = GetCurrentTime();
    return InsertParamEvent(csWriteRun, "devrunlog", false, eventTime, nodeId, nodeType, eventType,
                            param, descript);
}

int64_t WrightMySqlAlarmInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                             const char* descript) {
    return WrightMySqlAlarmInfo(eventTime, nodeId, nodeType, eventType, param, descript, nullptr,
                                0);
}

int64_t WrightMySqlAlarmInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                             const char* descript, const spool::Picture* pictures,
                             size_t pictureCount) {
    return InsertParamEvent(csWriteIntv, "intveventlog", true, eventTime, nodeId, nodeType,
                            eventType, param, descript, {pictures, pictureCount});
}

int64_t WrightMySqlAlarmInfoStruct(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                   int param, const char* descript) {
    return WrightMySqlAlarmInfoStruct(eventTime, nodeId, nodeType, eventType, param, descript,
                                      nullptr, 0);
}

int64_t WrightMySqlAlarmInfoStruct(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                   int param, const char* descript, const spool::Picture* pictures,
                                   size_t pictureCount) {
    return InsertParamEvent(csWriteIntv, "intveventlog2", true, eventTime, nodeId, nodeType,
                            eventType, param, descript, {pictures, pictureCount});
}

int64_t WrightMySqlPerson(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                          int gender, int similarity) {
    return WrightMySqlPerson(eventTime, nodeId, nodeType, personId, age, gender, similarity,
                             nullptr, 0);
}

int64_t WrightMySqlPerson(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                          int gender, int similarity, const spool::Picture* pictures,
                          size_t pictureCount) {
    return InsertFaceEvent("faceeventlog", eventTime, nodeId, nodeType, personId, age, gender,
                           similarity, {pictures, pictureCount});
}

int64_t WrightMySqlPersonStruct(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                                int gender, int similarity) {
    return WrightMySqlPersonStruct(eventTime, nodeId, nodeType, personId, age, gender, similarity,
                                   nullptr, 0);
}

int64_t WrightMySqlPersonStruct(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                                int gender, int similarity, const spool::Picture* pictures,
                                size_t pictureCount) {
    return InsertFaceEvent("faceeventlog2", eventTime, nodeId, nodeType, personId, age, gender,
                           similarity, {pictures, pictureCount});
}

namespace {

// Spooled in order with the events, so the last state reported wins on replay; not printed
// then, as with an unreachable database before.
bool FinishStatus(WriteResult r, const char* table, const char* sql) {
    if (IsAway(r)) {
        spool::Append(spool::Kind::kStatus, table, sql);
        return false;
    }
    const bool ok = r == WriteResult::kWritten;
    std::printf("UpdateNodeStatus %s %s\n", sql, ok ? "succ" : "faild");
    return ok;
}

}  // namespace

bool UpdateNodeStatus(int id, int nodeType, unsigned int status) {
    char sql[256] = {0};
    const char* table = StatusTable(nodeType);
    if (table)
        std::snprintf(sql, sizeof sql, "update %s set status = %d where id = %d", table,
                      static_cast<int>(status), id);
    if (table && t_behind.on) {
        groupwrite::Post(nullptr, sql, false, t_behind.tag,
                         [table, text = std::string(sql)](const groupwrite::Outcome& out) {
                             FinishStatus(Classify(out, table, nullptr), table, text.c_str());
                         });
        return true;
    }
    // An unknown node type has no statement to run.
    WriteResult r = table ? WriteResult::kTransient : WriteResult::kFailed;
    if (table && !spool::Holding()) r = RunStatement(nullptr, table, sql, nullptr);
    return FinishStatus(r, table, sql);
}

WriteBehind::WriteBehind(int tag) : m_wasOn(t_behind.on), m_previousTag(t_behind.tag) {
    t_behind.on = true;
    t_behind.tag = tag;
}

WriteBehind::~WriteBehind() {
    t_behind.on = m_wasOn;
    t_behind.tag = m_previousTag;
}

bool WritesBehindPending(int tag) { return groupwrite::Outstanding(tag); }

void WaitForWritesBehind(int tag) { groupwrite::WaitTag(tag); }

void WaitForAllWritesBehind() { groupwrite::WaitAll(); }

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
