// Soak: for a long run (10 minutes by default) 1,000 message connections log in as known
// devices and send device-state and analytics events, while 64 HTTP clients send commands
// without pause. Some connections close and log in again all the time, so that there are
// many login samples. After the warm-up a few trickle clients send one byte a second on
// each port; the server must close them once their stall time is up, and a fresh login
// must still be answered promptly meanwhile.
//
// Watched on the real cmssvr: its resident memory and open descriptors (start, after the
// warm-up, every 30 s, end of load, after the clients left), the events acknowledged
// against the rows written, and the login reply times. Exits 1 when a check fails.
//
// Starts its own throwaway MariaDB (see benchdb.h) unless CMS_BENCH_DB_PORT names a running
// one. Everything runs on loopback and every wait is bounded. bench/soak is the wrapper.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "benchdb.h"
#include "benchsvr.h"
#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmsclient::CmsClient;
using cmsclient::Reply;

constexpr const char* kDbName = "cmssoak";
constexpr int kLinksPerThread = 40;
constexpr int kReplyTimeoutMs = 30000;
constexpr int kProgressSecs = 30;
constexpr double kMaxRssGrowth = 5.0;  // percent, from the warm-up to the end of load

struct Options {
    int duration = 600;  // seconds of load
    int connections = 1000;
    int http = 64;
    double rate = 1;   // events a second on each connection
    int warmup = 60;   // seconds; shortened to a third of a short run
    int relogin = 60;  // each connection closes and logs in again this often (seconds)
    int trickle = 8;   // trickle clients per port
    int stallMs = 30000;
    int play = 1;  // HTTP clients also ask play addresses of channels
};
Options g_opt;

benchdb::Database g_db("soak");
benchdb::Server* g_server = nullptr;
std::atomic<bool> g_stop{false};

