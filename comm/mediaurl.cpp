// Media request addresses split into a camera and a play request.
#include "comm/mediaurl.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "comm/boundedtext.h"
#include "comm/localdata.h"

namespace {

// Work-buffer sizes: longer pieces are cut to fit, never overrun.
constexpr size_t kDeviceSize = 128;
constexpr size_t kKeySize = 48;
constexpr size_t kTimeSize = 24;  // a time text holds at most 23 characters
constexpr size_t kNumberSize = 24;

using std::string_view;

using btext::CopyView;
using btext::ToInt;

// Steps through the text after "rtsp:/": each step skips one character and looks for the
// next "/". A direct address counts 1, each route segment one more.
int CountSegments(const char* p, const char*& last) {
    int count = 0;
    last = nullptr;
    while (p && *p) {
        ++p;
        last = p;
        ++count;
        p = std::strchr(p, '/');
    }
    return count;
}

// Splits at ":" skipping empty fields (so an empty user shifts the later fields).
void SplitDevice(string_view dev, _cammera_info* cam) {
    dev = dev.substr(0, kDeviceSize - 1);
    int index = 0;
    while (!dev.empty() && index < 6) {
        const size_t colon = dev.find(':');
        const string_view f = dev.substr(0, colon);
        dev.remove_prefix(colon == string_view::npos ? dev.size() : colon + 1);
        if (f.empty()) continue;
        switch (index++) {
            case 0:
                CopyView(cam->szIP, f);
                break;
            case 1:
                cam->nPort = ToInt(f);
                break;
            case 2:
                CopyView(cam->szUser, f);
                break;
            case 3:
                CopyView(cam->szPass, f);
                break;
            case 4:
                cam->nType = ToInt(f);
                break;
            default: {
                const size_t at = f.find('@');
                if (at != string_view::npos)
                    CopyView(cam->szChan, f.substr(at + 1));
                else
                    cam->nChan = ToInt(f);
            }
        }
    }
}

// value := stream ["&" ... "ss=" session]
void ParseLive(string_view value, _MSG_PLAY_INFO* play, int& mode) {
    const size_t amp = value.find('&');
    play->param = ToInt(value.substr(0, amp));
    if (amp != string_view::npos) {
        const string_view rest = value.substr(amp + 1);
        const size_t ss = rest.find("ss=");
        if (ss != string_view::npos) {
            char num[kNumberSize];
            CopyView(num, rest.substr(ss + 3));
            play->session = static_cast<unsigned int>(std::strtoul(num, nullptr, 10));
        }
    }
    play->command = PLAY_CMD_LIVE;
    mode = ACCESS_LIVE;
}

// value := filetype ":" start ["&" stop]; false without the ":".
bool ParseSpan(string_view value, _MSG_PLAY_INFO* play) {
    const size_t colon = value.find(':');
    if (colon == string_view::npos) return false;
    play->param = ToInt(value.substr(0, colon));
    const string_view times = value.substr(colon + 1);
    const size_t amp = times.find('&');
    ParsePlayTime(times.substr(0, amp), kTimeSize, &play->startTime);
    if (amp != string_view::npos) ParsePlayTime(times.substr(amp + 1), kTimeSize, &play->stopTime);
    return true;
}

// The whole query as "&"-separated tokens: "cmd=ptzctrl" and "param1=<digits>".
void ParsePtz(string_view query, _MSG_PLAY_INFO* play) {
    while (!query.empty()) {
        const size_t amp = query.find('&');
        const string_view tok = query.substr(0, amp);
        query.remove_prefix(amp == string_view::npos ? query.size() : amp + 1);
        if (tok == "cmd=ptzctrl") {
            play->command = PLAY_CMD_PTZ;
        } else if (tok.size() > 7 && tok.substr(0, 7) == "param1=" &&
                   std::isdigit(static_cast<unsigned char>(tok[7]))) {
            play->param = ToInt(tok.substr(7));
        }
    }
}

// Request kinds that carry a time span. Columns: query key, command, access mode.
struct SpanRow {
    const char* key;
    int command;
    int mode;
};
const SpanRow kSpanRequests[] = {
    {"replay", PLAY_CMD_REPLAY, ACCESS_REPLAY},
    {"revplay", PLAY_CMD_REVREPLAY, ACCESS_REVREPLAY},
    {"getfile", PLAY_CMD_DOWNLOAD, ACCESS_DOWNLOAD},
};

int ParseRequest(const char* url, string_view query, _MSG_PLAY_INFO* play, int& mode) {
    const size_t eq = query.find('=');
    char key[kKeySize];
    CopyView(key, query.substr(0, eq));
    const string_view value = eq == string_view::npos ? string_view() : query.substr(eq + 1);
    if (std::strcmp(key, "live") == 0) {
        ParseLive(value, play, mode);
        return 1;
    }
    for (const SpanRow& row : kSpanRequests) {
        if (std::strcmp(key, row.key) != 0) continue;
        if (!ParseSpan(value, play)) return 0;
        play->command = row.command;
        mode = row.mode;
        return 1;
    }
    if (std::strstr(key, "cmd")) ParsePtz(std::strchr(url, '?') + 1, play);
    return 1;
}

}  // namespace

int paras_rtsp_url(const char* url, _cammera_info* camera, _MSG_PLAY_INFO* play, int& mode) {
    if (!url || !camera || !play) return 0;
    const char* scheme = std::strstr(url, "rtsp:/");
    if (!scheme) return 0;
    const char* last = nullptr;
    if (CountSegments(scheme + 6, last) > 1) {
        // Routed through media servers: the media server reads the device fields itself.
        mode = ACCESS_ROUTED;
        if (std::strstr(url, "live"))
            play->command = PLAY_CMD_LIVE;
        else if (std::strstr(url, "replay"))
            play->command = PLAY_CMD_REPLAY;
        return 1;
    }
    const char* qm = last ? std::strchr(last, '?') : nullptr;
    if (!qm) return 0;
    SplitDevice(string_view(last, static_cast<size_t>(qm - last)), camera);
    return ParseRequest(url, qm + 1, play, mode);
}
