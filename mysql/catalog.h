// The catalogue lock.
//
// `csCatalog` guards the six catalogue vectors (m_arrRegionInfos, m_arrRecordInfos,
// m_arrVideoChanInfos, m_arrServerFromDB, m_arrDomainFromDB, m_arrMediaRegInfos) and
// every field of every record in them. Rules:
//  - Hold a CatalogReadLock for as long as you use a record pointer found by a lookup;
//    copy what you need and release before any database or network I/O.
//  - Hold a CatalogWriteLock to append, to release, or to change a field (lLoginID,
//    nStatus, ...). A reload releases records only under the write lock, so no reader
//    can still be using them.
//  - The lock is not recursive: never take the write lock while holding the read lock.
// Lookups and loaders themselves take no lock; they work on whatever vector they are
// given, so tests and local vectors need none.
#pragma once

#include <mutex>
#include <shared_mutex>

extern std::shared_mutex csCatalog;

using CatalogReadLock = std::shared_lock<std::shared_mutex>;
using CatalogWriteLock = std::unique_lock<std::shared_mutex>;

#include <vector>

#include "mysql/dbrecords.h"

// The catalogue (guarded by csCatalog).
extern std::vector<_msg_region_base*> m_arrRegionInfos;
extern std::vector<_hcrecord_Info*> m_arrRecordInfos;
extern std::vector<_msg_video_record_base*> m_arrVideoChanInfos;
extern std::vector<_sysserver_info*> m_arrServerFromDB;
extern std::vector<_domain_info*> m_arrDomainFromDB;
extern std::vector<_dev_register*> m_arrMediaRegInfos;
