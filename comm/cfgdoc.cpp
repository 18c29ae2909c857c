// Configuration documents: analytics parameters, plans, models, scenes, record parameters,
// record templates and extended parameters, each bound to one channel by its serial.

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "comm/docxml.h"
#include "comm/localdata.h"

using docxml::Cut;
using docxml::DocWriter;
using docxml::Elements;
using docxml::ReadInt;
using docxml::ReadText;
using docxml::ToInt;

namespace {

constexpr size_t kItemSize = 200;  // one "<m>" or "<p>" entry

// ---- Writing ----

void WriteParamBody(DocWriter& w, const _intvparam& p) {
    w.Tag("enable", p.bEnable)
        .Tag("sens", p.nSensitivity)
        .Tag("fps", p.nFrameRate)
        .Tag("minsize", p.nMinTarget)
        .Tag("maxsize", p.nMaxTarget)
        .Tag("interval", p.nAlarmInterval)
        .Tag("snap", p.nSnapCount)
        .Tag("rectime", p.nRecordTime);
}

// Day d as "<dN>start-stop;...</dN>".
void WritePlanDay(DocWriter& w, const _planinfo& p, int day) {
    w.Add("<d%d>", day);
    int n = p.nSize[day] < 0 ? 0 : p.nSize[day] > PLAN_SEGMENTS ? PLAN_SEGMENTS : p.nSize[day];
    for (int i = 0; i < n; ++i) w.Add("%d-%d;", p.time[day][i].nStart, p.time[day][i].nStop);
    w.Add("</d%d>", day);
}

int Clamp(int n, int max) { return n < 0 ? 0 : n > max ? max : n; }

// "<tag><sn>serial</sn>" + body + "</tag>", all or nothing.
template <class T, class Body>
int WriteElement(const T* info, const char* tag, char* out, size_t size, Body body) {
    if (!info || !out || size == 0) return 0;
    return docxml::WriteWhole(out, size, [&](DocWriter& w) {
        w.Add("<%s>", tag).Tag("sn", info->szSerial);
        body(w, *info);
        w.Add("</%s>", tag);
    });
}

// ---- Reading ----

// Serial of an element; absent keeps what the record holds.
template <class T>
void ReadSerial(const char* text, T& info) {
    ReadText(text, "sn", info.szSerial);
}

// "start-stop;" items; an item without '-' counts but leaves its period zero.
void ReadPlanDay(const char* text, _planinfo& p, int day) {
    char tag[8];
    std::snprintf(tag, sizeof tag, "d%d", day);
    char value[docxml::kValueSize];
    if (!Cut(text, tag, value)) return;
    int n = 0;
    const char* at = value;
    for (const char* end; n < PLAN_SEGMENTS && (end = std::strchr(at, ';')); at = end + 1, ++n) {
        const char* dash = static_cast<const char*>(std::memchr(at, '-', end - at));
        p.time[day][n] = dash ? _plan_time{ToInt(at), ToInt(dash + 1)} : _plan_time{};
    }
    p.nSize[day] = n;
}

// Every `tag` element into a new record appended to `out`; a failed allocation ends the
// list with what was read so far.
template <class T>
int ReadList(const char* text, const char* tag, std::vector<T*>& out,
             int (*readOne)(const char*, T*)) {
    if (!text) return 0;
    std::unique_ptr<char[]> element(new (std::nothrow) char[CFG_ELEMENT_SIZE]);
    if (!element) return 1;
    Elements elements(text, tag);
    while (elements.Next(element.get(), CFG_ELEMENT_SIZE)) {
        std::unique_ptr<T> record(new (std::nothrow) T{});
        if (!record) break;
        readOne(element.get(), record.get());
        out.push_back(record.release());
    }
    return 1;
}

int ReadParamElement(const char* text, _paraminfo* info) {
    ReadSerial(text, *info);
    return ParasIntvParamFromXML(text, &info->param);
}

}  // namespace

// ---- Writers ----

int FormatIntvParamFroXML(const _intvparam* param, char* out, size_t size) {
    if (!param || !out || size == 0) return 0;
    return docxml::WriteWhole(out, size, [param](DocWriter& w) { WriteParamBody(w, *param); });
}

int FormatIntvParam(const _paraminfo* info, char* out, size_t size) {
    return WriteElement(info, "param", out, size,
                        [](DocWriter& w, const _paraminfo& p) { WriteParamBody(w, p.param); });
}

int FormatIntvPlan(const _planinfo* info, char* out, size_t size) {
    return WriteElement(info, "plan", out, size, [](DocWriter& w, const _planinfo& p) {
        w.Tag("enable", p.bEnable);
        for (int day = 0; day < PLAN_DAYS; ++day) WritePlanDay(w, p, day);
    });
}

int FormatIntvModel(const _modelparaminfo* info, char* out, size_t size) {
    return WriteElement(info, "model", out, size, [](DocWriter& w, const _modelparaminfo& m) {
        for (int i = 0; i < Clamp(m.nSize, MODEL_PARAM_MAX); ++i) {
            const _model_param& e = m.model[i];
            w.Add("<m>").Tag("type", e.nType).Tag("thres", e.nThreshold);
            w.Tag("enable", e.bEnable).Add("</m>");
        }
    });
}

int FormatIntvScene(const _ruleinfo* info, char* out, size_t size) {
    if (!info || !out || size == 0) return 0;
    // The zone text is the rule documents' own; it is measured into a buffer of its own so
    // that the element stays all or nothing.
    std::unique_ptr<char[]> zones(new (std::nothrow) char[size]);
    if (!zones || !FormatRuleFroXML(&info->rule, zones.get(), size)) {
        out[0] = '\0';
        return 0;
    }
    return WriteElement(info, "scene", out, size,
                        [&](DocWriter& w, const _ruleinfo&) { w.Add("%s", zones.get()); });
}

