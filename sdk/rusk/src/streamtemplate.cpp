#include "streamtemplate.h"

#include <cstdio>
#include <map>
#include <mutex>
#include <string_view>

namespace rusk {

namespace {

std::mutex g_templatesMutex;                 // guards g_templates
std::map<int, StreamTemplates> g_templates;  // by device type

std::string TimeText(const RUSK_DVR_TIME* t) {
    if (t == nullptr) return "";
    char text[80];
    snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", t->dwYear, t->dwMonth, t->dwDay,
             t->dwHour, t->dwMinute, t->dwSecond);
    return text;
}

std::string Value(std::string_view name, const TemplateValues& v) {
    if (name == "ip") return v.login.ip;
    if (name == "port") return v.login.port > 0 ? std::to_string(v.login.port) : "";
    // Escaped so that a ':' or '@' in a password cannot end the user part early.
    if (name == "user") return PercentEncode(v.login.user);
    if (name == "pass") return PercentEncode(v.login.pass);
    if (name == "chan") return v.chan.code.empty() ? std::to_string(v.chan.number) : v.chan.code;
    if (name == "stream") return std::to_string(v.stream);
    if (name == "start") return TimeText(v.start);
    if (name == "stop") return TimeText(v.stop);
    return "";
}

}  // namespace

void SetStreamTemplates(int dvrType, const StreamTemplates& templates) {
    std::lock_guard<std::mutex> lock(g_templatesMutex);
    if (templates.live.empty() && templates.sub.empty() && templates.replay.empty())
        g_templates.erase(dvrType);
    else
        g_templates[dvrType] = templates;
}

bool GetStreamTemplates(int dvrType, StreamTemplates& out) {
    std::lock_guard<std::mutex> lock(g_templatesMutex);
    auto it = g_templates.find(dvrType);
    if (it == g_templates.end()) return false;
    out = it->second;
    return true;
}

std::string ExpandTemplate(const std::string& tmpl, const TemplateValues& values) {
    std::string url = "rtsp://";
    size_t at = 0;
    for (;;) {
        size_t open = tmpl.find('{', at);
        size_t close = open == std::string::npos ? open : tmpl.find('}', open + 1);
        if (close == std::string::npos) break;
        url.append(tmpl, at, open - at);
        url += Value(std::string_view(tmpl).substr(open + 1, close - open - 1), values);
        at = close + 1;
    }
    url.append(tmpl, at, std::string::npos);
    return url;
}

}  // namespace rusk
