// Analytics configuration documents: the small XML-like texts exchanged with analytics
// servers and devices (camera lists, ability documents, registration notices, rule sets).
//
// They are read by plain tag search (comm/mystring.h), not by an XML parser: a value is the
// text between the first opening and the first closing tag, there are no attributes and no
// escaping. Readers never fail on a missing field: it keeps what the caller put there (callers
// zero-fill records). Every reader is bounded by its input and by its destination arrays:
// an over-long value is cut to the field, surplus list elements are ignored.
//
// Locks: none; these functions touch only what they are given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// ---- Camera and ability documents ----

struct _cammera_info {
    char szSerial[30];
    char szParent[30];
    char szName[50];
    char szIP[50];
    int nPort;
    char szUser[20];
    char szPass[20];
    int nType;
    int nChan;
    char szChan[40];  // channel code
    int nStoreIndex;
    int nStream;
    int nMode;
    char szPath[50];
};

struct _RULE_CONFIG {
    char szName[32];
    int nPos;
    int nParam;  // number of parameters
    char paramNames[100];
    int nMode;
    bool bEnable;
};

constexpr int RULE_MATCH_MAX = 64;

struct _RULE_MATCH {
    int nRuleType;
    _RULE_CONFIG config[RULE_MATCH_MAX];
    int nEventStart;
    int nSize;  // entries of config filled
};

struct _model_lib_info {
    int type;
    int start;
    char desc[32];
    char file[32];
    int gpusize;
    int gpuability;
    int mode;
};

struct _model_object_info {
    int nType;
    int nMode;
    char szDescript[100];
};

// The longest text one camera formats to is well below this; callers size buffers with it.
constexpr size_t CAMERA_XML_SIZE = 800;

// One "<camera>" element (or the first of a text) into `camera`. 0 for null arguments.
int ParasCameraFromXML(const char* text, _cammera_info* camera);
// Every "<camera>" element, each into a new record appended to `cameras`; the caller owns
// them (ReleaseArray). 1 also for an empty list.
int ParasCameraListFromXML(const char* text, std::vector<_cammera_info*>& cameras);
// One "<camera>" element into `text` (`size` bytes, terminated). The parent and store index
// are not written. 0 for null arguments or a buffer too small.
int FormatCameraFroXML(const _cammera_info* camera, char* text, size_t size);
template <size_t N>
int FormatCameraFroXML(const _cammera_info* camera, char (&text)[N]) {
    return FormatCameraFroXML(camera, text, N);
}
// "<cameras>...</cameras>" into a new[] buffer the caller delete[]s; `length` excludes the
// terminator. Null entries are skipped. 0 when out of memory.
int FormatCameraListFroXML(const std::vector<_cammera_info*>& cameras, char*& text, int& length);

// Rule catalogue: "<rulematch>" with "<type>", "<icon>" and up to 64 "<match>" entries.
// 0 for null arguments or a text without "<rulematch>".
int ParasRuleMatchFromXML(const char* text, _RULE_MATCH* match);
// One "<lib>" model; "<gpu>" sizes only when the block is present.
int ParasDeepModelFromXML(const char* text, _model_lib_info* model);
// Every "<lib>" element into new records appended to `models`; 1 only when at least one
// model was read.
int ParasDeepModelListFromXML(const char* text, std::vector<_model_lib_info*>& models);
int ParasModelObjectFromXML(const char* text, _model_object_info* object);
// Every "<object>" element into new records appended to `objects`; 1 also for none.
int ParasModelObjectListFromXML(const char* text, std::vector<_model_object_info*>& objects);

// ---- Rule documents ----

struct _VCA_POINT {
    uint16_t x;
    uint16_t y;
};

constexpr int VCA_MAX_POINTS = 20;
constexpr int VCA_MAX_PARAMS = 16;
constexpr int VCA_MAX_ZONES = 20;

struct _VCA_ZONE {
    _VCA_POINT usZonePoints[VCA_MAX_POINTS];
    uint16_t usPointSize;
    uint16_t usZoneType;
    uint32_t usRule;  // event kind of the zone
    uint32_t usPares[VCA_MAX_PARAMS];
    uint32_t nParesEx[3];  // not carried by the text form
    char szName[64];
    int nMode;
};

struct _tag_commzonemsg {
    _VCA_ZONE Zones[VCA_MAX_ZONES];
    uint16_t ZoneSize;
    uint32_t dwReserved;  // carried as the rule set's mode
};

struct _ruleinfo {
    char szSerial[20];  // serial of the node
    int nNodeID;
    int nNodeType;
    _tag_commzonemsg rule;
};

// Zone text: "<mode>m</mode>" then one "<zn><name>..</name><info>..</info></zn>" per zone,
// the info being "type;x&y@...;rule;p&...(16);mode". Into `out` (`size` bytes, terminated);
// 0 for null arguments or when the text does not fit.
int FormatRuleFroXML(const _tag_commzonemsg* rule, char* out, size_t size);
template <size_t N>
int FormatRuleFroXML(const _tag_commzonemsg* rule, char (&out)[N]) {
    return FormatRuleFroXML(rule, out, N);
}
// Reads zone text into a record the caller zeroed. Empty info fields are skipped, so a zone
// written without points does not read back as written (its later fields shift); this is
// the format's established behaviour. 0 for null arguments.
int ParasRuleFromXML(const char* text, _tag_commzonemsg* rule);
// "<rule><sn>serial</sn>zone text</rule>" into `out`; 0 for null arguments or no room.
int FormatIntvRule(const _ruleinfo* info, char* out, size_t size);
template <size_t N>
int FormatIntvRule(const _ruleinfo* info, char (&out)[N]) {
    return FormatIntvRule(info, out, N);
}
// "<rules>...</rules>" into a new[] buffer the caller delete[]s; `len` excludes the
// terminator. Null entries are skipped. 0 when out of memory.
int FormatRuleListFroXML(const std::vector<_ruleinfo*>& rules, char*& out, int& len);
// One new zeroed record per "<rule>" element that has an "<sn>"; appended to `rules`, owned
// by the caller. nNodeID and nNodeType stay 0. 0 only for a null text.
int ParasRuleListFromXML(const char* text, std::vector<_ruleinfo*>& rules);
