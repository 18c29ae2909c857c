// Event ingestion: event records from device and server links become log rows and
// stored pictures; and the replay fetch that follows each stored analytics alarm.
//
// Wire layout of one event (little-endian): an optional 64-byte _msg_device naming the
// sender by serial, the 164-byte _msg_alarm_comm, then the pictures back to back with
// their lengths in nPicLen. Everything read from the buffer is bounded by its length:
// short records are dropped and a picture longer than the bytes present is not stored.
//
// Locks: catalogue records are read under a CatalogReadLock and copied into an EventNode
// before any database or file work; a channel's status word changes under the write lock.
// Consumer records of m_arrUserInfos are guarded by csRecorder.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "VornNetSDK.h"
#include "comm/globle.h"
#include "comm/metrics.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "mysql/sqldbop.h"
#include "nodes/nodeurl.h"
#include "server/CmsSvrDlg.h"

namespace {

constexpr int kRecordSize = static_cast<int>(sizeof(_msg_alarm_comm));
constexpr int kSenderHeadSize = static_cast<int>(sizeof(_msg_device));
constexpr int kAnalyticsLinkMode = 1;  // links opened by the analytics event threads
constexpr uint32_t kEventClassMask = 0xFF000000u;
constexpr int kEventCodeMask = 0xFFFFFF;
constexpr uint32_t kReplaySeconds = 30;  // length of the clip fetched for each alarm

enum class SenderKind { None, Device, Server };

struct Sender {
    SenderKind kind = SenderKind::None;
    int id = 0;
};

// The node an event concerns, copied out of the catalogue.
struct EventNode {
    int id = 0;
    int type = 0;
    uint32_t status = 0;
};

struct EventInput {
    _msg_alarm_comm rec;
    const char* pictures;  // into the caller's buffer, right after the record
    int pictureBytes;      // bytes actually present there
    bool structured;       // node-addressed record: goes to the tables with suffix 2
};

template <size_t N>
void Terminate(char (&text)[N]) {
    text[N - 1] = '\0';
}

bool ReadRecord(const unsigned char* data, int length, bool structured, EventInput& in) {
    if (!data || length < kRecordSize) return false;
    std::memcpy(&in.rec, data, sizeof in.rec);
    metrics::CountEventReceived(static_cast<uint32_t>(in.rec.nEventType));
    Terminate(in.rec.szSerial);
    Terminate(in.rec.szComm);
    Terminate(in.rec.szInfo);
    in.pictures = reinterpret_cast<const char*>(data) + kRecordSize;
    in.pictureBytes = length - kRecordSize;
    in.structured = structured;
    return true;
}

// A declared picture length when that many bytes arrived, else -1: a picture cut short is
// not stored at all.
int PresentLength(int declared, int present) {
    return declared >= 0 && declared <= present ? declared : -1;
}

// ---- Sender and node resolution ----

Sender FindLinkedSender(int loginId, int mode) {
    if (loginId == -1) return {};  // the handle of every record that is not linked
    CatalogReadLock lock(csCatalog);
    for (const _hcrecord_Info* d : m_arrRecordInfos)
        if (d && d->lLoginID == loginId && d->nMode == mode)
            return {SenderKind::Device, d->dev.nID};
    for (const _sysserver_info* s : m_arrServerFromDB)
        if (s && s->lLoginID == loginId && s->nMode == mode)
            return {SenderKind::Server, s->svr.nID};
    return {};
}

Sender FindSenderBySerial(const unsigned char* data, int length) {
    if (length < kSenderHeadSize) return {};
    char serial[kSenderHeadSize + 1] = {0};
    std::memcpy(serial, data, kSenderHeadSize);
    CatalogReadLock lock(csCatalog);
    if (const _hcrecord_Info* d = GetDeviceInfoBySerial(m_arrRecordInfos, serial))
        return {SenderKind::Device, d->dev.nID};
    if (const _sysserver_info* s = GetSystemSvrBySerial(serial, m_arrServerFromDB))
        return {SenderKind::Server, s->svr.nID};
    return {};
}

bool ResolveDeviceChannel(int deviceId, int chan, EventNode& node) {
    {
        CatalogReadLock lock(csCatalog);
        const _msg_video_record_base* c =
            GetVideoChanInfoByDev(m_arrVideoChanInfos, deviceId, chan, TYPEOFVCHAN);
        if (c) {
            node = {c->nID, DEVCHAN_NODE, c->nStatus};
            return true;
        }
    }
    std::printf("alarm not find chan\n");
    WriteLog("alarm not find chan\n");
    return false;
}

// Server channels are not in the catalogue: they are read from the database per event.
bool ResolveServerChannel(int serverId, int index, EventNode& node) {
    OwnedList<_msg_serverchan_v2> chans;
    {
        CMysqlDB db;
        if (!ConnectDB(&db)) return false;
        char sql[64];
        std::snprintf(sql, sizeof sql, "select * from serverchan where serverid = %d", serverId);
        GetServerChan_FromDB(&db, sql, chans.v);
        CloseDB(&db);
    }
    const _msg_serverchan_v2* c = GetChanInfoByServer(chans.v, serverId, index, 0);
    if (!c) return false;
    node = {c->nID, SERVERCHAN_NODE, c->unStatus};
    return true;
}

// A node named by id and type: devices and channels must be in the catalogue. With
// `deviceStatusZero` a device's own status word is not read (node-addressed records).
bool ResolveAddressedNode(int id, int type, bool deviceStatusZero, EventNode& node) {
    CatalogReadLock lock(csCatalog);
    node = {id, type, 0};
    if (type == DEVICE_NODE) {
        const _hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, id);
        if (!d) return false;
        if (!deviceStatusZero) node.status = d->dev.nStatus;
    } else if (type == DEVCHAN_NODE) {
        // Node-addressed channels are taken from their own catalogue entry.
        const _msg_video_record_base* c = GetVideoChanInfoByID(m_arrVideoChanInfos, id);
        if (!c) return false;
        node.status = c->nStatus;
    }
    return true;
}

