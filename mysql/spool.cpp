#include "mysql/spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "comm/filestore.h"
#include "comm/metrics.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"

namespace spool {

namespace {

constexpr uint32_t kMagic = 0x52534d43;  // "CMSR"
constexpr uint64_t kMinSegment = 64 * 1024;
constexpr uint64_t kMaxSegment = 64ull << 20;
constexpr uint32_t kMaxBody = 32u << 20;  // an event with pictures of up to 16 MiB
constexpr uint32_t kDropReportSeconds = 60;
constexpr uint32_t kRetryMs = 500;

struct Header {
    uint32_t magic;
    uint32_t bodyLength;  // kind byte, table, NUL, statement [, NUL, pictures]
    uint64_t seq;
};

struct StoredPicture {
    std::string area;
    int32_t index = 0;
    std::string bytes;
};

struct Record {
    uint64_t seq = 0;
    Kind kind = Kind::kInsert;
    std::string table;
    std::string sql;
    std::vector<StoredPicture> pictures;
};

struct Segment {
    std::string path;
    uint64_t bytes = 0;
    uint64_t records = 0;
};

struct State {
    std::mutex cs;  // guards everything below
    std::condition_variable changed;
    std::string dir = "var/spool/";
    uint64_t limit = kDefaultLimitBytes;
    std::deque<Segment> segments;  // oldest first
    uint64_t readOffset = 0;       // into segments.front()
    uint64_t pending = 0;
    uint64_t totalBytes = 0;
    uint64_t lastSeq = 0;
    uint64_t dropped = 0;
    uint64_t droppedUnreported = 0;
    uint32_t lastDropReport = 0;
    bool holding = false;
    bool replaying = false;  // the replay thread runs
    bool resumed = false;
};

// Never destroyed: the detached replay thread may still use it while the process exits.
State& S() {
    static State* s = new State;
    return *s;
}

uint64_t NowMicros() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

std::string SegmentPath(const std::string& dir, uint64_t seq) {
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.seg", static_cast<unsigned long long>(seq));
    return dir + (dir.empty() || dir.back() == '/' ? "" : "/") + name;
}

void MakeDirs(const std::string& dir) {
    std::string part;
    for (size_t i = 0; i <= dir.size(); ++i) {
        if (i == dir.size() || dir[i] == '/') {
            if (!part.empty()) mkdir(part.c_str(), 0700);
        }
        if (i < dir.size()) part += dir[i];
    }
}

bool ReadAll(int fd, void* out, size_t n) {
    char* p = static_cast<char*>(out);
    while (n > 0) {
        const ssize_t r = read(fd, p, n);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool WriteAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// A picture that SaveFileEx would refuse anyway is not kept.
bool Storable(const Picture& p) { return p.area && p.data && p.length >= 0; }

void PutPictures(std::string& body, const Picture* pictures, size_t count) {
    bool first = true;
    for (size_t i = 0; pictures && i < count; ++i) {
        const Picture& p = pictures[i];
        if (!Storable(p)) continue;
        if (first) body += '\0';
        first = false;
        body += p.area;
        body += '\0';
        body.append(reinterpret_cast<const char*>(&p.index), sizeof p.index);
        body.append(reinterpret_cast<const char*>(&p.length), sizeof p.length);
        body.append(p.data, static_cast<size_t>(p.length));
    }
}

// The pictures from `pos` to the end of `body`; false when they run past it.
bool TakePictures(const std::string& body, size_t pos, std::vector<StoredPicture>& out) {
    while (pos < body.size()) {
        const size_t nul = body.find('\0', pos);
        if (nul == std::string::npos || body.size() - nul - 1 < 8) return false;
        StoredPicture p;
        p.area = body.substr(pos, nul - pos);
        int32_t length = 0;
        std::memcpy(&p.index, &body[nul + 1], sizeof p.index);
        std::memcpy(&length, &body[nul + 5], sizeof length);
        pos = nul + 9;
        if (length < 0 || static_cast<size_t>(length) > body.size() - pos) return false;
        p.bytes = body.substr(pos, static_cast<size_t>(length));
        pos += static_cast<size_t>(length);
        out.push_back(std::move(p));
    }
    return true;
}

bool ParseBody(const std::string& body, Record& rec) {
    const size_t nul = body.find('\0', 1);
    if (nul == std::string::npos) return false;
    const size_t end = body.find('\0', nul + 1);  // only a record with pictures has one
    rec.kind = static_cast<Kind>(body[0]);
    rec.table = body.substr(1, nul - 1);
    rec.sql = body.substr(nul + 1, end == std::string::npos ? std::string::npos : end - nul - 1);
    rec.pictures.clear();
    return end == std::string::npos || TakePictures(body, end + 1, rec.pictures);
}

// Reads the record at `offset` of `path`; false at the end or at a torn tail. Without
// `withBody` only the sequence number is read (and the body's presence checked): what
// counting and position checks need, without reading pictures.
bool ReadRecord(const std::string& path, uint64_t offset, Record& rec, uint64_t& next,
                bool withBody = true) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = false;
    Header h{};
    struct stat st {};
    if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) >= 0 && ReadAll(fd, &h, sizeof h) &&
        h.magic == kMagic && h.bodyLength >= 2 && h.bodyLength <= kMaxBody) {
        if (!withBody) {
            ok = fstat(fd, &st) == 0 &&
                 static_cast<uint64_t>(st.st_size) >= offset + sizeof h + h.bodyLength;
        } else {
            std::string body(h.bodyLength, '\0');
            ok = ReadAll(fd, &body[0], body.size()) && ParseBody(body, rec);
        }
        if (ok) {
            rec.seq = h.seq;
            next = offset + sizeof h + h.bodyLength;
        }
    }
    close(fd);
    return ok;
}

uint64_t SegmentLimit(const State& s) {
    return std::min(kMaxSegment, std::max(kMinSegment, s.limit / 8));
}

// Drops oldest segments while over the limit, keeping the one being written.
void EnforceLimit(State& s) {
    while (s.totalBytes > s.limit && s.segments.size() > 1) {
        Segment old = s.segments.front();
        s.segments.pop_front();
        // Records of the front segment already replayed are not counted as pending.
        uint64_t lost = old.records;
        if (s.readOffset > 0) {
            uint64_t off = 0, n = 0, next = 0;
            Record r;
            while (off < s.readOffset && ReadRecord(old.path, off, r, next, false)) {
                off = next;
                ++n;
            }
            lost = old.records > n ? old.records - n : 0;
        }
        s.readOffset = 0;
        unlink(old.path.c_str());
        s.totalBytes -= std::min(s.totalBytes, old.bytes);
        s.pending -= std::min(s.pending, lost);
        s.dropped += lost;
        s.droppedUnreported += lost;
    }
    const uint32_t now = GetCurrentTime();
    if (s.droppedUnreported > 0 && now - s.lastDropReport >= kDropReportSeconds) {
        std::printf("spool full (limit %llu bytes): dropped %llu oldest records\n",
                    static_cast<unsigned long long>(s.limit),
                    static_cast<unsigned long long>(s.droppedUnreported));
        s.droppedUnreported = 0;
        s.lastDropReport = now;
    }
}

// Scans the segments of an earlier run; caller holds cs.
void LoadExisting(State& s) {
    DIR* d = opendir(s.dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() == 20 && name.compare(16, 4, ".seg") == 0) names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        Segment seg;
        seg.path = s.dir + (s.dir.back() == '/' ? "" : "/") + name;
        uint64_t off = 0, next = 0;
        Record r;
        while (ReadRecord(seg.path, off, r, next)) {
            off = next;
            ++seg.records;
            s.lastSeq = std::max(s.lastSeq, r.seq);
        }
        if (truncate(seg.path.c_str(), static_cast<off_t>(off)) != 0) continue;  // torn tail
        if (seg.records == 0) {
            unlink(seg.path.c_str());
            continue;
        }
        seg.bytes = off;
        s.totalBytes += off;
        s.pending += seg.records;
        s.segments.push_back(seg);
    }
}

