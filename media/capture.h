// Capture, recording and presets on play sessions: the stream handler splits a session's
// packets into NAL units, decodes when a consumer needs pictures (one JPEG per capture
// consumer) and writes MP4 for recording consumers.
//
// All consumer walks hold csRecorder. The handlers run on the stream library's thread of
// the session and use its codec state without the session lock.
#pragma once

struct CHANPLAY_INFO;

// Stream handler of every live data callback: `buffer` is a _media_head packet of
// `length` bytes (header included); `user` the CHANPLAY_INFO.
void NormalPlay(int handle, int dataType, unsigned char* buffer, int length, int extra, void* user);
// Further thin entries to NormalPlay; both ignore a null buffer.
void MediaCallBack(int handle, int dataType, unsigned char* buffer, int length, int extra,
                   void* user);
int PlayCallBackEx(int handle, int dataType, unsigned char* buffer, int length, void* user);
// Decoder output: one planar YUV 4:2:0 picture; `user` the CHANPLAY_INFO.
void videocall(unsigned char* yuv, int width, int height, int pitch, void* user);
// Writes one coded unit to every recording consumer of the session.
void recordercall(unsigned char* data, int length, CHANPLAY_INFO* play);
