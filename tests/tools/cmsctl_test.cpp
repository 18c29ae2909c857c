// cmsctl end to end: the real binary against the real daemon over the demo catalogue.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon.h"
#include "support/testdb.h"

using namespace std::chrono_literals;

namespace {

const char* const kRecorder = "34010400001180000001";  // demo device 1, channel 1 is node 1

struct CtlRun {
    int code = -1;
    std::string out;  // standard output and error together
};

std::string Quote(const std::string& word) {
    std::string q = "'";
    for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

CtlRun Ctl(const std::vector<std::string>& words) {
    std::string cmd = Quote(std::string(CMS_BINARY_DIR) + "/tools/cmsctl");
    for (const std::string& w : words) cmd += " " + Quote(w);
    cmd += " 2>&1";
    CtlRun run;
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe) return run;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) run.out.append(buf, n);
    int status = pclose(pipe);
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Cmsctl : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        db = new cmstest::TestDatabase(true, true);
        cmstest::DaemonSettings s;
        s.port = port = cmstest::FreePort();
        s.dbName = db->name();
        s.dbPort = cmstest::TestDatabase::Port();
        s.extraParam =
            "<paths>"
            "<path><name>mcap</name><type>1</type><mode>0</mode><p>store/mcap/</p></path>"
            "<path><name>intv</name><type>7</type><mode>1</mode><p>store/intv/</p></path>"
            "</paths>\n";
        daemon = new cmstest::Daemon(s);
        started = db->ok() && daemon->Start() && daemon->WaitFor("Start server port", 15s);
    }
    static void TearDownTestSuite() {
        delete daemon;
        delete db;
    }
    void SetUp() override {
        ASSERT_EQ(access((std::string(CMS_BINARY_DIR) + "/tools/cmsctl").c_str(), X_OK), 0)
            << "build the cmsctl target first";
        ASSERT_TRUE(started) << daemon->Output();
    }

    // cmsctl against the daemon.
    static CtlRun At(std::vector<std::string> words) {
        words.insert(words.begin(), {"--port", std::to_string(port), "--timeout", "3000"});
        return Ctl(words);
    }
    // Rows written by the daemon's own connections appear a little after the reply.
    static long long CountSoon(const std::string& table, const std::string& where) {
        long long n = 0;
        for (int i = 0; i < 100 && (n = db->Count(table, where)) == 0; ++i)
            std::this_thread::sleep_for(20ms);
        return n;
    }

    static inline cmstest::TestDatabase* db = nullptr;
    static inline cmstest::Daemon* daemon = nullptr;
    static inline int port = 0;
    static inline bool started = false;
};

