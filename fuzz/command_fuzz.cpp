// The HTTP command query reader: any query fills the command record with terminated texts.
#include <cstdlib>
#include <cstring>

#include "comm/httpparse.h"
#include "fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    std::vector<char> query = in.Text();  // split in place by the reader
    _http_command cmd{};
    ParasCommand(query.data(), &cmd);
    if (!memchr(cmd.szCode, '\0', sizeof cmd.szCode) ||
        !memchr(cmd.szUser, '\0', sizeof cmd.szUser) ||
        !memchr(cmd.szPass, '\0', sizeof cmd.szPass))
        std::abort();
    return 0;
}
