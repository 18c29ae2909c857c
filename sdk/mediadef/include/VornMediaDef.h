/* Media packet form shared by the stream, codec and device libraries: every data packet
 * handed to a data callback starts with a 20-byte `_media_head` (little-endian), followed
 * by its payload (Annex-B video with start codes, or an analytics object record). The
 * callbacks' length argument includes the header. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum VornCodecID {
    VORN_JPEG = 1,
    VORN_MPEG4 = 2,
    VORN_MP4V_ES = 3,
    VORN_H264 = 28,
    VORN_H265 = 29,
    VORN_G711 = 100,
    VORN_MPEG4_GENERIC = 101,
    VORN_AC3 = 102,
    VORN_AAC = 103,
    VORN_PCMU = 104,
    VORN_PCMA = 105
} VornCodecID;

enum _media_type { MD_DUX = 0, MD_HEAD = 1, MD_VIDEO = 2, MD_AUDIO = 3, MD_META = 4 };

typedef struct _media_head {
    uint8_t from; /* source */
    uint8_t type; /* a _media_type */
    uint8_t pad1[2];
    int32_t code;     /* a VornCodecID */
    uint32_t unStamp; /* time stamp, milliseconds */
    uint8_t extend;   /* extension flag */
    uint8_t pad2[3];
    uint32_t len; /* payload length */
} _media_head;

#define VORN_MEDIA_HEAD_SIZE 20

/* Status types passed with a null buffer to a data callback of a media-server stream. */
#define VORN_STATUS_LOGOUT 105 /* the stream or link dropped */
#define VORN_STATUS_RELINK 111 /* it is back after a drop */

#ifdef __cplusplus
}
static_assert(sizeof(_media_head) == VORN_MEDIA_HEAD_SIZE, "media head is 20 bytes on the wire");
#endif
