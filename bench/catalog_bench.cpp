// Catalogue load and lookup figures: loads 100,000 devices and 400,000 channels with
// LoadData and times 100,000 lookups each by id, serial and login handle.
// Starts its own throwaway MariaDB (see benchdb.h) unless CMS_BENCH_DB_PORT names one.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include "benchdb.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"

namespace {

constexpr int kDevices = 100000;
constexpr int kChansPerDevice = 4;
constexpr int kLookups = 100000;

CCMSSvrDlg* g_dlg = nullptr;

long PeakRssKb() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

std::string DeviceRow(int i) {
    return "(" + std::to_string(i + 1) + ",'dev" + std::to_string(i) + "','SN" +
           std::to_string(100000000 + i) + "','C" + std::to_string(i) + "',1,3,8000)";
}

std::string ChannelRow(int i) {
    return "(" + std::to_string(i + 1) + ",'ch" + std::to_string(i) + "'," +
           std::to_string(i % kChansPerDevice + 1) + "," + std::to_string(i / kChansPerDevice + 1) +
           ",'CH" + std::to_string(i) + "',1)";
}

bool Populate(const benchdb::Database& db) {
    benchdb::Mysql c = db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), "cmsbench") &&
           benchdb::Run(c.get(),
                        "insert into region(id,name,parentid,scode) values (1,'root',0,'11')") &&
           benchdb::InsertRows(c.get(),
                               "insert into device(id,name,sn,scode,regionid,ftype,port) values ",
                               kDevices, DeviceRow) &&
           benchdb::InsertRows(c.get(),
                               "insert into devicechan(id,name,chan,devid,sn,hardwaretype) values ",
                               kDevices * kChansPerDevice, ChannelRow);
}

void GiveLoginHandles();

void BM_LoadData(benchmark::State& state) {
    for (auto _ : state) {
        g_dlg->ReleaseData();
        long before = PeakRssKb();
        if (!g_dlg->LoadData()) state.SkipWithError("LoadData failed");
        state.counters["devices"] = static_cast<double>(m_arrRecordInfos.size());
        state.counters["channels"] = static_cast<double>(m_arrVideoChanInfos.size());
        state.counters["peak_rss_MiB"] = PeakRssKb() / 1024.0;
        state.counters["rss_growth_MiB"] = (PeakRssKb() - before) / 1024.0;
    }
    GiveLoginHandles();
}
BENCHMARK(BM_LoadData)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Lookups spread evenly over the catalogue, so a linear scan pays its average cost.
template <class Fn>
void Lookups(benchmark::State& state, Fn fn) {
    std::mt19937 rng(42);
    std::uniform_int_distribution<int> pick(0, kDevices - 1);
    int64_t found = 0;
    CatalogReadLock lock(csCatalog);
    for (auto _ : state) found += fn(pick(rng)) != nullptr;
    state.counters["found"] = static_cast<double>(found);
    state.SetItemsProcessed(state.iterations());
}

void BM_LookupById(benchmark::State& state) {
    Lookups(state, [](int i) { return GetDeviceInfoByID(m_arrRecordInfos, i + 1); });
}
void BM_LookupBySerial(benchmark::State& state) {
    Lookups(state, [](int i) {
        char sn[32];
        std::snprintf(sn, sizeof(sn), "SN%d", 100000000 + i);
        return GetDeviceInfoBySerial(m_arrRecordInfos, sn);
    });
}
void BM_LookupByLogin(benchmark::State& state) {
    Lookups(state, [](int i) { return GetDeviceInfoByLogin(m_arrRecordInfos, i + 1); });
}
void BM_LookupByCode(benchmark::State& state) {
    Lookups(state, [](int i) {
        char code[32];
        std::snprintf(code, sizeof(code), "CH%d",
                      i * kChansPerDevice);  // a serial: code or serial matches
        return GetVideoChanInfoByCode(m_arrVideoChanInfos, code);
    });
}
BENCHMARK(BM_LookupById)->Iterations(kLookups)->UseRealTime();
BENCHMARK(BM_LookupByCode)->Iterations(kLookups)->UseRealTime();
BENCHMARK(BM_LookupBySerial)->Iterations(kLookups)->UseRealTime();
BENCHMARK(BM_LookupByLogin)->Iterations(kLookups)->UseRealTime();

void GiveLoginHandles() {
    CatalogWriteLock lock(csCatalog);
    int n = 0;
    for (_hcrecord_Info* d : m_arrRecordInfos) CatalogSetLogin(*d, ++n);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchdb::Database db("catalog");
    if (!db.Start()) return 1;
    std::printf("bench: populating %d devices and %d channels...\n", kDevices,
                kDevices * kChansPerDevice);
    std::fflush(stdout);
    bool ok = Populate(db);
    if (ok) {
        std::snprintf(m_cfgCms.szDbAddr, sizeof(m_cfgCms.szDbAddr), "127.0.0.1");
        std::snprintf(m_cfgCms.szDbName, sizeof(m_cfgCms.szDbName), "cmsbench");
        std::snprintf(m_cfgCms.szDbUser, sizeof(m_cfgCms.szDbUser), "cms");
        std::snprintf(m_cfgCms.szDbPass, sizeof(m_cfgCms.szDbPass), "cms");
        m_cfgCms.szDbPort = db.port();
        CCMSSvrDlg dlg;
        g_dlg = &dlg;
        benchmark::RunSpecifiedBenchmarks();
        dlg.ReleaseData();
    }
    db.Stop();
    return ok ? 0 : 1;
}
