#include "nodes/subreg.h"

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
#include "comm/globle.h"
#include "comm/mystring.h"
#include "mysql/eventwriter.h"
#include "mysql/sqldbop.h"

namespace {

// Command code of a remote-configuration request on the device library's channel.
constexpr int kTransCommandConfig = 99;
constexpr size_t kElementSize = 200;

enum class Cut { kFound, kRefused, kMissing };

// Both tags are searched from the start of `text`, independently, as every list reader of
// this system does; an end tag before the start tag is refused rather than copied.
Cut CutElement(const char* text, const char* open, const char* close, char* out, size_t outSize) {
    const char* o = std::strstr(text, open);
    const char* c = std::strstr(text, close);
    if (!o || !c) return Cut::kMissing;
    const char* value = o + std::strlen(open);
    if (c < value) return Cut::kRefused;
    size_t n = static_cast<size_t>(c - value);
    if (n > outSize - 1) n = outSize - 1;
    std::memcpy(out, value, n);
    return Cut::kFound;
}

// "serial:ip", or the whole text as the serial when there is no ':'.
_dev_register* MediaRecordFromElement(const char* element) {
    auto* reg = new _dev_register{};
    const char* colon = std::strchr(element, ':');
    if (!colon) {
        btext::CopyN(reg->serial, sizeof(reg->serial), element, std::strlen(element));
        return reg;
    }
    btext::CopyN(reg->serial, sizeof(reg->serial), element, static_cast<size_t>(colon - element));
    btext::CopyN(reg->ip, sizeof(reg->ip), colon + 1, std::strlen(colon + 1));
    return reg;
}

// Fields of a domain element come from the reply at the read position, not from the cut
// element: that is how lower domains have always been read.
_dev_register* DomainRecordAt(const char* text) {
    auto* reg = new _dev_register{};
    _get_valuefromstring(text, "<code>", "</code>", reg->serial);
    char status[32] = {};
    _get_valuefromstring(text, "<status>", "</status>", status);
    reg->state = std::atoi(status);
    return reg;
}

// Sends one list request and keeps the reply zero-terminated. 0 when it failed.
int FetchList(const char* baseUrl, const char* command, std::unique_ptr<char[]>& reply) {
    if (!baseUrl) return 0;
    reply.reset(new (std::nothrow) char[SUBREG_REPLY_SIZE]());
    if (!reply) return 0;
    std::string url = std::string(baseUrl) + "/xconfig?cmd=" + command;
    int length = SUBREG_REPLY_SIZE - 1;  // the last byte stays the terminator
    return RUSK_TRANSCOMMAND(url.c_str(), kTransCommandConfig, nullptr, 0, reply.get(), &length);
}

// Appends `make(element, at)` for every complete element, `at` being the read position.
// The position advances by `step` bytes only, not past the element: that is how these
// lists have always been read, so an element further ahead is read again.
template <class Make>
int ParseElements(const char* reply, const char* open, const char* close, size_t step,
                  std::vector<_dev_register*>& list, Make make) {
    if (!reply) return 0;
    const size_t length = std::strlen(reply);
    int count = 0;
    for (size_t pos = 0; pos < length; pos += step) {
        char element[kElementSize] = {};
        Cut cut = CutElement(reply + pos, open, close, element, sizeof(element));
        if (cut == Cut::kMissing) break;
        if (cut == Cut::kRefused) continue;
        list.push_back(make(element, reply + pos));
        ++count;
    }
    return count;
}

using ListParser = int (*)(const char* reply, std::vector<_dev_register*>& list);

// 1 once a record was appended, else the request's own result.
int FetchRegistrations(const char* baseUrl, const char* command, ListParser parse,
                       std::vector<_dev_register*>& list) {
    std::unique_ptr<char[]> reply;
    int result = FetchList(baseUrl, command, reply);
    if (!result) return result;
    return parse(reply.get(), list) > 0 ? 1 : result;
}

template <class F>
int WithConnection(F work) {
    CMysqlDB db;
    if (!ConnectDB(&db)) return 0;
    int result = work(db);
    CloseDB(&db);
    return result;
}

// Registered node named by a registration's serial.
struct SubNode {
    bool found = false;
    int id = 0;
    int type = 0;
};

struct StatusChange {
    bool changed = false;
    bool deviceRow = false;  // the status row to write is the device's
    int deviceId = 0;
    unsigned int status = 0;
};

// A registration that is not the plain off-line code, reported for a node whose status has
// bit 0 set, moves the reported state into the upper half of the status word.
bool TakesReportedState(int state, unsigned int status) {
    return state != static_cast<int>(NODE_OFFLINE_FLAG) && (status & 1u);
}

unsigned int ShiftedState(int state) { return static_cast<unsigned int>(state) << 16; }

SubNode IdentifyNode(_sysserver_info* server, const _dev_register* reg, StatusChange& change) {
    CatalogWriteLock lock(csCatalog);
    if (_hcrecord_Info* dev = GetDeviceInfoBySerial(m_arrRecordInfos, reg->serial)) {
        if (TakesReportedState(reg->state, dev->dev.nStatus)) {
            dev->dev.nStatus |= ShiftedState(reg->state);
            change = {true, true, dev->dev.nID, dev->dev.nStatus};
        }
        return {true, dev->dev.nID, DEVICE_NODE};
    }
    _sysserver_info* svr = GetSystemSvrBySerial(reg->serial, m_arrServerFromDB);
    if (!svr) return {};
    // The reporting server takes the state here, not the registered one.
    unsigned int reporting = static_cast<unsigned int>(server->svr.nState);
    if (TakesReportedState(reg->state, reporting)) {
        server->svr.nState = static_cast<int>(reporting | ShiftedState(reg->state));
        if (_sysserver_info* live = GetSystemSvrByID(server->svr.nID, m_arrServerFromDB))
            live->svr.nState |= static_cast<int>(ShiftedState(reg->state));
        change.changed = true;
    }
    return {true, svr->svr.nID, SERVER_NODE};
}

void WriteStatusChange(const SubNode& node, const _dev_register* reg, const StatusChange& c) {
    if (!c.changed) return;
    // The status row has always been written with node type 1. On the server path there is
    // no device record to write, so only the run-log line is kept there.
    if (c.deviceRow) UpdateNodeStatus(c.deviceId, SERVER_NODE, c.status);
    if (reg->state == 1)
        WrightMySqlRunInfo(0, node.id, node.type, 1, 0, "设备离线");
    else
        WrightMySqlRunInfo(0, node.id, node.type, 2, 0, "设备上线");
}

// The registration is gone: drop it from memory and from the table.
int ForgetRegistration(const char* serial) {
    int id = 0;
    {
        CatalogWriteLock lock(csCatalog);
        _dev_register* known = GetMediaRegistInfoBySerial(m_arrMediaRegInfos, serial);
        if (!known) return 1;
        id = known->id;
        for (size_t i = m_arrMediaRegInfos.size(); i-- > 0;) {
            if (m_arrMediaRegInfos[i] != known) continue;
            delete known;
            m_arrMediaRegInfos.erase(m_arrMediaRegInfos.begin() + static_cast<long>(i));
            break;
        }
    }
    WithConnection([id](CMysqlDB& db) { return DeleteRegister(&db, id); });
    return 1;
}

int KeepRegistration(const _sysserver_info* server, _dev_register* reg, const SubNode& node) {
    const int parent = server->svr.nID;
    int knownId = 0;
    bool known = false;
    {
        CatalogWriteLock lock(csCatalog);
        if (_dev_register* k = GetMediaRegistInfoBySerial(m_arrMediaRegInfos, reg->serial)) {
            if (k->parentid == parent) return 1;
            k->parentid = parent;
            knownId = k->id;
            known = true;
        }
    }
    if (known) {
        WithConnection([&](CMysqlDB& db) { return UpdateRegister(&db, knownId, parent); });
        return 1;
    }
    if (!node.found) return 0;
    reg->nodeid = node.id;
    reg->type = node.type;
    reg->parentid = parent;
    WithConnection([reg](CMysqlDB& db) { return AddRegister(&db, reg); });
    CatalogWriteLock lock(csCatalog);
    m_arrMediaRegInfos.push_back(new _dev_register(*reg));
    return 1;
}

}  // namespace

