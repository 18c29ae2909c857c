// Cascade node lists and region route paths.
#include "mysql/nodecatalog.h"

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "comm/boundedtext.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "comm/wirepack.h"
#include "mysql/sqldbop.h"

namespace {

// The node kinds of a device or channel differ per list on purpose: each upper-domain
// client was written against its list as it is.
constexpr int kFolderNode = 0;
constexpr int kShareDevice = 2;
constexpr int kShareChannel = 3;
constexpr int kCmsDevice = 1;
constexpr int kCmsChannel = 3;
constexpr int kGroupDevice = 1;
constexpr int kGroupChannel = 2;

// Only "camera" devices and channels (hardware type 1) go into the whole-catalogue list.
constexpr int kListedHardType = 1;
constexpr int kDeviceGroupType = 1;  // devicegroup.grouptype of the cascade groups

using NodeList = std::vector<node_info*>;

// ---- Node construction ----

// A node named as `named` says (a device or a channel record: name, serial, code) and
// reached through the connection fields of device `dev`; every other field is zero.
template <class Named>
void FillNode(node_info& n, const Named& named, const _msg_recorddevice_base& dev, int type) {
    n = node_info{};
    btext::CopyField(n.szName, named.szName);
    btext::CopyField(n.szSerial, named.szSerial);
    btext::CopyField(n.szCode, named.szCode);
    btext::CopyField(n.szIP, dev.szIP);
    n.nPort = dev.nPort;
    btext::CopyField(n.szUser, dev.szUser);
    btext::CopyField(n.szPass, dev.szPass);
    n.nftype = static_cast<int8_t>(dev.nServerType);
    n.nType = type;
}

template <class Named>
node_info* MakeNode(const Named& named, const _msg_recorddevice_base& dev, int type) {
    node_info* n = new node_info();
    FillNode(*n, named, dev, type);
    return n;
}

node_info* MakeDeviceNode(const _msg_recorddevice_base& dev, int type) {
    return MakeNode(dev, dev, type);
}

void FillRegionFolder(node_info& n, const _msg_region_base& region,
                      const _msg_region_base* parent) {
    n = node_info{};
    btext::CopyField(n.szName, region.szName);
    btext::CopyField(n.szCode, region.szSerial);
    if (parent) btext::CopyField(n.szParentCode, parent->szSerial);
    n.nType = kFolderNode;
}

node_info* MakeRegionFolder(const _msg_region_base& region, const _msg_region_base* parent) {
    node_info* n = new node_info();
    FillRegionFolder(*n, region, parent);
    return n;
}

node_info* MakeGroupFolder(const _msg_devgroup_base& group, const char* parentCode,
                           size_t parentSize) {
    node_info* n = new node_info();
    btext::CopyField(n->szName, group.szName);
    btext::CopyField(n->szCode, group.szCode);
    btext::CopyN(n->szParentCode, sizeof(n->szParentCode), parentCode, parentSize);
    n->nType = kFolderNode;
    return n;
}

bool SameText(const char* field, size_t fieldSize, const char* text) {
    const size_t n = std::strlen(text);
    return strnlen(field, fieldSize) == n && std::memcmp(field, text, n) == 0;
}

// ---- Wire packing ----

// Packs the nodes that carry a code into a zeroed block; `adjust` sets the per-list
// fields on each copy. Every node is counted in the length, coded or not.
template <class Adjust>
int PackNodeList(const NodeList& nodes, Adjust adjust, char*& buf, int& len) {
    if (nodes.empty()) return 1;
    if (nodes.size() > static_cast<size_t>(INT_MAX / NODE_INFO_SIZE)) return 0;
    const size_t total = nodes.size() * NODE_INFO_SIZE;
    std::unique_ptr<char[]> block(new char[total]());
    size_t used = 0;
    for (const node_info* n : nodes) {
        if (n->szCode[0] == '\0') continue;
        node_info copy = *n;
        adjust(copy);
        PackNodeInfo(copy, reinterpret_cast<unsigned char*>(block.get()) + used * NODE_INFO_SIZE);
        ++used;
    }
    if (used == 0) return 0;
    buf = block.release();
    len = static_cast<int>(total);
    return 1;
}

int IntColumn(CMysqlRecordSet& rs, const char* name) {
    char value[200] = {0};
    rs.GetFieldValue(name, value);
    return std::atoi(value);
}

// ---- Local indexes ----
// The builders find records by id through maps built once per list. Each map holds the
// first record of an id in vector order, which is the record a scan of the vector finds.

template <class T>
using IdMap = std::unordered_map<int, T*>;

template <class T, class IdOf>
IdMap<T> FirstById(const std::vector<T*>& v, IdOf id) {
    IdMap<T> m;
    m.reserve(v.size());
    for (T* p : v)
        if (p) m.emplace(id(*p), p);
    return m;
}

// The same, for the ids in `wanted` only: a short list on a large catalogue costs one
// pass over the vector and no map of its whole size.
template <class T, class IdOf>
IdMap<T> FirstById(const std::vector<T*>& v, IdOf id, const std::unordered_set<int>& wanted) {
    IdMap<T> m;
    m.reserve(wanted.size());
    for (T* p : v)
        if (p && wanted.count(id(*p))) m.emplace(id(*p), p);
    return m;
}

template <class T>
T* Find(const IdMap<T>& m, int id) {
    auto it = m.find(id);
    return it == m.end() ? nullptr : it->second;
}

int RegionIdOf(const _msg_region_base& r) { return r.nID; }
int DeviceIdOf(const _hcrecord_Info& d) { return d.dev.nID; }
int ChannelIdOf(const _msg_video_record_base& c) { return c.nID; }

// Devices and channels by id, as far as a list of members needs them.
struct MemberIndex {
    IdMap<_hcrecord_Info> devices;
    IdMap<_msg_video_record_base> channels;

