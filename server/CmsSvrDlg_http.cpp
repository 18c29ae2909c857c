// The HTTP command interface: a GET whose query names a command ("cmd", "nodeid",
// "nodetype", ...; see docs/http.md), answered with one of the fixed heads of GetHttpHead;
// and GET /metrics.
//
// The listener runs callbacks of different requests at the same time and closes each
// connection once its reply is flushed; nothing here pauses between replies. Catalogue
// records are read under a CatalogReadLock and copied out: the lock is never held across
// AddNode, the database, the command channel or a media start. Media jobs are published in
// m_arrUserInfos under csRecorder.
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "VornNetSDK.h"
#include "comm/filestore.h"
#include "comm/httpparse.h"
#include "comm/logtext.h"
#include "comm/metrics.h"
#include "comm/settings.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "mysql/sqldbop.h"
#include "nodes/nodecmd.h"
#include "nodes/nodeurl.h"
#include "nodes/remotecfg.h"
#include "server/CmsSvrDlg.h"
#include "server/CmsSvrDlg_handlers.h"

using cmsmsg::CopyText;

namespace {

// Heads of GetHttpHead.
constexpr int kHeadOk = 0;
constexpr int kHeadBadCommand = 1;
constexpr int kHeadNotFound = 2;
constexpr size_t kHeadSize = 512;
constexpr size_t kQuerySize = 1024;  // more than szURL holds, so a query always fits
constexpr size_t kTimeSuffixSize = 96;
constexpr int kNodeResetCommand = 10;  // the node-side command that reloads its settings
constexpr int kPresetPtzType = 24;
constexpr uint32_t kSessionSlots = 100;  // recordings started in one second that stay apart

void SendBytes(int clientId, const char* data, size_t length) {
    VornServerSendData2(clientId, reinterpret_cast<const unsigned char*>(data),
                        static_cast<int>(length));
}

// Type 0 announces `bodyLength`; the body goes out separately.
void SendHead(int clientId, int type, int bodyLength = 0) {
    char head[kHeadSize] = {};
    int length = bodyLength;
    GetHttpHead(head, length, type);
    SendBytes(clientId, head, static_cast<size_t>(length));
}

// ---- Node checks ----

bool NodeInCatalog(int nodeid, int nodetype) {
    CatalogReadLock lock(csCatalog);
    switch (nodetype) {
        case DEVICE_NODE:
            return GetDeviceInfoByID(m_arrRecordInfos, nodeid) != nullptr;
        case DOMAIN_NODE:
            return GetDomainInfoByID(m_arrDomainFromDB, nodeid) != nullptr;
        case SERVER_NODE:
            return GetSystemSvrByID(nodeid, m_arrServerFromDB) != nullptr;
        default:
            return true;  // other kinds are not kept in the catalogue
    }
}

// Serialises check and add, so that two requests naming the same missing node add it once.
// Taken before (never while holding) csCatalog.
std::mutex csNodeAdd;

// Adds a device, domain or server from the database when the catalogue lacks it.
void EnsureNode(CCMSSvrDlg& self, int nodeid, int nodetype) {
    std::lock_guard<std::mutex> lock(csNodeAdd);
    if (!NodeInCatalog(nodeid, nodetype)) self.AddNode(nodeid, nodetype);
}

// ---- Media jobs ----

// Commands that make a file, with the file-store area that receives it and the job kind.
struct MediaJobKind {
    int32_t command;
    const char* area;
    int jobType;
};
constexpr MediaJobKind kMediaJobKinds[] = {
    {HTTP_MANUAL_CAP, "mcap", 2}, {HTTP_MANUAL_REC, "mrec", 3}, {HTTP_MANUAL_DOWN, "mdown", 3},
    {HTTP_TIGER_CAP, "tcap", 5},  {HTTP_TIGER_REC, "trec", 6},
};

const MediaJobKind* FindMediaJobKind(int32_t command) {
    for (const MediaJobKind& k : kMediaJobKinds)
        if (k.command == command) return &k;
    return nullptr;
}

// "?replay=<filetype>&y-m-d-h-m-s&y-m-d-h-m-s" for a span, else "?live=0".
void TimeSuffix(const _http_command& c, char (&out)[kTimeSuffixSize]) {
    if (!c.dwStartTime || !c.dwStopTime || c.dwStopTime <= c.dwStartTime) {
        std::snprintf(out, sizeof out, "?live=0");
        return;
    }
    int a[7] = {}, b[7] = {};
    gettimeex(c.dwStartTime, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
    gettimeex(c.dwStopTime, b[0], b[1], b[2], b[3], b[4], b[5], b[6]);
    std::snprintf(out, sizeof out, "?replay=%d&%d-%d-%d-%d-%d-%d&%d-%d-%d-%d-%d-%d", c.filetype,
                  a[0], a[1], a[2], a[3], a[4], a[5], b[0], b[1], b[2], b[3], b[4], b[5]);
}

// The recording session: the time in seconds times 100 plus a rolling index 1..99, 0, 1 ...
// that sets apart recordings started in the same second.
uint32_t NextRecordSession() {
    static std::atomic<uint32_t> index{0};
    uint32_t current = index.load();
    uint32_t next = 0;
    do {
        next = (current + 1) % kSessionSlots;
    } while (!index.compare_exchange_weak(current, next));
    return GetCurrentTime() * kSessionSlots + next;
}

// ---- Handlers: each runs one command and returns its result ----

bool OnReset(CCMSSvrDlg&, _http_command& c) {
    if (c.nodeid != 0) return ConfigDevServer(c.nodeid, c.nodetype, kNodeResetCommand) != 0;
    m_nRemoteOperate = 1;  // the main loop reloads the catalogue
    return true;
}

// Rebooting this server still answers 404: the client cannot tell, deliberately.
// With the power switch off the host's own reboot and power-off fail like any failed
// command (404); those of a node are still passed on.
bool OnReboot(CCMSSvrDlg&, _http_command& c) {
    if (c.nodeid != 0) return ConfigDevServer(c.nodeid, c.nodetype, c.command) != 0;
    if (!GuardParam().bPower) {
        puts("http reboot/poweroff refused: switched off in the settings");
        return false;
    }
    SystemReboot(c.command == HTTP_POWEROFF ? 1 : 0);
    return false;
}

bool OnGetAbility(CCMSSvrDlg& self, _http_command& c) {
    EnsureNode(self, c.nodeid, c.nodetype);
    return GetAbilityNode(c.nodeid, c.nodetype);
}

bool OnGetConfig(CCMSSvrDlg& self, _http_command& c) {
    EnsureNode(self, c.nodeid, c.nodetype);
    return GetConfigNode(c.nodeid, c.nodetype, c.configtype);
}

bool OnRemoteSet(CCMSSvrDlg& self, _http_command& c) {
    EnsureNode(self, c.nodeid, c.nodetype);
    return RemoteSetNode(c.nodeid, c.nodetype, c.configtype, c.id);
}

bool SearchDevice(CCMSSvrDlg& self, int nodeid) {
    EnsureNode(self, nodeid, DEVICE_NODE);
    int serverType = -1;
    {
        CatalogReadLock lock(csCatalog);
        if (const _hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, nodeid))
            serverType = d->dev.nServerType;
    }
    return serverType >= 0 && SearchNodeCameras(nodeid, DEVICE_NODE, serverType);
}

// A lower domain searches through its parent domain's configuration port.
bool SearchDomain(CCMSSvrDlg& self, int nodeid) {
    EnsureNode(self, nodeid, DOMAIN_NODE);
    int parentId = 0;
    char code[sizeof(_msg_domain_base::szCode)] = {};
    {
        CatalogReadLock lock(csCatalog);
        const _domain_info* d = GetDomainInfoByID(m_arrDomainFromDB, nodeid);
        if (!d) return false;
        parentId = d->svr.nParentID;
        CopyText(code, d->svr.szCode);
    }
    EnsureNode(self, parentId, DOMAIN_NODE);
    char url[kNodeUrlSize + sizeof code] = {};
    {
        CatalogReadLock lock(csCatalog);
        const _domain_info* p = GetDomainInfoByID(m_arrDomainFromDB, parentId);
        if (!p) return false;
        std::snprintf(url, sizeof url, "rtsp://%.*s:%d/config?cmd=search&domainid=%s",
                      static_cast<int>(sizeof p->svr.szIP), p->svr.szIP, p->svr.nPort2, code);
    }
    return ConfigFromCommand(url) != 0;
}

bool OnSearch(CCMSSvrDlg& self, _http_command& c) {
    if (c.nodetype == DEVICE_NODE) return SearchDevice(self, c.nodeid);
    if (c.nodetype == DOMAIN_NODE) return SearchDomain(self, c.nodeid);
    return false;
}

// Stopping reports failure even when a job was found: the client learns nothing here.
bool OnRecordStop(CCMSSvrDlg&, _http_command& c) {
    CCMSSvrDlg::SetClientStopBySession(c.session, 3);
    return false;
}

bool OnTriggerStop(CCMSSvrDlg&, _http_command& c) {
    CCMSSvrDlg::SetClientStopBySession(c.session, 6);
    return false;
}

bool OnCallPreset(CCMSSvrDlg&, _http_command& c) {
    char url[kNodeUrlSize] = {};
    if (!GetUrlFromNode(c.nodeid, c.nodetype, url, sizeof url)) return false;
    char command[kNodeUrlSize + 64] = {};
    std::snprintf(command, sizeof command, "%s?cmd=ptzctrl&type=%d&param1=%d", url, kPresetPtzType,
                  static_cast<int32_t>(static_cast<uint32_t>(c.id)));
    return CallPreset(command) != 0;
}

// login, geturl, the capture, recording and download commands and unknown ones: a job on
// the node's play address.
bool OnMediaJob(CCMSSvrDlg&, _http_command& c) {
    c.session = 0;
    char url[kNodeUrlSize] = {};
    if (!GetUrlFromNode(c.nodeid, c.nodetype, url, sizeof url)) return false;
    char suffix[kTimeSuffixSize];
    TimeSuffix(c, suffix);
    std::string playUrl = std::string(url) + suffix;

    auto job = std::make_unique<_USER_CMD_INFO>();
    job->id = c.id;
    job->type = c.type;
    CopyText(job->table, sizeof job->table, c.szTable);
    if (const MediaJobKind* kind = FindMediaJobKind(c.command)) {
        const _file_path* area = GetPathFromName(kind->area);
        if (!area || area->mode != 0) return false;
        job->type = kind->jobType;
        CopyText(job->path, sizeof job->path, area->path);
    }
    if (c.command == HTTP_MANUAL_REC) job->unSession = c.session = NextRecordSession();
    job->unStart = job->unlastdata = GetTickCount();  // not stale before it starts
    const bool started = StartMediaJob(playUrl.c_str(), job.release()) != 0;
    if (!started) c.session = 0;
    return started;
}

// ---- The table ----

// One row per command. Columns:
//   command  the value ParasCommand reads from "cmd"
//   name     its keyword, as counted in /metrics
//   handler  runs it; true answers 200
// Values without a row (0 for an unknown keyword) run as media jobs under "unknown".
struct HttpRoute {
    int32_t command;
    const char* name;
    bool (*handler)(CCMSSvrDlg& self, _http_command& c);
};

constexpr HttpRoute kHttpRoutes[] = {
    {HTTP_RESET_DATA, "reset", OnReset},
    {HTTP_REBOOT, "reboot", OnReboot},
    {HTTP_POWEROFF, "poweroff", OnReboot},
    {HTTP_DEV_GETABILITY, "getablity", OnGetAbility},
    {HTTP_DEV_GETCONFIG, "getconfig", OnGetConfig},
    {HTTP_REMOTE_SET, "remoteset", OnRemoteSet},
    {HTTP_DEV_SEARCH, "search", OnSearch},
    {HTTP_MANUAL_REC_STOP, "mrecstop", OnRecordStop},
    {HTTP_TIGER_REC_STOP, "trecstop", OnTriggerStop},
    {HTTP_DEV_CALLPRESET, "callpreset", OnCallPreset},
    {HTTP_REQ_LOGIN, "login", OnMediaJob},
    {HTTP_REQ_GETURL, "geturl", OnMediaJob},
    {HTTP_MANUAL_CAP, "mcap", OnMediaJob},
    {HTTP_MANUAL_REC, "mrec", OnMediaJob},
    {HTTP_MANUAL_DOWN, "mdown", OnMediaJob},
    {HTTP_TIGER_CAP, "tcap", OnMediaJob},
    {HTTP_TIGER_REC, "trec", OnMediaJob},
};
constexpr HttpRoute kUnknownRoute = {0, "unknown", OnMediaJob};

const HttpRoute& FindHttpRoute(int32_t command) {
    for (const HttpRoute& route : kHttpRoutes)
        if (route.command == command) return route;
    return kUnknownRoute;
}

// ---- /metrics ----

bool IsMetricsTarget(const char* target) {
    constexpr char kPath[] = "/metrics";
    constexpr size_t kLength = sizeof kPath - 1;
    return std::strncmp(target, kPath, kLength) == 0 &&
           (target[kLength] == '\0' || target[kLength] == '?');
}

template <class T>
int64_t LoggedIn(const std::vector<T*>& v) {
    return std::count_if(v.begin(), v.end(), [](const T* r) { return r && r->lLoginID > 0; });
}

// Gauges read at scrape time from the catalogue and the job list.
void UpdateStateGauges() {
    metrics::Registry& r = metrics::Default();
    metrics::Family& records =
        r.Get("cms_catalog_records", "Catalogue records by kind.", metrics::Kind::Gauge, {"kind"});
    metrics::Family& online = r.Get("cms_logged_in_nodes", "Nodes logged in on the message port.",
                                    metrics::Kind::Gauge, {"kind"});
    {
        CatalogReadLock lock(csCatalog);
        records.With({"regions"}).Set(static_cast<int64_t>(m_arrRegionInfos.size()));
        records.With({"devices"}).Set(static_cast<int64_t>(m_arrRecordInfos.size()));
        records.With({"channels"}).Set(static_cast<int64_t>(m_arrVideoChanInfos.size()));
        records.With({"servers"}).Set(static_cast<int64_t>(m_arrServerFromDB.size()));
        records.With({"domains"}).Set(static_cast<int64_t>(m_arrDomainFromDB.size()));
        records.With({"registrations"}).Set(static_cast<int64_t>(m_arrMediaRegInfos.size()));
        online.With({"device"}).Set(LoggedIn(m_arrRecordInfos));
        online.With({"server"}).Set(LoggedIn(m_arrServerFromDB));
        online.With({"domain"}).Set(LoggedIn(m_arrDomainFromDB));
    }
    int64_t jobs = 0;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        jobs = static_cast<int64_t>(m_arrUserInfos.size());
    }
    r.Get("cms_media_jobs", "Capture, recording and download jobs attached.", metrics::Kind::Gauge)
        .With()
        .Set(jobs);
    r.Get("process_start_time_seconds", "Start time of the process since 1970 in seconds.",
          metrics::Kind::Gauge)
        .With()
        .Set(metrics::ProcessStartTime());
}

