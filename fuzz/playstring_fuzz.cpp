// The play-string readers: media request addresses, play commands, play times, the URL
// splitters of the HTTP side and the event-link address test, all on the same text.
#include <cstdlib>
#include <cstring>

#include "comm/httpparse.h"
#include "comm/localdata.h"
#include "comm/mediaurl.h"
#include "comm/playcmd.h"
#include "eventlink.h"
#include "fuzzinput.h"

namespace {

template <size_t N>
void MustEnd(const char (&text)[N]) {
    if (!memchr(text, '\0', N)) std::abort();
}

void Addresses(const char* text) {
    _cammera_info camera{};
    _MSG_PLAY_INFO play{};
    int mode = -1;
    paras_rtsp_url(text, &camera, &play, mode);
    MustEnd(camera.szIP);
    MustEnd(camera.szUser);
    MustEnd(camera.szPass);
    MustEnd(camera.szChan);

    COMMAND_INFO cmd{};
    GetCommandFromString(text, &cmd);
    MustEnd(cmd.ip);
    MustEnd(cmd.szChan);
    GetDevFromString(text, &cmd);
    MustEnd(cmd.szUser);
    MustEnd(cmd.szPsw);

    _PlayTime t{};
    ParsePlayTime(text, 64, &t);
    rusk::IsEventLinkAddress(text);
}

void Splitters(const char* text) {
    char host[40] = {};
    int port = 0;
    const char* rest = nullptr;
    if (paras_rtsp_url2(text, host, port, rest) && rest &&
        (rest < text || rest > text + std::strlen(text)))
        std::abort();
    MustEnd(host);
    char out[256] = {};
    paras_http_url(text, out);
    MustEnd(out);
    char decoded[128] = {};
    AnlysisUrlParam(text, decoded);
    MustEnd(decoded);
    char path[128] = {};
    FormatPath(text, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const std::vector<char> text = in.Text();
    Addresses(text.data());
    Splitters(text.data());
    return 0;
}
