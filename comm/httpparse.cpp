#include "comm/httpparse.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

// Copies at most n bytes of src, cut to fit dst with its terminator.
void CopyBounded(char* dst, size_t dstSize, const char* src, size_t n) {
    if (dstSize == 0) return;
    n = std::min(n, dstSize - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

template <size_t N>
void CopyField(char (&dst)[N], const char* src) {
    CopyBounded(dst, N, src, strlen(src));
}

// Plain decimal conversion: leading digits, 0 when there are none.
long long DecimalValue(const char* text) { return strtoll(text, nullptr, 10); }
int32_t ToInt32(const char* text) { return static_cast<int32_t>(DecimalValue(text)); }

template <class F>
void ForEachToken(char* text, const char* delimiters, F&& onToken) {
    char* save = nullptr;
    for (char* t = strtok_r(text, delimiters, &save); t; t = strtok_r(nullptr, delimiters, &save))
        onToken(t);
}

// Hands each head line (without CR LF, cut to the line buffer) to onLine and returns the
// start of the line where the scan stopped. The scan stops on a line with no CR LF, or in
// front of a line whose CR LF is followed by the empty line: that last header line is
// deliberately left unparsed, as clients of this server have always seen it.
template <size_t LineSize, class F>
const char* ForEachHeadLine(const char* p, F&& onLine) {
    char line[LineSize];
    for (;;) {
        const char* eol = strstr(p, "\r\n");
        if (!eol || strncmp(eol + 2, "\r\n", 2) == 0) return p;
        CopyBounded(line, sizeof line, p, static_cast<size_t>(eol - p));
        onLine(line);
        p = eol + 2;
    }
}

// ---- Request head ----

using HeadStore = void (*)(_stru_http&, const char*);

// Words that switch the line's state; the state is the index + 1 (_HTTP_METHOD). The first
// four are methods, whose target is taken apart from this table; the rest store every token
// that follows, so a value with spaces keeps only its last word.
struct HeadWord {
    const char* word;
    HeadStore store;
};
const HeadWord kHeadWords[] = {
    {"GET", nullptr},
    {"POST", nullptr},
    {"PUSH", nullptr},
    {"PUT", nullptr},
    {"Content-Length:", [](_stru_http& h, const char* v) { h.nBadyLen = ToInt32(v); }},
    {"Host:", [](_stru_http& h, const char* v) { CopyField(h.szHost, v); }},
    {"Connection:", [](_stru_http& h, const char* v) { CopyField(h.szConnection, v); }},
    {"Upgrade:", [](_stru_http& h, const char* v) { CopyField(h.szUpgrade, v); }},
    {"Sec-WebSocket-Key:", [](_stru_http& h, const char* v) { CopyField(h.szWSKey, v); }},
    {"Sec-WebSocket-Version:", [](_stru_http& h, const char* v) { h.nWSVersion = ToInt32(v); }},
    {"Sec-WebSocket-Protocol:", [](_stru_http& h, const char* v) { CopyField(h.szWSProtocol, v); }},
};
constexpr size_t kReducedHeadWords = HTTPMETHODLENGHT;  // the older form knows GET..Content-Length

// The state a token selects among the first `known` words (case-sensitive), 0 for none.
int HeadWordState(const char* token, size_t known) {
    for (size_t i = 0; i < known; ++i)
        if (strcmp(token, kHeadWords[i].word) == 0) return static_cast<int>(i) + 1;
    return 0;
}

bool IsMethodState(int state) { return state >= HTTPMETHODGET && state <= HTTPMETHODPUT; }

void ParseHeadLine(char* line, _stru_http& http) {
    int state = 0;
    bool urlTaken = false;  // only the first target token of a line counts
    ForEachToken(line, " ", [&](const char* token) {
        if (int word = HeadWordState(token, std::size(kHeadWords))) {
            state = word;
            if (IsMethodState(word)) http.nHttpType = word;
        } else if (IsMethodState(state)) {
            if (!urlTaken) CopyField(http.szURL, token);
            urlTaken = true;
        } else if (state > 0) {
            kHeadWords[state - 1].store(http, token);
        }
    });
}

// ---- Command query ----

using CommandStore = void (*)(_http_command&, const char*);

struct CommandWord {
    const char* word;
    int32_t command;
};
// HTTP_TIGER_REC_STOP deliberately has no keyword: triggered recordings are not stopped over HTTP.
const CommandWord kCommandWords[] = {
    {"login", HTTP_REQ_LOGIN},
    {"geturl", HTTP_REQ_GETURL},
    {"mcap", HTTP_MANUAL_CAP},
    {"mrec", HTTP_MANUAL_REC},
    {"mrecstop", HTTP_MANUAL_REC_STOP},
    {"mdown", HTTP_MANUAL_DOWN},
    {"tcap", HTTP_TIGER_CAP},
    {"trec", HTTP_TIGER_REC},
    {"reset", HTTP_RESET_DATA},
    {"remoteset", HTTP_REMOTE_SET},
    {"search", HTTP_DEV_SEARCH},
    {"getconfig", HTTP_DEV_GETCONFIG},
    {"getablity", HTTP_DEV_GETABILITY},
    {"callpreset", HTTP_DEV_CALLPRESET},
    {"reboot", HTTP_REBOOT},
    {"poweroff", HTTP_POWEROFF},
};

void StoreCommandWord(_http_command& c, const char* value) {
    for (const CommandWord& w : kCommandWords) {
        if (strcasecmp(value, w.word) == 0) {
            c.command = w.command;
            return;
        }
    }
}

// Query keys (compared without regard to case) and the field each one fills. The key
// "type" fills configtype: the command handler reads the configuration type from it.
struct QueryKey {
    const char* key;
    CommandStore store;
};
const QueryKey kQueryKeys[] = {
    {"cmd", StoreCommandWord},
    {"type", [](_http_command& c, const char* v) { c.configtype = ToInt32(v); }},
    {"id", [](_http_command& c, const char* v) { c.id = DecimalValue(v); }},
    {"param1", [](_http_command& c, const char* v) { c.param1 = ToInt32(v); }},
    {"param2", [](_http_command& c, const char* v) { c.param2 = ToInt32(v); }},
    {"param3", [](_http_command& c, const char* v) { c.param3 = ToInt32(v); }},
    {"param4", [](_http_command& c, const char* v) { c.param4 = ToInt32(v); }},
    {"starttime", [](_http_command& c, const char* v) { c.dwStartTime = ToInt32(v); }},
    {"stoptime", [](_http_command& c, const char* v) { c.dwStopTime = ToInt32(v); }},
    {"user", [](_http_command& c, const char* v) { CopyField(c.szUser, v); }},
    {"pass", [](_http_command& c, const char* v) { CopyField(c.szPass, v); }},
    {"code", [](_http_command& c, const char* v) { CopyField(c.szCode, v); }},
    {"nodeid", [](_http_command& c, const char* v) { c.nodeid = ToInt32(v); }},
    {"nodetype", [](_http_command& c, const char* v) { c.nodetype = ToInt32(v); }},
};

void ApplyQueryToken(const char* token, _http_command& command) {
    const char* eq = strchr(token, '=');
    if (!eq) return;
    char key[100] = {};
    char value[100] = {};
    CopyBounded(key, sizeof key, token, static_cast<size_t>(eq - token));
    CopyBounded(value, sizeof value, eq + 1, strlen(eq + 1));
    for (const QueryKey& k : kQueryKeys) {
        if (strcasecmp(key, k.key) == 0) {
            k.store(command, value);
            return;
        }
    }
}

// ---- Reply heads ----

struct HeadForm {
    const char* status;
    bool announcesLength;
    const char* retWord;  // body "<ret>%s<ret>", or none
};
const HeadForm kHeadForms[] = {
    {"HTTP/1.1 200 OK", true, nullptr},            // 0: caller sends the body
    {"HTTP/1.1 400 bad_command", false, nullptr},  // 1
    {"HTTP/1.1 404 file nofind", false, nullptr},  // 2
    {"HTTP/1.1 200 OK", true, "succ"},             // 3
    {"HTTP/1.1 200 OK", true, "faild"},            // 4
};
const HeadForm kServerErrorForm = {"HTTP/1.1 500 Internal Server Error", false, nullptr};

// Appends formatted text at `used`, never past `size`; returns the new used count, or
// size when the text did not fit.
template <class... Args>
size_t AppendFormat(char* buffer, size_t size, size_t used, const char* format, Args... args) {
    if (used >= size) return size;
    int n = snprintf(buffer + used, size - used, format, args...);
    if (n < 0 || static_cast<size_t>(n) >= size - used) return size;
    return used + static_cast<size_t>(n);
}

// Appends up to n bytes of text to the NUL-terminated string in out, cut at outSize.
void AppendBounded(char* out, size_t outSize, const char* text, size_t n) {
    size_t used = strnlen(out, outSize);
    if (used < outSize) CopyBounded(out + used, outSize - used, text, n);
}
void AppendBounded(char* out, size_t outSize, const char* text) {
    AppendBounded(out, outSize, text, strlen(text));
}

int HexValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c;  // not a hex digit: its own code, as old clients expect
}

}  // namespace

