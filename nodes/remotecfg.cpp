// Remote configuration: pushing, clearing and reading back configuration on nodes.
#include "nodes/remotecfg.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "RUSKNetSDK.h"
#include "comm/boundedtext.h"
#include "comm/docxml.h"
#include "comm/mystring.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "nodes/camsearch.h"
#include "nodes/nodeurl.h"

namespace {

// One pushed or cached element; larger than any record formats to.
constexpr size_t kXmlSize = 65536;
constexpr size_t kSerialSize = 16;
constexpr char kSetConfig[] = "/xconfig?cmd=setconfig&type=";

template <class T>
using RecordWriter = int (*)(const T*, char*, size_t);
template <class T>
using ListReader = int (*)(const char*, std::vector<T*>&);

// ---- Which writer and reader serve a configuration type, by record kind ----
// A type whose records are of another kind gets none.

RecordWriter<_paraminfo> WriterOf(int type, const _paraminfo*) {
    return type == L_CFG_INTV_PARAM ? FormatIntvParam : nullptr;
}
RecordWriter<_ruleinfo> WriterOf(int type, const _ruleinfo*) {
    if (type == L_CFG_INTV_RULE) return FormatIntvRule;
    if (type == L_CFG_INTV_SCENE || type == L_CFG_INTV_OBJECT_PARAM) return FormatIntvScene;
    return nullptr;
}
RecordWriter<_planinfo> WriterOf(int type, const _planinfo*) {
    return type == L_CFG_INTV_PLAN || type == L_CFG_RECORD_PLAN ? FormatIntvPlan : nullptr;
}
RecordWriter<_modelparaminfo> WriterOf(int type, const _modelparaminfo*) {
    return type == L_CFG_INTV_MODEL ? FormatIntvModel : nullptr;
}
RecordWriter<_record_config> WriterOf(int type, const _record_config*) {
    return type == L_CFG_RECORD_PARAM ? FormatRecordParam : nullptr;
}
RecordWriter<_temple_config> WriterOf(int type, const _temple_config*) {
    return type == L_CFG_RECORD_PLAN_THRES ? FormatTemple : nullptr;
}
RecordWriter<_paraminfoex> WriterOf(int type, const _paraminfoex*) {
    return type == L_CFG_INTV_PARAM_EX ? FormatIntvParamEx : nullptr;
}

ListReader<_paraminfo> ReaderOf(int type, const _paraminfo*) {
    return type == L_CFG_INTV_PARAM ? ParasIntvParamListFromXML : nullptr;
}
ListReader<_ruleinfo> ReaderOf(int type, const _ruleinfo*) {
    if (type == L_CFG_INTV_RULE) return ParasRuleListFromXML;
    if (type == L_CFG_INTV_SCENE) return ParasSceneListFromXML;
    return nullptr;
}
ListReader<_planinfo> ReaderOf(int type, const _planinfo*) {
    return type == L_CFG_INTV_PLAN || type == L_CFG_RECORD_PLAN ? ParasIntvPlanListFromXML
                                                                : nullptr;
}
ListReader<_modelparaminfo> ReaderOf(int type, const _modelparaminfo*) {
    return type == L_CFG_INTV_MODEL ? ParasModelParamListFromXML : nullptr;
}
ListReader<_record_config> ReaderOf(int type, const _record_config*) {
    return type == L_CFG_RECORD_PARAM ? ParasRecordParamListFromXML : nullptr;
}
ListReader<_temple_config> ReaderOf(int type, const _temple_config*) {
    return type == L_CFG_RECORD_PLAN_THRES ? ParasTempleFromXML : nullptr;
}
ListReader<_paraminfoex> ReaderOf(int type, const _paraminfoex*) {
    return type == L_CFG_INTV_PARAM_EX ? ParasIntvParamExCfg : nullptr;
}

// "<tag>" + body + "</tag>" into out, all or nothing.
template <class Body>
int Wrap(const char* tag, char* out, size_t size, Body body) {
    const size_t open = std::strlen(tag) + 2, close = open + 1;
    if (size <= open + close) return 0;
    std::snprintf(out, size, "<%s>", tag);
    if (!body(out + open, size - open - close)) {
        out[0] = '\0';
        return 0;
    }
    size_t used = open + std::strlen(out + open);
    std::snprintf(out + used, size - used, "</%s>", tag);
    return 1;
}

// The cache keeps parameters and rules without their serial: the serial belongs to the
// channel they are pushed to, not to the stored copy.
int FormatCachedParam(const _paraminfo* p, char* out, size_t size) {
    return Wrap("param", out, size,
                [p](char* body, size_t n) { return FormatIntvParamFroXML(&p->param, body, n); });
}
int FormatCachedRule(const _ruleinfo* r, char* out, size_t size) {
    return Wrap("rule", out, size,
                [r](char* body, size_t n) { return FormatRuleFroXML(&r->rule, body, n); });
}

template <class T>
RecordWriter<T> CacheWriterOf(int type, const T* kind) {
    return WriterOf(type, kind);
}
RecordWriter<_paraminfo> CacheWriterOf(int type, const _paraminfo*) {
    return type == L_CFG_INTV_PARAM ? FormatCachedParam : nullptr;
}
RecordWriter<_ruleinfo> CacheWriterOf(int type, const _ruleinfo* kind) {
    return type == L_CFG_INTV_RULE ? FormatCachedRule : WriterOf(type, kind);
}

// An empty record of the type, as ClearConfigServerEx sends it; types without a record
// of their own are cleared as plans.
int FormatEmpty(int type, char* out, size_t size) {
    switch (type) {
        case L_CFG_INTV_RULE: {
            auto r = std::make_unique<_ruleinfo>();
            return FormatIntvRule(r.get(), out, size);
        }
        case L_CFG_INTV_SCENE:
        case L_CFG_INTV_OBJECT_PARAM: {
            auto r = std::make_unique<_ruleinfo>();
            return FormatIntvScene(r.get(), out, size);
        }
        case L_CFG_INTV_PARAM: {
            _paraminfo p{};
            return FormatIntvParam(&p, out, size);
        }
        case L_CFG_INTV_MODEL: {
            _modelparaminfo m{};
            return FormatIntvModel(&m, out, size);
        }
        case L_CFG_INTV_PARAM_EX: {
            _paraminfoex p{};
            return FormatIntvParamEx(&p, out, size);
        }
        case L_CFG_RECORD_PARAM: {
            _record_config r{};
            return FormatRecordParam(&r, out, size);
        }
        case L_CFG_RECORD_PLAN_THRES: {
            _temple_config t{};
            return FormatTemple(&t, out, size);
        }
        default: {
            _planinfo p{};
            return FormatIntvPlan(&p, out, size);
        }
    }
}

// The node's configuration address followed by `suffix`; false when it has none.
bool ConfigUrl(int nodeid, int nodetype, const std::string& suffix, std::string& url) {
    char base[kNodeUrlSize] = {};
    if (!GetConfigUrlFromNode(nodeid, nodetype, base)) return false;
    url = base + suffix;
    return true;
}

bool Send(const std::string& url, const char* body) {
    char ret[REMOTE_REPLY_SIZE];
    int length = 0;
    int n = body ? static_cast<int>(std::strlen(body)) : 0;
    return RemoteDevConfig(url.c_str(), body, n, ret, sizeof ret, length);
}

template <class T>
int CacheConfig(CMysqlDB* db, int nodeid, int nodetype, int type) {
    OwnedList<T> list;
    if (!GetConfigServer(nodeid, nodetype, type, list.v)) return 0;
    RecordWriter<T> write = CacheWriterOf(type, static_cast<const T*>(nullptr));
    std::unique_ptr<char[]> xml(new (std::nothrow) char[kXmlSize]);
    if (!write || !xml || !write(list.v.front(), xml.get(), kXmlSize)) return 0;
    std::string escaped(2 * std::strlen(xml.get()) + 1, '\0');
    EscapeSql(db, xml.get(), &escaped[0], escaped.size());
    char head[128];
    std::snprintf(head, sizeof head,
                  "insert into devicecfg(nodeid,nodetype,configtype,configure) values(%d,%d,%d,\"",
                  nodeid, nodetype, type);
    std::string sql = head + std::string(escaped.c_str()) + "\")";
    return db->Execute(sql.c_str()) ? 1 : 0;
}

}  // namespace

