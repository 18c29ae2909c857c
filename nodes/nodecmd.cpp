// Node commands of the HTTP interface: remote set, read-back, abilities and camera search.
#include "nodes/nodecmd.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "comm/filestore.h"
#include "comm/sysutil.h"
#include "mysql/cfgtables.h"
#include "mysql/sqldbop.h"
#include "nodes/camsearch.h"
#include "nodes/faces.h"
#include "nodes/nodeurl.h"
#include "nodes/remotecfg.h"

namespace {

using Channels = std::vector<_config_chan_info*>;

// The command's own connection, closed on every way out.
class Connection {
public:
    Connection() : m_ok(ConnectDB(&m_db)) {}
    ~Connection() { CloseDB(&m_db); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    bool ok() const { return m_ok; }
    CMysqlDB* db() { return &m_db; }

private:
    CMysqlDB m_db;
    bool m_ok;
};

__attribute__((format(printf, 1, 2))) std::string Format(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(&out[0], out.size() + 1, fmt, again);
    va_end(again);
    return out;
}

std::string Escaped(CMysqlDB* db, const char* text, size_t maxLength) {
    std::string value(text, strnlen(text, maxLength));
    std::string out(2 * value.size() + 1, '\0');
    EscapeSql(db, value.c_str(), &out[0], out.size());
    return out.c_str();
}
template <size_t N>
std::string Escaped(CMysqlDB* db, const char (&field)[N]) {
    return Escaped(db, field, N);
}

bool Run(CMysqlDB* db, const std::string& sql) { return db->Execute(sql.c_str()); }

// ---- remoteset: pushing cached configuration ----

struct PushStep;
using PushRun = int (*)(CMysqlDB* db, const PushStep& step, const char* sql,
                        const Channels& channels);

// One configuration type pushed from the cache. Columns: device type it applies to;
// configuration type; label printed with the statement (null: none); whether the label
// comes after the read rather than before it; the reader and pusher of its record kind.
struct PushStep {
    int devType;
    int configType;
    const char* label;
    bool labelAfterRead;
    PushRun run;
};

template <class T, int (*Read)(CMysqlDB*, const char*, std::vector<T*>&)>
int PushCached(CMysqlDB* db, const PushStep& step, const char* sql, const Channels& channels) {
    if (step.label && !step.labelAfterRead) printf("%s %s \n", step.label, sql);
    OwnedList<T> records;
    // A failed read must not go on to push empty records: they would clear every channel.
    if (!Read(db, sql, records.v)) return 0;
    if (step.label && step.labelAfterRead) printf("%s %s \n", step.label, sql);
    return ConfigServerEx2(step.configType, channels, records.v);
}

const PushStep kPushSteps[] = {
    {DEVTYPE_INTV, L_CFG_INTV_RULE, nullptr, false, PushCached<_ruleinfo, GetRuleConfigFromDB>},
    {DEVTYPE_INTV, L_CFG_INTV_PARAM, "intvparam", false,
     PushCached<_paraminfo, GetParamConfigFromDB>},
    {DEVTYPE_INTV, L_CFG_INTV_MODEL, "intvmodel", false,
     PushCached<_modelparaminfo, GetModelConfigFromDB>},
    {DEVTYPE_INTV, L_CFG_INTV_SCENE, "intvscene", false,
     PushCached<_ruleinfo, GetScenceConfigFromDB>},
    {DEVTYPE_INTV, L_CFG_INTV_PLAN, "intvplan", false, PushCached<_planinfo, GetPlanConfigFromDB>},
    {DEVTYPE_INTV, L_CFG_INTV_PARAM_EX, "intvparamex", false,
     PushCached<_paraminfoex, GetParamExConfigFromDB>},
    {DEVTYPE_RECORD, L_CFG_RECORD_PARAM, "recordparam", false,
     PushCached<_record_config, GetRecordParamConfigFromDB>},
    {DEVTYPE_RECORD, L_CFG_RECORD_PLAN, "recordplan", false,
     PushCached<_planinfo, GetPlanConfigFromDB>},
    {DEVTYPE_RECORD, L_CFG_RECORD_PLAN_THRES, "recordplanthres", true,
     PushCached<_temple_config, GetRecordTempleConfigFromDB>},
};

// Every selected step in order, then the node is told to reload. A step that fails ends
// the push with false.
bool PushConfiguration(CMysqlDB* db, int nodeid, int nodetype, int configtype) {
    const int devType = GetDevTypeFromNode(nodeid, nodetype);
    if (devType == DEVTYPE_UNKNOWN) return false;
    OwnedList<_config_chan_info> channels;
    GetConfigChan_FromDB(db, nodeid, nodetype, channels.v);
    printf("config chan size :%d\n", static_cast<int>(channels.v.size()));
    if (channels.v.empty()) return false;
    for (const PushStep& step : kPushSteps) {
        if (step.devType != devType) continue;
        if (configtype != L_CFG_ALL && configtype != step.configType) continue;
        char sql[200] = {};
        if (!GetSqlFromNodeConfig(nodeid, nodetype, step.configType, sql, sizeof sql)) return false;
        if (step.run(db, step, sql, channels.v) != 1) return false;
    }
    return ConfigDevServer(nodeid, nodetype, NODE_CMD_RESET);
}

bool IsDecimal(const char* text) {
    if (*text == '-') ++text;
    if (!*text) return false;
    for (; *text; ++text)
        if (*text < '0' || *text > '9') return false;
    return true;
}

// Replaces the server's cameras with those assigned to it in the database, and stores the
// index the server gave each one.
bool PushCameras(CMysqlDB* db, int nodeid, int nodetype) {
    OwnedList<_cammera_info> cameras;
    // Without the list the server's cameras must stay: clearing them would lose them all.
    if (!GetServerCamera_FromDB(db, nodeid, cameras.v)) return false;
    ClearConfigServerEx(nodeid, nodetype, L_CFG_DELETE_CAMERA);
    const bool result = ConfigServer2(nodeid, nodetype, L_CFG_ADD_CAMERA, cameras.v) != 0;
    for (const _cammera_info* c : cameras.v) {
        char serial[sizeof c->szSerial + 1] = {};
        std::memcpy(serial, c->szSerial, sizeof c->szSerial);
        // The index is a number; any other answer is not written into the statement.
        if (!serial[0] || c->nStoreIndex == 0 || !IsDecimal(serial)) continue;
        Run(db, Format("update serverchan set sindex = %s where id = %d", serial, c->nStoreIndex));
    }
    return result;
}

bool RegisterFaces(int nodeid, int nodetype, int64_t id) {
    if (id != 0) return false;
    const _file_path* area = GetPathFromName("regist");
    if (!area) return false;
    char root[sizeof area->path + 1] = {};
    std::memcpy(root, area->path, sizeof area->path);
    return RegistFaceEx(nodeid, nodetype, static_cast<int>(id), root) != 0;
}

// ---- getablity: the node's help documents into the ability tables ----

void StoreRules(CMysqlDB* db, int nodeid, int nodetype, const char* doc) {
    Run(db, Format("delete devicecfgrule from devicecfgrule where nodeid = %d and nodetype = %d",
                   nodeid, nodetype));
    auto match = std::make_unique<_RULE_MATCH>();
    ParasRuleMatchFromXML(doc, match.get());
    const int n = match->nSize < RULE_MATCH_MAX ? match->nSize : RULE_MATCH_MAX;
    for (int i = 0; i < n; ++i) {
        const _RULE_CONFIG& r = match->config[i];
        if (!r.bEnable) continue;
        std::string sql = Format(
            "insert into devicecfgrule(nodeid,nodetype,name,pos,paramsize,paramnames,enable) "
            "values(%d,%d,'%s',%d,%d,'%s',1)",
            nodeid, nodetype, Escaped(db, r.szName).c_str(), r.nPos, r.nParam,
            Escaped(db, r.paramNames).c_str());
        if (!Run(db, sql)) break;
    }
}

void StoreAdvanced(CMysqlDB* db, int nodeid, int nodetype, const char* doc) {
    Run(db, Format("delete devicecfgadvc from devicecfgadvc where nodeid = %d and nodetype = %d",
                   nodeid, nodetype));
    Run(db, Format("insert into devicecfgadvc(nodeid,nodetype,advc) values(%d,%d,'%s')", nodeid,
                   nodetype, Escaped(db, doc, HELP_REPLY_SIZE).c_str()));
}

bool InsertBaseData(CMysqlDB* db, int nodeid, int nodetype, const std::string& name, int modeType,
                    int mode, int objectType) {
    return Run(db, Format("insert into devicecfgbasedata(nodeid,nodetype,name,modetype,mode,"
                          "objecttype) values(%d,%d,'%s',%d,%d,%d)",
                          nodeid, nodetype, name.c_str(), modeType, mode, objectType));
}

// The base-data table is cleared once, here, before the models; the object kinds follow.
void StoreModels(CMysqlDB* db, int nodeid, int nodetype, const char* doc) {
    Run(db, Format("delete devicecfgbasedata from devicecfgbasedata where nodeid = %d and "
                   "nodetype = %d",
                   nodeid, nodetype));
    OwnedList<_model_lib_info> models;
    ParasDeepModelListFromXML(doc, models.v);
    for (const _model_lib_info* m : models.v) {
        if (m->mode >= 2) continue;
        if (!InsertBaseData(db, nodeid, nodetype, Escaped(db, m->desc), m->type, m->mode, -1))
            break;
    }
}

void StoreObjects(CMysqlDB* db, int nodeid, int nodetype, const char* doc) {
    OwnedList<_model_object_info> objects;
    ParasModelObjectListFromXML(doc, objects.v);
    for (const _model_object_info* o : objects.v) {
        if (o->nMode >= 1) continue;
        if (!InsertBaseData(db, nodeid, nodetype, Escaped(db, o->szDescript), -1, -1, o->nType))
            break;
    }
}

using AbilityStore = void (*)(CMysqlDB* db, int nodeid, int nodetype, const char* doc);

// Help documents in the order they are read; each is stored by its own writer.
const struct {
    int helpType;
    AbilityStore store;
} kAbilities[] = {
    {L_CFG_HELP_RULE, StoreRules},
    {L_CFG_HELP_INTVPARAM, StoreAdvanced},
    {L_CFG_HELP_MODEL, StoreModels},
    {L_CFG_HELP_OBJECT, StoreObjects},
};

}  // namespace

bool RemoteSetNode(int nodeid, int nodetype, int configtype, int64_t id) {
    Connection conn;
    if (!conn.ok()) {
        printf("remote set but database link failed\n");
        return false;
    }
    switch (configtype) {
        case L_CFG_INTV_FACE_DELETE:
            return id != 0 ? DeleteFace(nodeid, nodetype, static_cast<int>(id))
                           : ClearFace(nodeid, nodetype);
        case L_CFG_INTV_FACE_ADD:
            return RegisterFaces(nodeid, nodetype, id);
        case L_CFG_UPDATE_CAMERA:
            return PushCameras(conn.db(), nodeid, nodetype);
        default:
            return PushConfiguration(conn.db(), nodeid, nodetype, configtype);
    }
}

bool GetConfigNode(int nodeid, int nodetype, int configtype) {
    Connection conn;
    if (!conn.ok()) {
        printf("getconfig but database link failed\n");
        return false;
    }
    const int devType = GetDevTypeFromNode(nodeid, nodetype);
    if (devType == DEVTYPE_UNKNOWN) return false;
    if (configtype != L_CFG_ALL)
        return GetConfigServerEx(conn.db(), nodeid, nodetype, configtype) == 1;
    static const std::vector<int> kIntvTypes = {L_CFG_INTV_PARAM, L_CFG_INTV_RULE,
                                                L_CFG_INTV_PLAN,  L_CFG_INTV_MODEL,
                                                L_CFG_INTV_SCENE, L_CFG_INTV_PARAM_EX};
    static const std::vector<int> kRecordTypes = {L_CFG_RECORD_PARAM, L_CFG_RECORD_PLAN,
                                                  L_CFG_RECORD_PLAN_THRES};
    static const std::vector<int> kNone;
    const std::vector<int>& types = devType == DEVTYPE_INTV     ? kIntvTypes
                                    : devType == DEVTYPE_RECORD ? kRecordTypes
                                                                : kNone;
    for (int type : types)
        if (GetConfigServerEx(conn.db(), nodeid, nodetype, type) != 1) return false;
    return true;
}

bool GetAbilityNode(int nodeid, int nodetype) {
    Connection conn;
    if (!conn.ok()) return false;
    for (const auto& ability : kAbilities) {
        std::unique_ptr<char[]> doc;
        if (GetIntvHelp(nodeid, nodetype, ability.helpType, doc) != 1) return false;
        ability.store(conn.db(), nodeid, nodetype, doc.get());
    }
    return true;
}

bool SearchNodeCameras(int nodeid, int nodetype, int serverType) {
    const bool intv = serverType == SERVER_INTV;
    OwnedList<_cammera_info> cameras;
    const int found = intv ? SearchCamaerFromIntvDev(nodeid, nodetype, cameras.v)
                           : SearchCamaerFromDev(nodeid, nodetype, cameras.v);
    if (found != 1) return false;
    Connection conn;
    if (!conn.ok()) return false;
    DeleteCameras(conn.db(), nodeid);
    const int stored = intv ? InsertIntvCameras(conn.db(), nodeid, cameras.v)
                            : InsertCameras(conn.db(), nodeid, cameras.v);
    return stored == 1;
}
