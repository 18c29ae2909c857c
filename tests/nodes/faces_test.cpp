// Face registration against a loopback peer playing the media server in front of an
// analytics device.
#include "nodes/faces.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/globle.h"
#include "mysql/sqldbop.h"
#include "nodepeer.h"
#include "nodes/nodecmd.h"
#include "nodes/remotecfg.h"
#include "support/daemon.h"

namespace {

using Strings = std::vector<std::string>;

// Staff 3 has three pictures (and a directory that is not one), staff 4 none.
class Faces : public cmstest::NodePeerTest {
protected:
    void SetUp() override {
        NodePeerTest::SetUp();
        ASSERT_TRUE(db.Exec("insert into stiffinfo(id,name) values (3,'Ann'),(4,'Bo')"));
        for (const std::string& p : pictures) dir.Write("3/" + p.substr(0, 5), p);
        dir.Write("3/sub/d.jpg", "not a picture of staff 3");
    }
    std::string FaceId(int staff) {
        return db.Scalar("select faceid from staffinfo where id = " + std::to_string(staff));
    }
    const char* root() const { return dir.path().c_str(); }
    std::string Set(int type) const {
        return std::string(kIntvDev) + "/xconfig?cmd=setconfig&type=" + std::to_string(type);
    }

    const Strings pictures = {"a.jpg" + std::string("\xff\xd8\0\x01", 4), "b.jpg\x01\x02",
                              "c.jpg" + std::string(70000, 'c')};
    cmstest::TempDir dir;
};

}  // namespace

TEST_F(Faces, ThreePicturesMakeOneFaceAndTwoAdditions) {
    peer.Answer("type=35&name=", "<ret>77</ret>");
    peer.Answer("type=35&id=77", "<ret>1</ret>");
    EXPECT_EQ(RegistFaceEx(40, 2, 3, root()), 1);
    // The staff query returns ids only, so the name is empty.
    EXPECT_EQ(peer.Targets(),
              (Strings{Set(35) + "&name=", Set(35) + "&id=77", Set(35) + "&id=77"}));
    auto got = peer.Received();
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].body, pictures[i]) << i;
    EXPECT_EQ(FaceId(3), "77");  // not the "1" of the additions
    EXPECT_EQ(FaceId(4), "0");
}

TEST_F(Faces, RefusalsAndMissingPieces) {
    peer.Answer("type=35&name=", "", 404);
    EXPECT_EQ(RegistFaceEx(40, 2, 0, root()), 1);  // every staff member
    EXPECT_EQ(peer.Received().size(), 1u);         // the refused create ends staff 3's walk
    EXPECT_EQ(FaceId(3), "0");
    EXPECT_EQ(RegistFaceEx(40, 2, 9, root()), 0);

    CMysqlDB conn;
    ASSERT_TRUE(ConnectDB(&conn));
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(peer.port()) + kIntvDev;
    EXPECT_EQ(RegistFace(&conn, url.c_str(), root(), nullptr, 3), 0);  // no name: no create
    EXPECT_EQ(peer.Received().size(), 1u);
    CloseDB(&conn);
}

TEST_F(Faces, RemoteSetDeletesClearsAndRegisters) {
    std::vector<_file_path*> saved;
    saved.swap(m_arrFilePath);
    auto* area = new _file_path{"regist", 1, 0, {}};
    snprintf(area->path, sizeof area->path, "%s", root());
    m_arrFilePath.push_back(area);

    peer.Answer("type=37", "<ret>1</ret>");
    peer.Answer("type=38", "<ret>0</ret>");
    peer.Answer("type=35&name=", "<ret>5</ret>");
    peer.Answer("type=35&id=5", std::string(4, '\0'));
    EXPECT_TRUE(RemoteSetNode(40, 2, L_CFG_INTV_FACE_DELETE, 9));
    EXPECT_FALSE(RemoteSetNode(40, 2, L_CFG_INTV_FACE_DELETE, 0));  // clear, refused
    EXPECT_FALSE(RemoteSetNode(40, 2, L_CFG_INTV_FACE_ADD, 3));     // one staff id: not served
    EXPECT_TRUE(RemoteSetNode(40, 2, L_CFG_INTV_FACE_ADD, 0));
    Strings targets = peer.Targets();
    ASSERT_EQ(targets.size(), 5u);
    EXPECT_EQ(targets[0], Set(37) + "&sn=9");
    EXPECT_EQ(targets[1], Set(38));
    EXPECT_EQ(targets[4], Set(35) + "&id=5");
    EXPECT_EQ(FaceId(3), "5");

    delete area;
    m_arrFilePath.swap(saved);
}
