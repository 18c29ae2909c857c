// sql add|query|exec: statements the server runs as sent.
#include <cstdio>
#include <cstring>

#include "commands.h"

using cmsclient::Reply;

namespace cmsctl {

namespace {

// The operation code behind each word; exec covers every statement without a result.
struct SqlVerb {
    const char* word;
    int op;
};
constexpr SqlVerb kSqlVerbs[] = {
    {"add", DATAADD},
    {"query", DATAQUERYMYSELF},
    {"exec", DATAMODIFY},
};

// An insert is answered with the new row's id as the state; 0 means it failed.
int AddResult(const Reply& reply) {
    if (!reply.IsState()) return Failure("expected a state, got data");
    if (reply.state == 0) {
        std::printf("state 0 (the insert failed)\n");
        return kExitFailed;
    }
    std::printf("id %d\n", reply.state);
    return kExitOk;
}

// A query is answered with its rows as XML; a state means it did not run.
int QueryResult(const Reply& reply) {
    if (reply.IsState()) {
        std::printf("state %d (%s)\n", reply.state,
                    reply.state == 1 ? "malformed request" : "the database refused the query");
        return kExitFailed;
    }
    std::printf("%s\n", cmsclient::ReplyText(reply.data).c_str());
    return kExitOk;
}

}  // namespace

int RunSql(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 3) return UsageError("sql wants add|query|exec and one STATEMENT");
    const SqlVerb* verb = nullptr;
    for (const SqlVerb& v : kSqlVerbs)
        if (words[1] == v.word) verb = &v;
    if (!verb) return UsageError("sql wants add, query or exec, not '" + words[1] + "'");
    if (words[2].empty()) return UsageError("the statement is empty");
    const std::string* columns = ctx.args.Get("--columns");
    if (verb->op == DATAQUERYMYSELF && (!columns || columns->empty()))
        return UsageError("sql query needs --columns a,b,c (the columns to return)");
    if (verb->op != DATAQUERYMYSELF && columns) return UsageError("--columns belongs to sql query");
    if (words[2].size() + (columns ? columns->size() + 2 : 0) > kMaxPayload)
        return UsageError("the statement is too long for one message");

    Session session(ctx);
    Reply reply;
    auto request = cmsclient::Sql(verb->op, words[2].c_str(), columns ? columns->c_str() : nullptr);
    if (!session.Exchange(request, reply)) return kExitFailed;
    if (verb->op == DATAADD) return AddResult(reply);
    if (verb->op == DATAQUERYMYSELF) return QueryResult(reply);
    return StateResult(reply);
}

}  // namespace cmsctl
