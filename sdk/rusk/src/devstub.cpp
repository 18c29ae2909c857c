// Placeholder until the media-server play lands: no stream opens yet.
#include "RUSKNetSDK.h"

int RUSK_MEDIA_PLAY(const char*, int, RUSK_DataCallBack, void*) { return -1; }
int RUSK_STOP_MEDIA_PLAY(int) { return 0; }
