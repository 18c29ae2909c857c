// Node addressing: the play and configuration addresses of catalogue nodes, link answers
// by channel code, node classification, media registrations, per-vendor RTSP templates and
// the domain-server list of a domain.
//
// A play address is "rtsp:/" + the route path of the node's region (media servers from
// the top down, see GetDevPath) + the node's own colon-separated connection fields.
//
// Locking: every function here takes csCatalog itself (and none is called with it held),
// except GetRegMedia, which returns a catalogue pointer: its caller holds a read lock.
// They read under the read lock; only resolving a registered device (whose record is
// cleared) takes the write lock. Nothing is printed while the lock is held.
// Functions that also query the database (server channels, domain servers) do so before
// taking the lock.
#pragma once

#include <cstddef>

#include "comm/settings.h"
#include "mysql/dbrecords.h"

constexpr size_t kNodeUrlSize = 200;  // the callers' address buffers

// Reply of a play-address request; sent as is, 364 bytes.
struct _msg_link_info {
    int nLinkMode;
    char szCode[30];
    char szDomainCode[30];
    char szDirect[300];  // play address
};
static_assert(sizeof(_msg_link_info) == 364, "_msg_link_info wire size");
static_assert(offsetof(_msg_link_info, szCode) == 4, "_msg_link_info layout");
static_assert(offsetof(_msg_link_info, szDomainCode) == 34, "_msg_link_info layout");
static_assert(offsetof(_msg_link_info, szDirect) == 64, "_msg_link_info layout");

// Device types answered by GetDevTypeFromNode.
enum { DEVTYPE_UNKNOWN = 0, DEVTYPE_INTV = 1, DEVTYPE_RECORD = 2 };

// Play address of a node (types 3 channel, 2 device, 9 server channel) into `url`
// (urlSize bytes). 1 on success, 0 for a null url or a missing record. Other node types
// write nothing and answer 1. Resolving a device registered with a media server clears
// the device's serial in the catalogue (a quirk of the address scheme, kept deliberately).
int GetUrlFromNode(int nodeid, int nodetype, char* url, size_t urlSize = kNodeUrlSize);
// Configuration address of a node (types 1, 2, 3, 9, 10); 1/0 as GetUrlFromNode.
int GetConfigUrlFromNode(int nodeid, int nodetype, char* url, size_t urlSize = kNodeUrlSize);
// Fills `link` for a channel or device code: the play address of a local device, or the
// domain code and link mode of a cascaded one (empty when its domain is missing). 1 when the
// code was resolved.
int GetLinkInfoFromCode(const char* code, _msg_link_info* link);
// DEVTYPE_INTV, DEVTYPE_RECORD or DEVTYPE_UNKNOWN.
int GetDevTypeFromNode(int nodeid, int nodetype);
// Channel number of a channel node (3 or 9) as decimal text; other node types answer 1
// without writing; a missing channel or null text 0. `text` holds textSize bytes.
int GetSerialFromNode(int nodeid, int nodetype, char* text, size_t textSize = 12);

// Registration whose serial equals `serial` exactly; null for none or a null serial.
// The caller holds a CatalogReadLock while it uses the result.
_dev_register* GetRegMedia(const char* serial);
// First template of m_arrRtspString with that type and link 1; null when none.
_RtspHelpString* GetRtspHelp(int type);
// Expands a template ("{ip}", "{port}", "{user}", "{pass}", "{chan}", "{stream}") after
// "rtsp://" into `url` (urlSize bytes). 0 when url, template, user or pass is null.
int GetRtspUrl(char* url, const char* tmpl, const char* ip, int port, const char* user,
               const char* pass, int chan, int stream, size_t urlSize = 256);
// The domain with serial `code` and its child domains as an array of 316-byte domain_base
// records in `records` (new[]; the caller frees it with delete[]), `length` its size.
// 0 when the domain is unknown or the database fails; 1 with nothing allocated when the
// list is empty.
int GetDomainServer(const char* code, char*& records, int& length);
constexpr int DOMAIN_BASE_SIZE = 316;
