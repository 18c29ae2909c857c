#include "engine.h"

#include <cstdio>

#include "connection.h"
#include "listener.h"
#include "priority.h"

namespace vorn {

Engine& Engine::Get() {
    static Engine* engine = new Engine;  // deliberately leaked, see engine.h
    return *engine;
}

void Engine::Start() {
    std::lock_guard<std::mutex> lock(m_lifeMutex);
    if (!m_threads.empty()) return;
    m_ioWork.emplace(m_io.get_executor());
    m_callbackWork.emplace(m_callbackIo.get_executor());
    for (int i = 0; i < kIoThreads; ++i) {
        m_threads.emplace_back([this] {
            RaiseNetworkPriority();
            m_io.run();
        });
    }
    for (int i = 0; i < kCallbackThreads; ++i) {
        m_threads.emplace_back([this] { m_callbackIo.run(); });
    }
}

void Engine::Shutdown() {
    if (InCallback()) {
        puts("vornnet: destroy ignored inside a callback");
        return;
    }
    std::map<int, std::shared_ptr<Listener>> listeners;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        listeners.swap(m_listeners);
    }
    for (auto& entry : listeners) entry.second->Stop();
    // Requests of a listener stopped from inside a callback may still run; they post
    // their closes to m_io, so they finish before its threads are told to end.
    m_workers.Drain();

    std::lock_guard<std::mutex> lock(m_lifeMutex);
    // With every client closed nothing keeps the contexts busy, so the threads end once
    // the work guards are gone.
    m_ioWork.reset();
    m_callbackWork.reset();
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    m_io.restart();
    m_callbackIo.restart();
}

int Engine::AddListener(std::shared_ptr<Listener> listener) {
    int id = m_nextListenerId.fetch_add(1);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_listeners.emplace(id, std::move(listener));
    return id;
}

std::shared_ptr<Listener> Engine::FindListener(int id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_listeners.find(id);
    return it == m_listeners.end() ? nullptr : it->second;
}

std::shared_ptr<Listener> Engine::TakeListener(int id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_listeners.find(id);
    if (it == m_listeners.end()) return nullptr;
    std::shared_ptr<Listener> listener = std::move(it->second);
    m_listeners.erase(it);
    return listener;
}

void Engine::RegisterClient(int id, const std::shared_ptr<Connection>& connection) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clients[id] = connection;
}

void Engine::UnregisterClient(int id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.erase(id);
}

void Engine::AddQueued(int64_t bytes) {
    const int64_t total = m_queuedBytes.fetch_add(bytes) + bytes;
    if (bytes <= 0 || total <= m_replyBudget.load() || m_trimming.exchange(true)) return;
    std::shared_ptr<Connection> largest;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t most = 0;
        for (auto& entry : m_clients) {
            auto client = entry.second.lock();
            if (client && client->QueuedBytes() > most) {
                most = client->QueuedBytes();
                largest = std::move(client);
            }
        }
    }
    // A lone client's reply may exceed the budget (a whole-catalogue list does): only
    // memory held for several clients at once is the danger the budget guards against.
    if (largest && static_cast<int64_t>(largest->QueuedBytes()) < total) {
        largest->CloseForBudget();  // clears m_trimming once closed
    } else {
        m_trimming.store(false);
    }
}

void Engine::BudgetTrimmed() { m_trimming.store(false); }

std::shared_ptr<Connection> Engine::FindClient(int id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_clients.find(id);
    return it == m_clients.end() ? nullptr : it->second.lock();
}

}  // namespace vorn
