// Camera and analytics configuration tables: the channels a configuration is pushed to, the
// cameras of an analytics server or found by a device search, the configuration cached in
// `devicecfg`, and the staff whose faces are registered.
//
// Every function works on the caller's open connection and returns 1 on success, 0 on
// failure (a null connection included). Records are appended to the caller's vector as
// new zeroed heap records, which the caller owns (ReleaseArray). Text values from outside
// are escaped into the statements. No lock is taken.
#pragma once

#include <cstdint>
#include <vector>

#include "comm/localdata.h"

class CMysqlDB;

// A channel a configuration is pushed to: a device channel (3) or a server channel (9).
struct _config_chan_info {
    int64_t nNodeID;
    int nNodeType;
};

// A staff member whose pictures are registered as one face.
struct _face_register {
    int id;      // staff id
    int faceid;  // id the analytics device gave the face; 0 before registration
    char name[32];
};

// Channels of a node, in id order: a server (1) has its server channels, a device (2) its
// device channels, a channel (3 or 9) is its own one channel. 0 for other node types.
int GetConfigChan_FromDB(CMysqlDB* db, int nodeid, int nodetype,
                         std::vector<_config_chan_info*>& out);

// Cameras assigned to an analytics server: one per server channel, in id order. The
// address, login, make, channel, code and parent serial come from the source device channel
// and its device when the server channel names one (column devid), else from the server
// channel itself; name, stream, mode and path always from the server channel. nStoreIndex
// is the server channel's row id, and szSerial the index the server gave the camera
// (column sindex) when it has one, so that writing it back leaves it unchanged.
int GetServerCamera_FromDB(CMysqlDB* db, int serverid, std::vector<_cammera_info*>& out);

// Stored cameras of a device are its device channels.
int DeleteCameras(CMysqlDB* db, int devid);
// The cameras a recorder or media server reported, one device channel each, numbered by
// the channel number the device reported. Stops at the first failed insert.
int InsertCameras(CMysqlDB* db, int devid, const std::vector<_cammera_info*>& cameras);
// The video sources an analytics device reported: their channel number is the index the
// device gave the source ("<index>"; the position in the list, from 1, when it gave none),
// since that is the channel the device is addressed by; address and login are the source's.
int InsertIntvCameras(CMysqlDB* db, int devid, const std::vector<_cammera_info*>& cameras);

// Readers of cached configuration: run `sql` (a SELECT on devicecfg) and make one record
// per row from its `configure` text, with nNodeID and nNodeType from the row.
int GetRuleConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_ruleinfo*>& out);
int GetParamConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_paraminfo*>& out);
int GetModelConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_modelparaminfo*>& out);
int GetScenceConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_ruleinfo*>& out);
int GetPlanConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_planinfo*>& out);
int GetParamExConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_paraminfoex*>& out);
int GetRecordParamConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_record_config*>& out);
int GetRecordTempleConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_temple_config*>& out);

// Staff rows of `sql`: columns id, faceid and name, each as far as the query returns it.
int GetStiff_FromDB(CMysqlDB* db, const char* sql, std::vector<_face_register*>& out);
