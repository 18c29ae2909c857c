#include "session.h"

#include <cstdio>

namespace cmsctl {

int UsageError(const std::string& message) {
    std::fprintf(stderr, "cmsctl: %s\n(cmsctl --help lists the commands)\n", message.c_str());
    return kExitUsage;
}

int Failure(const std::string& message) {
    std::fprintf(stderr, "cmsctl: %s\n", message.c_str());
    return kExitFailed;
}

bool Session::Open() {
    if (m_client.Connect(m_ctx.host.c_str(), m_ctx.port, m_ctx.timeoutMs)) return true;
    Failure("cannot connect to " + m_ctx.host + ":" + std::to_string(m_ctx.port));
    return false;
}

bool Session::Send(const cmsclient::Request& request) {
    if ((m_client.IsOpen() || Open()) && m_client.Send(request.head, request.payload)) return true;
    if (m_client.IsOpen()) Failure("the server did not take the request");
    return false;
}

bool Session::Read(cmsclient::Reply& reply) {
    using R = cmsclient::CmsClient::ReadResult;
    switch (m_client.ReadReply(reply, m_ctx.timeoutMs)) {
        case R::kReply:
            return true;
        case R::kTimeout:
            Failure("no reply within " + std::to_string(m_ctx.timeoutMs) + " ms");
            return false;
        case R::kClosed:
            Failure("the server closed the connection without a reply");
            return false;
        case R::kBadFrame:
            break;
    }
    Failure("the server sent a frame that is no reply");
    return false;
}

int StateResult(const cmsclient::Reply& reply) {
    if (!reply.IsState())
        return Failure("expected a state, got " + std::to_string(reply.data.size()) +
                       " bytes of data");
    std::printf("%s\n", cmsclient::DescribeState(reply.state).c_str());
    return reply.state == 0 ? kExitOk : kExitFailed;
}

int ExchangeForState(const Context& ctx, const cmsclient::Request& request) {
    Session session(ctx);
    cmsclient::Reply reply;
    if (!session.Exchange(request, reply)) return kExitFailed;
    return StateResult(reply);
}

}  // namespace cmsctl
