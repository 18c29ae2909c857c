// A listening port and the clients it accepted.
#pragma once

#include <asio.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
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

    void Start();
    // Closes the port and every client (each reported disconnected once). Outside a
    // callback it returns only when the last disconnect callback has run; inside one it
    // cannot wait for that, since the caller's own client may be among them.
    void Stop();
    int Port() const { return m_port; }
    // Called after the disconnect callback of a client has run.
    void ConnectionFinished(int clientId);

    Listener(CodecFactory codec, Hooks hooks);

private:
    void DoAccept();
    void OnAccept(const std::error_code& ec, asio::ip::tcp::socket socket);
    void RetryAccept();
    // Accepts what waits in the kernel's queue at once, then waits asynchronously again.
    void TakeWaiting();
    // Sets up an accepted client; false when the listener is stopping.
    bool Take(asio::ip::tcp::socket socket);
    // False when the new client is refused (it is closed then).
    bool Admit(asio::ip::tcp::socket& socket);

    // Fixed after Open.
    const CodecFactory m_codec;
    const Hooks m_hooks;
    int m_port = 0;

    // The acceptor and its retry timer are used on m_strand only.
    asio::strand<asio::io_context::executor_type> m_strand;
    asio::ip::tcp::acceptor m_acceptor;
    asio::steady_timer m_retryTimer;

    std::mutex m_mutex;  // guards m_stopping and m_clients
    std::condition_variable m_drained;
    bool m_stopping = false;
    // Clients whose disconnect callback has not run yet.
    std::unordered_map<int, std::shared_ptr<Connection>> m_clients;
};

}  // namespace vorn
