// Node addresses: play and configuration addresses, link answers, node classification,
// RTSP templates and domain-server lists.
#include "nodes/nodeurl.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "comm/boundedtext.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "comm/wirepack.h"
#include "mysql/sqldbop.h"

namespace {

constexpr size_t kRouteSize = 200;
constexpr int kDomainDeviceType = 3;  // device type written for a device of another domain
constexpr int kIntvResType = 4;       // byResType of an analytics device

template <size_t N>
std::string_view View(const char (&field)[N]) {
    return std::string_view(field, strnlen(field, N));
}

// Copies a record field into a terminated text for the lookups that take `const char*`.
template <size_t N>
struct Text {
    char s[N + 1] = {0};
    explicit Text(const char (&field)[N]) { btext::CopyField(s, field); }
};

// The connection fields a play address carries; views into a catalogue record, valid
// while the catalogue lock is held.
struct Conn {
    std::string_view serial, ip, user, pass;
    int port;
    int type;
};

Conn ConnOf(const _msg_recorddevice_base& d) {
    return {View(d.szSerial), View(d.szIP), View(d.szUser), View(d.szPass), d.nPort, d.nServerType};
}

Conn ConnOf(const _msg_systemsrv_base& s) {
    return {View(s.szSerial), View(s.szIP), View(s.szUser), View(s.szPass), s.nPort, s.nServerType};
}

btext::Writer& Add(btext::Writer& w, std::string_view v) { return w.AddN(v.data(), v.size()); }

// "rtsp:/" R ["/" serial] "/" ip:port:user:pass:type: then the channel number, or "@"
// and the code when there is one. A registration adds the serial.
void WritePlayUrl(btext::Writer& w, const char* route, const Conn& c, bool registered,
                  std::string_view code, int chan) {
    w.Str("rtsp:/").Str(route);
    if (registered) Add(w.Str("/"), c.serial);
    Add(w.Str("/"), c.ip).Str(":").Int(c.port).Str(":");
    Add(w, c.user).Str(":");
    Add(w, c.pass).Str(":").Int(c.type).Str(":");
    if (code.empty())
        w.Int(chan);
    else
        Add(w.Str("@"), code);
}

// Configuration form: "rtsp:/" R "/" serial with a registration, else "rtsp:/" R "/" ip:port.
void WriteConfigUrl(btext::Writer& w, const char* regPrefix, const char* route, const Conn& c,
                    bool registered) {
    if (registered) {
        Add(w.Str(regPrefix).Str(route).Str("/"), c.serial);
        return;
    }
    Add(w.Str("rtsp:/").Str(route).Str("/"), c.ip).Str(":").Int(c.port);
}

template <size_t N>
const _dev_register* RegistrationOf(const char (&serial)[N]) {
    return GetRegMedia(Text<N>(serial).s);
}

void RouteOf(int regionId, char (&route)[kRouteSize]) {
    std::memset(route, 0, sizeof(route));
    GetDevPath(m_arrRegionInfos, m_arrServerFromDB, m_arrMediaRegInfos, regionId, route,
               sizeof(route));
}

// Kept on purpose: resolving a registered device clears 40 bytes of its record from the
// serial on (the serial, the three type bytes and the first 7 bytes of the address), and
// the registered forms are then built from the cleared record. Needs the write lock.
static_assert(offsetof(_msg_recorddevice_base, szSerial) + 40 ==
                  offsetof(_msg_recorddevice_base, szIP) + 7,
              "the cleared span ends inside szIP");
void ClearRegisteredDevice(_msg_recorddevice_base& d) {
    std::memset(d.szSerial, 0, sizeof(d.szSerial));
    d.nHardType = 0;
    d.nLinkType = 0;
    d.nServerType = 0;
    std::memset(d.szIP, 0, 7);
}

// Region of a registered node for the configuration forms and server channels: the
// media server whose region id is the registration's parentid. False when none.
bool RegionOfRegistration(const _dev_register& reg, int& region) {
    const _sysserver_info* s = GetSystemSvrByRegion(reg.parentid, SERVER_MEDIA, m_arrServerFromDB);
    if (!s) return false;
    region = s->svr.nRegionID;
    return true;
}

// Region of a registered device for the play forms: its registration server's region.
bool RegionOfRegistrationServer(const _dev_register& reg, int& region) {
    const _sysserver_info* s = GetSystemSvrByID(reg.parentid, m_arrServerFromDB);
    if (!s) return false;
    region = s->svr.nRegionID;
    return true;
}

using RegionFinder = bool (*)(const _dev_register& reg, int& region);

// Only resolving a registered device changes the catalogue (its record is cleared). So a
// builder runs under the read lock, and when it meets a registered device it answers
// kNeedsWrite, having written nothing, and runs once more under the write lock.
constexpr int kNeedsWrite = -1;

template <class Build>
int WithCatalog(Build build) {
    {
        CatalogReadLock lock(csCatalog);
        int r = build(false);
        if (r != kNeedsWrite) return r;
    }
    CatalogWriteLock lock(csCatalog);
    return build(true);
}

// Whether resolving device `d` would clear its record, which the read lock does not allow.
bool NeedsWrite(const _hcrecord_Info& d, bool write) {
    return !write && RegistrationOf(d.dev.szSerial) != nullptr;
}

// Where a node's address starts: the route path of its region, or, for a node registered
// with a media server, of the region `regionOf` finds for that registration.
struct Route {
    char path[kRouteSize];
    bool registered;
};

// `serial` and `region` are the node's own. A registered device record passed as `clear`
// is cleared first (the caller holds the write lock then). False when a registration's
// region cannot be found.
template <size_t N>
bool FindRoute(const char (&serial)[N], int region, RegionFinder regionOf, Route& route,
               _msg_recorddevice_base* clear = nullptr) {
    const _dev_register* reg = RegistrationOf(serial);
    route.registered = reg != nullptr;
    if (reg) {
        if (clear) ClearRegisteredDevice(*clear);
        if (!regionOf(*reg, region)) return false;
    }
    RouteOf(region, route.path);
    return true;
}

// Form of a device in a cascaded domain: the root media server, then the domain.
int WriteDomainPlayUrl(btext::Writer& w, int domainId, std::string_view serial) {
    const _domain_info* dom = GetDomainInfoByID(m_arrDomainFromDB, domainId);
    if (!dom) return 0;
    const _msg_region_base* root = GetRootRegion(m_arrRegionInfos);
    const _sysserver_info* media =
        root ? GetSystemSvrByRegion(root->nID, SERVER_MEDIA, m_arrServerFromDB) : nullptr;
    w.Str("rtsp:/");
    if (media) w.Str("/").Field(media->svr.szIP).Str(":").Int(media->svr.nPort);
    const _msg_domain_base& d = dom->svr;
    w.Str("/").Field(d.szIP).Str(":").Int(d.nPort2).Str(":").Field(d.szUser).Str(":");
    Add(w.Field(d.szPass).Str(":").Int(kDomainDeviceType).Str(":@"), serial);
    return 1;
}

// ---- Play addresses, by node type ----

int PlayUrlOfServerChan(int nodeid, btext::Writer& w) {
    _msg_serverchan_base chan{};
    if (!GetServerChan_FromDB(nodeid, &chan)) return 0;
    CatalogReadLock lock(csCatalog);
    const _sysserver_info* s = GetSystemSvrByID(chan.nDevID, m_arrServerFromDB);
    if (!s) return 0;
    Route r;
    if (!FindRoute(s->svr.szSerial, s->svr.nRegionID, RegionOfRegistration, r)) return 0;
    WritePlayUrl(w, r.path, ConnOf(s->svr), r.registered, View(chan.szCode), chan.nChan);
    return 1;
}

int PlayUrlOfDevice(int nodeid, btext::Writer& w) {
    return WithCatalog([&](bool write) {
        _hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, nodeid);
        if (!d) return 0;
        if (d->dev.nDomainID >= 1)
            return WriteDomainPlayUrl(w, d->dev.nDomainID, View(d->dev.szSerial));
        if (NeedsWrite(*d, write)) return kNeedsWrite;
        Route r;
        if (!FindRoute(d->dev.szSerial, d->dev.nRegionID, RegionOfRegistrationServer, r, &d->dev))
            return 0;
        const int chan = d->dev.nServerType == 0 ? 1 : 0;  // read after a registered one is cleared
        WritePlayUrl(w, r.path, ConnOf(d->dev), r.registered, {}, chan);
        return 1;
    });
}

