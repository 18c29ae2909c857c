// Placeholder until the codecs land: nothing can be created yet.
#include "VornCodec.h"

int InitCodec(void) { return 1; }
void* CreateDecoder(int, VideoCallBack, void*) { return nullptr; }
int Decoder(void*, const unsigned char*, int) { return 0; }
void DestroyDecoder(void*) {}
void* VideoEncodeCreate(int, int, int, int) { return nullptr; }
int VideoEncodeData(void*, const unsigned char*, int, int, unsigned char**, int*) { return 0; }
void VideoEncodeDestroy(void*) {}
void* MP4RecordOpen(const char*, int, int, int, int, int, int, int, int) { return nullptr; }
void MP4RecordSetHead(void*, const unsigned char*, int) {}
void MP4RecordWrite(void*, const unsigned char*, int) {}
void MP4RecordClose(void*) {}