int GetHttpHead(char* buffer, int& length, int type) {
    if (!buffer) return 0;
    constexpr size_t kHeadSize = 512;
    const bool known = type >= 0 && type < static_cast<int>(std::size(kHeadForms));
    const HeadForm& form = known ? kHeadForms[type] : kServerErrorForm;

    char body[100] = {};
    int contentLength = length;
    if (form.retWord) contentLength = snprintf(body, sizeof body, "<ret>%s<ret>", form.retWord);

    size_t used =
        AppendFormat(buffer, kHeadSize, 0, "%s\r\nAccess-Control-Allow-Origin: *\r\n", form.status);
    if (form.announcesLength)
        used = AppendFormat(buffer, kHeadSize, used, "Content-Length: %d\r\n", contentLength);
    used = AppendFormat(buffer, kHeadSize, used, "\r\n%s", body);
    length = static_cast<int>(strnlen(buffer, kHeadSize));
    return 1;
}

int ParasCommand(char* query, _http_command* command) {
    if (!query || !*query || !command) return 0;
    ForEachToken(query, "&", [&](const char* token) { ApplyQueryToken(token, *command); });
    return 1;
}

int ParasHttpRequest(const char** cursor, _stru_http* http) {
    if (!cursor || !*cursor || !http) return 0;
    const char* last =
        ForEachHeadLine<2048>(*cursor, [&](char* line) { ParseHeadLine(line, *http); });
    if (http->nHttpType < 1) return 0;
    *cursor = last;
    return 1;
}

