// The maintenance thread: every 5 s it retires one finished or stale media consumer, lets
// the device pool log out idle devices, and adopts the next region that other programs
// added to the database; every minute it hands freed heap pages back to the system.
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <mutex>

#include "VornCodec.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "mysql/catalog.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"

namespace {

constexpr uint32_t kRoundMs = 5000;
// Thousands of short-lived links and queued rows, freed on many threads, leave free pages
// scattered through the allocator's arenas; returned now and then, they do not add up to
// a slow growth of resident memory over days.
constexpr uint32_t kTrimMs = 60000;
constexpr auto kSleep = std::chrono::milliseconds(500);
constexpr uint32_t kCaptureLimitMs = 5000;
constexpr uint32_t kNoDataLimitMs = 5000;
constexpr uint32_t kSessionLimitMs = 1800000;

// Limits are strict: a consumer is kept at exactly 5000 ms and exactly 30 minutes.
bool IsFinished(const _USER_CMD_INFO& info, uint32_t now) {
    switch (info.type) {
        case MANUAL_CAP:
        case TIGER_CAP:
            return info.count != 0 || now - info.unStart > kCaptureLimitMs;
        case INTV_DOWN:
        case MANUAL_REC:
        case MANUAL_DOWN:
        case TIGER_REC:
            return now - info.unlastdata > kNoDataLimitMs || now - info.unStart > kSessionLimitMs;
        default:
            return false;
    }
}

}  // namespace

void CCMSSvrDlg::MessageProcessRun(bool start) {
    if (start) {
        if (m_msgThread.joinable()) return;
        m_bMsgExit = false;
        m_msgThread = std::thread(TransMessageThread, this);
        return;
    }
    {
        // Set under the lock so that a thread about to wait cannot miss the wake-up.
        std::lock_guard<std::mutex> lock(m_msgWaitLock);
        m_bMsgExit = true;
    }
    m_msgWake.notify_all();
    if (m_msgThread.joinable()) m_msgThread.join();
}

int CCMSSvrDlg::TransMessageThread(CCMSSvrDlg* self) {
    uint32_t linkMark = GetTickCount();
    uint32_t regionMark = linkMark;
    uint32_t trimMark = linkMark;
    while (!self->m_bMsgExit) {
        if (GetTickCount() - linkMark > kRoundMs) {
            self->Checklinks();
            DevLogoutManage();
            linkMark = GetTickCount();
        }
        if (GetTickCount() - regionMark > kRoundMs) {
            self->PollNewRegion();
            regionMark = GetTickCount();  // also after a failed connection: retried in 5 s
        }
        if (GetTickCount() - trimMark > kTrimMs) {
            malloc_trim(0);
            trimMark = GetTickCount();
        }
        std::unique_lock<std::mutex> lock(self->m_msgWaitLock);
        self->m_msgWake.wait_for(lock, kSleep, [self] { return self->m_bMsgExit.load(); });
    }
    return 0;
}

void CCMSSvrDlg::Checklinks() {
    _USER_CMD_INFO* retired = nullptr;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        const uint32_t now = GetTickCount();
        // From the last record, and one per round: a burst drains over several rounds.
        for (size_t i = m_arrUserInfos.size(); i-- > 0;) {
            _USER_CMD_INFO* info = m_arrUserInfos[i];
            if (!IsFinished(*info, now)) continue;
            if (info->precorder) {
                MP4RecordClose(info->precorder);
                info->precorder = nullptr;
            }
            m_arrUserInfos.erase(m_arrUserInfos.begin() + static_cast<std::ptrdiff_t>(i));
            retired = info;
            break;
        }
    }
    if (!retired) return;
    // Outside csRecorder: stopping joins the stream's thread, whose callbacks take it.
    VornMediaStop(retired);
    delete retired;
}

void CCMSSvrDlg::PollNewRegion() {
    CMysqlDB db;
    if (!ConnectDB(&db)) return;
    char sql[96];
    std::snprintf(sql, sizeof sql, "select * from region where id > %d ORDER BY id LIMIT 1",
                  static_cast<int>(m_nLastRegion.load()));
    OwnedList<_msg_region_base> found;
    GetRegion_FromDB(&db, sql, found.v);
    CloseDB(&db);
    if (found.v.empty()) return;
    m_nLastRegion = found.v.front()->nID;
    CatalogWriteLock lock(csCatalog);
    m_arrRegionInfos.push_back(found.v.front());
    found.v.erase(found.v.begin());  // the catalogue owns it now
}
