// Node-push records: any record a lower domain pushes, through the message dispatch and the
// push handlers into the catalogue and the database. Short inputs are padded with zeros to
// a whole record.
#include <algorithm>
#include <cstring>

#include "comm/msgdefine.h"
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
    _msg_head_info head{};
    head.nType = CMS_MSG_PUSH_DATA;
    head.nFrom = in.Byte();
    std::vector<uint8_t> message(sizeof head + std::max(in.size(), sizeof(_msg_domain_info)));
    std::memcpy(message.data(), &head, sizeof head);
    if (in.size()) std::memcpy(message.data() + sizeof head, in.data(), in.size());
    CCMSSvrDlg::MessageCallBack(3, message.data(), int(message.size()), &server);
    fuzz::Settle(server);
    return 0;
}