// ---- Counters of the run ----
std::atomic<long long> g_acked{0};    // events whose link answered the login sent after them
std::atomic<long long> g_unacked{0};  // events sent on a link that broke before that answer
std::atomic<long long> g_linkFailures{0};
std::atomic<long long> g_httpReplies{0};
std::atomic<long long> g_httpFailures{0};
std::mutex g_samplesMutex;
std::vector<double> g_loginMs;  // guarded by g_samplesMutex

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }
double Secs(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string Serial(int device) { return "SK" + std::to_string(10000000 + device); }

// ---- The server process, seen from /proc ----
long RssKb(pid_t pid) {
    const std::string status = benchdb::ReadAll("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : std::atol(status.c_str() + at + 6);
}

// Inodes of the process's TCP sockets whose remote port is `port`.
std::set<std::string> SocketsTo(pid_t pid, int port) {
    std::set<std::string> inodes;
    for (const char* table : {"/net/tcp", "/net/tcp6"}) {
        std::istringstream in(benchdb::ReadAll("/proc/" + std::to_string(pid) + table));
        std::string line;
        std::getline(in, line);  // column names
        // "sl local remote st tx:rx tr:when retrnsmt uid timeout inode ...", ports in hex
        char remote[64], inode[32];
        while (std::getline(in, line))
            if (std::sscanf(line.c_str(), "%*s %*s %63s %*s %*s %*s %*s %*s %*s %31s", remote,
                            inode) == 2 &&
                std::strtol(std::strrchr(remote, ':') + 1, nullptr, 16) == port)
                inodes.insert(inode);
    }
    return inodes;
}

// The server's descriptors, without its connections to the database: the pool keeps idle
// ones open by design, so they are counted apart. `list` gets one line per descriptor.
struct Fds {
    int clients = -1;  // every descriptor but the database connections
    int db = 0;
};
Fds ScanFds(pid_t pid, std::string* list = nullptr) {
    const std::set<std::string> db = SocketsTo(pid, g_db.port());
    Fds f{0, 0};
    std::error_code ec;
    for (const auto& e :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
        std::error_code gone;  // a descriptor closed while the list is read
        const std::string target = std::filesystem::read_symlink(e.path(), gone).string();
        if (gone) continue;
        const bool toDb =
            target.rfind("socket:[", 0) == 0 && db.count(target.substr(8, target.size() - 9));
        ++(toDb ? f.db : f.clients);
        if (list)
            *list += "  fd " + e.path().filename().string() + ": " + target +
                     (toDb ? " (database)\n" : "\n");
    }
    return ec ? Fds{} : f;
}

struct Sample {
    long rssKb = 0;
    Fds fds;
};
Sample Take() { return {RssKb(g_server->pid()), ScanFds(g_server->pid())}; }

// ---- Database ----

long long EventRows(MYSQL* c) {
    const char* sql =
        "select (select count(*) from deveventlog)+(select count(*) from intveventlog)";
    if (mysql_query(c, sql) != 0) return -1;
    std::unique_ptr<MYSQL_RES, void (*)(MYSQL_RES*)> res(mysql_store_result(c), mysql_free_result);
    MYSQL_ROW row = res ? mysql_fetch_row(res.get()) : nullptr;
    return row && row[0] ? std::atoll(row[0]) : -1;
}

// ---- Message links ----

struct Link {
    CmsClient client;
    int device = 0;
    long long seq = 0;  // events sent on this device's links, to alternate their kinds
    double owed = 0;    // events due but not yet sent (fractional rates)
    int pending = 0;    // events sent since the last answered login
    Clock::time_point relogin;
};

// Connects afresh and logs in; the reply time goes to the samples. False when the link
// could not be had.
bool FreshLogin(Link& l, std::vector<double>& samples) {
    const cmsclient::Request login = cmsclient::Login(Serial(l.device).c_str());
    Reply r;
    if (!l.client.Connect("127.0.0.1", g_server->port())) return false;
    const auto start = Clock::now();
    if (!l.client.Request(login.head, login.payload, r, kReplyTimeoutMs) || !r.IsState() ||
        r.state != 0) {
        l.client.Close();
        return false;
    }
    samples.push_back(Ms(Clock::now() - start));
    return true;
}

// Sends the events due, then a login: its answer shows that the events before it were
// handled (one link's messages are handled in order).
void SendDue(Link& l) {
    static const cmsclient::EventFields f = [] {
        cmsclient::EventFields fields;
        fields.info = "soak";
        return fields;
    }();
    static const cmsclient::Request kLost = cmsclient::DeviceStateEvent(f, DEVSTATE_DISLINK);
    static const cmsclient::Request kBack = cmsclient::DeviceStateEvent(f, DEVSTATE_DISLINK_RESUME);
    static const cmsclient::Request kAlarm = cmsclient::AlarmEvent(f, 5, 0);
    l.owed += g_opt.rate;
    const int n = static_cast<int>(l.owed);
    if (n == 0) return;
    l.owed -= n;
    for (int k = 0; k < n; ++k, ++l.seq) {
        const cmsclient::Request& r = l.seq % 2 ? kAlarm : (l.seq / 2) % 2 ? kBack : kLost;
        if (!l.client.Send(r.head, r.payload)) break;
        ++l.pending;
    }
    const cmsclient::Request barrier = cmsclient::Login(Serial(l.device).c_str());
    l.client.Send(barrier.head, barrier.payload);
}

void ReadAck(Link& l) {
    if (l.pending == 0) return;
    Reply r;
    if (l.client.ReadReply(r, kReplyTimeoutMs) == CmsClient::ReadResult::kReply && r.IsState() &&
        r.state == 0) {
        g_acked += l.pending;
    } else {
        g_unacked += l.pending;
        ++g_linkFailures;
        l.client.Close();
    }
    l.pending = 0;
}

// Drives links [first, last) in rounds of one second until the stop.
void LinkWorker(std::vector<Link>& links, int first, int last) {
    std::vector<double> samples;
    for (auto t0 = Clock::now(); !g_stop;
         std::this_thread::sleep_until(t0 += std::chrono::seconds(1))) {
        const auto now = Clock::now();
        for (int i = first; i < last; ++i) {
            Link& l = links[i];
            if (l.client.IsOpen() && now < l.relogin) continue;
            // The first logins are spread over one period, so that relogins keep a steady pace.
            const bool fresh = l.relogin == Clock::time_point{};
            l.relogin =
                now + std::chrono::seconds(fresh ? 1 + l.device % g_opt.relogin : g_opt.relogin);
            l.client.Close();
            if (!FreshLogin(l, samples)) ++g_linkFailures;
        }
        for (int i = first; i < last; ++i)
            if (links[i].client.IsOpen()) SendDue(links[i]);
        for (int i = first; i < last; ++i) ReadAck(links[i]);
    }
    std::lock_guard<std::mutex> lock(g_samplesMutex);
    g_loginMs.insert(g_loginMs.end(), samples.begin(), samples.end());
}

// ---- HTTP clients: the play address of a channel (with --play 1), and an unknown node ----
void HttpWorker(int id) {
    for (long long i = id; !g_stop; i += g_opt.http) {
        const long long node = g_opt.play && i % 2 ? i % g_opt.connections + 1 : 900000 + i;
        const std::string reply = benchdb::HttpGetQuery(
            g_server->httpPort(), "cmd=geturl&nodeid=" + std::to_string(node) + "&nodetype=3");
        ++(reply.compare(0, 9, "HTTP/1.1 ") == 0 ? g_httpReplies : g_httpFailures);
    }
}

// The media jobs the server holds, from /metrics; -1 when not found.
long long MediaJobs() {
    const std::string m =
        benchdb::HttpExchange(g_server->httpPort(), "GET /metrics HTTP/1.1\r\n\r\n");
    const size_t at = m.find("\ncms_media_jobs ");
    return at == std::string::npos ? -1 : std::atoll(m.c_str() + at + 16);
}

// ---- Trickle clients and the probe beside them ----

int LoopbackConnect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        fd = -1;
    }
    return fd;
}

