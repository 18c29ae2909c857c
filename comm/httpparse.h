// HTTP text routines: the request-head parser, the command query parser, the fixed reply
// heads, a redirect builder, URL splitters and a percent-decoder.
// Free functions over caller-owned buffers: no allocation outlives a call, no locks.
// They return 1 for success and 0 for failure unless a comment says otherwise. Every copy
// into a fixed array is cut at the array's size; results for input that fits are unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

enum _HTTP_METHOD : int32_t {
    HTTPMETHODGET = 1,
    HTTPMETHODPOST = 2,
    HTTPMETHODPUSH = 3,
    HTTPMETHODPUT = 4,
    HTTPMETHODLENGHT = 5,
    HTTPMETHODHOST = 6,
    HTTPMETHODCONNECTION = 7,
    HTTPMETHODUPGRADE = 8,
    HTTPMETHODWSKEY = 9,
    HTTPMETHODWSVERSION = 10,
    HTTPMETHODWSPROTOCOL = 11,
};

// Parsed request head. The network library puts this record at the start of every buffer
// it hands to the HTTP callback, body right after it, so the layout is part of the wire
// contract between the two.
struct _stru_http {
    int32_t nHttpType;  // _HTTP_METHOD 1..4, 0 when no method word was seen
    int32_t nBadyLen;   // Content-Length
    char szHost[40];
    char szURL[512];  // request target, path and query
    char szConnection[20];
    char szUpgrade[20];
    char szWSKey[100];
    char szWSProtocol[20];
    int32_t nWSVersion;
};
static_assert(sizeof(_stru_http) == 724, "_stru_http is a wire record");
static_assert(offsetof(_stru_http, nBadyLen) == 4, "_stru_http layout");
static_assert(offsetof(_stru_http, szHost) == 8, "_stru_http layout");
static_assert(offsetof(_stru_http, szURL) == 48, "_stru_http layout");
static_assert(offsetof(_stru_http, szConnection) == 560, "_stru_http layout");
static_assert(offsetof(_stru_http, szUpgrade) == 580, "_stru_http layout");
static_assert(offsetof(_stru_http, szWSKey) == 600, "_stru_http layout");
static_assert(offsetof(_stru_http, szWSProtocol) == 700, "_stru_http layout");
static_assert(offsetof(_stru_http, nWSVersion) == 720, "_stru_http layout");

enum _HTTP_REQ_TYPE_ : int32_t {
    HTTP_REQ_LOGIN = 1,
    HTTP_REQ_GETURL = 2,
    HTTP_MANUAL_CAP = 3,
    HTTP_MANUAL_REC = 4,
    HTTP_MANUAL_REC_STOP = 5,
    HTTP_MANUAL_DOWN = 6,
    HTTP_TIGER_CAP = 7,
    HTTP_TIGER_REC = 8,
    HTTP_TIGER_REC_STOP = 9,  // no "cmd" keyword selects it
    HTTP_RESET_DATA = 10,
    HTTP_REMOTE_SET = 11,
    HTTP_DEV_SEARCH = 12,
    HTTP_DEV_GETCONFIG = 13,
    HTTP_DEV_GETABILITY = 14,
    HTTP_DEV_CALLPRESET = 15,
    HTTP_REBOOT = 16,
    HTTP_POWEROFF = 17,
};

// One command from a query string. The caller zero-fills it before parsing.
struct _http_command {
    int32_t command;     // _HTTP_REQ_TYPE_, from "cmd"
    int64_t id;          // "id": preset number, face id ...
    char szTable[20];    // never set from HTTP
    int32_t type;        // capture kind; never set from HTTP
    int32_t configtype;  // from the key "type" (deliberately not `type`)
    int32_t nodeid;
    int32_t nodetype;
    uint32_t dwStartTime;  // seconds since the epoch
    uint32_t dwStopTime;
    int32_t param1;
    int32_t param2;
    int32_t param3;
    int32_t param4;
    int32_t filetype;  // never set from HTTP
    char szCode[30];
    char szUser[30];
    char szPass[30];
    uint32_t session;  // written by the command handler, returned to the client
};

// Writes a complete reply head at `buffer` (at least 512 bytes) and NUL-terminates it.
// type 0: 200 with "Content-Length: <length on entry>"; 1: 400; 2: 404;
// 3 / 4: 200 with the body "<ret>succ<ret>" / "<ret>faild<ret>"; other: 500.
// On return `length` is the number of bytes written. Returns 0 only for a null buffer.
int GetHttpHead(char* buffer, int& length, int type);

// Parses a query string (the text after '?') into `command`; splits `query` in place.
// Unknown keys are ignored, a repeated key overwrites. Returns 0 for a null or empty
// query or a null command.
int ParasCommand(char* query, _http_command* command);

// Scans the NUL-terminated request head at *cursor line by line and fills the header fields
// it recognises into `http` (zero-filled by the caller). The line just before the empty line
// is never parsed: the scan stops on seeing CR LF CR LF. On success *cursor is left at the
// start of the last line examined. Returns 0, cursor untouched, when no method word was seen.
int ParasHttpRequest(const char** cursor, _stru_http* http);

// The older reduced form: method (set to 0 first), target (cut to urlSize) and content length.
int ParasHttpRequest(const char** cursor, int* method, char* url, size_t urlSize,
                     int* contentLength);

// Builds a "301 Redirect" reply to `location` carrying a cross-domain policy body into
// `buffer`. `host` and `port` are ignored. Returns 0 when location or buffer is null or the
// reply does not fit in bufferSize; else 1 with `length` set to the bytes written.
int CreateRedirectUrl(const char* host, int port, const char* location, char* buffer,
                      size_t bufferSize, int& length);

// Splits "[/]host[:port]/rest" (or "host#port") into host, port and a pointer to the "/"
// that starts the rest. Port is left untouched when the text names none.
int paras_rtsp_url2(const char* url, char* host, size_t hostSize, int& port, const char*& rest);
template <size_t N>
int paras_rtsp_url2(const char* url, char (&host)[N], int& port, const char*& rest) {
    return paras_rtsp_url2(url, host, N, port, rest);
}

// Rewrites the path segments after the first '/' of `in` into "/host:port" pairs appended to
// `out` (which holds "" on entry): "h%3A554" becomes "/h:554", a segment without "%3A" gets
// the default port 8060. Text after the last '/' is dropped. Returns 1 when a segment was
// written.
int paras_http_url(const char* in, char* out, size_t outSize);
template <size_t N>
int paras_http_url(const char* in, char (&out)[N]) {
    return paras_http_url(in, out, N);
}

// Percent-decodes `in` into `out`. Characters after '%' that are not hex digits count with
// their own code. A '%' cut short by the end of the text is dropped. Returns 1.
int AnlysisUrlParam(const char* in, char* out, size_t outSize);
template <size_t N>
int AnlysisUrlParam(const char* in, char (&out)[N]) {
    return AnlysisUrlParam(in, out, N);
}

// Walks the '/'-separated path and, for each ':' found, copies the text from the current
// position up to it into `out`, without a terminator (zero `out` first). The walk always
// moves forward, so it ends on every input. Returns 0 on null arguments.
int FormatPath(const char* in, char* out, size_t outSize);
template <size_t N>
int FormatPath(const char* in, char (&out)[N]) {
    return FormatPath(in, out, N);
}
