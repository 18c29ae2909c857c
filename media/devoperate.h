// Media operations on consumer records: starting and stopping the play session that
// feeds a capture, recording or download consumer.
#pragma once

#include <mutex>
#include <vector>

#include "comm/msgdefine.h"

// Media command sessions (guarded by csRecorder).
extern std::vector<_USER_CMD_INFO*> m_arrUserInfos;
extern std::mutex csRecorder;

// Device and play session pools and the camera link lists.
extern std::mutex semDvrCheck;
extern std::mutex csCameraLink;
extern std::mutex csMediaCheck;
extern std::mutex csStackCheck;
extern std::mutex semaphoreUserCheck;

// Consumer kinds (_USER_CMD_INFO::type).
enum _manual_type {
    INTV_DOWN = 1,    // analytics event clip: every picture decoded
    MANUAL_CAP = 2,   // one JPEG, "<path>/<id>"
    MANUAL_REC = 3,   // MP4 "<path>/<id>.mp4"
    MANUAL_DOWN = 4,  // MP4 "<path>/<id>.mp4"; asks for nothing in CheckDecodeType
    TIGER_CAP = 5,    // one JPEG, "<path>/<id>/<n>.jpg"
    TIGER_REC = 6,    // MP4 "<path>/<id><n>.mp4"
};

// Opens (or shares) the play session of `url` for `info` and sets its start and last-data
// ticks and its player (under csRecorder; call it without that lock). A URL without
// "live" gets a replay session of its own. 1 when the session runs; 0 for null arguments,
// no free slot or a failed start, and also while a media-server stream opens: the consumer
// then stays attached and is stopped normally. `info` stays owned by the caller (normally
// an entry of m_arrUserInfos).
int VornMediaPlay(const char* url, _USER_CMD_INFO* info);
// Publishes `job` in m_arrUserInfos, which owns it from then on, and starts it with
// VornMediaPlay; its result. The job stays published whatever the start reports (a
// media-server stream reports failure while it opens): the maintenance thread retires jobs
// that get no data. Call it without csRecorder held.
int StartMediaJob(const char* url, _USER_CMD_INFO* job);
// Leaves the session of `info` (the last consumer closes the stream, joining its thread:
// never call it with csRecorder held). 1 when this closed the session; 0 when `info` or
// its player is null or other consumers remain.
int VornMediaStop(_USER_CMD_INFO* info);
// Moves a camera to a preset. `url` is a play address followed by
// "?cmd=ptzctrl&type=24&param1=<preset>". An address routed through media servers is
// handed to the first of them as it stands; a direct device address needs a device login
// of the session pools. 1 when the command was carried out; 0 on an address that does not
// parse or a refusal.
int CallPreset(const char* url);