    void Build(const std::unordered_set<int>& deviceIds, const std::unordered_set<int>& chanIds) {
        channels = FirstById(m_arrVideoChanInfos, ChannelIdOf, chanIds);
        std::unordered_set<int> wanted = deviceIds;
        for (const auto& c : channels) wanted.insert(c.second->nDeviceID);
        devices = FirstById(m_arrRecordInfos, DeviceIdOf, wanted);
    }
    const _hcrecord_Info* Device(int id) const { return Find(devices, id); }
    const _msg_video_record_base* Channel(int id) const { return Find(channels, id); }
};

// The text of a node's code field as GetNodeFromCode compares it.
std::string CodeKey(const node_info& n) {
    return std::string(n.szCode, strnlen(n.szCode, sizeof(n.szCode)));
}

}  // namespace

void PackNodeInfo(const node_info& n, unsigned char* slot) {
    std::memset(slot, 0, NODE_INFO_SIZE);
#define PUT_TEXT(f) wire::PutText(slot + offsetof(node_info, f), n.f, sizeof(n.f))
    PUT_TEXT(szName);
    PUT_TEXT(szSerial);
    PUT_TEXT(szCode);
    PUT_TEXT(szIP);
    PUT_TEXT(szUser);
    PUT_TEXT(szPass);
    PUT_TEXT(szParentCode);
    PUT_TEXT(szCityCode);
    PUT_TEXT(szDomainCode);
#undef PUT_TEXT
    wire::PutI32(slot + offsetof(node_info, nPort), n.nPort);
    wire::PutI32(slot + offsetof(node_info, nftype), n.nftype);
    wire::PutF64(slot + offsetof(node_info, dbLongitude), n.dbLongitude);
    wire::PutF64(slot + offsetof(node_info, dbLatitude), n.dbLatitude);
    wire::PutI32(slot + offsetof(node_info, nType), n.nType);
    wire::PutI32(slot + offsetof(node_info, nStatus), n.nStatus);
}

// ---- Entry points ----

