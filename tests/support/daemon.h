// Runs the real cmssvr binary for end-to-end tests: settings in a temporary directory,
// its output captured to a file, stopped (and reaped) when the object goes away.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace cmstest {

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    void Write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

// A TCP port on 127.0.0.1 that nothing listens on right now.
int FreePort();

struct DaemonSettings {
    int port = 0;      // message port; 0 leaves it out (not started)
    int httpPort = 0;  // HTTP port; 0 leaves it out
    std::string dbName;
    int dbPort = 0;
    std::string dbUser = "cms";
    std::string dbPass = "cms";
    std::string extraParam;  // extra text inside <db>...</db>'s file, e.g. <paths>
    std::string devXml;      // config/dev.xml (device URL templates); empty: no file
    int localMode = 0;       // <local>: non-zero starts the analytics event links
};

class Daemon {
public:
    explicit Daemon(const DaemonSettings& s);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool Start();
    // Waits until the output holds `text` (count times); false on time-out or exit.
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout, int count = 1);
    std::string Output() const;
    int CountOf(const std::string& text) const;
    bool Running();
    // Sends `sig` and waits for the exit; returns the exit status, -1 on time-out
    // (the process is then killed), -2 if it died of a signal.
    int Stop(int sig, std::chrono::milliseconds timeout, std::chrono::milliseconds* took = nullptr);
    const TempDir& dir() const { return m_dir; }

private:
    DaemonSettings m_settings;
    TempDir m_dir;
    pid_t m_pid = -1;
    int m_status = 0;
};

}  // namespace cmstest
