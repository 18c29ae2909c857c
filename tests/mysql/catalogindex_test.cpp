// The indexed lookups against the scans they replace, on random catalogues full of
// duplicates and empty texts, through appends, login and field changes and reloads.
#include "mysql/catalogindex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>

#include "comm/sysutil.h"
#include "mysql/sqldbop.h"

namespace {

const char* const kTexts[] = {"", "A", "B", "C", "D"};
constexpr int kIds = 12;

class CatalogIndex : public ::testing::Test {
protected:
    void SetUp() override { CatalogIndexSetChecking(false); }  // the test compares itself
    void TearDown() override {
        Release();
        CatalogIndexSetChecking(true);
    }

    int Pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
    template <size_t N>
    void Text(char (&field)[N]) {
        std::snprintf(field, N, "%s", kTexts[Pick(5)]);
    }
    int Login() { return Pick(5) - 1; }

    // Appends `n` random records to every vector; the caller holds the write lock.
    void Append(int n) {
        for (int i = 0; i < n; ++i) {
            auto* r = new _msg_region_base{};
            r->nID = Pick(kIds);
            r->nParentID = Pick(kIds);
            Text(r->szSerial);
            m_arrRegionInfos.push_back(r);
            auto* d = new _hcrecord_Info{};
            d->dev.nID = Pick(kIds);
            Text(d->dev.szSerial);
            Text(d->dev.szCode);
            d->lLoginID = Login();
            m_arrRecordInfos.push_back(Pick(9) ? d : (delete d, nullptr));  // gaps too
            auto* c = new _msg_video_record_base{};
            c->nID = Pick(kIds);
            c->nDeviceID = Pick(3);
            c->nChan = Pick(3);
            c->nType = Pick(2);
            Text(c->szSerial);
            Text(c->szCode);
            m_arrVideoChanInfos.push_back(c);
            auto* s = new _sysserver_info{};
            s->svr.nID = Pick(kIds);
            Text(s->svr.szSerial);
            s->lLoginID = Login();
            m_arrServerFromDB.push_back(s);
            auto* m = new _domain_info{};
            m->svr.nID = Pick(kIds);
            Text(m->svr.szSerial);
            Text(m->svr.szCode);
            m->lLoginID = Login();
            m_arrDomainFromDB.push_back(m);
        }
    }
    void Release() {
        CatalogWriteLock lock(csCatalog);
        ReleaseUnlocked();
    }
    void ReleaseUnlocked() {
        ReleaseArray(m_arrRegionInfos);
        ReleaseArray(m_arrRecordInfos);
        ReleaseArray(m_arrVideoChanInfos);
        ReleaseArray(m_arrServerFromDB);
        ReleaseArray(m_arrDomainFromDB);
    }

    // Changes records as writers do: found by a lookup, or by position and then told.
    void ChangeSome() {
        if (_hcrecord_Info* d = GetDeviceInfoByID(m_arrRecordInfos, Pick(kIds))) {
            d->lLoginID = Login();
            Text(d->dev.szSerial);
        }
        if (_hcrecord_Info* d = GetDeviceInfoByCode(m_arrRecordInfos, kTexts[Pick(5)]))
            Text(d->dev.szCode);
        if (_msg_video_record_base* c = GetVideoChanInfoByID(m_arrVideoChanInfos, Pick(kIds))) {
            c->nChan = Pick(3);
            Text(c->szCode);
        }
        if (_domain_info* m = GetDomainInfoByLogin(m_arrDomainFromDB, Pick(4))) m->lLoginID = -1;
        if (_msg_region_base* r = GetRegionInfobySerial(m_arrRegionInfos, kTexts[Pick(5)]))
            Text(r->szSerial);
        if (m_arrServerFromDB.empty()) return;
        _sysserver_info* s = m_arrServerFromDB[Pick(static_cast<int>(m_arrServerFromDB.size()))];
        CatalogSetLogin(*s, Login());
        Text(s->svr.szSerial);
        CatalogIndexRefile(*s);
    }