int GetServerNodeFromShare(const char* code, int mode, char*& buf, int& len) {
    OwnedList<node_info> nodes;
    if (!GetNodesFromCMS(code, mode, nodes.v)) return 0;
    auto adjust = [&](node_info& n) {
        if (mode == GB_PUSH_SHARE_DEV) btext::Copy(n.szParentCode, code);
        if (code && code[0]) btext::Copy(n.szDomainCode, code);
    };
    return PackNodeList(nodes.v, adjust, buf, len);
}

int GetServerNodeFromGroup(const char* code, char*& buf, int& len) {
    OwnedList<node_info> nodes;
    if (!GetGroupNodesFromSystem(nodes.v)) return 0;
    auto adjust = [&](node_info& n) { btext::Copy(n.szDomainCode, code); };
    return PackNodeList(nodes.v, adjust, buf, len);
}

// ---- Share list ----

int GetDomainChanFromDB(const char* code, std::vector<_msg_domain_chan_v2*>& out) {
    if (!code) return 0;
    CMysqlDB db;  // closes on every return
    if (!ConnectDB(&db)) return 0;
    char escaped[256];
    EscapeSql(&db, code, escaped, sizeof(escaped));
    char sql[512];
    std::snprintf(sql, sizeof(sql),
                  "select * from domainsharenode c inner join domaininfo s on c.domainid = "
                  "s.id where s.s_code = '%s'",
                  escaped);
    CMysqlRecordSet rs;
    if (!rs.Open(&db, sql)) return 0;
    // "id" is the first column of that name in the join: the share row's own id.
    while (rs.MoveNext()) {
        auto* e = new _msg_domain_chan_v2();
        e->nID = IntColumn(rs, "id");
        e->nNodeID = IntColumn(rs, "nodeid");
        e->nType = IntColumn(rs, "nodetype");
        e->nDomainID = IntColumn(rs, "domainid");
        out.push_back(e);
    }
    rs.Close();
    return 1;
}

_msg_domain_chan_v2* GetDomainShareChan(const std::vector<_msg_domain_chan_v2*>& v, int nodeId,
                                        int type) {
    for (_msg_domain_chan_v2* e : v)
        if (e->nNodeID == nodeId && e->nType == type) return e;
    return nullptr;
}

namespace {

// The node of one share entry with its device; null when a record is missing.
node_info* NodeFromShare(const _msg_domain_chan_v2& e, const MemberIndex& index,
                         const _hcrecord_Info*& device) {
    device = nullptr;
    if (e.nType == DEVICE_NODE) {
        device = index.Device(e.nNodeID);
        return device ? MakeDeviceNode(device->dev, kShareDevice) : nullptr;
    }
    if (e.nType == DEVCHAN_NODE) {
        const _msg_video_record_base* chan = index.Channel(e.nNodeID);
        if (chan) device = index.Device(chan->nDeviceID);
        return device ? MakeNode(*chan, device->dev, kShareChannel) : nullptr;
    }
    return nullptr;
}

// Adds `region` and the regions above it that are not yet needed, nearest first (ids
// compared, as a region chain always is). Every region of a chain is the first record of
// its id, so a region already needed had its whole chain added before: the walk stops
// there, which also ends it on a parent cycle.
void NeedRegionChain(const _msg_region_base* region, const IdMap<_msg_region_base>& byId,
                     std::unordered_set<int>& neededIds, NodeList& folders) {
    for (; region && neededIds.insert(region->nID).second; region = Find(byId, region->nParentID)) {
        folders.push_back(MakeRegionFolder(*region, Find(byId, region->nParentID)));
    }
}

}  // namespace

