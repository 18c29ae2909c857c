#include "comm/sysutil.h"

#include <gtest/gtest.h>
#include <linux/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

bool Exists(const std::string& p) {
    struct stat st {};
    return lstat(p.c_str(), &st) == 0;
}

void WriteFile(const std::string& p, const std::string& data) {
    std::ofstream(p, std::ios::binary) << data;
}

// A scratch directory, removed with everything below it afterwards.
class SysFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/sysutil_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
    }
    void TearDown() override {
        std::system(("rm -rf " + dir_).c_str());
    }
    std::string dir_;
};

TEST(SysTime, LocalTimeRoundTripWithoutDaylightSaving) {
    setenv("TZ", "UTC", 1);
    tzset();
    const uint32_t t = gettime(2024, 2, 29, 12, 0, 0);
    EXPECT_EQ(1709208000u, t);
    int y, mo, d, h, mi, s, wd;
    EXPECT_EQ(1, gettimeex(t, y, mo, d, h, mi, s, wd));
    EXPECT_EQ((std::vector<int>{2024, 2, 29, 12, 0, 0, 4}),
              (std::vector<int>{y, mo, d, h, mi, s, wd}));
    unsetenv("TZ");
    tzset();
}

TEST_F(SysFiles, MkdirExCreatesEveryDirectoryBeforeASlash) {
    EXPECT_EQ(1, mkdirEx((dir_ + "/a/b/c").c_str()));
    struct stat st {};
    ASSERT_EQ(0, stat((dir_ + "/a").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);  // owner only, and enterable by a normal user
    EXPECT_TRUE(Exists(dir_ + "/a/b"));
    EXPECT_FALSE(Exists(dir_ + "/a/b/c"));
    std::string deep = dir_;  // longer than the old 100-byte scratch buffer
    for (int i = 0; i < 20; ++i) deep += "/segment_" + std::to_string(i);
    EXPECT_EQ(1, mkdirEx((deep + "/").c_str()));
    EXPECT_TRUE(Exists(deep));
    EXPECT_EQ(0, mkdirEx(nullptr));
}

TEST_F(SysFiles, SizesAndPathJoining) {
    const std::string f = dir_ + "/f.bin";
    WriteFile(f, std::string(123, 'x'));
    EXPECT_EQ(123, get_file_size(f.c_str()));
    EXPECT_EQ(-1, get_file_size((dir_ + "/missing").c_str()));
    FILE* s = std::fopen(f.c_str(), "rb");
    ASSERT_NE(nullptr, s);
    std::fseek(s, 7, SEEK_SET);
    EXPECT_EQ(123, filesize(s));
    EXPECT_EQ(7, std::ftell(s));  // position restored
    std::fclose(s);

    char out[256] = {};
    for (const char* dir : {"dir/", "dir"}) {
        Getfilepath(dir, "f", out);
        EXPECT_STREQ("dir/f", out) << dir;
    }
    char small[6];
    Getfilepath(std::string(400, 'd').c_str(), "name", small, sizeof small);
    EXPECT_STREQ("ddddd", small);
}

TEST_F(SysFiles, DeletePathRemovesDeepTreesButNeverFollowsLinks) {
    std::string deep = dir_ + "/tree";
    ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    // Deeper than the 256-byte path buffers: must be removed whole, not cut short.
    for (int i = 0; i < 12; ++i) {
        deep += "/level_with_a_fairly_long_name_" + std::to_string(i);
        ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    }
    WriteFile(deep + "/0.jpg", "pic");
    EXPECT_EQ(1, DeletePath((dir_ + "/tree").c_str()));
    EXPECT_FALSE(Exists(dir_ + "/tree"));

    const std::string outside = dir_ + "/outside", tree = dir_ + "/tree2";
    ASSERT_EQ(0, mkdir(outside.c_str(), 0700));
    ASSERT_EQ(0, mkdir(tree.c_str(), 0700));
    WriteFile(outside + "/keep.jpg", "keep");
    WriteFile(tree + "/a.jpg", "a");
    ASSERT_EQ(0, symlink(outside.c_str(), (tree + "/link").c_str()));
    EXPECT_EQ(1, DeletePath(tree.c_str()));
    EXPECT_FALSE(Exists(tree + "/a.jpg"));
    EXPECT_TRUE(Exists(tree + "/link"));  // left alone, so its directory stays too
    EXPECT_TRUE(Exists(outside + "/keep.jpg"));
    EXPECT_EQ(0, DeletePath(nullptr));
}

TEST(SysAddresses, DottedTextAndNodeCodes) {
    EXPECT_EQ((10u << 24) | (1u << 16) | (168u << 8) | 192u, CharToIp("192.168.1.10"));
    EXPECT_EQ(256u, CharToIp("256.0.0.0"));                 // parts are not masked
    CharToIp(("1.2.3.4" + std::string(500, '5')).c_str());  // cut to its buffer

    EXPECT_FALSE(IsIpAddress("1.2.3"));
    EXPECT_TRUE(IsIpAddress("999.1.1.1.5"));  // a loose check by design
    EXPECT_FALSE(IsIpAddress("1.2.3.x"));
    std::string longText;
    for (int i = 0; i < 300; ++i) longText += "1.";
    EXPECT_TRUE(IsIpAddress(longText.c_str()));

    const std::pair<const char*, int> codes[] = {{"34020000002160000001", 1},
                                                 {"34020000001320000001", 0},
                                                 {"340200", 1},
                                                 {"340200000021600000011", -1}};
    for (const auto& [code, region] : codes) EXPECT_EQ(region, IsNodeGbRegion(code)) << code;
}

// The seam holds a fake for the whole test; the machine is never rebooted.
int g_lastCmd = 0;

TEST(SysReboot, ModeChoosesPowerOffOrRestart) {
    const RebootFunc previous = SetRebootFunc([](int cmd) { return g_lastCmd = cmd, 0; });
    EXPECT_TRUE(SystemReboot(1));
    EXPECT_EQ(static_cast<int>(LINUX_REBOOT_CMD_POWER_OFF), g_lastCmd);
    EXPECT_TRUE(SystemReboot(7));
    EXPECT_EQ(static_cast<int>(LINUX_REBOOT_CMD_RESTART), g_lastCmd);
    SetRebootFunc([](int) { return -1; });
    EXPECT_FALSE(SystemReboot(0));
    SetRebootFunc(previous);
}

TEST(SysBase64, VectorsRoundTripAndRefusals) {
    const char* plain[] = {"", "f", "fo", "foobar"};
    const char* coded[] = {"", "Zg==", "Zm8=", "Zm9vYmFy"};
    for (int i = 0; i < 4; ++i) {
        char out[16];
        const uint32_t n = std::strlen(plain[i]);
        EXPECT_EQ(std::strlen(coded[i]),
                  Base64Encode(reinterpret_cast<const unsigned char*>(plain[i]), n, out));
        EXPECT_STREQ(coded[i], out);
        unsigned char back[16] = {};
        EXPECT_EQ(n, Base64Decode(coded[i], back, sizeof back));
        EXPECT_EQ(0, std::memcmp(plain[i], back, n));
    }
    unsigned char out[16] = {};
    EXPECT_EQ(6u, Base64Decode("Zm9v\r\nYmFy", out, sizeof out));  // noise between blocks
    EXPECT_EQ(0u, Base64Decode("Zm9vYmFy", out, 5));               // below three quarters of 8
    char small[8];
    EXPECT_EQ(
        0u, Base64Encode(reinterpret_cast<const unsigned char*>("foobar"), 6, small, sizeof small));
}

}  // namespace
