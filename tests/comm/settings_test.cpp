#include "comm/settings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "comm/globle.h"
#include "comm/sysutil.h"

namespace {

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
    std::string dir_;
    std::vector<_file_path*> paths_;
};

TEST_F(Settings, ShippedFilesDescribeTheEmbeddedSetup) {
    SetConfigDir(CMS_SOURCE_DIR "/config");

    _LoaclParam local{};
    ASSERT_EQ(1, readconfig(&local));
    EXPECT_EQ(7001, local.nPort);
    EXPECT_EQ(7080, local.nHttpPort);
    EXPECT_STREQ("34020000002000000001", local.szSerial);
    EXPECT_FALSE(local.bLinkCms);
    EXPECT_NE(local.nPort, local.nCmsPort);  // the top-level port was read, not the cms one

    _cmsParam db{};
    ASSERT_EQ(1, readcmsconfig(&db));
    EXPECT_STREQ("127.0.0.1", db.szDbAddr);
    EXPECT_EQ(3307, db.szDbPort);
    EXPECT_STREQ("cms", db.szDbName);
    EXPECT_STREQ("cms", db.szDbUser);
    EXPECT_STREQ("cms", db.szDbPass);
    EXPECT_EQ(0, db.nLocalMode);

    ASSERT_EQ(1, readfilepath(paths_));
    const char* names[] = {"mcap",   "mrec", "mdown", "tcap",    "trec",
                           "regist", "intv", "face",  "diagnoss"};
    ASSERT_EQ(9u, paths_.size());
    for (size_t i = 0; i < paths_.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_STREQ(names[i], paths_[i]->name);
        EXPECT_EQ(i < 6 ? 0 : 1, paths_[i]->mode);
        EXPECT_EQ(std::string("var/store/") + names[i] + "/", paths_[i]->path);
        for (size_t j = 0; j < i; ++j) EXPECT_NE(paths_[j]->type, paths_[i]->type);
    }

    ASSERT_EQ(1, readdevconfig());
    ASSERT_GE(m_arrRtspString.size(), 3u);
    int rtspTemplates = 0;
    for (const _RtspHelpString* t : m_arrRtspString) {
        SCOPED_TRACE(t->name);
        EXPECT_NE('\0', t->name[0]);
        // The server writes the scheme itself.
        EXPECT_EQ(nullptr, std::strstr(t->main, "rtsp://"));
        if (t->link == 1) {
            ++rtspTemplates;
            EXPECT_NE(nullptr, std::strstr(t->main, "{ip}"));
            EXPECT_NE(nullptr, std::strstr(t->second, "{ip}"));
            EXPECT_EQ(nullptr, std::strchr(t->main, '&'));  // no entities: copied raw
        }
    }
    EXPECT_GE(rtspTemplates, 2);
}

TEST_F(Settings, LocalFileWithoutCfgOrMissingReadsNothing) {
    _LoaclParam p{};
    EXPECT_EQ(0, readconfig(&p));  // missing
    Write("cmslocal.xml", "");
    EXPECT_EQ(0, readconfig(&p));
    Write("cmslocal.xml", "<port>7001</port>");
    EXPECT_EQ(0, readconfig(&p));
    EXPECT_EQ(0, p.nPort);
    EXPECT_EQ(0, readconfig(nullptr));

    ASSERT_EQ(0, remove((dir_ + "/cmslocal.xml").c_str()));
    ASSERT_EQ(0, mkdir((dir_ + "/cmslocal.xml").c_str(), 0700));  // not a file
    EXPECT_EQ(0, readconfig(&p));
}

TEST_F(Settings, LocalFileFieldsAndTheOrderQuirk) {
    Write("cmslocal.xml",
          "<cfg><port>7001</port><hport>7080</hport><sn>SN1</sn>"
          "<cms><en>7</en><ip>10.1.1.1</ip><port>9000</port></cms></cfg>");
    _LoaclParam p{};
    std::strcpy(p.szRouteIP, "kept");
    ASSERT_EQ(1, readconfig(&p));
    EXPECT_EQ(7001, p.nPort);
    EXPECT_EQ(7080, p.nHttpPort);
    EXPECT_STREQ("SN1", p.szSerial);
    EXPECT_STREQ("kept", p.szRouteIP);  // a missing element leaves the field alone
    EXPECT_TRUE(p.bLinkCms);
    EXPECT_STREQ("10.1.1.1", p.szCmsIP);
    EXPECT_EQ(9000, p.nCmsPort);

    // The cms block first: its port is the first one found, so both ports take it.
    Write("cmslocal.xml",
          "<cfg><cms><en>0</en><port>9000</port></cms><port>7001</port><hport>1</hport></cfg>");
    _LoaclParam q{};
    ASSERT_EQ(1, readconfig(&q));
    EXPECT_EQ(9000, q.nPort);
    EXPECT_EQ(9000, q.nCmsPort);
    EXPECT_FALSE(q.bLinkCms);

    Write("cmslocal.xml", "<cfg><cms><en>yes</en></cms></cfg>");
    q.bLinkCms = true;
    ASSERT_EQ(1, readconfig(&q));
    EXPECT_FALSE(q.bLinkCms);  // non-numeric reads as 0
}

