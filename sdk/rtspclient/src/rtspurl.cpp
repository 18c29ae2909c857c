#include "rtspurl.h"

#include <strings.h>

#include <cctype>
#include <cstring>

namespace rtspc {

bool ComposeUrl(const char* url, int port, const char* user, const char* pass, std::string& out) {
    static const char kScheme[] = "rtsp://";
    const size_t schemeLen = sizeof(kScheme) - 1;
    if (!url || strncasecmp(url, kScheme, schemeLen) != 0) return false;
    std::string rest(url + schemeLen);
    size_t authEnd = rest.find_first_of("/?#");
    std::string authority = rest.substr(0, authEnd);
    std::string tail = authEnd == std::string::npos ? "" : rest.substr(authEnd);

    std::string userinfo;
    size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        userinfo = authority.substr(0, at + 1);
        authority.erase(0, at + 1);
    }
    if (authority.empty()) return false;
    // A bracketed IPv6 host keeps its colons; the port is what follows the bracket.
    size_t hostEnd = authority[0] == '[' ? authority.find(']') : authority.find(':');
    if (authority[0] == '[') {
        if (hostEnd == std::string::npos) return false;
        ++hostEnd;
    }
    std::string host = authority.substr(0, hostEnd);
    std::string portText;
    if (hostEnd < authority.size() && authority[hostEnd] == ':')
        portText = authority.substr(hostEnd + 1);
    if (host.empty() || host == "[]") return false;

    // The address names the stream port (templates write 554 literally); the argument is
    // the device port, used only when the address has none.
    if (portText.empty() && port > 0) portText = std::to_string(port);
    std::string u = user ? user : "", p = pass ? pass : "";
    if (!u.empty() || !p.empty())
        userinfo = PercentEncode(u) + (p.empty() ? "" : ":" + PercentEncode(p)) + "@";

    out = kScheme + userinfo + host + (portText.empty() ? "" : ":" + portText) + tail;
    return true;
}

}  // namespace rtspc
