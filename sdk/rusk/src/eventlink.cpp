// Event links: one TCP connection per analytics node, framed like the message port. The
// library sends one link request (type 21, payload the address path and query with its
// terminating zero); the node answers with frames of type 22 or 2, each carrying one event
// packet, which is handed whole to the callback. A drop is reported (105), the link re-made
// with back-off (1 s doubling to 30 s, back to 1 s after a success) and the return reported
// (111). A node that breaks the framing is dropped and re-linked like one that closed.
#include "eventlink.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Frame layout (little-endian): 4-byte body length, then the body: a 12-byte header (type,
// two sub-codes, padding, two 32-bit ids) and the payload.
constexpr size_t kLengthBytes = 4;
constexpr size_t kHeadBytes = 12;
constexpr uint32_t kMaxBody = 16u * 1024 * 1024;
constexpr uint8_t kTypeLinkRequest = 21;  // CMS_MSG_META_LOGIN
constexpr uint8_t kTypeMeta = 22;         // CMS_MSG_META
constexpr uint8_t kTypeAlarm = 2;         // CMS_MSG_ALARM

constexpr int kConnectTimeoutMs = 3000;
constexpr int kFirstBackoffMs = 1000;
constexpr int kLastBackoffMs = 30000;

struct Address {
    std::string host, port, request;  // request: path and query, as sent to the node
};

bool ParseAddress(const char* url, Address& out) {
    static const char kScheme[] = "rtsp://";
    if (!url || strncasecmp(url, kScheme, sizeof(kScheme) - 1) != 0) return false;
    std::string rest(url + sizeof(kScheme) - 1);
    size_t end = rest.find_first_of("/?");
    std::string hostPort = rest.substr(0, end);
    size_t colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == hostPort.size()) return false;
    out.host = hostPort.substr(0, colon);
    out.port = hostPort.substr(colon + 1);
    out.request = end == std::string::npos ? "/" : rest.substr(end);
    return true;
}

struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { Reset(); }
    void Reset(int f = -1) {
        if (fd >= 0) close(fd);
        fd = f;
    }
};

class EventLink {
public:
    EventLink(int handle, Address address, RUSK_DataCallBack callback, void* user)
        : m_handle(handle), m_address(std::move(address)), m_callback(callback), m_user(user) {}

    bool Start() {
        m_wake.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (m_wake.fd < 0 || !Connect()) return false;
        m_reader = std::thread([this] { Run(); });
        return true;
    }

