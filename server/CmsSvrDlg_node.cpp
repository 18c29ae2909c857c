// Node registration: nodes fetched by id or serial, and node trees pushed by lower domains
// (GB28181-style codes), inserted into the database and mirrored in the catalogue.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "comm/globle.h"
#include "comm/logtext.h"
#include "comm/mystring.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "server/CmsSvrDlg_handlers.h"

using namespace cmsmsg;

namespace {

// Serialises the look-up, insert and append of the root and the special regions, so that two
// pushes arriving together never create the same region twice. Held across the insert;
// taken before (never while holding) csCatalog.
std::mutex csRegionCreate;

// Serialises the look-up of a pushed code's row with its insert or update, so that two pushes
// of one new code add one row. Never nested with csRegionCreate; taken before csCatalog.
std::mutex csPushedRow;

constexpr size_t kGbCodeLength = 20;

// Runs an INSERT on `db`; the new id, or 0 when it failed. `sql` is overwritten.
int64_t InsertRow(CMysqlDB& db, char* sql) {
    int64_t id = 0;
    if (!db.Execute(sql, id)) return 0;
    return id;
}

// Cuts a UTF-8 name to the field without splitting a character.
void CopyName(char (&out)[sizeof(_msg_region_base::szName)], const char* name) {
    size_t n = strnlen(name, sizeof(out) - 1);
    if (name[n])
        while (n > 0 && (static_cast<unsigned char>(name[n]) & 0xC0) == 0x80) --n;
    std::memcpy(out, name, n);
    out[n] = '\0';
}

std::unique_ptr<_msg_region_base> NewRegion(int id, const char* name, const char* serial, int type,
                                            int parent) {
    auto r = std::make_unique<_msg_region_base>();
    r->nID = id;
    CopyName(r->szName, name);
    CopyText(r->szSerial, serial);
    r->nType = type;
    r->nParentID = parent;
    return r;
}

void AppendRegion(int id, const char* name, const char* serial, int type, int parent) {
    auto r = NewRegion(id, name, serial, type, parent);
    CatalogWriteLock lock(csCatalog);
    m_arrRegionInfos.push_back(r.release());
}

int RegionId(_msg_region_base* r) { return r ? r->nID : 0; }

// The statements that create the root and a typed region. A push that creates one keeps its
// text as the node statement (see InsertGbNode).
void RootRegionSql(char* sql, size_t size) {
    std::snprintf(sql, size, "insert into region(name) values (\"%s\")", ROOT_REGION_NAME);
}

void TypedRegionSql(char* sql, size_t size, int type, const char* name, int rootId) {
    std::snprintf(sql, size, "insert into region(name,parentid,regtype) values(\"%s\",%d,%d)", name,
                  rootId, type);
}

_hcrecord_Info* KnownRecord(const std::vector<_hcrecord_Info*>& v, const _hcrecord_Info* r) {
    return GetDeviceInfoByID(v, r->dev.nID);
}
_sysserver_info* KnownRecord(const std::vector<_sysserver_info*>& v, const _sysserver_info* r) {
    return GetSystemSvrByID(r->svr.nID, v);
}
_domain_info* KnownRecord(const std::vector<_domain_info*>& v, const _domain_info* r) {
    return GetDomainInfoByID(v, r->svr.nID);
}

template <class T, class Load>
T* AppendFirstRow(CMysqlDB& db, const char* sql, Load load, std::vector<T*>& into) {
    std::vector<T*> rows;
    load(&db, sql, rows);
    if (rows.empty()) return nullptr;
    T* first = rows.front();
    rows.erase(rows.begin());
    ReleaseArray(rows);
    CatalogWriteLock lock(csCatalog);
    // A row the catalogue holds already (fetched by a serial spelt otherwise than in the
    // catalogue) is that record: appending it again would leave one orphan per fetch.
    if (T* known = KnownRecord(into, first)) {
        delete first;
        return known;
    }
    into.push_back(first);
    return first;
}

// Fetches one node row of `type` with `sql` and appends it to its catalogue vector.
void* AppendNodeRow(CMysqlDB& db, int type, const char* sql) {
    switch (type) {
        case DEVICE_NODE:
            return AppendFirstRow(db, sql, GetVideoDev_FromDB, m_arrRecordInfos);
        case DOMAIN_NODE:
            return AppendFirstRow(db, sql, GetDomain_FromDB, m_arrDomainFromDB);
        case SERVER_NODE:
            return AppendFirstRow(db, sql, GetSystemServer_FromDB, m_arrServerFromDB);
        default:
            return nullptr;
    }
}

const char* NodeTable(int type) {
    switch (type) {
        case DEVICE_NODE:
            return "device";
        case DOMAIN_NODE:
            return "domaininfo";
        case SERVER_NODE:
            return "serverinfo";
        default:
            return nullptr;
    }
}

// ---- Pushed nodes ----

// One pushed node being inserted, with what the steps learn on the way.
struct PushedNode {
    _msg_domain_info node;  // terminated copy
    char name[200];         // UTF-8 display name
    char escName[401];      // name and code escaped for quoted SQL literals
    char escCode[61];
    int rootId;
    int domainId;
    int lastRegionInsert;  // id of the last region this call inserted, 0 when none
    char sql[1024];        // the statement of the node row
};

void PrepareNode(const _msg_domain_info* in, PushedNode& p) {
    std::memcpy(&p.node, in, sizeof(p.node));
    _msg_domain_info& n = p.node;
    n.szCode[sizeof(n.szCode) - 1] = '\0';
    n.szParentCode[sizeof(n.szParentCode) - 1] = '\0';
    n.szCityCode[sizeof(n.szCityCode) - 1] = '\0';
    n.szDomainCode[sizeof(n.szDomainCode) - 1] = '\0';
    n.szName[sizeof(n.szName) - 1] = '\0';
}

// The converter takes one length for input and output, so the name is padded with zeros to
// the output size: the whole name then fits, and only the zero tail may fail to convert.
void ConvertName(CMysqlDB& db, PushedNode& p) {
    char gb[sizeof(p.name)] = {};
    std::memcpy(gb, p.node.szName, sizeof(p.node.szName));
    int left = 0;
    CHARToUTF8(gb, sizeof(gb), p.name, left);
    p.name[sizeof(p.name) - 1] = '\0';
    EscapeSql(&db, p.name, p.escName, sizeof(p.escName));
    EscapeSql(&db, p.node.szCode, p.escCode, sizeof(p.escCode));
}

int RegionIdBySerial(const char* code) {
    CatalogReadLock lock(csCatalog);
    return RegionId(GetRegionInfobySerial(m_arrRegionInfos, code));
}

int RegionIdByType(int type) {
    CatalogReadLock lock(csCatalog);
    return RegionId(GetRegionInfobyType(m_arrRegionInfos, type));
}

bool DeviceIdBySerial(const char* serial, int& id) {
    CatalogReadLock lock(csCatalog);
    _hcrecord_Info* d = GetDeviceInfoBySerial(m_arrRecordInfos, serial);
    if (d) id = d->dev.nID;
    return d != nullptr;
}

bool ChannelExists(const char* serial) {
    CatalogReadLock lock(csCatalog);
    return GetVideoChanInfoBySerial(m_arrVideoChanInfos, serial) != nullptr;
}

int NonstandardRegion(CMysqlDB& db, PushedNode& p) {
    int created = 0;
    int id =
        EnsureTypedRegion(db, REGION_TYPE_NONSTANDARD, NONSTANDARD_REGION_NAME, p.rootId, &created);
    if (created) {
        p.lastRegionInsert = created;
        TypedRegionSql(p.sql, sizeof(p.sql), REGION_TYPE_NONSTANDARD, NONSTANDARD_REGION_NAME,
                       p.rootId);
    }
    return id;
}

// ---- Re-pushed nodes ----
// A lower domain re-pushes its whole tree on every reconnect: a region or device whose code
// already has a row in the same domain updates that row instead of adding another.

// The id of the row of `table` holding the pushed code in the pushed domain; 0 when none.
int ExistingRow(CMysqlDB& db, const char* table, const PushedNode& p) {
    char sql[256];
    std::snprintf(sql, sizeof(sql),
                  "select id from %s where scode='%s' and domainid=%d order by id limit 1", table,
                  p.escCode, p.domainId);
    CMysqlRecordSet rs;
    char id[24] = {};
    if (!rs.Open(&db, sql)) return 0;
    if (rs.MoveNext()) rs.GetFieldValue("id", id);
    rs.Close();
    return std::atoi(id);
}

// The catalogue mirror of a re-pushed row (a region record of the row's id and the code)
// takes the new name and parent; one missing since a reload is added as an insert adds it.
// A device row loaded as a device record takes them too.
void RefreshMirror(int id, const PushedNode& p, int parentId, bool device) {
    auto fresh = NewRegion(id, p.name, p.node.szCode, 0, parentId);
    CatalogWriteLock lock(csCatalog);
    if (device)
        if (_hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, id)) {
            CopyText(d->dev.szName, p.name);
            d->dev.nRegionID = parentId;
        }
    _msg_region_base* r = GetRegionInfobySerial(m_arrRegionInfos, p.node.szCode);
    if (!r || r->nID != id) r = GetRegionInfobyID(m_arrRegionInfos, id);
    if (r && r->nID == id && std::strcmp(r->szSerial, p.node.szCode) == 0) {
        CopyName(r->szName, p.name);
        r->nParentID = parentId;
        return;
    }
    m_arrRegionInfos.push_back(fresh.release());
}

