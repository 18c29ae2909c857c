// Entry points whose work arrives with later features; see docs/STATUS.md.
#include "server/CmsSvrDlg.h"

void CCMSSvrDlg::LocalIntvProcessRun(bool start) {}
