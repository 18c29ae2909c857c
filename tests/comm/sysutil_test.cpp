#include "comm/sysutil.h"

#include <gtest/gtest.h>
#include <linux/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>

namespace {

bool Exists(const std::string& p) {
    struct stat st {};
    return lstat(p.c_str(), &st) == 0;
}

bool IsDir(const std::string& p) {
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void WriteFile(const std::string& p, const std::string& data) {
    std::ofstream(p, std::ios::binary) << data;
}

// A scratch directory, removed with everything below it afterwards.
class TempDir : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/sysutil_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
    }
    void TearDown() override {
        // mkdirEx makes directories without the search bit; give it back before cleaning up.
        std::system(("chmod -R u+rwx " + dir_ + " && rm -rf " + dir_).c_str());
    }
    std::string dir_;
};

TEST(Time, LocalTimeRoundTripWithoutDaylightSaving) {
    const char* oldTz = std::getenv("TZ");
    const std::string saved = oldTz ? oldTz : "";
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(0u, gettime(1970, 1, 1, 0, 0, 0));
    const uint32_t t = gettime(2024, 2, 29, 12, 0, 0);
    EXPECT_EQ(1709208000u, t);
    int y, mo, d, h, mi, s, wd;
    EXPECT_EQ(1, gettimeex(t, y, mo, d, h, mi, s, wd));
    EXPECT_EQ(2024, y);
    EXPECT_EQ(2, mo);
    EXPECT_EQ(29, d);
    EXPECT_EQ(12, h);
    EXPECT_EQ(0, mi);
    EXPECT_EQ(0, s);
    EXPECT_EQ(4, wd);  // a Thursday
    if (oldTz) setenv("TZ", saved.c_str(), 1);
    else unsetenv("TZ");
    tzset();
}

TEST(Time, TicksAndSecondsFollowTheWallClock) {
    const uint32_t now = GetCurrentTime();
    EXPECT_LE(static_cast<uint32_t>(std::time(nullptr)) - now, 1u);
    const uint32_t t0 = GetTickCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const uint32_t elapsed = GetTickCount() - t0;  // unsigned subtraction survives the wrap
    EXPECT_GE(elapsed, 25u);
    EXPECT_LT(elapsed, 2000u);
}

using Files = TempDir;

TEST_F(Files, MkdirExCreatesParentsButNotTheLastPart) {
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir_.c_str()));
    EXPECT_EQ(1, mkdirEx("a/b/c"));
    EXPECT_TRUE(IsDir("a"));
    struct stat st {};
    ASSERT_EQ(0, stat("a", &st));
    EXPECT_EQ(0u, st.st_mode & 0177);  // owner read/write only, as the system always made them
    // Without the search bit only root can look inside.
    if (geteuid() == 0) {
        EXPECT_TRUE(IsDir("a/b"));
        EXPECT_FALSE(Exists("a/b/c"));
    }
    ASSERT_EQ(0, chdir(cwd));

    EXPECT_EQ(1, mkdirEx((dir_ + "/x/y/").c_str()));
    EXPECT_TRUE(IsDir(dir_ + "/x"));
    if (geteuid() == 0) {
        EXPECT_TRUE(IsDir(dir_ + "/x/y"));
    }
    EXPECT_EQ(0, mkdirEx(nullptr));
}

TEST_F(Files, MkdirExHandlesPathsLongerThanItsOldScratchBuffer) {
    if (geteuid() != 0) GTEST_SKIP() << "nested 0600 directories need root";
    std::string p = dir_;
    for (int i = 0; i < 20; ++i) p += "/segment_" + std::to_string(i);
    p += "/";
    ASSERT_GT(p.size(), 200u);
    EXPECT_EQ(1, mkdirEx(p.c_str()));
    EXPECT_TRUE(IsDir(p));
}

TEST_F(Files, SizesOfPathsAndStreams) {
    const std::string f = dir_ + "/f.bin";
    WriteFile(f, std::string(123, 'x'));
    EXPECT_EQ(123, get_file_size(f.c_str()));
    EXPECT_EQ(-1, get_file_size((dir_ + "/missing").c_str()));
    EXPECT_EQ(-1, get_file_size(nullptr));

    FILE* s = std::fopen(f.c_str(), "rb");
    ASSERT_NE(nullptr, s);
    std::fseek(s, 7, SEEK_SET);
    EXPECT_EQ(123, filesize(s));
    EXPECT_EQ(7, std::ftell(s));  // position restored
    std::fclose(s);
}

