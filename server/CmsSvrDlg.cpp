#include "server/CmsSvrDlg.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <unordered_set>
#include <vector>

#include "RUSKNetSDK.h"
#include "RtspClientSDK.h"
#include "VornCodec.h"
#include "VornNetSDK.h"
#include "comm/globle.h"
#include "comm/settings.h"
#include "comm/sysutil.h"
#include "media/devoperate.h"
#include "media/devpool.h"
#include "mysql/eventwriter.h"
#include "mysql/sqldbop.h"

CCMSSvrDlg* pMainDlg = nullptr;
volatile std::sig_atomic_t bKillProg = 0;
std::atomic<int> m_nRemoteOperate{0};

namespace {

constexpr int kPoolSlots = 64;  // device logins and play sessions each

// Every client holds a descriptor; the soft limit (often 1024) would refuse clients long
// before the settings' connection limit, so take all the system allows.
void RaiseDescriptorLimit() {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= rl.rlim_max) return;
    rl.rlim_cur = rl.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) perror("raise descriptor limit");
}

// Hands the access settings and limits to the listener library before any port opens.
void ApplyGuard(const _LoaclParam& local, const _guardParam& guard) {
    if (local.nPort > 0) VornNetSDK_SetAllowList(local.nPort, guard.msgAllow.c_str());
    if (local.nHttpPort > 0) VornNetSDK_SetAllowList(local.nHttpPort, guard.httpAllow.c_str());
    VornNetSDK_SetMaxClients(guard.nMaxClients);
    VornNetSDK_SetFrameTimeout(guard.nStallMs);
    VornNetSDK_SetReplyBudget(static_cast<long long>(guard.nReplyBudgetMB) << 20);
}

// The network library calls back with a plain user pointer.
void MessageTrampoline(int clientId, unsigned char* data, int length, void* user) {
    CCMSSvrDlg::MessageCallBack(clientId, data, length, static_cast<CCMSSvrDlg*>(user));
}
void HttpTrampoline(int clientId, unsigned char* data, int length, void* user) {
    CCMSSvrDlg::HttpCallBack(clientId, data, length, static_cast<CCMSSvrDlg*>(user));
}

// The catalogue read from the database before it is published.
struct LoadedCatalog {
    std::vector<_msg_region_base*> regions;
    std::vector<_hcrecord_Info*> devices;
    std::vector<_msg_video_record_base*> chans;
    std::vector<_sysserver_info*> servers;
    std::vector<_domain_info*> domains;
    std::vector<_dev_register*> regs;
};

// Root first, then its descendants depth first; rows not under the root are dropped.
void LoadRegions(CMysqlDB& db, std::vector<_msg_region_base*>& out) {
    std::vector<_msg_region_base*> all;
    GetRegion_FromDB(&db, "select * from region", all);
    if (_msg_region_base* root = GetRootRegion(all)) {
        out.push_back(root);
        GetRegions(root, all, out);
    }
    const std::unordered_set<const _msg_region_base*> kept(out.begin(), out.end());
    for (_msg_region_base* r : all)
        if (!kept.count(r)) delete r;
}

// dev.xml is optional. Its templates serve the server's own RTSP plays and, handed to the
// device library, its driver's streams; the first entry of a type wins, as in GetRtspHelp.
void RegisterDeviceTemplates() {
    if (m_arrRtspString.empty()) readdevconfig();
    std::set<int> seen;
    for (const _RtspHelpString* t : m_arrRtspString)
        if (seen.insert(t->type).second)
            RUSK_DVR_SetStreamTemplate(t->type, t->main, t->second, t->replay);
}

// Every consumer is taken out and its stream closed, so no callback outlives the pools.
void StopMediaJobs() {
    std::vector<_USER_CMD_INFO*> jobs;
    {
        std::lock_guard<std::mutex> lock(csRecorder);
        jobs.swap(m_arrUserInfos);
        for (_USER_CMD_INFO* job : jobs) {
            MP4RecordClose(job->precorder);
            job->precorder = nullptr;
        }
    }
    for (_USER_CMD_INFO* job : jobs) VornMediaStop(job);
    ReleaseArray(jobs);
}

template <class T>
void AppendAll(std::vector<T*>& to, std::vector<T*>& from) {
    to.insert(to.end(), from.begin(), from.end());
    from.clear();
}

}  // namespace

CCMSSvrDlg::CCMSSvrDlg()
    : m_pmsgQue(nullptr),
      m_nServerID(-1),
      m_nHttpServerID(-1),
      m_bMsgExit(false),
      m_nLastRecord(0),
      m_bResetData(false),
      m_nLastRegion(0),
      m_bDevIntvEventExit(false),
      m_bSvrIntvEventExit(false) {
    m_cfgLocalParam = _LoaclParam{};
    init_assign_dev(kPoolSlots);
    init_assign_player(kPoolSlots);
    readfilepath(m_arrFilePath);
    pMainDlg = this;
}

CCMSSvrDlg::~CCMSSvrDlg() {
    // Stop what we started so that no thread outlives the object it uses.
    MessageProcessRun(false);
    LocalIntvProcessRun(false);
    RunMessageServer(false);
    m_clientWork.Drain();  // work of messages handed in directly, without a listener
    WaitForAllWritesBehind();
    RunHttpServer(false);
    StopMediaJobs();
    destroy_assign_player();
    destroy_assign_dev();
    // Nothing can reach the catalogue any more; free it so that leak checkers stay quiet.
    ReleaseData();
    {
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrMediaRegInfos);
    }
    ReleaseArray(m_arrFilePath);
    if (pMainDlg == this) pMainDlg = nullptr;
}