int GetNodesFromCMS(const char* code, int flag, std::vector<node_info*>& out) {
    OwnedList<_msg_domain_chan_v2> shares;
    if (!GetDomainChanFromDB(code, shares.v)) return 0;
    std::unordered_set<int> deviceIds, chanIds;
    for (const _msg_domain_chan_v2* e : shares.v)
        (e->nType == DEVICE_NODE ? deviceIds : chanIds).insert(e->nNodeID);

    CatalogReadLock lock(csCatalog);
    MemberIndex index;
    index.Build(deviceIds, chanIds);
    const IdMap<_msg_region_base> regions = FirstById(m_arrRegionInfos, RegionIdOf);
    std::unordered_set<int> neededIds;
    NodeList folders, members;
    for (const _msg_domain_chan_v2* e : shares.v) {
        const _hcrecord_Info* device = nullptr;
        node_info* node = NodeFromShare(*e, index, device);
        if (!node) continue;
        if (flag == 0) {
            const _msg_region_base* region = Find(regions, device->dev.nRegionID);
            if (region) btext::CopyField(node->szParentCode, region->szSerial);
            NeedRegionChain(region, regions, neededIds, folders);
        }
        members.push_back(node);
    }
    // Folders go in front so that an upper domain meets a folder before its members.
    out.insert(out.begin(), folders.begin(), folders.end());
    out.insert(out.end(), members.begin(), members.end());
    return 1;
}

// ---- Whole catalogue ----

