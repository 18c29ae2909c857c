// Analytics event links (local mode): one thread links every analytics device, another every
// analytics server, and the media library's callbacks hand their event packets to ingestion
// and report drops and re-links. Records are written under the catalogue write lock and never
// across the link or database calls; a catalogue reset stops the threads and their links
// first, since the links point at the records.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "RUSKNetSDK.h"
#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/catalog.h"
#include "mysql/eventwriter.h"
#include "server/CmsSvrDlg.h"

namespace {

constexpr unsigned kOfflineBit = 0x10000;
constexpr int kAnalyticsType = 3;
constexpr int kLinkMode = 1;
constexpr int kLongestIgnored = 163;  // no event record fits in fewer bytes
constexpr int kStatusWentOnline = 2;  // run-info event type
// Routing text the node expects after host:port; the same for every link, never taken from
// the record. The private address in it is only text.
constexpr char kLinkPath[] = "192.168.1.64:8000:admin:58203:0:1?event=1";
constexpr char kOnline[] = "设备上线";

using std::chrono::milliseconds;

template <size_t N>
std::string Field(const char (&text)[N]) {
    return std::string(text, strnlen(text, N));
}

// What differs between the two kinds of linked record.
struct DevSide {
    using Rec = _hcrecord_Info;
    static constexpr int kNodeType = 2;
    static constexpr const char* kKind = "dev";
    static std::vector<Rec*>& Records() { return m_arrRecordInfos; }
    static auto& Base(Rec& r) { return r.dev; }
    static auto& Status(Rec& r) { return r.dev.nStatus; }
    // The logout line names a device by its name.
    static std::string LogoutName(Rec& r) { return Field(r.dev.szName); }
    static constexpr RUSK_DataCallBack kCallback = &CCMSSvrDlg::IntvDevCallBack;
};

struct SvrSide {
    using Rec = _sysserver_info;
    static constexpr int kNodeType = 1;
    static constexpr const char* kKind = "svr";
    static std::vector<Rec*>& Records() { return m_arrServerFromDB; }
    static auto& Base(Rec& r) { return r.svr; }
    static auto& Status(Rec& r) { return r.svr.nState; }
    // ... and a server by its serial, not its name: deliberate.
    static std::string LogoutName(Rec& r) { return Field(r.svr.szSerial); }
    static constexpr RUSK_DataCallBack kCallback = &CCMSSvrDlg::IntvSvrCallBack;
};

// Clears the off-line bit; true (with the new status) when it was set.
template <class Side>
bool ClearOffline(typename Side::Rec& r, unsigned& status) {
    auto& s = Side::Status(r);
    if (!(static_cast<unsigned>(s) & kOfflineBit)) return false;
    s = static_cast<std::remove_reference_t<decltype(s)>>(static_cast<unsigned>(s) & ~kOfflineBit);
    status = static_cast<unsigned>(s);
    return true;
}

void WriteOnline(int id, int nodeType, unsigned status) {
    UpdateNodeStatus(id, nodeType, status);
    WrightMySqlRunInfo(0, id, nodeType, kStatusWentOnline, 0, kOnline);
}

// Links record `i` when it is an analytics node not linked yet. False when it needed no link.
template <class Side>
bool LinkOne(size_t i) {
    typename Side::Rec* rec;
    char url[256];
    std::string name, ip;
    int id;
    {
        CatalogWriteLock lock(csCatalog);
        auto& v = Side::Records();
        rec = i < v.size() ? v[i] : nullptr;
        if (!rec || Side::Base(*rec).nServerType != kAnalyticsType || rec->lLoginID >= 0)
            return false;
        rec->nMode = kLinkMode;
        const auto& b = Side::Base(*rec);
        name = Field(b.szName);
        ip = Field(b.szIP);
        id = b.nID;
        snprintf(url, sizeof url, "rtsp://%s:%d/%s", ip.c_str(), b.nPort, kLinkPath);
    }
    int handle = RUSK_MEDIA_PLAY(url, 1, Side::kCallback, rec);
    unsigned status = 0;
    bool wasOffline = false;
    {
        CatalogWriteLock lock(csCatalog);
        CatalogSetLogin(*rec, handle);
        if (handle >= 0) wasOffline = ClearOffline<Side>(*rec, status);
    }
    if (handle >= 0) {
        if (wasOffline) WriteOnline(id, Side::kNodeType, status);
        printf("%s %s linked\n", Side::kKind, name.c_str());
    }
    WriteLog("event link %s:%s ret:%d ", Side::kKind, ip.c_str(), handle);
    return true;
}

// `idleMs`: the pause after a record that needed no link (it paces the device thread).
template <class Side>
int LinkLoop(const std::atomic<bool>& exit, const char* startLine, int idleMs) {
    size_t count;
    {
        CatalogReadLock lock(csCatalog);
        count = Side::Records().size();  // records added later wait for the next start
    }
    WriteLog(startLine, static_cast<int>(count));
    while (!exit) {
        for (size_t i = 0; i < count && !exit; ++i) {
            if (LinkOne<Side>(i))
                std::this_thread::sleep_for(milliseconds(10));
            else if (idleMs)
                std::this_thread::sleep_for(milliseconds(idleMs));
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    return 0;
}

template <class Side>
void OnStatus(typename Side::Rec* rec, int type) {
    std::string name;
    unsigned status = 0;
    bool wasOffline = false;
    int id;
    {
        CatalogWriteLock lock(csCatalog);
        id = Side::Base(*rec).nID;
        if (type == VORN_STATUS_RELINK) {
            wasOffline = ClearOffline<Side>(*rec, status);
            name = Field(Side::Base(*rec).szName);
        } else {
            name = Side::LogoutName(*rec);
        }
    }
    if (type == VORN_STATUS_RELINK) {
        if (wasOffline) WriteOnline(id, Side::kNodeType, status);
        printf("dev %s relinked\n", name.c_str());
    } else if (type == VORN_STATUS_LOGOUT) {
        printf("dev :%s logout\n", name.c_str());
    }
}

// Stops every link the threads opened and marks its record unlinked. The links are stopped
// outside the lock: stopping joins a reader whose callback may be waiting for it.
template <class Side>
void UnlinkAll() {
    std::vector<std::pair<typename Side::Rec*, int>> linked;
    {
        CatalogReadLock lock(csCatalog);
        for (auto* r : Side::Records())
            if (r && Side::Base(*r).nServerType == kAnalyticsType && r->nMode == kLinkMode &&
                r->lLoginID >= 0)
                linked.emplace_back(r, r->lLoginID);
    }
    for (auto& l : linked) RUSK_STOP_MEDIA_PLAY(l.second);
    CatalogWriteLock lock(csCatalog);
    for (auto& l : linked)
        if (l.first->lLoginID == l.second) CatalogSetLogin(*l.first, -1);
}

template <class F>
void Launch(std::thread& t, F&& f) {
    try {
        t = std::thread(std::forward<F>(f));
    } catch (const std::system_error&) {
        // Left empty: stopping skips the join.
    }
}

}  // namespace

void CCMSSvrDlg::LocalIntvProcessRun(bool start) {
    static std::thread devThread;
    static std::thread svrThread;
    if (!m_cfgCms.nLocalMode) return;
    if (start) {
        if (devThread.joinable() || svrThread.joinable()) return;
        m_bDevIntvEventExit = false;
        Launch(devThread, [this] { TransDevIntvEventThread(this); });
        m_bSvrIntvEventExit = false;
        Launch(svrThread, [this] { TransSvrIntvEventThread(this); });
        return;
    }
    m_bDevIntvEventExit = true;
    m_bSvrIntvEventExit = true;
    if (devThread.joinable()) devThread.join();
    if (svrThread.joinable()) svrThread.join();
    UnlinkAll<DevSide>();
    UnlinkAll<SvrSide>();
}

int CCMSSvrDlg::TransDevIntvEventThread(CCMSSvrDlg* self) {
    // An already-linked or non-analytics device costs 100 ms per pass, deliberately: it paces
    // the thread over large catalogues.
    return LinkLoop<DevSide>(self->m_bDevIntvEventExit, "TransDevIntvRun %d", 100);
}

int CCMSSvrDlg::TransSvrIntvEventThread(CCMSSvrDlg* self) {
    return LinkLoop<SvrSide>(self->m_bSvrIntvEventExit, "TransSvrIntvRun %d", 0);
}

void CCMSSvrDlg::IntvDevCallBack(int handle, int type, unsigned char* buffer, int length, int,
                                 void* record) {
    auto* rec = static_cast<_hcrecord_Info*>(record);
    if (!rec) return;
    if (!buffer) return OnStatus<DevSide>(rec, type);
    // The handle is the record's lLoginID once the link thread has stored it.
    if (length > kLongestIgnored && pMainDlg) pMainDlg->ProcessEventBuf(handle, 1, buffer, length);
}

void CCMSSvrDlg::IntvSvrCallBack(int handle, int type, unsigned char* buffer, int length, int,
                                 void* record) {
    auto* rec = static_cast<_sysserver_info*>(record);
    if (!rec) return;
    if (!buffer) return OnStatus<SvrSide>(rec, type);
    if (length <= kLongestIgnored || !pMainDlg) return;
    // A packet naming its node by id at offset 40 has the struct layout; below 1 it names
    // the channel by serial.
    int32_t nodeId;
    memcpy(&nodeId, buffer + 40, sizeof nodeId);
    if (nodeId < 1)
        pMainDlg->ProcessEventBuf(handle, 1, buffer, length);
    else
        pMainDlg->ProcessEventFromStruct(buffer, length);
}