bool ResolveSenderNode(const Sender& sender, const _msg_alarm_comm& rec, EventNode& node) {
    const int chan = std::atoi(rec.szSerial);
    if (sender.kind == SenderKind::Device) return ResolveDeviceChannel(sender.id, chan, node);
    if (rec.nNodeID < 1) return ResolveServerChannel(sender.id, chan, node);
    return ResolveAddressedNode(rec.nNodeID, rec.nNodeType, false, node);
}

// ---- Status changes ----

// The status word with the off-line bit set for state 1 and cleared otherwise; false when
// the bit already says so.
bool NextStatus(uint32_t current, int state, uint32_t& next) {
    const int offline = (current & NODE_OFFLINE_FLAG) ? 1 : 0;
    if (state == offline) return false;
    next = state == 1 ? (current | NODE_OFFLINE_FLAG) : (current & ~NODE_OFFLINE_FLAG);
    return true;
}

// For a catalogue channel the test and the change happen under one write lock, so two
// links reporting the same change record it once.
bool ChangeStatus(const EventNode& node, int state, uint32_t& next) {
    if (node.type != DEVCHAN_NODE) return NextStatus(node.status, state, next);
    CatalogWriteLock lock(csCatalog);
    _msg_video_record_base* c = GetVideoChanInfoByID(m_arrVideoChanInfos, node.id);
    if (!c) return NextStatus(node.status, state, next);  // released by a reload meanwhile
    if (!NextStatus(c->nStatus, state, next)) return false;
    c->nStatus = next;
    return true;
}

// ---- Handlers, one per event class ----

// The first picture, stored by the writer under the row's id (also when the row waits in
// the spool); 0 when there is none to store.
size_t FirstPicture(const char* area, const EventInput& in, spool::Picture& out) {
    const int length = PresentLength(in.rec.nPicLen[0], in.pictureBytes);
    if (in.pictureBytes <= 0 || length < 0) return 0;
    out = spool::Picture{area, 0, in.pictures, length};
    return 1;
}

void OnDeviceState(const EventInput& in, const EventNode& node) {
    int state = in.rec.nEventType & 0xFF;
    if (state == DEVSTATE_DISLINK_RESUME) state = 0;
    std::printf("device (%d %d)status :%d\n", node.id, node.type, state);
    uint32_t status = 0;
    if (!ChangeStatus(node, state, status)) return;
    UpdateNodeStatus(node.id, node.type, status);
    WrightMySqlDevEventInfo(node.id, node.type, in.rec.nEventType & kEventCodeMask, in.rec.szInfo);
}

void OnFace(const EventInput& in, const EventNode& node) {
    using Writer =
        int64_t (*)(uint32_t, int, int, int, int, int, int, const spool::Picture*, size_t);
    Writer write = WrightMySqlPerson;
    if (in.structured) write = WrightMySqlPersonStruct;
    // The byte budget of all pictures is the first one's length, so only the first picture
    // is stored, and only when it is not empty; deliberate.
    spool::Picture picture{};
    const size_t count = FirstPicture("face", in, picture) && picture.length > 0 ? 1 : 0;
    write(in.rec.unTime, node.id, node.type, std::atoi(in.rec.szComm), in.rec.nObjType,
          in.rec.nReserve[0], in.rec.nReserve[3], &picture, count);
}

void OnAnalytics(const EventInput& in, const EventNode& node) {
    const int code = in.rec.nEventType & 0xFFFF;
    if (code == 0) return;
    if (code == INTV_EVENT_FACE) return OnFace(in, node);
    using Writer =
        int64_t (*)(uint32_t, int, int, int, int, const char*, const spool::Picture*, size_t);
    Writer write = WrightMySqlAlarmInfo;
    if (in.structured) write = WrightMySqlAlarmInfoStruct;
    spool::Picture picture{};
    const size_t count = FirstPicture("intv", in, picture);
    write(in.rec.unTime, node.id, node.type, code, in.rec.nReserve[1], in.rec.szInfo, &picture,
          count);
}