int PlayUrlOfChannel(int nodeid, btext::Writer& w) {
    CatalogReadLock lock(csCatalog);
    const _msg_video_record_base* v = GetVideoChanInfoByID(m_arrVideoChanInfos, nodeid);
    const _hcrecord_Info* d = v ? GetDeviceInfoByID(m_arrRecordInfos, v->nDeviceID) : nullptr;
    if (!d) return 0;
    if (d->dev.nDomainID >= 1) return WriteDomainPlayUrl(w, d->dev.nDomainID, View(v->szSerial));
    Route r;
    if (!FindRoute(d->dev.szSerial, d->dev.nRegionID, RegionOfRegistrationServer, r)) return 0;
    WritePlayUrl(w, r.path, ConnOf(d->dev), r.registered, View(v->szSerial), v->nChan);
    return 1;
}

// ---- Configuration addresses, by node type ----

int ConfigUrlOfServerId(int serverId, btext::Writer& w) {
    CatalogReadLock lock(csCatalog);
    const _sysserver_info* s = GetSystemSvrByID(serverId, m_arrServerFromDB);
    if (!s) return 0;
    Route r;
    if (!FindRoute(s->svr.szSerial, s->svr.nRegionID, RegionOfRegistration, r)) return 0;
    WriteConfigUrl(w, "rtsp:/", r.path, ConnOf(s->svr), r.registered);
    return 1;
}