// ---- Replay ----

// The database's error number of a failed statement, printed once per distinct error.
void PrintReplayError(CMysqlDB& db, const Record& rec) {
    MYSQL* h = db.Handle();
    std::printf("spool replay of record %llu (%s) failed: %u %s\n",
                static_cast<unsigned long long>(rec.seq), rec.table.c_str(),
                h ? mysql_errno(h) : 0u, h ? mysql_error(h) : "no connection");
}

// Row 1 of `spoolcursor`: the last record replayed; row 2: the id of the row it inserted
// when it carried pictures. -1: the cursor could not be read (database away).
int64_t ReadCursor(CMysqlDB& db, int row = 1) {
    char sql[64];
    std::snprintf(sql, sizeof sql, "select seq from spoolcursor where id = %d", row);
    CMysqlRecordSet rs;
    if (!rs.Open(&db, sql)) return -1;
    int64_t seq = 0;
    if (rs.MoveNext()) {
        char value[32] = {0};
        rs.GetFieldValue("seq", value);
        seq = std::strtoll(value, nullptr, 10);
    }
    rs.Close();
    return seq;
}

// "insert into T(cols) values (vals)" -> "select id from T where (cols) = (vals) limit 1";
// empty when the statement has another shape.
std::string ProbeOf(const std::string& sql) {
    static const char kHead[] = "insert into ";
    static const char kValues[] = ") values (";
    if (sql.compare(0, sizeof kHead - 1, kHead) != 0 || sql.empty() || sql.back() != ')')
        return std::string();
    const size_t open = sql.find('(');
    const size_t values = sql.find(kValues);
    if (open == std::string::npos || values == std::string::npos || values < open)
        return std::string();
    const std::string table = sql.substr(sizeof kHead - 1, open - (sizeof kHead - 1));
    const std::string cols = sql.substr(open + 1, values - open - 1);
    const size_t v = values + sizeof kValues - 1;
    const std::string vals = sql.substr(v, sql.size() - 1 - v);
    return "select id from " + table + " where (" + cols + ") = (" + vals + ") limit 1";
}

