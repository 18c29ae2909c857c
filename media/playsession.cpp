// Play sessions: opening a source URL in one of four ways, stopping it when its last user
// leaves, and the data callbacks that feed the stream handler.
#include <cstring>

#include "RUSKNetSDK.h"
#include "RtspClientSDK.h"
#include "VornCodec.h"
#include "comm/boundedtext.h"
#include "comm/localdata.h"
#include "comm/mediaurl.h"
#include "comm/sysutil.h"
#include "comm/vcaobject.h"
#include "media/capture.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "nodes/nodeurl.h"

namespace {

constexpr int kNoAccessMode = -1;  // left so by paras_rtsp_url for a preset or unknown query
constexpr int kMediaPlayMode = 1;
constexpr size_t kRtspUrlSize = 256;
constexpr int kRtspExtra = 100;

// The login of the camera's device: the slot (null when the pool is full) and its id.
DVR_INFO* DeviceLogin(const _cammera_info& cam, int& login) {
    DVR_INFO* dev = GetDevFromInfo(cam.szIP, cam.nPort, cam.nType, cam.szUser, cam.szPass);
    login = dev ? ConnectDevLogin(dev) : -1;
    return dev;
}

RUSK_DVR_TIME DvrTime(const _PlayTime& t) {
    return {t.nYear, t.nMonth, t.nDay, t.nHour, t.nMinute, t.nSecond};
}

// The rest of these run under the slot's cs, for its first user.

void OpenMediaServer(CHANPLAY_INFO* play, const _MSG_PLAY_INFO& request) {
    CHANPLAY_BASE& c = play->chan;
    RUSK_DataCallBack callback =
        request.command != 0 ? MediaReplayDataCallBackEx : MediaRealDataCallBackEx;
    c.playhandle = RUSK_MEDIA_PLAY(c.szURL, kMediaPlayMode, callback, play);
    c.nMode = R_PLAY_MEDIA;
}

void OpenPlayback(CHANPLAY_INFO* play, const _cammera_info& cam, const _MSG_PLAY_INFO& request) {
    CHANPLAY_BASE& c = play->chan;
    int login = -1;
    DVR_INFO* dev = DeviceLogin(cam, login);
    if (login == -1) return;
    c.lpDevice = dev;
    RUSK_DVR_FINDDATA find{};
    find.ch = cam.nChan;
    find.struStartTime = DvrTime(request.startTime);
    find.struStopTime = DvrTime(request.stopTime);
    btext::CopyField(find.sCardNum, cam.szChan);
    c.playhandle = RUSK_DVR_PlayBackByTime(login, &find, 0, cam.nType, ReplayCallBack, play);
    c.nMode = R_PLAY_REPLAYSDK;
}

void OpenDeviceLive(CHANPLAY_INFO* play, const _cammera_info& cam, int stream) {
    CHANPLAY_BASE& c = play->chan;
    int login = -1;
    // Kept also when the login failed: the slot then keeps its channel count, see StopPlay.
    c.lpDevice = DeviceLogin(cam, login);
    if (login == -1) return;
    if (cam.szChan[0])
        c.playhandle = RUSK_DVR_RealPlay_Ex2(login, cam.szChan, stream, cam.nType,
                                             RuskRealDataCallBackEx, play);
    else
        c.playhandle =
            RUSK_DVR_RealPlay_Ex(login, cam.nChan, stream, cam.nType, RuskRealDataCallBackEx, play);
    c.nMode = R_PLAY_SDK;
}

void OpenRtsp(CHANPLAY_INFO* play, const _cammera_info& cam, const _RtspHelpString& help,
              int stream) {
    CHANPLAY_BASE& c = play->chan;
    char url[kRtspUrlSize] = {};
    // The channel is given as 0: templates name their channel literally.
    if (!GetRtspUrl(url, stream ? help.second : help.main, cam.szIP, cam.nPort, cam.szUser,
                    cam.szPass, 0, stream, sizeof url))
        return;
    c.playhandle = RtspClient_Open(url, "tcp", !help.bCheckPass, cam.nPort, cam.szUser, cam.szPass,
                                   RTSPDataCallBack, play);
    c.nMode = R_PLAY_RTSP;
}

void CloseStream(CHANPLAY_BASE& c) {
    switch (c.nMode) {
        case R_PLAY_MEDIA:
            RUSK_STOP_MEDIA_PLAY(c.playhandle);
            break;
        case R_PLAY_RTSP:
            RtspClient_Close(c.playhandle);
            break;
        case R_PLAY_SDK:
            RUSK_DVR_StopRealPlay(c.playhandle, c.type);
            break;
        case R_PLAY_REPLAYSDK:
            RUSK_DVR_StopPlayBack(c.playhandle, c.type);
            break;
    }
}

// Only after CloseStream: the stream's thread has been joined, so nothing else uses it.
void FreeCodecState(CHANPLAY_BASE& c) {
    ReleaseVideoParam(&c.videoParam);
    delete static_cast<_VORN_VCA_OBJECT_LIST*>(c.pmeta);
    c.pmeta = nullptr;
    DestroyDecoder(c.pdecode);
    c.pdecode = nullptr;
    VideoEncodeDestroy(c.pencode);
    c.pencode = nullptr;
}

}  // namespace

