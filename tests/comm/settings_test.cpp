#include "comm/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include "comm/globle.h"
#include "comm/sysutil.h"

namespace {

// The fields of the local file on one line: ports, serial, route, cms link, address, port.
std::string Local(const _LoaclParam& p) {
    return std::to_string(p.nPort) + " " + std::to_string(p.nHttpPort) + " " + p.szSerial + " " +
           p.szRouteIP + " " + std::to_string(p.bLinkCms) + " " + p.szCmsIP + " " +
           std::to_string(p.nCmsPort);
}

// Points the readers at a temporary settings directory for each test.
class Settings : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/settings_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir_ = tmpl;
        SetConfigDir(dir_.c_str());
    }
    void TearDown() override {
        SetConfigDir(nullptr);
        ReleaseArray(m_arrRtspString);
        ReleaseArray(paths_);
        DeletePath(dir_.c_str());
    }
    void Write(const char* name, const std::string& text) {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << text;
    }
    std::string Path(size_t i) const {
        const _file_path* p = paths_[i];
        return std::string(p->name) + " " + std::to_string(p->type) + " " +
               std::to_string(p->mode) + " " + p->path;
    }
    std::string dir_;
    std::vector<_file_path*> paths_;
};

TEST_F(Settings, ShippedFilesDescribeTheEmbeddedSetup) {
    SetConfigDir(CMS_SOURCE_DIR "/config");

    _LoaclParam local{};
    ASSERT_EQ(1, readconfig(&local));
    EXPECT_EQ(0u, Local(local).find("7001 7080 34020000002000000001 "));
    EXPECT_FALSE(local.bLinkCms);
    EXPECT_NE(local.nPort, local.nCmsPort);  // the top-level port was read, not the cms one

    _cmsParam db{};
    ASSERT_EQ(1, readcmsconfig(&db));
    EXPECT_EQ("127.0.0.1:3307 cms cms cms 0",
              std::string(db.szDbAddr) + ":" + std::to_string(db.szDbPort) + " " + db.szDbName +
                  " " + db.szDbUser + " " + db.szDbPass + " " + std::to_string(db.nLocalMode));
    EXPECT_EQ(16, db.nDbPool);

    ASSERT_EQ(1, readfilepath(paths_));
    const char* names[] = {"mcap",   "mrec", "mdown", "tcap",    "trec",
                           "regist", "intv", "face",  "diagnoss"};
    ASSERT_EQ(9u, paths_.size());
    std::set<int> types;
    for (size_t i = 0; i < paths_.size(); ++i) {
        EXPECT_STREQ(names[i], paths_[i]->name);
        EXPECT_EQ(i < 6 ? 0 : 1, paths_[i]->mode) << names[i];
        EXPECT_EQ(std::string("var/store/") + names[i] + "/", paths_[i]->path);
        types.insert(paths_[i]->type);
    }
    EXPECT_EQ(9u, types.size());  // clients fetch files by type

    ASSERT_EQ(1, readdevconfig());
    int rtspTemplates = 0;
    for (const _RtspHelpString* t : m_arrRtspString) {
        if (t->link != 1) continue;
        ++rtspTemplates;
        // The server writes the scheme itself; values are raw text, so no entities.
        EXPECT_EQ(nullptr, std::strstr(t->main, "rtsp://")) << t->name;
        EXPECT_NE(nullptr, std::strstr(t->second, "{ip}")) << t->name;
        EXPECT_EQ(nullptr, std::strchr(t->main, '&')) << t->name;
    }
    EXPECT_GE(rtspTemplates, 2);
}

