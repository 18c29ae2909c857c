// Catalogue records: one plain record per catalogue row, with fixed text arrays.
// The field order and sizes are part of the server's vocabulary (some records travel
// on the wire or are indexed by byte offset elsewhere), so they must not be reordered.
#pragma once

#include <cstdint>

// Node kinds; stored in every `nodetype` column and sent on the wire.
enum _NODE_TYPE_ {
    REGION_NODE = 0,
    SERVER_NODE = 1,
    DEVICE_NODE = 2,
    DEVCHAN_NODE = 3,
    DEVGROUP_NODE = 4,
    USERGROUP_NODE = 5,
    DEPARTMENT_NODE = 6,
    MAP_NODE = 7,
    UNIONGROUP_NODE = 8,
    SERVERCHAN_NODE = 9,
    DOMAIN_NODE = 10,
};

enum _SERVER_TYPE_ {
    SERVER_UNDEF = 0,
    SERVER_MEDIA = 1,
    SERVER_STORE = 2,
    SERVER_INTV = 3,  // video analytics
    SERVER_FACE = 4,
    SERVER_STRUCT = 5,
    SERVER_IOT = 6,
};

enum _DOMAIN_TYPE_ {
    LOCAL_DOMAIN = 0,
    DOWN_DOMAIN = 1,
    UP_DOMAIN = 2,
    REG_DOMIAN = 3,
    DEV_DOMIAN = 4,
};

enum domainnodetype {
    DOMAIN_NODE_UNDEF = -1,
    DOMAIN_NODE_REGION = 0,
    DOMAIN_NODE_DVR = 1,
    DOMAIN_NODE_CAMERA = 2,
    DOMAIN_NODE_CHAN = 3,
};

// Three names share the value 1 on purpose.
enum hardtype {
    TYPEOFCAMERA = 1,
    TYPEOFDEV = 2,
    TYPEOFVCHAN = 1,
    TYPEOFGROUP = 1,
};

enum _GB_PUSH_MODE {
    GB_PUSH_SHARE = 0,
    GB_PUSH_SHARE_DEV = 1,
    GB_PUSH_GROUP = 2,
    GB_PUSH_CMS = 3,
    GB_PUSH_CMS_DEV = 4,
};

// Bit of the 32-bit status word of device, server and domain records.
constexpr uint32_t NODE_OFFLINE_FLAG = 0x10000;

struct _msg_region_base {
    int nID;
    char szName[50];
    int nParentID;
    bool bCenter;
    char szIP[16];
    int nPort;
    bool bEnable;
    char szSerial[40];
    unsigned int unIndex;
    bool bVirtual;  // true when the row's `usecode` is 0
    int nDomainID;
    int nType;
};

struct _msg_recorddevice_base {
    int nID;
    char szName[60];
    char szSerial[30];
    uint8_t nHardType;
    uint8_t nLinkType;
    uint8_t nServerType;
    char szIP[50];
    int nPort;
    char szUser[20];
    char szPass[20];
    char szCode[30];
    int nRegionID;
    int16_t nStorePos;
    int16_t nMatixPos;
    uint8_t nSetAlarm;
    unsigned int unIndex;
    unsigned int unRight;
    unsigned int nStatus;
    uint8_t byResType;
    int nDomainID;
};

struct _hcrecord_Info {
    _msg_recorddevice_base dev;
    int nMode;
    int lLoginID;  // connection of the device session, -1 when not logged in
};

struct _msg_video_record_base {
    int nID;
    int nChan;
    char szName[60];
    int nStorePos;
    int nDeviceID;
    int nMatrixPos;
    uint8_t nSetAlarm;
    uint8_t nLevel;
    int nType;
    char szPass[20];
    int nUpAlarm;
    int nUpWarn;
    int nDownAlarm;
    int nDownWarn;
    char szSerial[30];
    char szCode[30];
    char szIP[20];
    char szUser[20];
    int nPort;
    int nFtype;
    char szScale[8];
    int nMode;
    int nResType;
    unsigned int unIndex;
    unsigned int unRight;
    unsigned int nStatus;
};

struct _msg_systemsrv_base {
    int nID;
    char szName[40];
    char szIP[16];
    int nPort;
    int nHPort;
    int nServerType;
    char szSerial[40];
    char szUser[20];
    char szPass[20];
    int nFactoryType;
    int nPropertyType;
    int nParentID;
    int nState;
    int nRegionID;
};

struct _sysserver_info {
    _msg_systemsrv_base svr;
    int nCustom;
    int nMode;
    int lLoginID;
};

struct _msg_domain_base {
    int nID;
    char szSerial[50];
    char szIP[50];
    char szCode[50];
    char szParentCode[50];
    char szRegCode[50];
    int nPort;
    int nPort2;
    int nHttpPort;
    char szUser[20];
    char szPass[20];
    int nType;
    int nLinkMode;
    int nPushMode;
    bool bAuth;
    int nRegionID;
    int nParentID;
    int nState;
};

struct _domain_info {
    _msg_domain_base svr;
    int lLoginID;
};

// A domain as handed to the URL resolver.
struct domain_base {
    char szSerial[50];
    char szIP[50];
    char szCode[50];
    char szParentCode[50];
    char szRegCode[50];
    int nPort;
    int nHttpPort;
    char szUser[20];
    char szPass[20];
    int nType;
    int nLinkMode;
    int nPushMode;
    bool bAuth;
};

// A node registered with a media server (table `mediaregistor`).
struct _dev_register {
    int id;
    int parentid;
    int nodeid;
    int type;
    char serial[32];
    char ip[32];
    int state;  // byte 80: also the removal mark of the registration merge
};
static_assert(sizeof(_dev_register) == 84, "_dev_register layout");

struct _msg_serverchan_base {
    int nDevID;
    int nChan;
    int nChanType;  // filled from column `port2`, deliberately
    char szCode[50];
};

struct _msg_serverchan_v2 {
    int nID;
    int nIndex;
    int nServerID;
    unsigned int unStatus;
};

struct _msg_devgroup_base {
    int nID;
    char szName[50];
    int nType;
    int nParentID;
    int nRegionID;
    unsigned int unIndex;
    char szCode[30];
    int nMode;
    bool bTranseMatrix;
    int nClassType;
    bool bCapimage;
    int nPresetID;
    bool bVerify;
};

struct _msg_changroup_base {
    int nID;
    int nDevID;
    int nChanID;
    int nGroupID;
};