// 1 when the row of an unsure insert is there (its id in `id`), 0 when not, -1 on failure.
int RowExists(CMysqlDB& db, const std::string& sql, int64_t& id) {
    const std::string probe = ProbeOf(sql);
    if (probe.empty()) return 0;
    CMysqlRecordSet rs;
    if (!rs.Open(&db, probe.c_str())) return -1;
    const int found = rs.MoveNext() ? 1 : 0;
    if (found) {
        char value[32] = {0};
        rs.GetFieldValue("id", value);
        id = std::strtoll(value, nullptr, 10);
    }
    rs.Close();
    return found;
}

enum class Outcome { kDone, kRetry, kSkip };

// One record and the cursor in one transaction; the inserted row's id in `id`.
Outcome ReplayOne(CMysqlDB& db, const Record& rec, int64_t& id) {
    std::mutex* family = WriterFamilyLock(rec.table.c_str());
    if (!db.ExecuteUpdate("start transaction")) return Outcome::kRetry;
    bool ok = false;
    {
        std::unique_lock<std::mutex> lock;
        if (family) lock = std::unique_lock<std::mutex>(*family);
        const int exists = rec.kind == Kind::kInsertUnsure ? RowExists(db, rec.sql, id) : 0;
        if (exists < 0) {
            db.ExecuteUpdate("rollback");
            return Outcome::kRetry;
        }
        ok = exists == 1 || (rec.kind == Kind::kStatus ? db.ExecuteUpdate(rec.sql.c_str())
                                                       : db.ExecuteInsert(rec.sql.c_str(), id));
    }
    if (!ok) {
        const unsigned err = db.Handle() ? mysql_errno(db.Handle()) : 0;
        PrintReplayError(db, rec);
        db.ExecuteUpdate("rollback");
        return IsTransientDbError(err) ? Outcome::kRetry : Outcome::kSkip;
    }
    char cursor[128];
    const auto seq = static_cast<unsigned long long>(rec.seq);
    if (rec.pictures.empty())
        std::snprintf(cursor, sizeof cursor, "replace into spoolcursor(id,seq) values (1,%llu)",
                      seq);
    else
        std::snprintf(cursor, sizeof cursor,
                      "replace into spoolcursor(id,seq) values (1,%llu),(2,%lld)", seq,
                      static_cast<long long>(id));
    if (!db.ExecuteUpdate(cursor) || !db.ExecuteUpdate("commit")) {
        PrintReplayError(db, rec);
        db.ExecuteUpdate("rollback");
        return Outcome::kRetry;
    }
    if (rec.kind != Kind::kStatus) metrics::CountRowWritten(rec.table.c_str());
    return Outcome::kDone;
}