// Updates row `id` with the statement in p.sql; the id, or 0 when it failed.
long UpdateExisting(CMysqlDB& db, PushedNode& p, int id, int parentId, bool device) {
    if (!db.Execute(p.sql)) return 0;
    RefreshMirror(id, p, parentId, device);
    return id;
}

void ComposeRegionUpdate(PushedNode& p, int id, int parentId) {
    std::snprintf(p.sql, sizeof(p.sql), "update region set name=\"%s\",parentid=%d where id=%d",
                  p.escName, parentId, id);
}

// The parent code of a 20-character code: the pushed one, else the code up to its first "00".
void GbParentCode(const _msg_domain_info& n, char (&out)[sizeof(n.szCode)]) {
    if (n.szParentCode[0]) {
        CopyText(out, n.szParentCode);
        return;
    }
    out[0] = '\0';
    if (const char* zeros = std::strstr(n.szCode, "00")) {
        size_t len = static_cast<size_t>(zeros - n.szCode);
        std::memcpy(out, n.szCode, len);
        out[len] = '\0';
    }
}

int ShiftedStatus(int status) { return static_cast<int>(static_cast<uint32_t>(status) << 16); }

// Below a known device a 20-character code is one of its channels, otherwise a device.
// Sets `existing` to the id of the device row a re-push updates.
void ComposeGbDeviceOrChannel(CMysqlDB& db, PushedNode& p, const char* parentCode, int parentId,
                              int& existing) {
    const _msg_domain_info& n = p.node;
    int deviceId = 0;
    if (DeviceIdBySerial(parentCode, deviceId)) {
        // An existing channel composes nothing. devid is the last region this call inserted,
        // not the device: rows have always been written so.
        if (ChannelExists(n.szCode)) return;
        std::snprintf(p.sql, sizeof(p.sql),
                      "insert into devicechan(name,type,sn,scode,devid,domainid,status) "
                      "values('%s',1,'%s','%s',%d,%d,%d)",
                      p.escName, p.escCode, p.escCode, p.lastRegionInsert, p.domainId,
                      ShiftedStatus(n.nStatus));
        return;
    }
    if ((existing = ExistingRow(db, "device", p))) {
        std::snprintf(p.sql, sizeof(p.sql),
                      "update device set name='%s',regionid=%d,status=%d where id=%d", p.escName,
                      parentId, ShiftedStatus(n.nStatus), existing);
        return;
    }
    std::snprintf(p.sql, sizeof(p.sql),
                  "insert into device(name,hardwaretype,ftype,sn,scode,regionid,domainid,status) "
                  "values('%s',1,%d,'%s','%s',%d,%d,%d)",
                  p.escName, 3, p.escCode, p.escCode, parentId, p.domainId,
                  ShiftedStatus(n.nStatus));
}