TEST(Getfilepath, JoinsWithOneSlashAndStaysInsideTheBuffer) {
    char out[256] = {};
    Getfilepath("dir/", "f", out);
    EXPECT_STREQ("dir/f", out);
    Getfilepath("dir", "f", out);
    EXPECT_STREQ("dir/f", out);

    struct {
        char buf[256];
        char guard[8];
    } g;
    std::memset(g.guard, 'G', sizeof g.guard);
    const std::string longDir(400, 'd');
    Getfilepath(longDir.c_str(), "name", g.buf);
    EXPECT_EQ(255u, std::strlen(g.buf));
    EXPECT_EQ(0, std::memcmp(g.guard, "GGGGGGGG", 8));

    char small[6];
    Getfilepath("ab", "cdef", small, sizeof small);
    EXPECT_STREQ("ab/cd", small);
}

TEST_F(Files, DeletePathRemovesWholeTreeEvenBeyondPathBufferLength) {
    std::string deep = dir_ + "/tree";
    ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    WriteFile(deep + "/top.jpg", "1");
    // Deeper than the 256-byte path buffers: must still be found and removed, not cut short.
    for (int i = 0; i < 12; ++i) {
        deep += "/level_with_a_fairly_long_name_" + std::to_string(i);
        ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    }
    ASSERT_GT(deep.size(), 256u);
    WriteFile(deep + "/0.jpg", "pic");

    EXPECT_EQ(1, DeletePath((dir_ + "/tree").c_str()));
    EXPECT_FALSE(Exists(dir_ + "/tree"));

    const std::string file = dir_ + "/file.txt";
    WriteFile(file, "x");
    EXPECT_EQ(1, DeletePath(file.c_str()));
    EXPECT_FALSE(Exists(file));
    EXPECT_EQ(1, DeletePath((dir_ + "/missing").c_str()));
    EXPECT_EQ(0, DeletePath(nullptr));
}

TEST_F(Files, DeletePathNeitherFollowsNorRemovesLinks) {
    const std::string outside = dir_ + "/outside";
    ASSERT_EQ(0, mkdir(outside.c_str(), 0700));
    WriteFile(outside + "/keep.jpg", "keep");
    const std::string tree = dir_ + "/tree";
    ASSERT_EQ(0, mkdir(tree.c_str(), 0700));
    WriteFile(tree + "/a.jpg", "a");
    ASSERT_EQ(0, symlink(outside.c_str(), (tree + "/link").c_str()));

    EXPECT_EQ(1, DeletePath(tree.c_str()));
    EXPECT_TRUE(Exists(outside + "/keep.jpg"));
    EXPECT_FALSE(Exists(tree + "/a.jpg"));
    EXPECT_TRUE(Exists(tree + "/link"));  // left alone, so its directory stays too
}

TEST(Addresses, CharToIpPutsFirstPartInLowestByte) {
    EXPECT_EQ((10u << 24) | (1u << 16) | (168u << 8) | 192u, CharToIp("192.168.1.10"));
    EXPECT_EQ(256u, CharToIp("256.0.0.0"));  // parts are not masked
    EXPECT_EQ(0u, CharToIp(nullptr));
    const std::string longText = "1.2.3.4" + std::string(500, '5');
    CharToIp(longText.c_str());  // cut to its scratch buffer, no overrun
}

TEST(Addresses, IsIpAddressIsALooseCheck) {
    EXPECT_TRUE(IsIpAddress("192.168.1.10"));
    EXPECT_FALSE(IsIpAddress("1.2.3"));
    EXPECT_TRUE(IsIpAddress("1.2.3.4.5"));
    EXPECT_TRUE(IsIpAddress("999.1.1.1"));
    EXPECT_TRUE(IsIpAddress("1..2.3.4"));  // empty parts vanish
    EXPECT_FALSE(IsIpAddress("1.2.3.x"));
    EXPECT_FALSE(IsIpAddress(""));
    EXPECT_FALSE(IsIpAddress(nullptr));
    std::string longText;
    for (int i = 0; i < 300; ++i) longText += "1.";
    EXPECT_TRUE(IsIpAddress(longText.c_str()));
}

TEST(Codes, SerialsAndGbRegions) {
    EXPECT_TRUE(IsSerial("34020000001320000001"));
    EXPECT_FALSE(IsSerial("10.0.0.1:8000"));
    EXPECT_FALSE(IsSerial(nullptr));

    EXPECT_EQ(1, IsNodeGbRegion("34020000002160000001"));
    EXPECT_EQ(1, IsNodeGbRegion("34020000002150000001"));
    EXPECT_EQ(0, IsNodeGbRegion("34020000001320000001"));
    EXPECT_EQ(1, IsNodeGbRegion("340200"));
    EXPECT_EQ(-1, IsNodeGbRegion("340200000021600000011"));
    EXPECT_EQ(-1, IsNodeGbRegion(""));
    EXPECT_EQ(-1, IsNodeGbRegion(nullptr));
}

