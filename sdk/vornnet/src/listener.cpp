#include "listener.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

#include "engine.h"
#include "priority.h"

namespace vorn {

namespace {
// Pause before accepting again after a failure such as running out of descriptors, so
// the listener does not spin.
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
}  // namespace

void Listener::Fd::Reset(int fd) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
}

Listener::Listener(CodecFactory codec, Hooks hooks)
    : m_codec(codec), m_hooks(hooks), m_acceptor(Engine::Get().Io()) {}

std::shared_ptr<Listener> Listener::Open(int port, CodecFactory codec, Hooks hooks,
                                         std::string& error) {
    auto listener = std::make_shared<Listener>(codec, hooks);
    asio::ip::tcp::endpoint endpoint(asio::ip::tcp::v4(), static_cast<unsigned short>(port));
    asio::ip::tcp::acceptor& acceptor = listener->m_acceptor;
    std::error_code ec;
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) acceptor.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) acceptor.bind(endpoint, ec);
    if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (!ec) acceptor.non_blocking(true, ec);  // the accept thread polls, then drains
    if (!ec) listener->m_port = acceptor.local_endpoint(ec).port();
    if (!ec) {
        listener->m_wake.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (listener->m_wake.Get() < 0) ec.assign(errno, std::generic_category());
    }
    if (ec) {
        error = ec.message();
        return nullptr;
    }
    return listener;
}

// Reached with the thread still running only when that thread held the last reference.
Listener::~Listener() {
    if (m_acceptThread.joinable()) m_acceptThread.detach();
}

bool Listener::Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping || m_acceptThread.joinable()) return true;
    try {
        m_acceptThread = std::thread([self = shared_from_this()] { self->AcceptLoop(); });
    } catch (const std::system_error& error) {
        printf("vornnet: cannot start accepting on port %d: %s\n", m_port, error.what());
        return false;
    }
    return true;
}

// Accepting has a thread of its own, raised like the I/O threads (see priority.h). A
// newcomer, such as a known device logging in during a flood of thousands of logins,
// waits in the kernel's queue until every connection ahead of it is accepted. On the I/O
// threads each accept also waited its turn behind the socket work of every client, and
// at the process's priority accepting got only its share of the processors beside the
// database work and the connecting clients themselves: 3,000 clients took most of a
// second to accept. The thread sleeps until clients queue up, then takes them all.
void Listener::AcceptLoop() {
    pthread_setname_np(pthread_self(), "vornaccept");
    RaiseNetworkPriority();
    while (WaitForClients() && TakeWaiting()) {
    }
}

bool Listener::WaitForClients() {
    pollfd fds[2] = {{m_acceptor.native_handle(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            printf("vornnet: waiting for clients on port %d failed: %s\n", m_port, strerror(errno));
            if (!Pause(kAcceptRetry)) return false;
            continue;
        }
        if (fds[1].revents != 0) return false;
        if (fds[0].revents != 0) return true;
    }
}

bool Listener::Pause(std::chrono::milliseconds ms) {
    pollfd wake = {m_wake.Get(), POLLIN, 0};
    return poll(&wake, 1, static_cast<int>(ms.count())) == 0;
}

bool Listener::TakeWaiting() {
    for (;;) {
        asio::ip::tcp::socket socket(asio::make_strand(Engine::Get().Io()));
        asio::ip::tcp::endpoint peer;
        std::error_code ec;
        m_acceptor.accept(socket, peer, ec);  // non-blocking: would_block once it is empty
        if (ec == asio::error::would_block || ec == asio::error::try_again) return true;
        if (ec == asio::error::connection_aborted || ec == asio::error::interrupted) continue;
        if (ec) {
            printf("vornnet: accept on port %d failed: %s\n", m_port, ec.message().c_str());
            return Pause(kAcceptRetry);
        }
        if (!Take(std::move(socket), peer)) return false;
    }
}

bool Listener::Take(asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer) {
    Engine& engine = Engine::Get();
    if (!Admit(socket, peer)) return true;
    std::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    int id = engine.NextClientId();
    auto connection = std::make_shared<Connection>(
        id, std::move(socket), peer, m_codec(), shared_from_this(), m_hooks, engine.CallbackIo());
    // Registered before it is visible to Stop, so a close can never run ahead of the
    // registration and leave a stale entry behind.
    engine.RegisterClient(id, connection);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            engine.UnregisterClient(id);
            engine.Access().Release();
            return false;  // never reported: the client was not announced to anyone yet
        }
        m_clients.emplace(id, connection);
    }
    connection->Start();
    return true;
}

// A client outside the port's allow-list, or beyond the connection limit, is closed at
// once without a word; each address is printed at most once a minute.
bool Listener::Admit(asio::ip::tcp::socket& socket, const asio::ip::tcp::endpoint& peer) {
    Guard& guard = Engine::Get().Access();
    const char* why = nullptr;
    if (!guard.Allows(m_port, peer.address())) {
        why = "not in the allow-list";
    } else if (!guard.Reserve()) {
        why = "too many connections";
    }
    if (!why) return true;
    if (*why && guard.ShouldPrint(peer.address())) {
        printf("vornnet: port %d refused %s: %s\n", m_port, peer.address().to_string().c_str(),
               why);
    }
    std::error_code ignored;
    socket.close(ignored);
    return false;
}

void Listener::Stop() {
    std::vector<std::shared_ptr<Connection>> clients;
    std::thread accepting;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) return;
        m_stopping = true;
        accepting.swap(m_acceptThread);
        for (auto& entry : m_clients) clients.push_back(entry.second);
    }
    // A client the accept thread takes from now on sees m_stopping and is dropped, so
    // `clients` is complete. The port must be free when Stop returns, so a restart can
    // bind it at once.
    const uint64_t one = 1;
    if (write(m_wake.Get(), &one, sizeof one) < 0) perror("vornnet: waking the accept thread");
    if (accepting.joinable()) accepting.join();
    std::error_code ignored;
    m_acceptor.close(ignored);

    for (auto& client : clients) client->Close();
    if (InCallback()) return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_drained.wait(lock, [this] { return m_clients.empty(); });
}

void Listener::ConnectionFinished(int clientId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_clients.erase(clientId) > 0) Engine::Get().Access().Release();
    if (m_clients.empty()) m_drained.notify_all();
}

}  // namespace vorn
