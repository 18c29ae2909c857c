// Node commands of the HTTP interface that work on one catalogue node through the
// database and the command channel: pushing configuration from the database to an
// analytics or recording server, reading it back into the `devicecfg` cache, reading a
// node's abilities into the ability tables, and storing the cameras a search found.
//
// The caller has made sure the node is in the catalogue (adding it when missing); these
// functions open their own database connection and close it before returning.
// Locks: they take csCatalog only briefly through the address lookups; call them without
// holding it.
#pragma once

#include <cstdint>

// remoteset: configuration kind `configtype` (faces 35/37, cameras 17, one kind, or 255
// for every kind of the node's device type). `id` is the face id (37) or staff id (35).
// Prints "remote set but database link failed" when the database does not answer.
// true on success.
bool RemoteSetNode(int nodeid, int nodetype, int configtype, int64_t id);

// getconfig: reads kind `configtype` (or, for 255, every kind of the node's device type)
// back from the node into `devicecfg`. Prints "getconfig but database link failed" when
// the database does not answer. true on success.
bool GetConfigNode(int nodeid, int nodetype, int configtype);

// getablity: reads the rule catalogue, advanced parameters, models and object kinds of
// the node into devicecfgrule, devicecfgadvc and devicecfgbasedata. true on success.
bool GetAbilityNode(int nodeid, int nodetype);

// search on a device (node type 2): asks it for its cameras (an analytics device when
// `serverType` is 3, else a recorder or media server) and replaces its stored cameras with
// them. true when the list was read and stored.
bool SearchNodeCameras(int nodeid, int nodetype, int serverType);
