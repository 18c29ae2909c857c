// Message load: 10,000 devices log in by serial over 200 connections to the real cmssvr,
// then their links send device-state and analytics events as fast as the server takes
// them. Beside it, on the same database, the rate of plain single-row inserts over one
// persistent connection: the ceiling that the event path is measured against. Last,
// 10,000 devices marked off-line log in for the first time over 200 new connections, each
// login a status update and a run-log row.
//
// Starts its own throwaway MariaDB (see benchdb.h) unless CMS_BENCH_DB_PORT names a
// running one; CMS_BENCH_EVENTS sets the event count (default 10,000). Everything runs on
// loopback and every wait is bounded.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchdb.h"
#include "benchsvr.h"
#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"

namespace {

using Clock = std::chrono::steady_clock;
using benchdb::InsertRows;
using benchdb::Mysql;
using benchdb::Run;
using cmsclient::CmsClient;
using cmsclient::Reply;

constexpr int kDevices = 10000;
constexpr int kConnections = 200;
constexpr int kThreads = 8;  // client threads, each driving kConnections / kThreads links
constexpr int kCeilingInserts = 5000;
constexpr int kReplyTimeoutMs = 120000;  // bound on waiting for the server to work a queue down
constexpr const char* kDbName = "cmsmsgload";

// ---- Run-wide state, filled phase by phase ----
struct Figures {
    double loginsPerSec = 0;
    int events = 0;
    double eventsPerSec = 0;
    long long rows = 0;
    double rowsPerSec = 0;
    double insertsPerSec = 0;
    double firstLoginsPerSec = 0;
};
Figures g_fig;
benchdb::Database g_db("msgload");
std::vector<std::unique_ptr<CmsClient>> g_links;
bool g_loggedIn = false;

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Serial(int device) { return "LD" + std::to_string(10000000 + device); }
std::string OfflineSerial(int device) { return "OF" + std::to_string(10000000 + device); }
constexpr unsigned kOfflineFlag = 0x10000;

// ---- Database ----

long long Count(MYSQL* c, const char* table) {
    std::string sql = std::string("select count(*) from ") + table;
    if (mysql_real_query(c, sql.data(), sql.size()) != 0) return -1;
    std::unique_ptr<MYSQL_RES, void (*)(MYSQL_RES*)> res(mysql_store_result(c), mysql_free_result);
    MYSQL_ROW row = res ? mysql_fetch_row(res.get()) : nullptr;
    return row && row[0] ? std::atoll(row[0]) : -1;
}

std::string DeviceRow(int i) {
    return "(" + std::to_string(i + 1) + ",'dev" + std::to_string(i) + "','" + Serial(i) +
           "',1,1,8000)";
}

std::string ChannelRow(int i) {
    return "(" + std::to_string(i + 1) + "," + std::to_string(i + 1) + ",1,'ch" +
           std::to_string(i) + "',1)";
}

// Off-line devices come after the others, so that lookups of those stay as they were.
std::string OfflineDeviceRow(int i) {
    return "(" + std::to_string(kDevices + i + 1) + ",'off" + std::to_string(i) + "','" +
           OfflineSerial(i) + "',1,1,8000," + std::to_string(kOfflineFlag) + ")";
}

// The schema and 10,000 devices, each with video channel 1, and 10,000 off-line devices.
bool Populate() {
    Mysql c = g_db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), kDbName) &&
           Run(c.get(), "insert into region(id,name,parentid) values (1,'root',0)") &&
           InsertRows(c.get(), "insert into device(id,name,sn,regionid,ftype,port) values ",
                      kDevices, DeviceRow) &&
           InsertRows(c.get(), "insert into devicechan(id,devid,chan,name,hardwaretype) values ",
                      kDevices, ChannelRow) &&
           InsertRows(c.get(), "insert into device(id,name,sn,regionid,ftype,port,status) values ",
                      kDevices, OfflineDeviceRow);
}

benchdb::Server* g_server = nullptr;

// ---- Load phases ----

// Runs `work(first, last)` on kThreads threads over slices of the links; the sum of their
// results.
template <class Work>
long long OverLinks(Work work) {
    std::atomic<long long> total{0};
    std::vector<std::thread> threads;
    const int per = kConnections / kThreads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { total += work(t * per, (t + 1) * per); });
    for (std::thread& th : threads) th.join();
    return total;
}

