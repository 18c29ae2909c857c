// Event and status writers: every event the server records ends here as one row, written
// over a pooled connection (mysql/dbpool.h) in one round trip, plus the readers of the
// analytics alarm log.
//
// Locks: each log-table family has its own mutex, held across the insert's round trip, so
// at most one insert per family is in flight while families run in parallel. The
// status update and the readers take no lock.
//
// A failed write is printed once per run of failures with the database's error. A text the
// database refuses as not being UTF-8 is converted from GB18030 when that gives valid text,
// else its invalid bytes are replaced by U+FFFD, and the row is written. A row that cannot
// be written because the database is away goes to the on-disk spool (mysql/spool.h) and is
// written on replay; the writer then returns 0 (false for a status update).
//
// Pictures: the overloads taking `pictures` store them (spool::Picture: file area, index,
// bytes) under the new row's id with SaveFileEx, right after a direct insert; a spooled row
// carries them in its record and the replay stores them under the id the row gets then,
// as the same files. The caller keeps the bytes only for the duration of the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "mysql/spool.h"

class CMysqlDB;

// One analytics alarm read back from `intveventlog`.
struct _alarm_Info {
    int64_t nAlarmID;      // id
    uint32_t unTime;       // loctime: when the event happened
    uint32_t unLocalTime;  // logtime: when the row was written
    int nNodeID;
    int nNodeType;
    int nAlarmType;  // eventtype
};

// Writer family lock of a log table, null for other tables.
std::mutex* WriterFamilyLock(const char* table);
// Whether a statement that failed with this error could succeed later (connection lost,
// server away or busy) rather than never.
bool IsTransientDbError(unsigned int err);
// `text` as valid UTF-8 without four-byte characters (what the connection accepts): text
// that already is stays unchanged, a tail cut inside a character is replaced, other text is
// read as GB18030 when that works, else every invalid byte becomes U+FFFD.
std::string RepairText(const char* text);

// Writer families.
extern std::mutex csWriteDev;       // deveventlog
extern std::mutex csWriteRun;       // devrunlog
extern std::mutex csWriteDiagnose;  // devdiagnoselog
extern std::mutex csWriteIntv;      // intveventlog, intveventlog2
extern std::mutex csWritePerson;    // faceeventlog, faceeventlog2

// "%d-%d-%d %d:%d:%d" of the local time `t`, without zero padding (2024-3-5 7:4:9).
void FormatLogTime(uint32_t t, char* out, size_t outSize);

// Inserts return the new row id, 0 on failure. Event types keep only their low 24 bits;
// descriptions are escaped, so any text is stored as given (a description too long for
// the 1024-byte statement is refused). `eventTime` fills `loctime`.
int64_t WrightMySqlDevEventInfo(int nodeId, int nodeType, int eventType, const char* descript);
int64_t WrightMySqlDiagnoseInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                int param, const char* descript);
int64_t WrightMySqlDiagnoseInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                int param, const char* descript, const spool::Picture* pictures,
                                size_t pictureCount);
// An event time of 0 means "now" here alone.
int64_t WrightMySqlRunInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                           const char* descript);
// Both print "alarm:<statement>" before running it.
int64_t WrightMySqlAlarmInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                             const char* descript);
int64_t WrightMySqlAlarmInfo(uint32_t eventTime, int nodeId, int nodeType, int eventType, int param,
                             const char* descript, const spool::Picture* pictures,
                             size_t pictureCount);
int64_t WrightMySqlAlarmInfoStruct(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                   int param, const char* descript);
int64_t WrightMySqlAlarmInfoStruct(uint32_t eventTime, int nodeId, int nodeType, int eventType,
                                   int param, const char* descript, const spool::Picture* pictures,
                                   size_t pictureCount);
// Face recognitions: the similarity goes to `alike`, `status` is always 0.
int64_t WrightMySqlPerson(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                          int gender, int similarity);
int64_t WrightMySqlPerson(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                          int gender, int similarity, const spool::Picture* pictures,
                          size_t pictureCount);
int64_t WrightMySqlPersonStruct(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                                int gender, int similarity);
int64_t WrightMySqlPersonStruct(uint32_t eventTime, int nodeId, int nodeType, int personId, int age,
                                int gender, int similarity, const spool::Picture* pictures,
                                size_t pictureCount);

// Writes the status word of a device (2), channel (3), server (1) or server channel (9).
// Any other node type fails. Prints the statement with "succ" or "faild".
bool UpdateNodeStatus(int id, int nodeType, unsigned int status);

// While one lives on a thread, the rows without pictures and the status updates that the
// thread writes are written behind: the writer queues the statement and returns at once
// (0 for a row, true for a status update), and what the database answers is dealt with
// as above (printed lines, repaired text, the spool) on the thread that ran the batch.
// Rows written behind may share one multi-row insert. `tag` names the writer for
// WaitForWritesBehind, so that whoever depends on those rows can wait for them.
class WriteBehind {
public:
    explicit WriteBehind(int tag);
    ~WriteBehind();
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

private:
    bool m_wasOn;
    int m_previousTag;
};
// Whether writes behind of `tag` are still on their way.
bool WritesBehindPending(int tag);
// Returns once the writes behind of `tag` are at the database or in the spool.
void WaitForWritesBehind(int tag);
// Returns once no write behind is on its way.
void WaitForAllWritesBehind();

// The first alarm (in table order) with an id above `lastId` whose event time is at
// least 10 seconds old, so that its pictures have had time to arrive. Uses the caller's
// open connection; false when there is none, or on a null `out`.
bool GetRecordLog(CMysqlDB* db, int64_t lastId, _alarm_Info* out);

// Id of the newest confirmed alarm (cstatus = 1), 0 when none or on failure.
int64_t GetLastEvent();
