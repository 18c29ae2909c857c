// Placeholder until the device driver and media-server play land: no stream opens yet.
#include "RUSKNetSDK.h"

int RUSK_MEDIA_PLAY(const char*, int, RUSK_DataCallBack, void*) { return -1; }
int RUSK_STOP_MEDIA_PLAY(int) { return 0; }
int RUSK_DVR_RealPlay_Ex(int, int, int, int, RUSK_DataCallBack, void*) { return -1; }
int RUSK_DVR_RealPlay_Ex2(int, const char*, int, int, RUSK_DataCallBack, void*) { return -1; }
int RUSK_DVR_PlayBackByTime(int, const RUSK_DVR_FINDDATA*, int, int, RUSK_ReplayCallBack, void*) {
    return -1;
}
void RUSK_DVR_StopRealPlay(int, int) {}
void RUSK_DVR_StopPlayBack(int, int) {}
int RUSK_DVR_PTZControl_Other(int, int, int, int, int, int, int) { return 0; }
int RUSK_DVR_PTZControl_Other2(int, const char*, const char*, int, int, int, int, int) { return 0; }