namespace {

// Walks the whole catalogue in list order, handing each node to `sink`: first
// sink.Reserve(the most nodes there can be), then Folder for each region folder and
// Member for each device and channel. False without a root region. Needs the read lock.
template <class Sink>
bool WalkCmsNodes(int flag, Sink& sink) {
    _msg_region_base* root = GetRootRegion(m_arrRegionInfos);
    if (!root) return false;
    std::vector<_msg_region_base*> regions{root};
    GetRegions(root, m_arrRegionInfos, regions);
    const IdMap<_msg_region_base> all = FirstById(m_arrRegionInfos, RegionIdOf);
    const IdMap<_msg_region_base> listed = FirstById(regions, RegionIdOf);
    const IdMap<_hcrecord_Info> devices = FirstById(m_arrRecordInfos, DeviceIdOf);
    sink.Reserve(regions.size() + m_arrRecordInfos.size() + m_arrVideoChanInfos.size());

    node_info n;
    if (flag == 0) {
        // The root itself is never sent: the upper domain is its parent.
        for (const _msg_region_base* r : regions) {
            const _msg_region_base* parent = Find(all, r->nParentID);
            if (!parent) continue;
            FillRegionFolder(n, *r, parent);
            sink.Folder(n);
        }
    }
    for (const _hcrecord_Info* d : m_arrRecordInfos) {
        if (d->dev.nHardType != kListedHardType || d->dev.szCode[0] == '\0') continue;
        const _msg_region_base* region = Find(listed, d->dev.nRegionID);
        if (!region) continue;
        FillNode(n, d->dev, d->dev, kCmsDevice);
        btext::CopyField(n.szParentCode, region->szSerial);
        sink.Member(n);
    }
    // A channel's region is looked up among all regions, not only the listed ones:
    // channels of devices outside the root's tree have always been sent.
    for (const _msg_video_record_base* c : m_arrVideoChanInfos) {
        if (c->nType != kListedHardType || c->szCode[0] == '\0') continue;
        const _hcrecord_Info* d = Find(devices, c->nDeviceID);
        if (!d) continue;
        const _msg_region_base* region = Find(all, d->dev.nRegionID);
        if (!region) continue;
        FillNode(n, *c, d->dev, kCmsChannel);
        btext::CopyField(n.szParentCode, region->szSerial);
        sink.Member(n);
    }
    return true;
}

// A whole catalogue's block runs to hundreds of megabytes; faulting it in a page at a time
// costs more than packing it. Asked for before the block is first touched.
void AdviseHugePages(void* data, size_t n) {
    constexpr uintptr_t kHuge = 2u << 20;
    if (n < 2 * kHuge) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(data) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + n) & ~(kHuge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// Heap nodes for GetCmsNodesFromSystem: folders in front of what the list held.
struct ListSink {
    NodeList& out;
    NodeList folders;

    void Reserve(size_t) {}
    void Folder(const node_info& n) { folders.push_back(new node_info(n)); }
    void Member(const node_info& n) { out.push_back(new node_info(n)); }
    void Finish() { out.insert(out.begin(), folders.begin(), folders.end()); }
};

// Packs straight into the wire block, as PackNodeList does from a list: a whole catalogue
// is too large for a heap node per record on the way.
struct PackSink {
    std::unique_ptr<char[]> block;  // room for the bound; only what is used gets touched
    size_t count = 0;               // nodes seen, coded or not
    size_t used = 0;                // slots written

    void Reserve(size_t bound) {
        const size_t bytes = std::max<size_t>(bound, 1) * NODE_INFO_SIZE;
        block.reset(new char[bytes]);
        AdviseHugePages(block.get(), bytes);
    }
    void Folder(const node_info& n) { Add(n); }
    void Member(const node_info& n) { Add(n); }
    void Add(const node_info& n) {
        ++count;
        if (n.szCode[0] == '\0') return;
        PackNodeInfo(n, reinterpret_cast<unsigned char*>(block.get()) + used++ * NODE_INFO_SIZE);
    }
    int Finish(char*& buf, int& len) {
        if (count == 0) return 1;
        if (count > static_cast<size_t>(INT_MAX / NODE_INFO_SIZE) || used == 0) return 0;
        std::memset(block.get() + used * NODE_INFO_SIZE, 0, (count - used) * NODE_INFO_SIZE);
        buf = block.release();
        len = static_cast<int>(count * NODE_INFO_SIZE);
        return 1;
    }
};

}  // namespace

int GetCmsNodesFromSystem(int flag, std::vector<node_info*>& out) {
    ListSink sink{out, {}};
    CatalogReadLock lock(csCatalog);
    if (!WalkCmsNodes(flag, sink)) return 0;
    sink.Finish();
    return 1;
}

int GetServerNodeFromRegion(const char* /*code*/, int flag, char*& buf, int& len) {
    PackSink sink;
    {
        CatalogReadLock lock(csCatalog);
        if (!WalkCmsNodes(flag, sink)) return 0;
    }
    return sink.Finish(buf, len);
}

// ---- Group list ----

node_info* GetNodeFromCode(const std::vector<node_info*>& v, const char* code) {
    if (!code || !code[0]) return nullptr;
    for (node_info* n : v)
        if (SameText(n->szCode, sizeof(n->szCode), code)) return n;
    return nullptr;
}

namespace {

// What the folder walks of a group list look up, built once per list, and the codes the
// two folder lists hold so far (kept in step with the lists).
struct FolderWalk {
    IdMap<_msg_devgroup_base> groups;
    std::unordered_map<std::string, const _msg_devgroup_base*> groupByCode;  // first per code
    IdMap<_msg_region_base> regions;
    size_t groupCount;
    size_t regionCount;
    std::unordered_set<std::string> groupCodes;
    std::unordered_set<std::string> regionCodes;
    // A walk from a start already walked adds nothing (every code it meets is listed by
    // then) and ends where it ended before.
    std::unordered_map<const _msg_devgroup_base*, const _msg_devgroup_base*> topOf;
    std::unordered_set<const _msg_region_base*> regionWalked;

