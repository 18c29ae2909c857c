// Login flood: 3,000 connections to the real cmssvr each log in with a serial the database
// does not know (every one costs the server three database round trips), and while they
// are being worked off a known device logs in on a fresh connection. The figure is how long
// that device waits for its answer; beside it, how long the whole flood took.
//
// Starts its own throwaway MariaDB (see benchdb.h) unless CMS_BENCH_DB_PORT names a
// running one. Everything runs on loopback and every wait is bounded.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
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
using cmsclient::CmsClient;
using cmsclient::Reply;

constexpr int kDevices = 10000;  // the catalogue the known device sits in
constexpr int kFlood = 3000;
constexpr int kThreads = 8;  // client threads sending the flood
constexpr int kSamples = 5;  // known-device logins during one flood
constexpr int kReplyTimeoutMs = 120000;
constexpr const char* kDbName = "cmsloginflood";
constexpr const char* kKnown = "KNOWN00001";

benchdb::Database g_db("loginflood");
benchdb::Server* g_server = nullptr;

struct Figures {
    std::vector<double> knownMs;  // every sample of every run
    double floodSecs = 0;
    bool floodStillRunning = true;  // every sample was taken before the flood was answered
} g_fig;

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

std::string DeviceRow(int i) {
    const std::string serial = i == 0 ? kKnown : "FL" + std::to_string(10000000 + i);
    return "(" + std::to_string(i + 1) + ",'dev" + std::to_string(i) + "','" + serial + "',1)";
}

bool Populate() {
    benchdb::Mysql c = g_db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), kDbName) &&
           benchdb::Run(c.get(), "insert into region(id,name,parentid) values (1,'root',0)") &&
           benchdb::InsertRows(c.get(), "insert into device(id,name,sn,regionid) values ", kDevices,
                               DeviceRow);
}

// Runs `work(first, last)` over slices of [0, kFlood) on kThreads threads.
template <class Work>
void OverFlood(Work work) {
    std::vector<std::thread> threads;
    const int per = kFlood / kThreads + 1;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { work(t * per, std::min(kFlood, (t + 1) * per)); });
    for (std::thread& th : threads) th.join();
}

// One login of the known device on a fresh connection: milliseconds to its answer, or -1.
double KnownLoginMs() {
    auto start = Clock::now();
    CmsClient c;
    Reply r;
    const cmsclient::Request login = cmsclient::Login(kKnown);
    if (!c.Connect("127.0.0.1", g_server->port())) return -1;
    if (!c.Request(login.head, login.payload, r, kReplyTimeoutMs) || !r.IsState() || r.state != 0)
        return -1;
    return Ms(Clock::now() - start);
}

void BM_KnownLoginDuringFlood(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::unique_ptr<CmsClient>> flood(kFlood);
        OverFlood([&](int first, int last) {
            for (int i = first; i < last; ++i) {
                flood[i] = std::make_unique<CmsClient>();
                flood[i]->Connect("127.0.0.1", g_server->port());
            }
        });
        std::atomic<int> answered{0};
        auto start = Clock::now();
        std::thread sender([&] {
            OverFlood([&](int first, int last) {
                for (int i = first; i < last; ++i) {
                    const std::string serial = "UNKNOWN" + std::to_string(i);
                    const cmsclient::Request r = cmsclient::Login(serial.c_str());
                    flood[i]->Send(r.head, r.payload);
                }
                Reply reply;
                for (int i = first; i < last; ++i)
                    answered += flood[i]->ReadReply(reply, kReplyTimeoutMs) ==
                                    CmsClient::ReadResult::kReply &&
                                reply.IsState() && reply.state == 1;
            });
        });
        double worst = 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the flood is queued
        for (int s = 0; s < kSamples; ++s) {
            double ms = KnownLoginMs();
            if (ms < 0) {
                sender.join();
                return state.SkipWithError("the known device was not answered with state 0");
            }
            g_fig.floodStillRunning = g_fig.floodStillRunning && answered < kFlood;
            g_fig.knownMs.push_back(ms);
            worst = std::max(worst, ms);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        sender.join();
        g_fig.floodSecs = Ms(Clock::now() - start) / 1000;
        if (answered != kFlood) return state.SkipWithError("not every flood login got state 1");
        state.SetIterationTime(worst / 1000);
        state.counters["known_login_worst_ms"] = worst;
        state.counters["flood_s"] = g_fig.floodSecs;
    }
}
BENCHMARK(BM_KnownLoginDuringFlood)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void PrintFigures() {
    if (g_fig.knownMs.empty()) return;
    std::vector<double> v = g_fig.knownMs;
    std::sort(v.begin(), v.end());
    std::printf(
        "\nloginflood: known device's login during %d concurrent unknown logins: median %.1f ms, "
        "worst %.1f ms over %zu samples%s\n",
        kFlood, v[v.size() / 2], v.back(), v.size(),
        g_fig.floodStillRunning ? "" : " (some taken after the flood was answered)");
    std::printf("loginflood: the last flood took %.2f s to be answered\n", g_fig.floodSecs);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "loginflood: build the cmssvr target first\n");
        return 1;
    }
    if (!g_db.Start()) return 1;
    bool ok = Populate();
    if (ok) {
        benchdb::Server server(kDbName, g_db.port());
        g_server = &server;
        ok = server.Start();
        if (ok) {
            benchmark::RunSpecifiedBenchmarks();
            PrintFigures();
        }
        server.Stop();
        g_server = nullptr;
    }
    g_db.Stop();
    return ok ? 0 : 1;
}
