// Placeholder until the media pools land: no session can be started yet, so every
// consumer start reports failure and its caller cleans up. Preset calls through media
// servers need no session and already work; direct device presets wait for the pools.
#include "RUSKNetSDK.h"
#include "comm/localdata.h"
#include "comm/mediaurl.h"
#include "media/devoperate.h"

std::vector<_USER_CMD_INFO*> m_arrUserInfos;
std::mutex csRecorder;

std::mutex semDvrCheck;
std::mutex csCameraLink;
std::mutex csMediaCheck;
std::mutex csStackCheck;
std::mutex semaphoreUserCheck;

int VornMediaPlay(const char* url, _USER_CMD_INFO* info) { return 0; }

int VornMediaStop(_USER_CMD_INFO* info) { return 0; }

int CallPreset(const char* url) {
    _cammera_info camera{};
    _MSG_PLAY_INFO play{};
    int mode = -1;
    if (!paras_rtsp_url(url, &camera, &play, mode)) return 0;
    if (mode != ACCESS_ROUTED) return 0;  // a device login is needed: not available yet
    return RUSK_TRANSCOMMAND(url, RUSK_COMMAND_HTTP, nullptr, 0, nullptr, nullptr);
}