// Reads `n` replies from a link; how many were state 0.
int ReadStates(CmsClient& link, int n) {
    int ok = 0;
    Reply reply;
    for (int i = 0; i < n; ++i) {
        if (link.ReadReply(reply, kReplyTimeoutMs) != CmsClient::ReadResult::kReply) break;
        ok += reply.IsState() && reply.state == 0;
    }
    return ok;
}

// Link c carries devices c, c + 200, ...; the server attributes its events to the first of
// them in catalogue order, device c (its channel 1).
long long LoginSlice(std::vector<std::unique_ptr<CmsClient>>& links, std::string (*serial)(int),
                     int first, int last) {
    const int perLink = kDevices / kConnections;
    for (int c = first; c < last; ++c)
        for (int k = 0; k < perLink; ++k) {
            const cmsclient::Request r = cmsclient::Login(serial(c + k * kConnections).c_str());
            if (!links[c]->Send(r.head, r.payload)) return 0;
        }
    long long ok = 0;
    for (int c = first; c < last; ++c) ok += ReadStates(*links[c], perLink);
    return ok;
}

// kConnections new links to the server; empty when one could not connect.
std::vector<std::unique_ptr<CmsClient>> OpenLinks() {
    std::vector<std::unique_ptr<CmsClient>> links;
    for (int c = 0; c < kConnections; ++c) {
        links.push_back(std::make_unique<CmsClient>());
        if (!links.back()->Connect("127.0.0.1", g_server->port())) return {};
    }
    return links;
}

// Alternates device-state events (link lost, back: each one a change the server records)
// with analytics alarms, then sends a login whose answer proves that the link's events
// have all been handled (one link's messages are handled in order).
long long EventSlice(int first, int last, int perLink) {
    cmsclient::EventFields f;
    f.channel = "1";
    f.info = "msgload";
    const cmsclient::Request lost = cmsclient::DeviceStateEvent(f, DEVSTATE_DISLINK);
    const cmsclient::Request back = cmsclient::DeviceStateEvent(f, DEVSTATE_DISLINK_RESUME);
    const cmsclient::Request alarm = cmsclient::AlarmEvent(f, 5, 0);
    for (int c = first; c < last; ++c) {
        for (int k = 0; k < perLink; ++k) {
            const cmsclient::Request& r = k % 2 ? alarm : (k / 2) % 2 ? back : lost;
            if (!g_links[c]->Send(r.head, r.payload)) return 0;
        }
        cmsclient::Request barrier = cmsclient::Login(Serial(c).c_str());
        if (!g_links[c]->Send(barrier.head, barrier.payload)) return 0;
    }
    long long handled = 0;
    for (int c = first; c < last; ++c) handled += ReadStates(*g_links[c], 1) ? perLink : 0;
    return handled;
}

void BM_Logins(benchmark::State& state) {
    for (auto _ : state) {
        g_links = OpenLinks();
        if (g_links.empty()) return state.SkipWithError("connect failed");
        auto start = Clock::now();
        long long ok = OverLinks([](int a, int b) { return LoginSlice(g_links, Serial, a, b); });
        double secs = Seconds(start);
        state.SetIterationTime(secs);
        g_loggedIn = ok == kDevices;
        if (!g_loggedIn) return state.SkipWithError("not every login was answered with state 0");
        g_fig.loginsPerSec = ok / secs;
        state.counters["logins"] = static_cast<double>(ok);
        state.counters["logins_per_s"] = g_fig.loginsPerSec;
    }
}
BENCHMARK(BM_Logins)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

int EventCount() {
    const char* p = std::getenv("CMS_BENCH_EVENTS");
    int n = p ? std::atoi(p) : 10000;
    n = std::max(2 * kConnections, std::min(n, 200000));
    return n / (2 * kConnections) * (2 * kConnections);  // whole pairs on every link
}

