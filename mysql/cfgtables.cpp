// Camera and analytics configuration tables.
#include "mysql/cfgtables.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "mysql/sqldbop.h"

namespace {

// A missing or NULL column reads as "" and 0.
class Row {
public:
    explicit Row(CMysqlRecordSet& rs) : m_rs(rs) {}
    const std::string& Text(const char* column) {
        m_value.clear();
        m_rs.GetFieldValue(column, m_value);
        return m_value;
    }
    template <size_t N>
    void Text(const char* column, char (&dst)[N]) {
        const std::string& v = Text(column);
        size_t n = v.size() < N - 1 ? v.size() : N - 1;
        std::memcpy(dst, v.data(), n);
        dst[n] = '\0';
    }
    int Int(const char* column) { return std::atoi(Text(column).c_str()); }

private:
    CMysqlRecordSet& m_rs;
    std::string m_value;
};

// Opens `sql` and appends one zeroed record per row, filled by `fill`. 0 when the query
// could not be run.
template <class T, class Fill>
int LoadRows(CMysqlDB* db, const char* sql, std::vector<T*>& out, Fill fill) {
    if (!db || !sql) return 0;
    CMysqlRecordSet rs;
    if (!rs.Open(db, sql)) return 0;
    Row row(rs);
    while (rs.MoveNext()) {
        auto record = std::make_unique<T>();
        fill(row, *record);
        out.push_back(record.release());
    }
    rs.Close();
    return 1;
}

// Quoted-literal form of a record field, which may fill its whole array.
template <size_t N>
std::string Escaped(CMysqlDB* db, const char (&field)[N]) {
    std::string value(field, strnlen(field, N));
    std::string out(2 * value.size() + 1, '\0');
    EscapeSql(db, value.c_str(), &out[0], out.size());
    out.resize(std::strlen(out.c_str()));
    return out;
}

int InsertCamera(CMysqlDB* db, int devid, int chan, const _cammera_info& c) {
    std::string sql =
        "insert into devicechan(devid,chan,name,sn,scode,ip,port,usr,pwd,ftype,stream,path,mode) "
        "values(" +
        std::to_string(devid) + "," + std::to_string(chan) + ",'" + Escaped(db, c.szName) + "','" +
        Escaped(db, c.szSerial) + "','" + Escaped(db, c.szChan) + "','" + Escaped(db, c.szIP) +
        "'," + std::to_string(c.nPort) + ",'" + Escaped(db, c.szUser) + "','" +
        Escaped(db, c.szPass) + "'," + std::to_string(c.nType) + "," + std::to_string(c.nStream) +
        ",'" + Escaped(db, c.szPath) + "'," + std::to_string(c.nMode) + ")";
    return db->Execute(sql.c_str()) ? 1 : 0;
}

using ChannelOf = int (*)(const _cammera_info& camera, size_t position);

int InsertAll(CMysqlDB* db, int devid, const std::vector<_cammera_info*>& cameras,
              ChannelOf channelOf) {
    if (!db) return 0;
    for (size_t i = 0; i < cameras.size(); ++i) {
        if (!cameras[i]) continue;
        if (!InsertCamera(db, devid, channelOf(*cameras[i], i), *cameras[i])) return 0;
    }
    return 1;
}

// One record per devicecfg row: `parse` reads the row's configuration text into it.
template <class T>
int LoadConfig(CMysqlDB* db, const char* sql, std::vector<T*>& out,
               int (*parse)(const char* text, T* record)) {
    return LoadRows(db, sql, out, [parse](Row& row, T& record) {
        record.nNodeID = row.Int("nodeid");
        record.nNodeType = row.Int("nodetype");
        parse(row.Text("configure").c_str(), &record);
    });
}

int ParseCachedRule(const char* text, _ruleinfo* info) {
    return ParasRuleFromXML(text, &info->rule);
}
int ParseCachedParam(const char* text, _paraminfo* info) {
    return ParasIntvParamFromXML(text, &info->param);
}

// Columns of a server's cameras: the source's when a source channel and its device exist.
constexpr char kServerCameraSql[] =
    "select s.id, s.sindex, s.name, s.stream, s.mode, s.path, "
    "if(d.id is null, s.ip, d.ip) as cip, if(d.id is null, s.port, d.port) as cport, "
    "if(d.id is null, s.username, d.username) as cuser, "
    "if(d.id is null, s.userpwd, d.userpwd) as cpass, "
    "if(d.id is null, s.ftype, d.ftype) as ctype, if(d.id is null, s.chan, c.chan) as cchan, "
    "if(d.id is null, s.scode, c.scode) as ccode, if(d.id is null, s.parentsn, d.sn) as cparent "
    "from serverchan s left join devicechan c on c.id = s.devid "
    "left join device d on d.id = c.devid where s.serverid = %d order by s.id";

}  // namespace

