#include "mysql/groupwrite.h"

#include <mysql.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "comm/globle.h"
#include "comm/metrics.h"
#include "mysql/dbpool.h"
#include "mysql/spool.h"

namespace groupwrite {

namespace {

// Bounds one query: statements are at most 1 KiB each.
constexpr size_t kMaxBatch = 256;
constexpr size_t kMaxQueryBytes = 256 * 1024;
// Posted statements a family holds before posters wait: when the database is slow, the
// wait reaches the clients' queues and the listener stops reading, instead of memory
// growing without end.
constexpr size_t kMaxQueued = 8192;

// Set while a thread runs completions; a completion that posts must not wait for room,
// since it may be the only one who makes it.
thread_local bool t_completing = false;

struct Request {
    std::string text;  // a posted statement's own copy
    const char* sql = nullptr;
    bool mergeable = false;
    int tag = 0;
    std::function<void(const Outcome&)> then;  // empty: a caller of Run waits for it
    Outcome out;
    bool done = false;
    bool again = false;  // not run by the database: queue it anew
};

// Who still has posted statements on the way.
class Tags {
public:
    void Add(int tag) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counts[tag];
        ++m_total;
    }
    void Done(int tag) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_counts.find(tag);
        if (it != m_counts.end() && --it->second == 0) m_counts.erase(it);
        --m_total;
        m_changed.notify_all();
    }
    bool Outstanding(int tag) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_counts.count(tag) != 0;
    }
    void Wait(int tag) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_counts.count(tag) == 0; });
    }
    void WaitAll() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_total == 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::unordered_map<int, size_t> m_counts;
    size_t m_total = 0;
};

Tags& TheTags() {
    static Tags* tags = new Tags;  // completions may still run while the process exits
    return *tags;
}

// Where the row of a single-row "insert into t(cols) values (...)" begins; npos when the
// text has not that shape.
size_t RowStart(const char* sql) {
    static constexpr std::string_view kHead = "insert into ";
    static constexpr std::string_view kValues = ") values (";
    const std::string_view s(sql);
    if (s.compare(0, kHead.size(), kHead) != 0) return std::string_view::npos;
    const size_t at = s.find(kValues);
    return at == std::string_view::npos ? at : at + kValues.size() - 1;
}

// One statement of a batch: a request of its own, or the rows of several merged.
struct Statement {
    std::string text;
    std::vector<Request*> rows;
};

std::vector<Statement> Compose(const std::vector<Request*>& batch) {
    std::vector<Statement> statements;
    std::unordered_map<std::string_view, size_t> byHead;  // views into the requests' text
    for (Request* r : batch) {
        const size_t cut = r->mergeable ? RowStart(r->sql) : std::string_view::npos;
        if (cut == std::string_view::npos) {
            statements.push_back({r->sql, {r}});
            continue;
        }
        const std::string_view head(r->sql, cut);
        auto found = byHead.find(head);
        if (found == byHead.end()) {
            byHead.emplace(head, statements.size());
            statements.push_back({r->sql, {r}});
            continue;
        }
        Statement& s = statements[found->second];
        s.text += ',';
        s.text += r->sql + cut;
        s.rows.push_back(r);
    }
    return statements;
}

class Family {
public:
    explicit Family(std::mutex* writerLock) : m_writerLock(writerLock) {}

    Outcome Run(const char* sql) {
        Request req;
        req.sql = sql;
        std::unique_lock<std::mutex> lock(m_cs);
        m_waiting.push_back(&req);
        while (!req.done) {
            if (m_leading) {
                m_turn.wait(lock);
                continue;
            }
            // This thread runs the next batch for everybody waiting, its own statement among
            // them or not.
            Lead(lock);
        }
        return req.out;
    }

    void Post(std::unique_ptr<Request> req) {
        std::unique_lock<std::mutex> lock(m_cs);
        StartWriter();
        if (!t_completing && m_writerStarted)
            m_room.wait(lock, [this] { return m_waiting.size() < kMaxQueued; });
        m_waiting.push_back(req.release());
        if (!m_leading) m_work.notify_one();
    }

private:
    // The posted statements' own thread: leads whenever work waits and nobody leads.
    void Write() {
        std::unique_lock<std::mutex> lock(m_cs);
        for (;;) {
            m_work.wait(lock, [this] { return !m_waiting.empty() && !m_leading; });
            Lead(lock);
        }
    }

    void StartWriter() {  // m_cs held
        if (m_writerStarted) return;
        try {
            std::thread(&Family::Write, this).detach();  // the family lives as long as the process
            m_writerStarted = true;
        } catch (const std::system_error& error) {
            // Posted work then runs with the next caller of Run; tried again on the next Post.
            std::printf("cannot start a database writer: %s\n", error.what());
        }
    }

    // Runs one batch; m_cs is held on entry and on return, not in between. Completions run
    // before the next batch may start, so that what they pass on (to the spool) keeps the
    // order of the statements.
    void Lead(std::unique_lock<std::mutex>& lock) {
        m_leading = true;
        std::vector<Request*> batch = TakeBatch();
        m_room.notify_all();
        lock.unlock();
        RunBatch(batch);
        // Sorted before the completions free the posted requests.
        std::vector<Request*> posted, waited, again;
        for (Request* r : batch) {
            if (r->again) {
                r->again = false;
                again.push_back(r);
            } else {
                (r->then ? posted : waited).push_back(r);
            }
        }
        Complete(posted);
        lock.lock();
        m_leading = false;
        for (Request* r : waited) r->done = true;
        // Statements the database did not run go first in the next batch, in order.
        m_waiting.insert(m_waiting.begin(), again.begin(), again.end());
        m_turn.notify_all();
        if (!m_waiting.empty()) m_work.notify_one();
    }

