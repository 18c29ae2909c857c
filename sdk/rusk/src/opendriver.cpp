#include "opendriver.h"

#include "RtspClientSDK.h"
#include "command.h"
#include "streamtemplate.h"

namespace rusk {

namespace {

// "http://ip:port"; an IPv6 address needs its brackets.
std::string DeviceBase(const DeviceLogin& login) {
    bool v6 = login.ip.find(':') != std::string::npos && login.ip.front() != '[';
    std::string host = v6 ? "[" + login.ip + "]" : login.ip;
    return "http://" + host + ":" + std::to_string(login.port);
}

// Runs "/xconfig?<query>" on the device with the login's credentials.
int DeviceCommand(const DeviceLogin& login, const std::string& query, char* reply,
                  int* replyLength) {
    return HttpCommand(DeviceBase(login) + "/xconfig?" + query, login.user.c_str(),
                       login.pass.c_str(), nullptr, 0, reply, replyLength);
}

void OnRtspPacket(int, int dataType, unsigned char* buffer, int length, void* user) {
    static_cast<const StreamSink*>(user)->Deliver(dataType, buffer, length);
}

}  // namespace

bool OpenDriver::Login(DeviceLogin& login) {
    // The device keeps no session for us: a login proves that it answers and takes the
    // credentials, which every later command carries again.
    return DeviceCommand(login, "cmd=login", nullptr, nullptr) == 1;
}

void OpenDriver::Logout(const DeviceLogin&) {}

int OpenDriver::OpenLive(const DeviceLogin& login, const Channel& chan, int stream,
                         const StreamSink& sink) {
    StreamTemplates t;
    if (!GetStreamTemplates(login.type, t)) return -1;
    const std::string& tmpl = stream == 0 ? t.live : t.sub;
    if (tmpl.empty()) return -1;
    return OpenRtsp(ExpandTemplate(tmpl, TemplateValues{login, chan, stream}), login, sink);
}

int OpenDriver::OpenPlayback(const DeviceLogin& login, const Channel& chan,
                             const RUSK_DVR_TIME& start, const RUSK_DVR_TIME& stop,
                             const StreamSink& sink) {
    StreamTemplates t;
    if (!GetStreamTemplates(login.type, t) || t.replay.empty()) return -1;
    return OpenRtsp(ExpandTemplate(t.replay, TemplateValues{login, chan, 0, &start, &stop}), login,
                    sink);
}

int OpenDriver::OpenRtsp(const std::string& url, const DeviceLogin& login, const StreamSink& sink) {
    // Packets may arrive before RtspClient_Open returns, so the sink exists first.
    auto owned = std::make_unique<StreamSink>(sink);
    int noAuth = login.user.empty() ? 1 : 0;
    int handle = RtspClient_Open(url.c_str(), "tcp", noAuth, 0, login.user.c_str(),
                                 login.pass.c_str(), OnRtspPacket, owned.get());
    if (handle < 0) return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_streams[handle] = std::move(owned);
    return handle;
}

void OpenDriver::Close(int streamId) {
    std::unique_ptr<StreamSink> sink;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_streams.find(streamId);
        if (it == m_streams.end()) return;
        sink = std::move(it->second);
        m_streams.erase(it);
    }
    RtspClient_Close(streamId);  // joins the reader: `sink` is unused from here on
}

bool OpenDriver::Ptz(const DeviceLogin& login, const Channel& chan, const PtzCommand& ptz) {
    std::string query = "cmd=ptzctrl&";
    query += chan.code.empty() ? "chan=" + std::to_string(chan.number)
                               : "chanid=" + PercentEncode(chan.code);
    query += "&type=" + std::to_string(ptz.command) + "&param1=" + std::to_string(ptz.param1);
    // A preset call has neither; keep its command the short form devices know.
    if (ptz.param2 != 0 || ptz.param3 != 0)
        query += "&param2=" + std::to_string(ptz.param2) + "&param3=" + std::to_string(ptz.param3);
    return DeviceCommand(login, query, nullptr, nullptr) == 1;
}

bool OpenDriver::GetConfig(const DeviceLogin& login, int chan, int command, char* buffer,
                           int* length) {
    std::string query =
        "cmd=getdevconfig&chan=" + std::to_string(chan) + "&type=" + std::to_string(command);
    return DeviceCommand(login, query, buffer, length) == 1;
}

}  // namespace rusk
