// Base64 both ways: decoding any text stays inside its output, and any bytes come back
// unchanged from an encode and a decode.
#include <cstdlib>
#include <cstring>

#include "comm/sysutil.h"
#include "fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const std::vector<char> text = in.Text();
    std::vector<unsigned char> decoded(in.size() * 3 / 4 + 1);
    if (Base64Decode(text.data(), decoded.data(), uint32_t(decoded.size())) > decoded.size())
        std::abort();

    std::vector<char> encoded((in.size() + 2) / 3 * 4 + 1);
    const uint32_t n = Base64Encode(in.data(), uint32_t(in.size()), encoded.data(), encoded.size());
    if (in.size() && n != encoded.size() - 1) std::abort();
    std::vector<unsigned char> back(in.size() + 3);
    const uint32_t m = Base64Decode(encoded.data(), back.data(), uint32_t(back.size()));
    if (m != in.size() || (m && std::memcmp(back.data(), in.data(), m) != 0)) std::abort();
    return 0;
}
