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

// Opens (or shares) the play session of `url` for `info` and sets its start and last-data
// ticks. 1 when the session started; 0 for null arguments, no free slot or a failed start.
// `info` stays owned by the caller (normally an entry of m_arrUserInfos).
int VornMediaPlay(const char* url, _USER_CMD_INFO* info);
// Stops the session of `info`; 0 when `info` or its player is null.
int VornMediaStop(_USER_CMD_INFO* info);
// Moves a camera to a preset. `url` is a play address followed by
// "?cmd=ptzctrl&type=24&param1=<preset>". An address routed through media servers is
// handed to the first of them as it stands; a direct device address needs a device login
// of the session pools. 1 when the command was carried out; 0 on an address that does not
// parse or a refusal.
int CallPreset(const char* url);
