// The RUSK_DVR_* calls: tables of logins and stream handles in front of the device drivers.
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "RUSKNetSDK.h"
#include "driver.h"
#include "opendriver.h"
#include "streamtemplate.h"

namespace rusk {

void StreamSink::Deliver(int dataType, unsigned char* buffer, int length) const {
    if (live != nullptr)
        live(handle, dataType, buffer, length, 0, user);
    else if (replay != nullptr)
        replay(handle, dataType, buffer, length, user);
}

namespace {

struct LoginEntry {
    DeviceLogin login;
    std::shared_ptr<DeviceDriver> driver;
};

struct StreamEntry {
    std::shared_ptr<DeviceDriver> driver;
    int streamId = -1;
};

// Logins and streams by the ids handed to callers. Entries are copied or moved out before
// a driver is called, so the lock is never held across device I/O; a login in use by a
// command stays valid (shared) while another thread logs it out.
class Tables {
public:
    int AddLogin(std::shared_ptr<const LoginEntry> entry) {
        std::lock_guard<std::mutex> lock(m_mutex);
        int id = NextFree(m_nextLogin, m_logins);
        m_logins[id] = std::move(entry);
        return id;
    }
    std::shared_ptr<const LoginEntry> FindLogin(int id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_logins.find(id);
        return it == m_logins.end() ? nullptr : it->second;
    }
    std::shared_ptr<const LoginEntry> TakeLogin(int id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_logins.find(id);
        if (it == m_logins.end()) return nullptr;
        auto entry = std::move(it->second);
        m_logins.erase(it);
        return entry;
    }
    // A handle is reserved (with no stream yet) before the driver opens, because packets
    // carry it from the first one on.
    int ReserveHandle() {
        std::lock_guard<std::mutex> lock(m_mutex);
        int id = NextFree(m_nextHandle, m_streams);
        m_streams[id] = StreamEntry{nullptr, -1};
        return id;
    }
    void SetStream(int handle, StreamEntry entry) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_streams[handle] = std::move(entry);
    }
    bool TakeStream(int handle, StreamEntry& out) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_streams.find(handle);
        if (it == m_streams.end() || it->second.driver == nullptr) return false;
        out = std::move(it->second);
        m_streams.erase(it);
        return true;
    }
    void DropHandle(int handle) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_streams.erase(handle);
    }

private:
    // Ids count up and wrap, skipping ones in use, so a stale id rarely meets a new owner.
    template <class Map>
    static int NextFree(int& next, const Map& used) {
        while (used.count(next) != 0) next = next == INT_MAX ? 0 : next + 1;
        int id = next;
        next = next == INT_MAX ? 0 : next + 1;
        return id;
    }

    std::mutex m_mutex;  // guards everything below
    std::map<int, std::shared_ptr<const LoginEntry>> m_logins;
    std::map<int, StreamEntry> m_streams;
    int m_nextLogin = 0;
    int m_nextHandle = 0;
};

Tables& Table() {
    static Tables tables;
    return tables;
}

std::mutex g_driversMutex;  // guards g_drivers
std::map<int, std::shared_ptr<DeviceDriver>> g_drivers;

// Opens a stream with `open(driver, login, sink)` and files it under a new handle.
template <class Open>
int OpenStream(int login, StreamSink sink, Open open) {
    std::shared_ptr<const LoginEntry> entry = Table().FindLogin(login);
    if (entry == nullptr) return -1;
    sink.handle = Table().ReserveHandle();
    int streamId = open(*entry->driver, entry->login, sink);
    if (streamId < 0) {
        Table().DropHandle(sink.handle);
        return -1;
    }
    Table().SetStream(sink.handle, StreamEntry{entry->driver, streamId});
    return sink.handle;
}

void StopStream(int handle) {
    StreamEntry entry;
    if (Table().TakeStream(handle, entry)) entry.driver->Close(entry.streamId);
}

int OpenLive(int login, const Channel& chan, int stream, RUSK_DataCallBack callback, void* user) {
    if (callback == nullptr) return -1;
    StreamSink sink;
    sink.live = callback;
    sink.user = user;
    return OpenStream(login, sink,
                      [&](DeviceDriver& driver, const DeviceLogin& l, const StreamSink& s) {
                          return driver.OpenLive(l, chan, stream, s);
                      });
}

int Ptz(int login, const Channel& chan, const PtzCommand& ptz) {
    std::shared_ptr<const LoginEntry> entry = Table().FindLogin(login);
    return entry != nullptr && entry->driver->Ptz(entry->login, chan, ptz) ? 1 : 0;
}

