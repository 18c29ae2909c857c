#include "listener.h"

#include <cstdio>
#include <future>
#include <vector>

#include "engine.h"

namespace vorn {

namespace {
// Pause before accepting again after a failure such as running out of descriptors, so
// the listener does not spin.
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
// Connections taken from the kernel's queue in one go before the listener lets the other
// socket work run.
constexpr int kAcceptBatch = 256;
}  // namespace

Listener::Listener(CodecFactory codec, Hooks hooks)
    : m_codec(codec),
      m_hooks(hooks),
      m_strand(asio::make_strand(Engine::Get().Io())),
      m_acceptor(m_strand),
      m_retryTimer(m_strand) {}

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
    if (!ec) acceptor.non_blocking(true, ec);  // for TakeWaiting
    if (!ec) listener->m_port = acceptor.local_endpoint(ec).port();
    if (ec) {
        error = ec.message();
        return nullptr;
    }
    return listener;
}

void Listener::Start() {
    asio::post(m_strand, [self = shared_from_this()] { self->DoAccept(); });
}

void Listener::DoAccept() {
    m_acceptor.async_accept(asio::make_strand(Engine::Get().Io()),
                            [self = shared_from_this()](const std::error_code& ec, auto socket) {
                                self->OnAccept(ec, asio::ip::tcp::socket(std::move(socket)));
                            });
}

void Listener::OnAccept(const std::error_code& ec, asio::ip::tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !m_acceptor.is_open()) return;
    if (ec) {
        if (ec != asio::error::connection_aborted) {
            printf("vornnet: accept on port %d failed: %s\n", m_port, ec.message().c_str());
        }
        RetryAccept();
        return;
    }
    if (!Take(std::move(socket))) return;
    TakeWaiting();
}

// Each completion of an asynchronous accept waits its turn behind the socket work of every
// client, so during a burst of thousands of connections one accept per turn leaves a
// newcomer in the kernel's queue for seconds. What is waiting there already is taken now.
void Listener::TakeWaiting() {
    for (int i = 0; i < kAcceptBatch; ++i) {
        asio::ip::tcp::socket socket(asio::make_strand(Engine::Get().Io()));
        std::error_code ec;
        m_acceptor.accept(socket, ec);  // non-blocking: would_block once the queue is empty
        if (ec) break;                  // a real failure shows again on the next async accept
        if (!Take(std::move(socket))) return;
    }
    DoAccept();
}

bool Listener::Take(asio::ip::tcp::socket socket) {
    Engine& engine = Engine::Get();
    if (!Admit(socket)) return true;
    std::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    int id = engine.NextClientId();
    auto connection = std::make_shared<Connection>(
        id, std::move(socket), m_codec(), shared_from_this(), m_hooks, engine.CallbackIo());
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
bool Listener::Admit(asio::ip::tcp::socket& socket) {
    Guard& guard = Engine::Get().Access();
    std::error_code ec;
    const asio::ip::tcp::endpoint peer = socket.remote_endpoint(ec);
    const char* why = nullptr;
    if (ec) {
        why = "";  // already gone
    } else if (!guard.Allows(m_port, peer.address())) {
        why = "not in the allow-list";
    } else if (!guard.Reserve()) {
        why = "too many connections";
    }
    if (!why) return true;
    if (*why && guard.ShouldPrint(peer.address())) {
        printf("vornnet: port %d refused %s: %s\n", m_port, peer.address().to_string().c_str(),
               why);
    }
    socket.close(ec);
    return false;
}

void Listener::RetryAccept() {
    m_retryTimer.expires_after(kAcceptRetry);
    m_retryTimer.async_wait([self = shared_from_this()](const std::error_code& ec) {
        if (!ec && self->m_acceptor.is_open()) self->DoAccept();
    });
}

void Listener::Stop() {
    std::vector<std::shared_ptr<Connection>> clients;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) return;
        m_stopping = true;
        for (auto& entry : m_clients) clients.push_back(entry.second);
    }
    // The port must be free when Stop returns, so a restart can bind it at once.
    std::promise<void> closed;
    asio::post(m_strand, [this, &closed] {
        std::error_code ignored;
        m_acceptor.close(ignored);
        m_retryTimer.cancel();
        closed.set_value();
    });
    closed.get_future().wait();

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