int GetConfigChan_FromDB(CMysqlDB* db, int nodeid, int nodetype,
                         std::vector<_config_chan_info*>& out) {
    if (!db) return 0;
    if (nodetype == DEVCHAN_NODE || nodetype == SERVERCHAN_NODE) {
        out.push_back(new _config_chan_info{nodeid, nodetype});
        return 1;
    }
    if (nodetype != SERVER_NODE && nodetype != DEVICE_NODE) return 0;
    const char* table = nodetype == SERVER_NODE ? "serverchan" : "devicechan";
    const char* owner = nodetype == SERVER_NODE ? "serverid" : "devid";
    const int chanType = nodetype == SERVER_NODE ? SERVERCHAN_NODE : DEVCHAN_NODE;
    char sql[128];
    std::snprintf(sql, sizeof sql, "select id from %s where %s = %d order by id", table, owner,
                  nodeid);
    return LoadRows(db, sql, out, [chanType](Row& row, _config_chan_info& c) {
        c.nNodeID = std::atoll(row.Text("id").c_str());
        c.nNodeType = chanType;
    });
}

int GetServerCamera_FromDB(CMysqlDB* db, int serverid, std::vector<_cammera_info*>& out) {
    char sql[sizeof kServerCameraSql + 16];
    std::snprintf(sql, sizeof sql, kServerCameraSql, serverid);
    return LoadRows(db, sql, out, [](Row& row, _cammera_info& c) {
        c.nStoreIndex = row.Int("id");
        if (row.Int("sindex") != 0) row.Text("sindex", c.szSerial);
        row.Text("name", c.szName);
        c.nStream = row.Int("stream");
        c.nMode = row.Int("mode");
        row.Text("path", c.szPath);
        row.Text("cip", c.szIP);
        c.nPort = row.Int("cport");
        row.Text("cuser", c.szUser);
        row.Text("cpass", c.szPass);
        c.nType = row.Int("ctype");
        c.nChan = row.Int("cchan");
        row.Text("ccode", c.szChan);
        row.Text("cparent", c.szParent);
    });
}

int DeleteCameras(CMysqlDB* db, int devid) {
    if (!db) return 0;
    char sql[96];
    std::snprintf(sql, sizeof sql, "delete devicechan from devicechan where devid = %d", devid);
    return db->Execute(sql) ? 1 : 0;
}

int InsertCameras(CMysqlDB* db, int devid, const std::vector<_cammera_info*>& cameras) {
    return InsertAll(db, devid, cameras, [](const _cammera_info& c, size_t) { return c.nChan; });
}

int InsertIntvCameras(CMysqlDB* db, int devid, const std::vector<_cammera_info*>& cameras) {
    return InsertAll(db, devid, cameras, [](const _cammera_info& c, size_t position) {
        return c.nStoreIndex != 0 ? c.nStoreIndex : static_cast<int>(position) + 1;
    });
}

int GetRuleConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_ruleinfo*>& out) {
    return LoadConfig(db, sql, out, ParseCachedRule);
}

int GetParamConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_paraminfo*>& out) {
    return LoadConfig(db, sql, out, ParseCachedParam);
}

int GetModelConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_modelparaminfo*>& out) {
    return LoadConfig(db, sql, out, ParasModelParamFromXML);
}

int GetScenceConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_ruleinfo*>& out) {
    return LoadConfig(db, sql, out, ParasSceneFromXML);
}

int GetPlanConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_planinfo*>& out) {
    return LoadConfig(db, sql, out, ParasIntvPlanFromXML);
}

int GetParamExConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_paraminfoex*>& out) {
    return LoadConfig(db, sql, out, ParasIntvParamExFromXML);
}

int GetRecordParamConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_record_config*>& out) {
    return LoadConfig(db, sql, out, ParasRecordParamFromXML);
}

int GetRecordTempleConfigFromDB(CMysqlDB* db, const char* sql, std::vector<_temple_config*>& out) {
    return LoadConfig(db, sql, out, ParasTempleConfigFromXML);
}

int GetStiff_FromDB(CMysqlDB* db, const char* sql, std::vector<_face_register*>& out) {
    return LoadRows(db, sql, out, [](Row& row, _face_register& f) {
        f.id = row.Int("id");
        f.faceid = row.Int("faceid");
        row.Text("name", f.name);
    });
}
