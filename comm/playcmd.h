// Play command strings: a play address parsed back into the device it names and the
// play query that follows it.
//
//   address := "rtsp://" { segment "/" } device [ "?" query ]
//   device  := ip ":" port ":" user ":" password ":" devicetype ":" ( chan | "@" code )
//   query   := "live=" stream
//            | ("replay" | "localplay") "=" filetype ":" time "&" time
//   time    := year-month-day-hour-minute-second
//
// The segments are the route of media servers; they are skipped and only counted.
// Stateless; no locks.
#pragma once

#include <cstddef>
#include <string_view>

struct _PlayTime {
    int nYear;
    int nMonth;  // 1-12, as written
    int nDay;
    int nHour;
    int nMinute;
    int nSecond;
};

// nPlayType values.
enum {
    PLAYTYPE_ROUTED = 0,     // one or more route segments
    PLAYTYPE_LIVE = 1,       // live on a direct address
    PLAYTYPE_REPLAY = 2,     // replay on a direct address
    PLAYTYPE_NOROUTE = 255,  // no route segment seen (and no live/replay query)
};

struct COMMAND_INFO {
    char ip[50];
    int port;
    int nDvrType;
    char szUser[16];
    char szPsw[16];
    char szChan[40];  // channel code, when given with "@"
    int nChan;
    int nStreamType;
    int nFileType;
    _PlayTime startTime;
    _PlayTime stopTime;
    int nPlayType;
    bool bReplay;  // a replay or local-play query was parsed
};

// Parameter sets of a video stream. The buffers are owned by the record and allocated
// with new[]; ReleaseVideoParam frees them.
struct _msg_video_param_info {
    unsigned char* szVPS;
    int nVpsLen;
    unsigned char* szSPS;
    int nSpsLen;
    unsigned char* szPPS;
    int nPpsLen;
};
typedef _msg_video_param_info MSG_VIDEO_PARAM_INFO;

// Parses the device part and the query. 1 on success (also when the device part has no
// ":" at all, or the query key is unknown), 0 on a null argument, a text without
// "rtsp://" or "?", or a device part cut short. `cmd` is zeroed first.
int GetCommandFromString(const char* text, COMMAND_INFO* cmd);
// Parses the device part only; the "?" query is optional and ignored.
int GetDevFromString(const char* text, COMMAND_INFO* cmd);
// Reads a time "year-month-day-hour-minute-second" from `text` through a work buffer of
// workSize bytes (at most 64), so a longer text is cut; fields that do not match keep
// their value, as with sscanf.
void ParsePlayTime(std::string_view text, size_t workSize, _PlayTime* t);
// Frees the parameter buffers and zeroes the record; null is ignored.
void ReleaseVideoParam(_msg_video_param_info* param);
