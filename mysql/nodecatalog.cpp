// Cascade node lists and region route paths.
#include "mysql/nodecatalog.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

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
// reached through the connection fields of device `dev`.
template <class Named>
node_info* MakeNode(const Named& named, const _msg_recorddevice_base& dev, int type) {
    node_info* n = new node_info();
    btext::CopyField(n->szName, named.szName);
    btext::CopyField(n->szSerial, named.szSerial);
    btext::CopyField(n->szCode, named.szCode);
    btext::CopyField(n->szIP, dev.szIP);
    n->nPort = dev.nPort;
    btext::CopyField(n->szUser, dev.szUser);
    btext::CopyField(n->szPass, dev.szPass);
    n->nftype = static_cast<int8_t>(dev.nServerType);
    n->nType = type;
    return n;
}

node_info* MakeDeviceNode(const _msg_recorddevice_base& dev, int type) {
    return MakeNode(dev, dev, type);
}

node_info* MakeRegionFolder(const _msg_region_base& region, const _msg_region_base* parent) {
    node_info* n = new node_info();
    btext::CopyField(n->szName, region.szName);
    btext::CopyField(n->szCode, region.szSerial);
    if (parent) btext::CopyField(n->szParentCode, parent->szSerial);
    n->nType = kFolderNode;
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

// Inserts `node` at `pos` when a folder was already placed there, else appends it and
// remembers where; so each higher folder lands before the lower ones.
void PlaceFolder(NodeList& list, long& pos, node_info* node) {
    if (pos < 0) {
        pos = static_cast<long>(list.size());
        list.push_back(node);
    } else {
        list.insert(list.begin() + pos, node);
    }
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

int GetServerNodeFromRegion(const char* code, int flag, char*& buf, int& len) {
    OwnedList<node_info> nodes;
    if (!GetCmsNodesFromSystem(flag, nodes.v)) return 0;
    return PackNodeList(
        nodes.v, [](node_info&) {}, buf, len);
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
node_info* NodeFromShare(const _msg_domain_chan_v2& e, const _hcrecord_Info*& device) {
    device = nullptr;
    if (e.nType == DEVICE_NODE) {
        device = GetDeviceInfoByID(m_arrRecordInfos, e.nNodeID);
        return device ? MakeDeviceNode(device->dev, kShareDevice) : nullptr;
    }
    if (e.nType == DEVCHAN_NODE) {
        const _msg_video_record_base* chan = GetVideoChanInfoByID(m_arrVideoChanInfos, e.nNodeID);
        if (chan) device = GetDeviceInfoByID(m_arrRecordInfos, chan->nDeviceID);
        return device ? MakeNode(*chan, device->dev, kShareChannel) : nullptr;
    }
    return nullptr;
}

}  // namespace

int GetNodesFromCMS(const char* code, int flag, std::vector<node_info*>& out) {
    OwnedList<_msg_domain_chan_v2> shares;
    if (!GetDomainChanFromDB(code, shares.v)) return 0;

    CatalogReadLock lock(csCatalog);
    std::vector<_msg_region_base*> needed;
    for (const _msg_domain_chan_v2* e : shares.v) {
        const _hcrecord_Info* device = nullptr;
        node_info* node = NodeFromShare(*e, device);
        if (!node) continue;
        if (flag == 0) {
            _msg_region_base* region = GetRegion(m_arrRegionInfos, device->dev.nRegionID);
            if (region) btext::CopyField(node->szParentCode, region->szSerial);
            GetParengRegionsEx(region, m_arrRegionInfos, needed);
        }
        out.push_back(node);
    }
    // Folders go in front so that an upper domain meets a folder before its members.
    for (auto it = needed.rbegin(); it != needed.rend(); ++it) {
        const _msg_region_base* parent = GetParentRegion(*it, m_arrRegionInfos);
        out.insert(out.begin(), MakeRegionFolder(**it, parent));
    }
    return 1;
}

// ---- Whole catalogue ----

namespace {

void AppendCmsDevices(const std::vector<_msg_region_base*>& regions, NodeList& out) {
    for (const _hcrecord_Info* d : m_arrRecordInfos) {
        if (d->dev.nHardType != kListedHardType || d->dev.szCode[0] == '\0') continue;
        const _msg_region_base* region = GetRegion(regions, d->dev.nRegionID);
        if (!region) continue;
        node_info* n = MakeDeviceNode(d->dev, kCmsDevice);
        btext::CopyField(n->szParentCode, region->szSerial);
        out.push_back(n);
    }
}

void AppendCmsChannels(NodeList& out) {
    for (const _msg_video_record_base* c : m_arrVideoChanInfos) {
        if (c->nType != kListedHardType || c->szCode[0] == '\0') continue;
        const _hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, c->nDeviceID);
        if (!d) continue;
        const _msg_region_base* region = GetRegion(m_arrRegionInfos, d->dev.nRegionID);
        if (!region) continue;
        node_info* n = MakeNode(*c, d->dev, kCmsChannel);
        btext::CopyField(n->szParentCode, region->szSerial);
        out.push_back(n);
    }
}

}  // namespace

int GetCmsNodesFromSystem(int flag, std::vector<node_info*>& out) {
    CatalogReadLock lock(csCatalog);
    _msg_region_base* root = GetRootRegion(m_arrRegionInfos);
    if (!root) return 0;
    std::vector<_msg_region_base*> regions{root};
    GetRegions(root, m_arrRegionInfos, regions);

    if (flag == 0) {
        // The root itself is never sent: the upper domain is its parent.
        for (auto it = regions.rbegin(); it != regions.rend(); ++it) {
            const _msg_region_base* parent = GetParentRegion(*it, m_arrRegionInfos);
            if (parent) out.insert(out.begin(), MakeRegionFolder(**it, parent));
        }
    }
    AppendCmsDevices(regions, out);
    AppendCmsChannels(out);
    return 1;
}

// ---- Group list ----

node_info* GetNodeFromCode(const std::vector<node_info*>& v, const char* code) {
    if (!code || !code[0]) return nullptr;
    for (node_info* n : v)
        if (SameText(n->szCode, sizeof(n->szCode), code)) return n;
    return nullptr;
}

namespace {

// Walks up from `group`, adding the missing group folders; returns the topmost group.
const _msg_devgroup_base* AppendGroupFolders(const _msg_devgroup_base* group,
                                             const std::vector<_msg_region_base*>& regions,
                                             const std::vector<_msg_devgroup_base*>& groups,
                                             NodeList& groupNodes) {
    long pos = -1;
    const _msg_devgroup_base* top = group;
    // Bounded by the number of groups so that a parent cycle cannot hang the walk.
    for (size_t steps = 0; group && group->szCode[0] && steps <= groups.size(); ++steps) {
        top = group;
        const _msg_devgroup_base* next = GetGroup(group->nParentID, groups);
        char code[sizeof(group->szCode) + 1] = {0};
        btext::CopyField(code, group->szCode);
        if (!GetNodeFromCode(groupNodes, code)) {
            node_info* folder = nullptr;
            if (next) {
                folder = MakeGroupFolder(*group, next->szCode, sizeof(next->szCode));
            } else {
                const _msg_region_base* region = GetRegion(regions, group->nRegionID);
                folder = region
                             ? MakeGroupFolder(*group, region->szSerial, sizeof(region->szSerial))
                             : MakeGroupFolder(*group, "", 0);
            }
            PlaceFolder(groupNodes, pos, folder);
        }
        group = next;
    }
    return top;
}

void AppendRegionFolders(const _msg_region_base* region,
                         const std::vector<_msg_region_base*>& regions, NodeList& regionNodes) {
    long pos = -1;
    for (size_t steps = 0; region && steps <= regions.size(); ++steps) {
        const _msg_region_base* parent = GetParentRegion(region, regions);
        char serial[sizeof(region->szSerial) + 1] = {0};
        btext::CopyField(serial, region->szSerial);
        // The folder carries the region's own name and serial, so that the lookup by
        // serial finds it again for the next member of the same region.
        if (serial[0] && !GetNodeFromCode(regionNodes, serial))
            PlaceFolder(regionNodes, pos, MakeRegionFolder(*region, parent));
        region = parent;
    }
}

}  // namespace

int AppendParentNodes(const node_info* node, const std::vector<_msg_region_base*>& regions,
                      const std::vector<_msg_devgroup_base*>& groups,
                      std::vector<node_info*>& regionNodes, std::vector<node_info*>& groupNodes) {
    if (!node || !node->szCode[0]) return 0;
    char parentCode[sizeof(node->szParentCode) + 1] = {0};
    btext::CopyField(parentCode, node->szParentCode);
    const _msg_devgroup_base* group = GetGroupFromCode(parentCode, groups);
    if (!group) return 0;
    const _msg_devgroup_base* top = AppendGroupFolders(group, regions, groups, groupNodes);
    AppendRegionFolders(GetRegion(regions, top->nRegionID), regions, regionNodes);
    return 1;
}

namespace {

// The member node of one group entry; null when its device or channel is missing.
node_info* NodeFromMember(const _msg_changroup_base& m) {
    if (m.nChanID < 1) {
        const _hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, m.nDevID);
        return d ? MakeDeviceNode(d->dev, kGroupDevice) : nullptr;
    }
    const _msg_video_record_base* c = GetVideoChanInfoByID(m_arrVideoChanInfos, m.nChanID);
    const _hcrecord_Info* d = c ? GetDeviceInfoByID(m_arrRecordInfos, c->nDeviceID) : nullptr;
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

    CatalogReadLock lock(csCatalog);
    NodeList regionNodes, groupNodes, memberNodes;
    for (const _msg_changroup_base* m : members.v) {
        const _msg_devgroup_base* group = GetGroup(m->nGroupID, groups.v);
        if (!group) continue;
        node_info* node = NodeFromMember(*m);
        if (!node) continue;
        btext::CopyField(node->szParentCode, group->szCode);
        memberNodes.push_back(node);
        AppendParentNodes(node, m_arrRegionInfos, groups.v, regionNodes, groupNodes);
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
