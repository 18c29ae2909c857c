// Node addresses to the HTTP form the command channel really uses.
#pragma once

#include <string>

namespace rusk {

// "rtsp://host[:port]/path?query" becomes "http://host:port/path?query" (port 554 when
// absent, as for any RTSP address); "http://..." passes unchanged. False for anything
// else, or when the host is missing.
bool CommandUrlToHttp(const char* url, std::string& out);

}  // namespace rusk
