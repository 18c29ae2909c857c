// One HTTP exchange over the command channel, shared by RUSK_TRANSCOMMAND and the device
// drivers (which add the login's credentials).
#pragma once

#include <string>

namespace rusk {

// Sends a GET to `httpUrl` ("http://host:port/path?query"), or a POST of `body` when
// bodyLength > 0, with HTTP basic authentication when `user` is not empty (`user` and
// `pass` may be null). The answer's body goes to `reply` as RUSK_TRANSCOMMAND describes
// (`*replyLength` in: capacity; out: bytes copied; zero-terminated when there is room).
// 1 when the node answered 2xx, else 0. Blocks for at most the configured time-outs.
int HttpCommand(const std::string& httpUrl, const char* user, const char* pass, const char* body,
                int bodyLength, char* reply, int* replyLength);

}  // namespace rusk