bool LivePlayFromURL(CHANPLAY_INFO* play) {
    if (!play) return false;
    _cammera_info cam{};
    _MSG_PLAY_INFO request{};
    int mode = kNoAccessMode;
    if (!paras_rtsp_url(play->chan.szURL, &cam, &request, mode)) return false;

    std::lock_guard<std::mutex> lock(play->cs);
    CHANPLAY_BASE& c = play->chan;
    // A second user finds the stream opening or running; a failed open is not retried
    // until every user has stopped.
    if (++c.nLinkUser >= 2) return c.playhandle >= 0;
    if (mode == ACCESS_ROUTED) {
        OpenMediaServer(play, request);
        // Reported as not started even when it opened: callers treat it as pending.
        return false;
    }
    c.type = cam.nType;
    if (request.command != PLAY_CMD_LIVE) {
        OpenPlayback(play, cam, request);
    } else {
        const _RtspHelpString* help = GetRtspHelp(cam.nType);
        if (help && help->link == 1)
            OpenRtsp(play, cam, *help, request.param);
        else
            OpenDeviceLive(play, cam, request.param);
    }
    return c.playhandle >= 0;
}

bool StopPlay(CHANPLAY_INFO* play) {
    if (!play) return false;
    DVR_INFO* device = nullptr;
    {
        std::lock_guard<std::mutex> lock(play->cs);
        CHANPLAY_BASE& c = play->chan;
        if (--c.nLinkUser >= 1) return false;
        c.bExit = true;
        // A session whose open failed keeps its device channel count: a device whose first
        // login failed stays unusable, deliberately.
        if (c.playhandle != -1) {
            device = c.lpDevice;
            CloseStream(c);
            c.playhandle = -1;
            FreeCodecState(c);
        }
        c.nSpeed = 0;
        c.bMediaPlay = false;
    }
    if (device) CloseDev(device);
    return true;
}

int CheckDecodeType(CHANPLAY_INFO* play) {
    if (!play) return 0;
    int need = 0;
    std::lock_guard<std::mutex> lock(csRecorder);
    for (auto it = m_arrUserInfos.rbegin(); it != m_arrUserInfos.rend(); ++it) {
        if ((*it)->player != play) continue;
        switch ((*it)->type) {
            case INTV_DOWN:
                need |= DECODE_ALL;
                break;
            case MANUAL_CAP:
            case TIGER_CAP:
                need |= DECODE_CAPTURE;
                break;
            case MANUAL_REC:
            case TIGER_REC:
                need |= DECODE_RECORD;
                break;
        }
    }
    return need;
}

// ---- Data callbacks (on the libraries' threads) ----

void MediaRealDataCallBackEx(int handle, int dataType, unsigned char* buffer, int length, int extra,
                             void* user) {
    auto* play = static_cast<CHANPLAY_INFO*>(user);
    if (!play || !buffer) return;  // a null buffer is a status report (dropped, re-linked)
    play->chan.unLstDataStamp = GetTickCount();
    NormalPlay(handle, dataType, buffer, length, extra, user);
}

// Playback data is accepted and dropped, on purpose.
void MediaReplayDataCallBackEx(int, int, unsigned char*, int, int, void*) {}

void RuskRealDataCallBackEx(int handle, int dataType, unsigned char* buffer, int length, int extra,
                            void* user) {
    MediaRealDataCallBackEx(handle, dataType, buffer, length, extra, user);
}

void RTSPDataCallBack(int handle, int dataType, unsigned char* buffer, int length, void* user) {
    MediaRealDataCallBackEx(handle, dataType, buffer, length, kRtspExtra, user);
}

int ReplayCallBack(int handle, int dataType, unsigned char* buffer, int length, void* user) {
    if (!buffer || length <= 0) return 0;
    MediaReplayDataCallBackEx(handle, dataType, buffer, length, 0, user);
    return 1;
}
