#include "mysql/groupwrite.h"

#include <mysql.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "comm/globle.h"
#include "comm/metrics.h"
#include "mysql/dbpool.h"

namespace groupwrite {

namespace {

// Bounds one query: statements are at most 1 KiB each.
constexpr size_t kMaxBatch = 64;

struct Request {
    const char* sql;
    Outcome out;
    bool done = false;
    bool again = false;  // not run by the database: queue it anew
};

class Family {
public:
    explicit Family(std::mutex* writerLock) : m_writerLock(writerLock) {}

    Outcome Run(const char* sql) {
        Request req{sql, {}};
        std::unique_lock<std::mutex> lock(m_cs);
        m_waiting.push_back(&req);
        while (!req.done) {
            if (m_leading) {
                m_turn.wait(lock);
                continue;
            }
            // This thread runs the next batch for everybody waiting, its own statement among
            // them or not.
            m_leading = true;
            std::vector<Request*> batch = TakeBatch();
            lock.unlock();
            RunBatch(batch);
            lock.lock();
            m_leading = false;
            for (Request* r : batch) r->done = !r->again;
            // Statements the database did not run go first in the next batch, in order.
            std::vector<Request*> again;
            for (Request* r : batch)
                if (r->again) {
                    r->again = false;
                    again.push_back(r);
                }
            m_waiting.insert(m_waiting.begin(), again.begin(), again.end());
            m_turn.notify_all();
        }
        return req.out;
    }

private:
    std::vector<Request*> TakeBatch() {
        const size_t n = std::min(m_waiting.size(), kMaxBatch);
        std::vector<Request*> batch(m_waiting.begin(), m_waiting.begin() + n);
        m_waiting.erase(m_waiting.begin(), m_waiting.begin() + n);
        return batch;
    }

    void RunBatch(std::vector<Request*>& batch) {
        std::unique_lock<std::mutex> family;
        if (m_writerLock) family = std::unique_lock<std::mutex>(*m_writerLock);
        const _cmsParam& c = m_cfgCms;
        dbpool::Lease lease = dbpool::Borrow(c.szDbAddr, c.szDbPort, c.szDbUser, c.szDbPass,
                                             c.szDbName, c.nDbPool, dbpool::Flavour::kBatch);
        if (!lease.sock) {
            for (Request* r : batch)
                Finish(*r, Outcome{false, false, 2003, dbpool::LastConnectErrorText(), 0});
            return;
        }
        dbpool::Return(lease, Send(lease.sock, batch));
    }

    // `done` is set later, under m_cs, where the owner looks for it.
    static void Finish(Request& r, Outcome out) { r.out = std::move(out); }

    // Runs the batch as one query; whether the connection may be reused.
    static bool Send(MYSQL* sock, std::vector<Request*>& batch) {
        std::string query;
        for (const Request* r : batch) {
            if (!query.empty()) query += ';';
            query += r->sql;
        }
        int status = mysql_real_query(sock, query.data(), query.size());
        for (size_t i = 0; i < batch.size(); ++i) {
            if (status != 0) return Failed(sock, batch, i);
            if (MYSQL_RES* res = mysql_store_result(sock)) mysql_free_result(res);
            metrics::CountDbOperation("execute", true);
            const auto id = static_cast<int32_t>(static_cast<uint32_t>(mysql_insert_id(sock)));
            Finish(*batch[i], Outcome{true, true, 0, std::string(), id});
            if (i + 1 < batch.size()) status = mysql_next_result(sock);
        }
        // Anything left over, or a changed session, would follow the connection to the next
        // batch.
        return !mysql_more_results(sock) && !(sock->server_status & SERVER_SESSION_STATE_CHANGED);
    }

    // Statement `i` failed: it carries the error; those behind it were not run, unless the
    // connection broke, in which case nobody knows.
    static bool Failed(MYSQL* sock, std::vector<Request*>& batch, size_t i) {
        const unsigned int err = mysql_errno(sock);
        Outcome out{false, true, err, std::to_string(err) + " " + mysql_error(sock), 0};
        const bool lost = err >= 2000 && err < 3000;
        metrics::CountDbOperation("execute", false);
        Finish(*batch[i], out);
        for (size_t k = i + 1; k < batch.size(); ++k) {
            if (lost)
                Finish(*batch[k], out);
            else
                batch[k]->again = true;
        }
        return false;
    }

    std::mutex* const m_writerLock;
    std::mutex m_cs;  // guards what follows
    std::condition_variable m_turn;
    std::vector<Request*> m_waiting;
    bool m_leading = false;
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

}  // namespace groupwrite