void SaveReplayedPictures(const Record& rec, int64_t rowId) {
    std::vector<Picture> pictures;
    for (const StoredPicture& p : rec.pictures)
        pictures.push_back(
            Picture{p.area.c_str(), p.index, p.bytes.data(), static_cast<int>(p.bytes.size())});
    SavePictures(rowId, pictures.data(), pictures.size());
}

// The next record to replay, or false when none.
bool Peek(State& s, Record& rec, uint64_t& next) {
    std::lock_guard<std::mutex> lock(s.cs);
    while (!s.segments.empty()) {
        if (ReadRecord(s.segments.front().path, s.readOffset, rec, next)) return true;
        if (s.segments.size() == 1) return false;  // still being written
        unlink(s.segments.front().path.c_str());
        s.totalBytes -= std::min(s.totalBytes, s.segments.front().bytes);
        s.segments.pop_front();
        s.readOffset = 0;
    }
    return false;
}

// Marks `rec` as done unless a drop moved the read position meanwhile.
void Advance(State& s, const Record& done, uint64_t next) {
    std::lock_guard<std::mutex> lock(s.cs);
    Record cur;
    uint64_t curNext = 0;
    if (s.segments.empty() ||
        !ReadRecord(s.segments.front().path, s.readOffset, cur, curNext, false) ||
        cur.seq != done.seq)
        return;
    s.readOffset = next;
    if (s.pending > 0) --s.pending;
}

// Ends the replay when nothing is left; caller holds cs.
bool FinishIfEmpty(State& s) {
    if (s.pending > 0) return false;
    for (const Segment& seg : s.segments) unlink(seg.path.c_str());
    s.segments.clear();
    s.readOffset = 0;
    s.totalBytes = 0;
    s.holding = false;
    s.replaying = false;
    std::printf("spool drained: database writes are direct again\n");
    s.changed.notify_all();
    return true;
}

void ReplayLoop() {
    State& s = S();
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(s.cs);
            if (FinishIfEmpty(s)) return;
        }
        CMysqlDB db;
        int64_t done = ConnectDB(&db) ? ReadCursor(db) : -1;
        Record rec;
        uint64_t next = 0;
        while (done >= 0 && Peek(s, rec, next)) {
            if (rec.seq > static_cast<uint64_t>(done)) {
                int64_t rowId = 0;
                const Outcome o = ReplayOne(db, rec, rowId);
                if (o == Outcome::kRetry) break;
                if (o == Outcome::kDone) {
                    done = static_cast<int64_t>(rec.seq);
                    SaveReplayedPictures(rec, rowId);
                }
            } else if (rec.seq == static_cast<uint64_t>(done) && !rec.pictures.empty()) {
                // Committed by a replay that may have died before saving the pictures.
                const int64_t rowId = ReadCursor(db, 2);
                if (rowId < 0) break;
                SaveReplayedPictures(rec, rowId);
            }
            Advance(s, rec, next);
        }
        CloseDB(&db);
        std::unique_lock<std::mutex> lock(s.cs);
        if (s.pending > 0) s.changed.wait_for(lock, std::chrono::milliseconds(kRetryMs));
    }
}

