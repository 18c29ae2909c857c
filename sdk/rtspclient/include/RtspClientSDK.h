/* RTSP client: pulls one stream per handle over RTSP (interleaved over TCP) and hands every
 * video packet to the data callback as one _media_head packet (type MD_VIDEO, code
 * VORN_H264 or VORN_H265, time stamp in milliseconds, Annex-B payload with start codes;
 * parameter sets are passed on as the stream carries them). Each handle has its own reader
 * thread; callbacks of one handle run on it, in order. docs/media.md describes it. */
#pragma once

#include "VornMediaDef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* dataType is the packet's _media_type (MD_VIDEO for video). `buffer` is valid during the
 * call only. */
typedef void (*RtspDataCallBack)(int handle, int dataType, unsigned char* buffer, int length,
                                 void* user);

/* Once per process (later calls do nothing). Returns 1. */
int RtspClient_Init(void);
/* Opens `url` ("rtsp://host[:port]/path"). `transport` "tcp" (the only one served; NULL
 * means tcp). `noAuth` non-zero: connect without credentials; otherwise `user` and `pass`
 * are used (when not empty). `port` is used when the URL names no port. Returns a
 * handle >= 0 once the stream is open and its reader runs, or -1 (bad arguments, no
 * answer, no video track). */
int RtspClient_Open(const char* url, const char* transport, int noAuth, int port, const char* user,
                    const char* pass, RtspDataCallBack callback, void* userData);
/* Stops the reader (interrupting a blocked read) and joins it, normally within a second;
 * no callback of the handle runs after it returns. Never call it from the handle's own
 * callback. Returns 1, or 0 for an unknown handle. */
int RtspClient_Close(int handle);

/* ---- Extension: opening in the background, with status reports ----
 * Takes the arguments of RtspClient_Open plus `status`, and returns at once: a handle >= 0
 * (or -1 for bad arguments) whose reader thread opens the stream and reports on `status`,
 * on that thread: RTSPCLIENT_OPENED before the first data packet, RTSPCLIENT_FAILED when
 * the open failed, RTSPCLIENT_ENDED when an open stream stopped by itself (the peer closed
 * it, a read error, or no data for 5 s). After FAILED or ENDED nothing more comes; the
 * handle still has to be closed. RtspClient_Close also interrupts an open in progress, and
 * no status is reported for a close. `status` may be NULL. */
#define RTSPCLIENT_OPENED 1
#define RTSPCLIENT_FAILED 2
#define RTSPCLIENT_ENDED 3
typedef void (*RtspStatusCallBack)(int handle, int status, void* user);
int RtspClient_OpenAsync(const char* url, const char* transport, int noAuth, int port,
                         const char* user, const char* pass, RtspDataCallBack callback,
                         RtspStatusCallBack status, void* userData);

#ifdef __cplusplus
}
#endif
