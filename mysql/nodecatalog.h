// Cascade node catalogue: the node lists an upper domain is sent, in its push mode, and
// the route path (chain of media servers) of a region.
//
// Locking: the builders and entry points take csCatalog themselves (read lock) and never
// hold it across their database queries. The helpers that take vectors as arguments
// (AppendParentNodes, GetRegMediaFromArray, GetDevPath, GetNodeFromCode) take no lock:
// a caller passing the global catalogue vectors holds at least a CatalogReadLock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "mysql/dbrecords.h"

// One node of a cascade list. Sent byte for byte (little-endian), so the layout below is
// a wire format: 640 bytes, offsets checked after the struct.
struct node_info {
    char szName[200];
    char szSerial[50];
    char szCode[50];  // nodes with an empty code are never sent
    char szIP[50];
    int nPort;
    int nftype;  // the device's nServerType as a signed byte
    char szUser[50];
    char szPass[50];
    char szParentCode[50];  // region serial, group code or domain code
    char szCityCode[50];
    char szDomainCode[50];
    double dbLongitude;
    double dbLatitude;
    int nType;  // 0 folder; device and channel values differ per builder (see .cpp)
    int nStatus;
};

constexpr int NODE_INFO_SIZE = 640;
static_assert(sizeof(node_info) == NODE_INFO_SIZE, "node_info wire size");
static_assert(offsetof(node_info, szSerial) == 200, "node_info layout");
static_assert(offsetof(node_info, szCode) == 250, "node_info layout");
static_assert(offsetof(node_info, szIP) == 300, "node_info layout");
static_assert(offsetof(node_info, nPort) == 352, "node_info layout");
static_assert(offsetof(node_info, nftype) == 356, "node_info layout");
static_assert(offsetof(node_info, szUser) == 360, "node_info layout");
static_assert(offsetof(node_info, szPass) == 410, "node_info layout");
static_assert(offsetof(node_info, szParentCode) == 460, "node_info layout");
static_assert(offsetof(node_info, szCityCode) == 510, "node_info layout");
static_assert(offsetof(node_info, szDomainCode) == 560, "node_info layout");
static_assert(offsetof(node_info, dbLongitude) == 616, "node_info layout");
static_assert(offsetof(node_info, dbLatitude) == 624, "node_info layout");
static_assert(offsetof(node_info, nType) == 632, "node_info layout");
static_assert(offsetof(node_info, nStatus) == 636, "node_info layout");

// One node shared with a domain (table `domainsharenode`); nType 2 device, 3 channel.
struct _msg_domain_chan_v2 {
    int nID;
    int nNodeID;
    int nType;
    int nDomainID;
};

// ---- Entry points: the packed list for an upper domain ----
// Each returns 1 on success, 0 on failure. An empty list is success with `buf` and `len`
// untouched. Otherwise `buf` is a new[] block of `len` = count x 640 bytes that the caller
// frees with delete[]; nodes without a code are skipped but still counted, so trailing
// slots are left zero. When no node had a code the result is 0 and `buf` is null.
// Share list (push modes 0 and 1): mode 1 leaves out the region folders and names `code`
// as every node's parent.
int GetServerNodeFromShare(const char* code, int mode, char*& buf, int& len);
// Group list (push mode 2).
int GetServerNodeFromGroup(const char* code, char*& buf, int& len);
// Whole catalogue (push modes 3 and 4): flag 0 includes the region folders.
int GetServerNodeFromRegion(const char* code, int flag, char*& buf, int& len);

// Writes one node into a 640-byte wire slot, field by field; padding and unset bytes are 0.
void PackNodeInfo(const node_info& node, unsigned char* slot);

// ---- Builders: append new heap nodes to `out` (release with ReleaseArray) ----
int GetNodesFromCMS(const char* code, int flag, std::vector<node_info*>& out);
int GetCmsNodesFromSystem(int flag, std::vector<node_info*>& out);
int GetGroupNodesFromSystem(std::vector<node_info*>& out);

// Shared nodes of the domain whose code is `code`; 1, or 0 on a database failure.
int GetDomainChanFromDB(const char* code, std::vector<_msg_domain_chan_v2*>& out);
_msg_domain_chan_v2* GetDomainShareChan(const std::vector<_msg_domain_chan_v2*>& v, int nodeId,
                                        int type);

// First node whose szCode equals `code`; null for a null or empty code or no match.
node_info* GetNodeFromCode(const std::vector<node_info*>& v, const char* code);

// Adds the group folders above a group member (ancestors first) and the region folders
// above its topmost group. 1, or 0 when the node has no code or its group is unknown.
int AppendParentNodes(const node_info* node, const std::vector<_msg_region_base*>& regions,
                      const std::vector<_msg_devgroup_base*>& groups,
                      std::vector<node_info*>& regionNodes, std::vector<node_info*>& groupNodes);

// First registration whose serial equals `serial` exactly; null for a null serial.
_dev_register* GetRegMediaFromArray(const std::vector<_dev_register*>& v, const char* serial);

// Appends the route path of region `regionId` to `out` (outSize bytes, zero-terminated):
// "/serial" or "/ip:port" per media server, from the top of the hierarchy down. Returns 1.
int GetDevPath(const std::vector<_msg_region_base*>& regions,
               const std::vector<_sysserver_info*>& servers,
               const std::vector<_dev_register*>& registrations, int regionId, char* out,
               size_t outSize);
