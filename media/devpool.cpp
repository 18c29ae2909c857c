// The device login and play session pools: slot assignment, login reference counts and the
// idle logout pass.
#include "media/devpool.h"

#include <strings.h>

#include <new>

#include "RUSKNetSDK.h"
#include "comm/boundedtext.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"

std::vector<DVR_INFO*> m_arrDevList;
std::vector<CHANPLAY_INFO*> m_arrPlayInfos;

namespace {

constexpr uint32_t kIdleLogoutMs = 60000;

// Logs in on the first channel; the id, or -1. Caller holds dev->cs.
int LoginOnFirstChannel(DVR_BASE& d) {
    ++d.nLinkChan;
    d.unLastVisit = GetTickCount();
    if (d.nLinkChan < 2 && d.serverid == -1)
        d.serverid = RUSK_DVR_Login(d.ip, static_cast<uint16_t>(d.port), d.user, d.pass, d.type);
    return d.serverid;
}

}  // namespace

void ClearPlayBase(CHANPLAY_BASE* chan) {
    // The atomic makes the record non-trivial: end it and value-initialise a new one.
    chan->~chanplay_base();
    new (chan) chanplay_base{};
}

int init_assign_dev(int count) {
    std::lock_guard<std::mutex> lock(semDvrCheck);
    for (int i = 0; i < count; ++i) {
        auto* slot = new DVR_INFO();
        // A fresh slot holds no login; an id of 0 would make the logout pass end
        // somebody else's login 0.
        slot->dev.serverid = -1;
        m_arrDevList.push_back(slot);
    }
    return 1;
}

int destroy_assign_dev() {
    std::lock_guard<std::mutex> lock(semDvrCheck);
    for (DVR_INFO* slot : m_arrDevList) delete slot;
    m_arrDevList.clear();
    return 1;
}

int init_assign_player(int count) {
    std::lock_guard<std::mutex> lock(csCameraLink);
    for (int i = 0; i < count; ++i) m_arrPlayInfos.push_back(new CHANPLAY_INFO());
    return 1;
}

int destroy_assign_player() {
    std::vector<CHANPLAY_INFO*> slots;
    {
        std::lock_guard<std::mutex> lock(csCameraLink);
        slots.swap(m_arrPlayInfos);
    }
    // A stream still open here would call back into freed memory: close it first.
    for (CHANPLAY_INFO* slot : slots) {
        bool open = false;
        {
            std::lock_guard<std::mutex> lock(slot->cs);
            open = slot->chan.playhandle != -1;
            if (open) slot->chan.nLinkUser = 1;
        }
        if (open) StopPlay(slot);
        delete slot;
    }
    return 1;
}

DVR_INFO* GetDevFromInfo(const char* ip, int port, int type, const char* user, const char* pass) {
    if (!ip) return nullptr;
    std::lock_guard<std::mutex> lock(semDvrCheck);
    DVR_INFO* free = nullptr;
    for (DVR_INFO* slot : m_arrDevList) {
        DVR_BASE& d = slot->dev;
        if (!d.used) {
            if (!free) free = slot;
            continue;
        }
        // User and password are not compared: other credentials share the login.
        if (strcasecmp(d.ip, ip) == 0 && d.port == port && d.type == type) {
            ++d.nMallocCount;
            return slot;
        }
    }
    if (!free) return nullptr;
    std::lock_guard<std::mutex> slotLock(free->cs);
    DVR_BASE& d = free->dev;
    d = DVR_BASE{};
    d.used = true;
    btext::Copy(d.ip, ip);
    btext::Copy(d.user, user ? user : "");
    btext::Copy(d.pass, pass ? pass : "");
    d.port = port;
    d.type = type;
    d.serverid = -1;
    d.nMallocCount = 1;
    return free;
}

CHANPLAY_INFO* GetPlayLink(const char* url, bool replay) {
    if (!url) return nullptr;
    std::lock_guard<std::mutex> lock(csCameraLink);
    // Bounded by the device pool on purpose (both pools have the same size); never past
    // the play pool.
    size_t count = m_arrDevList.size();
    if (count > m_arrPlayInfos.size()) count = m_arrPlayInfos.size();
    CHANPLAY_INFO* free = nullptr;
    for (size_t i = 0; i < count; ++i) {
        CHANPLAY_INFO* slot = m_arrPlayInfos[i];
        const CHANPLAY_BASE& c = slot->chan;
        if (!c.bUse) {
            if (!free) free = slot;
            continue;
        }
        if (!replay && !c.bReplay && strcasecmp(c.szURL, url) == 0) return slot;
    }
    if (!free) return nullptr;
    std::lock_guard<std::mutex> slotLock(free->cs);
    CHANPLAY_BASE& c = free->chan;
    ClearPlayBase(&c);
    c.bUse = true;
    c.bReplay = replay;
    c.playhandle = -1;
    btext::Copy(c.szURL, url);
    return free;
}

bool ConnectDev(DVR_INFO* dev) {
    if (!dev) return false;
    std::lock_guard<std::mutex> lock(dev->cs);
    // A failed first login is not retried while other channels hold the count: kept so.
    return LoginOnFirstChannel(dev->dev) != -1;
}

int ConnectDevLogin(DVR_INFO* dev) {
    if (!dev) return -1;
    std::lock_guard<std::mutex> lock(dev->cs);
    return LoginOnFirstChannel(dev->dev);
}

bool CloseDev(DVR_INFO* dev) {
    if (!dev) return false;
    std::lock_guard<std::mutex> lock(dev->cs);
    DVR_BASE& d = dev->dev;
    --d.nLinkChan;
    if (d.nLinkChan < 1 && d.serverid != -1 && RUSK_DVR_Logout(d.serverid, d.type)) {
        d.serverid = -1;
        return true;
    }
    return false;
}

int DevLogoutManage() {
    std::lock_guard<std::mutex> lock(semDvrCheck);
    const uint32_t now = GetTickCount();
    for (auto it = m_arrDevList.rbegin(); it != m_arrDevList.rend(); ++it) {
        DVR_INFO* slot = *it;
        std::lock_guard<std::mutex> slotLock(slot->cs);
        DVR_BASE& d = slot->dev;
        bool releasable = false;
        if (d.nLinkChan < 1) {
            if (d.serverid == -1) {
                releasable = true;
            } else if (now - d.unLastVisit > kIdleLogoutMs && RUSK_DVR_Logout(d.serverid, d.type)) {
                d.serverid = -1;
                releasable = true;
            }
        }
        // Every pass ages every slot's lookup count, whatever its state.
        --d.nMallocCount;
        if (releasable && d.nMallocCount < 1 && d.serverid == -1) {
            d = DVR_BASE{};
            d.serverid = -1;
        }
    }
    return 1;
}
