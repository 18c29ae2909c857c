// Entry points whose work arrives with later features; see docs/STATUS.md.
#include "CmsSvrDlg.h"

void CCMSSvrDlg::MessageProcessRun(bool start) {}
void CCMSSvrDlg::LocalIntvProcessRun(bool start) {}
void CCMSSvrDlg::HttpCallBack(int clientId, unsigned char* data, int length,
                              CCMSSvrDlg* self) {}
void CCMSSvrDlg::MessageCallBack(int clientId, unsigned char* data, int length,
                                 CCMSSvrDlg* self) {}
int CCMSSvrDlg::SetClientStopBySession(unsigned int session, int type) { return 0; }
void* CCMSSvrDlg::AddNode(int id, int type) { return nullptr; }
void* CCMSSvrDlg::AddNodeFromSerial(const char* serial, int type) { return nullptr; }
long CCMSSvrDlg::ProcessNode(_msg_domain_info* node) { return 0; }
