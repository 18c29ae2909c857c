// What every command gets: its words, where the server is, and one connection to it.
#pragma once

#include <string>

#include "args.h"
#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"

namespace cmsctl {

struct Context {
    const Args& args;
    std::string host = "127.0.0.1";
    int port = 7001;
    int timeoutMs = 5000;  // for connecting and for each reply
};

// Print "cmsctl: <message>" on standard error and return kExitUsage or kExitFailed.
int UsageError(const std::string& message);
int Failure(const std::string& message);

// One connection for one command. Failures are printed where they happen.
class Session {
public:
    explicit Session(const Context& ctx) : m_ctx(ctx) {}

    bool Open();
    bool Send(const cmsclient::Request& request);
    // Waits for the next reply; false (printed) on time-out, close or a broken frame.
    bool Read(cmsclient::Reply& reply);
    bool Exchange(const cmsclient::Request& request, cmsclient::Reply& reply) {
        return Send(request) && Read(reply);
    }

private:
    const Context& m_ctx;
    cmsclient::CmsClient m_client;
};

// Exit status for a state reply that means success when it is 0; prints the state.
int StateResult(const cmsclient::Reply& reply);
// Sends `request` on a connection of its own and answers StateResult of the reply, or
// kExitFailed when none came.
int ExchangeForState(const Context& ctx, const cmsclient::Request& request);

}  // namespace cmsctl
