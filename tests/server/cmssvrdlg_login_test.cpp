// Logins and device pushes handed straight to the message callback, several clients at once.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "comm/globle.h"
#include "comm/msgdefine.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "server/CmsSvrDlg.h"
#include "support/testdb.h"

namespace {

const char kDomain[] = "34020000002000000001";

class LoginInProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        ASSERT_TRUE(
            db.Exec(std::string("insert into region(id,name,parentid) values (1,'root',0);"
                                "insert into domaininfo(id,name,sn,s_code) values "
                                "(1,'lower','DOMSN','") +
                    kDomain +
                    "');"
                    "insert into device(id,name,sn,regionid) values (10,'gate','DEV10',1)"));
        dlg = std::make_unique<CCMSSvrDlg>();
        m_cfgLocalParam.nPort = 0;
        db.UseForServer();
        ASSERT_TRUE(dlg->LoadData());
    }
    void TearDown() override {
        dlg->ClientWork().Drain();
        dlg->ReleaseData();
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrMediaRegInfos);
    }
    void Send(int client, uint8_t type, const std::string& payload) {
        std::string msg(sizeof(_msg_head_info), '\0');
        msg[0] = static_cast<char>(type);
        msg += payload;
        CCMSSvrDlg::MessageCallBack(client, reinterpret_cast<unsigned char*>(&msg[0]),
                                    static_cast<int>(msg.size()), dlg.get());
    }
    // Sends from `clients` threads at once, one client each, and waits for the work.
    void SendTogether(int clients, uint8_t type, const std::string& payload) {
        std::vector<std::thread> threads;
        for (int c = 0; c < clients; ++c)
            threads.emplace_back([=] { Send(100 + c, type, payload); });
        for (std::thread& t : threads) t.join();
        dlg->ClientWork().Drain();
    }
    static int Records(const char* serial) {
        CatalogReadLock lock(csCatalog);
        int n = 0;
        for (const _hcrecord_Info* d : m_arrRecordInfos)
            n += std::strcmp(d->dev.szSerial, serial) == 0;
        return n;
    }

    cmstest::TestDatabase db{true, false};
    std::unique_ptr<CCMSSvrDlg> dlg;
};

// The database finds the row whatever the letter case or trailing blanks; the login then
// takes the record the catalogue already holds instead of appending another.
TEST_F(LoginInProcess, ASerialSpeltOtherwiseLogsInTheKnownRecord) {
    testing::internal::CaptureStdout();
    Send(5, CMS_MSG_LOGIN, "dev10");
    Send(5, CMS_MSG_LOGIN, "DEV10  ");
    dlg->ClientWork().Drain();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("dev gate regist\ndev gate regist\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("notfind"), std::string::npos) << out;
    CatalogReadLock lock(csCatalog);
    ASSERT_EQ(m_arrRecordInfos.size(), 1u);
    EXPECT_EQ(m_arrRecordInfos[0]->lLoginID, 5);
}

TEST_F(LoginInProcess, OneNewSerialFromManyClientsAtOnceMakesOneRowAndRecord) {
    _msg_domain_info node{};
    node.nType = 3;  // a device registering itself
    std::strcpy(node.szDomainCode, kDomain);
    for (const char* serial : {"NEWA", "NEWB", "NEWC"}) {
        std::strcpy(node.szCode, serial);
        SendTogether(8, CMS_MSG_PUSH_DATA,
                     std::string(reinterpret_cast<const char*>(&node), sizeof(node)));
        EXPECT_EQ(db.Count("device", std::string("sn='") + serial + "'"), 1) << serial;
        EXPECT_EQ(Records(serial), 1) << serial;
    }
    // A row added behind the server's back, fetched by many logins at once.
    ASSERT_TRUE(db.Exec("insert into device(id,name,sn) values (90,'late','LATE12')"));
    SendTogether(8, CMS_MSG_LOGIN, "LATE12");
    EXPECT_EQ(Records("LATE12"), 1);
}

}  // namespace
