// A simulated analytics node on loopback for event-link tests: it accepts links, checks that
// each opens with a link request (type 21, a zero-terminated path), records the path, and on
// command sends event frames or raw bytes on the current link, or drops it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cmstest {

class EventPeer {
public:
    // Listens on `host`, on `port` when given (a node coming back where it was), else on a
    // free port.
    explicit EventPeer(const char* host = "127.0.0.1", int port = 0);
    ~EventPeer();
    EventPeer(const EventPeer&) = delete;
    EventPeer& operator=(const EventPeer&) = delete;

    int port() const { return m_port; }
    // Waits until `n` links have been accepted in all (true) or `ms` passed (false).
    bool WaitLinks(size_t n, int ms = 5000);
    // The paths of the accepted links, in order; "!bad" for a link whose first frame was
    // not a proper link request.
    std::vector<std::string> Paths() const;
    // Sends one frame (type, then `payload`) on the current link; false when none is open.
    bool Send(uint8_t type, const std::string& payload);
    bool SendRaw(const std::string& bytes);
    // Closes the current link, as a node that went away.
    void Drop();

private:
    void Serve();

    int m_listen = -1;
    int m_port = 0;
    mutable std::mutex m_mutex;  // guards the four below
    std::condition_variable m_changed;
    int m_conn = -1;  // the current link
    std::vector<std::string> m_paths;
    bool m_stop = false;
    std::thread m_thread;
};

// An event frame payload of `size` bytes whose 32-bit field at offset 40 is `nodeId` and
// whose text at offset 0 is `serial` (the two ways a packet names its node).
std::string EventPacket(const std::string& serial, int nodeId, size_t size = 200);

}  // namespace cmstest