    static void Complete(const std::vector<Request*>& posted) {
        const bool outer = t_completing;
        t_completing = true;
        for (Request* r : posted) {
            std::unique_ptr<Request> owned(r);
            owned->then(owned->out);
            TheTags().Done(owned->tag);
        }
        t_completing = outer;
    }

    std::vector<Request*> TakeBatch() {
        size_t n = 0, bytes = 0;
        while (n < m_waiting.size() && n < kMaxBatch) {
            bytes += std::strlen(m_waiting[n]->sql) + 1;
            if (n > 0 && bytes > kMaxQueryBytes) break;
            ++n;
        }
        std::vector<Request*> batch(m_waiting.begin(), m_waiting.begin() + n);
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + n);
        return batch;
    }

    void RunBatch(std::vector<Request*>& batch) {
        std::unique_lock<std::mutex> family;
        if (m_writerLock) family = std::unique_lock<std::mutex>(*m_writerLock);
        // While events wait in the spool, posted ones join them there in the order they
        // came, without a try each.
        const bool holding = spool::Holding();
        std::vector<Request*> run;
        for (Request* r : batch) {
            if (holding && r->then)
                r->out = Outcome{false, false, 0, std::string(), 0};  // not tried: no error
            else
                run.push_back(r);
        }
        if (run.empty()) return;
        const _cmsParam& c = m_cfgCms;
        dbpool::Lease lease = dbpool::Borrow(c.szDbAddr, c.szDbPort, c.szDbUser, c.szDbPass,
                                             c.szDbName, c.nDbPool, dbpool::Flavour::kBatch);
        if (!lease.sock) {
            for (Request* r : run)
                r->out = Outcome{false, false, 2003, dbpool::LastConnectErrorText(), 0};
            return;
        }
        std::vector<Statement> statements = Compose(run);
        dbpool::Return(lease, Send(lease.sock, statements));
    }

    static void Finish(const Statement& s, const Outcome& out) {
        for (Request* r : s.rows) r->out = out;
    }

    // Runs the statements as one query; whether the connection may be reused.
    static bool Send(MYSQL* sock, std::vector<Statement>& statements) {
        std::string query;
        for (const Statement& s : statements) {
            if (!query.empty()) query += ';';
            query += s.text;
        }
        int status = mysql_real_query(sock, query.data(), query.size());
        for (size_t i = 0; i < statements.size(); ++i) {
            if (status != 0) return Failed(sock, statements, i);
            if (MYSQL_RES* res = mysql_store_result(sock)) mysql_free_result(res);
            const Statement& s = statements[i];
            for (size_t k = 0; k < s.rows.size(); ++k) metrics::CountDbOperation("execute", true);
            const auto id = static_cast<int32_t>(static_cast<uint32_t>(mysql_insert_id(sock)));
            Finish(s, Outcome{true, true, 0, std::string(), s.rows.size() == 1 ? id : 0});
            if (i + 1 < statements.size()) status = mysql_next_result(sock);
        }
        // Anything left over, or a changed session, would follow the connection to the next
        // batch.
        return !mysql_more_results(sock) && !(sock->server_status & SERVER_SESSION_STATE_CHANGED);
    }

    // Statement `i` failed: it carries the error; those behind it were not run, unless the
    // connection broke, in which case nobody knows. Merged rows failed as one statement, so
    // they go again one by one, each to meet its own fate.
    static bool Failed(MYSQL* sock, std::vector<Statement>& statements, size_t i) {
        const unsigned int err = mysql_errno(sock);
        const Outcome out{false, true, err, std::to_string(err) + " " + mysql_error(sock), 0};
        const bool lost = err >= 2000 && err < 3000;
        for (size_t k = i; k < statements.size(); ++k) {
            Statement& s = statements[k];
            if (lost || (k == i && s.rows.size() == 1)) {
                if (k == i) metrics::CountDbOperation("execute", false);
                Finish(s, out);
                continue;
            }
            for (Request* r : s.rows) {
                r->again = true;
                if (k == i) r->mergeable = false;
            }
        }
        return false;
    }

    std::mutex* const m_writerLock;
    std::mutex m_cs;                 // guards what follows
    std::condition_variable m_turn;  // a batch ended: callers of Run look for their outcome
    std::condition_variable m_work;  // posted work waits and nobody leads
    std::condition_variable m_room;  // a batch was taken: posters may queue again
    std::vector<Request*> m_waiting;
    bool m_leading = false;
    bool m_writerStarted = false;
};

// One per writer lock, made when first used and never destroyed: writers may still run
// while the process exits.
Family& FamilyOf(std::mutex* writerLock) {
    static std::mutex* cs = new std::mutex;
    static auto* families = new std::unordered_map<std::mutex*, Family*>;
    std::lock_guard<std::mutex> lock(*cs);
    Family*& f = (*families)[writerLock];
    if (!f) f = new Family(writerLock);
    return *f;
}

}  // namespace

Outcome Run(std::mutex* family, const char* sql) {
    if (!sql) return Outcome{false, false, 0, "no statement", 0};
    return FamilyOf(family).Run(sql);
}

void Post(std::mutex* family, const std::string& sql, bool mergeable, int tag,
          std::function<void(const Outcome&)> then) {
    auto req = std::make_unique<Request>();
    req->text = sql;
    req->sql = req->text.c_str();
    req->mergeable = mergeable;
    req->tag = tag;
    req->then = then ? std::move(then) : [](const Outcome&) {};
    TheTags().Add(tag);
    FamilyOf(family).Post(std::move(req));
}

bool Outstanding(int tag) { return TheTags().Outstanding(tag); }

void WaitTag(int tag) { TheTags().Wait(tag); }

void WaitAll() { TheTags().WaitAll(); }

}  // namespace groupwrite
