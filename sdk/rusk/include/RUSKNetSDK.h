/* Device library: the command channel to analytics servers, media servers and devices.
 * docs/protocol.md describes what goes over the wire. All functions are thread-safe. */
#pragma once

#include "VornMediaDef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The command code of RUSK_TRANSCOMMAND that carries an HTTP-style request. */
#define RUSK_COMMAND_HTTP 99

/* Initialises the library (once per process; later calls do nothing). Returns 1. */
int RUSK_DVR_InitAll(void);

/* Sends a command to the node addressed by `url` and collects its answer.
 *
 *   url          "rtsp://host[:port]/path?query" (or "http://..."): sent as an HTTP request
 *                to http://host:port/path?query; an rtsp address without a port uses 554.
 *   command      RUSK_COMMAND_HTTP; any other code fails.
 *   body         request body, or NULL: with bodyLength > 0 the request is a POST of
 *                those bytes, otherwise a GET.
 *   reply        buffer for the answer's body, or NULL to discard it.
 *   replyLength  in: the capacity of `reply` in bytes; out: the bytes copied. The body
 *                is cut to the capacity and zero-terminated when there is room after it.
 *                May be NULL (then nothing is copied).
 *
 * Returns 1 when the node answered with a 2xx status, else 0 (the answer's body is still
 * copied for other statuses). Connecting gives up after 3 s, the whole request after
 * 10 s unless RUSK_SetTimeouts says otherwise. */
int RUSK_TRANSCOMMAND(const char* url, int command, const char* body, int bodyLength, char* reply,
                      int* replyLength);

/* ---- Devices ----
 * Every device type is served by a driver; the built-in one speaks to devices that stream
 * over RTSP and take commands over the HTTP command channel (/xconfig on the login port).
 * docs/devices.md describes what each call sends. */

/* Logs in to the device at ip:port (1..65535) with the given credentials (NULL reads as
 * empty). The built-in driver asks the device "/xconfig?cmd=login" with HTTP basic
 * authentication. Returns a login id >= 0, or -1 when the device did not accept. */
int RUSK_DVR_Login(const char* ip, int port, const char* user, const char* password, int dvrType);

/* Reads configuration `command` of channel `chan` over a login into `buffer`
 * (`*length` in: its capacity; out: the bytes written; zero-terminated when there is
 * room). Returns 1 when the device answered, 0 otherwise (also for a login that is not open). */
int RUSK_DVR_GetConfig(int login, int chan, int command, int dvrType, char* buffer, int* length);

/* Ends a login; 1, or 0 for a login that is not open. Streams opened over it stay open
 * until stopped. */
int RUSK_DVR_Logout(int login, int dvrType);

/* Stream address templates of a device type for the built-in driver: `live` for stream 0,
 * `sub` for any other stream, `replay` for playback by time; each without "rtsp://", with
 * the placeholders {ip} {port} {user} {pass} {chan} {stream} {start} {stop} (NULL or empty:
 * none). Replaces what the type had; all three empty forget it. Returns 1. */
int RUSK_DVR_SetStreamTemplate(int dvrType, const char* live, const char* sub, const char* replay);

/* ---- Streams ----
 * Data callbacks get packets that start with a _media_head (VornMediaDef.h); `dataType` is
 * the packet's _media_type. A media-server stream also reports status with a null buffer:
 * dataType VORN_STATUS_LOGOUT (105) when it dropped, VORN_STATUS_RELINK (111) when the
 * library has opened it again. Callbacks of one handle run on the library's reader thread
 * of that handle, in order; never stop a handle from its own callback. */
typedef void (*RUSK_DataCallBack)(int handle, int dataType, unsigned char* buffer, int length,
                                  int extra, void* user);
/* Playback by time: returns 1 when the packet was taken. */
typedef int (*RUSK_ReplayCallBack)(int handle, int dataType, unsigned char* buffer, int length,
                                   void* user);

/* Plays `url` from a media server (the play address with its route segments and query).
 * `mode` 1. Returns a handle >= 0, or a negative value when it could not be opened; a
 * dropped stream is re-opened with back-off until it is stopped. An address whose query has
 * "event=" opens an event link instead (docs/protocol.md): each buffer is one event packet
 * as the node sent it, `dataType` the message type it came in (22 meta, 2 alarm); drops and
 * re-links are reported as for streams. */
int RUSK_MEDIA_PLAY(const char* url, int mode, RUSK_DataCallBack callback, void* user);
/* Stops it (interrupting a blocked read) and joins its reader. Returns 1, 0 when unknown. */
int RUSK_STOP_MEDIA_PLAY(int handle);

typedef struct RUSK_DVR_TIME {
    int dwYear, dwMonth, dwDay, dwHour, dwMinute, dwSecond;
} RUSK_DVR_TIME;

/* What a playback by time asks for; only these fields are read. */
typedef struct RUSK_DVR_FINDDATA {
    int ch; /* channel number */
    RUSK_DVR_TIME struStartTime;
    RUSK_DVR_TIME struStopTime;
    char sCardNum[40]; /* channel code, when the device names channels so */
    int reserved[8];
} RUSK_DVR_FINDDATA;

/* Live stream `stream` (0 main, 1 sub) of channel `chan` (or of the channel named `chanId`)
 * over a login. Handle >= 0, or negative (no login, no callback, no template for the
 * device type, or the stream did not open). Packets go to `callback` with extra 0. */
int RUSK_DVR_RealPlay_Ex(int login, int chan, int stream, int dvrType, RUSK_DataCallBack callback,
                         void* user);
int RUSK_DVR_RealPlay_Ex2(int login, const char* chanId, int stream, int dvrType,
                          RUSK_DataCallBack callback, void* user);
/* Recorded video of the span in `find` over a login (channel `sCardNum` when it is not
 * empty, else `ch`). `reserved` 0. Handle >= 0, or negative. */
int RUSK_DVR_PlayBackByTime(int login, const RUSK_DVR_FINDDATA* find, int reserved, int dvrType,
                            RUSK_ReplayCallBack callback, void* user);
/* Stop a stream and wait for its reader: no callback of the handle runs after they return.
 * Never call them from the handle's own callback. Unknown handles are ignored. */
void RUSK_DVR_StopRealPlay(int handle, int dvrType);
void RUSK_DVR_StopPlayBack(int handle, int dvrType);

/* PTZ command `command` (24: go to preset `param`) on a channel by number or by name
 * (`extra` is not used by the built-in driver). Returns 1 on success, 0 otherwise. */
int RUSK_DVR_PTZControl_Other(int login, int chan, int command, int param, int param2, int param3,
                              int dvrType);
int RUSK_DVR_PTZControl_Other2(int login, const char* chanId, const char* extra, int command,
                               int param, int param2, int param3, int dvrType);

/* Changes the connect and whole-request time-outs of later commands (milliseconds;
 * values <= 0 restore 3000 and 10000). */
void RUSK_SetTimeouts(int connectMs, int totalMs);

#ifdef __cplusplus
}
#endif
