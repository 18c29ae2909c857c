// Play command strings parsed back into COMMAND_INFO.
#include "comm/playcmd.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "comm/boundedtext.h"

namespace {

// Work-buffer sizes of the parser: longer pieces are cut to fit, never overrun.
constexpr size_t kDevicePartSize = 512;
constexpr size_t kKeySize = 48;
constexpr size_t kFileTypeSize = 10;
constexpr size_t kTimeSize = 64;

using std::string_view;

using btext::CopyView;
using btext::ToInt;

// Cuts the text before the next ':' off `rest`; false when there is none.
bool NextField(string_view& rest, string_view& field) {
    const size_t colon = rest.find(':');
    if (colon == string_view::npos) return false;
    field = rest.substr(0, colon);
    rest.remove_prefix(colon + 1);
    return true;
}

// Moves past "rtsp://" and every route segment; null without "rtsp://".
const char* SkipRoute(const char* text, COMMAND_INFO* cmd) {
    const char* p = std::strstr(text, "rtsp://");
    if (!p) return nullptr;
    cmd->nPlayType = PLAYTYPE_NOROUTE;
    p += 7;
    while (const char* slash = std::strchr(p, '/')) {
        cmd->nPlayType = PLAYTYPE_ROUTED;
        p = slash + 1;
    }
    return p;
}

enum class DevResult { kFailed, kComplete, kNoFields };

DevResult ParseDevice(string_view dev, COMMAND_INFO* cmd) {
    dev = dev.substr(0, kDevicePartSize - 1);
    string_view f;
    if (!NextField(dev, f)) return DevResult::kNoFields;
    CopyView(cmd->ip, f);
    if (!NextField(dev, f)) return DevResult::kFailed;
    cmd->port = ToInt(f);
    if (!NextField(dev, f)) return DevResult::kFailed;
    CopyView(cmd->szUser, f);
    if (!NextField(dev, f)) return DevResult::kFailed;
    CopyView(cmd->szPsw, f);
    if (!NextField(dev, f)) return DevResult::kFailed;
    cmd->nDvrType = ToInt(f);
    const size_t at = dev.find('@');
    if (at != string_view::npos)
        CopyView(cmd->szChan, dev.substr(at + 1));
    else
        cmd->nChan = ToInt(dev);
    return DevResult::kComplete;
}

// value := filetype ":" start ["&" stop]; without ":" it is all file type and no times.
int ParseReplay(string_view value, bool replay, COMMAND_INFO* cmd) {
    const size_t colon = value.find(':');
    cmd->nFileType = ToInt(value.substr(0, colon), kFileTypeSize);
    if (colon != string_view::npos) {
        const string_view times = value.substr(colon + 1);
        const size_t amp = times.find('&');
        ParsePlayTime(times.substr(0, amp), kTimeSize, &cmd->startTime);
        if (amp != string_view::npos)
            ParsePlayTime(times.substr(amp + 1), kTimeSize, &cmd->stopTime);
    }
    // A local play keeps 255: it is not a replay through a device.
    if (replay && cmd->nPlayType == PLAYTYPE_NOROUTE) cmd->nPlayType = PLAYTYPE_REPLAY;
    cmd->bReplay = true;
    return 1;
}

int ParseQuery(string_view query, COMMAND_INFO* cmd) {
    const size_t eq = query.find('=');
    char key[kKeySize];
    CopyView(key, query.substr(0, eq));
    const string_view value = eq == string_view::npos ? string_view() : query.substr(eq + 1);
    if (strcasecmp(key, "live") == 0) {
        cmd->nStreamType = ToInt(value);
        if (cmd->nPlayType == PLAYTYPE_NOROUTE) cmd->nPlayType = PLAYTYPE_LIVE;
        return 1;
    }
    const bool replay = strcasecmp(key, "replay") == 0;
    if (replay || strcasecmp(key, "localplay") == 0) return ParseReplay(value, replay, cmd);
    return 1;  // another key: the device part is all there is
}

}  // namespace

int GetCommandFromString(const char* text, COMMAND_INFO* cmd) {
    if (!text || !cmd) return 0;
    std::memset(cmd, 0, sizeof(*cmd));
    const char* dev = SkipRoute(text, cmd);
    if (!dev) return 0;
    const char* query = std::strchr(dev, '?');
    if (!query) return 0;
    switch (ParseDevice(string_view(dev, static_cast<size_t>(query - dev)), cmd)) {
        case DevResult::kFailed:
            return 0;
        case DevResult::kNoFields:
            return 1;
        case DevResult::kComplete:
            break;
    }
    return ParseQuery(query + 1, cmd);
}

int GetDevFromString(const char* text, COMMAND_INFO* cmd) {
    if (!text || !cmd) return 0;
    std::memset(cmd, 0, sizeof(*cmd));
    const char* dev = SkipRoute(text, cmd);
    if (!dev) return 0;
    const char* query = std::strchr(dev, '?');
    const size_t len = query ? static_cast<size_t>(query - dev) : std::strlen(dev);
    return ParseDevice(string_view(dev, len), cmd) == DevResult::kFailed ? 0 : 1;
}

void ParsePlayTime(string_view text, size_t workSize, _PlayTime* t) {
    if (!t) return;
    char work[kTimeSize] = {};
    btext::CopyN(work, workSize < sizeof(work) ? workSize : sizeof(work), text.data(), text.size());
    std::sscanf(work, "%d-%d-%d-%d-%d-%d", &t->nYear, &t->nMonth, &t->nDay, &t->nHour, &t->nMinute,
                &t->nSecond);
}

void ReleaseVideoParam(_msg_video_param_info* param) {
    if (!param) return;
    delete[] param->szVPS;
    delete[] param->szSPS;
    delete[] param->szPPS;
    std::memset(param, 0, sizeof(*param));
}
