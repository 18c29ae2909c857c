#include "comm/globle.h"

_LoaclParam m_cfgLocalParam{};
_cmsParam m_cfgCms{};

std::vector<_RtspHelpString*> m_arrRtspString;
std::vector<_file_path*> m_arrFilePath;
