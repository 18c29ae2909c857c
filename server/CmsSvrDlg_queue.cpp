#include "server/CmsSvrDlg_queue.h"

#include <cstdio>
#include <system_error>
#include <utility>

ClientQueues::ClientQueues(size_t maxThreads) : m_maxThreads(maxThreads ? maxThreads : 1) {}

ClientQueues::~ClientQueues() {
    Drain();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread& t : m_threads) t.join();
}

void ClientQueues::StartThreadIfNeeded() {
    if (m_ready.size() <= m_idle || m_threads.size() >= m_maxThreads) return;
    try {
        m_threads.emplace_back(&ClientQueues::Work, this);
    } catch (const std::system_error& error) {
        // The work waits for a thread that runs already.
        printf("cannot start a client worker: %s\n", error.what());
    }
}

void ClientQueues::Post(int clientId, std::function<void()> task, bool mayWait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (mayWait)
        m_change.wait(lock, [&] {
            auto it = m_clients.find(clientId);
            return it == m_clients.end() || it->second.waiting.size() < kMaxWaiting;
        });
    Client& c = m_clients[clientId];
    c.waiting.push_back(std::move(task));
    if (c.running || c.waiting.size() > 1) return;  // already ready or running
    m_ready.push_back(clientId);
    StartThreadIfNeeded();
    m_wake.notify_one();
}

bool ClientQueues::Busy(int clientId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_clients.count(clientId) != 0;
}

void ClientQueues::Drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_change.wait(lock, [this] { return m_clients.empty(); });
}

void ClientQueues::Work() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        ++m_idle;
        m_wake.wait(lock, [this] { return m_stop || !m_ready.empty(); });
        --m_idle;
        if (m_ready.empty()) return;  // stopping with nothing left
        const int id = m_ready.front();
        m_ready.pop_front();
        Client& c = m_clients[id];
        std::function<void()> task = std::move(c.waiting.front());
        c.waiting.pop_front();
        c.running = true;
        if (c.waiting.size() + 1 == kMaxWaiting) m_change.notify_all();  // room for a poster
        lock.unlock();
        task();
        task = nullptr;  // what the task holds goes before the client counts as done
        lock.lock();
        c.running = false;  // references into the map outlive a rehash
        if (c.waiting.empty()) {
            m_clients.erase(id);
        } else {
            // Behind the other ready clients, so one busy client cannot starve them.
            m_ready.push_back(id);
        }
        m_change.notify_all();
    }
}
