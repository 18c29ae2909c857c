// Settings records and their readers. The files under ./config/ are read by plain tag
// search, not by an XML parser: element order matters, attributes and comments do not.
#pragma once

#include <string>
#include <vector>

struct _LoaclParam {
    int nPort;      // message-server port; <= 0: do not start
    int nHttpPort;  // HTTP port; <= 0: do not start
    int nLanguge;
    bool bLinkCms;
    char szCmsIP[100];
    int nCmsPort;
    char szSerial[50];
    char szDirect[100];
    bool bLocalMedia;
    char szMediaIP[100];
    int nMediaPort;
    char szRouteIP[100];
};

struct _cmsParam {
    char szDbAddr[100];
    char szDbName[100];
    char szDbUser[30];
    char szDbPass[30];
    int szDbPort;    // an integer despite its prefix
    int nLocalMode;  // non-zero: start the analytics event links
    int nDbPool;     // idle database connections kept for reuse; <= 0: the default (16)
    int nSpoolMB;    // size limit of the event spool in MiB; <= 0: the default (1024)
};

// Who may use the listeners and what they may spend (<guard> of cmsparam.xml). The
// defaults serve everyone, as the protocol expects.
struct _guardParam {
    std::string msgAllow;      // networks allowed on the message port; empty: everyone
    std::string httpAllow;     // the same for the HTTP port
    std::string token;         // HTTP commands need token=<this>; empty: no token
    bool bRawSql = true;       // raw SQL operations of the message protocol
    bool bPower = true;        // reboot and power-off of this host over HTTP
    int nReplyBudgetMB = 256;  // replies queued for all clients together
    int nMaxClients = 10000;   // open connections of both ports together
    int nStallMs = 30000;      // a frame or request, once begun, must be whole within this
};

struct _file_path {
    char name[255];
    int mode;
    int type;
    char path[255];
};

struct _RtspHelpString {
    char name[255];
    bool bCheckPass;
    int link;
    int type;
    int mode;
    char main[255];
    char second[255];
    char replay[255];  // playback by time through the device library; empty when none
};

// Directory the readers look in; "./config" unless a test points it elsewhere.
void SetConfigDir(const char* dir);
const char* GetConfigDir();

int readconfig(_LoaclParam* param);       // ./config/cmslocal.xml; 1 or 0
int readcmsconfig(_cmsParam* param);      // ./config/cmsparam.xml; 1 or 0
int readguardconfig(_guardParam* param);  // <guard> of ./config/cmsparam.xml; 1 or 0
// The settings read at start-up (the defaults until then); read-only afterwards.
_guardParam& GuardParam();
int readfilepath(std::vector<_file_path*>& paths);  // file-store roots; always 1
int readdevconfig();                                // ./config/dev.xml into m_arrRtspString; 1 or 0