bool RemoteDevConfig(const char* url, const char* body, int length, char* ret, size_t retSize,
                     int& retLength) {
    if (!url) return false;
    retLength = 0;
    if (ret && retSize) ret[0] = '\0';
    printf("remoteset :%s \n", url);
    if (body) printf("%.*s\n", length > 0 ? length : 0, body);

    // One byte more than the node may fill, so the reply always reads as terminated text.
    char reply[REMOTE_REPLY_SIZE + 1] = {};
    int replyLength = static_cast<int>(REMOTE_REPLY_SIZE);
    if (!RUSK_TRANSCOMMAND(url, RUSK_COMMAND_HTTP, body, length, reply, &replyLength)) return false;

    char text[REMOTE_REPLY_SIZE + 1] = {};
    if (replyLength > 4 && _get_valuefromstring(reply, "<ret>", "</ret>", text)) {
        if (ret && retSize) {
            btext::Copy(ret, retSize, text);
            retLength = static_cast<int>(std::strlen(ret));
        }
        return std::atoi(text) != 0;
    }
    if (replyLength == 4) {
        int32_t status = 0;
        std::memcpy(&status, reply, sizeof status);
        return status == 0;
    }
    return true;
}

int ConfigFromCommand(const char* url) {
    char ret[200];
    int length = 0;
    RemoteDevConfig(url, nullptr, 0, ret, sizeof ret, length);
    return 1;
}

