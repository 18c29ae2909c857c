// The event-link frame reader: a node on loopback answers the link request with any bytes
// and closes; every event handed on lies inside what was sent, and the drop is reported.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "RUSKNetSDK.h"
#include "eventlink.h"
#include "fuzzinput.h"
#include "loopback.h"

namespace {

struct Exchange {
    std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    std::vector<uint8_t> answer;  // what the node sends after the link request
    size_t delivered = 0;         // event bytes handed to the callback
    bool dropped = false;
};

Exchange g_x;

void ServeLink(int fd) {
    uint8_t len[4];
    if (!fuzz::ReadExactly(fd, len, sizeof len)) return;
    std::vector<uint8_t> request(len[0] | len[1] << 8 | len[2] << 16 | size_t(len[3]) << 24);
    if (request.size() > 4096 || !fuzz::ReadExactly(fd, request.data(), request.size())) return;
    std::vector<uint8_t> answer;
    {
        std::lock_guard<std::mutex> lock(g_x.mutex);
        answer = g_x.answer;
    }
    fuzz::WriteAll(fd, answer.data(), answer.size());
}

void OnEvent(int, int type, unsigned char* buffer, int length, int, void*) {
    std::lock_guard<std::mutex> lock(g_x.mutex);
    if (type == VORN_STATUS_LOGOUT)
        g_x.dropped = true;
    else if (!buffer || length < 0)
        std::abort();
    else
        g_x.delivered += size_t(length);
    g_x.changed.notify_all();
}

const std::string& Address() {
    static fuzz::LoopbackPeer* peer = new fuzz::LoopbackPeer(ServeLink);
    static const std::string url =
        "rtsp://127.0.0.1:" + std::to_string(peer->port()) + "/analytics?event=1";
    return url;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& url = Address();
    {
        std::lock_guard<std::mutex> lock(g_x.mutex);
        g_x.answer.assign(data, data + size);
        g_x.delivered = 0;
        g_x.dropped = false;
    }
    if (!rusk::EventLinkStart(1, url.c_str(), OnEvent, nullptr)) std::abort();
    {
        std::unique_lock<std::mutex> lock(g_x.mutex);
        // The node closes after its answer, so the drop always comes.
        if (!g_x.changed.wait_for(lock, std::chrono::seconds(5), [] { return g_x.dropped; }))
            std::abort();
        if (g_x.delivered > size) std::abort();
    }
    rusk::EventLinkStop(1);
    return 0;
}
