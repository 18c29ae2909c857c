// The catalogue lock.
//
// `csCatalog` guards the six catalogue vectors (m_arrRegionInfos, m_arrRecordInfos,
// m_arrVideoChanInfos, m_arrServerFromDB, m_arrDomainFromDB, m_arrMediaRegInfos), every
// field of every record in them, and the lookup indexes beside them (mysql/catalogindex.h).
// Rules:
//  - Hold a CatalogReadLock for as long as you use a record pointer found by a lookup;
//    copy what you need and release before any database or network I/O, and before printing.
//  - Hold a CatalogWriteLock to append, to release, or to change a field (lLoginID,
//    nStatus, ...). A reload releases records only under the write lock, so no reader
//    can still be using them.
//  - The indexes follow appends, releases and changes to records that a lookup found under
//    the write lock by themselves. A record reached another way (by position, or kept from
//    an earlier lock) gets its login handle through CatalogSetLogin, or CatalogIndexRefile
//    after its serial or code changed.
//  - The lock is not recursive: never take the write lock while holding the read lock.
// Lookups and loaders themselves take no lock; they work on whatever vector they are
// given, so tests and local vectors need none.
#pragma once

#include <mutex>
#include <shared_mutex>

extern std::shared_mutex csCatalog;

// Brings the indexes in step with the vectors (appends, releases, fields changed on records
// found by a lookup under the write lock); needs the write lock.
void CatalogIndexSync();
// Marks the calling thread as the writer (the lookups then note what they hand out).
void CatalogWriterEnter();
void CatalogWriterLeave();

using CatalogReadLock = std::shared_lock<std::shared_mutex>;

// The write lock; the indexes are brought in step before it is let go.
class CatalogWriteLock : public std::unique_lock<std::shared_mutex> {
public:
    explicit CatalogWriteLock(std::shared_mutex& m) : std::unique_lock<std::shared_mutex>(m) {
        CatalogWriterEnter();
    }
    CatalogWriteLock(const CatalogWriteLock&) = delete;
    CatalogWriteLock& operator=(const CatalogWriteLock&) = delete;
    ~CatalogWriteLock() {
        if (owns_lock()) Leave();
    }
    void unlock() {
        Leave();
        std::unique_lock<std::shared_mutex>::unlock();
    }

private:
    void Leave() {
        CatalogIndexSync();
        CatalogWriterLeave();
    }
};

#include <vector>

#include "mysql/dbrecords.h"

// The catalogue (guarded by csCatalog).
extern std::vector<_msg_region_base*> m_arrRegionInfos;
extern std::vector<_hcrecord_Info*> m_arrRecordInfos;
extern std::vector<_msg_video_record_base*> m_arrVideoChanInfos;
extern std::vector<_sysserver_info*> m_arrServerFromDB;
extern std::vector<_domain_info*> m_arrDomainFromDB;
extern std::vector<_dev_register*> m_arrMediaRegInfos;

// Sets a record's login handle and re-files it; needs the write lock.
void CatalogSetLogin(_hcrecord_Info& r, int login);
void CatalogSetLogin(_sysserver_info& r, int login);
void CatalogSetLogin(_domain_info& r, int login);

// Re-files a record whose serial or code changed; needs the write lock.
void CatalogIndexRefile(const _msg_region_base& r);
void CatalogIndexRefile(const _hcrecord_Info& r);
void CatalogIndexRefile(const _msg_video_record_base& r);
void CatalogIndexRefile(const _sysserver_info& r);
void CatalogIndexRefile(const _domain_info& r);

// Releasing a global vector also marks its index for a rebuild, so that a reload under the
// same lock is not taken for appends. Other vectors are released as by the plain template.
int ReleaseArray(std::vector<_msg_region_base*>& v);
int ReleaseArray(std::vector<_hcrecord_Info*>& v);
int ReleaseArray(std::vector<_msg_video_record_base*>& v);
int ReleaseArray(std::vector<_sysserver_info*>& v);
int ReleaseArray(std::vector<_domain_info*>& v);

// Checking mode: every indexed answer compared with the scan (see mysql/catalogindex.h).
void CatalogIndexSetChecking(bool on);
