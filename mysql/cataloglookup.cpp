// Catalogue lookups (first match in vector order wins) and region tree walks. Lookups on the
// global vectors go through their indexes (mysql/catalogindex.h); others scan.
#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "mysql/catalogindex.h"
#include "mysql/sqldbop.h"

namespace {

template <class T, class Pred>
T* FindFirst(const std::vector<T*>& v, Pred pred) {
    for (T* p : v)
        if (p && pred(*p)) return p;
    return nullptr;
}

bool SameText(const char* a, const char* b) { return a && b && std::strcmp(a, b) == 0; }

template <class T, class Pred>
uint32_t ScanPos(const std::vector<T*>& v, Pred pred) {
    for (size_t p = 0; p < v.size(); ++p)
        if (v[p] && pred(*v[p])) return static_cast<uint32_t>(p);
    return catidx::kEnd;
}

// The record at `p`; a writer's find on a global vector is noted for re-filing.
template <class T>
T* Answer(const std::vector<T*>& v, const catidx::Table<T>& t, uint32_t p) {
    if (p == catidx::kEnd) return nullptr;
    if (catidx::Writing() && t.Over(v)) catidx::Touch(t.No(), p, v[p]);
    return v[p];
}

// The index answers only for the global vector it was built over, and only while in step;
// a key it does not file (empty text) scans. In checking mode the answer is compared.
template <class T, class Pred>
T* Lookup(const std::vector<T*>& v, const catidx::Table<T>& t, size_t key, uint64_t k, Pred pred,
          const char* name) {
    if (catidx::Writing()) catidx::FlushTouched();
    if (k == catidx::kUnfiled || !t.InStep(v)) return Answer(v, t, ScanPos(v, pred));
    uint32_t p = t.Key(key).First(v, k, pred);
    if (catidx::Checking() && p != ScanPos(v, pred)) catidx::Mismatch(name);
    return Answer(v, t, p);
}

// The first record matching through either of two keys (code or serial): the earlier of
// the two chains' first matches.
template <class T, class Pred>
T* LookupEither(const std::vector<T*>& v, const catidx::Table<T>& t, size_t key1, size_t key2,
                uint64_t k, Pred pred, const char* name) {
    if (catidx::Writing()) catidx::FlushTouched();
    if (k == catidx::kUnfiled || !t.InStep(v)) return Answer(v, t, ScanPos(v, pred));
    uint32_t p = std::min(t.Key(key1).First(v, k, pred), t.Key(key2).First(v, k, pred));
    if (catidx::Checking() && p != ScanPos(v, pred)) catidx::Mismatch(name);
    return Answer(v, t, p);
}

}  // namespace

// ---- Regions ----

_msg_region_base* GetRegionInfobyID(const std::vector<_msg_region_base*>& v, int id) {
    return Lookup(
        v, catidx::Regions(), catidx::kRegionId, catidx::IntKey(id),
        [id](const _msg_region_base& r) { return r.nID == id; }, "region id");
}

_msg_region_base* GetRegion(const std::vector<_msg_region_base*>& v, int id) {
    return GetRegionInfobyID(v, id);
}

_msg_region_base* GetRegionInfobyType(const std::vector<_msg_region_base*>& v, int type) {
    return FindFirst(v, [type](const _msg_region_base& r) { return r.nType == type; });
}

_msg_region_base* GetRegionInfobySerial(const std::vector<_msg_region_base*>& v, const char* code) {
    return Lookup(
        v, catidx::Regions(), catidx::kRegionSerial, catidx::QueryKey(code),
        [code](const _msg_region_base& r) { return SameText(r.szSerial, code); }, "region serial");
}

_msg_region_base* GetParentRegion(const _msg_region_base* region,
                                  const std::vector<_msg_region_base*>& v) {
    if (!region) return nullptr;
    return GetRegionInfobyID(v, region->nParentID);
}

_msg_region_base* GetRootRegion(const std::vector<_msg_region_base*>& v) {
    // On a cyclic table every region has a parent, so this finds none.
    std::unordered_set<int> ids;
    for (const _msg_region_base* r : v)
        if (r) ids.insert(r->nID);
    return FindFirst(v, [&ids](const _msg_region_base& r) { return !ids.count(r.nParentID); });
}

// ---- Devices and channels ----

_hcrecord_Info* GetDeviceInfoByID(const std::vector<_hcrecord_Info*>& v, int id) {
    return Lookup(
        v, catidx::Devices(), catidx::kDeviceId, catidx::IntKey(id),
        [id](const _hcrecord_Info& d) { return d.dev.nID == id; }, "device id");
}

