// The "system" unit: system utilities, HTTP text routines and elementary-stream parsing.
#pragma once

#include "comm/esparse.h"
#include "comm/httpparse.h"
#include "comm/sysutil.h"
