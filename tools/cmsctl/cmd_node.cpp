// login, push, url, nodes: sessions and catalogue nodes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "commands.h"

using cmsclient::Reply;

namespace cmsctl {

namespace {

// Copies an option's text into a record field; an over-long text is bad input rather than
// something to cut silently.
template <size_t N>
bool TextOption(const Args& args, const char* name, char (&field)[N], bool required,
                std::string& error) {
    const std::string* text = args.Get(name);
    if (!text) {
        if (required) error = std::string("missing ") + name;
        return !required;
    }
    if (text->size() > N - 1) {
        error = std::string(name) + " takes at most " + std::to_string(N - 1) + " bytes";
        return false;
    }
    std::memcpy(field, text->c_str(), text->size() + 1);
    return true;
}

bool DoubleOption(const Args& args, const char* name, double& out, std::string& error) {
    const std::string* text = args.Get(name);
    if (!text) return true;
    char* end = nullptr;
    out = std::strtod(text->c_str(), &end);
    if (!text->empty() && *end == '\0') return true;
    error = std::string(name) + " wants a number, not '" + *text + "'";
    return false;
}

}  // namespace

int RunLogin(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 2) return UsageError("login takes one SERIAL");
    if (words[1].size() > cmsclient::kMaxSerial) return UsageError("a serial has at most 99 bytes");
    return ExchangeForState(ctx, cmsclient::Login(words[1].c_str()));
}

int RunPush(const Context& ctx) {
    if (ctx.args.Positional().size() != 1) return UsageError("push takes only options");
    _msg_domain_info node{};
    std::string error;
    bool ok = IntOption(ctx.args, "--type", 1, 5, node.nType, true, error) &&
              TextOption(ctx.args, "--code", node.szCode, true, error) &&
              TextOption(ctx.args, "--parent", node.szParentCode, false, error) &&
              TextOption(ctx.args, "--city", node.szCityCode, false, error) &&
              TextOption(ctx.args, "--domain", node.szDomainCode, false, error) &&
              TextOption(ctx.args, "--name", node.szName, false, error) &&
              IntOption(ctx.args, "--node-type", 0, 255, node.nNodeType, false, error) &&
              IntOption(ctx.args, "--status", INT32_MIN, INT32_MAX, node.nStatus, false, error) &&
              DoubleOption(ctx.args, "--lon", node.dbLongitude, error) &&
              DoubleOption(ctx.args, "--lat", node.dbLatitude, error);
    if (!ok) return UsageError(error);
    Session session(ctx);
    if (!session.Send(cmsclient::PushNode(node))) return kExitFailed;
    std::printf("pushed %s (sub-type %d); the server sends no reply\n", node.szCode, node.nType);
    return kExitOk;
}

int RunUrl(const Context& ctx) {
    if (ctx.args.Positional().size() != 1) return UsageError("url takes only options");
    const bool byCode = ctx.args.Has("--code");
    if (byCode == (ctx.args.Has("--node") || ctx.args.Has("--type")))
        return UsageError("url wants either --node ID --type T or --code CODE");
    cmsclient::Request request;
    std::string error;
    if (byCode) {
        const std::string& code = *ctx.args.Get("--code");
        if (code.size() >= sizeof(_msg_url_req::code))
            return UsageError("--code takes at most 31 bytes");
        request = cmsclient::GetUrlByCode(code.c_str());
    } else {
        int id = 0, type = 0;
        if (!IntOption(ctx.args, "--node", INT32_MIN, INT32_MAX, id, true, error) ||
            !IntOption(ctx.args, "--type", INT32_MIN, INT32_MAX, type, true, error))
            return UsageError(error);
        request = cmsclient::GetUrlByNode(id, type);
    }
    Session session(ctx);
    Reply reply;
    if (!session.Exchange(request, reply)) return kExitFailed;
    if (reply.IsState()) {
        StateResult(reply);  // the server answers a state only when it found no address
        return kExitFailed;
    }
    _msg_link_info link;
    if (!cmsclient::DecodeLinkInfo(reply.data, link))
        return Failure("a link answer has 364 bytes, got " + std::to_string(reply.data.size()));
    std::printf("%s", cmsclient::FormatLinkInfo(link).c_str());
    return kExitOk;
}

namespace {

int PrintNodeList(int dataType, const std::vector<uint8_t>& data) {
    if (dataType == DATA_GB_DOMAIN_NODE) {
        std::vector<domain_base> domains;
        if (!cmsclient::DecodeDomainList(data, domains))
            return Failure("malformed domain list of " + std::to_string(data.size()) + " bytes");
        std::printf("%s%zu domain(s)\n", cmsclient::FormatDomainTable(domains).c_str(),
                    domains.size());
        return kExitOk;
    }
    std::vector<node_info> nodes;
    int empty = 0;
    if (!cmsclient::DecodeNodeList(data, nodes, &empty))
        return Failure("malformed node list of " + std::to_string(data.size()) + " bytes");
    std::printf("%s%zu node(s)", cmsclient::FormatNodeTable(nodes).c_str(), nodes.size());
    if (empty) std::printf(", %d empty slot(s)", empty);
    std::printf("\n");
    return kExitOk;
}

}  // namespace

int RunNodes(const Context& ctx) {
    if (ctx.args.Positional().size() != 1) return UsageError("nodes takes only options");
    int dataType = 0;
    std::string error;
    if (!IntOption(ctx.args, "--type", INT32_MIN, INT32_MAX, dataType, true, error))
        return UsageError(error);
    const std::string* code = ctx.args.Get("--code");
    if (!code) return UsageError("missing --code");
    if (code->size() > 127) return UsageError("--code takes at most 127 bytes");
    Session session(ctx);
    Reply reply;
    if (!session.Exchange(cmsclient::GetNodeList(dataType, code->c_str()), reply))
        return kExitFailed;
    if (reply.IsState()) {
        if (reply.state == 0) std::printf("state 0 (ok): the list is empty\n");
        return reply.state == 0 ? kExitOk : StateResult(reply);
    }
    return PrintNodeList(dataType, reply.data);
}

}  // namespace cmsctl