int ParasMediaRegistor(const char* reply, std::vector<_dev_register*>& list) {
    return ParseElements(reply, "<dev>", "</dev>", 6, list, [](const char* element, const char*) {
        return MediaRecordFromElement(element);
    });
}

int ParasDomainRegistor(const char* reply, std::vector<_dev_register*>& list) {
    return ParseElements(reply, "<domain>", "</domain>", 9, list,
                         [](const char*, const char* at) { return DomainRecordAt(at); });
}

int GetMediaRegistor(const char* baseUrl, std::vector<_dev_register*>& list) {
    return FetchRegistrations(baseUrl, "getregister", ParasMediaRegistor, list);
}

int GetDomainRegistor(const char* baseUrl, std::vector<_dev_register*>& list) {
    return FetchRegistrations(baseUrl, "getdomain", ParasDomainRegistor, list);
}

int ProcessSubDev(_sysserver_info* server, _dev_register* reg) {
    if (!server || !reg) return 0;
    reg->serial[sizeof(reg->serial) - 1] = '\0';
    StatusChange change;
    SubNode node = IdentifyNode(server, reg, change);
    WriteStatusChange(node, reg, change);
    if (reg->state == 1) return ForgetRegistration(reg->serial);
    if (reg->state != 0) return 1;
    return KeepRegistration(server, reg, node);
}

int ProcessSubDomian(_dev_register* reg) {
    if (!reg) return 0;
    reg->serial[sizeof(reg->serial) - 1] = '\0';
    CatalogReadLock lock(csCatalog);
    GetDomainInfoBySerial(m_arrDomainFromDB, reg->serial);
    return 1;
}

int AddRegister(CMysqlDB* db, const _dev_register* reg) {
    if (!db || !reg) return 0;
    char serial[2 * sizeof(reg->serial) + 1] = {};
    EscapeSql(db, reg->serial, serial, sizeof(serial));
    char sql[256];
    std::snprintf(sql, sizeof(sql),
                  "insert into  mediaregistor(nodeid,nodetype,sn,parentid) values (%d,%d,'%s',%d)",
                  reg->nodeid, reg->type, serial, reg->parentid);
    return db->Execute(sql) ? 1 : 0;
}

int DeleteRegister(CMysqlDB* db, int id) {
    if (!db) return 0;
    char sql[128];
    std::snprintf(sql, sizeof(sql), "delete mediaregistor from mediaregistor where id = %d", id);
    return db->Execute(sql) ? 1 : 0;
}

int UpdateRegister(CMysqlDB* db, int id, int parent) {
    if (!db) return 0;
    char sql[128];
    // "parnetid" is the column's name in deployed tables.
    std::snprintf(sql, sizeof(sql), "update mediaregistor set parnetid = %d where id = %d", parent,
                  id);
    return db->Execute(sql) ? 1 : 0;
}

int ParasRegistFromXML(const char* text, _dev_register* registration) {
    if (!text || !registration) return 0;
    docxml::ReadText(text, "dev", registration->serial);
    docxml::ReadInt(text, "st", registration->state);
    return 1;
}