TEST(ReleaseArray, DeletesEveryRecordAndEmptiesTheVector) {
    static int destroyed = 0;
    struct Rec {
        ~Rec() { ++destroyed; }
    };
    std::vector<Rec*> v{new Rec, nullptr, new Rec};
    EXPECT_EQ(1, ReleaseArray(v));
    EXPECT_EQ(2, destroyed);
    EXPECT_TRUE(v.empty());
}

// Every reboot test runs with a fake in the seam; the machine is never rebooted.
class Reboot : public ::testing::Test {
protected:
    static int FakeReboot(int cmd) {
        lastCmd = cmd;
        return result;
    }
    void SetUp() override {
        lastCmd = 0;
        result = 0;
        previous_ = SetRebootFunc(&FakeReboot);
    }
    void TearDown() override { SetRebootFunc(previous_); }
    static inline int lastCmd = 0;
    static inline int result = 0;
    RebootFunc previous_ = nullptr;
};

TEST_F(Reboot, ModeChoosesPowerOffOrRestart) {
    EXPECT_TRUE(SystemReboot(1));
    EXPECT_EQ(static_cast<int>(LINUX_REBOOT_CMD_POWER_OFF), lastCmd);
    EXPECT_TRUE(SystemReboot(0));
    EXPECT_EQ(static_cast<int>(LINUX_REBOOT_CMD_RESTART), lastCmd);
    EXPECT_TRUE(SystemReboot(7));
    EXPECT_EQ(static_cast<int>(LINUX_REBOOT_CMD_RESTART), lastCmd);
    result = -1;
    EXPECT_FALSE(SystemReboot(0));
}

TEST_F(Reboot, SeamReturnsThePreviousFunction) {
    RebootFunc fake = SetRebootFunc(&FakeReboot);
    EXPECT_EQ(&FakeReboot, fake);
}

TEST(Base64, KnownVectors) {
    const char* plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (int i = 0; i < 7; ++i) {
        char out[16];
        const uint32_t n = std::strlen(plain[i]);
        EXPECT_EQ(std::strlen(coded[i]),
                  Base64Encode(reinterpret_cast<const unsigned char*>(plain[i]), n, out));
        EXPECT_STREQ(coded[i], out);
        unsigned char back[16] = {};
        EXPECT_EQ(n, Base64Decode(coded[i], back, sizeof back));
        EXPECT_EQ(0, std::memcmp(plain[i], back, n));
    }
}

TEST(Base64, BinaryRoundTripAndNoiseBetweenBlocks) {
    std::string data;
    for (int i = 0; i < 300; ++i) data += static_cast<char>((i * 37) & 0xff);
    std::string text(((data.size() + 2) / 3) * 4 + 1, '\0');
    const uint32_t n = Base64Encode(reinterpret_cast<const unsigned char*>(data.data()),
                                    data.size(), &text[0], text.size());
    ASSERT_EQ(text.size() - 1, n);
    std::string back(data.size(), '\0');
    EXPECT_EQ(data.size(), Base64Decode(text.c_str(),
                                        reinterpret_cast<unsigned char*>(&back[0]), back.size()));
    EXPECT_EQ(data, back);

    unsigned char out[16] = {};
    EXPECT_EQ(6u, Base64Decode("Zm9v\r\nYmFy", out, sizeof out));
    EXPECT_EQ(0, std::memcmp("foobar", out, 6));
}

TEST(Base64, RefusesBuffersThatCannotHoldTheResult) {
    unsigned char out[16] = {};
    EXPECT_EQ(0u, Base64Decode("Zm9vYmFy", out, 5));  // below three quarters of 8
    char small[8];
    EXPECT_EQ(0u, Base64Encode(reinterpret_cast<const unsigned char*>("foobar"), 6, small,
                               sizeof small));
    EXPECT_EQ(0u, Base64Encode(nullptr, 3, small));
}

TEST(Base64, LoadBlockSkipsNoiseAndPadsTheEnd) {
    unsigned char block[4];
    const char* text = "A\nB*C";
    EXPECT_EQ(5, load_block(text, 5, 0, block));
    EXPECT_EQ('A', block[0]);
    EXPECT_EQ('B', block[1]);
    EXPECT_EQ('C', block[2]);
    EXPECT_EQ(255, block[3]);
}

}  // namespace
