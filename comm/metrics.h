// Counters and gauges of the server, served as text on GET /metrics (Prometheus text
// format 0.0.4).
//
// A family is one metric name with fixed label names; every distinct set of label values
// is one series, made on first use and never removed, so a Series& stays valid for the
// life of the family. Values are atomics: counting on an existing series takes the
// family's lock shared for the look-up only, and the exclusive lock is taken once per new
// series. Families live as long as their registry; the default registry lives as long as
// the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace metrics {

enum class Kind { Counter, Gauge };

class Series {
public:
    void Add(int64_t n = 1) { m_value.fetch_add(n, std::memory_order_relaxed); }
    void Set(int64_t v) { m_value.store(v, std::memory_order_relaxed); }
    int64_t Value() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<int64_t> m_value{0};
};

class Family {
public:
    Family(std::string_view name, std::string_view help, Kind kind,
           std::vector<std::string> labelNames);
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;

    // The series of `values`, one per label name in order (missing ones read as "", extra
    // ones are ignored).
    Series& With(std::initializer_list<std::string_view> values = {});
    // Appends the HELP and TYPE lines and one line per series, in label order.
    void Render(std::string& out) const;
    const std::string& Name() const { return m_name; }

private:
    struct Entry {
        std::vector<std::string> values;
        std::unique_ptr<Series> series;
    };

    // Fixed at construction.
    const std::string m_name;
    const std::string m_help;
    const Kind m_kind;
    const std::vector<std::string> m_labelNames;

    mutable std::shared_mutex m_cs;  // guards the map m_series (not the values in it)
    std::map<std::string, Entry, std::less<>> m_series;  // key: the values joined by 0x1F
};

class Registry {
public:
    // The family named `name`, made on the first call; later calls with that name return
    // the same family (help, kind and labels of the first call stand).
    Family& Get(std::string_view name, std::string_view help, Kind kind,
                std::vector<std::string> labelNames = {});
    // Every family in the order they were made.
    std::string Render() const;

private:
    mutable std::mutex m_cs;                          // guards m_families
    std::vector<std::unique_ptr<Family>> m_families;  // never shrinks
};

// The registry behind /metrics.
Registry& Default();

// ---- The server's counters: one call where each thing happens ----
// Makes every family below, so that a scrape lists them before anything was counted.
void RegisterServerMetrics();
// A database operation ("connect", "execute", "query") and whether it succeeded.
void CountDbOperation(const char* op, bool ok);
// An event record taken from a message or a link, by the class in the top byte of its type.
void CountEventReceived(uint32_t eventType);
// A log row written to `table`.
void CountRowWritten(const char* table);
// A message from a client of the message port (the first one counts the client as
// connected) and that client's disconnect.
void CountClientMessage(int clientId);
void CountClientGone(int clientId);
// One HTTP command by keyword and result ("ok", "fail", "bad" for an empty query).
void CountHttpCommand(const char* command, const char* result);

// Seconds since 1970 when the process started.
int64_t ProcessStartTime();

}  // namespace metrics
