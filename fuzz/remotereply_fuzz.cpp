// The remote-configuration reply reader: a node on loopback answers any body, under a 200
// or an error status; the "<ret>" text handed back is terminated inside the caller's buffer.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "RUSKNetSDK.h"
#include "fuzzinput.h"
#include "loopback.h"
#include "nodes/remotecfg.h"

namespace {

std::mutex g_mutex;  // guards g_answer
std::string g_answer;

// Reads the request head and its body, then sends the answer of the current input.
void ServeCommand(int fd) {
    std::string head;
    char c;
    while (head.size() < 8192 && head.find("\r\n\r\n") == std::string::npos) {
        if (!fuzz::ReadExactly(fd, &c, 1)) return;
        head += c;
    }
    size_t bodyLength = 0;
    const size_t at = head.find("Content-Length:");
    if (at != std::string::npos) bodyLength = std::strtoul(head.c_str() + at + 15, nullptr, 10);
    std::string body(bodyLength, '\0');
    if (bodyLength && !fuzz::ReadExactly(fd, &body[0], bodyLength)) return;
    std::string answer;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        answer = g_answer;
    }
    fuzz::WriteAll(fd, answer.data(), answer.size());
}

const std::string& NodeUrl() {
    static fuzz::LoopbackPeer* peer = [] {
        fuzz::QuietStdout();
        RUSK_SetTimeouts(500, 2000);
        return new fuzz::LoopbackPeer(ServeCommand);
    }();
    static const std::string url =
        "rtsp://127.0.0.1:" + std::to_string(peer->port()) + "/xconfig?cmd=getparam";
    return url;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& url = NodeUrl();
    fuzz::Input in(data, size);
    const uint8_t pick = in.Byte();
    const size_t retSize = 1 + pick % 64 * 9;  // 1 to 568 bytes, around the reply's 512
    const char* status = pick & 0x80 ? "500 Internal Server Error" : "200 OK";
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_answer = std::string("HTTP/1.1 ") + status +
                   "\r\nConnection: close\r\nContent-Length: " + std::to_string(in.size()) +
                   "\r\n\r\n" + std::string(reinterpret_cast<const char*>(in.data()), in.size());
    }
    std::vector<char> ret(retSize, 'x');
    int retLength = -1;
    const char body[] = "<param></param>";
    RemoteDevConfig(url.c_str(), pick & 0x40 ? body : nullptr, sizeof body - 1, ret.data(),
                    ret.size(), retLength);
    if (retLength < 0 || size_t(retLength) >= retSize || ret[size_t(retLength)] != '\0')
        std::abort();
    return 0;
}
