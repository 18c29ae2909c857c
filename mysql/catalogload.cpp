// Catalogue loaders: one heap record per row of a SELECT, columns read by bare name.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "comm/sysutil.h"
#include "mysql/sqldbop.h"

namespace {

// Reads the columns of the current row. A missing or NULL column reads as "" and 0.
class RowReader {
public:
    explicit RowReader(CMysqlRecordSet& rs) : m_rs(rs) {}

    const char* Text(const char* column) {
        std::memset(m_buf, 0, sizeof(m_buf));
        m_rs.GetFieldValue(column, m_buf);
        return m_buf;
    }
    template <size_t N>
    void Text(const char* column, char (&dst)[N]) {
        const char* value = Text(column);
        size_t n = strnlen(value, N - 1);  // cut to the field, as the record demands
        std::memcpy(dst, value, n);
        dst[n] = '\0';
    }
    // Stored into the field's width by the caller, so narrow fields keep the low bits.
    int Int(const char* column) { return std::atoi(Text(column)); }
    unsigned int UInt(const char* column) { return static_cast<unsigned int>(Int(column)); }
    uint8_t Byte(const char* column) { return static_cast<uint8_t>(Int(column)); }
    bool Flag(const char* column) { return Int(column) != 0; }

private:
    CMysqlRecordSet& m_rs;
    char m_buf[200];
};

// The shape every loader shares: open, one zeroed record per row filled by `fill`, close.
template <class T, class Fill>
void LoadRows(CMysqlDB* db, const char* sql, std::vector<T*>& out, Fill fill) {
    if (!db || !sql) return;
    CMysqlRecordSet rs;
    if (!rs.Open(db, sql)) return;
    RowReader r(rs);
    while (rs.MoveNext()) {
        auto rec = std::make_unique<T>();  // value-initialised: every byte zero
        fill(r, *rec);
        out.push_back(rec.get());
        rec.release();
    }
    rs.Close();
}

void FillDomainBase(RowReader& r, domain_base& d, const char* httpPortColumn) {
    // szSerial takes the row id, not `sn`: the URL resolver matches on it.
    r.Text("id", d.szSerial);
    r.Text("ip", d.szIP);
    d.nPort = r.Int("port");
    d.nHttpPort = r.Int(httpPortColumn);
    d.nType = r.Int("type");
    r.Text("s_code", d.szCode);
    r.Text("p_code", d.szParentCode);
    r.Text("user", d.szUser);
    r.Text("pass", d.szPass);
    d.bAuth = r.Flag("isauth");
    d.nLinkMode = r.Int("linkmode");
    d.nPushMode = r.Int("pushmode");
}

}  // namespace

void GetRegion_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_region_base*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _msg_region_base& g) {
        g.nID = r.Int("id");
        g.nParentID = r.Int("parentid");
        r.Text("name", g.szName);
        r.Text("scode", g.szSerial);
        g.bVirtual = r.Int("usecode") == 0;  // a region that does not use its code is virtual
        g.nDomainID = r.Int("domainid");
        g.nType = r.Int("regtype");
    });
}

void GetVideoDev_FromDB(CMysqlDB* db, const char* sql, std::vector<_hcrecord_Info*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _hcrecord_Info& rec) {
        _msg_recorddevice_base& d = rec.dev;
        d.nID = r.Int("id");
        r.Text("name", d.szName);
        d.nServerType = r.Byte("ftype");
        r.Text("ip", d.szIP);
        d.nPort = r.Int("port");
        d.nHardType = r.Byte("hardwaretype");
        r.Text("username", d.szUser);
        r.Text("userpwd", d.szPass);
        r.Text("sn", d.szSerial);
        r.Text("scode", d.szCode);
        d.nLinkType = r.Byte("linktype");
        d.nRegionID = r.Int("regionid");
        d.nSetAlarm = r.Byte("setalarm");
        d.nMatixPos = static_cast<int16_t>(r.Int("matrixindex"));
        d.byResType = r.Byte("restype");
        d.nStatus = r.UInt("status");
        d.nDomainID = r.Int("domainid");
        rec.lLoginID = -1;
    });
}

