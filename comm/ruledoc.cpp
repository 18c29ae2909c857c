// Rule documents: the zones of a picture with the rule and parameters of each zone.

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "comm/docxml.h"
#include "comm/localdata.h"

using docxml::CopyText;
using docxml::Cut;
using docxml::DocWriter;
using docxml::Elements;
using docxml::ToInt;

namespace {

constexpr size_t kZoneSize = 1024;  // one "<zn>" element
constexpr size_t kInfoSize = 255;   // its "<info>" text
constexpr size_t kRuleSize = 1000;  // one "<rule>" element of a list
constexpr size_t kSerialSize = 30;

// ---- Writing ----

void WriteZone(DocWriter& w, const _VCA_ZONE& z) {
    w.Add("<zn><name>%.*s</name><info>%d;", static_cast<int>(strnlen(z.szName, sizeof z.szName)),
          z.szName, z.usZoneType);
    int points = std::min<int>(z.usPointSize, VCA_MAX_POINTS);
    for (int i = 0; i < points; ++i) w.Add("%d&%d@", z.usZonePoints[i].x, z.usZonePoints[i].y);
    // The wire carries the unsigned rule and parameters as signed decimals.
    w.Add(";%d;", static_cast<int>(z.usRule));
    for (uint32_t p : z.usPares) w.Add("%d&", static_cast<int>(p));
    w.Add(";%d</info></zn>", z.nMode);
}

void WriteZoneText(DocWriter& w, const _tag_commzonemsg& rule) {
    w.Add("<mode>%d</mode>", static_cast<int>(rule.dwReserved));
    int zones = std::min<int>(rule.ZoneSize, VCA_MAX_ZONES);
    for (int i = 0; i < zones; ++i) WriteZone(w, rule.Zones[i]);
}

void WriteRuleElement(DocWriter& w, const _ruleinfo& info) {
    w.Add("<rule>").Tag("sn", info.szSerial);
    WriteZoneText(w, info.rule);
    w.Add("</rule>");
}

void WriteRuleList(DocWriter& w, const std::vector<_ruleinfo*>& rules) {
    w.Add("<rules>");
    for (const _ruleinfo* info : rules) {
        if (info) WriteRuleElement(w, *info);
    }
    w.Add("</rules>");
}

// ---- Reading the info text "type;points;rule;params;mode" ----

// "x&y@" items; an item without '&' counts but leaves its point zero.
void ReadPoints(const char* text, _VCA_ZONE& z) {
    int n = 0;
    for (const char* end; n < VCA_MAX_POINTS && (end = strchr(text, '@')); text = end + 1) {
        const char* amp = static_cast<const char*>(memchr(text, '&', end - text));
        if (amp) {
            z.usZonePoints[n].x = static_cast<uint16_t>(ToInt(text));
            z.usZonePoints[n].y = static_cast<uint16_t>(ToInt(amp + 1));
        }
        ++n;
    }
    z.usPointSize = static_cast<uint16_t>(n);
}

// "p&" items, in order.
void ReadParams(const char* text, _VCA_ZONE& z) {
    int n = 0;
    for (const char* end; n < VCA_MAX_PARAMS && (end = strchr(text, '&')); text = end + 1) {
        z.usPares[n++] = static_cast<uint32_t>(ToInt(text));
    }
}

void ReadZoneType(const char* text, _VCA_ZONE& z) {
    z.usZoneType = static_cast<uint16_t>(ToInt(text));
}
void ReadRule(const char* text, _VCA_ZONE& z) { z.usRule = static_cast<uint32_t>(ToInt(text)); }
void ReadMode(const char* text, _VCA_ZONE& z) { z.nMode = ToInt(text); }

// Readers of the info fields by position. Positions count non-empty fields only, so an
// empty point list shifts the later fields down; kept, since stored rule sets rely on it.
using InfoFieldReader = void (*)(const char*, _VCA_ZONE&);
constexpr InfoFieldReader kInfoFields[] = {ReadZoneType, ReadPoints, ReadRule, ReadParams,
                                           ReadMode};
constexpr int kInfoFieldCount = sizeof kInfoFields / sizeof kInfoFields[0];

void ReadZoneInfo(char* info, _VCA_ZONE& z) {
    char* save = nullptr;
    int field = 0;
    for (char* tok = strtok_r(info, ";", &save); tok && field < kInfoFieldCount;
         tok = strtok_r(nullptr, ";", &save)) {
        kInfoFields[field++](tok, z);
    }
}

}  // namespace

int FormatRuleFroXML(const _tag_commzonemsg* rule, char* out, size_t size) {
    if (!rule || !out || size == 0) return 0;
    return docxml::WriteWhole(out, size, [rule](DocWriter& w) { WriteZoneText(w, *rule); });
}

int ParasRuleFromXML(const char* text, _tag_commzonemsg* rule) {
    if (!text || !rule) return 0;
    char mode[docxml::kValueSize];
    Cut(text, "mode", mode);
    rule->dwReserved = static_cast<uint32_t>(ToInt(mode));
    char zone[kZoneSize];
    Elements zones(text, "zn");
    int count = 0;
    while (count < VCA_MAX_ZONES && zones.Next(zone, sizeof zone)) {
        _VCA_ZONE& z = rule->Zones[count];
        char name[kInfoSize] = {};
        _get_valuefromstring(zone, "<name>", "</name>", name);
        CopyText(z.szName, name);
        char info[kInfoSize];
        if (!Cut(zone, "info", info)) break;  // a zone without info ends the rule set
        ReadZoneInfo(info, z);
        ++count;
    }
    rule->ZoneSize = static_cast<uint16_t>(count);
    return 1;
}

int FormatIntvRule(const _ruleinfo* info, char* out, size_t size) {
    if (!info || !out || size == 0) return 0;
    return docxml::WriteWhole(out, size, [info](DocWriter& w) { WriteRuleElement(w, *info); });
}

int FormatRuleListFroXML(const std::vector<_ruleinfo*>& rules, char*& out, int& len) {
    // Measure first, so the buffer fits whatever the rule sets hold.
    DocWriter measure(nullptr, 0);
    WriteRuleList(measure, rules);
    size_t size = measure.Length() + 1;
    if (size > INT_MAX) return 0;
    std::unique_ptr<char[]> text(new (std::nothrow) char[size]);
    if (!text) return 0;
    DocWriter w(text.get(), size);
    WriteRuleList(w, rules);
    out = text.release();
    len = static_cast<int>(w.Length());
    return 1;
}

int ParasRuleListFromXML(const char* text, std::vector<_ruleinfo*>& rules) {
    if (!text) return 0;
    char element[kRuleSize];
    Elements elements(text, "rule");
    while (elements.Next(element, sizeof element)) {
        char serial[kSerialSize];
        if (!Cut(element, "sn", serial)) continue;
        std::unique_ptr<_ruleinfo> info(new (std::nothrow) _ruleinfo{});
        if (!info) break;
        CopyText(info->szSerial, serial);
        ParasRuleFromXML(element, &info->rule);
        rules.push_back(info.release());
    }
    return 1;
}
