// Process-wide state: settings, the resource catalogue and the global mutexes.
// Which lock guards what:
//  - csCatalog (mysql/catalog.h): the catalogue vectors and their records.
//  - csRecorder: m_arrUserInfos and the records in it.
//  - m_arrFilePath and m_arrRtspString are filled once at start-up and read-only after.
//  - m_cfgLocalParam and m_cfgCms are written by InitSystem before any thread starts.
#pragma once

#include <csignal>
#include <mutex>
#include <vector>

#include "comm/settings.h"
#include "mysql/catalog.h"
#include "mysql/dbrecords.h"

class CCMSSvrDlg;
struct _USER_CMD_INFO;

extern CCMSSvrDlg* pMainDlg;
extern volatile std::sig_atomic_t bKillProg;
extern volatile std::sig_atomic_t m_nRemoteOperate;

extern _LoaclParam m_cfgLocalParam;
extern _cmsParam m_cfgCms;

// Catalogue (guarded by csCatalog).
extern std::vector<_msg_region_base*> m_arrRegionInfos;
extern std::vector<_hcrecord_Info*> m_arrRecordInfos;
extern std::vector<_msg_video_record_base*> m_arrVideoChanInfos;
extern std::vector<_sysserver_info*> m_arrServerFromDB;
extern std::vector<_domain_info*> m_arrDomainFromDB;
extern std::vector<_dev_register*> m_arrMediaRegInfos;

// Media command sessions (guarded by csRecorder).
extern std::vector<_USER_CMD_INFO*> m_arrUserInfos;
extern std::mutex csRecorder;

// Read-only after start-up.
extern std::vector<_RtspHelpString*> m_arrRtspString;
extern std::vector<_file_path*> m_arrFilePath;

// Device and play session pools and the camera link lists.
extern std::mutex semDvrCheck;
extern std::mutex csCameraLink;
extern std::mutex csMediaCheck;
extern std::mutex csStackCheck;
extern std::mutex semaphoreUserCheck;
