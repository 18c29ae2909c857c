#include "mysql/catalog.h"

std::shared_mutex csCatalog;
std::vector<_msg_region_base*> m_arrRegionInfos;
std::vector<_hcrecord_Info*> m_arrRecordInfos;
std::vector<_msg_video_record_base*> m_arrVideoChanInfos;
std::vector<_sysserver_info*> m_arrServerFromDB;
std::vector<_domain_info*> m_arrDomainFromDB;
std::vector<_dev_register*> m_arrMediaRegInfos;
