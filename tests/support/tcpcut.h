// A loopback TCP relay in front of a port that a test can cut and restore, to play a
// database (or any server) that goes away and comes back without stopping it.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace cmstest {

class TcpCut {
public:
    explicit TcpCut(int targetPort);
    ~TcpCut();
    TcpCut(const TcpCut&) = delete;
    TcpCut& operator=(const TcpCut&) = delete;

    int Port() const { return m_port; }
    // Cut: open relays are closed (on return) and new connections are refused at once. Restore: relays
    // again.
    void Cut();
    void Restore();

private:
    void AcceptLoop();
    void Relay(int client);

    int m_target;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_cut{false};
    std::atomic<unsigned> m_epoch{0};  // bumped by Cut; relays of an older epoch end
    std::thread m_acceptor;
    std::mutex m_cs;  // guards m_relays
    std::vector<std::thread> m_relays;
};

}  // namespace cmstest
