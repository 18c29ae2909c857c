// Catalogue load, reload and release through the server object.
#include "server/CmsSvrDlg.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/sqldbop.h"
#include "support/testdb.h"

namespace {

class ServerObject : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(db.ok());
        dlg = std::make_unique<CCMSSvrDlg>();
        m_cfgLocalParam.nPort = 0;  // no listeners in-process
        db.UseForServer();
    }
    void TearDown() override {
        dlg->ReleaseData();
        CatalogWriteLock lock(csCatalog);
        ReleaseArray(m_arrMediaRegInfos);
    }
    template <class V>
    size_t Size(const V& v) {
        CatalogReadLock lock(csCatalog);
        return v.size();
    }

    cmstest::TestDatabase db{true, true};
    std::unique_ptr<CCMSSvrDlg> dlg;
};

TEST_F(ServerObject, LoadsEveryCatalogueTable) {
    ASSERT_TRUE(dlg->LoadData());
    EXPECT_EQ(Size(m_arrRecordInfos), static_cast<size_t>(db.Count("device")));
    EXPECT_EQ(Size(m_arrVideoChanInfos), static_cast<size_t>(db.Count("devicechan")));
    EXPECT_EQ(Size(m_arrServerFromDB), static_cast<size_t>(db.Count("serverinfo")));
    EXPECT_EQ(Size(m_arrDomainFromDB), static_cast<size_t>(db.Count("domaininfo")));
    EXPECT_EQ(Size(m_arrMediaRegInfos), static_cast<size_t>(db.Count("mediaregistor")));
    ASSERT_GT(Size(m_arrRegionInfos), 0u);

    CatalogReadLock lock(csCatalog);
    // Root first, and every other region hangs below one already listed.
    EXPECT_EQ(GetParentRegion(m_arrRegionInfos[0], m_arrRegionInfos), nullptr);
    for (size_t i = 1; i < m_arrRegionInfos.size(); ++i) {
        bool parentEarlier = false;
        for (size_t j = 0; j < i; ++j)
            parentEarlier |= m_arrRegionInfos[j]->nID == m_arrRegionInfos[i]->nParentID;
        EXPECT_TRUE(parentEarlier) << "region " << m_arrRegionInfos[i]->nID;
    }
    for (_hcrecord_Info* d : m_arrRecordInfos) EXPECT_EQ(d->lLoginID, -1);
    EXPECT_EQ(dlg->m_nLastRegion.load(),
              std::atoll(db.Scalar("select min(id) from region").c_str()));
}

TEST_F(ServerObject, UnreachableRegionsAreDropped) {
    ASSERT_TRUE(db.Exec("insert into region(id,name,parentid) values (9001,'orphan',8888)"));
    ASSERT_TRUE(dlg->LoadData());
    CatalogReadLock lock(csCatalog);
    EXPECT_EQ(GetRegionInfobyID(m_arrRegionInfos, 9001), nullptr);
    EXPECT_EQ(m_arrRegionInfos.size(), static_cast<size_t>(db.Count("region") - 1));
}

TEST_F(ServerObject, ResetReloadsButAppendsRegistrationsAgain) {
    ASSERT_TRUE(dlg->LoadData());
    size_t devices = Size(m_arrRecordInfos);
    size_t regs = Size(m_arrMediaRegInfos);
    ASSERT_TRUE(db.Exec("insert into device(id,name,sn) values (9100,'new','SN-NEW-9100')"));
    EXPECT_TRUE(dlg->ResetSystem());
    EXPECT_EQ(Size(m_arrRecordInfos), devices + 1);
    EXPECT_EQ(Size(m_arrMediaRegInfos), regs * 2);
    CatalogReadLock lock(csCatalog);
    EXPECT_NE(GetDeviceInfoBySerial(m_arrRecordInfos, "SN-NEW-9100"), nullptr);
}

TEST_F(ServerObject, DatabaseDownLeavesTheCatalogueAlone) {
    m_cfgCms.szDbPort = 1;  // nothing listens on port 1
    EXPECT_FALSE(dlg->LoadData());
    EXPECT_EQ(Size(m_arrRecordInfos), 0u);
    EXPECT_EQ(Size(m_arrRegionInfos), 0u);
}

TEST_F(ServerObject, GetLastRegionIsTheSmallestId) {
    CMysqlDB conn;
    ASSERT_TRUE(ConnectDB(&conn));
    EXPECT_EQ(dlg->GetLastRegion(&conn),
              std::atol(db.Scalar("select min(id) from region").c_str()));
    EXPECT_EQ(dlg->GetLastRegion(nullptr), 0);
    ASSERT_TRUE(db.Exec("delete from region"));
    EXPECT_EQ(dlg->GetLastRegion(&conn), 0);
}

// Readers that follow the lock rules never see a freed record while resets run.
TEST_F(ServerObject, ReadersSurviveRepeatedResets) {
    ASSERT_TRUE(dlg->LoadData());
    std::string serial;
    {
        CatalogReadLock lock(csCatalog);
        ASSERT_FALSE(m_arrRecordInfos.empty());
        serial = m_arrRecordInfos.back()->dev.szSerial;
    }
    ASSERT_FALSE(serial.empty());
    std::atomic<bool> stop{false};
    std::atomic<long> found{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!stop) {
                CatalogReadLock lock(csCatalog);
                if (_hcrecord_Info* d = GetDeviceInfoBySerial(m_arrRecordInfos, serial.c_str()))
                    found += d->dev.szSerial[0] != 0;
            }
        });
    }
    // Before and after every reset a reader must find the record, whatever the load: each
    // reset waits for that instead of for a timer.
    auto readerFinds = [&found] {
        for (long before = found; found == before;) std::this_thread::yield();
    };
    readerFinds();
    for (int i = 0; i < 5; ++i) {
        dlg->ResetSystem();
        bool reloaded;
        {
            CatalogReadLock lock(csCatalog);
            reloaded = GetDeviceInfoBySerial(m_arrRecordInfos, serial.c_str()) != nullptr;
        }
        EXPECT_TRUE(reloaded);
        if (!reloaded) break;
        readerFinds();
    }
    stop = true;
    for (auto& t : readers) t.join();
}

}  // namespace
