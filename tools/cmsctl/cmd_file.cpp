// put, get, delete: objects of the server's file store, addressed by area type (as the
// server's settings number its areas), object id and picture index.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "commands.h"

using cmsclient::Reply;

namespace cmsctl {

namespace {

struct FileAddress {
    long long kind = 0, id = 0, index = 0;
};

// Reads KIND ID [INDEX] from the positionals after the command word.
bool ReadAddress(const std::vector<std::string>& words, bool withIndex, FileAddress& a,
                 std::string& error) {
    return IntArg(words[1], "KIND", 0, 255, a.kind, error) &&
           IntArg(words[2], "ID", INT32_MIN, INT32_MAX, a.id, error) &&
           (!withIndex || IntArg(words[3], "INDEX", 0, 255, a.index, error));
}

bool WriteOutputFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

// One part goes to `path` itself; several to "<path>.<number>".
int SaveParts(const std::vector<cmsclient::FilePart>& parts, const std::string& path) {
    for (const cmsclient::FilePart& part : parts) {
        std::string target = parts.size() == 1 ? path : path + "." + std::to_string(part.number);
        if (!WriteOutputFile(target, part.bytes)) return Failure("cannot write " + target);
        std::printf("wrote %zu bytes to %s\n", part.bytes.size(), target.c_str());
    }
    return kExitOk;
}

}  // namespace

bool ReadInputFile(const std::string& path, std::string& bytes, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (bytes.size() <= kMaxPayload) return true;
    error = path + " is too big for one message";
    return false;
}

int RunPut(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 5) return UsageError("put wants KIND ID INDEX FILE");
    FileAddress a;
    std::string error, bytes;
    if (!ReadAddress(words, true, a, error) || !ReadInputFile(words[4], bytes, error))
        return UsageError(error);
    return ExchangeForState(ctx,
                            cmsclient::PutFile(static_cast<int>(a.kind), static_cast<int>(a.id),
                                               static_cast<int>(a.index), bytes));
}

int RunGet(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 4) return UsageError("get wants KIND ID INDEX [-o FILE]");
    FileAddress a;
    std::string error;
    if (!ReadAddress(words, true, a, error)) return UsageError(error);
    Session session(ctx);
    Reply reply;
    auto request = cmsclient::GetFile(static_cast<int>(a.kind), static_cast<int>(a.id),
                                      static_cast<int>(a.index));
    if (!session.Exchange(request, reply)) return kExitFailed;
    if (reply.IsState()) {
        StateResult(reply);  // a file read is always answered with data
        return kExitFailed;
    }
    if (cmsclient::IsFileMissingReply(reply.data)) return Failure("no such object");
    std::vector<cmsclient::FilePart> parts;
    if (!cmsclient::DecodeFilePack(reply.data, parts))
        return Failure("malformed file answer of " + std::to_string(reply.data.size()) + " bytes");
    if (const std::string* path = ctx.args.Get("-o")) return SaveParts(parts, *path);
    std::printf("picture  bytes\n");
    for (const cmsclient::FilePart& part : parts)
        std::printf("%7d  %zu\n", part.number, part.bytes.size());
    return kExitOk;
}

int RunDelete(const Context& ctx) {
    const auto& words = ctx.args.Positional();
    if (words.size() != 3) return UsageError("delete wants KIND ID");
    FileAddress a;
    std::string error;
    if (!ReadAddress(words, false, a, error)) return UsageError(error);
    return ExchangeForState(
        ctx, cmsclient::DeleteFile(static_cast<int>(a.kind), static_cast<int>(a.id)));
}

}  // namespace cmsctl
