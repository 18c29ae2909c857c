// Media-server play: where a play address is opened.
#pragma once

#include <string>

namespace rusk {

// A play address is "rtsp://<first media server>/<more route segments...>/<device
// fields>[?query]": the first segment is the server the stream is pulled from, everything
// after it is the path that server routes on, sent as it is. When the first segment
// carries more than host[:port] (a lower domain addressed directly, e.g.
// "172.16.0.1:5060:du:dp:3:@DEV400"), it is opened at host:port with that whole segment as
// the first path segment, so no field is lost. False for anything but rtsp, an empty host,
// or an event-link address ("event=" in the query): only video streams are served here.
bool MediaPlayAddress(const char* url, std::string& out);

}  // namespace rusk