TEST_F(Cmsctl, HelpAndBadInput) {
    CtlRun help = Ctl({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char* word :
         {"login", "push", "url", "nodes", "sql", "put", "get", "delete", "event"})
        EXPECT_TRUE(Contains(help.out, std::string("\n  ") + word + " ")) << word;

    // Bad input is refused before anything is sent.
    for (const auto& words :
         std::vector<std::vector<std::string>>{{},
                                               {"frobnicate"},
                                               {"url", "--node", "x", "--type", "3"},
                                               {"url", "--node", "1"},
                                               {"sql", "query", "select 1"},
                                               {"put", "1", "2", "3", "/nonexistent/file"},
                                               {"event", "alarm", "--code", "5"},
                                               {"login", std::string(100, 'S')},
                                               {"login", "A", "--bogus", "1"}}) {
        CtlRun r = At(words);
        EXPECT_EQ(r.code, 2) << r.out;
        EXPECT_TRUE(Contains(r.out, "cmsctl: ")) << r.out;
    }
    // Nobody listening: a failure, not bad input.
    EXPECT_EQ(Ctl({"--port", std::to_string(cmstest::FreePort()), "login", "X"}).code, 1);
}

TEST_F(Cmsctl, LoginAddressesAndNodeLists) {
    CtlRun login = At({"login", kRecorder});
    EXPECT_EQ(login.code, 0) << login.out;
    EXPECT_EQ(login.out, "state 0 (ok)\n");
    EXPECT_EQ(At({"login", "NOSUCHSERIAL"}).code, 1);

    // Channel 1 of the recorder: through the root media server, addressed by its code.
    CtlRun url = At({"url", "--node", "1", "--type", "3"});
    EXPECT_EQ(url.code, 0) << url.out;
    EXPECT_TRUE(Contains(url.out, "address:   rtsp://192.168.10.10:554/")) << url.out;
    EXPECT_TRUE(Contains(url.out, ":@34010400001310000001\n")) << url.out;
    CtlRun byCode = At({"url", "--code", "34010400001310000001"});
    EXPECT_EQ(byCode.code, 0) << byCode.out;
    EXPECT_TRUE(Contains(byCode.out, "code:      34010400001310000001\n")) << byCode.out;
    CtlRun missing = At({"url", "--node", "999", "--type", "3"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_TRUE(Contains(missing.out, "state 1 (failed)")) << missing.out;

    // The provincial platform is sent the shared recorder and crossing channel.
    CtlRun nodes = At({"nodes", "--type", "4", "--code", "34000000002000000001"});
    EXPECT_EQ(nodes.code, 0) << nodes.out;
    EXPECT_TRUE(Contains(nodes.out, "34010000001310000004")) << nodes.out;
    EXPECT_EQ(At({"nodes", "--type", "1", "--code", "x"}).code, 1);
}

TEST_F(Cmsctl, Statements) {
    CtlRun query = At({"sql", "query", "select id,name from device where id<3 order by id",
                       "--columns", "id,name"});
    EXPECT_EQ(query.code, 0) << query.out;
    EXPECT_EQ(query.out,
              "<data><tb>id,name,</tb><vs><v>1,Gate recorder,</v><v>2,Lobby camera,</v></vs>"
              "</data>\n");

    CtlRun add = At({"sql", "add", "insert into stiffinfo(name) values ('Wang Fang')"});
    EXPECT_EQ(add.code, 0) << add.out;
    EXPECT_EQ(add.out,
              "id " + db->Scalar("select id from stiffinfo where name='Wang Fang'") + "\n");
    EXPECT_EQ(At({"sql", "exec", "update stiffinfo set department='Gate' where id=1"}).code, 0);
    EXPECT_EQ(db->Scalar("select department from stiffinfo where id=1"), "Gate");
    EXPECT_EQ(At({"sql", "exec", "update nosuchtable set a=1"}).code, 1);
}

TEST_F(Cmsctl, FilesGoInAndComeBackOut) {
    cmstest::TempDir tmp;
    std::string bytes = "\xff\xd8 picture \0 bytes";
    bytes += std::string(5000, 'x');
    tmp.Write("in.jpg", bytes);

    CtlRun put = At({"put", "1", "42", "0", tmp.File("in.jpg")});
    EXPECT_EQ(put.code, 0) << put.out;
    CtlRun list = At({"get", "1", "42", "0"});
    EXPECT_EQ(list.code, 0) << list.out;
    EXPECT_TRUE(Contains(list.out, "     -1  " + std::to_string(bytes.size()))) << list.out;
    CtlRun get = At({"get", "1", "42", "0", "-o", tmp.File("out.jpg")});
    EXPECT_EQ(get.code, 0) << get.out;
    EXPECT_EQ(cmstest::ReadFile(tmp.File("out.jpg")), bytes);

    EXPECT_EQ(At({"delete", "1", "42"}).code, 0);
    CtlRun gone = At({"get", "1", "42", "0"});
    EXPECT_EQ(gone.code, 1);
    EXPECT_TRUE(Contains(gone.out, "no such object")) << gone.out;
}

TEST_F(Cmsctl, EventsLandInTheirLogTables) {
    cmstest::TempDir tmp;
    tmp.Write("pic.jpg", "JPEGDATA");
    CtlRun alarm = At({"event", "alarm", "--as", kRecorder, "--chan", "1", "--code", "5", "--info",
                       "door forced", "--picture", tmp.File("pic.jpg")});
    EXPECT_EQ(alarm.code, 0) << alarm.out;
    // Handled before the reply to the closing login, so the row is there already.
    auto rows = db->Query("select id,nodeid,nodetype,eventtype,descript from intveventlog");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][1], "1");
    EXPECT_EQ(rows[0][2], "3");
    EXPECT_EQ(rows[0][3], "5");
    EXPECT_EQ(rows[0][4], "door forced");
    EXPECT_EQ(cmstest::ReadFile(daemon->dir().File("store/intv/" + rows[0][0] + "/0.jpg")),
              "JPEGDATA");

    CtlRun diag = At({"event", "diagnosis", "--serial", kRecorder, "--code", "7"});
    EXPECT_EQ(diag.code, 0) << diag.out;
    EXPECT_EQ(diag.out, "state 0 (ok)\n");
    EXPECT_EQ(CountSoon("devdiagnoselog", "nodeid=1 and nodetype=3 and descript='镜头遮挡'"), 1);

    // An unknown sender is not acknowledged.
    CtlRun unknown =
        At({"--timeout", "300", "event", "state", "--serial", "NOSUCH", "--code", "1"});
    EXPECT_EQ(unknown.code, 1) << unknown.out;
}

}  // namespace