int ConfigUrlOfServer(int nodeid, btext::Writer& w) { return ConfigUrlOfServerId(nodeid, w); }

int ConfigUrlOfServerChan(int nodeid, btext::Writer& w) {
    _msg_serverchan_base chan{};
    if (!GetServerChan_FromDB(nodeid, &chan)) return 0;
    return ConfigUrlOfServerId(chan.nDevID, w);
}

// Shared by devices and channels; `write`: the caller holds the write lock.
int ConfigUrlOfDeviceRecord(_hcrecord_Info* d, const char* regPrefix, btext::Writer& w,
                            bool write) {
    if (!d) return 0;
    if (NeedsWrite(*d, write)) return kNeedsWrite;
    Route r;
    if (!FindRoute(d->dev.szSerial, d->dev.nRegionID, RegionOfRegistration, r, &d->dev)) return 0;
    WriteConfigUrl(w, regPrefix, r.path, ConnOf(d->dev), r.registered);
    return 1;
}

int ConfigUrlOfDevice(int nodeid, btext::Writer& w) {
    return WithCatalog([&](bool write) {
        return ConfigUrlOfDeviceRecord(GetDeviceInfoByID(m_arrRecordInfos, nodeid), "rtsp:/", w,
                                       write);
    });
}

int ConfigUrlOfChannel(int nodeid, btext::Writer& w) {
    return WithCatalog([&](bool write) {
        const _msg_video_record_base* v = GetVideoChanInfoByID(m_arrVideoChanInfos, nodeid);
        if (!v) return 0;
        // "rtsp/" without the colon for a registered channel ("rtsp//ip:port/serial"): its
        // readers expect it so.
        return ConfigUrlOfDeviceRecord(GetDeviceInfoByID(m_arrRecordInfos, v->nDeviceID), "rtsp/",
                                       w, write);
    });
}

int ConfigUrlOfDomain(int nodeid, btext::Writer& w) {
    CatalogReadLock lock(csCatalog);
    const _domain_info* dom = GetDomainInfoByID(m_arrDomainFromDB, nodeid);
    if (!dom) return 0;
    w.Str("rtsp://").Field(dom->svr.szIP).Str(":").Int(dom->svr.nPort2);
    return 1;
}

// Which address builder serves a node type. Columns: node type; play-address builder;
// configuration-address builder (null: nothing is written and the answer is 1).
using UrlBuilder = int (*)(int nodeid, btext::Writer& w);
struct UrlRow {
    int nodeType;
    UrlBuilder play;
    UrlBuilder config;
};
const UrlRow kUrlTable[] = {
    {SERVER_NODE, nullptr, ConfigUrlOfServer},
    {DEVICE_NODE, PlayUrlOfDevice, ConfigUrlOfDevice},
    {DEVCHAN_NODE, PlayUrlOfChannel, ConfigUrlOfChannel},
    {SERVERCHAN_NODE, PlayUrlOfServerChan, ConfigUrlOfServerChan},
    {DOMAIN_NODE, nullptr, ConfigUrlOfDomain},
};

const UrlRow* FindUrlRow(int nodetype) {
    for (const UrlRow& row : kUrlTable)
        if (row.nodeType == nodetype) return &row;
    return nullptr;
}

}  // namespace

int GetUrlFromNode(int nodeid, int nodetype, char* url, size_t urlSize) {
    if (!url || urlSize == 0) return 0;
    const UrlRow* row = FindUrlRow(nodetype);
    if (!row || !row->play) return 1;  // an empty address counts as success, deliberately
    btext::Writer w(url, urlSize);
    return row->play(nodeid, w);
}

int GetConfigUrlFromNode(int nodeid, int nodetype, char* url, size_t urlSize) {
    if (!url || urlSize == 0) return 0;
    const UrlRow* row = FindUrlRow(nodetype);
    if (!row || !row->config) return 1;
    btext::Writer w(url, urlSize);
    return row->config(nodeid, w);
}

