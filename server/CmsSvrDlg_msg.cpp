// The message protocol: one table from message type to handler, the handlers of the
// one-shot requests (files, database operations, play addresses, node lists), registration
// status, and the disconnect of persistent clients.
//
// One-shot clients are closed a little after their reply (VornServerKillClientDelayed) so
// they can read it; no library thread ever sleeps here.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "VornFrame.h"
#include "VornNetSDK.h"
#include "comm/filestore.h"
#include "comm/globle.h"
#include "comm/localdata.h"
#include "comm/logtext.h"
#include "comm/metrics.h"
#include "comm/settings.h"
#include "media/devoperate.h"
#include "mysql/eventwriter.h"
#include "mysql/nodecatalog.h"
#include "mysql/sqldbop.h"
#include "nodes/nodeurl.h"
#include "nodes/subreg.h"
#include "server/CmsSvrDlg.h"
#include "server/CmsSvrDlg_handlers.h"

using namespace cmsmsg;

namespace {

// Pauses between a one-shot reply and the close, in milliseconds.
constexpr int kDeleteFileCloseMs = 10;
constexpr int kWriteFileCloseMs = 50;
constexpr int kGetUrlCloseMs = 100;
constexpr int kGetFileCloseMs = 200;
constexpr int kGetFileDataMs = 500;  // extra time to read a file that was sent
constexpr int kSqlCloseMs = 500;
constexpr int kSqlDataMs = 1000;  // extra time to read a query result

// The longest payload a data reply can carry: the reply frame less its message head, and no
// more than the send call's int length.
constexpr int kMaxReplyPayload = static_cast<int>(
    std::min<int64_t>(INT_MAX, int64_t{vorn::kMaxReplyFrameLength} - int64_t{vorn::kMsgHeadSize}));

bool SendData(int clientId, const void* data, int length) {
    return VornServerSendData(clientId, static_cast<const unsigned char*>(data), length) == 1;
}

// A link's events are written behind, so that a device that sends many in a row is not
// held up by one database round trip each; the link's next message of another kind waits
// for those rows (QueueHandler).
void OnAlarm(const MsgContext& m) {
    WriteBehind behind(m.clientId);
    m.self->ProcessEventBuf(m.clientId, 0, m.payload, m.length);
}

// ---- Node lists ----

int ShareNodeList(const char* code, char*& buf, int& len) {
    int pushMode = -1;
    {
        CatalogReadLock lock(csCatalog);
        _domain_info* d = GetDomainInfoByCode(m_arrDomainFromDB, code);
        if (!d) return 0;
        pushMode = d->svr.nPushMode;
    }
    switch (pushMode) {
        case GB_PUSH_SHARE:
            return GetServerNodeFromShare(code, 0, buf, len);
        case GB_PUSH_SHARE_DEV:
            return GetServerNodeFromShare(code, 1, buf, len);
        case GB_PUSH_GROUP:
            return GetServerNodeFromGroup(code, buf, len);
        case GB_PUSH_CMS:
            return GetServerNodeFromRegion(code, 0, buf, len);
        case GB_PUSH_CMS_DEV:
            return GetServerNodeFromRegion(code, 1, buf, len);
        default:
            return 0;
    }
}

// Payload: the data type (4 bytes), 4 unused bytes, then the code. Missing bytes read as 0.
void OnGetData(const MsgContext& m) {
    unsigned char request[GET_DATA_CODE_OFFSET + 128] = {};
    std::memcpy(request, m.payload, std::min(static_cast<size_t>(m.length), sizeof(request) - 1));
    int32_t type = 0;
    std::memcpy(&type, request, sizeof(type));
    const char* code = reinterpret_cast<const char*>(request + GET_DATA_CODE_OFFSET);
    char* buf = nullptr;
    int len = 0;
    int result = 0;
    if (type == DATA_GB_DOMAIN_NODE)
        result = GetDomainServer(code, buf, len);
    else if (type == DATA_GB_SHARE_NODE)
        result = ShareNodeList(code, buf, len);
    if (!result)
        VornServerSendState(m.clientId, 1);
    else if (buf)
        SendData(m.clientId, buf, len);
    else
        VornServerSendState(m.clientId, 0);
    delete[] buf;
}

// ---- Files: nFrom is the area type, nFromClientID the object id, nTo the picture ----

void OnGetFile(const MsgContext& m) {
    char* buf = nullptr;
    int len = 0;
    int closeMs = kGetFileCloseMs;
    // A file too long for a reply is refused from its size, before it is read.
    const int got =
        GetFileEx(m.head.nFrom, m.head.nFromClientID, m.head.nTo, buf, len, kMaxReplyPayload);
    if (got == 1 && buf && SendData(m.clientId, buf, len)) {
        closeMs += kGetFileDataMs;
    } else {
        // A missing or oversized file is answered with data holding 1, not with a state.
        const unsigned char one[4] = {1, 0, 0, 0};
        SendData(m.clientId, one, sizeof(one));
    }
    delete[] buf;
    VornServerKillClientDelayed(m.clientId, closeMs);
}

void OnWriteFile(const MsgContext& m) {
    int saved = SaveFileEx2(m.head.nFrom, m.head.nFromClientID, m.head.nTo,
                            reinterpret_cast<const char*>(m.payload), m.length);
    VornServerSendState(m.clientId, saved == 1 ? 0 : 1);
    VornServerKillClientDelayed(m.clientId, kWriteFileCloseMs);
}

void OnDeleteFile(const MsgContext& m) {
    int removed = DeleteFileEx(m.head.nFrom, m.head.nFromClientID);
    VornServerSendState(m.clientId, removed == 1 ? 0 : 1);
    VornServerKillClientDelayed(m.clientId, kDeleteFileCloseMs);
}

// ---- Database operations: nFrom is the operation ----

// Answers a query with its rows; returns the extra close delay.
int QueryMyself(int clientId, char* sql) {
    char* out = nullptr;
    int len = 0;
    int result = GetMyselfData(sql, &out, &len, kMaxReplyPayload);
    int extraMs = 0;
    if (result == 0) {
        VornServerSendState(clientId, 0);
    } else if (result != 1 || !SendData(clientId, out, len)) {
        VornServerSendState(clientId, 1);  // malformed, or an answer no reply can carry
    } else {
        extraMs = kSqlDataMs;
    }
    delete[] out;
    return extraMs;
}

void OnSqlOperation(const MsgContext& m) {
    int closeMs = kSqlCloseMs;
    if (!GuardParam().bRawSql) {
        // Switched off: the failure state every operation answers with, then the close.
        VornServerSendState(m.clientId, 1);
        VornServerKillClientDelayed(m.clientId, closeMs);
        return;
    }
    std::unique_ptr<char[]> sql(m.length > 0 ? new (std::nothrow) char[m.length + 1] : nullptr);
    if (!sql) {
        VornServerSendState(m.clientId, 1);
    } else {
        std::memcpy(sql.get(), m.payload, static_cast<size_t>(m.length));
        sql[m.length] = '\0';
        if (m.head.nFrom == DATAQUERYMYSELF) {
            closeMs += QueryMyself(m.clientId, sql.get());
        } else if (m.head.nFrom == DATAADD) {
            // The state carries the new row's id (0 when the insert failed), deliberately.
            VornServerSendState(m.clientId, static_cast<int>(AddRecordBySQL(sql.get())));
        } else {
            VornServerSendState(m.clientId, OperateDBBySQL(sql.get()) ? 0 : 1);
        }
    }
    VornServerKillClientDelayed(m.clientId, closeMs);
}

// ---- Play addresses: nFrom 0 by node id and type, 1 by channel or device code ----

void OnGetUrl(const MsgContext& m) {
    _msg_url_req req{};
    std::memcpy(&req, m.payload, sizeof(req));
    req.code[sizeof(req.code) - 1] = '\0';
    _msg_link_info link{};
    int result = 0;
    if (m.head.nFrom == 0)
        result = GetUrlFromNode(static_cast<int>(req.nodeid), req.nodtype, link.szDirect,
                                sizeof(link.szDirect));
    else if (m.head.nFrom == 1)
        result = GetLinkInfoFromCode(req.code, &link);
    if (result == 1)
        SendData(m.clientId, &link, sizeof(link));
    else
        VornServerSendState(m.clientId, 1);
    VornServerKillClientDelayed(m.clientId, kGetUrlCloseMs);
}

// ---- Registration status reported by a logged-in server ----

bool ServerByLogin(int clientId, _sysserver_info& copy) {
    CatalogReadLock lock(csCatalog);
    _sysserver_info* s = GetSystemSvrByLogin(clientId, m_arrServerFromDB);
    if (s) copy = *s;
    return s != nullptr;
}

void OnSubServerStatus(const MsgContext& m) {
    char text[200] = {};
    std::memcpy(text, m.payload, std::min(static_cast<size_t>(m.length), sizeof(text) - 1));
    _dev_register reg{};
    if (ParasRegistFromXML(text, &reg) != 1) return;
    _sysserver_info server{};
    if (ServerByLogin(m.clientId, server)) ProcessSubDev(&server, &reg);
}

// ---- The table ----

// One row per handled message type. Columns:
//   type        the header's nType
//   minPayload  shorter payloads are dropped without a reply
//   maxPayload  longer payloads are dropped without a reply; -1 for no limit
//   lane        kQueued: the handler may block (database, disk, sub-servers) and runs on
//               the client's queue; kListener: it answers from the catalogue on the
//               listener's thread and queues any blocking part itself (RunInOrder)
//   handler     does the work and sends any reply
// Types without a row are accepted and ignored, and the connection stays.
enum Lane { kListener, kQueued };

struct MsgRoute {
    uint8_t type;
    int minPayload;
    int maxPayload;
    Lane lane;
    void (*handler)(const MsgContext& m);
};

constexpr MsgRoute kMsgRoutes[] = {
    {CMS_MSG_LOGIN, 0, 99, kListener, OnLogin},
    {CMS_MSG_ALARM, 0, -1, kQueued, OnAlarm},
    {CMS_MSG_PUSH_DATA, sizeof(_msg_domain_info), -1, kQueued, OnPushData},
    {CMS_MSG_GET_DATA, 0, -1, kQueued, OnGetData},
    {CMS_MSG_GETFILE, 0, -1, kQueued, OnGetFile},
    {CMS_MSG_WRITEFILE, 0, -1, kQueued, OnWriteFile},
    {CMS_MSG_DELETEFILE, 0, -1, kQueued, OnDeleteFile},
    {CMS_MSG_SQLOPERATION_EX, 0, -1, kQueued, OnSqlOperation},
    {CMS_MSG_GET_URL, sizeof(_msg_url_req), -1, kQueued, OnGetUrl},
    {CMS_MSG_SUBSERVERSTATUS, 0, 199, kQueued, OnSubServerStatus},
};

const MsgRoute* FindRoute(uint8_t type) {
    for (const MsgRoute& route : kMsgRoutes)
        if (route.type == type) return &route;
    return nullptr;
}

// A persistent client went away: the first of domain, server, device logged in on it is
// marked logged out. Servers and devices of another mode keep their login.
void OnDisconnect(int clientId) {
    const char* kind = nullptr;
    char name[64] = {};
    {
        CatalogWriteLock lock(csCatalog);
        _sysserver_info* s = nullptr;
        _hcrecord_Info* d = nullptr;
        if (_domain_info* dom = GetDomainInfoByLogin(m_arrDomainFromDB, clientId)) {
            dom->lLoginID = -1;
            kind = "domain";
            CopyText(name, dom->svr.szCode);
        } else if ((s = GetSystemSvrByLogin(clientId, m_arrServerFromDB)) && s->nMode == 0) {
            s->lLoginID = -1;
            kind = "server";
            CopyText(name, s->svr.szSerial);
        } else if ((d = GetDeviceInfoByLogin(m_arrRecordInfos, clientId)) && d->nMode == 0) {
            d->lLoginID = -1;
            kind = "dev";
            CopyText(name, d->dev.szSerial);
        }
    }
    if (kind) printf("%s :%s logout\n", kind, LogText(name).c_str());
}

// Queues a handler with its own copy of the message (the listener's buffer lives only
// during the callback).
void QueueHandler(const MsgContext& m, const unsigned char* data, int length,
                  void (*handler)(const MsgContext& m)) {
    auto copy = std::make_shared<std::vector<unsigned char>>(data, data + length);
    MsgContext queued = m;
    queued.onWorker = true;
    m.self->ClientWork().Post(m.clientId, [queued, copy, handler]() mutable {
        queued.payload = copy->data() + sizeof(_msg_head_info);
        // What follows an event sees its rows, as when they were written at once.
        if (handler != OnAlarm) WaitForWritesBehind(queued.clientId);
        handler(queued);
    });
}

}  // namespace

