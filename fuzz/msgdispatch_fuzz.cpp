// The whole message dispatch: any message (header and payload) from any client through
// MessageCallBack and the handler it selects, over the server object and its database.
// The first byte names the client; a zero ends that client instead (the disconnect).
#include "fuzzinput.h"
#include "server/CmsSvrDlg.h"
#include "serverfixture.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::Server();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CCMSSvrDlg& server = fuzz::Server();
    fuzz::Input in(data, size);
    const int clientId = in.Byte() % 8;
    std::vector<uint8_t> message = in.Bytes();
    if (clientId == 0)
        CCMSSvrDlg::MessageCallBack(1, nullptr, 0, &server);
    else
        CCMSSvrDlg::MessageCallBack(clientId, message.data(), int(message.size()), &server);
    fuzz::Settle(server);
    return 0;
}
