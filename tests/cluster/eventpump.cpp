// Event pump for the replicated-database fault test: logs a device in over one message
// link of the real server and sends analytics alarms at a steady rate, each with its own
// description TAG<6-digit number> so that the rows can be matched one by one afterwards.
//
//   cms_eventpump HOST PORT SERIAL COUNT RATE TAG
//
// Prints one progress line a second. At the end a second login on the same link acts as a
// barrier: the server handles one link's messages in order, so its answer means every
// event has been handled. Exit 0 when all were sent and the barrier was answered.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmsclient::CmsClient;
using cmsclient::Reply;

constexpr int kAlarmCode = 5;
constexpr int kLoginTimeoutMs = 10000;
constexpr int kBarrierTimeoutMs = 180000;  // the server may be working off a backlog

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool LoggedIn(CmsClient& link, const char* serial, int timeoutMs) {
    const cmsclient::Request r = cmsclient::Login(serial);
    Reply reply;
    return link.Request(r.head, r.payload, reply, timeoutMs) && reply.IsState() && reply.state == 0;
}

std::string Description(const std::string& tag, int i) {
    char number[16];
    std::snprintf(number, sizeof number, "%06d", i);
    return tag + number;
}

// Sends events [0, count) paced at `rate` per second; the number sent.
int Pump(CmsClient& link, int count, int rate, const std::string& tag) {
    cmsclient::EventFields f;
    f.channel = "1";
    const auto start = Clock::now();
    int nextReport = 1;
    for (int i = 0; i < count; ++i) {
        const auto due = start + std::chrono::microseconds(1000000LL * i / rate);
        std::this_thread::sleep_until(due);
        f.info = Description(tag, i);
        const cmsclient::Request r = cmsclient::AlarmEvent(f, kAlarmCode, 0);
        if (!link.Send(r.head, r.payload)) {
            std::printf("pump: sending event %d failed at %.1f s: the link is gone\n", i,
                        Since(start));
            return i;
        }
        if (Since(start) >= nextReport) {
            std::printf("pump: %3d s  %d events sent\n", nextReport, i + 1);
            ++nextReport;
        }
    }
    std::printf("pump: all %d events sent in %.1f s\n", count, Since(start));
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::fprintf(stderr, "usage: cms_eventpump HOST PORT SERIAL COUNT RATE TAG\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char* host = argv[1];
    const int port = std::atoi(argv[2]);
    const char* serial = argv[3];
    const int count = std::atoi(argv[4]);
    const int rate = std::atoi(argv[5]);
    if (port <= 0 || count <= 0 || rate <= 0) {
        std::fprintf(stderr, "cms_eventpump: PORT, COUNT and RATE must be positive\n");
        return 2;
    }
    CmsClient link;
    if (!link.Connect(host, port) || !LoggedIn(link, serial, kLoginTimeoutMs)) {
        std::printf("pump: no login of %s at %s:%d\n", serial, host, port);
        return 1;
    }
    if (Pump(link, count, rate, argv[6]) != count) return 1;
    const auto start = Clock::now();
    if (!LoggedIn(link, serial, kBarrierTimeoutMs)) {
        std::printf("pump: the server did not confirm the events within %d s\n",
                    kBarrierTimeoutMs / 1000);
        return 1;
    }
    std::printf("pump: the server had handled every event %.1f s after the last was sent\n",
                Since(start));
    return 0;
}