bool ConfigDevServer(int nodeid, int nodetype, int command) {
    std::string suffix;
    if (command == NODE_CMD_REBOOT) {
        suffix = "/xconfig?cmd=reboot";
    } else if (command == NODE_CMD_POWEROFF) {
        suffix = "/xconfig?cmd=poweroff";
    } else if (command == NODE_CMD_RESET) {
        char serial[kSerialSize] = {};
        GetSerialFromNode(nodeid, nodetype, serial, sizeof serial);
        suffix = serial[0] ? std::string("/xconfig?cmd=reset&sn=") + serial : "/xconfig?cmd=reset";
    }
    std::string url;
    if (!ConfigUrl(nodeid, nodetype, suffix, url)) return false;
    ConfigFromCommand(url.c_str());
    return true;
}

template <class T>
T* GetConfigFromType(int type, int64_t nodeid, int nodetype, const std::vector<T*>& records) {
    const bool perNode = (type >= L_CFG_INTV_PARAM && type <= L_CFG_RECORD_PLAN_THRES) ||
                         type == L_CFG_INTV_PARAM_EX || type == L_CFG_INTV_OBJECT_PARAM;
    if (!perNode && (nodeid != 0 || nodetype != 0)) return nullptr;
    for (T* r : records)
        if (r && r->nNodeID == nodeid && r->nNodeType == nodetype) return r;
    return nullptr;
}

template <class T>
int ConfigServerEx2(int type, const std::vector<_config_chan_info*>& channels,
                    const std::vector<T*>& records) {
    RecordWriter<T> write = WriterOf(type, static_cast<const T*>(nullptr));
    std::unique_ptr<char[]> xml(new (std::nothrow) char[kXmlSize]);
    if (!write || !xml) return 0;
    const std::string suffix = kSetConfig + std::to_string(type);
    int result = 0;
    for (const _config_chan_info* chan : channels) {
        if (!chan) continue;
        const int id = static_cast<int>(chan->nNodeID);
        char serial[kSerialSize] = {};
        if (!GetSerialFromNode(id, chan->nNodeType, serial, sizeof serial) ||
            std::atoi(serial) == 0)
            continue;
        std::string url;
        if (!ConfigUrl(id, chan->nNodeType, suffix, url)) continue;
        // A channel without a record gets an empty one: that clears the type on it.
        auto record = std::make_unique<T>();
        if (const T* found = GetConfigFromType(type, chan->nNodeID, chan->nNodeType, records))
            *record = *found;
        docxml::CopyText(record->szSerial, serial);
        if (!write(record.get(), xml.get(), kXmlSize)) continue;
        if (Send(url, xml.get())) result = 1;
    }
    return result;
}

int ConfigServer2(int nodeid, int nodetype, int type, std::vector<_cammera_info*>& cameras) {
    if (type != L_CFG_ADD_CAMERA) return 1;
    std::string url;
    if (!ConfigUrl(nodeid, nodetype, kSetConfig + std::to_string(type), url)) return 0;
    for (_cammera_info* camera : cameras) {
        if (!camera) continue;
        std::memset(camera->szSerial, 0, sizeof camera->szSerial);
        char xml[CAMERA_XML_SIZE];
        if (!FormatCameraFroXML(camera, xml)) break;
        char ret[REMOTE_REPLY_SIZE];
        int length = 0;
        if (!RemoteDevConfig(url.c_str(), xml, static_cast<int>(std::strlen(xml)), ret, sizeof ret,
                             length))
            break;
        printf("add camera ret : %s\n", ret);
        if (ret[0]) docxml::CopyText(camera->szSerial, ret);  // the server names the camera
    }
    return 1;
}