int FormatRecordParam(const _record_config* info, char* out, size_t size) {
    return WriteElement(info, "record", out, size, [](DocWriter& w, const _record_config& r) {
        w.Tag("enable", r.bEnable)
            .Tag("stream", r.nStream)
            .Tag("pre", r.nPreRecord)
            .Tag("post", r.nPostRecord)
            .Tag("filelen", r.nFileMinutes)
            .Tag("keep", r.nKeepDays)
            .Tag("audio", r.bAudio);
    });
}

int FormatTemple(const _temple_config* info, char* out, size_t size) {
    return WriteElement(info, "temple", out, size, [](DocWriter& w, const _temple_config& t) {
        w.Tag("name", t.szName)
            .Tag("rmode", t.nRecordMode)
            .Tag("motion", t.nMotionThres)
            .Tag("disk", t.nDiskThres)
            .Tag("free", t.nMinFree);
    });
}

int FormatIntvParamEx(const _paraminfoex* info, char* out, size_t size) {
    return WriteElement(info, "paramex", out, size, [](DocWriter& w, const _paraminfoex& p) {
        for (int i = 0; i < Clamp(p.nSize, PARAMEX_MAX); ++i)
            w.Add("<p>").Tag("k", p.item[i].szName).Tag("v", p.item[i].szValue).Add("</p>");
    });
}

// ---- Single records ----

int ParasIntvParamFromXML(const char* text, _intvparam* p) {
    if (!text || !p) return 0;
    ReadInt(text, "enable", p->bEnable);
    ReadInt(text, "sens", p->nSensitivity);
    ReadInt(text, "fps", p->nFrameRate);
    ReadInt(text, "minsize", p->nMinTarget);
    ReadInt(text, "maxsize", p->nMaxTarget);
    ReadInt(text, "interval", p->nAlarmInterval);
    ReadInt(text, "snap", p->nSnapCount);
    ReadInt(text, "rectime", p->nRecordTime);
    return 1;
}

int ParasIntvPlanFromXML(const char* text, _planinfo* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    ReadInt(text, "enable", info->bEnable);
    for (int day = 0; day < PLAN_DAYS; ++day) ReadPlanDay(text, *info, day);
    return 1;
}

int ParasModelParamFromXML(const char* text, _modelparaminfo* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    char item[kItemSize];
    Elements models(text, "m");
    int n = 0;
    while (n < MODEL_PARAM_MAX && models.Next(item, sizeof item)) {
        _model_param& m = info->model[n++];
        ReadInt(item, "type", m.nType);
        ReadInt(item, "thres", m.nThreshold);
        ReadInt(item, "enable", m.bEnable);
    }
    info->nSize = n;
    return 1;
}

int ParasSceneFromXML(const char* text, _ruleinfo* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    return ParasRuleFromXML(text, &info->rule);
}

int ParasRecordParamFromXML(const char* text, _record_config* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    ReadInt(text, "enable", info->bEnable);
    ReadInt(text, "stream", info->nStream);
    ReadInt(text, "pre", info->nPreRecord);
    ReadInt(text, "post", info->nPostRecord);
    ReadInt(text, "filelen", info->nFileMinutes);
    ReadInt(text, "keep", info->nKeepDays);
    ReadInt(text, "audio", info->bAudio);
    return 1;
}

int ParasTempleConfigFromXML(const char* text, _temple_config* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    ReadText(text, "name", info->szName);
    ReadInt(text, "rmode", info->nRecordMode);
    ReadInt(text, "motion", info->nMotionThres);
    ReadInt(text, "disk", info->nDiskThres);
    ReadInt(text, "free", info->nMinFree);
    return 1;
}

int ParasIntvParamExFromXML(const char* text, _paraminfoex* info) {
    if (!text || !info) return 0;
    ReadSerial(text, *info);
    char item[kItemSize];
    Elements items(text, "p");
    int n = 0;
    while (n < PARAMEX_MAX && items.Next(item, sizeof item)) {
        ReadText(item, "k", info->item[n].szName);
        ReadText(item, "v", info->item[n].szValue);
        ++n;
    }
    info->nSize = n;
    return 1;
}

// ---- Lists ----

int ParasIntvParamListFromXML(const char* text, std::vector<_paraminfo*>& list) {
    return ReadList(text, "param", list, ReadParamElement);
}

int ParasIntvPlanListFromXML(const char* text, std::vector<_planinfo*>& list) {
    return ReadList(text, "plan", list, ParasIntvPlanFromXML);
}

int ParasModelParamListFromXML(const char* text, std::vector<_modelparaminfo*>& list) {
    return ReadList(text, "model", list, ParasModelParamFromXML);
}

int ParasSceneListFromXML(const char* text, std::vector<_ruleinfo*>& list) {
    return ReadList(text, "scene", list, ParasSceneFromXML);
}

int ParasRecordParamListFromXML(const char* text, std::vector<_record_config*>& list) {
    return ReadList(text, "record", list, ParasRecordParamFromXML);
}

int ParasTempleFromXML(const char* text, std::vector<_temple_config*>& list) {
    return ReadList(text, "temple", list, ParasTempleConfigFromXML);
}

int ParasIntvParamExCfg(const char* text, std::vector<_paraminfoex*>& list) {
    return ReadList(text, "paramex", list, ParasIntvParamExFromXML);
}