// Sends `bytes` one a second (the last one repeated) until the server closes the
// connection; the seconds from the connect to the close, or -1 when it stayed open for
// twice the stall time.
double Trickle(int port, const std::string& bytes) {
    const int fd = LoopbackConnect(port);
    if (fd < 0) return -1;
    const auto start = Clock::now();
    double closedAfter = -1;
    for (size_t i = 0; Secs(Clock::now() - start) < 2.0 * g_opt.stallMs / 1000; ++i) {
        const char c = bytes[std::min(i, bytes.size() - 1)];
        if (send(fd, &c, 1, MSG_NOSIGNAL) != 1) {
            closedAfter = Secs(Clock::now() - start);
            break;
        }
        pollfd p{fd, POLLIN, 0};
        char sink[256];
        if (poll(&p, 1, 1000) > 0 && recv(fd, sink, sizeof sink, 0) <= 0) {
            closedAfter = Secs(Clock::now() - start);
            break;
        }
    }
    close(fd);
    return closedAfter;
}

struct TrickleResult {
    std::vector<double> msgClosed, httpClosed;
    double probeWorstMs = 0;  // fresh logins on a new link while the trickles were open
    int probeFailures = 0;
} g_trickle;

void RunTrickles() {
    // A frame that announces 1,000 bytes, and a request head that never ends.
    const std::string frame = std::string("\xe8\x03\0\0", 4) + std::string(64, '\0');
    const std::string head = "GET /?cmd=geturl&nodeid=1&nodetype=3&pad=" + std::string(64, 'x');
    const int n = g_opt.trickle;
    g_trickle.msgClosed.assign(n, -1);
    g_trickle.httpClosed.assign(n, -1);
    std::atomic<int> open{2 * n};
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
        threads.emplace_back([&, i] {
            g_trickle.msgClosed[i] = Trickle(g_server->port(), frame);
            --open;
        });
        threads.emplace_back([&, i] {
            g_trickle.httpClosed[i] = Trickle(g_server->httpPort(), head);
            --open;
        });
    }
    Link probe;
    probe.device = g_opt.connections;
    std::vector<double> ms;
    while (open > 0) {
        if (!FreshLogin(probe, ms)) ++g_trickle.probeFailures;
        probe.client.Close();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    for (double m : ms) g_trickle.probeWorstMs = std::max(g_trickle.probeWorstMs, m);
    for (std::thread& t : threads) t.join();
}

// ---- Report ----

double Percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

