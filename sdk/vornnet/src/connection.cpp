#include "connection.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "engine.h"
#include "listener.h"

namespace vorn {

namespace {

thread_local bool t_inCallback = false;

// Replies waiting behind the one being written, for a client that does not read; beyond
// this the client is dropped. A reply that finds nothing waiting is always taken, however
// large, so one big answer never costs the client its connection.
constexpr size_t kMaxQueuedOutput = 64u * 1024 * 1024;
// Reading pauses at the high marks of undelivered messages and resumes at the low ones.
constexpr size_t kBacklogHighCount = 256;
constexpr size_t kBacklogHighBytes = 32u * 1024 * 1024;
constexpr size_t kBacklogLowCount = 64;
constexpr size_t kBacklogLowBytes = 8u * 1024 * 1024;
// Input dropped after a one-request connection's request before reading stops.
constexpr size_t kMaxDrainBytes = 4u * 1024 * 1024;
// The read buffer starts small and grows once to the large size when a read fills it.
constexpr size_t kReadStart = 2048;
constexpr size_t kReadMax = 64 * 1024;
// How long a closing one-request connection waits for the peer to hang up first.
constexpr auto kLinger = std::chrono::seconds(1);

std::string EndpointText(const asio::ip::tcp::endpoint& endpoint) {
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

struct CallbackScope {
    CallbackScope() { t_inCallback = true; }
    ~CallbackScope() { t_inCallback = false; }
};

}  // namespace

bool InCallback() { return t_inCallback; }

Connection::Connection(int id, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer,
                       std::unique_ptr<Codec> codec, std::shared_ptr<Listener> owner, Hooks hooks,
                       asio::io_context& callbackIo)
    : m_id(id),
      m_hooks(hooks),
      m_owner(std::move(owner)),
      m_codec(std::move(codec)),
      m_peerAddr(EndpointText(peer)),
      m_callbacks(asio::make_strand(callbackIo)),
      m_socket(std::move(socket)),
      m_idleTimer(m_socket.get_executor()),
      m_closeTimer(m_socket.get_executor()) {
    std::error_code ec;
    auto local = m_socket.local_endpoint(ec);
    if (!ec) m_localAddr = EndpointText(local);
}

void Connection::Start() {
    // The stall time-out runs from the start when the codec waits for a request at once.
    asio::post(m_socket.get_executor(), [self = shared_from_this()] {
        self->TouchIdleTimer();
        self->DoRead();
    });
}

bool Connection::SendState(int state) {
    OutFrame frame;
    if (!m_codec->EncodeState(state, frame)) return false;
    Queue(std::move(frame));
    return true;
}

bool Connection::SendData(const uint8_t* data, size_t n) {
    OutFrame frame;
    if (!m_codec->EncodeData(data, n, frame)) return false;
    Queue(std::move(frame));
    return true;
}

void Connection::SendRaw(const uint8_t* data, size_t n) {
    if (n > 0) Queue(OutFrame{{}, std::vector<uint8_t>(data, data + n)});
}

void Connection::Queue(OutFrame frame) {
    asio::post(m_socket.get_executor(),
               [self = shared_from_this(), frame = std::move(frame)]() mutable {
                   self->Enqueue(std::move(frame));
               });
}

void Connection::Kill(int delayMs) {
    asio::post(m_socket.get_executor(),
               [self = shared_from_this(), delayMs] { self->RequestClose(delayMs); });
}

void Connection::Close() {
    asio::post(m_socket.get_executor(), [self = shared_from_this()] { self->CloseNow(nullptr); });
}

void Connection::CloseForBudget() {
    asio::post(m_socket.get_executor(), [self = shared_from_this()] {
        if (!self->m_closed) self->m_trimOnExit.store(true);
        self->CloseNow(
            "replies queued for all clients are over the budget; its queue is the longest");
        Engine::Get().BudgetTrimmed();
    });
}

// Freed queues leave their pages with the allocator; after a trim for the budget they go
// back to the system, so a burst of clients that never read does not keep the memory.
Connection::~Connection() {
    if (m_trimOnExit.load()) malloc_trim(0);
}

// ---- reading ----

// Left uninitialised: the pages of a large buffer cost memory only once reads reach them.
void Connection::GrowReadBuffer(size_t size) {
    m_readBuffer.reset(new uint8_t[size]);
    m_readSize = size;
}

void Connection::DoRead() {
    if (m_closed) return;
    if (!m_readBuffer) GrowReadBuffer(kReadStart);
    m_socket.async_read_some(
        asio::buffer(m_readBuffer.get(), m_readSize),
        [self = shared_from_this()](const std::error_code& ec, size_t n) { self->OnRead(ec, n); });
}

void Connection::OnRead(const std::error_code& ec, size_t n) {
    if (m_draining && !m_closed) {
        OnDrainRead(ec, n);
        return;
    }
    if (ec) {  // peer closed, reset, or our own close cancelled the read
        CloseNow(nullptr);
        return;
    }
    if (m_closed) return;
    const bool filled = n == m_readSize;
    bool delivered = false;
    bool intact =
        m_codec->Consume(m_readBuffer.get(), n, [this, &delivered](std::vector<uint8_t>&& message) {
            delivered = true;
            Deliver(std::move(message));
        });
    if (!intact) {
        Refuse();
        return;
    }
    TouchIdleTimer(delivered);
    if (filled && m_readSize < kReadMax) GrowReadBuffer(kReadMax);
    if (PauseForBacklog()) return;
    DoRead();
}

void Connection::Deliver(std::vector<uint8_t>&& message) {
    if (m_closing) return;
    if (m_hooks.dispatch == Dispatch::kOneShot) {
        DeliverRequest(std::move(message));
        return;
    }
    size_t bytes = message.size();
    m_backlogCount.fetch_add(1);
    m_backlogBytes.fetch_add(bytes);
    asio::post(m_callbacks, [self = shared_from_this(), message = std::move(message)]() mutable {
        self->RunCallback(message.data(), static_cast<int>(message.size()));
        self->MessageDone(message.size());
    });
}

void Connection::DeliverRequest(std::vector<uint8_t>&& message) {
    m_draining = true;
    m_unfinished.fetch_add(1);
    auto run = [self = shared_from_this(), message = std::move(message)]() mutable {
        if (!self->m_gone.load()) {
            self->RunCallback(message.data(), static_cast<int>(message.size()));
        }
        // Closes after the reply, unless the callback asked for a close of its own.
        asio::post(self->m_socket.get_executor(), [self] {
            if (!self->m_closing) self->RequestClose(0);
        });
        self->FinishOne();
    };
    Engine::Get().Workers().Submit(std::move(run));
}

// A stream the codec cannot read any further: answered first when the codec has an
// answer for it (an HTTP status), else closed at once.
void Connection::Refuse() {
    std::string reply = m_codec->ErrorReply();
    if (reply.empty()) {
        CloseNow(m_codec->Error().c_str());
        return;
    }
    printf("vornnet: client %d (%s): %s\n", m_id, m_peerAddr.c_str(), m_codec->Error().c_str());
    Enqueue(OutFrame{{}, std::vector<uint8_t>(reply.begin(), reply.end())});
    m_draining = true;
    RequestClose(0);
    DoRead();
}

void Connection::OnDrainRead(const std::error_code& ec, size_t n) {
    if (ec && ec != asio::error::eof) {  // reset: nobody is left to answer
        CloseNow(nullptr);
        return;
    }
    m_drainedBytes += n;
    if (!ec && m_drainedBytes <= kMaxDrainBytes) {
        DoRead();
        return;
    }
    // The end of stream may be a half-close by a peer still waiting for its answer, so it
    // does not close the connection; only a close already under way is finished now.
    m_readDone = true;
    if (m_closing && !m_writing) CloseNow(nullptr);
}

bool Connection::BacklogLow() const {
    return m_backlogCount.load() <= kBacklogLowCount && m_backlogBytes.load() <= kBacklogLowBytes;
}

// Whoever clears m_readPaused with exchange() restarts the read, so exactly one of this
// strand and the callback thread does it, whichever order they run in.
bool Connection::PauseForBacklog() {
    if (m_backlogCount.load() < kBacklogHighCount && m_backlogBytes.load() < kBacklogHighBytes) {
        return false;
    }
    m_readPaused.store(true);
    return !(BacklogLow() && m_readPaused.exchange(false));
}

void Connection::MessageDone(size_t bytes) {
    m_backlogCount.fetch_sub(1);
    m_backlogBytes.fetch_sub(bytes);
    if (BacklogLow() && m_readPaused.load() && m_readPaused.exchange(false)) {
        asio::post(m_socket.get_executor(), [self = shared_from_this()] { self->DoRead(); });
    }
}

// A client may sit silent between messages for as long as it likes, but a frame, once
// begun, must be whole within the stall time: a client that trickles a byte now and then
// would otherwise hold its connection forever. One timer is kept armed and re-checks the
// start of the pending frame when it fires, instead of being re-armed on every read.
void Connection::TouchIdleTimer(bool delivered) {
    const bool partial = m_codec->HasPartial();
    // A frame that began in this read (after the last one ended) starts its clock now.
    if (!m_framePending || delivered) m_frameStart = std::chrono::steady_clock::now();
    m_framePending = partial;
    if (m_idleArmed || !partial) return;
    m_idleArmed = true;
    m_idleTimer.expires_at(m_frameStart +
                           std::chrono::milliseconds(Engine::Get().FrameTimeoutMs()));
    m_idleTimer.async_wait(
        [self = shared_from_this()](const std::error_code& ec) { self->OnIdleTimer(ec); });
}

void Connection::OnIdleTimer(const std::error_code& ec) {
    m_idleArmed = false;
    if (ec || m_closed || !m_codec->HasPartial()) return;
    auto timeout = std::chrono::milliseconds(Engine::Get().FrameTimeoutMs());
    auto now = std::chrono::steady_clock::now();
    // While reading waits for a slow callback the delay is ours, not the client's.
    if (m_readPaused.load()) m_frameStart = now;
    if (now - m_frameStart >= timeout) {
        char why[80];
        snprintf(why, sizeof why, "frame not whole within %d ms",
                 static_cast<int>(timeout.count()));
        CloseNow(why);
        return;
    }
    m_idleArmed = true;
    m_idleTimer.expires_at(m_frameStart + timeout);
    m_idleTimer.async_wait(
        [self = shared_from_this()](const std::error_code& ec) { self->OnIdleTimer(ec); });
}

// ---- writing and closing ----

void Connection::Enqueue(OutFrame&& frame) {
    if (m_closed || m_closing) return;
    const size_t waiting = m_outQueue.empty() ? 0 : m_outBytes - m_outQueue.front().Size();
    if (waiting > 0 && waiting + frame.Size() > kMaxQueuedOutput) {
        CloseNow("client does not read its replies");
        return;
    }
    m_outBytes += frame.Size();
    m_queuedBytes.store(m_outBytes);
    Engine::Get().AddQueued(static_cast<int64_t>(frame.Size()));
    m_outQueue.push_back(std::move(frame));
    if (!m_writing) DoWrite();
}

void Connection::DoWrite() {
    m_writing = true;
    const OutFrame& front = m_outQueue.front();
    const std::array<asio::const_buffer, 2> parts{asio::buffer(front.head),
                                                  asio::buffer(front.body)};
    // Each write takes as much as the socket will, instead of asio's 64 KiB steps: a large
    // reply then costs a few system calls per socket buffer rather than one per step.
    auto asMuchAsFits = [](const std::error_code& ec, size_t) -> size_t {
        return ec ? 0 : std::numeric_limits<size_t>::max();
    };
    asio::async_write(
        m_socket, parts, asMuchAsFits,
        [self = shared_from_this()](const std::error_code& ec, size_t) { self->OnWrite(ec); });
}

void Connection::OnWrite(const std::error_code& ec) {
    m_writing = false;
    if (ec || m_closed) {
        CloseNow(nullptr);
        return;
    }
    m_outBytes -= m_outQueue.front().Size();
    m_queuedBytes.store(m_outBytes);
    Engine::Get().AddQueued(-static_cast<int64_t>(m_outQueue.front().Size()));
    m_outQueue.pop_front();
    if (!m_outQueue.empty()) {
        DoWrite();
    } else if (m_closing) {
        CloseWhenFlushed();
    }
}

void Connection::RequestClose(int delayMs) {
    if (m_closed) return;
    if (m_closing && delayMs >= m_closeDelayMs) return;  // an earlier close stands
    m_closing = true;
    m_closeDelayMs = delayMs;
    if (!m_writing) CloseWhenFlushed();
}

void Connection::CloseWhenFlushed() {
    if (m_closeDelayMs <= 0) {
        CloseFlushed();
        return;
    }
    m_closeTimer.expires_after(std::chrono::milliseconds(m_closeDelayMs));
    m_closeTimer.async_wait([self = shared_from_this()](const std::error_code& ec) {
        if (!ec) self->CloseFlushed();
    });
}

void Connection::CloseFlushed() {
    if (m_hooks.dispatch == Dispatch::kOneShot) {
        Linger();
    } else {
        CloseNow(nullptr);
    }
}

// Closing while request bytes are still unread would send a reset, which can destroy the
// reply before the client has read it. So the sending side is shut first (the client
// sees the end of the reply) and the client gets a moment to hang up itself.
void Connection::Linger() {
    if (m_readDone || !m_draining) {
        CloseNow(nullptr);
        return;
    }
    std::error_code ignored;
    m_socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    m_closeTimer.expires_after(kLinger);
    m_closeTimer.async_wait([self = shared_from_this()](const std::error_code& ec) {
        if (!ec) self->CloseNow(nullptr);
    });
}

void Connection::CloseNow(const char* why) {
    if (m_closed) return;
    m_closed = true;
    m_closing = true;
    if (why) printf("vornnet: client %d (%s) closed: %s\n", m_id, m_peerAddr.c_str(), why);
    std::error_code ignored;
    m_socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    m_socket.close(ignored);
    m_idleTimer.cancel();
    m_closeTimer.cancel();
    // What is still queued no longer counts; it is freed with the connection.
    Engine::Get().AddQueued(-static_cast<int64_t>(m_outBytes));
    m_outBytes = 0;
    m_queuedBytes.store(0);
    Engine::Get().UnregisterClient(m_id);
    m_gone.store(true);
    if (m_hooks.dispatch == Dispatch::kOneShot) {
        FinishOne();
        return;
    }
    // Queued behind every message already handed over, so it is the last callback.
    asio::post(m_callbacks, [self = shared_from_this()] {
        self->RunCallback(nullptr, 0);
        self->m_owner->ConnectionFinished(self->m_id);
    });
}

void Connection::FinishOne() {
    if (m_unfinished.fetch_sub(1) == 1) m_owner->ConnectionFinished(m_id);
}

void Connection::RunCallback(unsigned char* data, int length) {
    CallbackScope scope;
    try {
        m_hooks.callback(m_id, data, length, m_hooks.user);
    } catch (...) {
        printf("vornnet: callback for client %d threw; ignored\n", m_id);
    }
}

}  // namespace vorn
