#include "priority.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vorn {

namespace {
// Nice value of the raised threads.
constexpr int kNetworkNice = -10;

// Linux gives each thread a nice value of its own: this sets the calling thread's only.
int SetOwnNice(int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), nice); }
}  // namespace

void RaiseNetworkPriority() {
    if (SetOwnNice(kNetworkNice) == 0) return;
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) {
        printf("vornnet: network threads keep the process's priority: %s\n", strerror(errno));
    }
}

void KeepProcessPriority() {
    errno = 0;
    // The process's priority is that of its main thread, whose id is the process id.
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    if (errno == 0) SetOwnNice(nice);  // lowering one's own priority is always allowed
}

}  // namespace vorn