void OnDiagnosis(const EventInput& in, const EventNode& node) {
    const int code = in.rec.nEventType & 0xFF;
    if (code <= 0) return;
    const char* text = code == DEVSTATE_VIDEOBLOCKED    ? "镜头遮挡"
                       : code == DEVSTATE_VIDEOSCENECHG ? "场景变换"
                                                        : "";
    spool::Picture picture{};
    const size_t count = FirstPicture("diagnoss", in, picture);
    WrightMySqlDiagnoseInfo(in.rec.unTime, node.id, node.type, in.rec.nEventType & kEventCodeMask,
                            0, text, &picture, count);
}

// Event class (the top 8 bits of nEventType) -> its handler. Any other class is ignored.
struct EventHandlerEntry {
    uint32_t eventClass;
    void (*handler)(const EventInput&, const EventNode&);
};
constexpr EventHandlerEntry kEventHandlers[] = {
    {EVENT_CLASS_DEVSTATE, OnDeviceState},
    {EVENT_CLASS_INTV, OnAnalytics},
    {EVENT_CLASS_DIAGNOSE, OnDiagnosis},
};

void DispatchEvent(const EventInput& in, const EventNode& node) {
    const uint32_t eventClass = static_cast<uint32_t>(in.rec.nEventType) & kEventClassMask;
    for (const EventHandlerEntry& e : kEventHandlers)
        if (e.eventClass == eventClass) return e.handler(in, node);
}

// ---- Alarm replay ----

bool FetchNextAlarm(int64_t lastId, _alarm_Info& alarm) {
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    const bool found = GetRecordLog(&db, lastId, &alarm);
    CloseDB(&db);
    return found;
}

// url + "?replay=0&<start>&<end>", each time as year-month-day-hour-minute-second.
void AppendReplayWindow(const char* url, uint32_t start, char* out, size_t outSize) {
    int a[7] = {0}, b[7] = {0};
    gettimeex(start, a[0], a[1], a[2], a[3], a[4], a[5], a[6]);
    gettimeex(start + kReplaySeconds, b[0], b[1], b[2], b[3], b[4], b[5], b[6]);
    std::snprintf(out, outSize, "%s?replay=%d&%d-%d-%d-%d-%d-%d&%d-%d-%d-%d-%d-%d", url, 0, a[0],
                  a[1], a[2], a[3], a[4], a[5], b[0], b[1], b[2], b[3], b[4], b[5]);
}

}  // namespace

void CCMSSvrDlg::ProcessEventBuf(int loginId, int mode, const unsigned char* buffer, int length) {
    if (!buffer || length <= 0) return;
    WriteLog("recv alarm ProcessEventBuf");
    Sender sender = FindLinkedSender(loginId, mode);
    if (sender.kind == SenderKind::Device) WriteLog("find dev mode :%d", mode);
    if (sender.kind == SenderKind::Server) WriteLog("find server mode :%d", mode);
    if (sender.kind == SenderKind::None && mode != kAnalyticsLinkMode) {
        sender = FindSenderBySerial(buffer, length);
        if (sender.kind != SenderKind::None) {
            buffer += kSenderHeadSize;
            length -= kSenderHeadSize;
            VornServerSendState(loginId, 0);
        }
    }
    if (sender.kind == SenderKind::None) {
        std::printf("alarm not find device\n");
        WriteLog("alarm not find device\n");
        return;
    }
    EventInput in;
    EventNode node;
    if (!ReadRecord(buffer, length, false, in)) return;
    if (!ResolveSenderNode(sender, in.rec, node)) return;
    DispatchEvent(in, node);
}

void CCMSSvrDlg::ProcessEventFromStruct(const unsigned char* buffer, int length) {
    EventInput in;
    EventNode node;
    if (!ReadRecord(buffer, length, true, in)) return;
    if (!ResolveAddressedNode(in.rec.nNodeID, in.rec.nNodeType, true, node)) return;
    DispatchEvent(in, node);
}

bool CCMSSvrDlg::IntvDownProcess() {
    _alarm_Info alarm{};
    if (!FetchNextAlarm(m_nLastRecord, alarm)) return false;
    char url[kNodeUrlSize] = {0};
    // Not advancing on failure: the same alarm is tried again on the next call.
    if (!GetUrlFromNode(alarm.nNodeID, alarm.nNodeType, url, sizeof url)) return false;
    char replayUrl[kNodeUrlSize + 64];
    AppendReplayWindow(url, alarm.unTime, replayUrl, sizeof replayUrl);

    auto* info = new _USER_CMD_INFO{};
    info->id = alarm.nAlarmID;
    info->type = 1;
    std::snprintf(info->table, sizeof info->table, "%s", "intveventlog");
    info->unStart = info->unlastdata = GetTickCount();  // not stale before it starts
    const bool started = StartMediaJob(replayUrl, info) != 0;
    // By one, not to the alarm id, so that ids skipped on the way are visited later.
    ++m_nLastRecord;
    return started;
}