    FolderWalk(const std::vector<_msg_region_base*>& r, const std::vector<_msg_devgroup_base*>& g,
               const NodeList& regionNodes, const NodeList& groupNodes)
        : groups(FirstById(g, [](const _msg_devgroup_base& x) { return x.nID; })),
          regions(FirstById(r, RegionIdOf)),
          groupCount(g.size()),
          regionCount(r.size()) {
        for (const _msg_devgroup_base* x : g)
            if (x) groupByCode.emplace(std::string(x->szCode, btext::Len(x->szCode)), x);
        for (const node_info* n : regionNodes) regionCodes.insert(CodeKey(*n));
        for (const node_info* n : groupNodes) groupCodes.insert(CodeKey(*n));
    }
};

// Walks up from `group`, adding the missing group folders; returns the topmost group.
// Within one walk each higher folder goes before the lower ones.
const _msg_devgroup_base* AppendGroupFolders(const _msg_devgroup_base* group, FolderWalk& walk,
                                             NodeList& groupNodes) {
    const auto known = walk.topOf.find(group);
    if (known != walk.topOf.end()) return known->second;
    const _msg_devgroup_base* start = group;
    const _msg_devgroup_base* top = group;
    NodeList added;
    // Bounded by the number of groups so that a parent cycle cannot hang the walk.
    for (size_t steps = 0; group && group->szCode[0] && steps <= walk.groupCount; ++steps) {
        top = group;
        const _msg_devgroup_base* next = Find(walk.groups, group->nParentID);
        if (walk.groupCodes.insert(std::string(group->szCode, btext::Len(group->szCode))).second) {
            if (next) {
                added.push_back(MakeGroupFolder(*group, next->szCode, sizeof(next->szCode)));
            } else {
                const _msg_region_base* region = Find(walk.regions, group->nRegionID);
                added.push_back(
                    region ? MakeGroupFolder(*group, region->szSerial, sizeof(region->szSerial))
                           : MakeGroupFolder(*group, "", 0));
            }
        }
        group = next;
    }
    groupNodes.insert(groupNodes.end(), added.rbegin(), added.rend());
    walk.topOf.emplace(start, top);
    return top;
}

void AppendRegionFolders(const _msg_region_base* region, FolderWalk& walk, NodeList& regionNodes) {
    if (!region || !walk.regionWalked.insert(region).second) return;
    NodeList added;
    for (size_t steps = 0; region && steps <= walk.regionCount; ++steps) {
        const _msg_region_base* parent = Find(walk.regions, region->nParentID);
        // The folder carries the region's own name and serial, so that the lookup by
        // serial finds it again for the next member of the same region.
        std::string serial(region->szSerial, btext::Len(region->szSerial));
        if (!serial.empty() && walk.regionCodes.insert(serial).second)
            added.push_back(MakeRegionFolder(*region, parent));
        region = parent;
    }
    regionNodes.insert(regionNodes.end(), added.rbegin(), added.rend());
}

int AppendParents(const node_info* node, FolderWalk& walk, NodeList& regionNodes,
                  NodeList& groupNodes) {
    if (!node || !node->szCode[0]) return 0;
    const auto group =
        walk.groupByCode.find(std::string(node->szParentCode, btext::Len(node->szParentCode)));
    if (group == walk.groupByCode.end() || group->first.empty()) return 0;
    const _msg_devgroup_base* top = AppendGroupFolders(group->second, walk, groupNodes);
    AppendRegionFolders(Find(walk.regions, top->nRegionID), walk, regionNodes);
    return 1;
}

}  // namespace

int AppendParentNodes(const node_info* node, const std::vector<_msg_region_base*>& regions,
                      const std::vector<_msg_devgroup_base*>& groups,
                      std::vector<node_info*>& regionNodes, std::vector<node_info*>& groupNodes) {
    FolderWalk walk(regions, groups, regionNodes, groupNodes);
    return AppendParents(node, walk, regionNodes, groupNodes);
}

namespace {

// The member node of one group entry; null when its device or channel is missing.
node_info* NodeFromMember(const _msg_changroup_base& m, const MemberIndex& index) {
    if (m.nChanID < 1) {
        const _hcrecord_Info* d = index.Device(m.nDevID);
        return d ? MakeDeviceNode(d->dev, kGroupDevice) : nullptr;
    }
    const _msg_video_record_base* c = index.Channel(m.nChanID);
    const _hcrecord_Info* d = c ? index.Device(c->nDeviceID) : nullptr;
    return d ? MakeNode(*c, d->dev, kGroupChannel) : nullptr;
}

bool LoadGroups(std::vector<_msg_devgroup_base*>& groups,
                std::vector<_msg_changroup_base*>& members) {
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    char sql[256];
    std::snprintf(sql, sizeof(sql), "select * from devicegroup where grouptype = %d",
                  kDeviceGroupType);
    GetDevGroup_FromDB(&db, sql, groups);
    std::snprintf(sql, sizeof(sql),
                  "select * from devicegroupchan c inner join devicegroup g on g.id = c.groupid "
                  "where g.grouptype = %d",
                  kDeviceGroupType);
    GetDevGroupChan_FromDB(&db, sql, members);
    return true;
}

}  // namespace

int GetGroupNodesFromSystem(std::vector<node_info*>& out) {
    OwnedList<_msg_devgroup_base> groups;
    OwnedList<_msg_changroup_base> members;
    if (!LoadGroups(groups.v, members.v)) return 0;
    std::unordered_set<int> deviceIds, chanIds;
    for (const _msg_changroup_base* m : members.v)
        (m->nChanID < 1 ? deviceIds : chanIds).insert(m->nChanID < 1 ? m->nDevID : m->nChanID);

    CatalogReadLock lock(csCatalog);
    MemberIndex index;
    index.Build(deviceIds, chanIds);
    NodeList regionNodes, groupNodes, memberNodes;
    FolderWalk walk(m_arrRegionInfos, groups.v, regionNodes, groupNodes);
    for (const _msg_changroup_base* m : members.v) {
        const _msg_devgroup_base* group = Find(walk.groups, m->nGroupID);
        if (!group) continue;
        node_info* node = NodeFromMember(*m, index);
        if (!node) continue;
        btext::CopyField(node->szParentCode, group->szCode);
        memberNodes.push_back(node);
        AppendParents(node, walk, regionNodes, groupNodes);
    }
    // Region folders first, then group folders: parents always precede their children.
    out.insert(out.end(), regionNodes.begin(), regionNodes.end());
    out.insert(out.end(), groupNodes.begin(), groupNodes.end());
    out.insert(out.end(), memberNodes.begin(), memberNodes.end());
    return 1;
}

// ---- Route path ----

_dev_register* GetRegMediaFromArray(const std::vector<_dev_register*>& v, const char* serial) {
    if (!serial) return nullptr;
    for (_dev_register* r : v)
        if (SameText(r->serial, sizeof(r->serial), serial)) return r;
    return nullptr;
}

namespace {

_dev_register* RegistrationOf(const std::vector<_dev_register*>& v, const char (&serial)[40]) {
    char text[sizeof(serial) + 1] = {0};
    btext::CopyField(text, serial);
    return GetRegMediaFromArray(v, text);
}

}  // namespace

int GetDevPath(const std::vector<_msg_region_base*>& regions,
               const std::vector<_sysserver_info*>& servers,
               const std::vector<_dev_register*>& registrations, int regionId, char* out,
               size_t outSize) {
    std::vector<const _sysserver_info*> chain;  // media servers, nearest region first
    const _msg_region_base* region = GetRegion(regions, regionId);
    // Bounded by the number of regions so that a parent cycle cannot hang the walk.
    for (size_t steps = 0; region && steps <= regions.size(); ++steps) {
        if (const _sysserver_info* media = GetSystemSvrByRegion(region->nID, SERVER_MEDIA, servers))
            chain.push_back(media);
        const _dev_register* reg = RegistrationOf(registrations, region->szSerial);
        // A registration naming an unknown server ends the walk.
        if (reg && !GetSystemSvrByID(reg->nodeid, servers)) break;
        region = GetParentRegion(region, regions);
    }

    btext::Writer w = btext::Writer::At(out, outSize);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const _msg_systemsrv_base& s = (*it)->svr;
        if (RegistrationOf(registrations, s.szSerial))
            w.Str("/").Field(s.szSerial);
        else
            w.Str("/").Field(s.szIP).Str(":").Int(s.nPort);
    }
    return 1;
}
