// Camera lists, help documents and configuration texts read from nodes over the command
// channel, addressed by the node's play address (GetUrlFromNode).
//
// Locks: none held; the address lookup takes csCatalog briefly. Each call is one blocking
// exchange.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "comm/localdata.h"

// Reply buffer of a camera search; a longer answer is cut to it.
constexpr size_t SEARCH_REPLY_SIZE = 1048576;
// Buffer handed out by GetIntvHelp and GetIntvConfig (the text is terminated inside it).
constexpr size_t HELP_REPLY_SIZE = 65536;

// Asks an analytics device (node type 2 only) for the cameras it analyses and appends them
// to `cameras` (new records the caller owns). 1 when the list was read.
int SearchCamaerFromIntvDev(int nodeid, int nodetype, std::vector<_cammera_info*>& cameras);
// Same for a recorder or media server (node type 2 only): through the media server on its
// route when it has one, else with the device library's login. 1 when the list was read.
int SearchCamaerFromDev(int nodeid, int nodetype, std::vector<_cammera_info*>& cameras);
// Help document `helpType` (19 rules, 20 object kinds, 21 models, 22 advanced parameters)
// of a device (node type 2 only) into `out`, which the caller owns. 1/0.
int GetIntvHelp(int nodeid, int nodetype, int helpType, std::unique_ptr<char[]>& out);
// Configuration text of `cfgType` of any node (with the node's channel number as "sn"
// when it has one) into `out`, which the caller owns. 1/0.
int GetIntvConfig(int nodeid, int nodetype, int cfgType, std::unique_ptr<char[]>& out);
