// Entry points whose work arrives with later features; see docs/STATUS.md.
#include "server/CmsSvrDlg.h"

void CCMSSvrDlg::MessageProcessRun(bool start) {}
void CCMSSvrDlg::LocalIntvProcessRun(bool start) {}
void CCMSSvrDlg::HttpCallBack(int clientId, unsigned char* data, int length, CCMSSvrDlg* self) {}
