#include "comm/globle.h"

CCMSSvrDlg* pMainDlg = nullptr;
volatile std::sig_atomic_t bKillProg = 0;
volatile std::sig_atomic_t m_nRemoteOperate = 0;

_LoaclParam m_cfgLocalParam{};
_cmsParam m_cfgCms{};

std::shared_mutex csCatalog;
std::vector<_msg_region_base*> m_arrRegionInfos;
std::vector<_hcrecord_Info*> m_arrRecordInfos;
std::vector<_msg_video_record_base*> m_arrVideoChanInfos;
std::vector<_sysserver_info*> m_arrServerFromDB;
std::vector<_domain_info*> m_arrDomainFromDB;
std::vector<_dev_register*> m_arrMediaRegInfos;

std::vector<_USER_CMD_INFO*> m_arrUserInfos;
std::mutex csRecorder;

std::vector<_RtspHelpString*> m_arrRtspString;
std::vector<_file_path*> m_arrFilePath;

std::mutex semDvrCheck;
std::mutex csCameraLink;
std::mutex csMediaCheck;
std::mutex csStackCheck;
std::mutex semaphoreUserCheck;
