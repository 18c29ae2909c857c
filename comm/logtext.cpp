#include "comm/logtext.h"

#include <cstdio>

std::string LogText(const char* text) {
    std::string out;
    if (!text) return out;
    for (const char* p = text; *p; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x20 && c != 0x7f) {
            out += *p;
            continue;
        }
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
        out += escaped;
    }
    return out;
}
