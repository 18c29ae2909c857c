// Media request addresses: a play address (possibly extended with a query) split into the
// camera to reach and the request to make of it.
//
//   direct: "rtsp://" ip:port:user:pass:type:(chan | "@" code) "?" query
//   routed: "rtsp://" segment { "/" segment } "/" device [ "?" query ]
//   query:  "live=" stream ["&ss=" session]
//         | ("replay" | "revplay" | "getfile") "=" filetype ":" start ["&" stop]
//         | "cmd=ptzctrl&type=" n "&param1=" preset
//
// Stateless and reentrant; no locks.
#pragma once

#include "comm/playcmd.h"

struct _cammera_info;

// `command` values.
enum {
    PLAY_CMD_LIVE = 0,
    PLAY_CMD_REPLAY = 3,
    PLAY_CMD_DOWNLOAD = 5,
    PLAY_CMD_REVREPLAY = 22,
    PLAY_CMD_PTZ = 23,
};

// Access modes reported by paras_rtsp_url.
enum {
    ACCESS_ROUTED = 0,  // through media servers: the device fields are not read
    ACCESS_LIVE = 1,
    ACCESS_REPLAY = 2,
    ACCESS_REVREPLAY = 3,
    ACCESS_DOWNLOAD = 4,
};

struct _MSG_PLAY_INFO {
    int command;
    int param;             // live: stream; replay, reverse replay, download: file type; PTZ: preset
    unsigned int session;  // from "ss="
    bool bSound;
    _PlayTime startTime;
    _PlayTime stopTime;
};

// Splits `url` into `camera` (szIP, nPort, szUser, szPass, nType, nChan or szChan; other
// fields untouched) and `play`, and reports the access mode in `mode` (left alone for a
// PTZ command or an unknown query key). Empty device fields are skipped, so an empty user
// or password shifts the later fields. 1 on success; 0 for a null argument, no "rtsp:/",
// a direct address without "?", or a replay value without ":".
int paras_rtsp_url(const char* url, _cammera_info* camera, _MSG_PLAY_INFO* play, int& mode);
