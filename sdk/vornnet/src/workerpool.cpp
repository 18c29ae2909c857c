#include "workerpool.h"

#include <chrono>
#include <cstdio>
#include <system_error>

#include "priority.h"

namespace vorn {

namespace {
// How long an idle thread waits for another task before it ends.
constexpr auto kIdleLife = std::chrono::seconds(10);
}  // namespace

void WorkerPool::Submit(std::function<void()> task) {
    JoinEnded();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_tasks.push_back(std::move(task));
    size_t free = m_threads.size() - m_busy;
    if (m_tasks.size() > free && m_threads.size() < m_maxThreads) {
        try {
            auto self = m_threads.emplace(m_threads.end());
            // The new thread starts by taking m_mutex, so it sees itself in the list.
            *self = std::thread(&WorkerPool::Work, this, self);
        } catch (const std::system_error& error) {
            m_threads.pop_back();
            // The task waits for a thread that is running already, or for the next Submit.
            printf("vornnet: cannot start a worker thread: %s\n", error.what());
        }
    }
    m_wake.notify_one();
}

void WorkerPool::Work(Threads::iterator self) {
    KeepProcessPriority();  // started from a raised I/O thread; requests are ordinary work
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait_for(lock, kIdleLife, [this] { return !m_tasks.empty() || m_draining; });
        if (m_tasks.empty()) break;  // idle for long enough, or draining with nothing left
        std::function<void()> task = std::move(m_tasks.front());
        m_tasks.pop_front();
        ++m_busy;
        lock.unlock();
        task();
        task = nullptr;  // what the task holds goes before the pool counts it done
        lock.lock();
        --m_busy;
    }
    m_ended.splice(m_ended.end(), m_threads, self);
    m_stopped.notify_all();
}

void WorkerPool::JoinEnded() {
    Threads ended;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ended.swap(m_ended);
    }
    for (std::thread& thread : ended) thread.join();
}

void WorkerPool::Drain() {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_draining = true;
        m_wake.notify_all();
        // A queued task with no thread left (starting one failed) still runs here.
        while (!m_tasks.empty() && m_threads.empty()) {
            std::function<void()> task = std::move(m_tasks.front());
            m_tasks.pop_front();
            lock.unlock();
            task();
            lock.lock();
        }
        m_stopped.wait(lock, [this] { return m_threads.empty(); });
        m_draining = false;
    }
    JoinEnded();
}

}  // namespace vorn