long InsertGbNode(CMysqlDB& db, PushedNode& p) {
    char parentCode[sizeof(p.node.szCode)];
    GbParentCode(p.node, parentCode);
    int parentId = RegionIdBySerial(parentCode);
    if (!parentId && !(parentId = NonstandardRegion(db, p))) return 0;
    std::lock_guard<std::mutex> row(csPushedRow);
    int existing = 0;
    const bool region = IsNodeGbRegion(p.node.szCode) == 1;
    if (region && (existing = ExistingRow(db, "region", p)))
        ComposeRegionUpdate(p, existing, parentId);
    else if (region)
        std::snprintf(p.sql, sizeof(p.sql),
                      "insert into region(name,sn,scode,parentid,domainid) values "
                      "(\"%s\",\"%s\",\"%s\",%d,%d)",
                      p.escName, p.escCode, p.escCode, parentId, p.domainId);
    else
        ComposeGbDeviceOrChannel(db, p, parentCode, parentId, existing);
    // An existing channel composes nothing: the statement is then whatever region insert
    // this call made (run once more), or empty.
    printf("insert node %s \n", p.sql);
    if (!p.sql[0]) return 0;  // an empty statement inserts nothing
    if (existing) return UpdateExisting(db, p, existing, parentId, !region);
    long id = static_cast<long>(InsertRow(db, p.sql));
    // The catalogue mirrors every pushed node as a region, whichever table took the row.
    if (id) AppendRegion(static_cast<int>(id), p.name, p.node.szCode, 0, parentId);
    return id;
}