void SendMetrics(int clientId) {
    metrics::RegisterServerMetrics();
    UpdateStateGauges();
    const std::string body = metrics::Default().Render();
    char head[128];
    const int n = std::snprintf(head, sizeof head,
                                "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n"
                                "Content-Length: %zu\r\n\r\n",
                                body.size());
    SendBytes(clientId, head, static_cast<size_t>(n));
    SendBytes(clientId, body.data(), body.size());
}

// ---- The shared token ----

// The value of the query key "token" in `target`, or nullptr; `length` gets its size.
const char* FindToken(const char* target, size_t& length) {
    const char* query = std::strchr(target, '?');
    if (!query) return nullptr;
    for (const char* p = query + 1; *p;) {
        const size_t field = std::strcspn(p, "&");
        if (std::strncmp(p, "token=", 6) == 0) {
            length = field - 6;
            return p + 6;
        }
        p += field;
        if (*p == '&') ++p;
    }
    return nullptr;
}

// True when no token is set, or the request carries it. Compared in full whatever the
// first difference, so the time taken tells nothing about the token.
bool TokenAccepted(const char* target) {
    const std::string& token = GuardParam().token;
    if (token.empty()) return true;
    size_t length = 0;
    const char* given = FindToken(target, length);
    if (!given || length != token.size()) return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < length; ++i) diff |= static_cast<unsigned char>(given[i] ^ token[i]);
    return diff == 0;
}

