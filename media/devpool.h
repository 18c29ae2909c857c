// Device login and play session pools: fixed sets of reusable slots, so that every
// channel of a recorder shares one login and every consumer of a source URL shares one
// stream.
//
// Locks (order: a play slot's cs -> semDvrCheck -> a device slot's cs):
//   semDvrCheck    the device vector and slot assignment (GetDevFromInfo, DevLogoutManage)
//   csCameraLink   the play vector and slot assignment (GetPlayLink)
//   DVR_INFO::cs   a login's counters and id
//   CHANPLAY_INFO::cs  a session's user count and stream handle
// The stream callbacks run on the libraries' threads and touch the session's codec state
// (parameter sets, decoder, encoder, object list, picture size) without its cs; StopPlay
// closes the stream, which joins that thread, before it frees that state.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "comm/playcmd.h"

// The part of a device slot that is cleared on reuse.
struct DVR_BASE {
    bool used;
    char ip[50];
    int port;  // given to the device library as 16 bits
    char user[16];
    char pass[16];
    int serverid;  // login id; -1 = not logged in
    int type;      // device (protocol) type
    int nLinkChan;
    int nMallocCount;  // lookups that handed the slot out; aged by DevLogoutManage
    uint32_t unLastVisit;
};

struct DVR_INFO {
    DVR_BASE dev;
    std::mutex cs;  // guards dev once the slot is taken
};

enum _R_PLAY_TYPE_ {
    R_PLAY_MEDIA = 0,      // media server (RUSK_MEDIA_PLAY)
    R_PLAY_RTSP = 1,       // the device's own RTSP server (RtspClient_Open)
    R_PLAY_SDK = 2,        // live over the device login
    R_PLAY_REPLAYSDK = 3,  // playback by time over the device login
};

// The part of a play slot that is cleared on reuse (ClearPlayBase).
struct chanplay_base {
    bool bUse;
    bool bExit;
    DVR_INFO* lpDevice;
    // Codec state of the stream; touched by the stream's callback thread only while it runs.
    void* pdecode;
    void* pencode;
    void* pmeta;  // last analytics object list (_VORN_VCA_OBJECT_LIST), owned
    uint32_t unmeta;
    char szURL[256];  // the key of the slot
    int stream;
    int type;  // device type
    MSG_VIDEO_PARAM_INFO videoParam;
    int codeid;
    int width;
    int height;
    int fps;
    int nMode;       // a _R_PLAY_TYPE_
    int playhandle;  // -1 = none
    bool bReplay;
    uint32_t unStart;
    uint32_t unStop;
    unsigned char byFileType;
    int nSpeed;
    bool bMediaPlay;
    std::atomic<uint32_t> unLstDataStamp;  // written by the stream thread, read elsewhere
    int nLinkUser;
};
typedef chanplay_base CHANPLAY_BASE;

struct CHANPLAY_INFO {
    CHANPLAY_BASE chan;
    std::mutex cs;  // guards nLinkUser, playhandle, nMode, lpDevice and the stop
};

extern std::vector<DVR_INFO*> m_arrDevList;         // guarded by semDvrCheck
extern std::vector<CHANPLAY_INFO*> m_arrPlayInfos;  // guarded by csCameraLink

// Zeroes every field of a play slot's base (the atomic included).
void ClearPlayBase(CHANPLAY_BASE* chan);

// Pool creation and teardown; each returns 1. The destroyers free every slot, so no stream
// may still run.
int init_assign_dev(int count);
int destroy_assign_dev();
int init_assign_player(int count);
int destroy_assign_player();

// The login slot of a device (matched by address ignoring case, port and type; user and
// password are not compared), or a newly claimed one; null when the pool is full.
DVR_INFO* GetDevFromInfo(const char* ip, int port, int type, const char* user, const char* pass);
// The play slot of `url`: a live slot of the same URL (ignoring case) is shared, a replay
// always claims its own. Null for a null url or a full pool.
CHANPLAY_INFO* GetPlayLink(const char* url, bool replay);
// Adds a channel to the login and logs in on the first one. True when the slot holds a
// login. A failed first login is not retried while other channels hold the count.
bool ConnectDev(DVR_INFO* dev);
// ConnectDev that answers the login id (-1 when there is none).
int ConnectDevLogin(DVR_INFO* dev);
// Removes a channel; logs out when it was the last. True when this call logged out.
bool CloseDev(DVR_INFO* dev);
// Idle logout pass (every 5 s from the maintenance thread). Returns 1.
int DevLogoutManage();

// Adds a user to the session and opens its stream on the first one. True when the session
// has a running stream; false for a media-server stream even when it opened (callers treat
// it as pending and stop it normally).
bool LivePlayFromURL(CHANPLAY_INFO* play);
// Removes a user; the last one closes the stream and frees the codec state. True when
// this call was the last user.
bool StopPlay(CHANPLAY_INFO* play);
// What the session's consumers need (under csRecorder): 1 a picture from the next key
// frame, 2 every picture decoded, 4 the stream written to MP4.
int CheckDecodeType(CHANPLAY_INFO* play);

enum {
    DECODE_CAPTURE = 1,
    DECODE_ALL = 2,
    DECODE_RECORD = 4,
};

// Data callbacks registered with the stream libraries; `user` is the CHANPLAY_INFO.
void MediaRealDataCallBackEx(int handle, int dataType, unsigned char* buffer, int length, int extra,
                             void* user);
void MediaReplayDataCallBackEx(int handle, int dataType, unsigned char* buffer, int length,
                               int extra, void* user);
void RuskRealDataCallBackEx(int handle, int dataType, unsigned char* buffer, int length, int extra,
                            void* user);
void RTSPDataCallBack(int handle, int dataType, unsigned char* buffer, int length, void* user);
int ReplayCallBack(int handle, int dataType, unsigned char* buffer, int length, void* user);
