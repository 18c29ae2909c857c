// Message protocol records. Wire records are little-endian; their in-memory layout
// matches the wire on x86-64 (checked below), so a received record is read by copying
// the bytes into a zeroed record and terminating its text fields.
#pragma once

#include <cstddef>
#include <cstdint>

enum _SERVER_MSG_TYPE_ {
    CMS_MSG_LOGIN = 1,
    CMS_MSG_ALARM = 2,
    CMS_LOGIN_SERVER = 3,
    CMS_LOGIN_MATRIXSVR = 4,
    CMS_LOGIN_DOMAIN_SERVER = 5,
    CMS_LOGIN_CLIENT = 6,
    CMS_LOGIN_MOBI = 7,
    CMS_MSG_MRL = 8,
    CMS_MSG_GET_DATA = 9,
    CMS_MSG_SUBSERVERSTATUS = 10,
    CMS_MSG_DOMAIN = 11,
    CMS_MSG_MESSAGE = 12,
    CMS_MSG_LOGIN_GETDATA = 13,
    CMS_MSG_LOGIN_GETDATA_HTTP = 14,
    CMS_MSG_LOGIN_CHECK = 15,
    CMS_MSG_SQLOPERATION_EX = 16,
    CMS_MSG_RESULT = 17,
    CMS_MSG_DELETEFILE = 18,
    CMS_MSG_WRITEFILE = 19,
    CMS_MSG_GETFILE = 20,
    CMS_MSG_META_LOGIN = 21,
    CMS_MSG_META = 22,
    CMS_MSG_OPERATION = 24,
    CMS_MSG_MEDIA_MRL_UPDATE = 25,
    CMS_MSG_MEDIA_DISLINK = 26,
    CMS_MSG_UPDATE_DATA = 27,
    CMS_MSG_PUSH_DATA = 28,
    CMS_MSG_GET_URL = 29,
};

enum _DATABASE_OP {
    DATAADD = 1,
    DATADEL = 2,
    DATAMODIFY = 3,
    DATAQUERY = 4,
    DATAQUERYMYSELF = 5,
    DATAQUERYMYSELFEX = 6,
    DATABATCHPROCESS = 7,
    DATABATCHPROCESSINSERT = 8,
    DATABATCHPROCESSUPDATE = 9,
    DATABATCHPROCESSDELETE = 10,
};

enum _GET_DATA_TYPE_ {
    DATA_CAMERA = 1,
    DATA_CONFIG = 2,
    DATA_GB_CMS_NODE = 3,
    DATA_GB_SHARE_NODE = 4,
    DATA_GB_GROUP_NODE = 5,
    DATA_GB_DOMAIN_NODE = 6,
    DATA_SUB_SERVER = 7,
};

// Reply sub-codes of CMS_MSG_RESULT frames sent by the server.
enum { CMS_RESULT_STATE = 0, CMS_RESULT_DATA = 1 };

struct _msg_head_info {
    uint8_t nType;
    uint8_t nFrom;
    uint8_t nTo;
    uint8_t pad;
    int32_t nFromClientID;
    int32_t nToClientID;
};
static_assert(sizeof(_msg_head_info) == 12, "wire layout");

// Node record of CMS_MSG_PUSH_DATA.
struct _msg_domain_info {
    int32_t nType;
    char szCode[30];
    char szParentCode[30];
    char szCityCode[30];
    char szDomainCode[30];
    int32_t nNodeType;
    int32_t nStatus;
    char szName[50];  // GB2312
    char pad[2];
    double dbLongitude;
    double dbLatitude;
};
static_assert(sizeof(_msg_domain_info) == 200, "wire layout");
static_assert(offsetof(_msg_domain_info, szName) == 132, "wire layout");
static_assert(offsetof(_msg_domain_info, dbLongitude) == 184, "wire layout");

