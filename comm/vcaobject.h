// Analytics object lists: the objects an analytics device reports beside its video, read
// from a meta-data packet and kept on the play session to be drawn into pictures.
//
// Packet payload (after the 20-byte media head; little-endian), once per object, the object
// count being the head's `code`:
//   0  u16 x, u16 y, u16 w, u16 h   box centre and size, 1/65536 of the picture
//   8  u8 type (class), u8 state (flags), u8 detail, u8 trail point count n
//  12  n x (u16 x, u16 y)           trail points
// The next object follows right after the last trail point.
// Stateless; no locks.
#pragma once

#include <cstdint>

#include "comm/localdata.h"  // _VCA_POINT, shared with the rule documents

constexpr int kVcaMaxObjects = 20;
constexpr int kVcaMaxTrailPoints = 20;

struct _VCA_RECT {
    uint16_t x;  // centre
    uint16_t y;
    uint16_t w;
    uint16_t h;
};

struct _VCA_TRAIL {
    uint16_t usNumTrailPoints;
    _VCA_POINT trailPoints[kVcaMaxTrailPoints];
};

struct _VORN_VCA_OBJECT {
    uint32_t uId;
    uint32_t uCalibSpeed;
    uint32_t uClassificationId;
    _VCA_RECT bBox;
    _VCA_TRAIL trail;
    uint32_t uDetail;
    uint32_t uZoneID;
    uint32_t uRule;
    uint32_t uFlags;
    uint32_t uState;
    uint32_t unEnterTimer;
    int16_t wCredibi;
    char szIdentify[20];
};

struct _VORN_VCA_OBJECT_LIST {
    uint16_t object_num;
    _VORN_VCA_OBJECT object_arr[kVcaMaxObjects];
};

// Reads `count` object records from `payload` (`length` bytes) into list->object_arr and
// sets object_num; fields the packet does not carry keep their values. 1 when it filled the
// list; 0, leaving the list untouched, for a null argument, a count of 0 or above 20, a
// trail above 20 points, or records running past the payload.
int AnylseIntvObject(const unsigned char* payload, int length, int count,
                     _VORN_VCA_OBJECT_LIST* list);
