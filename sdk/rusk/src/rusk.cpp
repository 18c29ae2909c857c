// The command channel on libcurl: one short HTTP exchange per command.
#include <curl/curl.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "RUSKNetSDK.h"
#include "command.h"
#include "ruskurl.h"

namespace rusk {

namespace {

constexpr int kDefaultConnectMs = 3000;
constexpr int kDefaultTotalMs = 10000;
constexpr char kRtspScheme[] = "rtsp://";
constexpr char kHttpScheme[] = "http://";

std::atomic<int> g_connectMs{kDefaultConnectMs};
std::atomic<int> g_totalMs{kDefaultTotalMs};

struct CurlDeleter {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;
using HeaderList = std::unique_ptr<curl_slist, SlistDeleter>;

void GlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// The caller's reply buffer: filled up to its capacity, the rest of the body is read
// and dropped so the status still counts.
struct ReplySink {
    char* buffer;
    size_t capacity;
    size_t used = 0;
};

size_t WriteReply(char* data, size_t size, size_t count, void* user) {
    auto* sink = static_cast<ReplySink*>(user);
    size_t n = size * count;
    size_t room = sink->capacity - sink->used;
    size_t take = n < room ? n : room;
    if (take > 0) {
        memcpy(sink->buffer + sink->used, data, take);
        sink->used += take;
    }
    return n;
}

bool HasPrefix(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

}  // namespace

bool CommandUrlToHttp(const char* url, std::string& out) {
    if (url == nullptr) return false;
    if (HasPrefix(url, kHttpScheme)) {
        out = url;
        return strlen(url) > strlen(kHttpScheme);
    }
    if (!HasPrefix(url, kRtspScheme)) return false;
    std::string rest(url + strlen(kRtspScheme));
    size_t authorityEnd = rest.find_first_of("/?");
    std::string authority = rest.substr(0, authorityEnd);
    if (authority.empty()) return false;
    // A port follows the last colon, unless that colon sits inside an IPv6 literal.
    size_t colon = authority.rfind(':');
    size_t bracket = authority.rfind(']');
    bool hasPort = colon != std::string::npos && (bracket == std::string::npos || colon > bracket);
    out = kHttpScheme + authority + (hasPort ? "" : ":554");
    if (authorityEnd != std::string::npos) out += rest.substr(authorityEnd);
    return true;
}

namespace {

// Runs the request; the HTTP status, or 0 when there was no answer.
long Perform(const std::string& httpUrl, const char* user, const char* pass, const char* body,
             int bodyLength, ReplySink& sink) {
    CurlHandle curl(curl_easy_init());
    if (!curl) return 0;
    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, httpUrl.c_str());
    curl_easy_setopt(c, CURLOPT_PROXY, "");     // nodes sit on the local network: no proxy
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);  // time-outs without SIGALRM: we are threaded
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(g_connectMs.load()));
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(g_totalMs.load()));
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, WriteReply);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    if (user != nullptr && user[0] != '\0') {
        // Sent with the first request: devices answer 401 rather than challenge first.
        curl_easy_setopt(c, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(c, CURLOPT_USERNAME, user);
        curl_easy_setopt(c, CURLOPT_PASSWORD, pass != nullptr ? pass : "");
    }
    // Nodes answer plain HTTP/1.x and do not know "Expect: 100-continue"; waiting for
    // it would cost a second on every larger body.
    HeaderList headers(curl_slist_append(nullptr, "Expect:"));
    if (body != nullptr && bodyLength > 0) {
        headers.reset(curl_slist_append(headers.release(), "Content-Type: application/xml"));
        curl_easy_setopt(c, CURLOPT_POST, 1L);
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, body);
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(bodyLength));
    }
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        printf("rusk: %s: %s\n", httpUrl.c_str(), curl_easy_strerror(rc));
        return 0;
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

}  // namespace

int HttpCommand(const std::string& httpUrl, const char* user, const char* pass, const char* body,
                int bodyLength, char* reply, int* replyLength) {
    size_t capacity = (reply != nullptr && replyLength != nullptr && *replyLength > 0)
                          ? static_cast<size_t>(*replyLength)
                          : 0;
    if (replyLength != nullptr) *replyLength = 0;
    if (capacity > 0) reply[0] = '\0';
    GlobalInit();
    ReplySink sink{reply, capacity};
    long status = Perform(httpUrl, user, pass, body, bodyLength, sink);
    if (sink.used < capacity) reply[sink.used] = '\0';
    if (replyLength != nullptr) *replyLength = static_cast<int>(sink.used);
    return status >= 200 && status < 300 ? 1 : 0;
}

}  // namespace rusk

extern "C" {

int RUSK_DVR_InitAll(void) {
    rusk::GlobalInit();
    return 1;
}

int RUSK_TRANSCOMMAND(const char* url, int command, const char* body, int bodyLength, char* reply,
                      int* replyLength) {
    std::string httpUrl;
    if (command != RUSK_COMMAND_HTTP || !rusk::CommandUrlToHttp(url, httpUrl)) {
        if (replyLength != nullptr && *replyLength > 0 && reply != nullptr) reply[0] = '\0';
        if (replyLength != nullptr) *replyLength = 0;
        return 0;
    }
    return rusk::HttpCommand(httpUrl, nullptr, nullptr, body, bodyLength, reply, replyLength);
}

void RUSK_SetTimeouts(int connectMs, int totalMs) {
    rusk::g_connectMs.store(connectMs > 0 ? connectMs : rusk::kDefaultConnectMs);
    rusk::g_totalMs.store(totalMs > 0 ? totalMs : rusk::kDefaultTotalMs);
}

}  // extern "C"