void GetVideoChan_FromDB(CMysqlDB* db, const char* sql,
                         std::vector<_msg_video_record_base*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _msg_video_record_base& c) {
        r.Text("name", c.szName);
        c.nID = r.Int("id");
        c.nChan = r.Int("chan");
        c.nDeviceID = r.Int("devid");
        c.nMatrixPos = r.Int("matrixindex");
        c.nSetAlarm = r.Byte("setalarm");
        c.nLevel = r.Byte("eventlevel");
        c.nType = r.Int("hardwaretype");
        r.Text("pwd", c.szPass);
        c.nMode = r.Int("mode");
        c.nUpAlarm = r.Int("upalarm");
        c.nUpWarn = r.Int("upwarn");
        c.nDownAlarm = r.Int("downalarm");
        c.nDownWarn = r.Int("downwarn");
        c.unIndex = r.UInt("orderindex");
        r.Text("sn", c.szSerial);
        r.Text("usr", c.szUser);
        r.Text("ip", c.szIP);
        c.nPort = r.Int("port");
        c.nFtype = r.Int("ftype");
        c.nResType = r.Int("restype");
        c.nStatus = r.UInt("status");
        r.Text("scode", c.szCode);
        r.Text("scale", c.szScale);
    });
}

void GetSystemServer_FromDB(CMysqlDB* db, const char* sql, std::vector<_sysserver_info*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _sysserver_info& rec) {
        _msg_systemsrv_base& s = rec.svr;
        s.nID = r.Int("id");
        s.nRegionID = r.Int("regionid");
        r.Text("name", s.szName);
        r.Text("ip", s.szIP);
        s.nPort = r.Int("port");
        s.nHPort = r.Int("cfgport");
        r.Text("sn", s.szSerial);
        s.nFactoryType = r.Int("ftype");
        r.Text("username", s.szUser);
        r.Text("userpwd", s.szPass);
        s.nServerType = r.Int("svrtype");
        rec.lLoginID = -1;
    });
}

void GetDomain_FromDB(CMysqlDB* db, const char* sql, std::vector<_domain_info*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _domain_info& rec) {
        _msg_domain_base& d = rec.svr;
        d.nID = r.Int("id");
        r.Text("ip", d.szIP);
        d.nPort = r.Int("port");
        d.nHttpPort = r.Int("port2");
        d.nPort2 = r.Int("videoport");
        r.Text("s_code", d.szCode);
        r.Text("p_code", d.szParentCode);
        d.nType = r.Int("type");
        d.nLinkMode = r.Int("linkmode");
        d.nPushMode = r.Int("pushmode");
        d.nParentID = r.Int("parentid");
        d.nRegionID = r.Int("regionid");
        r.Text("user", d.szUser);
        r.Text("pass", d.szPass);
        d.bAuth = r.Flag("isauth");
        r.Text("sn", d.szSerial);
        d.nState = r.Int("status");
        rec.lLoginID = -1;
    });
}

void GetRegist_FromDB(CMysqlDB* db, const char* sql, std::vector<_dev_register*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _dev_register& g) {
        g.id = r.Int("id");
        g.nodeid = r.Int("nodeid");
        g.type = r.Int("nodetype");
        g.parentid = r.Int("parentid");
        r.Text("sn", g.serial);
    });
}

void GetSystemServerChan_FromDB(CMysqlDB* db, const char* sql,
                                std::vector<_msg_serverchan_base*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _msg_serverchan_base& c) {
        c.nDevID = r.Int("serverid");
        c.nChan = r.Int("chan");
        c.nChanType = r.Int("port2");  // this pairing is deliberate
        r.Text("sn", c.szCode);
    });
}

