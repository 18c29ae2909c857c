// Threads for callbacks that may block for long (HTTP requests that wait on a remote
// peer). Every task in flight has a thread of its own, started on demand up to a cap;
// tasks beyond the cap wait in the order they came. A thread that finds no task for a
// while ends, so a burst does not leave its threads behind.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace vorn {

class WorkerPool {
public:
    explicit WorkerPool(size_t maxThreads) : m_maxThreads(maxThreads) {}
    ~WorkerPool() { Drain(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Queues `task`. Tasks must not throw.
    void Submit(std::function<void()> task);
    // Runs every queued task, waits for the running ones and joins every thread; Submit
    // may be used again afterwards. Never call it from a task.
    void Drain();

private:
    using Threads = std::list<std::thread>;
    void Work(Threads::iterator self);
    void JoinEnded();

    const size_t m_maxThreads;

    std::mutex m_mutex;                 // guards everything below
    std::condition_variable m_wake;     // a task came, or Drain started
    std::condition_variable m_stopped;  // a thread ended during Drain
    std::deque<std::function<void()>> m_tasks;
    Threads m_threads;  // running threads
    Threads m_ended;    // threads that have left Work, still to be joined
    size_t m_busy = 0;  // threads inside a task
    bool m_draining = false;
};

}  // namespace vorn
