// The analytics object reader over any payload and object count.
#include <cstdlib>

#include "comm/vcaobject.h"
#include "fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const int count = in.Byte() % 24;  // a few past the limit of 20
    const std::vector<uint8_t> payload = in.Bytes();
    _VORN_VCA_OBJECT_LIST list{};
    if (AnylseIntvObject(payload.data(), int(payload.size()), count, &list) &&
        (list.object_num != count || list.object_num > kVcaMaxObjects))
        std::abort();
    for (int i = 0; i < list.object_num; ++i)
        if (list.object_arr[i].trail.usNumTrailPoints > kVcaMaxTrailPoints) std::abort();
    return 0;
}
