// The message listener's frame reader: any byte stream, cut into reads of any size, gives
// whole frame bodies within the limit and never more bytes than arrived.
#include <cstdlib>

#include "framecodec.h"
#include "fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const size_t chunk = 1 + in.Byte() % 64;  // reads split like a slow peer's
    vorn::MessageCodec codec;
    size_t delivered = 0;
    auto sink = [&](std::vector<uint8_t>&& body) {
        if (body.empty() || body.size() > vorn::kMaxFrameLength) std::abort();
        delivered += body.size();
    };
    const uint8_t* p = in.data();
    size_t left = in.size();
    while (left > 0) {
        const size_t n = left < chunk ? left : chunk;
        if (!codec.Consume(p, n, sink)) break;
        p += n;
        left -= n;
    }
    if (delivered > in.size()) std::abort();
    return 0;
}
