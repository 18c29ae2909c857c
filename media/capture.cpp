// The stream handler and its consumers: NAL units in, parameter sets kept on the session,
// pictures decoded when a consumer needs them, JPEG snapshots, and MP4 recordings.
#include "media/capture.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "VornCodec.h"
#include "VornImage.h"
#include "VornMediaDef.h"
#include "comm/esparse.h"
#include "comm/filestore.h"
#include "comm/sysutil.h"
#include "comm/vcaobject.h"
#include "media/devoperate.h"
#include "media/devpool.h"

namespace {

constexpr uint32_t kMetaFreshMs = 500;
constexpr int kAnalyticsDeviceType = 1;  // sessions whose pictures get boxes and re-encoding
constexpr int kRecordFps = 25;
constexpr int kNextPicture = 255;  // SavePathFile: the next free number of the directory
constexpr size_t kRecordNameSize = 256;

// One parameter set kept on the session: a copy of the unit, start code included.
void Keep(unsigned char*& store, int& storeLen, const uint8_t* unit, int unitLen) {
    store = new unsigned char[unitLen];
    std::memcpy(store, unit, unitLen);
    storeLen = unitLen;
}

// Picture size and rate from the SPS; the reader rewrites its input, so it gets a copy.
void ReadSps(CHANPLAY_BASE& c, const uint8_t* nal, int nalLen, bool h265) {
    if (nalLen <= 0) return;
    std::vector<uint8_t> copy(nal, nal + nalLen);
    if (h265)
        h265_decode_sps(copy.data(), copy.size(), c.width, c.height, c.fps);
    else
        h264_decode_sps(copy.data(), copy.size(), c.width, c.height, c.fps);
}

struct UnitFlags {
    bool picture = false;  // never cleared within a packet, deliberately
    bool key = false;
};

// Sorts one unit: keeps parameter sets, notes pictures. False for a unit to skip (SEI).
bool SortH264Unit(CHANPLAY_BASE& c, const uint8_t* unit, int unitLen, int nalAt, UnitFlags& f) {
    MSG_VIDEO_PARAM_INFO& v = c.videoParam;
    switch (unit[nalAt] & 31) {
        case NAL_SPS:
            if (!v.szSPS) {
                Keep(v.szSPS, v.nSpsLen, unit, unitLen);
                ReadSps(c, unit + nalAt, unitLen - nalAt, false);
            }
            return true;
        case NAL_PPS:
            if (!v.szPPS) Keep(v.szPPS, v.nPpsLen, unit, unitLen);
            return true;
        case NAL_SEI:
            return false;
        default:
            f.picture = true;
            f.key = (unit[nalAt] & 31) == NAL_SLICE_IDR;
            return true;
    }
}

bool SortH265Unit(CHANPLAY_BASE& c, const uint8_t* unit, int unitLen, int nalAt, UnitFlags& f) {
    MSG_VIDEO_PARAM_INFO& v = c.videoParam;
    const int type = (unit[nalAt] >> 1) & 63;
    switch (type) {
        case NAL_H265_VPS:
            if (!v.szVPS) Keep(v.szVPS, v.nVpsLen, unit, unitLen);
            return true;
        case NAL_H265_SPS:
            if (!v.szSPS) {
                Keep(v.szSPS, v.nSpsLen, unit, unitLen);
                ReadSps(c, unit + nalAt, unitLen - nalAt, true);
            }
            return true;
        case NAL_H265_PPS:
            if (!v.szPPS) Keep(v.szPPS, v.nPpsLen, unit, unitLen);
            return true;
        case NAL_H265_SEI:
            return false;
        default:
            f.picture = true;
            // Only type 19 counts (not 20 and 21), as it always has.
            f.key = type == NAL_H265_IDR;
            return true;
    }
}

// Hands a unit to the consumers once the stream can be decoded.
void RouteUnit(CHANPLAY_INFO* play, int code, unsigned char* unit, int unitLen,
               const UnitFlags& f) {
    CHANPLAY_BASE& c = play->chan;
    const MSG_VIDEO_PARAM_INFO& v = c.videoParam;
    const int need = CheckDecodeType(play);
    if (!(need & (DECODE_CAPTURE | DECODE_ALL))) {
        if (need & DECODE_RECORD) recordercall(unit, unitLen, play);
        return;
    }
    // While pictures are needed, recordings are fed only by the re-encode path.
    if (f.key && !c.pdecode) {
        c.pdecode = CreateDecoder(code, videocall, play);
        if (c.pdecode) {
            if (v.szVPS) Decoder(c.pdecode, v.szVPS, v.nVpsLen);
            Decoder(c.pdecode, v.szSPS, v.nSpsLen);
            Decoder(c.pdecode, v.szPPS, v.nPpsLen);
        }
    }
    if (!f.key && !(need & DECODE_ALL)) return;  // a capture decodes key frames only
    if (c.pdecode) Decoder(c.pdecode, unit, unitLen);
}

void HandleVideo(CHANPLAY_INFO* play, int code, unsigned char* payload, int length) {
    CHANPLAY_BASE& c = play->chan;
    c.codeid = code;
    if (code != VORN_H264 && code != VORN_H265) return;
    const bool h265 = code == VORN_H265;
    const uint8_t* p = payload;
    int remaining = length;
    int startLen = 0;
    if (!FindVideoFirstFrame(p, remaining, startLen)) return;
    UnitFlags f;
    while (p) {
        const uint8_t* unit = p;
        int unitLen = 0;
        p = h265 ? ParasH265FrameNext(p, remaining, startLen, unitLen)
                 : ParasH264FrameNext(p, remaining, startLen, unitLen);
        // The walker has already moved startLen on to the next unit; the header is read
        // with that length, as it always has been (mixed start codes read one byte off).
        if (unitLen <= startLen) continue;
        const bool route = h265 ? SortH265Unit(c, unit, unitLen, startLen, f)
                                : SortH264Unit(c, unit, unitLen, startLen, f);
        if (!route || !f.picture || !c.videoParam.szSPS || !c.videoParam.szPPS) continue;
        RouteUnit(play, code, const_cast<unsigned char*>(unit), unitLen, f);
    }
}

void HandleMeta(CHANPLAY_BASE& c, int count, const unsigned char* payload, int length) {
    if (!c.pmeta) c.pmeta = new _VORN_VCA_OBJECT_LIST{};
    if (AnylseIntvObject(payload, length, count, static_cast<_VORN_VCA_OBJECT_LIST*>(c.pmeta)))
        c.unmeta = GetTickCount();
}

// ---- Pictures ----

void SaveCaptures(CHANPLAY_INFO* play, const unsigned char* yuv, int width, int height) {
    std::lock_guard<std::mutex> lock(csRecorder);
    for (_USER_CMD_INFO* info : m_arrUserInfos) {
        if (info->player != play || info->count != 0) continue;
        if (info->type != MANUAL_CAP && info->type != TIGER_CAP) continue;
        const int capacity = width * height;
        std::unique_ptr<unsigned char[]> jpeg(new (std::nothrow) unsigned char[capacity]);
        if (!jpeg) continue;  // not counted: the next picture tries again
        int length = capacity;
        if (!YUV2JpgEx(yuv, width, height, jpeg.get(), &length, 1)) continue;
        const char* data = reinterpret_cast<const char*>(jpeg.get());
        if (info->type == TIGER_CAP)
            SavePathFile(info->path, static_cast<int>(info->id), kNextPicture, data, length);
        else
            SaveFile(info->path, static_cast<int>(info->id), data, length);
        ++info->count;
    }
}

int BoxColour(const _VORN_VCA_OBJECT& o) {
    if (o.uFlags) return 0xFFFF00;
    if (o.uClassificationId == 0) return 0x00FF00;
    if (o.uClassificationId == 2) return 0x00FFFF;
    return 0xFFFF00;
}

void DrawBox(unsigned char* yuv, int W, int H, const _VORN_VCA_OBJECT& o) {
    const _VCA_RECT& b = o.bBox;
    int x = (W * (b.x - (b.w >> 1)) + 32768) >> 16;
    int y = (H * (b.y - (b.h >> 1)) + 32768) >> 16;
    int w = (b.w * W + 32768) >> 16;
    int h = (b.h * H + 32768) >> 16;
    if (x < 0) x = 0;
    if (y < 0) y = 0;
    if (x + w > W) w = W - x;
    if (y + h > H) h = H - x;  // the horizontal origin, as it always has been
    const int points[] = {x, y, x + w, y, x + w, y + h, x, y + h, x, y};
    AddObjectToYUV(yuv, W, H, points, 5, BoxColour(o));
}

void DrawObjects(CHANPLAY_BASE& c, unsigned char* yuv, int width, int height) {
    const auto* list = static_cast<const _VORN_VCA_OBJECT_LIST*>(c.pmeta);
    if (!list || GetTickCount() - c.unmeta >= kMetaFreshMs) return;
    const int count = list->object_num < kVcaMaxObjects ? list->object_num : kVcaMaxObjects;
    for (int i = 0; i < count; ++i) DrawBox(yuv, width, height, list->object_arr[i]);
}

void Reencode(CHANPLAY_INFO* play, unsigned char* yuv, int width, int height) {
    CHANPLAY_BASE& c = play->chan;
    DrawObjects(c, yuv, width, height);
    if (!c.pencode) c.pencode = VideoEncodeCreate(VORN_H264, width, height, c.fps);
    unsigned char* out = nullptr;
    int outLength = 0;
    if (VideoEncodeData(c.pencode, yuv, width, height, &out, &outLength) && out && outLength > 0)
        recordercall(out, outLength, play);
}

// "<path>/<id>.mp4", or for a trigger record "<path>/<id>" followed directly by the next
// number and ".mp4" (no separator: the name readers expect). An event clip stays unnamed.
void RecordName(const _USER_CMD_INFO& info, char (&name)[kRecordNameSize]) {
    name[0] = '\0';
    const int id = static_cast<int>(info.id);
    if (info.type == MANUAL_REC || info.type == MANUAL_DOWN) {
        std::snprintf(name, sizeof name, "%s/%d.mp4", info.path, id);
    } else if (info.type == TIGER_REC) {
        std::snprintf(name, sizeof name, "%s/%d", info.path, id);
        const int n = GetFilePos(name);
        const size_t used = std::strlen(name);
        std::snprintf(name + used, sizeof name - used, "%d.mp4", n);
    }
}

void OpenRecorder(_USER_CMD_INFO& info, const CHANPLAY_BASE& c) {
    const MSG_VIDEO_PARAM_INFO& v = c.videoParam;
    std::vector<unsigned char> head;
    if (v.szVPS) head.insert(head.end(), v.szVPS, v.szVPS + v.nVpsLen);
    if (v.szSPS) head.insert(head.end(), v.szSPS, v.szSPS + v.nSpsLen);
    if (v.szPPS) head.insert(head.end(), v.szPPS, v.szPPS + v.nPpsLen);
    char name[kRecordNameSize];
    RecordName(info, name);
    info.precorder = MP4RecordOpen(name, c.codeid, c.width, c.height, kRecordFps, 0, 0, 0, 0);
    if (info.precorder)
        MP4RecordSetHead(info.precorder, head.data(), static_cast<int>(head.size()));
}

bool IsRecording(int type) {
    return type == INTV_DOWN || type == MANUAL_REC || type == MANUAL_DOWN || type == TIGER_REC;
}

}  // namespace

