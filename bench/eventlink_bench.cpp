// Events over analytics event links: the real cmssvr in local mode links 50 simulated
// analytics servers (tests/support/eventpeer.*, each on its own loopback address), which
// send analytics alarms addressed by node id as fast as the links take them; the figure is
// rows written per second into the log table. Beside it, on the same database, the rate of
// the same insert over one persistent connection: the ceiling.
//
// Starts its own throwaway MariaDB (see benchdb.h). Loopback only, every wait bounded.
#include <benchmark/benchmark.h>
#include <mysql.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchdb.h"
#include "benchsvr.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "mysql/dbrecords.h"
#include "support/eventpeer.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLinks = 50;
constexpr int kEventsPerLink = 200;
constexpr int kCeilingInserts = 5000;
constexpr const char* kDbName = "cmseventlink";

benchdb::Database g_db("eventlink");
std::vector<std::unique_ptr<cmstest::EventPeer>> g_peers;
double g_eventsPerSec = 0;
double g_ceilingPerSec = 0;

double Since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

long long Count(MYSQL* c, const char* table) {
    const std::string sql = std::string("select count(*) from ") + table;
    if (mysql_real_query(c, sql.data(), sql.size()) != 0) return -1;
    std::unique_ptr<MYSQL_RES, void (*)(MYSQL_RES*)> res(mysql_store_result(c), mysql_free_result);
    MYSQL_ROW row = res ? mysql_fetch_row(res.get()) : nullptr;
    return row && row[0] ? std::atoll(row[0]) : -1;
}

// Analytics servers 1..50, each at 127.0.0.(10 + i) on its peer's port, and channel 300 that
// their alarms name.
std::string ServerRow(int i) {
    return "(" + std::to_string(i + 1) + ",'intv" + std::to_string(i) + "',3,'127.0.0." +
           std::to_string(10 + i) + "'," + std::to_string(g_peers[i]->port()) + ",'EL" +
           std::to_string(i) + "',0)";
}

bool Populate() {
    benchdb::Mysql c = g_db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), kDbName) &&
           benchdb::Run(c.get(), "insert into region(id,name,parentid) values (1,'root',0)") &&
           benchdb::Run(c.get(), "insert into devicechan(id) values (300)") &&
           benchdb::InsertRows(c.get(),
                               "insert into serverinfo(id,name,svrtype,ip,port,sn,status) values ",
                               kLinks, ServerRow);
}

// An analytics alarm of channel 300, addressed by node id.
std::string Alarm() {
    _msg_alarm_comm r{};
    r.unTime = gettime(2024, 3, 5, 7, 4, 9);
    r.nEventType = 0x03000005;
    r.nNodeID = 300;
    r.nNodeType = DEVCHAN_NODE;
    return std::string(reinterpret_cast<const char*>(&r), sizeof r);
}

void BM_EventLinks(benchmark::State& state) {
    benchdb::Server server(kDbName, g_db.port());
    server.localMode = 1;
    if (!server.Start()) return state.SkipWithError("server did not start");
    for (const auto& peer : g_peers)
        if (!peer->WaitLinks(1, 20000)) return state.SkipWithError("a link was not opened");
    benchdb::Mysql db = g_db.Connect(kDbName);
    if (!db) return state.SkipWithError("no database");
    const std::string alarm = Alarm();
    const long long total = static_cast<long long>(kLinks) * kEventsPerLink;
    for (auto _ : state) {
        auto start = Clock::now();
        std::vector<std::thread> senders;
        for (const auto& peer : g_peers)
            senders.emplace_back([&peer, &alarm] {
                for (int k = 0; k < kEventsPerLink; ++k) peer->Send(2, alarm);
            });
        for (std::thread& t : senders) t.join();
        long long rows = 0;
        while ((rows = Count(db.get(), "intveventlog2")) < total && Since(start) < 120)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const double secs = Since(start);
        state.SetIterationTime(secs);
        if (rows < total) return state.SkipWithError("not every event was written in time");
        g_eventsPerSec = rows / secs;
        state.counters["events_per_s"] = g_eventsPerSec;
    }
}
BENCHMARK(BM_EventLinks)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The statement the server writes for such an alarm, over one connection kept open.
void BM_InsertCeiling(benchmark::State& state) {
    benchdb::Mysql db = g_db.Connect(kDbName);
    if (!db) return state.SkipWithError("no database");
    for (auto _ : state) {
        auto start = Clock::now();
        for (int i = 0; i < kCeilingInserts; ++i)
            if (!benchdb::Run(db.get(),
                              "insert into intveventlog(nodeid,nodetype,eventtype,param,descript,"
                              "logtime,loctime) values (300,3,5,0,\"ceiling\",\"2024-3-5 7:4:9\","
                              "\"2024-3-5 7:4:9\")"))
                return state.SkipWithError("insert failed");
        const double secs = Since(start);
        state.SetIterationTime(secs);
        g_ceilingPerSec = kCeilingInserts / secs;
        state.counters["inserts_per_s"] = g_ceilingPerSec;
    }
}
BENCHMARK(BM_InsertCeiling)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "eventlink: build the cmssvr target first\n");
        return 1;
    }
    for (int i = 0; i < kLinks; ++i)
        g_peers.push_back(
            std::make_unique<cmstest::EventPeer>(("127.0.0." + std::to_string(10 + i)).c_str()));
    if (!g_db.Start()) return 1;
    const bool ok = Populate();
    if (ok) {
        benchmark::RunSpecifiedBenchmarks();
        std::printf("\neventlink: %d events over %d links: %.0f rows/s\n", kLinks * kEventsPerLink,
                    kLinks, g_eventsPerSec);
        std::printf("eventlink: single-row inserts over one persistent connection: %.0f rows/s\n",
                    g_ceilingPerSec);
        if (g_ceilingPerSec > 0)
            std::printf("eventlink: against that ceiling: %.2f\n",
                        g_eventsPerSec / g_ceilingPerSec);
        std::fflush(stdout);
    }
    g_peers.clear();
    g_db.Stop();
    return ok ? 0 : 1;
}