// ---- Link answers ----

namespace {

int LocalLinkInfo(const _msg_video_record_base* chan, _hcrecord_Info* d, _msg_link_info* link) {
    const _msg_region_base* regionRecord = GetRegion(m_arrRegionInfos, d->dev.nRegionID);
    const _dev_register* reg = RegistrationOf(d->dev.szSerial);
    int region = 0;
    if (reg) {
        ClearRegisteredDevice(d->dev);
        RegionOfRegistrationServer(*reg, region);  // region 0 when that server is missing
    } else if (regionRecord) {
        region = regionRecord->nID;
    } else {
        return 0;
    }
    char route[kRouteSize];
    RouteOf(region, route);
    btext::Writer w(link->szDirect, sizeof(link->szDirect));
    if (chan)
        WritePlayUrl(w, route, ConnOf(d->dev), false, View(chan->szSerial), chan->nChan);
    else
        WritePlayUrl(w, route, ConnOf(d->dev), false, View(d->dev.szSerial),
                     d->dev.nServerType == 0 ? 1 : 0);
    return 1;
}

int CascadedLinkInfo(const _hcrecord_Info& d, _msg_link_info* link) {
    const _domain_info* dom = GetDomainInfoByID(m_arrDomainFromDB, d.dev.nDomainID);
    if (!dom) return 1;  // resolved as cascaded, with nothing to say about its domain
    // A registered platform knows its devices by serial, the others by the domain code.
    if (dom->svr.nType == REG_DOMIAN)
        btext::CopyField(link->szDomainCode, d.dev.szSerial);
    else
        btext::CopyField(link->szDomainCode, dom->svr.szCode);
    link->nLinkMode = dom->svr.nLinkMode;
    return 1;
}

}  // namespace

int GetLinkInfoFromCode(const char* code, _msg_link_info* link) {
    if (!code || !link) return 0;
    std::printf("GetLinkInfoFromCode %s\n", code);
    bool found = false;
    int domainId = 0;
    int result = WithCatalog([&](bool write) {
        const _msg_video_record_base* chan = GetVideoChanInfoByCode(m_arrVideoChanInfos, code);
        _hcrecord_Info* d = chan ? GetDeviceInfoByID(m_arrRecordInfos, chan->nDeviceID)
                                 : GetDeviceInfoByCode(m_arrRecordInfos, code);
        if (!d) return 0;
        if (d->dev.nDomainID < 1 && NeedsWrite(*d, write)) return kNeedsWrite;
        found = true;
        domainId = d->dev.nDomainID;
        btext::Copy(link->szCode, code);
        if (d->dev.nDomainID >= 1) return CascadedLinkInfo(*d, link);
        return LocalLinkInfo(chan, d, link);
    });
    // Printed once the lock is let go.
    if (found) std::printf("GetLinkInfoFromCode dev domainid %d\n", domainId);
    return result;
}

// ---- Classification ----

namespace {

int ServerKind(const _sysserver_info* s) {
    if (!s) return DEVTYPE_UNKNOWN;
    if (s->svr.nServerType == SERVER_STORE) return DEVTYPE_RECORD;
    if (s->svr.nServerType == SERVER_INTV) return DEVTYPE_INTV;
    return DEVTYPE_UNKNOWN;
}

int DeviceKind(const _hcrecord_Info* d) {
    return d && d->dev.byResType == kIntvResType ? DEVTYPE_INTV : DEVTYPE_UNKNOWN;
}

}  // namespace

int GetDevTypeFromNode(int nodeid, int nodetype) {
    if (nodetype == SERVERCHAN_NODE) {
        _msg_serverchan_base chan{};
        if (!GetServerChan_FromDB(nodeid, &chan)) return DEVTYPE_UNKNOWN;
        nodeid = chan.nDevID;
        nodetype = SERVER_NODE;
    }
    CatalogReadLock lock(csCatalog);
    switch (nodetype) {
        case SERVER_NODE:
            return ServerKind(GetSystemSvrByID(nodeid, m_arrServerFromDB));
        case DEVICE_NODE:
            return DeviceKind(GetDeviceInfoByID(m_arrRecordInfos, nodeid));
        case DEVCHAN_NODE: {
            const _msg_video_record_base* v = GetVideoChanInfoByID(m_arrVideoChanInfos, nodeid);
            return v ? DeviceKind(GetDeviceInfoByID(m_arrRecordInfos, v->nDeviceID))
                     : DEVTYPE_UNKNOWN;
        }
        default:
            return DEVTYPE_UNKNOWN;
    }
}

