// cmsctl: an operator's client of the server's message listener.
//
//   cmsctl [--host H] [--port P] [--timeout MS] <command> [args]
//
// Exit status 0 on success, 1 on a failure reply or no reply, 2 on bad input.
#include <cstdio>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "session.h"

namespace {

using namespace cmsctl;

// One row per command. Columns:
//   name      the command word
//   synopsis  its words and options, as --help shows them
//   what      one line on what it does and what it prints
//   example   a command line to copy
//   options   the options it takes besides --host, --port, --timeout
//   run       the handler
struct Command {
    const char* name;
    const char* synopsis;
    const char* what;
    const char* example;
    std::vector<const char*> options;
    int (*run)(const Context&);
};

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"login",
         "login SERIAL",
         "log in as the device, server or domain with SERIAL",
         "cmsctl login 34010400001180000001",
         {},
         RunLogin},
        {"push",
         "push --type N --code C [--parent P] [--city C] [--domain D] [--node-type T]\n"
         "       [--status S] [--name NAME] [--lon X] [--lat Y]",
         "push one node record (sub-type 1-5); the server sends no reply",
         "cmsctl push --type 3 --code DEV0042 --domain 34020000002000000001",
         {"--type", "--code", "--parent", "--city", "--domain", "--node-type", "--status", "--name",
          "--lon", "--lat"},
         RunPush},
        {"url",
         "url --node ID --type T | url --code CODE",
         "the play address of a node (type 2 device, 3 channel, 9 server channel) or code",
         "cmsctl url --node 1 --type 3",
         {"--node", "--type", "--code"},
         RunUrl},
        {"nodes",
         "nodes --type DATA_TYPE --code CODE",
         "the node list for a domain (4 shared nodes, 6 domain servers) as a table",
         "cmsctl nodes --type 4 --code 34000000002000000001",
         {"--type", "--code"},
         RunNodes},
        {"sql",
         "sql add|query|exec STATEMENT [--columns a,b,c]",
         "run a statement: add prints the new id, query the rows (XML), exec the state",
         "cmsctl sql query \"select id,name from device\" --columns id,name",
         {"--columns"},
         RunSql},
        {"put",
         "put KIND ID INDEX FILE",
         "store FILE as object ID (picture INDEX; 255 the next free one) in area type KIND",
         "cmsctl put 1 42 0 snap.jpg",
         {},
         RunPut},
        {"get",
         "get KIND ID INDEX [-o FILE]",
         "read object ID of area KIND: list its pictures, or save them with -o",
         "cmsctl get 1 42 0 -o snap.jpg",
         {"-o"},
         RunGet},
        {"delete",
         "delete KIND ID",
         "remove object ID of area KIND",
         "cmsctl delete 1 42",
         {},
         RunDelete},
        {"event",
         "event alarm|state|diagnosis|face (--serial S | --as S) [--chan N] [--node ID\n"
         "       --node-type T] [--code N] [--info TEXT] [--picture FILE]... [--time SECS]\n"
         "       alarm: --code N [--param N]; state: --code 1 (link lost) or 2 (back);\n"
         "       diagnosis: --code N; face: --person ID [--age N] [--gender N] [--similarity N]",
         "send an event as sender S: --serial names it in the record, --as logs in first",
         "cmsctl event alarm --as 34010400001180000001 --chan 1 --code 5 --picture a.jpg",
         {"--serial", "--as", "--login", "--chan", "--node", "--node-type", "--code", "--info",
          "--picture", "--time", "--param", "--person", "--age", "--gender", "--similarity"},
         RunEvent},
    };
    return commands;
}

void PrintCommandHelp(const Command& c) {
    std::printf("  %s\n      %s\n      e.g. %s\n", c.synopsis, c.what, c.example);
}

void PrintHelp() {
    std::printf(
        "usage: cmsctl [--host H] [--port P] [--timeout MS] <command> [args]\n"
        "Talks to the management server's message port (default 127.0.0.1:7001, replies\n"
        "awaited 5000 ms). Exit status: 0 success, 1 failure reply or no reply, 2 bad input.\n"
        "\ncommands:\n");
    for (const Command& c : Commands()) PrintCommandHelp(c);
}

const Command* FindCommand(const std::string& name) {
    for (const Command& c : Commands())
        if (name == c.name) return &c;
    return nullptr;
}

// Reads the connection options into `ctx`; false with `error` set.
bool ReadGlobals(const Args& args, Context& ctx, std::string& error) {
    if (const std::string* host = args.Get("--host")) {
        if (host->empty()) {
            error = "--host is empty";
            return false;
        }
        ctx.host = *host;
    }
    return IntOption(args, "--port", 1, 65535, ctx.port, false, error) &&
           IntOption(args, "--timeout", 1, 3600000, ctx.timeoutMs, false, error);
}

}  // namespace

int main(int argc, char** argv) {
    Args args;
    std::string error;
    if (!args.Parse(argc, argv, error)) return UsageError(error);
    if (args.Positional().empty() || args.Positional()[0] == "help") {
        if (args.Help() || !args.Positional().empty()) {
            PrintHelp();
            return kExitOk;
        }
        return UsageError("no command given");
    }
    const Command* command = FindCommand(args.Positional()[0]);
    if (!command) return UsageError("unknown command '" + args.Positional()[0] + "'");
    if (args.Help()) {
        PrintCommandHelp(*command);
        return kExitOk;
    }
    std::vector<const char*> allowed = command->options;
    allowed.insert(allowed.end(), {"--host", "--port", "--timeout"});
    Context ctx{args};
    if (!args.Only(allowed, error) || !ReadGlobals(args, ctx, error)) return UsageError(error);
    return command->run(ctx);
}
