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

// ---- Configuration documents ----
// Analytics parameters, plans, models, scenes, record parameters, record templates and
// extended parameters of one channel. Every record begins with the serial the channel is
// known by on its node (its channel number as text when pushed), its node id and node
// type. Elements look like the rule elements: "<tag><sn>serial</sn>fields</tag>", lists
// "<tags>...</tags>"; the "<sn>" is optional when reading (a missing one leaves the serial
// empty), since the cached copies in the database carry none.

// Analytics parameters; the body of a "<param>" element.
struct _intvparam {
    int bEnable;
    int nSensitivity;    // 0..100
    int nFrameRate;      // frames analysed per second
    int nMinTarget;      // smallest target, pixels
    int nMaxTarget;      // largest target, pixels
    int nAlarmInterval;  // seconds between two alarms of one zone
    int nSnapCount;      // pictures kept per alarm
    int nRecordTime;     // seconds of video kept per alarm
};

struct _paraminfo {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    _intvparam param;
};

constexpr int PLAN_DAYS = 7;
constexpr int PLAN_SEGMENTS = 4;

struct _plan_time {
    int nStart;  // minutes since midnight
    int nStop;
};

// Weekly plan of analysis or recording: up to four periods a day, Sunday first.
struct _planinfo {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    int bEnable;
    int nSize[PLAN_DAYS];  // periods used per day
    _plan_time time[PLAN_DAYS][PLAN_SEGMENTS];
};

constexpr int MODEL_PARAM_MAX = 8;

struct _model_param {
    int nType;       // model of the node's model library
    int nThreshold;  // confidence in percent
    int bEnable;
};

// The models a channel runs.
struct _modelparaminfo {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    int nSize;  // entries of model used
    _model_param model[MODEL_PARAM_MAX];
};

struct _record_config {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    int bEnable;
    int nStream;       // 0 main stream, 1 sub stream
    int nPreRecord;    // seconds kept before an alarm
    int nPostRecord;   // seconds recorded after it
    int nFileMinutes;  // length of one file
    int nKeepDays;     // days before files are overwritten
    int bAudio;
};

// Record plan template: how a plan records and when the disk is recycled.
struct _temple_config {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    char szName[32];
    int nRecordMode;   // 0 continuous, 1 on alarm, 2 on motion
    int nMotionThres;  // motion sensitivity 0..100 (mode 2)
    int nDiskThres;    // disk use in percent at which the oldest files are overwritten
    int nMinFree;      // free space kept, MiB
};

constexpr int PARAMEX_MAX = 12;

struct _paramex_item {
    char szName[24];  // a parameter of the node's advanced parameter document
    char szValue[40];
};

// Extended analytics parameters: named values.
struct _paraminfoex {
    char szSerial[20];
    int nNodeID;
    int nNodeType;
    int nSize;  // entries of item used
    _paramex_item item[PARAMEX_MAX];
};

// Writers: one element into `out` (`size` bytes, terminated). 0 for null arguments or when
// the element does not fit (then `out` is emptied: a cut document would read wrongly).
// FormatIntvParamFroXML writes the parameter fields alone, without element or serial.
int FormatIntvParamFroXML(const _intvparam* param, char* out, size_t size);
int FormatIntvParam(const _paraminfo* info, char* out, size_t size);        // "<param>"
int FormatIntvPlan(const _planinfo* info, char* out, size_t size);          // "<plan>"
int FormatIntvModel(const _modelparaminfo* info, char* out, size_t size);   // "<model>"
int FormatIntvScene(const _ruleinfo* info, char* out, size_t size);         // "<scene>"
int FormatRecordParam(const _record_config* info, char* out, size_t size);  // "<record>"
int FormatTemple(const _temple_config* info, char* out, size_t size);       // "<temple>"
int FormatIntvParamEx(const _paraminfoex* info, char* out, size_t size);    // "<paramex>"

// One record from the text of one element (or its content), by tag search; fields whose
// tag is absent keep their value. The serial is read when an "<sn>" is present.
// 0 for null arguments.
int ParasIntvParamFromXML(const char* text, _intvparam* param);
int ParasIntvPlanFromXML(const char* text, _planinfo* info);
int ParasModelParamFromXML(const char* text, _modelparaminfo* info);
int ParasSceneFromXML(const char* text, _ruleinfo* info);
int ParasRecordParamFromXML(const char* text, _record_config* info);
int ParasTempleConfigFromXML(const char* text, _temple_config* info);
int ParasIntvParamExFromXML(const char* text, _paraminfoex* info);

// List readers: one new zeroed record per element, appended to the vector and owned by the
// caller; nNodeID and nNodeType stay 0. Elements longer than CFG_ELEMENT_SIZE - 1 bytes are
// read from their first part. 1 also for no element; 0 only for a null text.
constexpr size_t CFG_ELEMENT_SIZE = 8192;
int ParasIntvParamListFromXML(const char* text, std::vector<_paraminfo*>& list);
int ParasIntvPlanListFromXML(const char* text, std::vector<_planinfo*>& list);
int ParasModelParamListFromXML(const char* text, std::vector<_modelparaminfo*>& list);
int ParasSceneListFromXML(const char* text, std::vector<_ruleinfo*>& list);
int ParasRecordParamListFromXML(const char* text, std::vector<_record_config*>& list);
int ParasTempleFromXML(const char* text, std::vector<_temple_config*>& list);
int ParasIntvParamExCfg(const char* text, std::vector<_paraminfoex*>& list);
