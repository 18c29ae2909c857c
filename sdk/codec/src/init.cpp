#include <mutex>

#include "VornCodec.h"
#include "avhandles.h"

int InitCodec(void) {
    static std::once_flag once;
    // A damaged live stream makes FFmpeg complain about every picture; only fatal errors
    // are worth a line in the server's output.
    std::call_once(once, [] { av_log_set_level(AV_LOG_FATAL); });
    return 1;
}
