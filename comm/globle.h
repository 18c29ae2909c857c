// Process-wide settings, read once at start-up.
// m_cfgLocalParam and m_cfgCms are written by InitSystem before any thread starts;
// m_arrFilePath and m_arrRtspString are filled once at start-up and read-only after.
// The catalogue's globals live in mysql/catalog.h, the media sessions' in
// media/devoperate.h, the server's in server/CmsSvrDlg.h.
#pragma once

#include <vector>

#include "comm/settings.h"

extern _LoaclParam m_cfgLocalParam;
extern _cmsParam m_cfgCms;

extern std::vector<_RtspHelpString*> m_arrRtspString;
extern std::vector<_file_path*> m_arrFilePath;
