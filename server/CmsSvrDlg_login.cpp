// Login by serial on the message protocol: devices, then servers, then domains. A serial
// unknown to memory is fetched from the database once before the next kind is tried.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "VornNetSDK.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/eventwriter.h"
#include "mysql/sqldbop.h"
#include "nodes/subreg.h"
#include "server/CmsSvrDlg.h"
#include "server/CmsSvrDlg_handlers.h"

using namespace cmsmsg;

namespace {

// Clears the off-line flag of a status word; true when it was set.
template <class Status>
bool ClearOfflineFlag(Status& status) {
    if (!(static_cast<unsigned int>(status) & NODE_OFFLINE_FLAG)) return false;
    status = static_cast<Status>(static_cast<unsigned int>(status) & ~NODE_OFFLINE_FLAG);
    return true;
}

// Marks the server with `serial` as logged in; `copy` receives the record as it is then.
bool LoginServer(const char* serial, int clientId, _sysserver_info& copy, bool& backOnline) {
    CatalogWriteLock lock(csCatalog);
    _sysserver_info* s = GetSystemSvrBySerial(serial, m_arrServerFromDB);
    if (!s) return false;
    s->lLoginID = clientId;
    backOnline = ClearOfflineFlag(s->svr.nState);
    copy = *s;
    return true;
}

struct DomainLogin {
    int nType = 0;
    int nPort2 = 0;
    char szIP[sizeof(_msg_domain_base::szIP)] = {};
    char szCode[sizeof(_msg_domain_base::szCode)] = {};
};

bool LoginDomain(const char* serial, int clientId, DomainLogin& out) {
    CatalogWriteLock lock(csCatalog);
    _domain_info* d = GetDomainInfoBySerial(m_arrDomainFromDB, serial);
    if (!d) return false;
    d->lLoginID = clientId;
    out.nType = d->svr.nType;
    out.nPort2 = d->svr.nPort2;
    CopyText(out.szIP, d->svr.szIP);
    CopyText(out.szCode, d->svr.szCode);
    return true;
}

// Registrations this server no longer lists: marked gone in the catalogue and copied out, the
// last one first, so the merge can drop them without holding the lock.
std::vector<_dev_register> MarkGoneRegistrations(const std::vector<_dev_register*>& fetched) {
    std::vector<_dev_register> gone;
    CatalogWriteLock lock(csCatalog);
    for (size_t i = m_arrMediaRegInfos.size(); i-- > 0;) {
        _dev_register* entry = m_arrMediaRegInfos[i];
        if (GetMediaRegistInfoBySerial(fetched, entry->serial)) continue;
        entry->state = 1;
        gone.push_back(*entry);
    }
    return gone;
}

// A media server's registrations replace what the catalogue knew of them.
void MergeMediaRegistrations(_sysserver_info& server) {
    char url[200];
    std::snprintf(url, sizeof(url), "rtsp://%s:%d", server.svr.szIP, server.svr.nPort);
    std::vector<_dev_register*> fetched;
    if (GetMediaRegistor(url, fetched) == 1) {
        for (_dev_register& entry : MarkGoneRegistrations(fetched)) ProcessSubDev(&server, &entry);
        for (_dev_register* entry : fetched) ProcessSubDev(&server, entry);
    }
    ReleaseArray(fetched);
}

void FetchSubDomains(const DomainLogin& domain) {
    char url[200];
    std::snprintf(url, sizeof(url), "rtsp://%s:%d", domain.szIP, domain.nPort2);
    std::vector<_dev_register*> list;
    if (GetDomainRegistor(url, list))
        for (_dev_register* entry : list) ProcessSubDomian(entry);
    ReleaseArray(list);
}

bool LoginAsDevice(const MsgContext& m, const char* serial) {
    char name[sizeof(_msg_recorddevice_base::szName)] = {};
    if (!LoginDevice(serial, m.clientId, name, sizeof(name))) {
        if (!m.self->AddNodeFromSerial(serial, DEVICE_NODE)) return false;
        if (!LoginDevice(serial, m.clientId, name, sizeof(name))) return false;
    }
    printf("dev %s regist\n", name);
    return true;
}

bool LoginAsServer(const MsgContext& m, const char* serial) {
    _sysserver_info server{};
    bool backOnline = false;
    if (!LoginServer(serial, m.clientId, server, backOnline)) {
        if (!m.self->AddNodeFromSerial(serial, SERVER_NODE)) return false;
        if (!LoginServer(serial, m.clientId, server, backOnline)) return false;
    }
    if (backOnline) ReportBackOnline(server.svr.nID, SERVER_NODE, server.svr.nState);
    if (server.svr.nServerType == SERVER_MEDIA && server.svr.nPropertyType == 0)
        MergeMediaRegistrations(server);
    printf("server %s regist\n", server.svr.szIP);
    return true;
}

// A domain's off-line flag is left alone on this path.
bool LoginAsDomain(const MsgContext& m, const char* serial) {
    DomainLogin domain;
    if (!LoginDomain(serial, m.clientId, domain)) {
        if (!m.self->AddNodeFromSerial(serial, DOMAIN_NODE)) return false;
        if (!LoginDomain(serial, m.clientId, domain)) return false;
    }
    if (domain.nType != 0) FetchSubDomains(domain);
    printf("domain %s regist\n", domain.szCode);
    return true;
}

}  // namespace

namespace cmsmsg {

void ReportBackOnline(int id, int nodeType, unsigned int status) {
    UpdateNodeStatus(id, nodeType, status);
    WrightMySqlRunInfo(0, id, nodeType, 2, 0, "设备上线");
}

bool LoginDevice(const char* serial, int clientId, char* name, size_t nameSize) {
    int id = 0;
    unsigned int status = 0;
    bool backOnline = false;
    {
        CatalogWriteLock lock(csCatalog);
        _hcrecord_Info* d = GetDeviceInfoBySerial(m_arrRecordInfos, serial);
        if (!d) return false;
        d->lLoginID = clientId;
        backOnline = ClearOfflineFlag(d->dev.nStatus);
        id = d->dev.nID;
        status = d->dev.nStatus;
        if (name) CopyText(name, nameSize, d->dev.szName);
    }
    if (backOnline) ReportBackOnline(id, DEVICE_NODE, status);
    return true;
}

// The payload is the sender's serial (the table caps it at 99 bytes).
void OnLogin(const MsgContext& m) {
    char serial[100] = {};
    std::memcpy(serial, m.payload, std::min(static_cast<size_t>(m.length), sizeof(serial) - 1));
    bool known = LoginAsDevice(m, serial) || LoginAsServer(m, serial) || LoginAsDomain(m, serial);
    if (!known) printf("%s notfind \n", serial);
    VornServerSendState(m.clientId, known ? 0 : 1);
}

}  // namespace cmsmsg
