// A listening port and the clients it accepted.
#pragma once

#include <asio.hpp>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "connection.h"
#include "framecodec.h"

namespace vorn {

class Listener : public std::enable_shared_from_this<Listener> {
public:
    // Binds `port` on all interfaces with address reuse (0 picks a free port). Null with
    // `error` set when the port cannot be had.
    static std::shared_ptr<Listener> Open(int port, CodecFactory codec, Hooks hooks,
                                          std::string& error);

    // Starts accepting; false when no thread could be had for it.
    bool Start();
    // Closes the port and every client (each reported disconnected once). Outside a
    // callback it returns only when the last disconnect callback has run; inside one it
    // cannot wait for that, since the caller's own client may be among them.
    void Stop();
    int Port() const { return m_port; }
    // Called after the disconnect callback of a client has run.
    void ConnectionFinished(int clientId);

    Listener(CodecFactory codec, Hooks hooks);
    ~Listener();

private:
    // An owned descriptor, closed with its holder.
    class Fd {
    public:
        explicit Fd(int fd = -1) : m_fd(fd) {}
        Fd(const Fd&) = delete;
        Fd& operator=(const Fd&) = delete;
        ~Fd() { Reset(); }
        int Get() const { return m_fd; }
        void Reset(int fd = -1);

    private:
        int m_fd;
    };

    // The accept thread: waits until clients queue up on the port and takes all of them,
    // until Stop wakes it.
    void AcceptLoop();
    // Blocks until the port has clients waiting (true) or Stop was called (false).
    bool WaitForClients();
    // Waits `ms` unless Stop comes first (false then).
    bool Pause(std::chrono::milliseconds ms);
    // Accepts until the kernel's queue is empty; false when the listener is stopping.
    bool TakeWaiting();
    // Sets up an accepted client; false when the listener is stopping.
    bool Take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer);
    // False when the new client is refused (it is closed then).
    bool Admit(asio::ip::tcp::socket& socket, const asio::ip::tcp::endpoint& peer);

    // Fixed after Open.
    const CodecFactory m_codec;
    const Hooks m_hooks;
    int m_port = 0;

    // Used by the accept thread only while it runs; closed by Stop once it has ended.
    asio::ip::tcp::acceptor m_acceptor;
    Fd m_wake;  // eventfd that Stop signals to end the accept thread

    std::mutex m_mutex;  // guards m_stopping, m_acceptThread and m_clients
    std::condition_variable m_drained;
    bool m_stopping = false;
    std::thread m_acceptThread;
    // Clients whose disconnect callback has not run yet.
    std::unordered_map<int, std::shared_ptr<Connection>> m_clients;
};

}  // namespace vorn
