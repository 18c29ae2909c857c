// Placeholder until the media pools land: no session can be started yet, so every
// consumer start reports failure and its caller cleans up.
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