int ParasHttpRequest(const char** cursor, int* method, char* url, size_t urlSize,
                     int* contentLength) {
    if (!cursor || !*cursor || !method || !url || !contentLength) return 0;
    *method = 0;
    const char* last = ForEachHeadLine<1500>(*cursor, [&](char* line) {
        int state = 0;
        bool urlTaken = false;
        ForEachToken(line, " ", [&](const char* token) {
            if (int word = HeadWordState(token, kReducedHeadWords)) {
                state = word;
                if (IsMethodState(word)) *method = word;
            } else if (IsMethodState(state)) {
                if (!urlTaken) CopyBounded(url, urlSize, token, strlen(token));
                urlTaken = true;
            } else if (state == HTTPMETHODLENGHT) {
                *contentLength = ToInt32(token);
            }
        });
    });
    if (*method < 1) return 0;
    *cursor = last;
    return 1;
}

int CreateRedirectUrl(const char* host, int port, const char* location, char* buffer,
                      size_t bufferSize, int& length) {
    if (!location || !buffer || bufferSize == 0) return 0;
    char body[200];
    int bodyLength =
        snprintf(body, sizeof body, "%s%s%s%s", "<cross-domain-policy>\r\n",
                 "<allow-access-from domain=\"*\"/>\r\n", "</cross-domain-policy>\r\n", "\r\n");
    size_t used = AppendFormat(
        buffer, bufferSize, 0,
        "HTTP/1.1 301 Redirect\r\nConnection: keep-alive\r\nLocation: %s\r\n", location);
    if (bodyLength > 0)
        used = AppendFormat(buffer, bufferSize, used, "Content-Length: %d\r\n", bodyLength);
    used = AppendFormat(buffer, bufferSize, used, "\r\n%s", body);
    if (used >= bufferSize) {
        buffer[0] = '\0';
        return 0;
    }
    length = static_cast<int>(used);
    return 1;
}

