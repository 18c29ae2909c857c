// Access settings of the real daemon: the HTTP token, the allow-list of the message port,
// and the switches for raw SQL and the host's own reboot.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "cmsclient/cmsclient.h"
#include "comm/msgdefine.h"
#include "support/daemon.h"
#include "support/httpclient.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

// Should the switch fail, the reboot is printed, not carried out.
const bool kNoReboot = setenv("CMS_NO_REBOOT", "1", 1) == 0;

const std::string k404 = "HTTP/1.1 404 file nofind\r\nAccess-Control-Allow-Origin: *\r\n\r\n";
const std::string k403 = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

// True when a connection to the loopback port from `source` is closed by the server
// without a word.
bool ClosedFrom(const char* source, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, source, &a.sin_addr);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    a.sin_port = htons(static_cast<uint16_t>(port));
    bool closed = false;
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        pollfd p{fd, POLLIN, 0};
        char byte;
        closed = poll(&p, 1, 1000) == 1 && recv(fd, &byte, 1, 0) <= 0;
    }
    close(fd);
    return closed;
}

class GuardedServer : public ::testing::Test {
protected:
    void SetUp() override {
        cmstest::DaemonSettings s;
        s.port = msgPort = cmstest::FreePort();
        s.httpPort = port = cmstest::FreePort();
        s.dbName = db.name();
        s.dbPort = cmstest::TestDatabase::Port();
        s.extraParam =
            "<guard><msgallow>127.0.0.1 127.0.0.2/32</msgallow><token>s3cret</token>"
            "<rawsql>0</rawsql><power>0</power><stall>500</stall></guard>\n";
        daemon = std::make_unique<cmstest::Daemon>(s);
        ASSERT_TRUE(daemon->Start());
        ASSERT_TRUE(daemon->WaitFor("Start http port:", 15s)) << daemon->Output();
    }
    std::string Get(const std::string& target) { return cmstest::HttpGet(port, target); }

    cmstest::TestDatabase db{true, false};
    std::unique_ptr<cmstest::Daemon> daemon;
    int port = 0;
    int msgPort = 0;
};

TEST_F(GuardedServer, HttpCommandsNeedTheTokenAndPowerCommandsAreOff) {
    EXPECT_EQ(Get("/?cmd=reset"), k403);
    EXPECT_EQ(Get("/?cmd=reset&token=wrong"), k403);
    EXPECT_EQ(Get("/?cmd=reset&token=s3cre"), k403);
    EXPECT_EQ(Get("/metrics"), k403);
    EXPECT_EQ(Get("/metrics?token=s3cret").rfind("HTTP/1.1 200 OK", 0), 0u);
    EXPECT_EQ(Get("/?cmd=mrecstop&token=s3cret"), k404);  // an ordinary answer

    EXPECT_EQ(Get("/?token=s3cret&cmd=reboot"), k404);
    EXPECT_EQ(Get("/?cmd=poweroff&token=s3cret"), k404);
    EXPECT_EQ(daemon->CountOf("reboot skipped"), 0) << daemon->Output();
    EXPECT_EQ(daemon->CountOf("refused: switched off"), 2);
    EXPECT_EQ(daemon->CountOf("cserver reset succ"), 0);
}

TEST_F(GuardedServer, ARequestTricklingInIsClosedAfterTheStallTime) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    a.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    const auto start = std::chrono::steady_clock::now();
    bool closed = false;
    for (int i = 0; i < 40 && !closed; ++i) {
        closed = send(fd, "G", 1, MSG_NOSIGNAL) != 1;
        pollfd p{fd, POLLIN, 0};
        char byte;
        if (!closed && poll(&p, 1, 100) == 1) closed = recv(fd, &byte, 1, 0) <= 0;
    }
    close(fd);
    EXPECT_TRUE(closed);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(GuardedServer, MessagePortServesOnlyItsNetworksAndRefusesRawSql) {
    EXPECT_TRUE(ClosedFrom("127.0.0.3", msgPort));
    EXPECT_TRUE(ClosedFrom("127.0.0.3", msgPort));
    EXPECT_FALSE(ClosedFrom("127.0.0.2", msgPort));
    EXPECT_EQ(daemon->CountOf("refused 127.0.0.3: not in the allow-list"), 1);

    cmsclient::CmsClient c;
    ASSERT_TRUE(c.Connect("127.0.0.1", msgPort));
    cmsclient::MsgHead head;
    head.nType = CMS_MSG_SQLOPERATION_EX;
    head.nFrom = DATAQUERYMYSELF;
    cmsclient::Reply r;
    // Outside text is printed with its control bytes escaped, so it cannot forge lines.
    cmsclient::MsgHead login;
    login.nType = CMS_MSG_LOGIN;
    ASSERT_TRUE(c.Request(login, "evil\ncserver reset succ\r", r));
    EXPECT_EQ(daemon->CountOf("evil\\x0acserver reset succ\\x0d notfind"), 1) << daemon->Output();
    EXPECT_EQ(daemon->CountOf("cserver reset succ"), 1);

    ASSERT_TRUE(c.Request(head, "select 1", r));
    EXPECT_TRUE(r.IsState() && r.state == 1);
    EXPECT_TRUE(c.WaitClosed(5000));
}

}  // namespace