void StartReplayLocked(State& s) {
    if (s.replaying || s.pending == 0) return;
    s.replaying = true;
    std::thread(ReplayLoop).detach();
}

}  // namespace

void Configure(const std::string& dir, uint64_t limitBytes) {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.cs);
    if (!dir.empty()) s.dir = dir;
    s.limit = limitBytes > 0 ? limitBytes : kDefaultLimitBytes;
}

bool Holding() {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.cs);
    return s.holding;
}

bool Append(Kind kind, const char* table, const char* sql, const Picture* pictures,
            size_t pictureCount) {
    if (!table || !sql) return false;
    std::string body(1, static_cast<char>(kind));
    body += table;
    body += '\0';
    body += sql;
    if (kind != Kind::kStatus) PutPictures(body, pictures, pictureCount);
    if (body.size() > kMaxBody) return false;
    State& s = S();
    std::lock_guard<std::mutex> lock(s.cs);
    const uint64_t seq = std::max(s.lastSeq + 1, NowMicros());
    if (s.segments.empty() || s.segments.back().bytes >= SegmentLimit(s)) {
        MakeDirs(s.dir);
        s.segments.push_back(Segment{SegmentPath(s.dir, seq), 0, 0});
    }
    Segment& seg = s.segments.back();
    const int fd = open(seg.path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::printf("spool: cannot open %s: %s\n", seg.path.c_str(), std::strerror(errno));
        if (seg.bytes == 0) s.segments.pop_back();
        return false;
    }
    const Header h{kMagic, static_cast<uint32_t>(body.size()), seq};
    std::string bytes(reinterpret_cast<const char*>(&h), sizeof h);
    bytes += body;
    const bool ok = WriteAll(fd, bytes.data(), bytes.size());
    close(fd);
    if (!ok) {
        std::printf("spool: cannot write %s\n", seg.path.c_str());
        return false;
    }
    if (!s.holding) std::printf("database unavailable: spooling events to %s\n", s.dir.c_str());
    s.holding = true;
    s.lastSeq = seq;
    seg.bytes += bytes.size();
    seg.records += 1;
    s.totalBytes += bytes.size();
    s.pending += 1;
    EnforceLimit(s);
    StartReplayLocked(s);
    return true;
}

void SavePictures(int64_t rowId, const Picture* pictures, size_t count) {
    if (rowId <= 0 || !pictures) return;
    for (size_t i = 0; i < count; ++i) {
        const Picture& p = pictures[i];
        if (Storable(p)) SaveFileEx(p.area, static_cast<int>(rowId), p.index, p.data, p.length);
    }
}

void Resume() {
    State& s = S();
    std::lock_guard<std::mutex> lock(s.cs);
    if (s.resumed || !s.segments.empty()) return;
    s.resumed = true;
    LoadExisting(s);
    if (s.pending == 0) return;
    std::printf("spool: %llu records from an earlier run wait for the database\n",
                static_cast<unsigned long long>(s.pending));
    s.holding = true;
    StartReplayLocked(s);
}

bool WaitDrained(uint32_t timeoutMs) {
    State& s = S();
    std::unique_lock<std::mutex> lock(s.cs);
    return s.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return !s.holding; });
}

uint64_t PendingCount() {
    std::lock_guard<std::mutex> lock(S().cs);
    return S().pending;
}

uint64_t DroppedCount() {
    std::lock_guard<std::mutex> lock(S().cs);
    return S().dropped;
}

}  // namespace spool
