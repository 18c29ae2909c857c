// Node records pushed by lower domains and devices (CMS_MSG_PUSH_DATA), by push sub-type.
#include <cstdio>
#include <cstring>

#include "comm/globle.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "server/CmsSvrDlg_handlers.h"

using namespace cmsmsg;

namespace {

using PushHandler = void (*)(const MsgContext& m, _msg_domain_info& node);

// A domain announces itself: it is on line again.
void PushDomainOnline(const MsgContext&, _msg_domain_info& node) {
    int id = 0;
    unsigned int state = 0;
    {
        CatalogWriteLock lock(csCatalog);
        _domain_info* d = GetDomainInfoByCode(m_arrDomainFromDB, node.szCode);
        if (!d || !(static_cast<unsigned int>(d->svr.nState) & NODE_OFFLINE_FLAG)) return;
        d->svr.nState =
            static_cast<int>(static_cast<unsigned int>(d->svr.nState) & ~NODE_OFFLINE_FLAG);
        id = d->svr.nID;
        state = static_cast<unsigned int>(d->svr.nState);
    }
    ReportBackOnline(id, DOMAIN_NODE, state);
}

// Accepted and looked up; nothing follows from it.
void PushDomainKnown(const MsgContext&, _msg_domain_info& node) {
    CatalogReadLock lock(csCatalog);
    GetDomainInfoByCode(m_arrDomainFromDB, node.szCode);
}

// A device of an unknown serial registers itself: the row points at the root region while
// the catalogue files it under the registration region, as registered devices always were.
void CreatePushedDevice(CMysqlDB& db, const MsgContext& m, const _msg_domain_info& node) {
    int rootId = EnsureRootRegion(db);
    int domainId = 0;
    if (!rootId || !FindDomainIdByCode(node.szDomainCode, domainId)) return;
    int registerId = EnsureTypedRegion(db, REGION_TYPE_REGISTER, REGISTER_REGION_NAME, rootId);
    if (registerId <= 0) return;
    char serial[2 * sizeof(node.szCode) + 1];
    EscapeSql(&db, node.szCode, serial, sizeof(serial));
    char sql[256];
    std::snprintf(sql, sizeof(sql),
                  "insert into device (name,sn,ftype,regionid,domainid) values "
                  "(\"%s\",\"%s\",%d,%d,%d)",
                  serial, serial, 3, rootId, domainId);
    int64_t id = 0;
    if (!db.Execute(sql, id) || !id) return;
    auto* dev = new _hcrecord_Info{};
    dev->dev.nID = static_cast<int>(id);
    CopyText(dev->dev.szSerial, node.szCode);
    dev->dev.nHardType = 2;
    dev->dev.nServerType = 3;
    dev->dev.nRegionID = registerId;
    dev->dev.nDomainID = domainId;
    dev->lLoginID = m.clientId;
    CatalogWriteLock lock(csCatalog);
    m_arrRecordInfos.push_back(dev);
}

void PushDeviceLogin(const MsgContext& m, _msg_domain_info& node) {
    SerialGuard guard(node.szCode);  // two pushes of one new serial add one device
    if (LoginDevice(node.szCode, m.clientId)) return;
    CMysqlDB db;
    if (!ConnectDB(&db)) return;
    CreatePushedDevice(db, m, node);
    CloseDB(&db);
}

void PushDeviceLink(const MsgContext& m, _msg_domain_info& node) {
    CatalogWriteLock lock(csCatalog);
    if (_hcrecord_Info* d = GetDeviceInfoBySerial(m_arrRecordInfos, node.szCode))
        d->lLoginID = m.clientId;
}

void PushNode(const MsgContext& m, _msg_domain_info& node) { m.self->ProcessNode(&node); }

// Push sub-types (the record's first field) and their handlers; other values are ignored.
struct PushRoute {
    int type;
    PushHandler handler;
};
constexpr PushRoute kPushRoutes[] = {
    {1, PushDomainOnline}, {2, PushDomainKnown}, {3, PushDeviceLogin},
    {4, PushDeviceLink},   {5, PushNode},
};

}  // namespace

namespace cmsmsg {

// The table guarantees a whole record; text fields are terminated before any look-up.
void OnPushData(const MsgContext& m) {
    _msg_domain_info node{};
    std::memcpy(&node, m.payload, sizeof(node));
    node.szCode[sizeof(node.szCode) - 1] = '\0';
    node.szParentCode[sizeof(node.szParentCode) - 1] = '\0';
    node.szCityCode[sizeof(node.szCityCode) - 1] = '\0';
    node.szDomainCode[sizeof(node.szDomainCode) - 1] = '\0';
    node.szName[sizeof(node.szName) - 1] = '\0';
    for (const PushRoute& route : kPushRoutes)
        if (route.type == node.nType) return route.handler(m, node);
}

}  // namespace cmsmsg
