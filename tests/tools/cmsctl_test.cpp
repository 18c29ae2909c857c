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

// The exit code, and a piece of the output when one is given.
void Expect(const CtlRun& run, int code, const std::string& part = "") {
    EXPECT_EQ(run.code, code) << run.out;
    EXPECT_TRUE(Contains(run.out, part)) << run.out;
}
void ExpectOutput(const CtlRun& run, const std::string& out) {
    EXPECT_EQ(run.code, 0) << run.out;
    EXPECT_EQ(run.out, out);
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
                                               {"login", "A", "--bogus", "1"}})
        Expect(At(words), 2, "cmsctl: ");
    // Nobody listening: a failure, not bad input.
    EXPECT_EQ(Ctl({"--port", std::to_string(cmstest::FreePort()), "login", "X"}).code, 1);
}

TEST_F(Cmsctl, LoginAddressesAndNodeLists) {
    ExpectOutput(At({"login", kRecorder}), "state 0 (ok)\n");
    EXPECT_EQ(At({"login", "NOSUCHSERIAL"}).code, 1);

    // Channel 1 of the recorder: through the root media server, addressed by its code.
    CtlRun url = At({"url", "--node", "1", "--type", "3"});
    Expect(url, 0, "address:   rtsp://192.168.10.10:554/");
    EXPECT_TRUE(Contains(url.out, ":@34010400001310000001\n")) << url.out;
    Expect(At({"url", "--code", "34010400001310000001"}), 0, "code:      34010400001310000001\n");
    Expect(At({"url", "--node", "999", "--type", "3"}), 1, "state 1 (failed)");

    // The provincial platform is sent the shared recorder and crossing channel.
    Expect(At({"nodes", "--type", "4", "--code", "34000000002000000001"}), 0,
           "34010000001310000004");
    EXPECT_EQ(At({"nodes", "--type", "1", "--code", "x"}).code, 1);
}

TEST_F(Cmsctl, Statements) {
    ExpectOutput(At({"sql", "query", "select id,name from device where id<3 order by id",
                     "--columns", "id,name"}),
                 "<data><tb>id,name,</tb><vs><v>1,Gate recorder,</v><v>2,Lobby camera,</v></vs>"
                 "</data>\n");
    CtlRun add = At({"sql", "add", "insert into stiffinfo(name) values ('Wang Fang')"});
    ExpectOutput(add, "id " + db->Scalar("select id from stiffinfo where name='Wang Fang'") + "\n");
    EXPECT_EQ(At({"sql", "exec", "update stiffinfo set department='Gate' where id=1"}).code, 0);
    EXPECT_EQ(db->Scalar("select department from stiffinfo where id=1"), "Gate");
    EXPECT_EQ(At({"sql", "exec", "update nosuchtable set a=1"}).code, 1);
}

TEST_F(Cmsctl, FilesGoInAndComeBackOut) {
    cmstest::TempDir tmp;
    std::string bytes = "\xff\xd8 picture \0 bytes";
    bytes += std::string(5000, 'x');
    tmp.Write("in.jpg", bytes);

    Expect(At({"put", "1", "42", "0", tmp.File("in.jpg")}), 0);
    Expect(At({"get", "1", "42", "0"}), 0, "     -1  " + std::to_string(bytes.size()));
    Expect(At({"get", "1", "42", "0", "-o", tmp.File("out.jpg")}), 0);
    EXPECT_EQ(cmstest::ReadFile(tmp.File("out.jpg")), bytes);

    EXPECT_EQ(At({"delete", "1", "42"}).code, 0);
    Expect(At({"get", "1", "42", "0"}), 1, "no such object");
}

TEST_F(Cmsctl, EventsLandInTheirLogTables) {
    cmstest::TempDir tmp;
    tmp.Write("pic.jpg", "JPEGDATA");
    Expect(At({"event", "alarm", "--as", kRecorder, "--chan", "1", "--code", "5", "--info",
               "door forced", "--picture", tmp.File("pic.jpg")}),
           0);
    // Handled before the reply to the closing login, so the row is there already.
    auto rows = db->Query("select id,nodeid,nodetype,eventtype,descript from intveventlog");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(std::vector<std::string>(rows[0].begin() + 1, rows[0].end()),
              (std::vector<std::string>{"1", "3", "5", "door forced"}));
    EXPECT_EQ(cmstest::ReadFile(daemon->dir().File("store/intv/" + rows[0][0] + "/0.jpg")),
              "JPEGDATA");

    ExpectOutput(At({"event", "diagnosis", "--serial", kRecorder, "--code", "7"}),
                 "state 0 (ok)\n");
    EXPECT_EQ(CountSoon("devdiagnoselog", "nodeid=1 and nodetype=3 and descript='镜头遮挡'"), 1);

    // An unknown sender is not acknowledged.
    Expect(At({"--timeout", "300", "event", "state", "--serial", "NOSUCH", "--code", "1"}), 1);
}

}  // namespace