void SendForbidden(int clientId) {
    static const char kForbidden[] =
        "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    SendBytes(clientId, kForbidden, sizeof kForbidden - 1);
}

// ---- One request ----

// Parses and runs the query; false answers 404. An empty query is answered 400 here first.
bool RunQuery(int clientId, const char* text, CCMSSvrDlg& self, _http_command& cmd) {
    char query[kQuerySize] = {};
    CopyText(query, text);
    printf("http request :%s\n", LogText(query).c_str());
    if (!ParasCommand(query, &cmd)) {
        SendHead(clientId, kHeadBadCommand);
        metrics::CountHttpCommand("none", "bad");
        return false;
    }
    const bool ok = self.HttpProcess(&cmd);
    printf("http request %s\n", ok ? "succ" : "faild");
    metrics::CountHttpCommand(FindHttpRoute(cmd.command).name, ok ? "ok" : "fail");
    return ok;
}

}  // namespace

bool CCMSSvrDlg::HttpProcess(_http_command* command) {
    if (!command || m_bResetData) return false;
    return FindHttpRoute(command->command).handler(*this, *command);
}

void CCMSSvrDlg::HttpCallBack(int clientId, unsigned char* data, int length, CCMSSvrDlg* self) {
    if (!self || !data || length < static_cast<int>(sizeof(_stru_http))) return;
    _stru_http http;
    std::memcpy(&http, data, sizeof http);
    http.szURL[sizeof http.szURL - 1] = '\0';
    http.szConnection[sizeof http.szConnection - 1] = '\0';
    if (strcasecmp(http.szConnection, "upgrade") == 0) return;  // not served, no reply
    if (!TokenAccepted(http.szURL)) {
        metrics::CountHttpCommand("none", "refused");
        return SendForbidden(clientId);
    }
    if (IsMetricsTarget(http.szURL)) return SendMetrics(clientId);

    _http_command cmd{};
    const char* mark = std::strchr(http.szURL, '?');
    if (!mark) metrics::CountHttpCommand("none", "fail");
    const bool ok = mark && RunQuery(clientId, mark + 1, *self, cmd);
    if (!ok) {
        // After a 400 the 404 follows as well; clients of this interface expect both.
        SendHead(clientId, kHeadNotFound);
        return;
    }
    char body[32] = {};
    const int bodyLength =
        cmd.session ? std::snprintf(body, sizeof body, "<ss>%u</ss>", cmd.session) : 0;
    SendHead(clientId, kHeadOk, bodyLength);
    if (bodyLength > 0) SendBytes(clientId, body, static_cast<size_t>(bodyLength));
}
