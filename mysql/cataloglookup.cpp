// Catalogue lookups (linear scans, first match wins) and region tree walks.
#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "mysql/sqldbop.h"

namespace {

template <class T, class Pred>
T* FindFirst(const std::vector<T*>& v, Pred pred) {
    for (T* p : v)
        if (p && pred(*p)) return p;
    return nullptr;
}

bool SameText(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

}  // namespace

// ---- Regions ----

_msg_region_base* GetRegionInfobyID(const std::vector<_msg_region_base*>& v, int id) {
    return FindFirst(v, [id](const _msg_region_base& r) { return r.nID == id; });
}

_msg_region_base* GetRegion(const std::vector<_msg_region_base*>& v, int id) {
    return GetRegionInfobyID(v, id);
}

_msg_region_base* GetRegionInfobyType(const std::vector<_msg_region_base*>& v, int type) {
    return FindFirst(v, [type](const _msg_region_base& r) { return r.nType == type; });
}

_msg_region_base* GetRegionInfobySerial(const std::vector<_msg_region_base*>& v,
                                        const char* code) {
    return FindFirst(v, [code](const _msg_region_base& r) { return SameText(r.szSerial, code); });
}

_msg_region_base* GetParentRegion(const _msg_region_base* region,
                                  const std::vector<_msg_region_base*>& v) {
    if (!region) return nullptr;
    return GetRegionInfobyID(v, region->nParentID);
}

_msg_region_base* GetRootRegion(const std::vector<_msg_region_base*>& v) {
    // On a cyclic table every region has a parent, so this finds none.
    return FindFirst(v, [&v](const _msg_region_base& r) { return !GetParentRegion(&r, v); });
}

// ---- Devices and channels ----

_hcrecord_Info* GetDeviceInfoByID(const std::vector<_hcrecord_Info*>& v, int id) {
    return FindFirst(v, [id](const _hcrecord_Info& d) { return d.dev.nID == id; });
}

_hcrecord_Info* GetDeviceInfoByLogin(const std::vector<_hcrecord_Info*>& v, int login) {
    if (login == -1) return nullptr;  // -1 marks "not logged in", never a handle
    return FindFirst(v, [login](const _hcrecord_Info& d) { return d.lLoginID == login; });
}

_hcrecord_Info* GetDeviceInfoByCode(const std::vector<_hcrecord_Info*>& v, const char* code) {
    // Code, then serial, on each record in turn: the first record matching either wins.
    return FindFirst(v, [code](const _hcrecord_Info& d) {
        return SameText(d.dev.szCode, code) || SameText(d.dev.szSerial, code);
    });
}

_hcrecord_Info* GetDeviceInfoBySerial(const std::vector<_hcrecord_Info*>& v,
                                      const char* serial) {
    return FindFirst(v,
                     [serial](const _hcrecord_Info& d) { return SameText(d.dev.szSerial, serial); });
}

_msg_video_record_base* GetVideoChanInfoByID(const std::vector<_msg_video_record_base*>& v,
                                             int id) {
    return FindFirst(v, [id](const _msg_video_record_base& c) { return c.nID == id; });
}

_msg_video_record_base* GetVideoChanInfoByDev(const std::vector<_msg_video_record_base*>& v,
                                              int devId, int chan, int type) {
    return FindFirst(v, [=](const _msg_video_record_base& c) {
        return c.nDeviceID == devId && c.nChan == chan && c.nType == type;
    });
}

_msg_video_record_base* GetVideoChanInfoByCode(const std::vector<_msg_video_record_base*>& v,
                                               const char* code) {
    return FindFirst(v, [code](const _msg_video_record_base& c) {
        return SameText(c.szCode, code) || SameText(c.szSerial, code);
    });
}

_msg_video_record_base* GetVideoChanInfoBySerial(const std::vector<_msg_video_record_base*>& v,
                                                 const char* serial) {
    return FindFirst(
        v, [serial](const _msg_video_record_base& c) { return SameText(c.szSerial, serial); });
}

// ---- Servers ----

_sysserver_info* GetSystemSvrByRegion(int regionId, int serverType,
                                      const std::vector<_sysserver_info*>& v) {
    return FindFirst(v, [=](const _sysserver_info& s) {
        return s.svr.nRegionID == regionId && s.svr.nServerType == serverType;
    });
}

_sysserver_info* GetSystemSvrByID(int id, const std::vector<_sysserver_info*>& v) {
    return FindFirst(v, [id](const _sysserver_info& s) { return s.svr.nID == id; });
}

_sysserver_info* GetSystemSvrByLogin(int login, const std::vector<_sysserver_info*>& v) {
    if (login == -1) return nullptr;
    return FindFirst(v, [login](const _sysserver_info& s) { return s.lLoginID == login; });
}

_sysserver_info* GetSystemSvrBySerial(const char* serial, const std::vector<_sysserver_info*>& v) {
    return FindFirst(
        v, [serial](const _sysserver_info& s) { return SameText(s.svr.szSerial, serial); });
}

// ---- Domains and registrations ----

_domain_info* GetDomainInfoByID(const std::vector<_domain_info*>& v, int id) {
    return FindFirst(v, [id](const _domain_info& d) { return d.svr.nID == id; });
}

_domain_info* GetDomainInfoByLogin(const std::vector<_domain_info*>& v, int login) {
    if (login == -1) return nullptr;
    return FindFirst(v, [login](const _domain_info& d) { return d.lLoginID == login; });
}

_domain_info* GetDomainInfoByCode(const std::vector<_domain_info*>& v, const char* code) {
    return FindFirst(v, [code](const _domain_info& d) { return SameText(d.svr.szCode, code); });
}

_domain_info* GetDomainInfoBySerial(const std::vector<_domain_info*>& v, const char* serial) {
    return FindFirst(v,
                     [serial](const _domain_info& d) { return SameText(d.svr.szSerial, serial); });
}

_dev_register* GetMediaRegistInfoBySerial(const std::vector<_dev_register*>& v,
                                          const char* serial) {
    return FindFirst(v, [serial](const _dev_register& r) { return SameText(r.serial, serial); });
}

// ---- Groups and server channels ----

_msg_devgroup_base* GetGroup(int id, const std::vector<_msg_devgroup_base*>& v) {
    return FindFirst(v, [id](const _msg_devgroup_base& g) { return g.nID == id; });
}

_msg_devgroup_base* GetGroupFromCode(const char* code, const std::vector<_msg_devgroup_base*>& v) {
    if (!code || !*code) return nullptr;
    return FindFirst(v, [code](const _msg_devgroup_base& g) { return SameText(g.szCode, code); });
}

_msg_serverchan_v2* GetChanInfoByServer(const std::vector<_msg_serverchan_v2*>& v, int serverId,
                                        int index, int /*unused*/) {
    return FindFirst(v, [=](const _msg_serverchan_v2& c) {
        return c.nServerID == serverId && c.nIndex == index;
    });
}

// ---- Region tree walks ----
// The region table is edited by hand, so it may hold cycles: every walk remembers the
// records it has been through and never visits one twice. On a proper tree nothing is
// ever skipped, so the results are the plain walks.

namespace {

using Visited = std::unordered_set<const _msg_region_base*>;

void CollectChildren(const _msg_region_base* region, const std::vector<_msg_region_base*>& all,
                     std::vector<_msg_region_base*>& out, Visited& seen) {
    for (_msg_region_base* child : all) {
        if (!child || child->nParentID != region->nID) continue;
        if (!seen.insert(child).second) continue;
        out.push_back(child);
        CollectChildren(child, all, out, seen);  // depth first, pre-order
    }
}

bool HoldsId(const std::vector<_msg_region_base*>& v, int id) {
    return std::any_of(v.begin(), v.end(), [id](const _msg_region_base* r) {
        return r && r->nID == id;
    });
}

}  // namespace

int GetRegions(const _msg_region_base* region, const std::vector<_msg_region_base*>& all,
               std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    Visited seen{region};
    // The region's own record in the vector is never its own descendant.
    if (_msg_region_base* self = GetRegionInfobyID(all, region->nID)) seen.insert(self);
    CollectChildren(region, all, out, seen);
    return 1;
}

int GetParengRegionsEx(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                       std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    // A chain longer than the vector can only be a cycle.
    size_t steps = all.size() + 1;
    for (_msg_region_base* r = region; r && steps > 0; --steps) {
        if (!HoldsId(out, r->nID)) out.push_back(r);
        r = GetParentRegion(r, all);
    }
    return 1;
}

int GetParengRegions(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                     std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    // Ancestors go to the front, so `out` reads from the root down.
    Visited seen{region};
    for (_msg_region_base* p = GetParentRegion(region, all); p && seen.insert(p).second;
         p = GetParentRegion(p, all))
        out.insert(out.begin(), p);
    return 1;
}
