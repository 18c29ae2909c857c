// Sub-server registration: the lists of devices and servers registered with a media
// server, and of the sub-domains of a lower domain, fetched over the remote-configuration
// path and merged into the `mediaregistor` table and m_arrMediaRegInfos.
//
// Locking: ProcessSubDev and ProcessSubDomian take csCatalog themselves and never hold it
// across database I/O; call them without holding it. The fetchers and parsers touch only
// the list they are given.
#pragma once

#include <vector>

#include "mysql/dbrecords.h"

class CMysqlDB;

// Reply buffer of one registration fetch.
constexpr int SUBREG_REPLY_SIZE = 51200;

// ---- Fetch ----
// Asks "<baseUrl>/xconfig?cmd=getregister" (baseUrl is "rtsp://ip:port") and appends one new
// zeroed record per "<dev>serial:ip</dev>" element to `list` (the caller owns them). 1 once a
// record was appended; otherwise the request's result (0 also for a null baseUrl).
int GetMediaRegistor(const char* baseUrl, std::vector<_dev_register*>& list);
// Same for "<baseUrl>/xconfig?cmd=getdomain": one record per "<domain>" element, `serial`
// from "<code>" and `state` from "<status>".
int GetDomainRegistor(const char* baseUrl, std::vector<_dev_register*>& list);

// The reply readers behind the fetchers. The read position moves on by a fixed 6 ("<dev>")
// or 9 ("<domain>") bytes per element, not past the element, so elements standing further
// apart are read again: the registration merge has always seen such duplicates. An end tag
// that stands before the start tag found is refused (no record). Return how many records
// were appended.
int ParasMediaRegistor(const char* reply, std::vector<_dev_register*>& list);
int ParasDomainRegistor(const char* reply, std::vector<_dev_register*>& list);
// Registration notice: "<dev>" to `serial`, "<st>" to `state`; nothing else is touched.
int ParasRegistFromXML(const char* text, _dev_register* registration);

// ---- Merge ----
// Merges one registration that `server` reported. `server` is the caller's copy of the
// reporting server (not a catalogue pointer); its nState is updated, and so is the catalogue
// record with the same id. `reg` receives nodeid, type and parentid when it is added.
// 1 when handled; 0 for null arguments, or a new registration of an unknown node.
int ProcessSubDev(_sysserver_info* server, _dev_register* reg);
// 0 for null; otherwise looks the domain up by `serial` and returns 1 (no further effect).
int ProcessSubDomian(_dev_register* reg);

// ---- Table operations, each on the caller's open connection; 1 on success, 0 on failure ----
int AddRegister(CMysqlDB* db, const _dev_register* reg);
int DeleteRegister(CMysqlDB* db, int id);
int UpdateRegister(CMysqlDB* db, int id, int parent);
