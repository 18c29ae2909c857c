// Database operations: statement helpers, catalogue loaders and lookups.
// Loaders and lookups take no lock; callers that pass the global catalogue vectors hold
// csCatalog (mysql/catalog.h) as its rules say.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "mysql/MysqlDB.h"
#include "mysql/MysqlRecordSet.h"
#include "mysql/catalog.h"
#include "mysql/dbrecords.h"
#include "mysql/eventwriter.h"
#include "mysql/nodecatalog.h"

// ---- Statement helpers (connect with m_cfgCms, run, close) ----
bool ConnectDB(CMysqlDB* db);
void CloseDB(CMysqlDB* db);
// Runs an INSERT; returns the new id, 0 on any failure. `sql` is overwritten (see Execute).
int64_t AddRecordBySQL(char* sql);
bool OperateDBBySQL(const char* sql);
// Runs "statement&col1,col2,..." and answers with an XML row set allocated with new[].
// 1 with *out and *length set, 0 on a database failure, -1 on a malformed request, -2
// when the answer would be longer than `maxLength` (it is not built further).
// `request` is split in place.
int GetMyselfData(char* request, char** out, int* length, size_t maxLength = INT_MAX);
// Escapes `in` for a quoted SQL literal into `out` of `outSize` bytes (truncating the
// input so that the escaped text fits). Uses the connection's character set when `db`
// is open, plain MySQL escaping otherwise.
void EscapeSql(CMysqlDB* db, const char* in, char* out, size_t outSize);

// ---- Loaders: append one new heap record per row ----
void GetRegion_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_region_base*>& out);
void GetVideoDev_FromDB(CMysqlDB* db, const char* sql, std::vector<_hcrecord_Info*>& out);
void GetVideoChan_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_video_record_base*>& out);
void GetSystemServer_FromDB(CMysqlDB* db, const char* sql, std::vector<_sysserver_info*>& out);
void GetDomain_FromDB(CMysqlDB* db, const char* sql, std::vector<_domain_info*>& out);
void GetRegist_FromDB(CMysqlDB* db, const char* sql, std::vector<_dev_register*>& out);
void GetSystemServerChan_FromDB(CMysqlDB* db, const char* sql,
                                std::vector<_msg_serverchan_base*>& out);
void GetServerChan_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_serverchan_v2*>& out);
void GetDevGroup_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_devgroup_base*>& out);
void GetDevGroupChan_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_changroup_base*>& out);
bool GetServerChan_FromDB(int id, _msg_serverchan_base* out);
int GetDomainSeverFromDB(const char* serial, std::vector<domain_base*>& list);

// ---- Lookups: linear scans in vector order, first match wins, null when none ----
_msg_region_base* GetRegionInfobyID(const std::vector<_msg_region_base*>& v, int id);
_msg_region_base* GetRegion(const std::vector<_msg_region_base*>& v, int id);
_msg_region_base* GetRegionInfobyType(const std::vector<_msg_region_base*>& v, int type);
_msg_region_base* GetRegionInfobySerial(const std::vector<_msg_region_base*>& v, const char* code);
_msg_region_base* GetParentRegion(const _msg_region_base* region,
                                  const std::vector<_msg_region_base*>& v);
_msg_region_base* GetRootRegion(const std::vector<_msg_region_base*>& v);
_hcrecord_Info* GetDeviceInfoByID(const std::vector<_hcrecord_Info*>& v, int id);
_hcrecord_Info* GetDeviceInfoByLogin(const std::vector<_hcrecord_Info*>& v, int login);
_hcrecord_Info* GetDeviceInfoByCode(const std::vector<_hcrecord_Info*>& v, const char* code);
_hcrecord_Info* GetDeviceInfoBySerial(const std::vector<_hcrecord_Info*>& v, const char* serial);
_msg_video_record_base* GetVideoChanInfoByID(const std::vector<_msg_video_record_base*>& v, int id);
_msg_video_record_base* GetVideoChanInfoByDev(const std::vector<_msg_video_record_base*>& v,
                                              int devId, int chan, int type);
_msg_video_record_base* GetVideoChanInfoByCode(const std::vector<_msg_video_record_base*>& v,
                                               const char* code);
_msg_video_record_base* GetVideoChanInfoBySerial(const std::vector<_msg_video_record_base*>& v,
                                                 const char* serial);
_sysserver_info* GetSystemSvrByRegion(int regionId, int serverType,
                                      const std::vector<_sysserver_info*>& v);
_sysserver_info* GetSystemSvrByID(int id, const std::vector<_sysserver_info*>& v);
_sysserver_info* GetSystemSvrByLogin(int login, const std::vector<_sysserver_info*>& v);
_sysserver_info* GetSystemSvrBySerial(const char* serial, const std::vector<_sysserver_info*>& v);
_domain_info* GetDomainInfoByID(const std::vector<_domain_info*>& v, int id);
_domain_info* GetDomainInfoByLogin(const std::vector<_domain_info*>& v, int login);
_domain_info* GetDomainInfoByCode(const std::vector<_domain_info*>& v, const char* code);
_domain_info* GetDomainInfoBySerial(const std::vector<_domain_info*>& v, const char* serial);
_dev_register* GetMediaRegistInfoBySerial(const std::vector<_dev_register*>& v, const char* serial);
_msg_devgroup_base* GetGroup(int id, const std::vector<_msg_devgroup_base*>& v);
_msg_devgroup_base* GetGroupFromCode(const char* code, const std::vector<_msg_devgroup_base*>& v);
_msg_serverchan_v2* GetChanInfoByServer(const std::vector<_msg_serverchan_v2*>& v, int serverId,
                                        int index, int unused);

// ---- Region tree walks ----
// GetRegions: the descendants of `region`, depth first, pre-order, without the region.
// GetParengRegionsEx: the chain from `region` up to its root, nearest first, skipping ids
// that `out` already holds. GetParengRegions: the ancestors inserted at the front of
// `out`, root first. All three return 0 for a null region or an empty `all`, else 1; their
// steps are bounded by the size of `all`, so a cyclic region table cannot make them loop.
int GetRegions(const _msg_region_base* region, const std::vector<_msg_region_base*>& all,
               std::vector<_msg_region_base*>& out);
int GetParengRegionsEx(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                       std::vector<_msg_region_base*>& out);
int GetParengRegions(_msg_region_base* region, const std::vector<_msg_region_base*>& all,
                     std::vector<_msg_region_base*>& out);
