// Remote configuration of analytics and recording servers over the command channel: a node
// address (nodes/nodeurl.h) plus "/xconfig?cmd=..." with an XML body, answered with
// "<ret>value</ret>" or a 4-byte status. Configuration read back is cached in `devicecfg`.
//
// Locks: none held; the address lookups take csCatalog briefly themselves, so call these
// without holding it. Every request is one blocking exchange (see RUSK_TRANSCOMMAND).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "comm/localdata.h"
#include "mysql/cfgtables.h"

class CMysqlDB;

// Configuration types, as the HTTP interface and the nodes number them.
enum _CONIFG_TYPE_ {
    CFG_PICTURE_PARAM = 1,
    CFG_COMPRESS_PARAM = 2,
    CFG_RECORD_PARAM = 3,
    CFG_SHOWSTRING_PARAM = 4,
    CFG_PASSWORD_PARAM = 5,
    CFG_CAMERA_SEARCH = 6,
    L_CFG_INTV_PARAM = 7,
    L_CFG_INTV_RULE = 8,
    L_CFG_INTV_PLAN = 9,
    L_CFG_INTV_MODEL = 10,
    L_CFG_INTV_SCENE = 11,
    L_CFG_RECORD_PARAM = 12,
    L_CFG_RECORD_PLAN = 13,
    L_CFG_RECORD_PLAN_THRES = 14,
    L_CFG_GET_CAMERA = 15,
    L_CFG_ADD_CAMERA = 16,
    L_CFG_UPDATE_CAMERA = 17,
    L_CFG_DELETE_CAMERA = 18,
    L_CFG_HELP_RULE = 19,
    L_CFG_HELP_OBJECT = 20,
    L_CFG_HELP_MODEL = 21,
    L_CFG_HELP_INTVPARAM = 22,
    L_CFG_HELP_DEVTYPE = 23,
    L_CFG_INTV_FACE_ADD = 35,
    L_CFG_INTV_FACE_DELETE = 37,
    L_CFG_INTV_FACE_CLEAR = 38,
    L_CFG_INTV_PARAM_EX = 47,
    L_CFG_INTV_OBJECT_PARAM = 48,
    L_CFG_ALL = 255,  // every type of the node's device type
};

// Node commands appended by ConfigDevServer (the HTTP command numbers).
enum { NODE_CMD_RESET = 10, NODE_CMD_REBOOT = 16, NODE_CMD_POWEROFF = 17 };

// Text of a node's reply ("<ret>" value) kept by RemoteDevConfig.
constexpr size_t REMOTE_REPLY_SIZE = 512;

// Sends `url` with `body` (null or `length` 0: none) and prints "remoteset :<url> " and the
// body. The "<ret>" text of the reply goes to `ret` (`retSize` bytes, terminated; may be
// null) and its length to `retLength`. True when the node answered and its answer is not
// a "<ret>" reading as 0 nor a non-zero 4-byte status; any other answer counts as success.
bool RemoteDevConfig(const char* url, const char* body, int length, char* ret, size_t retSize,
                     int& retLength);
// Sends `url` without body; always 1, whatever the node says.
int ConfigFromCommand(const char* url);
// Sends reboot (16), poweroff (17) or reset (10; with the channel number as "sn" for a
// channel node) to the node; other commands send its bare address. False only when the
// node has no address.
bool ConfigDevServer(int nodeid, int nodetype, int command);

// Pushes configuration `type` to every channel: each channel with a non-zero channel
// number and an address gets its record from `records` (matched by node id and type), or a
// zeroed record that clears the type on it. 1 when at least one channel accepted. Types
// whose records are not of kind T push nothing. T is one of _paraminfo, _ruleinfo,
// _planinfo, _modelparaminfo, _record_config, _temple_config, _paraminfoex.
template <class T>
int ConfigServerEx2(int type, const std::vector<_config_chan_info*>& channels,
                    const std::vector<T*>& records);
// The first record of `records` for that node, for the configuration types 7-14, 47 and 48;
// any other type matches only node 0 of type 0. Null when none matches.
template <class T>
T* GetConfigFromType(int type, int64_t nodeid, int nodetype, const std::vector<T*>& records);

// Adds `cameras` to an analytics server (type 16; other types do nothing and answer 1),
// stopping at the first refusal. Each camera's szSerial is cleared before it is sent and
// then set to the serial the server answered with. 0 when the node has no address.
int ConfigServer2(int nodeid, int nodetype, int type, std::vector<_cammera_info*>& cameras);
// Clears configuration `type` on the node by sending an empty record of the type (a
// camera clear, 18, sends no body). True when the node accepted.
bool ClearConfigServerEx(int nodeid, int nodetype, int type);

// Reads configuration `type` from the node into `list` (new records the caller owns).
// 1 when it was read and gave at least one record.
template <class T>
int GetConfigServer(int nodeid, int nodetype, int type, std::vector<T*>& list);
// Refreshes the cached copy of `type` in devicecfg: the old row is deleted first, so a
// failed read leaves none. 1 when the configuration was read and stored.
int GetConfigServerEx(CMysqlDB* db, int nodeid, int nodetype, int type);

// The SELECT on devicecfg that reads the cached configuration `type` of a node's channels
// (a server's or a device's) or of one channel, into `sql` (`size` bytes). 0 for null.
int GetSqlFromNodeConfig(int nodeid, int nodetype, int type, char* sql, size_t size = 200);
