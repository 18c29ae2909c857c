// The HTTP listener's head and body reader: any byte stream, in reads of any size, gives
// at most one request whose record is terminated and whose body length is what it says,
// or a refusal with a status.
#include <cstdlib>
#include <cstring>

#include "fuzzinput.h"
#include "httpcodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const size_t chunk = 1 + in.Byte() % 128;
    vorn::HttpCodec codec;
    int requests = 0;
    auto sink = [&](std::vector<uint8_t>&& unit) {
        ++requests;
        if (unit.size() < sizeof(VORN_HTTP_HEAD)) std::abort();
        VORN_HTTP_HEAD head;
        std::memcpy(&head, unit.data(), sizeof head);
        if (head.nBadyLen < 0 || unit.size() != sizeof head + size_t(head.nBadyLen)) std::abort();
        if (!memchr(head.szURL, '\0', sizeof head.szURL) ||
            !memchr(head.szHost, '\0', sizeof head.szHost))
            std::abort();
    };
    const uint8_t* p = in.data();
    size_t left = in.size();
    while (left > 0) {
        const size_t n = left < chunk ? left : chunk;
        if (!codec.Consume(p, n, sink)) {
            if (codec.Status() == 0 || codec.ErrorReply().empty()) std::abort();
            break;
        }
        p += n;
        left -= n;
    }
    if (requests > 1) std::abort();
    return 0;
}
