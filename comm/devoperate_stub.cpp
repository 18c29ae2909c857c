// Placeholder until the media pools land: no session can be started yet, so every
// consumer start reports failure and its caller cleans up.
#include "comm/devoperate.h"

int VornMediaPlay(const char* url, _USER_CMD_INFO* info) { return 0; }

int VornMediaStop(_USER_CMD_INFO* info) { return 0; }
