// Builds the global catalogue in a test: each call appends one record under the write
// lock and returns it for further tweaks; the constructor and destructor release every
// catalogue vector and the RTSP templates, so tests never see each other's records.
#pragma once

#include <cstdio>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/catalog.h"

namespace cmstest {

class CatalogBuilder {
public:
    CatalogBuilder() { Clear(); }
    ~CatalogBuilder() { Clear(); }
    CatalogBuilder(const CatalogBuilder&) = delete;
    CatalogBuilder& operator=(const CatalogBuilder&) = delete;

    _msg_region_base* Region(int id, int parent, const char* serial, const char* name = "") {
        auto* r = new _msg_region_base();
        r->nID = id;
        r->nParentID = parent;
        Put(r->szSerial, serial, r->szName, name);
        return Publish(m_arrRegionInfos, r);
    }
    // User "u", password "p", hardware type 1 (a camera).
    _hcrecord_Info* Device(int id, int region, const char* serial, const char* ip, int port,
                           int ftype = 0, const char* code = "") {
        auto* d = new _hcrecord_Info();
        d->dev.nID = id;
        d->dev.nRegionID = region;
        d->dev.nHardType = 1;
        d->dev.nServerType = static_cast<uint8_t>(ftype);
        d->dev.nPort = port;
        Put(d->dev.szSerial, serial, d->dev.szIP, ip, d->dev.szCode, code);
        Put(d->dev.szUser, "u", d->dev.szPass, "p");
        d->lLoginID = -1;
        return Publish(m_arrRecordInfos, d);
    }
    _msg_video_record_base* Channel(int id, int device, int chan, const char* serial = "",
                                    const char* code = "") {
        auto* c = new _msg_video_record_base();
        c->nID = id;
        c->nDeviceID = device;
        c->nChan = chan;
        c->nType = 1;
        Put(c->szSerial, serial, c->szCode, code);
        std::snprintf(c->szName, sizeof(c->szName), "chan%d", id);
        return Publish(m_arrVideoChanInfos, c);
    }
    // User "su", password "sp".
    _sysserver_info* Server(int id, int region, int type, const char* serial, const char* ip,
                            int port) {
        auto* s = new _sysserver_info();
        s->svr.nID = id;
        s->svr.nRegionID = region;
        s->svr.nServerType = type;
        s->svr.nPort = port;
        Put(s->svr.szSerial, serial, s->svr.szIP, ip, s->svr.szUser, "su", s->svr.szPass, "sp");
        s->lLoginID = -1;
        return Publish(m_arrServerFromDB, s);
    }
    // User "du", password "dp".
    _domain_info* Domain(int id, const char* code, const char* ip, int videoPort, int type = 1) {
        auto* d = new _domain_info();
        d->svr.nID = id;
        d->svr.nPort2 = videoPort;
        d->svr.nType = type;
        Put(d->svr.szCode, code, d->svr.szIP, ip, d->svr.szUser, "du", d->svr.szPass, "dp");
        d->lLoginID = -1;
        return Publish(m_arrDomainFromDB, d);
    }
    _dev_register* Registration(int parentid, int nodeid, const char* serial) {
        auto* r = new _dev_register();
        r->parentid = parentid;
        r->nodeid = nodeid;
        Put(r->serial, serial);
        return Publish(m_arrMediaRegInfos, r);
    }

private:
    // Put(field, text, field, text, ...): each text cut to its field.
    template <size_t N, class... More>
    static void Put(char (&dst)[N], const char* src, More&&... more) {
        std::snprintf(dst, N, "%s", src);
        if constexpr (sizeof...(more) > 0) Put(more...);
    }
    // Appends a finished record under the write lock: other threads may be scanning.
    template <class T>
    static T* Publish(std::vector<T*>& v, T* record) {
        CatalogWriteLock lock(csCatalog);
        v.push_back(record);
        return record;
    }
    static void Clear() {
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrRegionInfos);
        ReleaseArray(m_arrRecordInfos);
        ReleaseArray(m_arrVideoChanInfos);
        ReleaseArray(m_arrServerFromDB);
        ReleaseArray(m_arrDomainFromDB);
        ReleaseArray(m_arrMediaRegInfos);
        ReleaseArray(m_arrRtspString);
    }
};

}  // namespace cmstest
