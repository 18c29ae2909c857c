// Login by serial on the message protocol: devices, then servers, then domains. A serial
// unknown to memory is fetched from the database once before the next kind is tried.
// Only a device the catalogue knows is answered on the listener's thread; everything that
// waits on the database or a sub-server runs on the client's queue, in the client's order.
#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "VornNetSDK.h"
#include "comm/globle.h"
#include "comm/logtext.h"
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

// Whether the catalogue holds a node of `serial`, under the read lock: most logins of a
// flood are of serials the catalogue lacks, and they need not wait for one another.
template <class Find, class V>
bool Known(const char* serial, Find find, const V& v) {
    CatalogReadLock lock(csCatalog);
    return find(serial, v) != nullptr;
}

_domain_info* DomainBySerial(const char* serial, const std::vector<_domain_info*>& v) {
    return GetDomainInfoBySerial(v, serial);
}
_hcrecord_Info* DeviceBySerial(const char* serial, const std::vector<_hcrecord_Info*>& v) {
    return GetDeviceInfoBySerial(v, serial);
}

// Marks `s` (or the server with `serial` when `s` is null) as logged in; `copy` receives
// the record as it is then. For a record that AddNodeFromSerial returned, whose serial may be
// spelt otherwise than the login's (the database compares without letter case or trailing
// blanks), so a second look-up by the login's serial would miss it.
bool LoginServer(const char* serial, _sysserver_info* s, int clientId, _sysserver_info& copy,
                 bool& backOnline) {
    if (!s && !Known(serial, GetSystemSvrBySerial, m_arrServerFromDB)) return false;
    CatalogWriteLock lock(csCatalog);
    if (!s) s = GetSystemSvrBySerial(serial, m_arrServerFromDB);
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

// As LoginServer.
bool LoginDomain(const char* serial, _domain_info* d, int clientId, DomainLogin& out) {
    if (!d && !Known(serial, DomainBySerial, m_arrDomainFromDB)) return false;
    CatalogWriteLock lock(csCatalog);
    if (!d) d = GetDomainInfoBySerial(m_arrDomainFromDB, serial);
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

// The kind's in-memory login, else the row fetched by serial, under the serial's guard so
// that two logins of one serial never both fetch and append it.
template <class Login>
bool LoginOrFetch(const MsgContext& m, const char* serial, int type, Login login) {
    SerialGuard guard(serial);
    if (login(nullptr)) return true;
    void* record = m.self->AddNodeFromSerial(serial, type);
    return record && login(record);
}

bool LoginAsDevice(const MsgContext& m, const char* serial) {
    DeviceLogin dev;
    bool found = LoginOrFetch(m, serial, DEVICE_NODE, [&](void* record) {
        return TakeDeviceLogin(serial, static_cast<_hcrecord_Info*>(record), m.clientId, dev);
    });
    if (!found) return false;
    if (dev.backOnline) ReportBackOnline(dev.id, DEVICE_NODE, dev.status);
    printf("dev %s regist\n", LogText(dev.name).c_str());
    return true;
}

bool LoginAsServer(const MsgContext& m, const char* serial) {
    _sysserver_info server{};
    bool backOnline = false;
    bool found = LoginOrFetch(m, serial, SERVER_NODE, [&](void* record) {
        return LoginServer(serial, static_cast<_sysserver_info*>(record), m.clientId, server,
                           backOnline);
    });
    if (!found) return false;
    if (backOnline) ReportBackOnline(server.svr.nID, SERVER_NODE, server.svr.nState);
    if (server.svr.nServerType == SERVER_MEDIA && server.svr.nPropertyType == 0)
        MergeMediaRegistrations(server);
    printf("server %s regist\n", LogText(server.svr.szIP).c_str());
    return true;
}

// A domain's off-line flag is left alone on this path.
bool LoginAsDomain(const MsgContext& m, const char* serial) {
    DomainLogin domain;
    bool found = LoginOrFetch(m, serial, DOMAIN_NODE, [&](void* record) {
        return LoginDomain(serial, static_cast<_domain_info*>(record), m.clientId, domain);
    });
    if (!found) return false;
    if (domain.nType != 0) FetchSubDomains(domain);
    printf("domain %s regist\n", LogText(domain.szCode).c_str());
    return true;
}

// Runs on the client's queue: every step may wait on the database or a sub-server.
void LoginBySerial(const MsgContext& m, const char* serial) {
    bool known = LoginAsDevice(m, serial) || LoginAsServer(m, serial) || LoginAsDomain(m, serial);
    if (!known) printf("%s notfind \n", LogText(serial).c_str());
    VornServerSendState(m.clientId, known ? 0 : 1);
}

// Keys of the serials in flight, compared as the database compares them.
std::mutex csSerialsInFlight;  // guards serialsInFlight
std::condition_variable serialReleased;
std::unordered_set<std::string> serialsInFlight;

std::string SerialKey(const char* serial) {
    std::string key(serial ? serial : "");
    while (!key.empty() && key.back() == ' ') key.pop_back();
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return key;
}

}  // namespace

namespace cmsmsg {

void ReportBackOnline(int id, int nodeType, unsigned int status) {
    UpdateNodeStatus(id, nodeType, status);
    WrightMySqlRunInfo(0, id, nodeType, 2, 0, "设备上线");
}

SerialGuard::SerialGuard(const char* serial) : m_key(SerialKey(serial)) {
    std::unique_lock<std::mutex> lock(csSerialsInFlight);
    serialReleased.wait(lock, [this] { return serialsInFlight.insert(m_key).second; });
}

SerialGuard::~SerialGuard() {
    {
        std::lock_guard<std::mutex> lock(csSerialsInFlight);
        serialsInFlight.erase(m_key);
    }
    serialReleased.notify_all();
}

bool TakeDeviceLogin(const char* serial, _hcrecord_Info* d, int clientId, DeviceLogin& out) {
    if (!d && !Known(serial, DeviceBySerial, m_arrRecordInfos)) return false;
    CatalogWriteLock lock(csCatalog);
    if (!d) d = GetDeviceInfoBySerial(m_arrRecordInfos, serial);
    if (!d) return false;
    d->lLoginID = clientId;
    out.backOnline = ClearOfflineFlag(d->dev.nStatus);
    out.id = d->dev.nID;
    out.status = d->dev.nStatus;
    CopyText(out.name, d->dev.szName);
    return true;
}

bool LoginDevice(const char* serial, int clientId) {
    DeviceLogin dev;
    if (!TakeDeviceLogin(serial, nullptr, clientId, dev)) return false;
    if (dev.backOnline) ReportBackOnline(dev.id, DEVICE_NODE, dev.status);
    return true;
}

// The payload is the sender's serial (the table caps it at 99 bytes). A device that the
// catalogue knows is answered at once, its status row written after, in the client's order;
// any other login may need the database or a sub-server and goes to the client's queue.
void OnLogin(const MsgContext& m) {
    char serial[100] = {};
    std::memcpy(serial, m.payload, std::min(static_cast<size_t>(m.length), sizeof(serial) - 1));
    DeviceLogin dev;
    if (TakeDeviceLogin(serial, nullptr, m.clientId, dev)) {
        printf("dev %s regist\n", LogText(dev.name).c_str());
        VornServerSendState(m.clientId, 0);
        if (dev.backOnline)
            RunInOrder(m, [dev] { ReportBackOnline(dev.id, DEVICE_NODE, dev.status); });
        return;
    }
    RunInOrder(m, [m, text = std::string(serial)] {
        MsgContext queued = m;
        queued.onWorker = true;
        LoginBySerial(queued, text.c_str());
    });
}

}  // namespace cmsmsg