void BM_Events(benchmark::State& state) {
    if (!g_loggedIn) return state.SkipWithError("needs BM_Logins first");
    Mysql db = g_db.Connect(kDbName);
    if (!db) return state.SkipWithError("no database");
    for (auto _ : state) {
        const int perLink = EventCount() / kConnections;
        auto start = Clock::now();
        long long handled =
            OverLinks([perLink](int a, int b) { return EventSlice(a, b, perLink); });
        double secs = Seconds(start);
        state.SetIterationTime(secs);
        if (handled != static_cast<long long>(perLink) * kConnections)
            return state.SkipWithError("a link's events were not all handled in time");
        g_fig.events = static_cast<int>(handled);
        g_fig.eventsPerSec = handled / secs;
        g_fig.rows = Count(db.get(), "deveventlog") + Count(db.get(), "intveventlog");
        g_fig.rowsPerSec = g_fig.rows / secs;
        state.counters["events_per_s"] = g_fig.eventsPerSec;
        state.counters["rows"] = static_cast<double>(g_fig.rows);
    }
}
BENCHMARK(BM_Events)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same statement the server writes for an alarm, over one connection kept open.
void BM_InsertCeiling(benchmark::State& state) {
    Mysql db = g_db.Connect(kDbName);
    if (!db) return state.SkipWithError("no database");
    for (auto _ : state) {
        auto start = Clock::now();
        for (int i = 0; i < kCeilingInserts; ++i) {
            if (!Run(db.get(),
                     "insert into intveventlog(nodeid,nodetype,eventtype,param,"
                     "descript,logtime,loctime) values (1,3,5,0,\"ceiling\","
                     "\"2024-5-1 8:0:0\",\"2024-5-1 8:0:0\")"))
                return state.SkipWithError("insert failed");
        }
        double secs = Seconds(start);
        state.SetIterationTime(secs);
        g_fig.insertsPerSec = kCeilingInserts / secs;
        state.counters["inserts_per_s"] = g_fig.insertsPerSec;
    }
}
BENCHMARK(BM_InsertCeiling)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Each first login of an off-line device clears the flag, writes the status and adds a
// "back on line" run-log row.
void BM_FirstLogins(benchmark::State& state) {
    Mysql db = g_db.Connect(kDbName);
    if (!db) return state.SkipWithError("no database");
    for (auto _ : state) {
        std::vector<std::unique_ptr<CmsClient>> links = OpenLinks();
        if (links.empty()) return state.SkipWithError("connect failed");
        const long long before = Count(db.get(), "devrunlog");
        auto start = Clock::now();
        long long ok =
            OverLinks([&links](int a, int b) { return LoginSlice(links, OfflineSerial, a, b); });
        // A known device is answered before its rows are written, so the clock runs until
        // the last run-log row is there.
        long long rows = 0;
        while ((rows = Count(db.get(), "devrunlog") - before) < kDevices &&
               Seconds(start) < kReplyTimeoutMs / 1000.0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        double secs = Seconds(start);
        state.SetIterationTime(secs);
        if (ok != kDevices || rows != kDevices) {
            std::fprintf(stderr, "msgload: %lld first logins answered, %lld rows\n", ok, rows);
            return state.SkipWithError("not every first login was answered and logged");
        }
        g_fig.firstLoginsPerSec = ok / secs;
        state.counters["first_logins_per_s"] = g_fig.firstLoginsPerSec;
    }
}
BENCHMARK(BM_FirstLogins)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void PrintFigures() {
    std::printf("\nmsgload: %d logins over %d connections: %.0f logins/s\n", kDevices, kConnections,
                g_fig.loginsPerSec);
    std::printf(
        "msgload: %d events (half device-state, half analytics): %.0f events/s, "
        "%lld rows written (%.0f rows/s)\n",
        g_fig.events, g_fig.eventsPerSec, g_fig.rows, g_fig.rowsPerSec);
    std::printf("msgload: single-row inserts over one persistent connection: %.0f rows/s\n",
                g_fig.insertsPerSec);
    if (g_fig.insertsPerSec > 0)
        std::printf("msgload: event rows/s against that ceiling: %.2f\n",
                    g_fig.rowsPerSec / g_fig.insertsPerSec);
    std::printf(
        "msgload: %d first logins of off-line devices (status update and run-log row "
        "each): %.0f logins/s\n",
        kDevices, g_fig.firstLoginsPerSec);
    std::fflush(stdout);  // before the database script prints its own lines
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "msgload: build the cmssvr target first\n");
        return 1;
    }
    if (!g_db.Start()) return 1;
    std::printf("msgload: populating %d devices with one channel each...\n", kDevices);
    std::fflush(stdout);
    bool ok = Populate();
    if (ok) {
        benchdb::Server server(kDbName, g_db.port());
        g_server = &server;
        ok = server.Start();
        if (ok) {
            benchmark::RunSpecifiedBenchmarks();
            PrintFigures();
        }
        g_links.clear();
        server.Stop();
        g_server = nullptr;
    }
    g_db.Stop();
    return ok ? 0 : 1;
}
