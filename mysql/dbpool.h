// Idle MariaDB connections kept for reuse behind ConnectDB/CloseDB, so that an operation
// does not pay for a connect and a close. Callers never see the pool: CMysqlDB borrows a
// connection on ConnectDB and hands it back on Close.
//
// Bounds: at most `capacity` idle connections are kept (the settings' pool size, 16 when
// unset). A borrower never waits: when nothing idle fits it opens a connection of its own,
// which is closed instead of kept when the pool is full on return. So a thread that holds
// one connection and asks for another cannot deadlock, and results do not depend on load.
//
// Health: an idle connection whose socket has become readable (the server closed it or
// sent an error) is dropped when met; one idle longer than the check interval is pinged
// first. A connection that saw an error, an open transaction or a change of session state
// comes back as not reusable and is closed (CMysqlDB decides). So a database that goes
// away and comes back is simply met by new connections.
//
// Locks: one mutex guards the idle list, the settings key and the generation; no I/O runs
// under it except closing connections that are already detached from the list.
#pragma once

#include <mysql.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace dbpool {

constexpr int kDefaultCapacity = 16;
// Time-outs of every connection the server opens, in seconds. Reads and writes are bounded
// so that a stalled database cannot hold a thread for ever; a loader's query that takes
// longer than the read time-out before its first row fails like a lost connection.
constexpr unsigned int kConnectTimeoutSeconds = 3;
constexpr unsigned int kReadTimeoutSeconds = 60;
constexpr unsigned int kWriteTimeoutSeconds = 60;

// Opens a connection with the options above, utf8 and session-state tracking (so that a
// borrower's SET, USE, temporary table or user variable shows in the reply status). Null
// when the server cannot be reached.
// `multiStatements` lets one query carry several statements (the batch flavour below).
MYSQL* Open(const char* host, int port, const char* user, const char* password,
            const char* database, bool multiStatements = false);

// "<errno> <message>" of this thread's last failed Open.
std::string& LastConnectErrorText();

// Plain connections run one statement per query, as every client's SQL expects. Batch
// connections take several statements in one query; only the event writers' batches use
// them, so they are kept apart and never lent for anything else.
enum class Flavour { kPlain, kBatch };

struct Lease {
    MYSQL* sock = nullptr;
    Flavour flavour = Flavour::kPlain;
    uint32_t generation = 0;  // hand back with the connection
    // The server's last_insert_id() of this connection may hold an earlier borrower's value.
    bool staleInsertId = false;
};

// A connection to exactly these settings: an idle healthy one when there is one, else a new
// one. A change of settings since the last borrow closes every idle connection first.
// `capacity` <= 0 means kDefaultCapacity. sock is null when the database is unreachable.
Lease Borrow(const char* host, int port, const char* user, const char* password,
             const char* database, int capacity, Flavour flavour = Flavour::kPlain);

// Takes a borrowed connection back: kept when `reusable`, the settings are still those it
// was borrowed for and the pool has room; closed otherwise.
void Return(const Lease& lease, bool reusable);

// Closes every idle connection of both flavours.
void Clear();
// Idle plain connections.
size_t IdleCount();
// Idle time after which a connection is pinged before reuse, in milliseconds (default
// 2000). Tests set 0 to check every reuse.
void SetIdleCheckMs(uint32_t ms);

}  // namespace dbpool