std::string Closings(const std::vector<double>& v) {
    std::string s;
    char buf[16];
    for (double x : v) {
        std::snprintf(buf, sizeof buf, x < 0 ? "open " : "%.0f ", x);
        s += buf;
    }
    return s;
}

bool AllClosedInTime(const std::vector<double>& v) {
    const double stall = g_opt.stallMs / 1000.0;
    return std::all_of(v.begin(), v.end(), [stall](double x) { return x >= 0 && x < stall + 5; });
}

struct Run {
    Sample start, warm, end, after;
    double loadSecs = 0;
    long long rows = 0;
    long long jobs = 0;  // media jobs the server held at the end of load
};

// Prints the table; false when a check failed.
bool Report(const Run& r) {
    const double growth =
        r.warm.rssKb > 0 ? 100.0 * (r.end.rssKb - r.warm.rssKb) / r.warm.rssKb : 0;
    const long long acked = g_acked;
    const bool rssOk = growth < kMaxRssGrowth;
    const bool fdsOk = r.after.fds.clients == r.start.fds.clients;
    const bool eventsOk = r.rows == acked && g_unacked == 0;
    const bool trickleOk = AllClosedInTime(g_trickle.msgClosed) &&
                           AllClosedInTime(g_trickle.httpClosed) && g_trickle.probeFailures == 0;
    auto mark = [](bool ok) { return ok ? "ok" : "FAILED"; };
    std::printf("\nsoak: %d s, %d connections at %.2f events/s each, %d HTTP clients\n",
                g_opt.duration, g_opt.connections, g_opt.rate, g_opt.http);
    std::printf("  %-22s %ld / %ld / %ld kB, growth after warm-up %.2f %%  %s\n",
                "RSS start/warm/end", r.start.rssKb, r.warm.rssKb, r.end.rssKb, growth,
                mark(rssOk));
    std::printf("  %-22s %d / %d / %d (and %d / %d / %d to the database)  %s\n",
                "fds start/end/after", r.start.fds.clients, r.end.fds.clients, r.after.fds.clients,
                r.start.fds.db, r.end.fds.db, r.after.fds.db, mark(fdsOk));
    if (!fdsOk) {
        std::string list;
        ScanFds(g_server->pid(), &list);
        std::printf("%s", list.c_str());
    }
    std::printf("  %-22s %lld / %lld (%.0f events/s, %lld unacknowledged)  %s\n",
                "events sent/written", acked, r.rows, acked / r.loadSecs,
                static_cast<long long>(g_unacked), mark(eventsOk));
    std::printf("  %-22s %zu, p50 %.1f ms, p99 %.1f ms, %lld link failures\n", "logins",
                g_loginMs.size(), Percentile(g_loginMs, 0.5), Percentile(g_loginMs, 0.99),
                static_cast<long long>(g_linkFailures));
    std::printf("  %-22s %.0f replies/s, %lld failures, %lld media jobs held at the end\n", "HTTP",
                g_httpReplies / r.loadSecs, static_cast<long long>(g_httpFailures), r.jobs);
    std::printf(
        "  %-22s msg [ %s] http [ %s] s (stall %d ms), probe login worst %.1f ms, "
        "%d failed  %s\n",
        "trickles closed after", Closings(g_trickle.msgClosed).c_str(),
        Closings(g_trickle.httpClosed).c_str(), g_opt.stallMs, g_trickle.probeWorstMs,
        g_trickle.probeFailures, mark(trickleOk));
    std::fflush(stdout);
    return rssOk && fdsOk && eventsOk && trickleOk;
}

// ---- The run ----

void Progress(const char* what, Clock::time_point start) {
    const Sample s = Take();
    std::printf("soak: %-8s %5.0f s  events %lld  RSS %ld kB  fds %d\n", what,
                Secs(Clock::now() - start), static_cast<long long>(g_acked), s.rssKb,
                s.fds.clients);
    std::fflush(stdout);
}

