#include "comm/filestore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "comm/globle.h"
#include "support/daemon.h"
#include "support/testdb.h"

namespace {

uint32_t LE32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
    return v;
}

bool Exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

// Areas: "snap" single files (type 1), "Face" picture directories (type 2), "odd" mode 2.
class FileStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_.swap(m_arrFilePath);
        const char* names[] = {"snap", "Face", "odd"};
        for (int i = 0; i < 3; ++i) {
            auto* p = new _file_path{{}, i, i + 1, {}};
            snprintf(p->name, sizeof p->name, "%s", names[i]);
            snprintf(p->path, sizeof p->path, "%s", dir_.File(names[i]).c_str());
            m_arrFilePath.push_back(p);
        }
    }
    void TearDown() override {
        for (_file_path* p : m_arrFilePath) delete p;
        m_arrFilePath.swap(saved_);
    }
    // The packed result as a string; empty on failure.
    static std::string Read(int type, int id) {
        char* buf = nullptr;
        int len = 0;
        if (!GetFileEx(type, id, 0, buf, len)) return "";
        std::unique_ptr<char[]> owned(buf);
        return std::string(buf, len);
    }

    cmstest::TempDir dir_;
    std::vector<_file_path*> saved_;
};

TEST_F(FileStoreTest, SingleFileRoundTripWithHeader) {
    std::string data(100, '\x5a');
    ASSERT_EQ(SaveFileEx("SNAP", 7, 99, data.data(), 100), 1);
    EXPECT_EQ(cmstest::ReadFile(dir_.File("snap/7")), data);

    std::string packed = Read(1, 7);
    ASSERT_EQ(packed.size(), 164u);
    EXPECT_EQ(LE32(packed, 0), 0xffffffffu);
    EXPECT_EQ(LE32(packed, 32), 100u);
    for (int off : {4, 28, 36, 60}) EXPECT_EQ(LE32(packed, off), 0u) << off;
    EXPECT_EQ(packed.substr(64), data);

    // A trailing '/' names the same object.
    char* buf = nullptr;
    int len = 0;
    ASSERT_EQ(GetPathFile((dir_.File("snap") + "/").c_str(), 7, buf, len), 1);
    delete[] buf;

    EXPECT_EQ(DeleteFileEx(1, 7), 1);
    EXPECT_EQ(DeleteFileEx(1, 7), 0);
    EXPECT_EQ(Read(1, 7), "");
}

TEST_F(FileStoreTest, PictureNumbersFollowTheLargest) {
    std::string dir = dir_.File("Face/5");
    EXPECT_EQ(GetFilePos(dir.c_str()), 0);  // not there yet
    for (int n : {255, 255, 12, 7}) ASSERT_EQ(SaveFileEx2(2, 5, n, "a", 1), 1);
    mkdir((dir + "/99.d").c_str(), 0755);  // not a regular file
    EXPECT_EQ(GetFilePos(dir.c_str()), 13);
}

TEST_F(FileStoreTest, ConcurrentNextNumberSavesNeverShareANumberInPrivateDirectories) {
    constexpr int kThreads = 8, kEach = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string body = std::to_string(t * kEach + i);
                EXPECT_EQ(SaveFileEx("face", 6, 255, body.data(), int(body.size())), 1);
            }
        });
    for (std::thread& th : threads) th.join();
    std::set<std::string> bodies;
    for (const auto& e : std::filesystem::directory_iterator(dir_.File("Face/6")))
        bodies.insert(cmstest::ReadFile(e.path()));
    EXPECT_EQ(size_t(kThreads * kEach), bodies.size());
    for (const char* made : {"Face", "Face/6"}) {
        struct stat st {};
        ASSERT_EQ(0, stat(dir_.File(made).c_str(), &st));
        EXPECT_EQ(0700u, st.st_mode & 0777) << made;
    }
}

TEST_F(FileStoreTest, ReadsLongerThanTheLimitAreRefusedBeforeReading) {
    ASSERT_EQ(SaveFileEx2(1, 8, 0, "12345", 5), 1);
    ASSERT_EQ(SaveFileEx2(2, 8, 1, "123", 3), 1);
    ASSERT_EQ(SaveFileEx2(2, 8, 2, "45", 2), 1);
    for (int type : {1, 2}) {
        char* buf = nullptr;
        int len = 0;
        EXPECT_EQ(1, GetFileEx(type, 8, 0, buf, len, 64 + 5));
        delete[] buf;
        buf = nullptr;
        EXPECT_EQ(0, GetFileEx(type, 8, 0, buf, len, 64 + 4)) << type;
        EXPECT_EQ(nullptr, buf);
    }
}

TEST_F(FileStoreTest, PicturesArePackedFromTheirOwnDirectory) {
    const std::map<int, std::string> pics = {{0, "zero"}, {3, "three!"}, {12, "x"}};
    for (const auto& [n, bytes] : pics) {
        ASSERT_EQ(SaveFileEx("face", 9, n, bytes.data(), bytes.size()), 1);
    }
    symlink("/etc/passwd", dir_.File("Face/9/4.jpg").c_str());  // must not be followed

    std::string cwd = std::filesystem::current_path();
    std::filesystem::current_path("/");
    std::string packed = Read(2, 9);
    std::filesystem::current_path(cwd);

    ASSERT_EQ(packed.size(), 64u + 4 + 6 + 1);
    size_t at = 64;
    for (int i = 0; i < 3; ++i) {
        int n = static_cast<int>(LE32(packed, 4 * i));
        uint32_t len = LE32(packed, 32 + 4 * i);
        ASSERT_EQ(pics.count(n), 1u) << n;
        EXPECT_EQ(packed.substr(at, len), pics.at(n));
        at += len;
    }

    unlink(dir_.File("Face/9/4.jpg").c_str());  // a delete leaves links alone
    EXPECT_EQ(DeleteFileEx(2, 9), 1);
    EXPECT_FALSE(Exists(dir_.File("Face/9")));
}

TEST_F(FileStoreTest, PictureReadStopsAtEightFilesAndFailsWithoutAny) {
    for (int n = 0; n < 11; ++n) ASSERT_EQ(SaveFileEx2(2, 4, n, "pq", 2), 1);
    std::string packed = Read(2, 4);
    EXPECT_EQ(packed.size(), 64u + 8 * 2);

    mkdir(dir_.File("Face/6").c_str(), 0755);
    mkdir(dir_.File("Face/6/sub").c_str(), 0755);
    char* buf = reinterpret_cast<char*>(1);
    int len = 0;
    EXPECT_EQ(GetFileEx(2, 6, 0, buf, len), 0);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(Read(2, 77), "");
}

TEST_F(FileStoreTest, RefusedSavesLeaveNothingBehind) {
    EXPECT_EQ(SaveFileEx("odd", 1, 0, "x", 1), 0);
    EXPECT_FALSE(Exists(dir_.File("odd")));
    EXPECT_EQ(DeleteFileEx(3, 1), 0);
    EXPECT_EQ(SaveFileEx("../snap", 1, 0, "x", 1), 0);

    // "<root>/<id>" that would not fit must not be cut down to another name.
    std::string root = dir_.path() + "/" + std::string(249 - dir_.path().size(), 'r');
    EXPECT_EQ(SaveFile(root.c_str(), 123456, "x", 1), 0);
    EXPECT_EQ(SavePathFile(root.c_str(), 1234, 255, "x", 1), 0);
    EXPECT_FALSE(Exists(root));
}

}  // namespace