void NormalPlay(int handle, int dataType, unsigned char* buffer, int length, int extra,
                void* user) {
    auto* play = static_cast<CHANPLAY_INFO*>(user);
    if (!play || !buffer || length < VORN_MEDIA_HEAD_SIZE) return;
    _media_head head;
    std::memcpy(&head, buffer, sizeof head);
    unsigned char* payload = buffer + VORN_MEDIA_HEAD_SIZE;
    const int payloadLen = length - VORN_MEDIA_HEAD_SIZE;
    if (head.type == MD_VIDEO)
        HandleVideo(play, head.code, payload, payloadLen);
    else if (dataType == MD_META)  // the callback's type decides here, not the head's
        HandleMeta(play->chan, head.code, payload, payloadLen);
}

void MediaCallBack(int handle, int dataType, unsigned char* buffer, int length, int extra,
                   void* user) {
    if (buffer) NormalPlay(handle, dataType, buffer, length, extra, user);
}

int PlayCallBackEx(int handle, int dataType, unsigned char* buffer, int length, void* user) {
    if (buffer) NormalPlay(handle, dataType, buffer, length, 0, user);
    return 1;
}

void videocall(unsigned char* yuv, int width, int height, int pitch, void* user) {
    auto* play = static_cast<CHANPLAY_INFO*>(user);
    if (!play || !yuv || width <= 0 || height <= 0) return;
    SaveCaptures(play, yuv, width, height);
    // Outside csRecorder: recordercall takes it again.
    if (play->chan.type == kAnalyticsDeviceType) Reencode(play, yuv, width, height);
}

void recordercall(unsigned char* data, int length, CHANPLAY_INFO* play) {
    if (!play || !data || length <= 0) return;
    std::lock_guard<std::mutex> lock(csRecorder);
    for (_USER_CMD_INFO* info : m_arrUserInfos) {
        if (info->player != play || !IsRecording(info->type)) continue;
        info->unlastdata = GetTickCount();
        // Retried on every unit while the recorder cannot be opened.
        if (!info->precorder) OpenRecorder(*info, play->chan);
        if (info->precorder) MP4RecordWrite(info->precorder, data, length);
    }
}
