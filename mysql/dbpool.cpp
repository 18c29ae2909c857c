#include "mysql/dbpool.h"

#include <poll.h>

#include <mutex>
#include <string>
#include <vector>

#include "comm/metrics.h"
#include "comm/sysutil.h"

namespace dbpool {

namespace {

// Makes the server flag SERVER_SESSION_STATE_CHANGED whenever a statement changes session
// state, which is how a borrower's leftovers are recognised without parsing its SQL.
constexpr char kInitCommand[] = "SET SESSION session_track_state_change = ON";

struct Idle {
    MYSQL* sock;
    uint32_t since;  // GetTickCount of the return
    bool staleInsertId;
};

struct Pool {
    std::mutex cs;  // guards everything below
    std::string key;
    uint32_t generation = 1;
    std::vector<Idle> idle;  // most recently returned last
    size_t capacity = kDefaultCapacity;
    uint32_t idleCheckMs = 2000;
};

// Never destroyed: threads may still borrow while the process exits, and the idle
// connections stay reachable rather than being dropped unclosed.
Pool& ThePool(Flavour flavour = Flavour::kPlain) {
    static Pool* plain = new Pool;
    static Pool* batch = new Pool;
    return flavour == Flavour::kBatch ? *batch : *plain;
}

std::string KeyOf(const char* host, int port, const char* user, const char* password,
                  const char* database) {
    std::string key;
    for (const char* part : {host, user, password, database}) {
        key += part ? part : "";
        key += '\0';
    }
    return key + std::to_string(port);
}

// An idle connection has nothing to read; readable means the server closed it or sent an
// error (shutdown, kill), so it is dead without a round trip.
bool SocketLooksAlive(MYSQL* sock) {
    pollfd p{};
    p.fd = static_cast<int>(mysql_get_socket(sock));
    p.events = POLLIN;
    return p.fd >= 0 && poll(&p, 1, 0) == 0;
}

void CloseAll(std::vector<Idle>& list) {
    for (Idle& i : list) mysql_close(i.sock);
    list.clear();
}

}  // namespace

std::string& LastConnectErrorText() {
    thread_local std::string text;
    return text;
}

MYSQL* Open(const char* host, int port, const char* user, const char* password,
            const char* database, bool multiStatements) {
    MYSQL* sock = mysql_init(nullptr);
    if (!sock) return nullptr;
    mysql_options(sock, MYSQL_OPT_CONNECT_TIMEOUT, &kConnectTimeoutSeconds);
    mysql_options(sock, MYSQL_OPT_READ_TIMEOUT, &kReadTimeoutSeconds);
    mysql_options(sock, MYSQL_OPT_WRITE_TIMEOUT, &kWriteTimeoutSeconds);
    mysql_options(sock, MYSQL_SET_CHARSET_NAME, "utf8");
    mysql_options(sock, MYSQL_INIT_COMMAND, kInitCommand);
    const bool ok =
        mysql_real_connect(sock, host, user, password, database, static_cast<unsigned int>(port),
                           nullptr, multiStatements ? CLIENT_MULTI_STATEMENTS : 0) != nullptr;
    metrics::CountDbOperation("connect", ok);
    if (ok) return sock;
    LastConnectErrorText() = std::to_string(mysql_errno(sock)) + " " + mysql_error(sock);
    mysql_close(sock);
    return nullptr;
}

Lease Borrow(const char* host, int port, const char* user, const char* password,
             const char* database, int capacity, Flavour flavour) {
    Pool& pool = ThePool(flavour);
    const std::string key = KeyOf(host, port, user, password, database);
    std::vector<Idle> dead;
    Lease lease;
    lease.flavour = flavour;
    uint32_t checkMs = 0;
    {
        std::lock_guard<std::mutex> lock(pool.cs);
        if (key != pool.key) {
            dead.swap(pool.idle);
            pool.key = key;
            ++pool.generation;
        }
        pool.capacity = capacity > 0 ? static_cast<size_t>(capacity) : kDefaultCapacity;
        lease.generation = pool.generation;
        checkMs = pool.idleCheckMs;
    }
    CloseAll(dead);
    // Candidates are taken out one at a time and checked outside the lock (a ping is a
    // round trip); a dead one is closed and the next tried.
    while (!lease.sock) {
        Idle i{};
        {
            std::lock_guard<std::mutex> lock(pool.cs);
            if (pool.idle.empty() || pool.generation != lease.generation) break;
            i = pool.idle.back();
            pool.idle.pop_back();
        }
        const bool recent = GetTickCount() - i.since < checkMs;
        if (SocketLooksAlive(i.sock) && (recent || mysql_ping(i.sock) == 0)) {
            lease.sock = i.sock;
            lease.staleInsertId = i.staleInsertId;
        } else {
            mysql_close(i.sock);
        }
    }
    if (!lease.sock)
        lease.sock = Open(host, port, user, password, database, flavour == Flavour::kBatch);
    return lease;
}

void Return(const Lease& lease, bool reusable) {
    if (!lease.sock) return;
    Pool& pool = ThePool(lease.flavour);
    if (reusable) {
        std::lock_guard<std::mutex> lock(pool.cs);
        if (lease.generation == pool.generation && pool.idle.size() < pool.capacity) {
            pool.idle.push_back(Idle{lease.sock, GetTickCount(), lease.staleInsertId});
            return;
        }
    }
    mysql_close(lease.sock);
}

void Clear() {
    for (Flavour f : {Flavour::kPlain, Flavour::kBatch}) {
        std::vector<Idle> dead;
        {
            std::lock_guard<std::mutex> lock(ThePool(f).cs);
            dead.swap(ThePool(f).idle);
        }
        CloseAll(dead);
    }
}

size_t IdleCount() {
    std::lock_guard<std::mutex> lock(ThePool().cs);
    return ThePool().idle.size();
}

void SetIdleCheckMs(uint32_t ms) {
    for (Flavour f : {Flavour::kPlain, Flavour::kBatch}) {
        std::lock_guard<std::mutex> lock(ThePool(f).cs);
        ThePool(f).idleCheckMs = ms;
    }
}

}  // namespace dbpool