int paras_rtsp_url2(const char* url, char* host, size_t hostSize, int& port, const char*& rest) {
    if (!url || !host) return 0;
    if (*url == '/') ++url;
    const char* slash = strchr(url, '/');
    if (!slash) return 0;
    char hostPort[100];
    CopyBounded(hostPort, sizeof hostPort, url, static_cast<size_t>(slash - url));
    rest = slash;

    const char* sep = strchr(hostPort, ':');
    if (!sep) sep = strchr(hostPort, '#');
    if (sep) {
        CopyBounded(host, hostSize, hostPort, static_cast<size_t>(sep - hostPort));
        port = ToInt32(sep + 1);
    } else {
        CopyBounded(host, hostSize, hostPort, strlen(hostPort));
    }
    return 1;
}

int paras_http_url(const char* in, char* out, size_t outSize) {
    if (!in || !out || outSize == 0) return 0;
    const char* p = strchr(in, '/');
    if (!p) return 0;
    int written = 0;
    for (const char* slash = strchr(++p, '/'); slash; p = slash + 1, slash = strchr(p, '/')) {
        char segment[100];
        CopyBounded(segment, sizeof segment, p, static_cast<size_t>(slash - p));
        AppendBounded(out, outSize, "/");
        if (const char* colon = strstr(segment, "%3A")) {
            AppendBounded(out, outSize, segment, static_cast<size_t>(colon - segment));
            AppendBounded(out, outSize, ":");
            AppendBounded(out, outSize, colon + 3);
        } else {
            AppendBounded(out, outSize, segment);
            AppendBounded(out, outSize, ":8060");  // the media servers' default port
        }
        written = 1;
    }
    return written;
}

int AnlysisUrlParam(const char* in, char* out, size_t outSize) {
    if (!in || !out || outSize == 0) return 0;
    size_t used = 0;
    for (const char* p = in; *p && used + 1 < outSize;) {
        if (*p != '%') {
            out[used++] = *p++;
            continue;
        }
        if (!p[1] || !p[2]) break;
        const int high = HexValue(static_cast<unsigned char>(p[1]));
        const int low = HexValue(static_cast<unsigned char>(p[2]));
        out[used++] = static_cast<char>(((high * 16) | (low & 0x0F)) & 0xFF);
        p += 3;
    }
    out[used] = '\0';
    return 1;
}

int FormatPath(const char* in, char* out, size_t outSize) {
    if (!in || !out) return 0;
    for (const char* p = in; p;) {
        const char* from = p;
        if (const char* colon = strchr(p, ':')) {
            size_t n = static_cast<size_t>(colon - p);
            if (outSize > 0) memcpy(out, p, std::min(n, outSize - 1));
            p = colon + 1;
        }
        const char* next = strchr(p, '/');
        // Standing on a '/' would find that same '/' again forever; step past it instead.
        if (next == from) next = strchr(next + 1, '/');
        p = next;
    }
    return 1;
}