Channel ChannelOf(int number, const char* code, size_t codeCapacity) {
    Channel chan;
    chan.number = number;
    if (code != nullptr) chan.code.assign(code, strnlen(code, codeCapacity));
    return chan;
}

}  // namespace

void RegisterDriver(int dvrType, std::shared_ptr<DeviceDriver> driver) {
    std::lock_guard<std::mutex> lock(g_driversMutex);
    if (driver == nullptr)
        g_drivers.erase(dvrType);
    else
        g_drivers[dvrType] = std::move(driver);
}

std::shared_ptr<DeviceDriver> DriverFor(int dvrType) {
    // Never destroyed: streams may still be open while the process exits.
    static const auto* open = new std::shared_ptr<DeviceDriver>(std::make_shared<OpenDriver>());
    std::lock_guard<std::mutex> lock(g_driversMutex);
    auto it = g_drivers.find(dvrType);
    return it == g_drivers.end() ? *open : it->second;
}

}  // namespace rusk

using rusk::Table;

extern "C" {

int RUSK_DVR_Login(const char* ip, int port, const char* user, const char* password, int dvrType) {
    if (ip == nullptr || ip[0] == '\0' || port <= 0 || port > 65535) return -1;
    auto entry = std::make_shared<rusk::LoginEntry>();
    entry->login.ip = ip;
    entry->login.port = port;
    entry->login.user = user != nullptr ? user : "";
    entry->login.pass = password != nullptr ? password : "";
    entry->login.type = dvrType;
    entry->driver = rusk::DriverFor(dvrType);
    if (!entry->driver->Login(entry->login)) return -1;
    return Table().AddLogin(std::move(entry));
}

int RUSK_DVR_Logout(int login, int) {
    std::shared_ptr<const rusk::LoginEntry> entry = Table().TakeLogin(login);
    if (entry == nullptr) return 0;
    entry->driver->Logout(entry->login);
    return 1;
}

int RUSK_DVR_GetConfig(int login, int chan, int command, int, char* buffer, int* length) {
    std::shared_ptr<const rusk::LoginEntry> entry = Table().FindLogin(login);
    if (entry == nullptr) {
        if (length != nullptr) *length = 0;
        return 0;
    }
    return entry->driver->GetConfig(entry->login, chan, command, buffer, length) ? 1 : 0;
}

int RUSK_DVR_SetStreamTemplate(int dvrType, const char* live, const char* sub, const char* replay) {
    rusk::StreamTemplates t;
    t.live = live != nullptr ? live : "";
    t.sub = sub != nullptr ? sub : "";
    t.replay = replay != nullptr ? replay : "";
    rusk::SetStreamTemplates(dvrType, t);
    return 1;
}

int RUSK_DVR_RealPlay_Ex(int login, int chan, int stream, int, RUSK_DataCallBack callback,
                         void* user) {
    return rusk::OpenLive(login, rusk::Channel{chan, ""}, stream, callback, user);
}

int RUSK_DVR_RealPlay_Ex2(int login, const char* chanId, int stream, int,
                          RUSK_DataCallBack callback, void* user) {
    if (chanId == nullptr) return -1;
    return rusk::OpenLive(login, rusk::Channel{0, chanId}, stream, callback, user);
}

int RUSK_DVR_PlayBackByTime(int login, const RUSK_DVR_FINDDATA* find, int, int,
                            RUSK_ReplayCallBack callback, void* user) {
    if (find == nullptr || callback == nullptr) return -1;
    rusk::Channel chan = rusk::ChannelOf(find->ch, find->sCardNum, sizeof find->sCardNum);
    rusk::StreamSink sink;
    sink.replay = callback;
    sink.user = user;
    return rusk::OpenStream(
        login, sink,
        [&](rusk::DeviceDriver& driver, const rusk::DeviceLogin& l, const rusk::StreamSink& s) {
            return driver.OpenPlayback(l, chan, find->struStartTime, find->struStopTime, s);
        });
}

void RUSK_DVR_StopRealPlay(int handle, int) { rusk::StopStream(handle); }

void RUSK_DVR_StopPlayBack(int handle, int) { rusk::StopStream(handle); }

int RUSK_DVR_PTZControl_Other(int login, int chan, int command, int param, int param2, int param3,
                              int) {
    return rusk::Ptz(login, rusk::Channel{chan, ""},
                     rusk::PtzCommand{command, param, param2, param3});
}

int RUSK_DVR_PTZControl_Other2(int login, const char* chanId, const char*, int command, int param,
                               int param2, int param3, int) {
    if (chanId == nullptr) return 0;
    return rusk::Ptz(login, rusk::Channel{0, chanId},
                     rusk::PtzCommand{command, param, param2, param3});
}

}  // extern "C"
