// File requests of the message protocol end to end: the real daemon and a framed client.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "cmsclient/cmsclient.h"
#include "cmsclient/requests.h"
#include "support/daemon.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

// Asks for object `id` of the single-file area on a connection of its own, which the server
// then closes; the data of the reply.
std::string GetFile(int port, int id) {
    cmsclient::CmsClient c;
    cmsclient::Reply r;
    const cmsclient::Request req = cmsclient::GetFile(1, id, 0);
    if (!c.Connect("127.0.0.1", port) || !c.Request(req.head, req.payload, r) || r.IsState())
        return "no data reply";
    EXPECT_TRUE(c.WaitClosed(5000));
    return std::string(r.data.begin(), r.data.end());
}

TEST(FileRequests, AFileNoReplyCanCarryIsAnsweredWithOneBeforeItIsRead) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    cmstest::DaemonSettings s;
    s.port = cmstest::FreePort();
    s.dbName = db.name();
    s.dbPort = cmstest::TestDatabase::Port();
    s.extraParam =
        "<paths><path><name>mcap</name><type>1</type><mode>0</mode>"
        "<p>store/mcap/</p></path></paths>\n";
    cmstest::Daemon daemon(s);
    daemon.dir().Write("store/mcap/5", "jpeg");
    // Sparse: no disk is used, but reading it would need 3 GiB of memory.
    daemon.dir().Write("store/mcap/6", "");
    ASSERT_EQ(0, truncate(daemon.dir().File("store/mcap/6").c_str(), 3LL << 30));
    ASSERT_TRUE(daemon.Start());
    ASSERT_TRUE(daemon.WaitFor("load data succ", 15s)) << daemon.Output();

    const std::string small = GetFile(s.port, 5);
    ASSERT_EQ(64u + 4, small.size());
    EXPECT_EQ("jpeg", small.substr(64));
    EXPECT_EQ(std::string("\1\0\0\0", 4), GetFile(s.port, 6));
    EXPECT_EQ(std::string("\1\0\0\0", 4), GetFile(s.port, 7));  // missing
}

}  // namespace