namespace cmsmsg {

void RunInOrder(const MsgContext& m, std::function<void()> work) {
    if (m.onWorker)
        work();
    else
        m.self->ClientWork().Post(m.clientId, std::move(work));
}

}  // namespace cmsmsg

// Everything for one client happens in the order it arrived: while the client has work
// queued, even a message that could be answered at once, and its disconnect, go behind it.
void CCMSSvrDlg::MessageCallBack(int clientId, unsigned char* data, int length, CCMSSvrDlg* self) {
    if (!self) return;
    if (!data) {
        metrics::CountClientGone(clientId);
        if (self->ClientWork().Busy(clientId))
            return self->ClientWork().Post(
                clientId, [clientId] { OnDisconnect(clientId); }, false);
        return OnDisconnect(clientId);
    }
    metrics::CountClientMessage(clientId);
    if (length < static_cast<int>(sizeof(_msg_head_info))) return;
    char peer[96] = {};
    char local[96] = {};
    VornServerGetClientAddr(clientId, peer, sizeof(peer));
    VornServerGetLocalAddr(clientId, local, sizeof(local));
    MsgContext m{self,
                 clientId,
                 {},
                 data + sizeof(_msg_head_info),
                 length - static_cast<int>(sizeof(_msg_head_info)),
                 false};
    std::memcpy(&m.head, data, sizeof(m.head));
    const MsgRoute* route = FindRoute(m.head.nType);
    if (!route || m.length < route->minPayload) return;
    if (route->maxPayload >= 0 && m.length > route->maxPayload) return;
    if (route->lane == kQueued || self->ClientWork().Busy(clientId) ||
        WritesBehindPending(clientId))
        return QueueHandler(m, data, length, route->handler);
    route->handler(m);
}

int CCMSSvrDlg::SetClientStopBySession(unsigned int session, int type) {
    std::lock_guard<std::mutex> lock(csRecorder);
    for (auto it = m_arrUserInfos.rbegin(); it != m_arrUserInfos.rend(); ++it) {
        if ((*it)->type == type && (*it)->unSession == session) {
            (*it)->bStop = true;
            break;
        }
    }
    return 0;
}
