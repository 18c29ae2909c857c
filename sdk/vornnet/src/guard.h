// Who may connect: allow-lists of client networks per port, the refusal log, and the
// limit on open connections.
#pragma once

#include <array>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace vorn {

// A set of networks written "a.b.c.d/n", "x:y::/n" or a bare address (a host), separated
// by blanks, commas or semicolons. An empty list allows everyone.
class NetworkList {
public:
    // False (and the list unchanged) when an entry cannot be read; `bad` names it.
    bool Parse(const std::string& text, std::string& bad);
    bool Allows(const asio::ip::address& address) const;
    bool Empty() const { return m_nets.empty(); }

private:
    struct Net {
        std::array<uint8_t, 16> bytes;  // IPv4 networks as IPv4-mapped IPv6
        int prefix;                     // of the 128 bits
    };
    std::vector<Net> m_nets;
};

// Allow-lists by port, the refusal log and the connection limit of the process.
class Guard {
public:
    // Replaces the list of `port`; listeners on it use the new one from their next accept.
    bool SetAllowList(int port, const std::string& text);
    bool Allows(int port, const asio::ip::address& address);

    // True when `address` was not printed in the last minute; then it counts as printed.
    bool ShouldPrint(const asio::ip::address& address);

    // Open connections of every listener. Reserve() fails when the limit is reached.
    void SetMaxClients(int n);
    bool Reserve();
    void Release();
    int OpenClients() const { return m_open.load(); }

private:
    int Capacity();

    std::mutex m_mutex;  // guards everything below but the atomics
    std::map<int, std::shared_ptr<const NetworkList>> m_lists;
    std::unordered_map<std::string, std::chrono::steady_clock::time_point> m_printed;
    std::chrono::steady_clock::time_point m_lastPrune{};

    std::atomic<int> m_maxClients{10000};
    std::atomic<int> m_open{0};
};

}  // namespace vorn
