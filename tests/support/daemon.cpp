#include "support/daemon.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/testdb.h"

namespace cmstest {

TempDir::TempDir() {
    char tmpl[] = "/tmp/cmstest-XXXXXX";
    const char* p = mkdtemp(tmpl);
    m_path = p ? p : "/tmp";
}

TempDir::~TempDir() {
    std::error_code ec;
    if (m_path != "/tmp") std::filesystem::remove_all(m_path, ec);
}

void TempDir::Write(const std::string& name, const std::string& text) const {
    std::filesystem::path p(File(name));
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << text;
}

int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    socklen_t len = sizeof(a);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

Daemon::Daemon(const DaemonSettings& s) : m_settings(s) {
    std::string local = "<cfg>\n";
    if (s.port) local += "  <port>" + std::to_string(s.port) + "</port>\n";
    if (s.httpPort) local += "  <hport>" + std::to_string(s.httpPort) + "</hport>\n";
    local += "  <sn>34020000002000000001</sn>\n</cfg>\n";
    m_dir.Write("config/cmslocal.xml", local);
    std::string param = "<cfg>\n<db>\n  <name>" + s.dbName + "</name>\n  <ip>127.0.0.1</ip>\n" +
                        "  <port>" + std::to_string(s.dbPort) + "</port>\n  <user>" + s.dbUser +
                        "</user>\n  <pass>" + s.dbPass + "</pass>\n  <local>" +
                        std::to_string(s.localMode) + "</local>\n</db>\n" + s.extraParam +
                        "</cfg>\n";
    m_dir.Write("config/cmsparam.xml", param);
    if (!s.devXml.empty()) m_dir.Write("config/dev.xml", s.devXml);
}

Daemon::~Daemon() {
    if (m_pid > 0) Stop(SIGKILL, std::chrono::milliseconds(3000));
}

bool Daemon::Start() {
    std::string bin = std::string(CMS_BINARY_DIR) + "/cmssvr";
    std::string out = m_dir.File("out.log");
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
        if (chdir(m_dir.path().c_str()) != 0) _exit(126);
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        execl(bin.c_str(), bin.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return true;
}

std::string Daemon::Output() const { return ReadFile(m_dir.File("out.log")); }

int Daemon::CountOf(const std::string& text) const {
    std::string out = Output();
    int n = 0;
    for (size_t p = out.find(text); p != std::string::npos; p = out.find(text, p + 1)) ++n;
    return n;
}

bool Daemon::Running() {
    if (m_pid <= 0) return false;
    if (waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
        m_pid = -1;
        return false;
    }
    return true;
}

bool Daemon::WaitFor(const std::string& text, std::chrono::milliseconds timeout, int count) {
    auto end = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < end) {
        if (CountOf(text) >= count) return true;
        if (!Running()) return CountOf(text) >= count;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int Daemon::Stop(int sig, std::chrono::milliseconds timeout, std::chrono::milliseconds* took) {
    if (m_pid <= 0) return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -2;
    auto start = std::chrono::steady_clock::now();
    kill(m_pid, sig);
    while (std::chrono::steady_clock::now() - start < timeout) {
        if (waitpid(m_pid, &m_status, WNOHANG) == m_pid) {
            m_pid = -1;
            if (took)
                *took = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - start);
            return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -2;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(m_pid, SIGKILL);
    waitpid(m_pid, &m_status, 0);
    m_pid = -1;
    return -1;
}

}  // namespace cmstest
