// A small blocking client of the server's message listener: connect, send messages,
// read the framed replies. One thread per client object.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cmsclient/framing.h"
#include "cmsclient/msghead.h"

namespace cmsclient {

class CmsClient {
public:
    enum class ReadResult { kReply, kTimeout, kClosed, kBadFrame };

    CmsClient() = default;
    ~CmsClient() { Close(); }
    CmsClient(const CmsClient&) = delete;
    CmsClient& operator=(const CmsClient&) = delete;

    // Connects to host (name or address) and port, giving up after `timeoutMs`. Closes any
    // earlier connection first. False when no address answered.
    bool Connect(const char* host, int port, int timeoutMs = 3000);
    void Close();
    bool IsOpen() const { return m_fd >= 0; }

    // Sends one message: `head`, then `n` payload bytes.
    bool Send(const MsgHead& head, const void* payload = nullptr, size_t n = 0);
    bool Send(const MsgHead& head, const std::string& payload) {
        return Send(head, payload.data(), payload.size());
    }
    // Without this a string literal would pick the pointer form and send no payload.
    bool Send(const MsgHead& head, const char* payload) {
        return Send(head, std::string(payload ? payload : ""));
    }
    // Sends a frame with exactly these body bytes (may be shorter than a header).
    bool SendFrame(const void* body, size_t n);
    // Sends bytes without framing (for tests of broken input).
    bool SendRaw(const void* data, size_t n);

    // Reads the next server frame. kBadFrame: a frame that is no reply, or a stream
    // broken by an oversize length (then the connection is useless).
    ReadResult ReadReply(Reply& reply, int timeoutMs = 10000);
    // Send, then read one reply; false unless a reply came.
    bool Request(const MsgHead& head, const std::string& payload, Reply& reply,
                 int timeoutMs = 10000);
    // True when the server closes the connection within `timeoutMs`; frames that come
    // before the close are read and dropped.
    bool WaitClosed(int timeoutMs);

    static constexpr int kWriteTimeoutMs = 10000;

private:
    int m_fd = -1;
    FrameChannel m_channel;
};

}  // namespace cmsclient