TEST_F(Settings, OverlongLocalValuesAreCutToTheirFields) {
    Write("cmslocal.xml", "<cfg><port>7001</port><sn>" + std::string(300, 's') + "</sn><route>" +
                              std::string(300, 'r') + "</route><cms><ip>" + std::string(400, 'i') +
                              "</ip><port>1</port></cms></cfg>");
    _LoaclParam p{};
    ASSERT_EQ(1, readconfig(&p));
    EXPECT_EQ(std::string(49, 's'), p.szSerial);
    EXPECT_EQ('\0', p.szDirect[0]);  // the field after szSerial is untouched
    EXPECT_EQ(std::string(99, 'r'), p.szRouteIP);
    // The cms block is cut to its buffer before the inner search: no </ip> remains in it.
    EXPECT_EQ('\0', p.szCmsIP[0]);
    EXPECT_EQ(0, p.nCmsPort);
}

TEST_F(Settings, DatabaseBlockIsOptionalAndBounded) {
    Write("cmsparam.xml", "<cfg><paths></paths></cfg>");
    _cmsParam p{};
    EXPECT_EQ(1, readcmsconfig(&p));
    EXPECT_EQ('\0', p.szDbAddr[0]);
    EXPECT_EQ(0, readcmsconfig(nullptr));

    Write("cmsparam.xml",
          "<db><user>" + std::string(80, 'u') + "</user><local>2</local><port>3306</port></db>");
    ASSERT_EQ(1, readcmsconfig(&p));
    EXPECT_EQ(std::string(29, 'u'), p.szDbUser);
    EXPECT_EQ('\0', p.szDbPass[0]);
    EXPECT_EQ(2, p.nLocalMode);
    EXPECT_EQ(3306, p.szDbPort);
}

TEST_F(Settings, FilePathsInFileOrder) {
    EXPECT_EQ(1, readfilepath(paths_));  // no file: nothing, still 1
    EXPECT_TRUE(paths_.empty());

    Write("cmsparam.xml",
          "<paths><path><name>a</name><type>1</type><mode>0</mode><p>/a/</p></path>\n"
          "<path><name>b</name></path><path><p>/c/</p><mode>1</mode></path></paths>");
    ASSERT_EQ(1, readfilepath(paths_));
    ASSERT_EQ(3u, paths_.size());
    EXPECT_STREQ("a", paths_[0]->name);
    EXPECT_EQ(1, paths_[0]->type);
    EXPECT_STREQ("/a/", paths_[0]->path);
    EXPECT_STREQ("b", paths_[1]->name);
    EXPECT_EQ('\0', paths_[1]->path[0]);  // missing elements stay zero
    EXPECT_EQ(0, paths_[1]->type);
    EXPECT_EQ(1, paths_[2]->mode);
    EXPECT_STREQ("/c/", paths_[2]->path);
}

TEST_F(Settings, MalformedOrHugePathListsEnd) {
    // End tags before the start tag: each still yields an (empty) record, the reader moves
    // past it, and an unclosed last entry ends the list.
    Write("cmsparam.xml", "<paths></path>x</path><path><name>z</name></paths>");
    EXPECT_EQ(1, readfilepath(paths_));
    ASSERT_EQ(2u, paths_.size());
    EXPECT_EQ('\0', paths_[1]->name[0]);
    ReleaseArray(paths_);

    std::string many = "<paths>";
    for (int i = 0; i < 500; ++i) many += "<path><name>n" + std::to_string(i) + "</name></path>";
    many += "</paths>";
    Write("cmsparam.xml", many);
    EXPECT_EQ(1, readfilepath(paths_));
    EXPECT_GT(paths_.size(), 50u);  // as many as fit in the block
    EXPECT_LT(paths_.size(), 500u);
    EXPECT_STREQ("n0", paths_[0]->name);
}

TEST_F(Settings, DeviceTemplates) {
    EXPECT_EQ(0, readdevconfig());  // missing
    Write("dev.xml", "<dev><name>x</name></dev>");
    EXPECT_EQ(0, readdevconfig());  // no <devs>

    Write("dev.xml",
          "<devs><dev><name>cam</name><verify>1</verify><link>1</link><type>5</type>"
          "<mode>2</mode><main>{ip}/m</main><sub>{ip}/s</sub></dev>"
          "<dev><name>" +
              std::string(600, 'n') +
              "</name></dev>"
              "<dev><name>last</name><verify>0</verify></dev></devs>");
    ASSERT_EQ(1, readdevconfig());
    ASSERT_EQ(3u, m_arrRtspString.size());
    const _RtspHelpString* t = m_arrRtspString[0];
    EXPECT_STREQ("cam", t->name);
    EXPECT_TRUE(t->bCheckPass);
    EXPECT_EQ(1, t->link);
    EXPECT_EQ(5, t->type);
    EXPECT_EQ(2, t->mode);
    EXPECT_STREQ("{ip}/m", t->main);
    EXPECT_STREQ("{ip}/s", t->second);
    // The over-long entry is cut to its buffer, losing its </name>: an empty record.
    EXPECT_EQ('\0', m_arrRtspString[1]->name[0]);
    EXPECT_STREQ("last", m_arrRtspString[2]->name);
    EXPECT_FALSE(m_arrRtspString[2]->bCheckPass);
}

}  // namespace
