// Preset calls: a camera is moved to a preset over its device login, or through the media
// server that routes its address.
#include "RUSKNetSDK.h"
#include "comm/localdata.h"
#include "comm/mediaurl.h"
#include "media/devoperate.h"
#include "media/devpool.h"

namespace {

constexpr int kNoAccessMode = -1;
constexpr int kPtzPreset = 24;

int DevicePreset(const _cammera_info& cam, int preset) {
    DVR_INFO* dev = GetDevFromInfo(cam.szIP, cam.nPort, cam.nType, cam.szUser, cam.szPass);
    if (!dev) return 0;
    const int login = ConnectDevLogin(dev);
    int result = 0;
    if (login != -1) {
        result = cam.szChan[0] ? RUSK_DVR_PTZControl_Other2(login, cam.szChan, "", kPtzPreset,
                                                            preset, 0, 0, cam.nType)
                               : RUSK_DVR_PTZControl_Other(login, cam.nChan, kPtzPreset, preset, 0,
                                                           0, cam.nType);
    }
    CloseDev(dev);
    return result;
}

}  // namespace

int CallPreset(const char* url) {
    _cammera_info cam{};
    _MSG_PLAY_INFO request{};
    int mode = kNoAccessMode;
    if (!paras_rtsp_url(url, &cam, &request, mode)) return 0;
    if (mode == ACCESS_ROUTED)
        return RUSK_TRANSCOMMAND(url, RUSK_COMMAND_HTTP, nullptr, 0, nullptr, nullptr);
    return DevicePreset(cam, request.param);
}