    // Every lookup on the global vectors against the same lookup on a copy, which scans.
    void ExpectSameAnswers() {
        auto regions = m_arrRegionInfos;
        auto devs = m_arrRecordInfos;
        auto chans = m_arrVideoChanInfos;
        auto svrs = m_arrServerFromDB;
        auto doms = m_arrDomainFromDB;
        for (int k = -1; k <= kIds; ++k) {
            EXPECT_EQ(GetRegionInfobyID(m_arrRegionInfos, k), GetRegionInfobyID(regions, k));
            EXPECT_EQ(GetDeviceInfoByID(m_arrRecordInfos, k), GetDeviceInfoByID(devs, k));
            EXPECT_EQ(GetDeviceInfoByLogin(m_arrRecordInfos, k), GetDeviceInfoByLogin(devs, k));
            EXPECT_EQ(GetVideoChanInfoByID(m_arrVideoChanInfos, k), GetVideoChanInfoByID(chans, k));
            EXPECT_EQ(GetVideoChanInfoByDev(m_arrVideoChanInfos, k % 3, k % 4, k % 2),
                      GetVideoChanInfoByDev(chans, k % 3, k % 4, k % 2));
            EXPECT_EQ(GetSystemSvrByID(k, m_arrServerFromDB), GetSystemSvrByID(k, svrs));
            EXPECT_EQ(GetSystemSvrByLogin(k, m_arrServerFromDB), GetSystemSvrByLogin(k, svrs));
            EXPECT_EQ(GetDomainInfoByID(m_arrDomainFromDB, k), GetDomainInfoByID(doms, k));
            EXPECT_EQ(GetDomainInfoByLogin(m_arrDomainFromDB, k), GetDomainInfoByLogin(doms, k));
        }
        for (const char* t : {"", "A", "B", "C", "D", "E"}) {
            EXPECT_EQ(GetRegionInfobySerial(m_arrRegionInfos, t),
                      GetRegionInfobySerial(regions, t));
            EXPECT_EQ(GetDeviceInfoByCode(m_arrRecordInfos, t), GetDeviceInfoByCode(devs, t));
            EXPECT_EQ(GetDeviceInfoBySerial(m_arrRecordInfos, t), GetDeviceInfoBySerial(devs, t));
            EXPECT_EQ(GetVideoChanInfoByCode(m_arrVideoChanInfos, t),
                      GetVideoChanInfoByCode(chans, t));
            EXPECT_EQ(GetVideoChanInfoBySerial(m_arrVideoChanInfos, t),
                      GetVideoChanInfoBySerial(chans, t));
            EXPECT_EQ(GetSystemSvrBySerial(t, m_arrServerFromDB), GetSystemSvrBySerial(t, svrs));
            EXPECT_EQ(GetDomainInfoByCode(m_arrDomainFromDB, t), GetDomainInfoByCode(doms, t));
            EXPECT_EQ(GetDomainInfoBySerial(m_arrDomainFromDB, t), GetDomainInfoBySerial(doms, t));
        }
        EXPECT_EQ(GetDeviceInfoByCode(m_arrRecordInfos, nullptr), nullptr);
    }

    std::mt19937 rng{12345};
};

TEST_F(CatalogIndex, AnswersAsTheScanThroughChangesAndReloads) {
    for (int round = 0; round < 300; ++round) {
        {
            CatalogWriteLock lock(csCatalog);
            switch (Pick(6)) {
                case 0:
                    ReleaseUnlocked();
                    Append(Pick(20));
                    break;
                case 1:
                    Append(1 + Pick(3));
                    break;
                default:
                    ChangeSome();
                    ExpectSameAnswers();  // under the write lock, before any sync
            }
        }
        CatalogReadLock lock(csCatalog);
        ASSERT_TRUE(catidx::Devices().InStep(m_arrRecordInfos));
        ASSERT_TRUE(catidx::Chans().InStep(m_arrVideoChanInfos));
        ExpectSameAnswers();
    }
}

// A field changed behind the index's back is caught in checking mode, not answered wrongly.
TEST_F(CatalogIndex, CheckingStopsOnAMissedUpdate) {
    CatalogIndexSetChecking(true);
    _hcrecord_Info* d = nullptr;
    {
        CatalogWriteLock lock(csCatalog);
        Append(5);
        d = m_arrRecordInfos.back() ? m_arrRecordInfos.back() : m_arrRecordInfos.front();
    }
    d->lLoginID = 77;  // not through CatalogSetLogin
    EXPECT_DEATH(GetDeviceInfoByLogin(m_arrRecordInfos, 77), "differs from the scan");
    EXPECT_DEATH({ CatalogWriteLock lock(csCatalog); }, "out of step");
    CatalogWriteLock lock(csCatalog);
    CatalogSetLogin(*d, 77);
}

// Region walks: children lists and parent maps give the plain walks' results, on the
// indexed vector and on a copy, with cycles and duplicate ids.
TEST_F(CatalogIndex, RegionWalksOnRandomForests) {
    auto plainRegions = [](const _msg_region_base* region,
                           const std::vector<_msg_region_base*>& all) {
        std::vector<_msg_region_base*> out;
        std::vector<const _msg_region_base*> seen{region, GetRegionInfobyID(all, region->nID)};
        std::function<void(const _msg_region_base*)> walk = [&](const _msg_region_base* r) {
            for (_msg_region_base* c : all) {
                if (!c || c->nParentID != r->nID) continue;
                if (std::find(seen.begin(), seen.end(), c) != seen.end()) continue;
                seen.push_back(c);
                out.push_back(c);
                walk(c);
            }
        };
        walk(region);
        return out;
    };
    for (int round = 0; round < 40; ++round) {
        {
            CatalogWriteLock lock(csCatalog);
            ReleaseUnlocked();
            Append(1 + Pick(25));
        }
        CatalogReadLock lock(csCatalog);
        auto copy = m_arrRegionInfos;
        for (const auto* all : {&m_arrRegionInfos, &copy}) {
            for (_msg_region_base* r : *all) {
                std::vector<_msg_region_base*> out;
                GetRegions(r, *all, out);
                EXPECT_EQ(plainRegions(r, *all), out);
                std::vector<_msg_region_base*> up{all->front()}, plainUp{all->front()};
                GetParengRegionsEx(r, *all, up);
                size_t steps = all->size() + 1;
                for (_msg_region_base* p = r; p && steps > 0; --steps, p = GetParentRegion(p, *all))
                    if (std::none_of(plainUp.begin(), plainUp.end(),
                                     [p](auto* q) { return q->nID == p->nID; }))
                        plainUp.push_back(p);
                EXPECT_EQ(plainUp, up);
            }
            _msg_region_base* root = nullptr;
            for (_msg_region_base* r : *all)
                if (!root && !GetParentRegion(r, *all)) root = r;
            EXPECT_EQ(root, GetRootRegion(*all));
        }
    }
}

}  // namespace
