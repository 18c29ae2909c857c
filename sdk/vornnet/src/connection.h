// One accepted client of a listener.
#pragma once

#include <array>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "VornNetSDK.h"
#include "framecodec.h"

namespace vorn {

class Listener;

// Where a listener's callbacks go: fixed when the listener starts.
struct Hooks {
    VornServerCallBack callback = nullptr;
    void* user = nullptr;
    Dispatch dispatch = Dispatch::kStream;
};

// True on a thread while it runs a user callback (such a thread must never wait for
// callbacks to finish).
bool InCallback();

// Socket work runs on the socket's strand (an I/O thread); user callbacks run on a strand
// of the callback pool, so one client's callbacks never overlap, keep the order in which
// its messages arrived, and a slow callback never stalls the socket work of other clients.
// A one-request connection (Dispatch::kOneShot) runs its single callback on a worker
// thread of its own instead, then closes once the reply is written.
// The public operations may be called from any thread: they only queue work.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    // `socket` must already run on a strand of its own; `peer` is its remote end.
    Connection(int id, asio::ip::tcp::socket socket, const asio::ip::tcp::endpoint& peer,
               std::unique_ptr<Codec> codec, std::shared_ptr<Listener> owner, Hooks hooks,
               asio::io_context& callbackIo);

    void Start();
    // False when the reply cannot be encoded (too large); nothing is queued then.
    bool SendState(int state);
    bool SendData(const uint8_t* data, size_t n);
    void SendRaw(const uint8_t* data, size_t n);
    // Closes once the queued replies have been written and `delayMs` more have passed.
    // Later messages of this client are no longer delivered, later replies are dropped.
    void Kill(int delayMs);
    // Closes now; queued replies are dropped.
    void Close();
    // Closes now because the replies queued for all clients are over the budget; the
    // memory is handed back to the system once this connection is gone.
    void CloseForBudget();
    size_t QueuedBytes() const { return m_queuedBytes.load(); }
    ~Connection();

    int Id() const { return m_id; }
    const std::string& PeerAddr() const { return m_peerAddr; }
    const std::string& LocalAddr() const { return m_localAddr; }

private:
    void Queue(OutFrame frame);
    // On the socket's strand:
    void GrowReadBuffer(size_t size);
    void DoRead();
    void OnRead(const std::error_code& ec, size_t n);
    void Deliver(std::vector<uint8_t>&& message);
    void DeliverRequest(std::vector<uint8_t>&& message);
    void Refuse();
    void OnDrainRead(const std::error_code& ec, size_t n);
    bool PauseForBacklog();
    // `delivered`: the read just handled completed at least one message.
    void TouchIdleTimer(bool delivered = false);
    void OnIdleTimer(const std::error_code& ec);
    void Enqueue(OutFrame&& frame);
    void DoWrite();
    void OnWrite(const std::error_code& ec);
    void RequestClose(int delayMs);
    void CloseWhenFlushed();
    void CloseFlushed();
    void Linger();
    void CloseNow(const char* why);
    // On the callback strand, or a worker for a one-request connection:
    void RunCallback(unsigned char* data, int length);
    void MessageDone(size_t bytes);
    bool BacklogLow() const;
    // Any thread: one of the close and the request's callback is over.
    void FinishOne();

    // Fixed after construction.
    const int m_id;
    const Hooks m_hooks;
    const std::shared_ptr<Listener> m_owner;
    const std::unique_ptr<Codec> m_codec;  // Consume on the socket strand; encoders anywhere
    std::string m_peerAddr;
    std::string m_localAddr;
    asio::strand<asio::io_context::executor_type> m_callbacks;

    // Socket strand only.
    asio::ip::tcp::socket m_socket;
    asio::steady_timer m_idleTimer;
    asio::steady_timer m_closeTimer;
    // Small until a read fills it: thousands of idle clients then cost little memory,
    // and a client sending large frames still reads them in big steps.
    std::unique_ptr<uint8_t[]> m_readBuffer;
    size_t m_readSize = 0;
    std::chrono::steady_clock::time_point m_frameStart;  // of the pending frame
    bool m_framePending = false;
    bool m_idleArmed = false;
    std::deque<OutFrame> m_outQueue;  // front is being written while m_writing
    size_t m_outBytes = 0;            // bytes of every frame in m_outQueue
    bool m_writing = false;
    bool m_closing = false;  // a kill was requested
    int m_closeDelayMs = 0;
    bool m_closed = false;
    // One-request connections: once the request is taken (or refused), further input is
    // read and dropped, so closing never finds unread bytes that would turn it into a
    // reset; reading stops at the peer's end of stream or after kMaxDrainBytes.
    bool m_draining = false;
    bool m_readDone = false;
    size_t m_drainedBytes = 0;

    // One-request connections: the close and the callback of a delivered request; the
    // listener hears of the end when both are over, whichever comes last.
    std::atomic<int> m_unfinished{1};
    // Set when closed; a request still waiting for a worker is then dropped.
    std::atomic<bool> m_gone{false};

    // Messages handed to the callback strand and not yet processed. Reading pauses while
    // the backlog is high, so a client that floods a slow callback cannot eat memory.
    std::atomic<size_t> m_backlogCount{0};
    std::atomic<size_t> m_backlogBytes{0};
    std::atomic<bool> m_readPaused{false};

    // m_outBytes as seen from other threads, for the reply budget.
    std::atomic<size_t> m_queuedBytes{0};
    std::atomic<bool> m_trimOnExit{false};
};

}  // namespace vorn
