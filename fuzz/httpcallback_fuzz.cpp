// The whole HTTP command path: a request as the listener hands it over (the parsed head
// record, then the body) through HttpCallBack, the query reader and the command it names.
// With the first byte odd the rest is the request target, in an otherwise empty GET record;
// else the rest is the raw buffer the callback takes.
#include <algorithm>
#include <cstring>

#include "comm/httpparse.h"
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
    std::vector<uint8_t> buffer;
    if (in.Byte() & 1) {
        _stru_http head{};
        head.nHttpType = HTTPMETHODGET;
        std::memcpy(head.szURL, in.data(), std::min(in.size(), sizeof head.szURL - 1));
        const auto* p = reinterpret_cast<const uint8_t*>(&head);
        buffer.assign(p, p + sizeof head);
    } else {
        buffer = in.Bytes();
    }
    CCMSSvrDlg::HttpCallBack(9, buffer.data(), int(buffer.size()), &server);
    return 0;
}
