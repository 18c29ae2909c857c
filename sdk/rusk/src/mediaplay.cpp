// RUSK_MEDIA_PLAY / RUSK_STOP_MEDIA_PLAY: a stream from a media server, pulled with the RTSP
// client and kept alive: a drop is reported (105), the stream re-opened with back-off (1 s
// doubling to 30 s, back to 1 s after a success) and the return reported (111).
#include "mediaplay.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "RUSKNetSDK.h"
#include "RtspClientSDK.h"
#include "eventlink.h"

namespace rusk {

bool MediaPlayAddress(const char* url, std::string& out) {
    static const char kScheme[] = "rtsp://";
    const size_t schemeLen = sizeof(kScheme) - 1;
    if (!url || strncasecmp(url, kScheme, schemeLen) != 0) return false;
    std::string rest(url + schemeLen);
    size_t query = rest.find('?');
    if (query != std::string::npos && rest.find("event=", query) != std::string::npos) return false;
    size_t segEnd = rest.find_first_of("/?");
    std::string first = rest.substr(0, segEnd);
    std::string tail = segEnd == std::string::npos ? "" : rest.substr(segEnd);
    size_t colon = first.find(':');
    std::string host = first.substr(0, colon);
    if (host.empty()) return false;
    size_t digits = 0;
    if (colon != std::string::npos)
        while (colon + 1 + digits < first.size() && isdigit(uint8_t(first[colon + 1 + digits])))
            ++digits;
    std::string server = digits ? first.substr(0, colon + 1 + digits) : host;
    if (server.size() == first.size())
        out = kScheme + first + tail;
    else
        out = kScheme + server + "/" + first + tail;
    return true;
}

}  // namespace rusk

namespace {

constexpr int kFirstBackoffMs = 1000;
constexpr int kLastBackoffMs = 30000;

class MediaPlay {
public:
    MediaPlay(int handle, std::string url, RUSK_DataCallBack callback, void* user)
        : m_handle(handle), m_url(std::move(url)), m_callback(callback), m_user(user) {}

    // Opens the stream once, waiting for the outcome; on success the supervisor takes over.
    bool Start();
    // Ends the supervisor and with it the stream; no callback runs after it returns.
    void Stop();

private:
    static void OnData(int, int type, unsigned char* buffer, int length, void* self);
    static void OnStatus(int, int status, void* self);
    bool OpenStream();  // false only for arguments the client refuses
    void Supervise();

    // Fixed at construction.
    const int m_handle;
    const std::string m_url;
    const RUSK_DataCallBack m_callback;
    void* const m_user;

    std::mutex m_mutex;  // guards the four below
    std::condition_variable m_changed;
    int m_outcome = 0;  // last status of the current client handle, 0 before any
    bool m_stop = false;
    bool m_linked = false;  // the first open succeeded: later opens are re-links
    int m_backoffMs = kFirstBackoffMs;

    int m_rtsp = -1;  // the client handle; Start, then the supervisor thread only
    std::thread m_supervisor;
};

void MediaPlay::OnData(int, int type, unsigned char* buffer, int length, void* self) {
    auto* p = static_cast<MediaPlay*>(self);
    p->m_callback(p->m_handle, type, buffer, length, 0, p->m_user);
}

// Runs on the client's reader thread, before its first packet: a re-link is reported ahead
// of the data it brings.
void MediaPlay::OnStatus(int, int status, void* self) {
    auto* p = static_cast<MediaPlay*>(self);
    bool relinked = false;
    {
        std::lock_guard<std::mutex> lock(p->m_mutex);
        p->m_outcome = status;
        if (status == RTSPCLIENT_OPENED) {
            relinked = p->m_linked;
            p->m_backoffMs = kFirstBackoffMs;
        }
    }
    p->m_changed.notify_all();
    if (relinked) p->m_callback(p->m_handle, VORN_STATUS_RELINK, nullptr, 0, 0, p->m_user);
}

bool MediaPlay::OpenStream() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_outcome = 0;
    }
    m_rtsp = RtspClient_OpenAsync(m_url.c_str(), "tcp", 1, 0, "", "", &MediaPlay::OnData,
                                  &MediaPlay::OnStatus, this);
    return m_rtsp >= 0;
}

bool MediaPlay::Start() {
    if (!OpenStream()) return false;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_outcome != 0; });
    if (m_outcome != RTSPCLIENT_OPENED) {
        lock.unlock();
        RtspClient_Close(m_rtsp);
        return false;
    }
    m_linked = true;
    m_supervisor = std::thread([this] { Supervise(); });
    return true;
}

void MediaPlay::Supervise() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] {
            return m_stop || m_outcome == RTSPCLIENT_ENDED || m_outcome == RTSPCLIENT_FAILED;
        });
        bool dropped = m_outcome == RTSPCLIENT_ENDED;
        lock.unlock();
        // The reader has finished or is told to: closing joins it, so no packet of the old
        // stream follows the drop report.
        RtspClient_Close(m_rtsp);
        m_rtsp = -1;
        lock.lock();
        if (m_stop) return;
        if (dropped) {
            lock.unlock();
            m_callback(m_handle, VORN_STATUS_LOGOUT, nullptr, 0, 0, m_user);
            lock.lock();
        }
        int wait = m_backoffMs;
        if (m_changed.wait_for(lock, std::chrono::milliseconds(wait), [this] { return m_stop; }))
            return;
        m_backoffMs = std::min(wait * 2, kLastBackoffMs);
        lock.unlock();
        bool ok = OpenStream();
        lock.lock();
        if (!ok) m_outcome = RTSPCLIENT_FAILED;
    }
}

void MediaPlay::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_supervisor.joinable()) m_supervisor.join();
}

// Never destroyed: a supervisor still running at exit must not find it gone.
struct Plays {
    std::mutex mutex;  // guards both below
    std::map<int, std::shared_ptr<MediaPlay>> plays;
    int next = 0;
};

Plays& Table() {
    static Plays* plays = new Plays;
    return *plays;
}

}  // namespace

// Streams and event links draw their handles from one counter, so one stop serves both.
static int NextHandle() {
    Plays& t = Table();
    std::lock_guard<std::mutex> lock(t.mutex);
    int handle = t.next;
    t.next = t.next == std::numeric_limits<int>::max() ? 0 : t.next + 1;
    return handle;
}

int RUSK_MEDIA_PLAY(const char* url, int, RUSK_DataCallBack callback, void* user) {
    if (!callback) return -1;
    if (rusk::IsEventLinkAddress(url)) {
        int handle = NextHandle();
        return rusk::EventLinkStart(handle, url, callback, user) ? handle : -1;
    }
    std::string address;
    if (!rusk::MediaPlayAddress(url, address)) return -1;
    RtspClient_Init();
    Plays& t = Table();
    int handle = NextHandle();
    auto play = std::make_shared<MediaPlay>(handle, std::move(address), callback, user);
    if (!play->Start()) return -1;
    std::lock_guard<std::mutex> lock(t.mutex);
    t.plays[handle] = std::move(play);
    return handle;
}

int RUSK_STOP_MEDIA_PLAY(int handle) {
    std::shared_ptr<MediaPlay> play;
    {
        Plays& t = Table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.plays.find(handle);
        if (it == t.plays.end()) return rusk::EventLinkStop(handle) ? 1 : 0;
        play = std::move(it->second);
        t.plays.erase(it);
    }
    play->Stop();
    return 1;
}