void GetServerChan_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_serverchan_v2*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _msg_serverchan_v2& c) {
        c.nID = r.Int("id");
        c.nIndex = r.Int("sindex");
        c.nServerID = r.Int("serverid");
        c.unStatus = r.UInt("status");
    });
}

void GetDevGroup_FromDB(CMysqlDB* db, const char* sql, std::vector<_msg_devgroup_base*>& out) {
    LoadRows(db, sql, out, [](RowReader& r, _msg_devgroup_base& g) {
        g.nID = r.Int("id");
        g.nParentID = r.Int("parentId");
        g.nRegionID = r.Int("regionid");
        r.Text("name", g.szName);
        r.Text("scode", g.szCode);
    });
}

void GetDevGroupChan_FromDB(CMysqlDB* db, const char* sql,
                            std::vector<_msg_changroup_base*>& out) {
    // In the joined statement the bare names resolve to the membership columns, which
    // come first in "select *".
    LoadRows(db, sql, out, [](RowReader& r, _msg_changroup_base& m) {
        m.nGroupID = r.Int("groupid");
        m.nDevID = r.Int("deviceid");
        m.nChanID = r.Int("DeviceChanId");
    });
}

bool GetServerChan_FromDB(int id, _msg_serverchan_base* out) {
    if (!out) return false;
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    char sql[100];
    std::snprintf(sql, sizeof(sql), "select * from serverchan where id = %d", id);
    std::vector<_msg_serverchan_base*> rows;
    GetSystemServerChan_FromDB(&db, sql, rows);
    CloseDB(&db);
    bool found = !rows.empty();
    if (found) *out = *rows.front();
    ReleaseArray(rows);
    return found;
}

namespace {

// The domain of `serial` (first row only) appended to `list`; its id, 0 when none.
int AppendDomainBySerial(CMysqlDB& db, const char* serial, std::vector<domain_base*>& list) {
    std::vector<char> escaped(2 * std::strlen(serial) + 1);
    EscapeSql(&db, serial, escaped.data(), escaped.size());
    std::string sql = "select * from domaininfo where sn = '";
    sql += escaped.data();
    sql += "'";
    CMysqlRecordSet rs;
    if (!rs.Open(&db, sql.c_str())) return 0;
    int id = 0;
    if (rs.MoveNext()) {
        RowReader r(rs);
        id = r.Int("id");
        auto d = std::make_unique<domain_base>();
        FillDomainBase(r, *d, "port2");
        list.push_back(d.get());
        d.release();
    }
    rs.Close();
    return id;
}

// The children of domain `id`; they inherit the found domain's parent code on purpose.
bool AppendChildDomains(CMysqlDB& db, int id, const char* parentCode,
                        std::vector<domain_base*>& list) {
    char sql[100];
    std::snprintf(sql, sizeof(sql), "select * from domaininfo  where parentid = %d", id);
    CMysqlRecordSet rs;
    if (!rs.Open(&db, sql)) return false;
    RowReader r(rs);
    while (rs.MoveNext()) {
        auto d = std::make_unique<domain_base>();
        FillDomainBase(r, *d, "httpport");
        std::snprintf(d->szParentCode, sizeof(d->szParentCode), "%s", parentCode);
        list.push_back(d.get());
        d.release();
    }
    rs.Close();
    return true;
}

}  // namespace

int GetDomainSeverFromDB(const char* serial, std::vector<domain_base*>& list) {
    if (!serial) return 0;
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    size_t before = list.size();
    int id = AppendDomainBySerial(db, serial, list);
    if (id == 0) {
        CloseDB(&db);
        return 0;
    }
    char parentCode[sizeof(domain_base::szParentCode)];
    std::snprintf(parentCode, sizeof(parentCode), "%s", list[before]->szParentCode);
    bool ok = AppendChildDomains(db, id, parentCode, list);
    CloseDB(&db);
    return ok ? 1 : 0;
}