// Short administrative codes carry two digits per level.
long InsertShortCodeRegion(CMysqlDB& db, PushedNode& p) {
    const char* code = p.node.szCode;
    const size_t len = std::strlen(code);
    int parentId = 0;
    if (len == 2) {
        parentId = p.rootId;
    } else if (len > 2) {
        char parentCode[sizeof(p.node.szCode)] = {};
        std::memcpy(parentCode, code, len - 2);
        parentId = RegionIdBySerial(parentCode);
        if (!parentId) parentId = RegionIdByType(REGION_TYPE_NONSTANDARD);
    }
    if (!parentId && !(parentId = NonstandardRegion(db, p))) return 0;
    std::lock_guard<std::mutex> row(csPushedRow);
    if (int existing = ExistingRow(db, "region", p)) {
        ComposeRegionUpdate(p, existing, parentId);
        return UpdateExisting(db, p, existing, parentId, false);
    }
    std::snprintf(p.sql, sizeof(p.sql),
                  "insert into region(name,sn,scode,parentid,domainid,usecode) values "
                  "(\"%s\",\"%s\",\"%s\",%d,%d,1)",
                  p.escName, p.escCode, p.escCode, parentId, p.domainId);
    long id = static_cast<long>(InsertRow(db, p.sql));
    if (id) AppendRegion(static_cast<int>(id), p.name, code, 0, parentId);
    return id;
}

// Without a domain the owner code may name a device that pushes its own channels.
long InsertOwnChannel(CMysqlDB& db, PushedNode& p) {
    int deviceId = 0;
    if (!DeviceIdBySerial(p.node.szDomainCode, deviceId)) return 0;
    if (ChannelExists(p.node.szCode)) return 0;
    std::snprintf(p.sql, sizeof(p.sql),
                  "insert into devicechan(name,sn,devid) values (\"%s\",\"%s\",%d)", p.escName,
                  p.escCode, deviceId);
    return static_cast<long>(InsertRow(db, p.sql));
}

