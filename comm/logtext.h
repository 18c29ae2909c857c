// Text from outside (serials, names, codes, queries) made safe to print: a line feed in a
// login serial must not start a forged log line.
#pragma once

#include <string>

// `text` with every control byte (below 0x20, and 0x7f) written as \xNN; everything else,
// multi-byte UTF-8 included, stays as it is. Null reads as empty.
std::string LogText(const char* text);
