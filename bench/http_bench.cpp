// HTTP command rate of the real cmssvr: a cheap command (an unknown node, answered 404) and
// a play-address command (a channel whose address resolves), each with 1 and with 64
// concurrent clients, one request per connection as the interface works. Beside it, the
// same requests against a minimal responder written on the same Asio in this process: the
// ceiling of the listener and the loopback, against which the server is measured.
//
// Starts its own throwaway MariaDB (see benchdb.h) unless CMS_BENCH_DB_PORT names a running
// one. Everything runs on loopback and every wait is bounded.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchdb.h"
#include "benchsvr.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kDevices = 1000;
constexpr const char* kDbName = "cmshttpload";

benchdb::Database g_db("httpload");
int g_serverPort = 0;
int g_ceilingPort = 0;
std::map<std::string, double> g_rates;  // "target/clients" -> requests per second

// ---- The ceiling: read a head, answer a fixed 404 head, close ----
class Responder {
public:
    Responder()
        : m_acceptor(m_io, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {
        Accept();
        for (int i = 0; i < 2; ++i) m_threads.emplace_back([this] { m_io.run(); });
    }
    ~Responder() {
        m_io.stop();
        for (std::thread& t : m_threads) t.join();
    }
    int port() const { return m_acceptor.local_endpoint().port(); }

private:
    struct Conn {
        explicit Conn(asio::io_context& io) : socket(io) {}
        asio::ip::tcp::socket socket;
        asio::streambuf in;
    };
    void Accept() {
        auto conn = std::make_shared<Conn>(m_io);
        m_acceptor.async_accept(conn->socket, [this, conn](const asio::error_code& ec) {
            if (!ec) Serve(conn);
            Accept();
        });
    }
    static void Serve(const std::shared_ptr<Conn>& conn) {
        static const std::string kReply =
            "HTTP/1.1 404 file nofind\r\nAccess-Control-Allow-Origin: *\r\n\r\n";
        asio::async_read_until(conn->socket, conn->in, "\r\n\r\n",
                               [conn](const asio::error_code& ec, size_t) {
                                   if (ec) return;
                                   asio::async_write(conn->socket, asio::buffer(kReply),
                                                     [conn](const asio::error_code&, size_t) {
                                                         asio::error_code ignored;
                                                         conn->socket.close(ignored);
                                                     });
                               });
    }
    asio::io_context m_io;
    asio::ip::tcp::acceptor m_acceptor;
    std::vector<std::thread> m_threads;
};

// ---- The clients ----
// One request on a fresh connection; the status code of the answer, 0 on failure.
int Exchange(int port, const std::string& request) {
    const std::string reply = benchdb::HttpExchange(port, request);
    return reply.compare(0, 9, "HTTP/1.1 ") == 0 ? std::atoi(reply.c_str() + 9) : 0;
}

std::string Request(const std::string& query) {
    return "GET /?" + query + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
}

// `total` requests over `clients` threads; the count of answers with `want` status.
long long Drive(int port, int clients, int total, int want, bool playAddress) {
    std::atomic<long long> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t)
        threads.emplace_back([&, t] {
            for (int i = t; i < total; i += clients) {
                const std::string q =
                    playAddress
                        ? "cmd=geturl&nodeid=" + std::to_string(i % kDevices + 1) + "&nodetype=3"
                        : "cmd=geturl&nodeid=" + std::to_string(900000 + i) + "&nodetype=3";
                good += Exchange(port, Request(q)) == want;
            }
        });
    for (std::thread& th : threads) th.join();
    return good;
}

// Args: {target (0 server, 1 ceiling), clients, play address (0/1)}.
void BM_Http(benchmark::State& state) {
    const bool ceiling = state.range(0) == 1;
    const int clients = static_cast<int>(state.range(1));
    const bool play = state.range(2) == 1;
    const int port = ceiling ? g_ceilingPort : g_serverPort;
    const int total = clients == 1 ? 2000 : 10000;
    // Until the media jobs can start, a resolved play address still ends in 404, as an
    // unresolved one does; what differs is the work done before the answer.
    for (auto _ : state) {
        auto start = Clock::now();
        long long good = Drive(port, clients, total, 404, play);
        double secs = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(secs);
        if (good != total) return state.SkipWithError("not every request was answered");
        const std::string key = std::string(ceiling ? "ceiling" : "cmssvr") +
                                (play ? " play-address" : " unknown-node") + " x" +
                                std::to_string(clients);
        g_rates[key] = total / secs;
        state.counters["req_per_s"] = total / secs;
    }
}
BENCHMARK(BM_Http)
    ->ArgsProduct({{0, 1}, {1, 64}, {0, 1}})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void PrintFigures() {
    std::printf("\n");
    for (const auto& [key, rate] : g_rates)
        std::printf("httpload: %-30s %8.0f req/s\n", key.c_str(), rate);
    for (const char* kind :
         {" unknown-node x1", " unknown-node x64", " play-address x1", " play-address x64"}) {
        auto s = g_rates.find(std::string("cmssvr") + kind);
        auto c = g_rates.find(std::string("ceiling") + kind);
        if (s != g_rates.end() && c != g_rates.end() && c->second > 0)
            std::printf("httpload: ratio%s: %.2f\n", kind, s->second / c->second);
    }
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "httpload: build the cmssvr target first\n");
        return 1;
    }
    if (!g_db.Start()) return 1;
    bool ok = benchdb::PopulateAddressed(g_db, kDbName, kDevices,
                                         [](int i) { return "HB" + std::to_string(10000000 + i); });
    if (ok) {
        benchdb::Server server(kDbName, g_db.port(), true);
        Responder responder;
        ok = server.Start();
        if (ok) {
            g_serverPort = server.httpPort();
            g_ceilingPort = responder.port();
            benchmark::RunSpecifiedBenchmarks();
            PrintFigures();
        }
        server.Stop();
    }
    g_db.Stop();
    return ok ? 0 : 1;
}
