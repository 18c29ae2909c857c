// A peer on loopback for the targets whose reader sits behind a socket: each connection it
// accepts is handed to `serve` on the peer's own thread, one at a time, then closed.
#pragma once

#include <functional>
#include <thread>

namespace fuzz {

class LoopbackPeer {
public:
    using Serve = std::function<void(int fd)>;
    explicit LoopbackPeer(Serve serve);  // aborts when no port can be had
    LoopbackPeer(const LoopbackPeer&) = delete;
    LoopbackPeer& operator=(const LoopbackPeer&) = delete;
    // Never destroyed by the targets: libFuzzer leaves through exit().

    int port() const { return m_port; }

private:
    void Run();

    Serve m_serve;
    int m_listen = -1;
    int m_port = 0;
    std::thread m_thread;
};

// Reads exactly `n` bytes, waiting at most a second for each part; false otherwise.
bool ReadExactly(int fd, void* out, size_t n);
// Writes all of `n` bytes; false when the client went away.
bool WriteAll(int fd, const void* data, size_t n);

// Sends standard output to /dev/null: the readers print a line per call.
void QuietStdout();

}  // namespace fuzz
