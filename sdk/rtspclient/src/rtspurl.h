// The address the RTSP client really opens, composed from the caller's URL, port and
// credentials.
#pragma once

#include <string>

#include "VornUrlText.h"

namespace rtspc {

// `url` is "rtsp://[user[:pass]@]host[:port][/path][?query]" (scheme in any case; host may
// be "[v6]"). `port` above 0 replaces the URL's port; an empty port text (as "host:/")
// is dropped so the default 554 applies. When `user` or `pass` is not empty (null counts as
// empty) they replace the URL's own credentials, percent-encoded; otherwise those stay.
// False, `out` untouched, when the scheme is not rtsp or the host is empty.
bool ComposeUrl(const char* url, int port, const char* user, const char* pass, std::string& out);

using vorn::PercentEncode;

}  // namespace rtspc
