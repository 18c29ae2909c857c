// Event records: any alarm packet as a message client sends it (a sender head naming the
// device, then the record) and as the analytics links hand it over (the record alone),
// through ingestion into the database and the file store.
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
    const uint8_t pick = in.Byte();
    const std::vector<uint8_t> packet = in.Bytes();
    if (pick & 1)
        server.ProcessEventFromStruct(packet.data(), int(packet.size()));
    else
        server.ProcessEventBuf(pick >> 4, (pick >> 1) & 7, packet.data(), int(packet.size()));
    fuzz::Settle(server);
    return 0;
}
