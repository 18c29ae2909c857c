// The commands of cmsctl. Each handler checks its own words (the dispatcher has already
// refused options the command does not know), talks to the server and returns the exit
// status: kExitOk, kExitFailed (failure reply, no reply) or kExitUsage (bad input).
#pragma once

#include "session.h"

namespace cmsctl {

int RunLogin(const Context& ctx);
int RunPush(const Context& ctx);
int RunUrl(const Context& ctx);
int RunNodes(const Context& ctx);
int RunSql(const Context& ctx);
int RunPut(const Context& ctx);
int RunGet(const Context& ctx);
int RunDelete(const Context& ctx);
int RunEvent(const Context& ctx);

// Largest payload a frame can carry after the 12-byte header.
constexpr size_t kMaxPayload = 16 * 1024 * 1024 - 12;

// Reads a whole file for sending; false with `error` set when it cannot be read or is
// too big for one message.
bool ReadInputFile(const std::string& path, std::string& bytes, std::string& error);

}  // namespace cmsctl
