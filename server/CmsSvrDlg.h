// The server object: start-up, the catalogue load and reset, the message and HTTP
// listeners, and the background threads. There is exactly one, built by main().
#pragma once

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <thread>

#include "server/CmsSvrDlg_queue.h"

class CQue;
class CMysqlDB;
struct _msg_domain_info;
struct _hcrecord_Info;
struct _http_command;

class CCMSSvrDlg;

// The one server object, set while it exists.
extern CCMSSvrDlg* pMainDlg;
// Set by the termination signals; ends the main loop.
extern volatile std::sig_atomic_t bKillProg;
// 1 asks the main loop to reload the catalogue (set by the HTTP reset command, from the
// listener's threads).
extern std::atomic<int> m_nRemoteOperate;

class CCMSSvrDlg {
public:
    CCMSSvrDlg();
    ~CCMSSvrDlg();
    CCMSSvrDlg(const CCMSSvrDlg&) = delete;
    CCMSSvrDlg& operator=(const CCMSSvrDlg&) = delete;

    // ---- Lifecycle ----
    void InitSDK();
    void DestroySDK();
    bool InitSystem();
    bool LoadData();
    bool ReleaseData();
    bool ResetSystem();
    bool ClearSystem();
    void RunMessageServer(bool start);
    void RunHttpServer(bool start);
    void MessageProcessRun(bool start);    // maintenance thread
    void LocalIntvProcessRun(bool start);  // analytics event links
    // One round of the main loop: load until it succeeds, then serve resets.
    void LoopOnce();

    // ---- Maintenance (server/CmsSvrDlg_maint.cpp) ----
    static int TransMessageThread(CCMSSvrDlg* self);
    // Retires at most one finished or stale media consumer (its recorder closed first,
    // its player stopped outside csRecorder).
    void Checklinks();
    // Appends the region after m_nLastRegion, if the database has one.
    void PollNewRegion();

    // ---- Message protocol ----
    static void MessageCallBack(int clientId, unsigned char* data, int length, CCMSSvrDlg* self);
    static void HttpCallBack(int clientId, unsigned char* data, int length, CCMSSvrDlg* self);
    static int SetClientStopBySession(unsigned int session, int type);
    // Where message work that may block runs, one queue per client (see CmsSvrDlg_queue.h).
    ClientQueues& ClientWork() { return m_clientWork; }

    // ---- HTTP commands (server/CmsSvrDlg_http.cpp) ----
    // Runs one parsed command and fills its `session` for a started recording. False for a
    // null command, during a catalogue reload, or when the command failed. Safe to call
    // from several threads at once.
    bool HttpProcess(_http_command* command);

    // ---- Analytics event links (server/CmsSvrDlg_intv.cpp) ----
    // The link threads; each returns 0 once its stop flag is set.
    static int TransDevIntvEventThread(CCMSSvrDlg* self);
    static int TransSvrIntvEventThread(CCMSSvrDlg* self);
    // Media-library callbacks of the links; `record` is the linked _hcrecord_Info or
    // _sysserver_info. They take the catalogue lock themselves.
    static void IntvDevCallBack(int handle, int type, unsigned char* buffer, int length, int extra,
                                void* record);
    static void IntvSvrCallBack(int handle, int type, unsigned char* buffer, int length, int extra,
                                void* record);

    // ---- Event ingestion ----
    void ProcessEventBuf(int loginId, int mode, const unsigned char* buffer, int length);
    void ProcessEventFromStruct(const unsigned char* buffer, int length);
    bool IntvDownProcess();

    // ---- Node registration ----
    long GetLastRegion(CMysqlDB* db);
    void* AddNode(int id, int type);
    void* AddNodeFromSerial(const char* serial, int type);
    long ProcessNode(_msg_domain_info* node);

    bool IsLoaded() const { return m_bLoaded; }
    int ServerID() const { return m_nServerID; }
    int HttpServerID() const { return m_nHttpServerID; }

    CQue* m_pmsgQue;
    int m_nServerID;
    int m_nHttpServerID;
    std::atomic<bool> m_bMsgExit;
    int64_t m_nLastRecord;
    std::atomic<bool> m_bResetData;  // set by ResetSystem while the catalogue is reloaded
    std::atomic<int64_t> m_nLastRegion;
    std::atomic<bool> m_bDevIntvEventExit;
    std::atomic<bool> m_bSvrIntvEventExit;

private:
    bool m_bLoaded = false;    // the first LoadData of this run succeeded
    std::thread m_msgThread;   // maintenance thread
    std::mutex m_msgWaitLock;  // with m_msgWake: cuts its pause short on stop
    std::condition_variable m_msgWake;
    // Blocking message work; drained whenever the message server stops. Few threads: more
    // only compete with the listener's threads for the cores during a login flood.
    ClientQueues m_clientWork{8};
};