int GetSerialFromNode(int nodeid, int nodetype, char* text, size_t textSize) {
    if (!text || textSize == 0) return 0;
    int chan = 0;
    if (nodetype == SERVERCHAN_NODE) {
        _msg_serverchan_base sc{};
        if (!GetServerChan_FromDB(nodeid, &sc)) return 0;
        chan = sc.nChan;
    } else if (nodetype == DEVCHAN_NODE) {
        CatalogReadLock lock(csCatalog);
        const _msg_video_record_base* v = GetVideoChanInfoByID(m_arrVideoChanInfos, nodeid);
        if (!v) return 0;
        chan = v->nChan;
    } else {
        return 1;
    }
    std::snprintf(text, textSize, "%d", chan);
    return 1;
}

// ---- Registrations and templates ----

_dev_register* GetRegMedia(const char* serial) {
    return GetRegMediaFromArray(m_arrMediaRegInfos, serial);
}

_RtspHelpString* GetRtspHelp(int type) {
    for (_RtspHelpString* t : m_arrRtspString)
        if (t->type == type && t->link == 1) return t;
    return nullptr;
}

namespace {

void Substitute(btext::Writer& w, std::string_view name, const char* ip, int port, const char* user,
                const char* pass, int chan, int stream) {
    if (name == "ip")
        w.Str(ip);
    else if (name == "port") {
        if (port > 0) w.Int(port);
    } else if (name == "user")
        w.Str(user);
    else if (name == "pass")
        w.Str(pass);
    else if (name == "chan")
        w.Int(chan);
    else if (name == "stream")
        w.Int(stream);
}

}  // namespace

int GetRtspUrl(char* url, const char* tmpl, const char* ip, int port, const char* user,
               const char* pass, int chan, int stream, size_t urlSize) {
    if (!url || !tmpl || !user || !pass || urlSize == 0) return 0;
    btext::Writer w(url, urlSize);
    w.Str("rtsp://");
    const char* p = tmpl;
    while (const char* open = std::strchr(p, '{')) {
        const char* close = std::strchr(open + 1, '}');
        if (!close) break;  // an unclosed brace stays literal text
        w.AddN(p, static_cast<size_t>(open - p));
        Substitute(w, std::string_view(open + 1, static_cast<size_t>(close - open - 1)), ip, port,
                   user, pass, chan, stream);
        p = close + 1;
    }
    w.Str(p);
    return 1;
}

// ---- Domain servers ----

namespace {

static_assert(sizeof(domain_base) == DOMAIN_BASE_SIZE, "domain_base wire size");
static_assert(offsetof(domain_base, nPort) == 252, "domain_base layout");
static_assert(offsetof(domain_base, szUser) == 260, "domain_base layout");
static_assert(offsetof(domain_base, nType) == 300, "domain_base layout");
static_assert(offsetof(domain_base, bAuth) == 312, "domain_base layout");

void PackDomainBase(const domain_base& d, unsigned char* slot) {
    std::memset(slot, 0, DOMAIN_BASE_SIZE);
#define PUT_TEXT(f) wire::PutText(slot + offsetof(domain_base, f), d.f, sizeof(d.f))
    PUT_TEXT(szSerial);
    PUT_TEXT(szIP);
    PUT_TEXT(szCode);
    PUT_TEXT(szParentCode);
    PUT_TEXT(szRegCode);
    PUT_TEXT(szUser);
    PUT_TEXT(szPass);
#undef PUT_TEXT
    wire::PutI32(slot + offsetof(domain_base, nPort), d.nPort);
    wire::PutI32(slot + offsetof(domain_base, nHttpPort), d.nHttpPort);
    wire::PutI32(slot + offsetof(domain_base, nType), d.nType);
    wire::PutI32(slot + offsetof(domain_base, nLinkMode), d.nLinkMode);
    wire::PutI32(slot + offsetof(domain_base, nPushMode), d.nPushMode);
    slot[offsetof(domain_base, bAuth)] = d.bAuth ? 1 : 0;
}

}  // namespace

int GetDomainServer(const char* code, char*& records, int& length) {
    if (!code) return 0;
    OwnedList<domain_base> list;
    if (!GetDomainSeverFromDB(code, list.v)) return 0;
    if (list.v.empty()) return 1;
    const size_t total = list.v.size() * DOMAIN_BASE_SIZE;
    std::unique_ptr<char[]> block(new char[total]());
    for (size_t i = 0; i < list.v.size(); ++i)
        PackDomainBase(*list.v[i],
                       reinterpret_cast<unsigned char*>(block.get()) + i * DOMAIN_BASE_SIZE);
    records = block.release();
    length = static_cast<int>(total);
    return 1;
}