    void Stop() {
        uint64_t one = 1;
        if (write(m_wake.fd, &one, sizeof(one)) < 0) {
            // Only a full counter fails, and it is already signalled then.
        }
        if (m_reader.joinable()) m_reader.join();
    }

private:
    // Waits for `events` on `fd` (or only for the stop signal with fd < 0). 1 ready, 0 timed
    // out, -1 stopped or failed.
    int Wait(int fd, short events, int timeoutMs) {
        pollfd p[2] = {{m_wake.fd, POLLIN, 0}, {fd, events, 0}};
        for (;;) {
            int n = poll(p, fd >= 0 ? 2 : 1, timeoutMs);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 || p[0].revents) return -1;
            return n == 0 ? 0 : 1;
        }
    }

    bool SendAll(int fd, const uint8_t* data, size_t n) {
        while (n > 0) {
            ssize_t w = send(fd, data, n, MSG_NOSIGNAL);
            if (w > 0) {
                data += w;
                n -= size_t(w);
            } else if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
                if (Wait(fd, POLLOUT, kConnectTimeoutMs) != 1) return false;
            } else {
                return false;
            }
        }
        return true;
    }

    // Opens the connection and sends the link request; m_sock holds it on success.
    bool Connect() {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (getaddrinfo(m_address.host.c_str(), m_address.port.c_str(), &hints, &found) != 0)
            return false;
        std::unique_ptr<addrinfo, void (*)(addrinfo*)> guard(found, freeaddrinfo);
        Fd s(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (s.fd < 0) return false;
        if (connect(s.fd, found->ai_addr, found->ai_addrlen) != 0) {
            if (errno != EINPROGRESS || Wait(s.fd, POLLOUT, kConnectTimeoutMs) != 1) return false;
            int err = 0;
            socklen_t len = sizeof(err);
            if (getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) return false;
        }
        const std::string& req = m_address.request;
        std::vector<uint8_t> frame(kLengthBytes + kHeadBytes + req.size() + 1, 0);
        uint32_t body = uint32_t(kHeadBytes + req.size() + 1);
        for (size_t i = 0; i < kLengthBytes; ++i) frame[i] = uint8_t(body >> (8 * i));
        frame[kLengthBytes] = kTypeLinkRequest;
        memcpy(frame.data() + kLengthBytes + kHeadBytes, req.c_str(), req.size() + 1);
        if (!SendAll(s.fd, frame.data(), frame.size())) return false;
        m_sock.Reset(s.fd);
        s.fd = -1;
        return true;
    }

    // Reads exactly n bytes; false on close, error or stop.
    bool ReadAll(uint8_t* out, size_t n) {
        while (n > 0) {
            ssize_t r = recv(m_sock.fd, out, n, 0);
            if (r > 0) {
                out += r;
                n -= size_t(r);
            } else if (r < 0 && (errno == EAGAIN || errno == EINTR)) {
                if (Wait(m_sock.fd, POLLIN, -1) != 1) return false;
            } else {
                return false;
            }
        }
        return true;
    }

    // Delivers frames until the node closes, breaks the framing, or the link is stopped.
    void ReadFrames() {
        std::vector<uint8_t> body;
        for (;;) {
            uint8_t len[kLengthBytes];
            if (!ReadAll(len, sizeof(len))) return;
            uint32_t n = uint32_t(len[0]) | uint32_t(len[1]) << 8 | uint32_t(len[2]) << 16 |
                         uint32_t(len[3]) << 24;
            if (n == 0) continue;  // keep-alive
            // Checked before anything is allocated: a refused length ends the link.
            if (n <= kHeadBytes || n > kMaxBody) return;
            body.resize(n);
            if (!ReadAll(body.data(), n)) return;
            uint8_t type = body[0];
            if (type != kTypeMeta && type != kTypeAlarm) return;
            m_callback(m_handle, type, body.data() + kHeadBytes, int(n - kHeadBytes), 0, m_user);
        }
    }

    void Run() {
        int backoff = kFirstBackoffMs;
        for (;;) {
            ReadFrames();
            m_sock.Reset();
            if (Wait(-1, 0, 0) < 0) return;  // stopped
            m_callback(m_handle, VORN_STATUS_LOGOUT, nullptr, 0, 0, m_user);
            for (;;) {
                if (Wait(-1, 0, backoff) < 0) return;
                backoff = std::min(backoff * 2, kLastBackoffMs);
                if (Connect()) break;
            }
            backoff = kFirstBackoffMs;
            m_callback(m_handle, VORN_STATUS_RELINK, nullptr, 0, 0, m_user);
        }
    }

    // Fixed at construction.
    const int m_handle;
    const Address m_address;
    const RUSK_DataCallBack m_callback;
    void* const m_user;

    Fd m_wake;  // eventfd: signalled once by Stop; every wait of the reader watches it
    Fd m_sock;  // the open connection; Start, then the reader thread only
    std::thread m_reader;
};

// Never destroyed: a reader still running at exit must not find it gone.
struct Links {
    std::mutex mutex;  // guards the map
    std::map<int, std::unique_ptr<EventLink>> links;
};

Links& Table() {
    static Links* links = new Links;
    return *links;
}

}  // namespace

namespace rusk {

bool IsEventLinkAddress(const char* url) {
    if (!url || strncasecmp(url, "rtsp://", 7) != 0) return false;
    const char* query = strchr(url, '?');
    return query && strstr(query, "event=");
}

bool EventLinkStart(int handle, const char* url, RUSK_DataCallBack callback, void* user) {
    Address address;
    if (!callback || !ParseAddress(url, address)) return false;
    auto link = std::make_unique<EventLink>(handle, std::move(address), callback, user);
    if (!link->Start()) return false;
    Links& t = Table();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.links[handle] = std::move(link);
    return true;
}

bool EventLinkStop(int handle) {
    std::unique_ptr<EventLink> link;
    {
        Links& t = Table();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.links.find(handle);
        if (it == t.links.end()) return false;
        link = std::move(it->second);
        t.links.erase(it);
    }
    link->Stop();
    return true;
}

}  // namespace rusk