void CCMSSvrDlg::InitSDK() {
    RaiseDescriptorLimit();
    VornNetSDK_Init(this);
    RtspClient_Init();
    RUSK_DVR_InitAll();
    InitCodec();
    puts("InitSDK succ");
}

void CCMSSvrDlg::DestroySDK() { VornNetSDK_destroy(); }

bool CCMSSvrDlg::InitSystem() {
    RegisterDeviceTemplates();
    if (readconfig(&m_cfgLocalParam) != 1) return false;
    if (readcmsconfig(&m_cfgCms) != 1) return false;
    readguardconfig(&GuardParam());
    ApplyGuard(m_cfgLocalParam, GuardParam());
    return true;
}

bool CCMSSvrDlg::LoadData() {
    CMysqlDB db;
    if (!ConnectDB(&db)) return false;
    // Read everything first without the lock, then publish it in one step.
    LoadedCatalog c;
    LoadRegions(db, c.regions);
    GetVideoDev_FromDB(&db, "select * from device", c.devices);
    GetVideoChan_FromDB(&db, "select * from devicechan", c.chans);
    GetSystemServer_FromDB(&db, "select * from serverinfo", c.servers);
    GetDomain_FromDB(&db, "select * from domaininfo", c.domains);
    GetRegist_FromDB(&db, "select * from mediaregistor", c.regs);
    m_nLastRegion = GetLastRegion(&db);
    CloseDB(&db);

    CatalogWriteLock lock(csCatalog);
    AppendAll(m_arrRegionInfos, c.regions);
    AppendAll(m_arrRecordInfos, c.devices);
    AppendAll(m_arrVideoChanInfos, c.chans);
    AppendAll(m_arrServerFromDB, c.servers);
    AppendAll(m_arrDomainFromDB, c.domains);
    AppendAll(m_arrMediaRegInfos, c.regs);  // appended again on a reset, deliberately
    return true;
}

bool CCMSSvrDlg::ReleaseData() {
    CatalogWriteLock lock(csCatalog);
    ReleaseArray(m_arrDomainFromDB);
    ReleaseArray(m_arrServerFromDB);
    ReleaseArray(m_arrRegionInfos);
    ReleaseArray(m_arrRecordInfos);
    return ReleaseArray(m_arrVideoChanInfos) == 1;
}

bool CCMSSvrDlg::ResetSystem() {
    // HTTP commands refuse to run while the catalogue is half reloaded.
    m_bResetData = true;
    RunMessageServer(false);
    // The links point at the records about to be released.
    LocalIntvProcessRun(false);
    ReleaseData();
    LoadData();
    LocalIntvProcessRun(true);
    RunMessageServer(true);
    m_bResetData = false;
    return true;
}

bool CCMSSvrDlg::ClearSystem() {
    ReleaseData();
    return true;
}

long CCMSSvrDlg::GetLastRegion(CMysqlDB* db) {
    if (!db) return 0;
    std::vector<_msg_region_base*> regions;
    GetRegion_FromDB(db, "select * from region ORDER BY id LIMIT 1", regions);
    long id = regions.empty() ? 0 : regions.front()->nID;
    ReleaseArray(regions);
    return id;
}

void CCMSSvrDlg::RunMessageServer(bool start) {
    if (start) {
        if (m_cfgLocalParam.nPort <= 0) return;
        m_nServerID =
            VornStartServer(m_cfgLocalParam.nPort, VORN_MODE_MESSAGE, MessageTrampoline, this);
        printf("Start server port:%d\n", m_cfgLocalParam.nPort);
    } else if (m_nServerID != -1) {
        VornStopServer(m_nServerID);
        // What the clients queued still runs; nothing of it may meet a reload.
        m_clientWork.Drain();
        WaitForAllWritesBehind();
        m_nServerID = -1;
        printf("Stop server port:%d\n", m_cfgLocalParam.nPort);
    }
}

void CCMSSvrDlg::RunHttpServer(bool start) {
    if (start) {
        if (m_cfgLocalParam.nHttpPort <= 0) return;
        m_nHttpServerID =
            VornStartServer(m_cfgLocalParam.nHttpPort, VORN_MODE_HTTP, HttpTrampoline, this);
        printf("Start http port:%d\n", m_cfgLocalParam.nHttpPort);
    } else if (m_nHttpServerID != -1) {
        VornStopServer(m_nHttpServerID);
        m_nHttpServerID = -1;
        printf("Stop http port:%d\n", m_cfgLocalParam.nHttpPort);
    }
}

void CCMSSvrDlg::LoopOnce() {
    if (!m_bLoaded) {
        if (LoadData()) {
            RunMessageServer(true);
            RunHttpServer(true);
            MessageProcessRun(true);
            LocalIntvProcessRun(true);
            puts("load data succ");
            m_bLoaded = true;
        } else {
            // The database name goes where "%d" stands: the line has always printed a
            // number there, and log watchers match it.
            printf("load data faild(db:%d ip:%s port:%d user:%s pass:%s)\n",
                   static_cast<int>(reinterpret_cast<intptr_t>(m_cfgCms.szDbName)),
                   m_cfgCms.szDbAddr, m_cfgCms.szDbPort, m_cfgCms.szDbUser, m_cfgCms.szDbPass);
        }
    }
    if (m_nRemoteOperate == 1) {
        ResetSystem();
        m_nRemoteOperate = 0;
        puts("cserver reset succ");
    }
}
