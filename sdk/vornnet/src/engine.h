// The threads of the listener library and its tables of listeners and clients.
#pragma once

#include <asio.hpp>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "guard.h"
#include "workerpool.h"

namespace vorn {

class Connection;
class Listener;

// One per process, created on first use and never destroyed: I/O threads may still be
// running when the process exits, and they must not outlive the objects they use.
class Engine {
public:
    static Engine& Get();

    // Starts the threads unless they run already.
    void Start();
    // Stops every listener (waiting for their last callbacks) and joins the threads. Must
    // not race with other calls into the library; ignored inside a callback.
    void Shutdown();

    asio::io_context& Io() { return m_io; }
    asio::io_context& CallbackIo() { return m_callbackIo; }
    // Runs the callbacks of one-request connections (HTTP).
    WorkerPool& Workers() { return m_workers; }

    int AddListener(std::shared_ptr<Listener> listener);
    std::shared_ptr<Listener> FindListener(int id);
    std::shared_ptr<Listener> TakeListener(int id);

    // Client ids are positive and never handed out twice in a process.
    int NextClientId() { return m_nextClientId.fetch_add(1); }
    void RegisterClient(int id, const std::shared_ptr<Connection>& connection);
    void UnregisterClient(int id);
    std::shared_ptr<Connection> FindClient(int id);

    // Allow-lists and the connection limit, shared by every listener.
    Guard& Access() { return m_guard; }

    // Bytes of replies queued on every connection together. When an addition takes the
    // total over the budget, the client with the longest queue is closed.
    void AddQueued(int64_t bytes);
    void BudgetTrimmed();
    void SetReplyBudget(int64_t bytes) { m_replyBudget.store(bytes); }

    int FrameTimeoutMs() const { return m_frameTimeoutMs.load(); }
    void SetFrameTimeoutMs(int ms) { m_frameTimeoutMs.store(ms); }

private:
    Engine() = default;
    using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;

    static constexpr int kIoThreads = 2;
    static constexpr int kCallbackThreads = 4;
    static constexpr int kDefaultFrameTimeoutMs = 30000;
    static constexpr size_t kMaxRequestWorkers = 256;
    static constexpr int64_t kDefaultReplyBudget = int64_t{256} << 20;

    asio::io_context m_io;          // sockets, timers
    asio::io_context m_callbackIo;  // user callbacks of message connections
    WorkerPool m_workers{kMaxRequestWorkers};
    Guard m_guard;

    std::mutex m_lifeMutex;  // guards the threads and work guards
    std::optional<WorkGuard> m_ioWork;
    std::optional<WorkGuard> m_callbackWork;
    std::vector<std::thread> m_threads;

    std::mutex m_mutex;  // guards m_listeners and m_clients
    std::map<int, std::shared_ptr<Listener>> m_listeners;
    std::unordered_map<int, std::weak_ptr<Connection>> m_clients;

    std::atomic<int> m_nextListenerId{1};
    std::atomic<int> m_nextClientId{1};
    std::atomic<int> m_frameTimeoutMs{kDefaultFrameTimeoutMs};
    std::atomic<int64_t> m_queuedBytes{0};
    std::atomic<int64_t> m_replyBudget{kDefaultReplyBudget};
    std::atomic<bool> m_trimming{false};  // a client is being closed for the budget
};

}  // namespace vorn
