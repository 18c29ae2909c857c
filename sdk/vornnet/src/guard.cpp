#include "guard.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstring>

namespace vorn {

namespace {

// Descriptors kept out of the connection limit for the database connections, the file
// store, media jobs and the process's own files.
constexpr rlim_t kReservedDescriptors = 256;
constexpr auto kPrintEvery = std::chrono::minutes(1);

std::array<uint8_t, 16> Bytes(const asio::ip::address& address) {
    if (address.is_v6()) return address.to_v6().to_bytes();
    return asio::ip::make_address_v6(asio::ip::v4_mapped, address.to_v4()).to_bytes();
}

bool ParseNet(const std::string& entry, std::array<uint8_t, 16>& bytes, int& prefix) {
    const size_t slash = entry.find('/');
    std::error_code ec;
    const asio::ip::address address = asio::ip::make_address(entry.substr(0, slash), ec);
    if (ec) return false;
    const int bits = address.is_v4() ? 32 : 128;
    int n = bits;
    if (slash != std::string::npos) {
        const std::string digits = entry.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        n = std::stoi(digits);
        if (n > bits) return false;
    }
    bytes = Bytes(address);
    prefix = n + (128 - bits);
    return true;
}

bool Matches(const std::array<uint8_t, 16>& net, int prefix, const std::array<uint8_t, 16>& a) {
    const int whole = prefix / 8;
    if (std::memcmp(net.data(), a.data(), static_cast<size_t>(whole)) != 0) return false;
    const int rest = prefix % 8;
    if (rest == 0) return true;
    const uint8_t mask = static_cast<uint8_t>(0xff << (8 - rest));
    return (net[whole] & mask) == (a[whole] & mask);
}

}  // namespace

bool NetworkList::Parse(const std::string& text, std::string& bad) {
    std::vector<Net> nets;
    size_t pos = 0;
    const char* separators = " \t\r\n,;";
    while ((pos = text.find_first_not_of(separators, pos)) != std::string::npos) {
        const size_t end = text.find_first_of(separators, pos);
        const std::string entry = text.substr(pos, end - pos);
        pos = end;
        Net net{};
        if (!ParseNet(entry, net.bytes, net.prefix)) {
            bad = entry;
            return false;
        }
        nets.push_back(net);
    }
    m_nets.swap(nets);
    return true;
}

bool NetworkList::Allows(const asio::ip::address& address) const {
    if (m_nets.empty()) return true;
    const auto bytes = Bytes(address);
    for (const Net& net : m_nets)
        if (Matches(net.bytes, net.prefix, bytes)) return true;
    return false;
}

bool Guard::SetAllowList(int port, const std::string& text) {
    auto list = std::make_shared<NetworkList>();
    std::string bad;
    if (!list->Parse(text, bad)) {
        printf("vornnet: allow-list of port %d: cannot read \"%s\"\n", port, bad.c_str());
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (list->Empty()) {
        m_lists.erase(port);
    } else {
        m_lists[port] = std::move(list);
    }
    return true;
}

bool Guard::Allows(int port, const asio::ip::address& address) {
    std::shared_ptr<const NetworkList> list;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_lists.find(port);
        if (it == m_lists.end()) return true;
        list = it->second;
    }
    return list->Allows(address);
}

bool Guard::ShouldPrint(const asio::ip::address& address) {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    // Old entries go once a minute, so a scan from many addresses cannot grow the table.
    if (now - m_lastPrune >= kPrintEvery) {
        for (auto it = m_printed.begin(); it != m_printed.end();) {
            it = now - it->second >= kPrintEvery ? m_printed.erase(it) : std::next(it);
        }
        m_lastPrune = now;
    }
    auto [it, added] = m_printed.emplace(address.to_string(), now);
    if (added) return true;
    if (now - it->second < kPrintEvery) return false;
    it->second = now;
    return true;
}

void Guard::SetMaxClients(int n) { m_maxClients.store(n > 0 ? n : 10000); }

// The limit of the settings, further bounded by what the descriptor limit leaves after
// the reserve.
int Guard::Capacity() {
    int limit = m_maxClients.load();
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY) {
        const rlim_t room = rl.rlim_cur > kReservedDescriptors ? rl.rlim_cur - kReservedDescriptors
                                                               : rl.rlim_cur / 2;
        if (room < static_cast<rlim_t>(limit)) limit = static_cast<int>(room);
    }
    return limit;
}

bool Guard::Reserve() {
    const int capacity = Capacity();
    int open = m_open.load();
    do {
        if (open >= capacity) return false;
    } while (!m_open.compare_exchange_weak(open, open + 1));
    return true;
}

void Guard::Release() { m_open.fetch_sub(1); }

}  // namespace vorn