_hcrecord_Info* GetDeviceInfoByLogin(const std::vector<_hcrecord_Info*>& v, int login) {
    if (login == -1) return nullptr;  // -1 marks "not logged in", never a handle
    return Lookup(
        v, catidx::Devices(), catidx::kDeviceLogin, catidx::IntKey(login),
        [login](const _hcrecord_Info& d) { return d.lLoginID == login; }, "device login");
}

_hcrecord_Info* GetDeviceInfoByCode(const std::vector<_hcrecord_Info*>& v, const char* code) {
    // Code, then serial, on each record in turn: the first record matching either wins.
    return LookupEither(
        v, catidx::Devices(), catidx::kDeviceCode, catidx::kDeviceSerial, catidx::QueryKey(code),
        [code](const _hcrecord_Info& d) {
            return SameText(d.dev.szCode, code) || SameText(d.dev.szSerial, code);
        },
        "device code");
}

_hcrecord_Info* GetDeviceInfoBySerial(const std::vector<_hcrecord_Info*>& v, const char* serial) {
    return Lookup(
        v, catidx::Devices(), catidx::kDeviceSerial, catidx::QueryKey(serial),
        [serial](const _hcrecord_Info& d) { return SameText(d.dev.szSerial, serial); },
        "device serial");
}

_msg_video_record_base* GetVideoChanInfoByID(const std::vector<_msg_video_record_base*>& v,
                                             int id) {
    return Lookup(
        v, catidx::Chans(), catidx::kChanId, catidx::IntKey(id),
        [id](const _msg_video_record_base& c) { return c.nID == id; }, "channel id");
}

_msg_video_record_base* GetVideoChanInfoByDev(const std::vector<_msg_video_record_base*>& v,
                                              int devId, int chan, int type) {
    return Lookup(
        v, catidx::Chans(), catidx::kChanDev, catidx::ChanKey(devId, chan, type),
        [=](const _msg_video_record_base& c) {
            return c.nDeviceID == devId && c.nChan == chan && c.nType == type;
        },
        "channel of device");
}

_msg_video_record_base* GetVideoChanInfoByCode(const std::vector<_msg_video_record_base*>& v,
                                               const char* code) {
    return LookupEither(
        v, catidx::Chans(), catidx::kChanCode, catidx::kChanSerial, catidx::QueryKey(code),
        [code](const _msg_video_record_base& c) {
            return SameText(c.szCode, code) || SameText(c.szSerial, code);
        },
        "channel code");
}

_msg_video_record_base* GetVideoChanInfoBySerial(const std::vector<_msg_video_record_base*>& v,
                                                 const char* serial) {
    return Lookup(
        v, catidx::Chans(), catidx::kChanSerial, catidx::QueryKey(serial),
        [serial](const _msg_video_record_base& c) { return SameText(c.szSerial, serial); },
        "channel serial");
}

// ---- Servers ----

_sysserver_info* GetSystemSvrByRegion(int regionId, int serverType,
                                      const std::vector<_sysserver_info*>& v) {
    return FindFirst(v, [=](const _sysserver_info& s) {
        return s.svr.nRegionID == regionId && s.svr.nServerType == serverType;
    });
}

_sysserver_info* GetSystemSvrByID(int id, const std::vector<_sysserver_info*>& v) {
    return Lookup(
        v, catidx::Servers(), catidx::kServerId, catidx::IntKey(id),
        [id](const _sysserver_info& s) { return s.svr.nID == id; }, "server id");
}

_sysserver_info* GetSystemSvrByLogin(int login, const std::vector<_sysserver_info*>& v) {
    if (login == -1) return nullptr;
    return Lookup(
        v, catidx::Servers(), catidx::kServerLogin, catidx::IntKey(login),
        [login](const _sysserver_info& s) { return s.lLoginID == login; }, "server login");
}

_sysserver_info* GetSystemSvrBySerial(const char* serial, const std::vector<_sysserver_info*>& v) {
    return Lookup(
        v, catidx::Servers(), catidx::kServerSerial, catidx::QueryKey(serial),
        [serial](const _sysserver_info& s) { return SameText(s.svr.szSerial, serial); },
        "server serial");
}

// ---- Domains and registrations ----