long InsertPushedNode(CMysqlDB& db, PushedNode& p) {
    int created = 0;
    p.rootId = EnsureRootRegion(db, &created);
    if (!p.rootId) return 0;
    if (created) {
        p.lastRegionInsert = created;
        RootRegionSql(p.sql, sizeof(p.sql));
    }
    if (!FindDomainIdByCode(p.node.szDomainCode, p.domainId)) return InsertOwnChannel(db, p);
    const size_t len = std::strlen(p.node.szCode);
    if (len == 0 || len > kGbCodeLength) return 0;
    if (len == kGbCodeLength) return InsertGbNode(db, p);
    return InsertShortCodeRegion(db, p);
}

}  // namespace

namespace cmsmsg {

bool FindDomainIdByCode(const char* code, int& domainId) {
    CatalogReadLock lock(csCatalog);
    _domain_info* d = GetDomainInfoByCode(m_arrDomainFromDB, code);
    if (!d) return false;
    domainId = d->svr.nID;
    return true;
}

int EnsureRootRegion(CMysqlDB& db, int* inserted) {
    std::lock_guard<std::mutex> create(csRegionCreate);
    {
        CatalogReadLock lock(csCatalog);
        if (_msg_region_base* root = GetRootRegion(m_arrRegionInfos)) return root->nID;
    }
    char sql[256];
    RootRegionSql(sql, sizeof(sql));
    int id = static_cast<int>(InsertRow(db, sql));
    if (!id) return 0;
    AppendRegion(id, ROOT_REGION_NAME, "", 0, 0);
    if (inserted) *inserted = id;
    return id;
}

int EnsureTypedRegion(CMysqlDB& db, int type, const char* name, int rootId, int* inserted) {
    std::lock_guard<std::mutex> create(csRegionCreate);
    if (int id = RegionIdByType(type)) return id;
    char sql[256];
    TypedRegionSql(sql, sizeof(sql), type, name, rootId);
    int id = static_cast<int>(InsertRow(db, sql));
    if (!id) return 0;
    AppendRegion(id, name, "", type, rootId);
    if (inserted) *inserted = id;
    return id;
}

}  // namespace cmsmsg

// Both return the appended catalogue record, or null. The record may be released by a
// reload once csCatalog is free, so callers use the result as a found/not-found answer and
// look the node up again under the lock to touch it.
void* CCMSSvrDlg::AddNode(int id, int type) {
    const char* table = NodeTable(type);
    if (!table) return nullptr;
    CMysqlDB db;
    if (!ConnectDB(&db)) return nullptr;
    char sql[128];
    std::snprintf(sql, sizeof(sql), "select * from %s where id=%d", table, id);
    void* record = AppendNodeRow(db, type, sql);
    CloseDB(&db);
    return record;
}

void* CCMSSvrDlg::AddNodeFromSerial(const char* serial, int type) {
    const char* table = NodeTable(type);
    if (!table || !serial) return nullptr;
    CMysqlDB db;
    if (!ConnectDB(&db)) return nullptr;
    char escaped[256];
    EscapeSql(&db, serial, escaped, sizeof(escaped));
    char sql[384];
    std::snprintf(sql, sizeof(sql), "select * from %s where sn='%s'", table, escaped);
    void* record = AppendNodeRow(db, type, sql);
    CloseDB(&db);
    return record;
}

long CCMSSvrDlg::ProcessNode(_msg_domain_info* node) {
    if (!node) return 0;
    PushedNode p{};
    PrepareNode(node, p);
    // The domain itself is never inserted as its own child.
    if (std::strcmp(p.node.szCode, p.node.szDomainCode) == 0) return 0;
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    ConvertName(db, p);
    printf("ProcessNode name:%s code:%s parent:%s city:%s domain:%s\n", LogText(p.name).c_str(),
           LogText(p.node.szCode).c_str(), LogText(p.node.szParentCode).c_str(),
           LogText(p.node.szCityCode).c_str(), LogText(p.node.szDomainCode).c_str());
    long id = InsertPushedNode(db, p);
    CloseDB(&db);
    return id;
}
