// MP4 recording: placeholder until the recorder lands.
#include "VornCodec.h"

void* MP4RecordOpen(const char*, int, int, int, int, int, int, int, int) { return nullptr; }
void MP4RecordSetHead(void*, const unsigned char*, int) {}
void MP4RecordWrite(void*, const unsigned char*, int) {}
void MP4RecordClose(void*) {}
