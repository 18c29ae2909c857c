#include "comm/settings.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "comm/boundedtext.h"
#include "comm/globle.h"
#include "comm/mystring.h"

namespace {

// Set by tests before any reader runs; the readers only read it.
std::string g_configDir = "./config";

// Settings files are a few kilobytes; anything this large is not one.
constexpr long kMaxConfigFile = 16L << 20;

// Scratch sizes of the readers: one value, the cms block, the db block, the paths block, one
// path entry, one dev entry. Longer text is cut to fit.
constexpr size_t kValueBuf = 100;
constexpr size_t kCmsBlock = 200;
constexpr size_t kDbBlock = 512;
constexpr size_t kPathsBlock = 4096;
constexpr size_t kPathEntry = 512;
constexpr size_t kDevEntry = 500;
constexpr size_t kGuardBlock = 8192;

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

// The whole file, zero-terminated by std::string. False when it is missing, empty, not a
// regular file or too large to buffer.
bool ReadConfigFile(const char* name, std::string& text) {
    const std::string path = g_configDir + "/" + name;
    FileHandle f(std::fopen(path.c_str(), "rb"));
    if (!f) return false;
    struct stat st {};
    if (fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (st.st_size <= 0 || st.st_size > kMaxConfigFile) return false;
    text.assign(static_cast<size_t>(st.st_size), '\0');
    text.resize(std::fread(&text[0], 1, text.size(), f.get()));
    return !text.empty();
}

// The text between the tags into a zeroed scratch buffer; false when absent.
bool TagValue(const char* text, const char* open, const char* close, char* out, size_t outSize) {
    std::memset(out, 0, outSize);
    return _get_valuefromstring_v1(text, open, close, out, outSize) >= 0;
}

void ReadInt(const char* text, const char* open, const char* close, int& field) {
    char value[kValueBuf];
    if (TagValue(text, open, close, value, sizeof value)) field = std::atoi(value);
}

void ReadBool(const char* text, const char* open, const char* close, bool& field) {
    char value[kValueBuf];
    if (TagValue(text, open, close, value, sizeof value)) field = std::atoi(value) != 0;
}

// A text value replaces the field whole (truncated to the field) when the element exists.
template <size_t N>
void ReadText(const char* text, const char* open, const char* close, char (&field)[N],
              size_t scratch = kValueBuf) {
    std::string value(scratch, '\0');
    if (TagValue(text, open, close, &value[0], scratch)) btext::Copy(field, value.c_str());
}

void ReadFilePathEntry(const char* entry, _file_path& rec) {
    ReadText(entry, "<name>", "</name>", rec.name, sizeof rec.name);
    ReadInt(entry, "<type>", "</type>", rec.type);
    ReadInt(entry, "<mode>", "</mode>", rec.mode);
    ReadText(entry, "<p>", "</p>", rec.path, sizeof rec.path);
}

void ReadDevEntry(const char* entry, _RtspHelpString& rec) {
    ReadText(entry, "<name>", "</name>", rec.name, sizeof rec.name);
    ReadBool(entry, "<verify>", "</verify>", rec.bCheckPass);
    ReadInt(entry, "<link>", "</link>", rec.link);
    ReadInt(entry, "<type>", "</type>", rec.type);
    ReadInt(entry, "<mode>", "</mode>", rec.mode);
    ReadText(entry, "<main>", "</main>", rec.main, sizeof rec.main);
    ReadText(entry, "<sub>", "</sub>", rec.second, sizeof rec.second);
    ReadText(entry, "<replay>", "</replay>", rec.replay, sizeof rec.replay);
}

}  // namespace

void SetConfigDir(const char* dir) { g_configDir = dir ? dir : "./config"; }

const char* GetConfigDir() { return g_configDir.c_str(); }

int readconfig(_LoaclParam* param) {
    if (!param) return 0;
    std::string text;
    if (!ReadConfigFile("cmslocal.xml", text)) return 0;
    const char* cfg = std::strstr(text.c_str(), "<cfg>");
    if (!cfg) return 0;
    cfg += std::strlen("<cfg>");

    // Every search starts right after <cfg>, so the top-level <port> must precede <cms>.
    ReadInt(cfg, "<port>", "</port>", param->nPort);
    ReadInt(cfg, "<hport>", "</hport>", param->nHttpPort);
    ReadText(cfg, "<sn>", "</sn>", param->szSerial);
    ReadText(cfg, "<route>", "</route>", param->szRouteIP);

    char cms[kCmsBlock];
    if (TagValue(cfg, "<cms>", "</cms>", cms, sizeof cms)) {
        ReadBool(cms, "<en>", "</en>", param->bLinkCms);
        ReadText(cms, "<ip>", "</ip>", param->szCmsIP);
        ReadInt(cms, "<port>", "</port>", param->nCmsPort);
    }
    return 1;
}

int readcmsconfig(_cmsParam* param) {
    if (!param) return 0;
    std::string text;
    if (!ReadConfigFile("cmsparam.xml", text)) return 0;
    char db[kDbBlock];
    // A file without <db> still counts as read; the connection fails later.
    if (TagValue(text.c_str(), "<db>", "</db>", db, sizeof db)) {
        ReadText(db, "<name>", "</name>", param->szDbName);
        ReadText(db, "<ip>", "</ip>", param->szDbAddr);
        ReadInt(db, "<port>", "</port>", param->szDbPort);
        ReadText(db, "<user>", "</user>", param->szDbUser);
        ReadText(db, "<pass>", "</pass>", param->szDbPass);
        ReadInt(db, "<local>", "</local>", param->nLocalMode);
        ReadInt(db, "<pool>", "</pool>", param->nDbPool);
        ReadInt(db, "<spool>", "</spool>", param->nSpoolMB);
    }
    return 1;
}

_guardParam& GuardParam() {
    static _guardParam param;
    return param;
}

int readguardconfig(_guardParam* param) {
    if (!param) return 0;
    std::string text;
    if (!ReadConfigFile("cmsparam.xml", text)) return 0;
    std::string block(kGuardBlock, '\0');
    if (!TagValue(text.c_str(), "<guard>", "</guard>", &block[0], block.size())) return 1;
    std::string value(kGuardBlock, '\0');
    auto readString = [&](const char* open, const char* close, std::string& field) {
        if (TagValue(block.c_str(), open, close, &value[0], value.size())) field = value.c_str();
    };
    readString("<msgallow>", "</msgallow>", param->msgAllow);
    readString("<httpallow>", "</httpallow>", param->httpAllow);
    readString("<token>", "</token>", param->token);
    ReadBool(block.c_str(), "<rawsql>", "</rawsql>", param->bRawSql);
    ReadBool(block.c_str(), "<power>", "</power>", param->bPower);
    ReadInt(block.c_str(), "<replybudget>", "</replybudget>", param->nReplyBudgetMB);
    ReadInt(block.c_str(), "<maxclients>", "</maxclients>", param->nMaxClients);
    ReadInt(block.c_str(), "<stall>", "</stall>", param->nStallMs);
    return 1;
}

int readfilepath(std::vector<_file_path*>& paths) {
    std::string text;
    if (!ReadConfigFile("cmsparam.xml", text)) return 1;
    auto block = std::make_unique<char[]>(kPathsBlock);
    TagValue(text.c_str(), "<paths>", "</paths>", block.get(), kPathsBlock);
    auto entry = std::make_unique<char[]>(kPathEntry);
    const char* pos = block.get();
    for (;;) {
        const char* end = block.get() + std::strlen(block.get());
        if (pos >= end) break;
        std::memset(entry.get(), 0, kPathEntry);
        const int at = _get_valuefromstring_v1(pos, "<path>", "</path>", entry.get(), kPathEntry);
        if (at < 0) break;
        pos += at + std::strlen("</path>");
        auto rec = std::make_unique<_file_path>();
        ReadFilePathEntry(entry.get(), *rec);
        paths.push_back(rec.release());
    }
    return 1;
}

int readdevconfig() {
    std::string text;
    if (!ReadConfigFile("dev.xml", text)) return 0;
    const char* devs = std::strstr(text.c_str(), "<devs>");
    if (!devs) return 0;
    const char* pos = devs + std::strlen("<devs>");
    const char* end = text.c_str() + std::strlen(text.c_str());
    char entry[kDevEntry];
    while (pos < end) {
        std::memset(entry, 0, sizeof entry);
        const int at = _get_valuefromstring_v1(pos, "<dev>", "</dev>", entry, sizeof entry);
        if (at < 0) break;
        pos += at + std::strlen("</dev>");
        auto rec = std::make_unique<_RtspHelpString>();
        ReadDevEntry(entry, *rec);
        m_arrRtspString.push_back(rec.release());
    }
    return 1;
}
