// The daemon end to end: waiting for the database, loading, and ending on a signal.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

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
