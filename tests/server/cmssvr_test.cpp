// The daemon end to end: waiting for the database, loading, and ending on a signal.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/daemon.h"
#include "support/testdb.h"

using namespace std::chrono_literals;
using cmstest::Daemon;
using cmstest::DaemonSettings;

namespace {

bool CanConnect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    close(fd);
    return ok;
}

// The binary run in an empty directory with `arg`, and `fault` as CMS_TEST_FAULT when
// given. Once its output holds `until` (or at once when empty) it gets SIGTERM; `status` is
// what waitpid reports, -1 when it did not end within 20 s (sanitizer builds start slowly).
struct RunResult {
    int status = -1;
    std::string output;
};
RunResult RunBinary(const char* arg, const char* fault, const std::string& until) {
    cmstest::TempDir dir;
    const std::string bin = std::string(CMS_BINARY_DIR) + "/cmssvr";
    const std::string out = dir.File("out.log");
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || chdir(dir.path().c_str()) != 0) _exit(126);
        dup2(fd, STDOUT_FILENO);
        rlimit none{0, 0};  // no core file from the fault test
        setrlimit(RLIMIT_CORE, &none);
        if (fault) setenv("CMS_TEST_FAULT", fault, 1);
        execl(bin.c_str(), bin.c_str(), arg, static_cast<char*>(nullptr));
        _exit(127);
    }
    RunResult r;
    bool signalled = until.empty();
    for (int i = 0; i < 2000; ++i) {
        if (waitpid(pid, &r.status, WNOHANG) == pid) break;
        r.status = -1;
        if (!signalled && cmstest::ReadFile(out).find(until) != std::string::npos)
            signalled = kill(pid, SIGTERM) == 0;
        std::this_thread::sleep_for(10ms);
    }
    if (r.status == -1) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    r.output = cmstest::ReadFile(out);
    return r;
}

}  // namespace

TEST(Daemon, WaitsForTheDatabaseWithoutOpeningPorts) {
    DaemonSettings s;
    s.port = cmstest::FreePort();
    s.httpPort = cmstest::FreePort();
    s.dbName = "cms";
    s.dbPort = cmstest::FreePort();  // nothing listens there
    Daemon d(s);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitFor("InitSystem succ", 5s)) << d.Output();
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(d.WaitFor("load data faild(", 10s, 3)) << d.Output();
    auto took = std::chrono::steady_clock::now() - start;
    // Three attempts a second apart: about two seconds, never a busy loop.
    EXPECT_GE(took, 1500ms);
    EXPECT_NE(
        d.Output().find("ip:127.0.0.1 port:" + std::to_string(s.dbPort) + " user:cms pass:cms)"),
        std::string::npos)
        << d.Output();
    EXPECT_FALSE(CanConnect(s.port));
    EXPECT_FALSE(CanConnect(s.httpPort));
    EXPECT_EQ(d.CountOf("load data succ"), 0);

    std::chrono::milliseconds stopTook{};
    EXPECT_EQ(d.Stop(SIGTERM, 5s, &stopTook), 0);
    EXPECT_LT(stopTook, 2500ms);
}

TEST(Daemon, LoadsTheDemoCatalogueAndEndsOnSigint) {
    cmstest::TestDatabase db(true, true);
    ASSERT_TRUE(db.ok());
    DaemonSettings s;
    s.port = cmstest::FreePort();
    s.dbName = db.name();
    s.dbPort = cmstest::TestDatabase::Port();
    Daemon d(s);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitFor("load data succ", 15s)) << d.Output();
    std::string out = d.Output();
    EXPECT_NE(out.find("cserver startup"), std::string::npos);
    EXPECT_NE(out.find("InitSDK succ"), std::string::npos);
    EXPECT_NE(out.find("Start server port:" + std::to_string(s.port)), std::string::npos);
    EXPECT_EQ(out.find("load data faild"), std::string::npos);
    EXPECT_TRUE(CanConnect(s.port));

    std::chrono::milliseconds took{};
    EXPECT_EQ(d.Stop(SIGINT, 5s, &took), 0);
    EXPECT_LT(took, 2500ms);
    EXPECT_NE(d.Output().find("sigint prog exit"), std::string::npos);
}

TEST(Daemon, HelpExplainsTheSettings) {
    std::string cmd = std::string(CMS_BINARY_DIR) + "/cmssvr --help";
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[2048] = {};
    size_t n = fread(buf, 1, sizeof(buf) - 1, p);
    EXPECT_EQ(pclose(p), 0);
    EXPECT_NE(std::string(buf, n).find("config/cmsparam.xml"), std::string::npos);
}

TEST(Daemon, VersionPrintsAndOtherArgumentsAreIgnored) {
    RunResult v = RunBinary("--version", nullptr, "");
    EXPECT_TRUE(WIFEXITED(v.status) && WEXITSTATUS(v.status) == 0) << v.status;
    EXPECT_EQ(v.output.rfind("cmssvr ", 0), 0u) << v.output;
    RunResult other = RunBinary("--no-such-option", nullptr, "InitSystem succ");
    EXPECT_TRUE(WIFEXITED(other.status) && WEXITSTATUS(other.status) == 0) << other.status;
    EXPECT_NE(other.output.find("cserver startup"), std::string::npos) << other.output;
}

// A real fault ends the process by the signal (so a core can be taken) after one line; a
// SIGSEGV sent by kill only ends the main loop.
TEST(Daemon, ARealFaultEndsWithTheSignalAndAKilledOneExitsCleanly) {
    RunResult fault = RunBinary(nullptr, "segv", "");
    EXPECT_TRUE(WIFSIGNALED(fault.status) && WTERMSIG(fault.status) == SIGSEGV) << fault.status;
    EXPECT_EQ(fault.output, "segmentation fault: ending with a core dump\n");

    DaemonSettings s;
    s.port = cmstest::FreePort();
    s.dbName = "cms";
    s.dbPort = cmstest::FreePort();  // nothing listens: it waits in the main loop
    Daemon d(s);
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitFor("InitSystem succ", 5s)) << d.Output();
    EXPECT_EQ(d.Stop(SIGSEGV, 5s), 0);
}
