// The real cmssvr for a benchmark: started in a temporary directory with its settings
// (message port, optional HTTP port, the benchmark's database), stopped and reaped on
// destruction. Header-only, like benchdb.h.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "benchdb.h"

namespace benchdb {

// One request on a fresh loopback connection (the HTTP port serves one request per
// connection); the whole answer, or "" when the exchange failed. Waits at most 10 s.
inline std::string HttpExchange(int port, const std::string& request) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return "";
    timeval tv{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(request.size())) {
        char buf[1024];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, 0)) > 0) reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return reply;
}

// "GET /?<query>" as the HTTP command interface takes it.
inline std::string HttpGetQuery(int port, const std::string& query) {
    return HttpExchange(port, "GET /?" + query + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
}

class Server {
public:
    // `httpPort` true also opens the HTTP port.
    Server(std::string dbName, int dbPort, bool httpPort = false)
        : m_dbName(std::move(dbName)), m_dbPort(dbPort), m_wantHttp(httpPort) {
        char tmpl[] = "/tmp/cmsbench-svr-XXXXXX";
        if (const char* p = mkdtemp(tmpl)) m_dir = p;
    }
    ~Server() {
        Stop();
        std::error_code ec;
        if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Writes the settings, starts the binary and waits until its listeners are up.
    bool Start() {
        if (m_dir.empty() || (m_port = FreePort()) <= 0) return false;
        if (m_wantHttp && (m_httpPort = FreePort()) <= 0) return false;
        WriteSettings();
        const std::string bin = std::string(CMS_BINARY_DIR) + "/cmssvr";
        const std::string out = m_dir + "/out.log";
        m_pid = fork();
        if (m_pid < 0) return false;
        if (m_pid == 0) {
            int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fd < 0 || chdir(m_dir.c_str()) != 0) _exit(126);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            execl(bin.c_str(), bin.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (WaitForOutput(m_wantHttp ? "Start http port" : "Start server port", 60000)) return true;
        std::fprintf(stderr, "bench: %s did not start; see %s\n", bin.c_str(), out.c_str());
        return false;
    }

    void Stop() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        for (int i = 0; i < 100; ++i) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

    int port() const { return m_port; }
    int httpPort() const { return m_httpPort; }
    pid_t pid() const { return m_pid; }
    const std::string& dir() const { return m_dir; }
    // Written into cmsparam.xml after the database block (e.g. the store areas), and as
    // dev.xml when not empty; set before Start().
    std::string extraParam;
    std::string devXml;
    int localMode = 0;  // 1: link every analytics device and server for its events

private:
    void WriteSettings() const {
        std::filesystem::create_directories(m_dir + "/config");
        std::ofstream local(m_dir + "/config/cmslocal.xml");
        local << "<cfg>\n  <port>" << m_port << "</port>\n";
        if (m_wantHttp) local << "  <hport>" << m_httpPort << "</hport>\n";
        local << "  <sn>34020000002000000001</sn>\n</cfg>\n";
        std::ofstream(m_dir + "/config/cmsparam.xml")
            << "<cfg>\n<db>\n  <name>" << m_dbName << "</name>\n  <ip>127.0.0.1</ip>\n  <port>"
            << m_dbPort << "</port>\n  <user>cms</user>\n  <pass>cms</pass>\n"
            << "  <local>" << localMode << "</local>\n</db>\n"
            << extraParam << "</cfg>\n";
        if (!devXml.empty()) std::ofstream(m_dir + "/config/dev.xml") << devXml;
    }

    bool WaitForOutput(const char* text, int timeoutMs) const {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < end) {
            if (ReadAll(m_dir + "/out.log").find(text) != std::string::npos) return true;
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    std::string m_dbName;
    int m_dbPort;
    bool m_wantHttp;
    std::string m_dir;
    int m_port = 0;
    int m_httpPort = 0;
    pid_t m_pid = -1;
};

}  // namespace benchdb