bool Soak() {
    Run r;
    r.start = Take();
    const int warmup = std::min(g_opt.warmup, g_opt.duration / 3);
    std::vector<Link> links(g_opt.connections);
    for (int i = 0; i < g_opt.connections; ++i) links[i].device = i;
    std::vector<std::thread> threads;
    for (int i = 0; i < g_opt.connections; i += kLinksPerThread)
        threads.emplace_back(LinkWorker, std::ref(links), i,
                             std::min(g_opt.connections, i + kLinksPerThread));
    for (int i = 0; i < g_opt.http; ++i) threads.emplace_back(HttpWorker, i);

    const auto start = Clock::now();
    std::thread trickles;
    for (int s = 1; s <= g_opt.duration; ++s) {
        std::this_thread::sleep_until(start + std::chrono::seconds(s));
        if (s == warmup) {
            r.warm = Take();
            Progress("warm", start);
            trickles = std::thread(RunTrickles);
        } else if (s % kProgressSecs == 0) {
            Progress("load", start);
        }
    }
    r.end = Take();
    r.jobs = MediaJobs();
    g_stop = true;
    for (std::thread& t : threads) t.join();
    if (trickles.joinable()) trickles.join();
    r.loadSecs = Secs(Clock::now() - start);
    links.clear();

    // The server notices the closed links on its own time.
    for (int i = 0; i < 100 && (r.after = Take()).fds.clients != r.start.fds.clients; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    benchdb::Mysql db = g_db.Connect(kDbName);
    for (int i = 0; i < 300 && db && (r.rows = EventRows(db.get())) < g_acked; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return Report(r);
}

bool ParseOptions(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string k = argv[i];
        const char* v = argv[i + 1];
        if (k == "--duration")
            g_opt.duration = std::atoi(v);
        else if (k == "--connections")
            g_opt.connections = std::atoi(v);
        else if (k == "--http")
            g_opt.http = std::atoi(v);
        else if (k == "--rate")
            g_opt.rate = std::atof(v);
        else if (k == "--warmup")
            g_opt.warmup = std::atoi(v);
        else if (k == "--relogin")
            g_opt.relogin = std::atoi(v);
        else if (k == "--trickle")
            g_opt.trickle = std::atoi(v);
        else if (k == "--stall")
            g_opt.stallMs = std::atoi(v);
        else if (k == "--play")
            g_opt.play = std::atoi(v);
        else
            return false;
    }
    return argc % 2 == 1 && g_opt.duration >= 3 && g_opt.connections > 0 && g_opt.http >= 0 &&
           g_opt.rate > 0 && g_opt.relogin > 0 && g_opt.trickle >= 0 && g_opt.stallMs >= 1000;
}

// Room for every link and HTTP client in this process; the server inherits the limit.
void RaiseFileLimit() {
    rlimit l{};
    if (getrlimit(RLIMIT_NOFILE, &l) != 0) return;
    l.rlim_cur = l.rlim_max;
    setrlimit(RLIMIT_NOFILE, &l);
    if (l.rlim_cur < static_cast<rlim_t>(g_opt.connections + g_opt.http + 2 * g_opt.trickle + 256))
        std::fprintf(stderr, "soak: descriptor limit %llu is low for this run\n",
                     static_cast<unsigned long long>(l.rlim_cur));
}

}  // namespace

int main(int argc, char** argv) {
    if (!ParseOptions(argc, argv)) {
        std::fprintf(
            stderr,
            "usage: soak_bench [--duration s] [--connections n] [--http n] [--rate "
            "events/s] [--warmup s] [--relogin s] [--trickle n] [--stall ms] [--play 0|1]\n");
        return 2;
    }
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "soak: build the cmssvr target first\n");
        return 1;
    }
    RaiseFileLimit();
    if (!g_db.Start()) return 1;
    // One device per connection and one for the probe.
    bool ok = benchdb::PopulateAddressed(g_db, kDbName, g_opt.connections + 1, Serial);
    if (ok) {
        benchdb::Server server(kDbName, g_db.port(), true);
        server.extraParam = "<guard>\n  <maxclients>10000</maxclients>\n  <stall>" +
                            std::to_string(g_opt.stallMs) + "</stall>\n</guard>\n";
        g_server = &server;
        ok = server.Start() && Soak();
        server.Stop();
        g_server = nullptr;
    }
    g_db.Stop();
    return ok ? 0 : 1;
}
