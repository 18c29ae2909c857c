// Address text shared by the stream and device libraries (C++ only).
#pragma once

#include <string>

namespace vorn {

// Escapes every byte but letters, digits and "-._~" as %XX, for user names, passwords and
// channel codes put into an address.
inline std::string PercentEncode(const std::string& text) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

}  // namespace vorn
