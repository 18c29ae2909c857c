// The request-head parser in both its forms: the cursor stays inside the text and every
// field comes back terminated.
#include <cstdlib>
#include <cstring>

#include "comm/httpparse.h"
#include "fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const std::vector<char> text = in.Text();
    const char* begin = text.data();
    const char* end = begin + text.size();

    _stru_http http{};
    const char* cursor = begin;
    if (ParasHttpRequest(&cursor, &http) && (cursor < begin || cursor >= end)) std::abort();
    if (!memchr(http.szURL, '\0', sizeof http.szURL) ||
        !memchr(http.szHost, '\0', sizeof http.szHost))
        std::abort();

    int method = 0;
    int length = 0;
    char url[64];
    cursor = begin;
    if (ParasHttpRequest(&cursor, &method, url, sizeof url, &length) &&
        (cursor < begin || cursor >= end || !memchr(url, '\0', sizeof url)))
        std::abort();
    return 0;
}
