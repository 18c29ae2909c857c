// Work of message clients that may block for long (database round trips, requests to
// sub-servers that may not answer) runs here, off the listener's few callback threads, so
// that one slow client never delays the answers of the others.
//
// Each client has its own queue: its tasks run one at a time, in the order they were
// posted. Different clients run in parallel on a bounded set of threads, taken in the order
// in which clients became ready.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

class ClientQueues {
public:
    // A client with this many tasks waiting makes Post wait (see there).
    static constexpr size_t kMaxWaiting = 64;

    // At most `maxThreads` threads, started when work comes.
    explicit ClientQueues(size_t maxThreads);
    // Runs what is queued, then ends the threads.
    ~ClientQueues();
    ClientQueues(const ClientQueues&) = delete;
    ClientQueues& operator=(const ClientQueues&) = delete;

    // Queues `task` behind every earlier task of `clientId`. With `mayWait`, waits while the
    // client already has kMaxWaiting tasks waiting: the listener then stops reading from that
    // client, so a flood cannot eat memory. Never call it with `mayWait` from a task of the
    // same client. Tasks must not throw.
    void Post(int clientId, std::function<void()> task, bool mayWait = true);
    // True while `clientId` has a task waiting or running.
    bool Busy(int clientId);
    // Returns once every task posted before or during the call has run. Never call it from a
    // task.
    void Drain();

private:
    struct Client {
        std::deque<std::function<void()>> waiting;
        bool running = false;
    };
    void Work();
    void StartThreadIfNeeded();  // m_mutex held

    const size_t m_maxThreads;

    std::mutex m_mutex;                         // guards everything below
    std::condition_variable m_wake;             // a client became ready, or the threads must end
    std::condition_variable m_change;           // a task ended: room in a queue, or a client done
    std::unordered_map<int, Client> m_clients;  // only clients with work
    std::deque<int> m_ready;                    // clients with waiting work and none running
    std::vector<std::thread> m_threads;
    size_t m_idle = 0;  // threads waiting for a ready client
    bool m_stop = false;
};
