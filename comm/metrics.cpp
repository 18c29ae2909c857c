#include "comm/metrics.h"

#include <ctime>
#include <unordered_set>

#include "comm/msgdefine.h"

namespace metrics {

namespace {

constexpr char kKeySeparator = '\x1f';

// Read once while static objects are made, which for the daemon is its start.
const int64_t g_startTime = static_cast<int64_t>(std::time(nullptr));

// Backslash and newline are escaped in help texts; label values also escape the quote.
void AppendEscaped(std::string& out, std::string_view text, bool quote) {
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '"' && quote)
            out += "\\\"";
        else
            out += c;
    }
}

// Message-port clients that have sent something and not yet gone.
std::mutex csClients;  // guards g_clients
std::unordered_set<int> g_clients;

// The families the hooks below count in, made together on first use.
struct ServerFamilies {
    Family& dbOps;
    Family& dbFailures;
    Family& events;
    Family& rows;
    Family& clients;
    Family& connects;
    Family& disconnects;
    Family& http;
};

const ServerFamilies& Families() {
    Registry& r = Default();
    static const ServerFamilies f{
        r.Get("cms_db_operations_total", "Database operations by kind.", Kind::Counter, {"op"}),
        r.Get("cms_db_operation_failures_total", "Database operations that failed.", Kind::Counter,
              {"op"}),
        r.Get("cms_events_received_total", "Event records received, by event class.", Kind::Counter,
              {"class"}),
        r.Get("cms_event_rows_written_total", "Log rows written, by table.", Kind::Counter,
              {"table"}),
        r.Get("cms_message_clients", "Clients connected to the message port.", Kind::Gauge),
        r.Get("cms_message_client_connects_total",
              "Clients of the message port seen for the first time.", Kind::Counter),
        r.Get("cms_message_client_disconnects_total", "Clients of the message port that went away.",
              Kind::Counter),
        r.Get("cms_http_requests_total", "HTTP commands by keyword and result.", Kind::Counter,
              {"command", "result"}),
    };
    return f;
}

const char* OrEmpty(const char* text) { return text ? text : ""; }

const char* EventClassName(uint32_t eventType) {
    switch (eventType & 0xFF000000u) {
        case EVENT_CLASS_DEVSTATE:
            return "devstate";
        case EVENT_CLASS_INTV:
            return "intv";
        case EVENT_CLASS_DIAGNOSE:
            return "diagnose";
        default:
            return "other";
    }
}

}  // namespace

Family::Family(std::string_view name, std::string_view help, Kind kind,
               std::vector<std::string> labelNames)
    : m_name(name), m_help(help), m_kind(kind), m_labelNames(std::move(labelNames)) {}

Series& Family::With(std::initializer_list<std::string_view> values) {
    std::vector<std::string> v(m_labelNames.size());
    std::string key;
    auto it = values.begin();
    for (size_t i = 0; i < v.size(); ++i) {
        if (it != values.end()) v[i] = *it++;
        if (i) key += kKeySeparator;
        key += v[i];
    }
    {
        std::shared_lock<std::shared_mutex> lock(m_cs);
        auto found = m_series.find(key);
        if (found != m_series.end()) return *found->second.series;
    }
    std::unique_lock<std::shared_mutex> lock(m_cs);
    auto [pos, added] = m_series.try_emplace(key);
    if (added) pos->second = Entry{std::move(v), std::make_unique<Series>()};
    return *pos->second.series;
}

void Family::Render(std::string& out) const {
    out += "# HELP " + m_name + " ";
    AppendEscaped(out, m_help, false);
    out += "\n# TYPE " + m_name + (m_kind == Kind::Counter ? " counter\n" : " gauge\n");
    std::shared_lock<std::shared_mutex> lock(m_cs);
    for (const auto& [key, entry] : m_series) {
        out += m_name;
        for (size_t i = 0; i < m_labelNames.size(); ++i) {
            out += i ? "," : "{";
            out += m_labelNames[i] + "=\"";
            AppendEscaped(out, entry.values[i], true);
            out += '"';
        }
        if (!m_labelNames.empty()) out += '}';
        out += ' ' + std::to_string(entry.series->Value()) + '\n';
    }
}

Family& Registry::Get(std::string_view name, std::string_view help, Kind kind,
                      std::vector<std::string> labelNames) {
    std::lock_guard<std::mutex> lock(m_cs);
    for (const auto& f : m_families)
        if (f->Name() == name) return *f;
    m_families.push_back(std::make_unique<Family>(name, help, kind, std::move(labelNames)));
    return *m_families.back();
}

std::string Registry::Render() const {
    std::string out;
    std::lock_guard<std::mutex> lock(m_cs);
    for (const auto& f : m_families) f->Render(out);
    return out;
}

// Never destroyed: detached threads (the spool's replay) may still count while the
// process exits.
Registry& Default() {
    static Registry* registry = new Registry;
    return *registry;
}

void RegisterServerMetrics() {
    const ServerFamilies& f = Families();
    // Unlabelled series read 0 until the first count rather than being absent.
    f.clients.With();
    f.connects.With();
    f.disconnects.With();
}

void CountDbOperation(const char* op, bool ok) {
    Families().dbOps.With({OrEmpty(op)}).Add();
    if (!ok) Families().dbFailures.With({OrEmpty(op)}).Add();
}

void CountEventReceived(uint32_t eventType) {
    Families().events.With({EventClassName(eventType)}).Add();
}

void CountRowWritten(const char* table) { Families().rows.With({OrEmpty(table)}).Add(); }

void CountClientMessage(int clientId) {
    std::lock_guard<std::mutex> lock(csClients);
    if (!g_clients.insert(clientId).second) return;
    Families().connects.With().Add();
    Families().clients.With().Set(static_cast<int64_t>(g_clients.size()));
}

void CountClientGone(int clientId) {
    std::lock_guard<std::mutex> lock(csClients);
    if (g_clients.erase(clientId) == 0) return;
    Families().disconnects.With().Add();
    Families().clients.With().Set(static_cast<int64_t>(g_clients.size()));
}

void CountHttpCommand(const char* command, const char* result) {
    Families().http.With({OrEmpty(command), OrEmpty(result)}).Add();
}

int64_t ProcessStartTime() { return g_startTime; }

}  // namespace metrics
