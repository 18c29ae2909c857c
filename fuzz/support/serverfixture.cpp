#include "serverfixture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "RUSKNetSDK.h"
#include "comm/globle.h"
#include "comm/settings.h"
#include "comm/sysutil.h"
#include "loopback.h"
#include "server/CmsSvrDlg.h"
#include "support/testdb.h"

namespace fuzz {
namespace {

// Every node address points at a closed loopback port.
const char kCatalog[] =
    "insert into region(id,name,parentid) values (1,'root',0),(2,'east',1);"
    "insert into domaininfo(id,name,sn,s_code,ip,port,pushmode,status) values "
    "(1,'lower','DOMSN','34020000002000000001','127.0.0.1',1,3,65536);"
    "insert into device(id,name,sn,scode,ftype,ip,port,username,userpwd,regionid,status) values "
    "(10,'gate','DEV10','',0,'127.0.0.1',1,'admin','pw',1,65537),"
    "(11,'nvr','34020000001320000009','34020000001320000009',0,'127.0.0.1',1,'a','b',2,0),"
    "(12,'intv','DEV12','',3,'127.0.0.1',1,'','',1,0);"
    "insert into devicechan(id,devid,chan,sn,scode) values (30,10,1,'CH30','CH30CODE'),"
    "(31,12,1,'CH31','CH31CODE');"
    "insert into serverinfo(id,name,svrtype,ip,port,cfgport,sn) values "
    "(20,'media',1,'127.0.0.1',1,1,'SVR20'),(21,'intv',3,'127.0.0.1',1,1,'SVR21')";

// File-store roots under the work directory.
std::string Params(const std::string& dir) {
    return "<paths><path><name>mcap</name><type>1</type><mode>0</mode><p>" + dir +
           "/store/mcap/</p></path><path><name>event</name><type>2</type><mode>0</mode><p>" + dir +
           "/store/event/</p></path></paths>\n";
}

std::string g_workDir;
cmstest::TestDatabase* g_db = nullptr;
CCMSSvrDlg* g_server = nullptr;

int NoReboot(int) { return 0; }

// The working directory stays: libFuzzer reads its corpus by relative paths.
void WorkDir() {
    char tmpl[] = "/dev/shm/cms_fuzz_server_XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    g_workDir = tmpl;
    std::filesystem::create_directories(g_workDir + "/config");
    std::filesystem::create_directories(g_workDir + "/store/mcap");
    std::filesystem::create_directories(g_workDir + "/store/event");
    FILE* f = std::fopen((g_workDir + "/config/cmsparam.xml").c_str(), "w");
    if (!f) std::abort();
    std::fputs(Params(g_workDir).c_str(), f);
    std::fclose(f);
    SetConfigDir((g_workDir + "/config").c_str());
}

// A user that sees only the fuzz database and whose statements stop after a second.
void LimitedUser() {
    const std::string user = "fz" + std::to_string(getpid());
    if (!g_db->Exec("CREATE USER '" + user + "'@'127.0.0.1' IDENTIFIED BY 'fz' WITH " +
                    "MAX_STATEMENT_TIME 1; GRANT ALL ON " + g_db->name() + ".* TO '" + user +
                    "'@'127.0.0.1'"))
        std::abort();
    std::snprintf(m_cfgCms.szDbUser, sizeof m_cfgCms.szDbUser, "%s", user.c_str());
    std::snprintf(m_cfgCms.szDbPass, sizeof m_cfgCms.szDbPass, "fz");
}

// The server object is left standing at exit (its threads may still run); only what lives
// outside the process is removed.
void CleanUp() {
    if (g_db)
        g_db->Exec("DROP USER IF EXISTS '" + std::string(m_cfgCms.szDbUser) + "'@'127.0.0.1'");
    delete g_db;  // drops the database
    g_db = nullptr;
    std::error_code ignored;
    if (!g_workDir.empty()) std::filesystem::remove_all(g_workDir, ignored);
}

CCMSSvrDlg* Build() {
    QuietStdout();
    setenv("CMS_NO_REBOOT", "1", 1);
    SetRebootFunc(NoReboot);
    RUSK_SetTimeouts(100, 300);
    WorkDir();
    g_db = new cmstest::TestDatabase(true, false);
    if (!g_db->ok() || !g_db->Exec(kCatalog)) std::abort();
    LimitedUser();
    std::atexit(CleanUp);
    g_server = new CCMSSvrDlg;
    m_cfgLocalParam.nPort = 0;  // no listeners: the targets call the handlers
    m_cfgLocalParam.nHttpPort = 0;
    if (!g_server->LoadData()) std::abort();
    return g_server;
}

}  // namespace

CCMSSvrDlg& Server() {
    static CCMSSvrDlg* server = Build();
    return *server;
}

void Settle(CCMSSvrDlg& server) { server.ClientWork().Drain(); }

}  // namespace fuzz

// The catalogue and pools live to the exit, where the globals holding them are destroyed
// in no useful order, so only the per-input leak checks of libFuzzer apply here.
extern "C" const char* __lsan_default_options() { return "leak_check_at_exit=0"; }
