// The node list builders against digests of their output taken from the first (plainly
// quadratic) builders on randomised catalogues: duplicate ids and codes, empty codes,
// missing parents and parent cycles among regions and groups. Any change to the records
// or their order shows up as a different digest.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "mysql/nodecatalog.h"
#include "support/catalogbuilder.h"
#include "support/testdb.h"

namespace {

// "count:hash" of a node list as it goes on the wire; releases the list.
std::string Digest(std::vector<node_info*>& nodes) {
    uint64_t h = 1469598103934665603ull;
    unsigned char slot[NODE_INFO_SIZE];
    for (const node_info* n : nodes) {
        PackNodeInfo(*n, slot);
        for (unsigned char c : slot) h = (h ^ c) * 1099511628211ull;
    }
    const std::string digest = std::to_string(nodes.size()) + ":" + std::to_string(h);
    ReleaseArray(nodes);
    return digest;
}

// The block an entry point sends for `nodes`: the coded ones in order, then a zero slot
// for each one without a code.
std::string Block(const std::vector<node_info*>& nodes) {
    std::string block;
    unsigned char slot[NODE_INFO_SIZE];
    for (const node_info* n : nodes) {
        if (!n->szCode[0]) continue;
        PackNodeInfo(*n, slot);
        block.append(reinterpret_cast<const char*>(slot), sizeof slot);
    }
    block.resize(nodes.size() * NODE_INFO_SIZE, '\0');
    return block;
}

class RandomCatalogue {
public:
    explicit RandomCatalogue(unsigned seed) : m_rng(seed) {}

    // Small pools of ids and codes make duplicates and dangling references common.
    std::string Build(cmstest::CatalogBuilder& cat) {
        for (int i = 0; i < 40; ++i)
            cat.Region(i == 0 ? 1 : Pick(1, 35), i == 0 ? 0 : Pick(0, 37), Code("S", 30, 10),
                       ("r" + std::to_string(i)).c_str());
        for (int i = 0; i < 60; ++i)
            cat.Device(Pick(1, 50), Pick(1, 37), ("D" + std::to_string(i)).c_str(), "10.0.0.1",
                       8000, Pick(0, 255), Code("C", 45, 20))
                ->dev.nHardType = Pick(0, 9) < 8 ? 1 : 2;
        for (int i = 0; i < 150; ++i)
            cat.Channel(Pick(1, 120), Pick(1, 55), i, ("H" + std::to_string(i)).c_str(),
                        Code("K", 120, 20))
                ->nType = Pick(0, 9) < 9 ? 1 : 2;
        std::string sql =
            "delete from domainsharenode; delete from devicegroup;"
            "delete from devicegroupchan;";
        for (int i = 0; i < 80; ++i)
            sql += "insert into domainsharenode(nodeid,nodetype,domainid) values (" + Num(1, 130) +
                   "," +
                   std::to_string(Pick(0, 9) < 5   ? 2
                                  : Pick(0, 9) < 9 ? 3
                                                   : 7) +
                   ",5);";
        for (int id = 1; id <= 25; ++id)
            sql += "insert into devicegroup(id,name,parentId,regionid,scode,grouptype) values (" +
                   std::to_string(id) + ",'g" + std::to_string(id) + "'," + Num(0, 27) + "," +
                   Num(1, 37) + ",'" + Code("G", 20, 10) + "'," + (Pick(0, 9) ? "1" : "2") + ");";
        for (int i = 0; i < 100; ++i)
            sql += "insert into devicegroupchan(groupid,deviceid,DeviceChanId) values (" +
                   Num(1, 27) + "," + Num(1, 55) + "," + (Pick(0, 9) < 4 ? "0" : Num(1, 125)) +
                   ");";
        return sql;
    }

private:
    // Raw engine output: the distributions of the library may differ between versions.
    int Pick(int lo, int hi) { return lo + static_cast<int>(m_rng() % (hi - lo + 1)); }
    std::string Num(int lo, int hi) { return std::to_string(Pick(lo, hi)); }
    const char* Code(const char* prefix, int pool, int emptyPercent) {
        m_text = Pick(0, 99) < emptyPercent ? "" : prefix + std::to_string(Pick(1, pool));
        return m_text.c_str();
    }