TEST_F(Settings, LocalFileFieldsAndTheOrderQuirk) {
    _LoaclParam p{};
    EXPECT_EQ(0, readconfig(&p));  // missing
    Write("cmslocal.xml", "<port>7001</port>");
    EXPECT_EQ(0, readconfig(&p));  // no <cfg>
    EXPECT_EQ(0, p.nPort);

    Write("cmslocal.xml",
          "<cfg><port>7001</port><hport>7080</hport><sn>SN1</sn>"
          "<cms><en>7</en><ip>10.1.1.1</ip><port>9000</port></cms></cfg>");
    std::strcpy(p.szRouteIP, "kept");  // a missing element leaves the field alone
    ASSERT_EQ(1, readconfig(&p));
    EXPECT_EQ("7001 7080 SN1 kept 1 10.1.1.1 9000", Local(p));

    // The cms block first: its port is the first one found, so both ports take it.
    Write("cmslocal.xml",
          "<cfg><cms><en>0</en><port>9000</port></cms><port>7001</port><hport>1</hport></cfg>");
    _LoaclParam q{};
    ASSERT_EQ(1, readconfig(&q));
    EXPECT_EQ((std::vector<int>{q.nPort, q.nCmsPort, q.bLinkCms}),
              (std::vector<int>{9000, 9000, 0}));
}

TEST_F(Settings, OverlongLocalValuesAreCutToTheirFields) {
    Write("cmslocal.xml", "<cfg><port>7001</port><sn>" + std::string(300, 's') + "</sn><route>" +
                              std::string(300, 'r') + "</route><cms><ip>" + std::string(400, 'i') +
                              "</ip><port>1</port></cms></cfg>");
    _LoaclParam p{};
    ASSERT_EQ(1, readconfig(&p));
    // The cms block is cut to its buffer before the inner search: no </ip> remains in it.
    EXPECT_EQ("7001 0 " + std::string(49, 's') + " " + std::string(99, 'r') + " 0  0", Local(p));
    EXPECT_EQ('\0', p.szDirect[0]);  // the field after szSerial is untouched
}

TEST_F(Settings, FilePathsInFileOrderEvenWhenMalformed) {
    Write("cmsparam.xml",
          "<paths><path><name>a</name><type>1</type><mode>1</mode><p>/a/</p></path>\n"
          "<path><name>b</name></path></path>x<path><name>z</name></paths>");
    ASSERT_EQ(1, readfilepath(paths_));
    ASSERT_EQ(3u, paths_.size());
    EXPECT_EQ("a 1 1 /a/", Path(0));
    EXPECT_EQ("b 0 0 ", Path(1));  // missing elements stay zero
    // A stray end tag still yields an (empty) record; the unclosed last entry ends the list.
    EXPECT_EQ(" 0 0 ", Path(2));
    ReleaseArray(paths_);

    std::string many = "<paths>";
    for (int i = 0; i < 500; ++i) many += "<path><name>n" + std::to_string(i) + "</name></path>";
    Write("cmsparam.xml", many + "</paths>");
    EXPECT_EQ(1, readfilepath(paths_));
    EXPECT_GT(paths_.size(), 50u);  // as many as fit in the block
    EXPECT_LT(paths_.size(), 500u);
}

TEST_F(Settings, DeviceTemplates) {
    Write("dev.xml", "<dev><name>x</name></dev>");
    EXPECT_EQ(0, readdevconfig());  // no <devs>
    Write("dev.xml",
          "<devs><dev><name>cam</name><verify>1</verify><link>1</link><type>5</type>"
          "<mode>2</mode><main>{ip}/m</main><sub>{ip}/s</sub><replay>{ip}/r?a&b</replay></dev>"
          "<dev><name>" +
              std::string(600, 'n') + "</name></dev><dev><name>last</name></dev></devs>");
    ASSERT_EQ(1, readdevconfig());
    ASSERT_EQ(3u, m_arrRtspString.size());
    const _RtspHelpString* t = m_arrRtspString[0];
    EXPECT_TRUE(t->bCheckPass);
    EXPECT_EQ((std::vector<int>{1, 5, 2}), (std::vector<int>{t->link, t->type, t->mode}));
    EXPECT_EQ("cam {ip}/m {ip}/s {ip}/r?a&b",
              std::string(t->name) + " " + t->main + " " + t->second + " " + t->replay);
    // The over-long entry is cut to its buffer, losing its </name>: an empty record.
    EXPECT_EQ('\0', m_arrRtspString[1]->name[0]);
    EXPECT_STREQ("last", m_arrRtspString[2]->name);
}

}  // namespace