bool ClearConfigServerEx(int nodeid, int nodetype, int type) {
    std::string url;
    if (!ConfigUrl(nodeid, nodetype, kSetConfig + std::to_string(type), url)) return false;
    if (type == L_CFG_DELETE_CAMERA) return Send(url, nullptr);
    std::unique_ptr<char[]> xml(new (std::nothrow) char[kXmlSize]);
    if (!xml || !FormatEmpty(type, xml.get(), kXmlSize)) return false;
    return Send(url, xml.get());
}

template <class T>
int GetConfigServer(int nodeid, int nodetype, int type, std::vector<T*>& list) {
    ListReader<T> read = ReaderOf(type, static_cast<const T*>(nullptr));
    if (!read) return 0;
    std::unique_ptr<char[]> text;
    if (!GetIntvConfig(nodeid, nodetype, type, text)) return 0;
    return read(text.get(), list) && !list.empty() ? 1 : 0;
}

int GetConfigServerEx(CMysqlDB* db, int nodeid, int nodetype, int type) {
    if (!db) return 0;
    char sql[160];
    std::snprintf(sql, sizeof sql,
                  "delete from devicecfg where nodeid = %d and nodetype = %d and configtype = %d",
                  nodeid, nodetype, type);
    db->Execute(sql);
    switch (type) {
        case L_CFG_INTV_PARAM:
            return CacheConfig<_paraminfo>(db, nodeid, nodetype, type);
        case L_CFG_INTV_RULE:
        case L_CFG_INTV_SCENE:
            return CacheConfig<_ruleinfo>(db, nodeid, nodetype, type);
        case L_CFG_INTV_PLAN:
        case L_CFG_RECORD_PLAN:
            return CacheConfig<_planinfo>(db, nodeid, nodetype, type);
        case L_CFG_INTV_MODEL:
            return CacheConfig<_modelparaminfo>(db, nodeid, nodetype, type);
        case L_CFG_RECORD_PARAM:
            return CacheConfig<_record_config>(db, nodeid, nodetype, type);
        case L_CFG_RECORD_PLAN_THRES:
            return CacheConfig<_temple_config>(db, nodeid, nodetype, type);
        case L_CFG_INTV_PARAM_EX:
            return CacheConfig<_paraminfoex>(db, nodeid, nodetype, type);
        default:
            return 0;
    }
}

int GetSqlFromNodeConfig(int nodeid, int nodetype, int type, char* sql, size_t size) {
    if (!sql || size == 0) return 0;
    int n;
    // The double space after "from" is how these statements have always read.
    if (nodetype == SERVER_NODE)
        n = std::snprintf(sql, size,
                          "select * from  devicecfg where nodeid in (select id from serverchan "
                          "where serverid = %d) and configtype = %d and nodetype = %d",
                          nodeid, type, SERVERCHAN_NODE);
    else if (nodetype == DEVICE_NODE)
        n = std::snprintf(sql, size,
                          "select * from  devicecfg where nodeid in (select id from devicechan "
                          "where devid = %d) and configtype = %d and nodetype = %d",
                          nodeid, type, DEVCHAN_NODE);
    else if (nodetype == DEVCHAN_NODE || nodetype == SERVERCHAN_NODE)
        n = std::snprintf(sql, size,
                          "select * from  devicecfg where nodeid = %d and nodetype = %d and "
                          "configtype = %d",
                          nodeid, nodetype, type);
    else
        n = std::snprintf(sql, size, "select * from  devicecfg where configtype = %d", type);
    // A cut statement would read some other configuration.
    return n > 0 && static_cast<size_t>(n) < size ? 1 : 0;
}

// The record kinds configuration is pushed and read with.
#define CMS_CONFIG_KIND(T)                                                       \
    template int ConfigServerEx2<T>(int, const std::vector<_config_chan_info*>&, \
                                    const std::vector<T*>&);                     \
    template T* GetConfigFromType<T>(int, int64_t, int, const std::vector<T*>&); \
    template int GetConfigServer<T>(int, int, int, std::vector<T*>&);
CMS_CONFIG_KIND(_paraminfo)
CMS_CONFIG_KIND(_ruleinfo)
CMS_CONFIG_KIND(_planinfo)
CMS_CONFIG_KIND(_modelparaminfo)
CMS_CONFIG_KIND(_record_config)
CMS_CONFIG_KIND(_temple_config)
CMS_CONFIG_KIND(_paraminfoex)
#undef CMS_CONFIG_KIND
