// Node commands of the HTTP interface: placeholders until the configuration, ability and
// search work behind them is in.
#include "nodes/nodecmd.h"

bool RemoteSetNode(int nodeid, int nodetype, int configtype, int64_t id) { return false; }

bool GetConfigNode(int nodeid, int nodetype, int configtype) { return false; }

bool GetAbilityNode(int nodeid, int nodetype) { return false; }

bool SearchNodeCameras(int nodeid, int nodetype, int serverType) { return false; }