_domain_info* GetDomainInfoByID(const std::vector<_domain_info*>& v, int id) {
    return Lookup(
        v, catidx::Domains(), catidx::kDomainId, catidx::IntKey(id),
        [id](const _domain_info& d) { return d.svr.nID == id; }, "domain id");
}

_domain_info* GetDomainInfoByLogin(const std::vector<_domain_info*>& v, int login) {
    if (login == -1) return nullptr;
    return Lookup(
        v, catidx::Domains(), catidx::kDomainLogin, catidx::IntKey(login),
        [login](const _domain_info& d) { return d.lLoginID == login; }, "domain login");
}

_domain_info* GetDomainInfoByCode(const std::vector<_domain_info*>& v, const char* code) {
    return Lookup(
        v, catidx::Domains(), catidx::kDomainCode, catidx::QueryKey(code),
        [code](const _domain_info& d) { return SameText(d.svr.szCode, code); }, "domain code");
}

_domain_info* GetDomainInfoBySerial(const std::vector<_domain_info*>& v, const char* serial) {
    return Lookup(
        v, catidx::Domains(), catidx::kDomainSerial, catidx::QueryKey(serial),
        [serial](const _domain_info& d) { return SameText(d.svr.szSerial, serial); },
        "domain serial");
}

// Registrations are few (one per media server or lower domain): a scan is enough.
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
// ever skipped, so the results are the plain walks. Each walk is linear: children lists and
// parent maps are built once per walk (or come from the index).

namespace {

using Visited = std::unordered_set<const _msg_region_base*>;

// The first region of each id, as GetRegionInfobyID finds it.
class RegionById {
public:
    explicit RegionById(const std::vector<_msg_region_base*>& all) : all_(all) {
        if (catidx::Regions().InStep(all)) return;
        for (_msg_region_base* r : all)
            if (r) local_.emplace(r->nID, r);
        indexed_ = false;
    }
    _msg_region_base* Parent(const _msg_region_base* r) const {
        if (indexed_) return GetParentRegion(r, all_);
        auto it = local_.find(r->nParentID);
        return it == local_.end() ? nullptr : it->second;
    }

private:
    const std::vector<_msg_region_base*>& all_;
    std::unordered_map<int, _msg_region_base*> local_;
    bool indexed_ = true;
};

}  // namespace

int GetRegions(const _msg_region_base* region, const std::vector<_msg_region_base*>& all,
               std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    Visited seen{region};
    // The region's own record in the vector is never its own descendant.
    if (_msg_region_base* self = GetRegionInfobyID(all, region->nID)) seen.insert(self);
    std::unordered_map<int, std::vector<_msg_region_base*>> children;  // in vector order
    for (_msg_region_base* r : all)
        if (r) children[r->nParentID].push_back(r);
    auto childrenOf = [&children](const _msg_region_base* r) {
        auto it = children.find(r->nID);
        return it == children.end() ? nullptr : &it->second;
    };
    // Depth first, pre-order, without recursion: each frame walks one children list.
    struct Frame {
        const std::vector<_msg_region_base*>* kids;
        size_t next;
    };
    std::vector<Frame> stack{{childrenOf(region), 0}};
    while (!stack.empty()) {
        Frame& f = stack.back();
        if (!f.kids || f.next == f.kids->size()) {
            stack.pop_back();
            continue;
        }
        _msg_region_base* child = (*f.kids)[f.next++];
        if (!seen.insert(child).second) continue;
        out.push_back(child);
        stack.push_back({childrenOf(child), 0});
    }
    return 1;
}

int GetParengRegionsEx(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                       std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    std::unordered_set<int> held;
    for (const _msg_region_base* r : out)
        if (r) held.insert(r->nID);
    RegionById byId(all);
    // A chain longer than the vector can only be a cycle.
    size_t steps = all.size() + 1;
    for (_msg_region_base* r = region; r && steps > 0; --steps) {
        if (held.insert(r->nID).second) out.push_back(r);
        r = byId.Parent(r);
    }
    return 1;
}

int GetParengRegions(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                     std::vector<_msg_region_base*>& out) {
    if (!region || all.empty()) return 0;
    // Ancestors go to the front, so `out` reads from the root down.
    RegionById byId(all);
    Visited seen{region};
    std::vector<_msg_region_base*> chain;  // nearest first
    for (_msg_region_base* p = byId.Parent(region); p && seen.insert(p).second; p = byId.Parent(p))
        chain.push_back(p);
    out.insert(out.begin(), chain.rbegin(), chain.rend());
    return 1;
}
