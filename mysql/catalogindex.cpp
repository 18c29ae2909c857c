// The indexes of the global catalogue vectors, their upkeep and checking mode.
#include "mysql/catalogindex.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "comm/sysutil.h"

namespace catidx {
namespace {

uint64_t LoginKey(int login) { return login == -1 ? kUnfiled : IntKey(login); }

Table<_msg_region_base>& RegionTable() {
    static Table<_msg_region_base> t(
        0, m_arrRegionInfos,
        {[](const _msg_region_base& r) { return IntKey(r.nID); },
         [](const _msg_region_base& r) { return TextKey(r.szSerial); }});
    return t;
}

Table<_hcrecord_Info>& DeviceTable() {
    static Table<_hcrecord_Info> t(
        1, m_arrRecordInfos,
        {[](const _hcrecord_Info& d) { return IntKey(d.dev.nID); },
         [](const _hcrecord_Info& d) { return LoginKey(d.lLoginID); },
         [](const _hcrecord_Info& d) { return TextKey(d.dev.szCode); },
         [](const _hcrecord_Info& d) { return TextKey(d.dev.szSerial); }});
    return t;
}

Table<_msg_video_record_base>& ChanTable() {
    using C = _msg_video_record_base;
    static Table<C> t(
        2, m_arrVideoChanInfos,
        {[](const C& c) { return IntKey(c.nID); }, [](const C& c) { return TextKey(c.szCode); },
         [](const C& c) { return TextKey(c.szSerial); },
         [](const C& c) { return ChanKey(c.nDeviceID, c.nChan, c.nType); }});
    return t;
}

Table<_sysserver_info>& ServerTable() {
    static Table<_sysserver_info> t(
        3, m_arrServerFromDB,
        {[](const _sysserver_info& s) { return IntKey(s.svr.nID); },
         [](const _sysserver_info& s) { return LoginKey(s.lLoginID); },
         [](const _sysserver_info& s) { return TextKey(s.svr.szSerial); }});
    return t;
}

Table<_domain_info>& DomainTable() {
    static Table<_domain_info> t(4, m_arrDomainFromDB,
                                 {[](const _domain_info& d) { return IntKey(d.svr.nID); },
                                  [](const _domain_info& d) { return LoginKey(d.lLoginID); },
                                  [](const _domain_info& d) { return TextKey(d.svr.szCode); },
                                  [](const _domain_info& d) { return TextKey(d.svr.szSerial); }});
    return t;
}

bool CheckingFromEnvironment() {
    const char* v = std::getenv("CMS_CATALOG_CHECK");
    if (v) return *v == '1';
#ifdef NDEBUG
    return false;
#else
    return true;
#endif
}

std::atomic<bool> g_checking{CheckingFromEnvironment()};

struct Touched {
    int table;
    uint32_t pos;
    const void* record;
};
thread_local bool t_writing = false;
thread_local std::vector<Touched> t_touched;

template <class T>
void SyncTable(Table<T>& t, const char* name) {
    t.Sync();
    if (Checking() && !t.Verify()) {
        std::fprintf(stderr, "catalogue index of %s out of step with its records\n", name);
        std::abort();
    }
}

}  // namespace

const Table<_msg_region_base>& Regions() { return RegionTable(); }
const Table<_hcrecord_Info>& Devices() { return DeviceTable(); }
const Table<_msg_video_record_base>& Chans() { return ChanTable(); }
const Table<_sysserver_info>& Servers() { return ServerTable(); }
const Table<_domain_info>& Domains() { return DomainTable(); }

bool Writing() { return t_writing; }

void Touch(int table, uint32_t p, const void* r) { t_touched.push_back({table, p, r}); }

void FlushTouched() {
    for (const Touched& t : t_touched) {
        switch (t.table) {
            case 0:
                RegionTable().RefileAt(t.pos, static_cast<const _msg_region_base*>(t.record));
                break;
            case 1:
                DeviceTable().RefileAt(t.pos, static_cast<const _hcrecord_Info*>(t.record));
                break;
            case 2:
                ChanTable().RefileAt(t.pos, static_cast<const _msg_video_record_base*>(t.record));
                break;
            case 3:
                ServerTable().RefileAt(t.pos, static_cast<const _sysserver_info*>(t.record));
                break;
            case 4:
                DomainTable().RefileAt(t.pos, static_cast<const _domain_info*>(t.record));
                break;
        }
    }
    t_touched.clear();
}

bool Checking() { return g_checking.load(std::memory_order_relaxed); }

void Mismatch(const char* lookup) {
    std::fprintf(stderr, "catalogue index answer of %s differs from the scan\n", lookup);
    std::abort();
}

}  // namespace catidx

void CatalogIndexSync() {
    using namespace catidx;
    FlushTouched();
    SyncTable(RegionTable(), "regions");
    SyncTable(DeviceTable(), "devices");
    SyncTable(ChanTable(), "channels");
    SyncTable(ServerTable(), "servers");
    SyncTable(DomainTable(), "domains");
}

void CatalogWriterEnter() { catidx::t_writing = true; }
void CatalogWriterLeave() {
    catidx::t_touched.clear();
    catidx::t_writing = false;
}

void CatalogSetLogin(_hcrecord_Info& r, int login) {
    r.lLoginID = login;
    catidx::DeviceTable().Refile(&r);
}
void CatalogSetLogin(_sysserver_info& r, int login) {
    r.lLoginID = login;
    catidx::ServerTable().Refile(&r);
}
void CatalogSetLogin(_domain_info& r, int login) {
    r.lLoginID = login;
    catidx::DomainTable().Refile(&r);
}

void CatalogIndexRefile(const _msg_region_base& r) { catidx::RegionTable().Refile(&r); }
void CatalogIndexRefile(const _hcrecord_Info& r) { catidx::DeviceTable().Refile(&r); }
void CatalogIndexRefile(const _msg_video_record_base& r) { catidx::ChanTable().Refile(&r); }
void CatalogIndexRefile(const _sysserver_info& r) { catidx::ServerTable().Refile(&r); }
void CatalogIndexRefile(const _domain_info& r) { catidx::DomainTable().Refile(&r); }

namespace {

template <class T>
int ReleaseAndForget(std::vector<T*>& v, catidx::Table<T>& t) {
    if (t.Over(v)) t.Forget();
    return ReleaseArray<T>(v);
}

}  // namespace

int ReleaseArray(std::vector<_msg_region_base*>& v) {
    return ReleaseAndForget(v, catidx::RegionTable());
}
int ReleaseArray(std::vector<_hcrecord_Info*>& v) {
    return ReleaseAndForget(v, catidx::DeviceTable());
}
int ReleaseArray(std::vector<_msg_video_record_base*>& v) {
    return ReleaseAndForget(v, catidx::ChanTable());
}
int ReleaseArray(std::vector<_sysserver_info*>& v) {
    return ReleaseAndForget(v, catidx::ServerTable());
}
int ReleaseArray(std::vector<_domain_info*>& v) {
    return ReleaseAndForget(v, catidx::DomainTable());
}

void CatalogIndexSetChecking(bool on) { catidx::g_checking = on; }
