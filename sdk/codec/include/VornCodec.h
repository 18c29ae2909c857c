/* Video codec library: decoding (H.264, H.265) to planar YUV 4:2:0, H.264 encoding to
 * Annex-B, and MP4 recording of coded streams without re-encoding (fragmented MP4, so that
 * a recording cut short still plays up to its last fragment). Handles are opaque; every
 * function accepts a null handle and then does nothing (or returns 0). */
#pragma once

#include "VornMediaDef.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Once per process. Returns 1. */
int InitCodec(void);

/* One decoded picture: planar YUV 4:2:0 with packed planes (pitch == width): the Y plane
 * followed by the U and V planes of (width/2) x (height/2), contiguous; valid during the
 * call only. */
typedef void (*VideoCallBack)(unsigned char* yuv, int width, int height, int pitch, void* user);

/* `codec` VORN_H264 or VORN_H265; null for any other or on failure. */
void* CreateDecoder(int codec, VideoCallBack callback, void* user);
/* Decodes Annex-B `data`, calling the callback once per finished picture, on the caller's
 * thread. Returns 1, or 0 when the data could not be decoded. */
int Decoder(void* decoder, const unsigned char* data, int length);
void DestroyDecoder(void* decoder);

/* H.264 encoder for pictures of that size (`codec` must be VORN_H264); low latency: every
 * picture yields its coded unit at once. Null on failure. */
void* VideoEncodeCreate(int codec, int width, int height, int fps);
/* Encodes one planar YUV 4:2:0 picture of width x height (pitch = width). On success
 * `*out` points at Annex-B data owned by the encoder (valid until the next call) and
 * `*outLength` holds its length; returns 1 when a coded unit was produced. */
int VideoEncodeData(void* encoder, const unsigned char* yuv, int width, int height,
                    unsigned char** out, int* outLength);
void VideoEncodeDestroy(void* encoder);

/* Opens an MP4 recorder writing `file` (an empty name or NULL is refused: NULL returned).
 * `fps` is a hint for the first frames only: time stamps follow the stream. The last four
 * arguments are reserved (pass 0). */
void* MP4RecordOpen(const char* file, int codec, int width, int height, int fps, int audio,
                    int sampleRate, int channels, int bits);
/* The stream's parameter sets (Annex-B: VPS, SPS, PPS with start codes). */
void MP4RecordSetHead(void* recorder, const unsigned char* head, int length);
/* One Annex-B access unit (or NAL unit) of the stream. */
void MP4RecordWrite(void* recorder, const unsigned char* data, int length);
/* Finishes the file and frees the recorder. */
void MP4RecordClose(void* recorder);

#ifdef __cplusplus
}
#endif