// Payload of CMS_MSG_GET_URL.
struct _msg_url_req {
    int64_t nodeid;  // the low 32 bits are used
    int32_t nodtype;
    char code[32];
    char pad[4];
};
static_assert(sizeof(_msg_url_req) == 48, "wire layout");
static_assert(offsetof(_msg_url_req, code) == 12, "wire layout");

struct _msg_command_base {
    int32_t nType;
    int32_t nConfigType;
    char szSerial[32];
};
static_assert(sizeof(_msg_command_base) == 40, "wire layout");

// Payload offsets of CMS_MSG_GET_DATA: the data type, 4 unused bytes, then the code.
constexpr size_t GET_DATA_CODE_OFFSET = 8;

// Object location inside an event record.
struct LOCATION_INFO {
    uint16_t left;
    uint16_t top;
    uint16_t right;
    uint16_t bottom;
};

// Event record, followed by up to four pictures.
struct _msg_alarm_comm {
    int32_t nID;
    uint32_t unTime;
    char szSerial[30];
    char pad[2];
    int32_t nNodeID;
    int32_t nNodeType;
    int32_t nEventType;  // class in the top 8 bits
    int32_t nRuleIndex;
    int32_t nObjType;
    uint32_t unDetail;
    char szComm[30];
    char szInfo[30];
    LOCATION_INFO bBox;
    int32_t nReserve[4];
    int32_t nPicLen[4];
};
static_assert(sizeof(_msg_alarm_comm) == 164, "wire layout");
static_assert(offsetof(_msg_alarm_comm, nNodeID) == 40, "wire layout");
static_assert(offsetof(_msg_alarm_comm, szComm) == 64, "wire layout");
static_assert(offsetof(_msg_alarm_comm, bBox) == 124, "wire layout");
static_assert(offsetof(_msg_alarm_comm, nPicLen) == 148, "wire layout");

// Precedes an event record when the sender names itself by serial.
struct _msg_device {
    char szSerial[64];
};
static_assert(sizeof(_msg_device) == 64, "wire layout");

constexpr uint32_t EVENT_CLASS_DEVSTATE = 0x01000000;
constexpr uint32_t EVENT_CLASS_INTV = 0x03000000;
constexpr uint32_t EVENT_CLASS_DIAGNOSE = 0x04000000;
constexpr int INTV_EVENT_FACE = 64;

enum _DEV_EVENT_TYPE_ {
    DEVSTATE_DISLINK = 1,
    DEVSTATE_DISLINK_RESUME = 2,
    DEVSTATE_DISKERROR = 3,
    DEVSTATE_DISKERROR_RESUME = 4,
    DEVSTATE_DISKFULL = 5,
    DEVSTATE_DISKFULL_RESUME = 6,
    DEVSTATE_SETALARM = 7,
    DEVSTATE_CANCELALARM = 8,
    DEVSTATE_RECORDING = 9,
    DEVSTATE_NONRECORDING = 10,
};

enum _VIDEO_STATE_TYPE_ {
    DEVSTATE_VIDEO_RESUME = 0,
    DEVSTATE_VIDEOLINE = 1,
    DEVSTATE_VIDEOBRIGHT = 2,
    DEVSTATE_VIDEONOISE = 3,
    DEVSTATE_VIDEONOIGNAL = 4,
    DEVSTATE_VIDEOFREEZE = 5,
    DEVSTATE_VIDEOCOLOR = 6,
    DEVSTATE_VIDEOBLOCKED = 7,
    DEVSTATE_VIDEOBLUR = 8,
    DEVSTATE_VIDEOSHAKING = 9,
    DEVSTATE_VIDEOSCENECHG = 10,
    DEVSTATE_VIDEOLOSEFRAME = 11,
    DEVSTATE_VIDEOMOTION = 12,
};

// A client's media command session (guarded by csRecorder).
struct _USER_CMD_INFO {
    void* player;     // play session of the media library
    int64_t id;
    int type;
    int count;
    void* precorder;  // MP4 recorder, or null
    uint32_t unStart;
    uint32_t unlastdata;
    uint32_t unSession;
    bool bStop;
    char table[32];
    char path[128];
};