    std::mt19937 m_rng;
    std::string m_text;
};

TEST(NodeCatalogEquivalence, RandomCataloguesGiveTheSameListsAsBefore) {
    cmstest::TestDatabase db;
    ASSERT_TRUE(db.ok());
    ASSERT_TRUE(db.Exec("insert into domaininfo(id, s_code) values (5, 'UP')"));
    // Whole list with and without folders, share list in both modes, group list.
    const std::vector<std::string> expected = {
        "1/59:3126707542669461513 1/39:15123490082293569361 1/59:3126707542669461513 "
        "1/22:3427989814492747238 1/63:7411099440113857252 ",
        "1/44:4499184648169344487 1/35:13494288524850665929 1/36:8593692470303185777 "
        "1/25:5310356213108899836 1/46:3793153164431982611 ",
        "1/45:12549194863145797893 1/39:10544665659999020480 1/42:2732755716398382055 "
        "1/23:15649376936037833738 1/59:13244365964541406561 ",
        "1/42:3242973757923250394 1/26:5865653816673182059 1/38:13977764883514345822 "
        "1/19:11764814076077829358 1/47:13843711764285354169 ",
        "1/43:12603866383549044052 1/38:12052054808871922366 1/43:12603866383549044052 "
        "1/24:6575131576141264018 1/51:1378055252975835097 ",
        "1/41:6557870373542751083 1/29:13493047586381531764 1/40:10007057833708810621 "
        "1/16:1400228557668173383 1/63:16428631879057244307 ",
        "1/41:11490261172127930995 1/37:11048901937976952999 1/34:3200136189478192254 "
        "1/28:6674855713535396825 1/53:12158032665623632578 ",
        "1/38:5264097594331145475 1/37:11045169037607712507 1/31:1695754391054655401 "
        "1/24:9829573138596539607 1/49:14611437288315641027 ",
        "1/63:6391995597218556320 1/41:2986849060124072764 1/61:17068954368121607377 "
        "1/22:13371739006382013645 1/70:7701428457260354330 ",
        "1/42:14524673955259022250 1/37:2627759248575059270 1/42:14524673955259022250 "
        "1/23:6722868557556896316 1/52:14567526727795321469 ",
        "1/97:3900149575012066397 1/40:2242351726428819557 1/75:16435380801962622956 "
        "1/21:8381090241064881363 1/63:9729696753295835151 ",
        "1/36:13137694546142662418 1/39:9309835257356296207 1/28:15593953834589816360 "
        "1/28:5398472662691795550 1/58:17947326813947694147 ",
    };
    std::vector<std::string> got;
    for (unsigned seed = 1; seed <= 12; ++seed) {
        cmstest::CatalogBuilder cat;
        RandomCatalogue random(seed);
        ASSERT_TRUE(db.Exec(random.Build(cat)));
        // Result and digest of each list, in a fixed order.
        std::string line;
        auto add = [&line](int result, std::vector<node_info*>& nodes) {
            line += std::to_string(result) + "/" + Digest(nodes) + " ";
        };
        for (int flag : {0, 1}) {
            std::vector<node_info*> whole, share;
            const int result = GetCmsNodesFromSystem(flag, whole);
            char* buf = nullptr;
            int len = 0;
            ASSERT_EQ(result, GetServerNodeFromRegion("UP", flag, buf, len));
            EXPECT_EQ(Block(whole), std::string(buf ? buf : "", buf ? len : 0)) << seed;
            delete[] buf;
            add(result, whole);
            add(GetNodesFromCMS("UP", flag, share), share);
        }
        std::vector<node_info*> group;
        add(GetGroupNodesFromSystem(group), group);
        got.push_back(line);
    }
    EXPECT_EQ(expected, got);
}

}  // namespace
