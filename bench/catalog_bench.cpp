// Catalogue load and lookup figures: loads 100,000 devices and 400,000 channels in 1,000
// regions with LoadData and times 100,000 lookups each by id, serial and login handle;
// then the whole-catalogue node list (every node has a code), built in process and
// fetched by a client over the message port of the real server.
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
#include "benchsvr.h"
#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/nodecatalog.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"

namespace {

constexpr int kDevices = 100000;
constexpr int kChansPerDevice = 4;
constexpr int kLookups = 100000;
constexpr int kRegions = 1000;
const char* const kUpperDomain = "UPPER";  // pushed the whole catalogue (mode 3)

CCMSSvrDlg* g_dlg = nullptr;

long PeakRssKb() {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

// Region 1 is the root; the others form a tree ten wide.
std::string RegionRow(int i) {
    return "(" + std::to_string(i + 1) + ",'region" + std::to_string(i) + "'," +
           std::to_string(i == 0 ? 0 : (i - 1) / 10 + 1) + ",'" + std::to_string(11 + i) + "')";
}

// Cameras (hardware type 1) spread over the regions.
std::string DeviceRow(int i) {
    return "(" + std::to_string(i + 1) + ",'dev" + std::to_string(i) + "','SN" +
           std::to_string(100000000 + i) + "','C" + std::to_string(i) + "'," +
           std::to_string(i % kRegions + 1) + ",3,8000,1)";
}

std::string ChannelRow(int i) {
    return "(" + std::to_string(i + 1) + ",'ch" + std::to_string(i) + "'," +
           std::to_string(i % kChansPerDevice + 1) + "," + std::to_string(i / kChansPerDevice + 1) +
           ",'CH" + std::to_string(i) + "','K" + std::to_string(i) + "',1)";
}

bool Populate(const benchdb::Database& db) {
    benchdb::Mysql c = db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), "cmsbench") &&
           benchdb::Run(c.get(), std::string("insert into domaininfo(id,s_code,pushmode) values "
                                             "(1,'") +
                                     kUpperDomain + "',3)") &&
           benchdb::InsertRows(c.get(), "insert into region(id,name,parentid,scode) values ",
                               kRegions, RegionRow) &&
           benchdb::InsertRows(
               c.get(),
               "insert into device(id,name,sn,scode,regionid,ftype,port,hardwaretype) values ",
               kDevices, DeviceRow) &&
           benchdb::InsertRows(
               c.get(), "insert into devicechan(id,name,chan,devid,sn,scode,hardwaretype) values ",
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

// ---- Whole-catalogue node list ----

// Built in process from the loaded catalogue, packed as it goes on the wire.
void BM_NodeListBuild(benchmark::State& state) {
    for (auto _ : state) {
        char* buf = nullptr;
        int len = 0;
        if (!GetServerNodeFromRegion(kUpperDomain, 0, buf, len)) state.SkipWithError("no list");
        state.counters["records"] = len / static_cast<double>(NODE_INFO_SIZE);
        state.counters["MiB"] = len / 1048576.0;
        delete[] buf;
    }
}
BENCHMARK(BM_NodeListBuild)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

// From the request to the last byte of the reply, as an upper domain fetches its list
// from the real server on loopback; the server loads the same catalogue first.
void BM_NodeListOverMessagePort(benchmark::State& state, int dbPort) {
    benchdb::Server server("cmsbench", dbPort);
    cmsclient::CmsClient client;
    if (!server.Start() || !client.Connect("127.0.0.1", server.port())) {
        state.SkipWithError("server did not start");
        return;
    }
    const cmsclient::Request request = cmsclient::GetNodeList(DATA_GB_SHARE_NODE, kUpperDomain);
    for (auto _ : state) {
        cmsclient::Reply reply;
        if (!client.Request(request.head, request.payload, reply, 60000) || reply.IsState()) {
            state.SkipWithError("no list");
            return;
        }
        state.counters["records"] = reply.data.size() / static_cast<double>(NODE_INFO_SIZE);
    }
}

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
        benchmark::RegisterBenchmark("BM_NodeListOverMessagePort", BM_NodeListOverMessagePort,
                                     db.port())
            ->Iterations(3)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        benchmark::RunSpecifiedBenchmarks();
        dlg.ReleaseData();
    }
    db.Stop();
    return ok ? 0 : 1;
}
