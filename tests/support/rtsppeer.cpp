#include "support/rtsppeer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>
#include <vector>

namespace cmstest {

namespace {

// Debian's interpreter: the GStreamer bindings are installed for it, not for others on PATH.
const char kPython[] = "/usr/bin/python3";

std::vector<std::string> Arguments(const RtspPeerOptions& o, int port) {
    std::vector<std::string> a = {
        kPython,          std::string(CMS_SOURCE_DIR) + "/tests/support/rtsppeer.py",
        "--port",         std::to_string(port),
        "--codec",        o.codec,
        "--size",         o.size,
        "--fps",          std::to_string(o.fps),
        "--key-interval", std::to_string(o.keyInterval)};
    if (o.noSprop) a.push_back("--no-sprop");
    if (o.noInband) a.push_back("--no-inband");
    if (o.unshared) a.push_back("--unshared");
    return a;
}

// Reads the "ready <port>" line; 0 on time-out, exit or anything else.
int ReadReady(int fd, std::chrono::milliseconds timeout) {
    auto end = std::chrono::steady_clock::now() + timeout;
    std::string line;
    while (line.find('\n') == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return 0;
        char buf[256];
        ssize_t r = read(fd, buf, sizeof(buf));
        if (r <= 0) return 0;
        line.append(buf, static_cast<size_t>(r));
    }
    if (line.compare(0, 6, "ready ") != 0) return 0;
    return std::atoi(line.c_str() + 6);
}

}  // namespace

RtspPeer::RtspPeer(RtspPeerOptions options) : m_options(std::move(options)) {
    m_port = m_options.port;
}

RtspPeer::~RtspPeer() { Kill(); }

bool RtspPeer::Start() {
    Kill();
    std::vector<std::string> args = Arguments(m_options, m_port);
    std::vector<char*> argv;
    for (auto& s : args) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return false;
    pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) {
        close(out[0]);
        close(out[1]);
        return false;
    }
    if (m_pid == 0) {
        // A test that dies must not leave its peer holding the port.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(125);
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    int port = ReadReady(out[0], std::chrono::seconds(15));
    close(out[0]);
    if (port <= 0) {
        Kill();
        return false;
    }
    m_port = port;
    return true;
}

void RtspPeer::Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

void RtspPeer::Freeze() {
    if (m_pid > 0) kill(m_pid, SIGSTOP);
}

void RtspPeer::Thaw() {
    if (m_pid > 0) kill(m_pid, SIGCONT);
}

bool RtspPeer::Running() {
    if (m_pid <= 0) return false;
    if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;
    return m_pid > 0;
}

std::string RtspPeer::Url(const std::string& path) const {
    return "rtsp://127.0.0.1:" + std::to_string(m_port) + path;
}

}  // namespace cmstest
