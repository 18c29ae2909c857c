// Camera searches, help documents and configuration texts read from nodes.
#include "nodes/camsearch.h"

#include <cstdio>
#include <new>
#include <string>

#include "RUSKNetSDK.h"
#include "comm/playcmd.h"
#include "mysql/dbrecords.h"
#include "nodes/nodeurl.h"
#include "nodes/remotecfg.h"

namespace {

// The node's play address followed by `suffix`; false when it has none.
bool PlayUrl(int nodeid, int nodetype, const std::string& suffix, std::string& url) {
    char base[kNodeUrlSize] = {};
    if (!GetUrlFromNode(nodeid, nodetype, base)) return false;
    url = base + suffix;
    return true;
}

// A zeroed buffer one byte longer than `capacity`, so whatever the node sends stays
// terminated text.
std::unique_ptr<char[]> ReplyBuffer(size_t capacity) {
    return std::unique_ptr<char[]>(new (std::nothrow) char[capacity + 1]());
}

// Sends `url` without body into a fresh buffer of `capacity` bytes. 1 and the buffer when
// the node answered.
int Fetch(const std::string& url, size_t capacity, std::unique_ptr<char[]>& out) {
    std::unique_ptr<char[]> reply = ReplyBuffer(capacity);
    if (!reply) return 0;
    int length = static_cast<int>(capacity);
    if (RUSK_TRANSCOMMAND(url.c_str(), RUSK_COMMAND_HTTP, nullptr, 0, reply.get(), &length) != 1)
        return 0;
    out = std::move(reply);
    return 1;
}

// Camera list of a device reached with the device library's own login. The list is
// parsed whenever the login worked, even when the read failed (its empty reply then
// gives no cameras).
int SearchByLogin(const COMMAND_INFO& cmd, std::vector<_cammera_info*>& cameras) {
    std::unique_ptr<char[]> reply = ReplyBuffer(SEARCH_REPLY_SIZE);
    if (!reply) return 0;
    int login = RUSK_DVR_Login(cmd.ip, cmd.port, cmd.szUser, cmd.szPsw, cmd.nDvrType);
    if (login < 0) return 0;
    int length = static_cast<int>(SEARCH_REPLY_SIZE);
    RUSK_DVR_GetConfig(login, cmd.nChan, CFG_CAMERA_SEARCH, cmd.nDvrType, reply.get(), &length);
    RUSK_DVR_Logout(login, cmd.nDvrType);
    return ParasCameraListFromXML(reply.get(), cameras);
}

}  // namespace

int SearchCamaerFromIntvDev(int nodeid, int nodetype, std::vector<_cammera_info*>& cameras) {
    if (nodetype != DEVICE_NODE) return 0;
    std::string url;
    if (!PlayUrl(nodeid, nodetype,
                 "/xconfig?cmd=getconfig&type=" + std::to_string(L_CFG_GET_CAMERA), url))
        return 0;
    printf("%s\n", url.c_str());
    std::unique_ptr<char[]> reply;
    if (!Fetch(url, SEARCH_REPLY_SIZE, reply)) return 0;
    return ParasCameraListFromXML(reply.get(), cameras);
}

int SearchCamaerFromDev(int nodeid, int nodetype, std::vector<_cammera_info*>& cameras) {
    if (nodetype != DEVICE_NODE) return 0;
    std::string url;
    if (!PlayUrl(nodeid, nodetype, "", url)) return 0;
    printf("%s\n", url.c_str());
    COMMAND_INFO cmd;
    if (!GetDevFromString(url.c_str(), &cmd)) return 0;
    if (cmd.nPlayType != PLAYTYPE_ROUTED) return SearchByLogin(cmd, cameras);
    // Through the media servers of the route, which answer for the device themselves.
    url += "?cmd=getdevconfig&type=" + std::to_string(CFG_CAMERA_SEARCH);
    std::unique_ptr<char[]> reply;
    if (!Fetch(url, SEARCH_REPLY_SIZE, reply)) return 0;
    return ParasCameraListFromXML(reply.get(), cameras);
}

int GetIntvHelp(int nodeid, int nodetype, int helpType, std::unique_ptr<char[]>& out) {
    if (nodetype != DEVICE_NODE) return 0;
    std::string url;
    if (!PlayUrl(nodeid, nodetype, "/xconfig?cmd=getconfig&type=" + std::to_string(helpType), url))
        return 0;
    printf("GetIntvHelp %s \n", url.c_str());
    return Fetch(url, HELP_REPLY_SIZE - 1, out);
}

int GetIntvConfig(int nodeid, int nodetype, int cfgType, std::unique_ptr<char[]>& out) {
    char base[kNodeUrlSize] = {};
    if (!GetUrlFromNode(nodeid, nodetype, base)) return 0;
    char serial[16] = {};
    GetSerialFromNode(nodeid, nodetype, serial, sizeof serial);
    std::string url = std::string(base) + "/xconfig?cmd=getconfig";
    if (serial[0]) url += std::string("&sn=") + serial;
    url += "&type=" + std::to_string(cfgType);
    printf("GetIntvConfig %s \n", url.c_str());
    return Fetch(url, HELP_REPLY_SIZE - 1, out);
}
