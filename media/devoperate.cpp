// Consumers on play sessions: attaching a consumer record to the session of a URL and
// detaching it.
#include "media/devoperate.h"

#include <cstring>

#include "comm/sysutil.h"
#include "media/devpool.h"

std::vector<_USER_CMD_INFO*> m_arrUserInfos;
std::mutex csRecorder;

std::mutex semDvrCheck;
std::mutex csCameraLink;
std::mutex csMediaCheck;
std::mutex csStackCheck;
std::mutex semaphoreUserCheck;

int VornMediaPlay(const char* url, _USER_CMD_INFO* info) {
    if (!url || !info) return 0;
    // Every address that is not a live one is a replay and never shares its session.
    CHANPLAY_INFO* play = GetPlayLink(url, std::strstr(url, "live") == nullptr);
    {
        // The record may already be published: the maintenance thread reads these.
        std::lock_guard<std::mutex> lock(csRecorder);
        info->unStart = info->unlastdata = GetTickCount();
        info->player = play;
    }
    if (!play) return 0;
    return LivePlayFromURL(play) ? 1 : 0;
}

int StartMediaJob(const char* url, _USER_CMD_INFO* job) {
    if (!job) return 0;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        m_arrUserInfos.push_back(job);
    }
    return VornMediaPlay(url, job);
}

int VornMediaStop(_USER_CMD_INFO* info) {
    if (!info || !info->player) return 0;
    return StopPlay(static_cast<CHANPLAY_INFO*>(info->player)) ? 1 : 0;
}
