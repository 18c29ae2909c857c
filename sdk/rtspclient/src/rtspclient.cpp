// Placeholder until the stream reader lands: nothing can be opened yet.
#include "RtspClientSDK.h"

int RtspClient_Init(void) { return 1; }
int RtspClient_Open(const char*, const char*, int, int, const char*, const char*, RtspDataCallBack,
                    void*) {
    return -1;
}
int RtspClient_Close(int) { return 0; }
