// The log line writer: for now the log is standard output, beside the progress lines.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "comm/sysutil.h"

void WriteLog(const char* format, ...) {
    if (!format) return;
    char line[1024];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (n < 0) return;
    size_t len = std::strlen(line);
    // One call per line keeps lines of different threads from interleaving.
    if (len == 0 || line[len - 1] != '\n')
        std::printf("%s\n", line);
    else
        std::fputs(line, stdout);
}
